#include "audio/xj_motion_mel.h"

#include <cmath>
#include <cstdint>

namespace xj::motion {

namespace {

// Per-thread scratch: the reflected window, the FFT in and out, magnitudes.
thread_local float padded[kPadded];
thread_local float fin[kFftSize];
thread_local float re[kFftSize];
thread_local float im[kFftSize];
thread_local float mag[kFftBins];

constexpr int kLog2Fft = 9;

struct BitReverse {
  int16_t of[kFftSize];
  BitReverse() {
    for (int i = 0; i < kFftSize; ++i) {
      int r = 0, v = i;
      for (int b = 0; b < kLog2Fft; ++b) {
        r = (r << 1) | (v & 1);
        v >>= 1;
      }
      of[i] = static_cast<int16_t>(r);
    }
  }
};
const BitReverse kBitReverse;

}  // namespace

FftTwiddles::FftTwiddles() {
  const double pi = 3.14159265358979323846;
  for (int k = 0; k < kFftSize / 2; ++k) {
    const double angle = -2.0 * pi * k / kFftSize;
    re[k] = static_cast<float>(std::cos(angle));
    im[k] = static_cast<float>(std::sin(angle));
  }
}

void fft512(float* xr, float* xi, const FftTwiddles& tw) {
  for (int i = 0; i < kFftSize; ++i) {
    const int j = kBitReverse.of[i];
    if (j > i) {
      const float tr = xr[i], ti = xi[i];
      xr[i] = xr[j];
      xi[i] = xi[j];
      xr[j] = tr;
      xi[j] = ti;
    }
  }
  for (int size = 2; size <= kFftSize; size <<= 1) {
    const int half = size / 2;
    const int step = kFftSize / size;
    for (int start = 0; start < kFftSize; start += size) {
      for (int j = 0; j < half; ++j) {
        const float wr = tw.re[j * step], wi = tw.im[j * step];
        const int k = start + j, l = k + half;
        const float tr = wr * xr[l] - wi * xi[l];
        const float ti = wr * xi[l] + wi * xr[l];
        xr[l] = xr[k] - tr;
        xi[l] = xi[k] - ti;
        xr[k] = xr[k] + tr;
        xi[k] = xi[k] + ti;
      }
    }
  }
}

void logMel(const float* samples, const float* stftWindow, const float* binmat, const FftTwiddles& tw,
            float* mel) {
  // The per-thread arrays are looked up once; in position-independent code
  // every access to a thread_local is otherwise a call.
  float* __restrict pad = padded;
  float* __restrict in = fin;
  float* __restrict xr = re;
  float* __restrict xi = im;
  float* __restrict mg = mag;
  float sums[kMelBins];

  // Mirror without repeating the edge sample: pad[0] is samples[256].
  for (int j = 0; j < kReflect; ++j) pad[j] = samples[kReflect - j];
  for (int j = 0; j < kWindowSamples; ++j) pad[kReflect + j] = samples[j];
  for (int j = 0; j < kReflect; ++j) pad[kReflect + kWindowSamples + j] = samples[kWindowSamples - 2 - j];

  for (int t = 0; t < kMelFrames; ++t) {
    const float* frame = pad + t * kMelHop;
    for (int i = 0; i < kFftSize; ++i) in[i] = frame[i] * stftWindow[i];
    for (int i = 0; i < kFftSize; ++i) {
      xr[i] = in[i];
      xi[i] = 0.0f;
    }
    fft512(xr, xi, tw);
    for (int k = 0; k < kFftBins; ++k) mg[k] = std::sqrt(xr[k] * xr[k] + xi[k] * xi[k]);
    // Each mel bin sums its terms in bin order k = 0..256; running the 80 sums
    // side by side keeps that order and reads the matrix row by row.
    for (int b = 0; b < kMelBins; ++b) sums[b] = 0.0f;
    for (int k = 0; k < kFftBins; ++k) {
      const float m = mg[k];
      const float* __restrict w = binmat + k * kMelBins;
      for (int b = 0; b < kMelBins; ++b) sums[b] += w[b] * m;
    }
    for (int b = 0; b < kMelBins; ++b) mel[b * kMelFrames + t] = std::log(sums[b] + kMelFloor);
  }
}

}  // namespace xj::motion
