#include "audio/xj_motion_mel.h"

#include <cmath>

namespace xj::motion {

namespace {

// Per-thread scratch: the reflected window, the FFT in and out, magnitudes.
thread_local float padded[kPadded];
thread_local float fin[kFftSize];
thread_local float re[kFftSize];
thread_local float im[kFftSize];
thread_local float mag[kFftBins];

constexpr int kLog2Fft = 9;

int bitReverse(int v) {
  int r = 0;
  for (int b = 0; b < kLog2Fft; ++b) {
    r = (r << 1) | (v & 1);
    v >>= 1;
  }
  return r;
}

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
    const int j = bitReverse(i);
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
  // Mirror without repeating the edge sample: padded[0] is samples[256].
  for (int j = 0; j < kReflect; ++j) padded[j] = samples[kReflect - j];
  for (int j = 0; j < kWindowSamples; ++j) padded[kReflect + j] = samples[j];
  for (int j = 0; j < kReflect; ++j) padded[kReflect + kWindowSamples + j] = samples[kWindowSamples - 2 - j];

  for (int t = 0; t < kMelFrames; ++t) {
    const float* frame = padded + t * kMelHop;
    for (int i = 0; i < kFftSize; ++i) fin[i] = frame[i] * stftWindow[i];
    for (int i = 0; i < kFftSize; ++i) {
      re[i] = fin[i];
      im[i] = 0.0f;
    }
    fft512(re, im, tw);
    for (int k = 0; k < kFftBins; ++k) mag[k] = std::sqrt(re[k] * re[k] + im[k] * im[k]);
    for (int b = 0; b < kMelBins; ++b) {
      float sum = 0.0f;
      for (int k = 0; k < kFftBins; ++k) sum += binmat[k * kMelBins + b] * mag[k];
      mel[b * kMelFrames + t] = std::log(sum + kMelFloor);
    }
  }
}

}  // namespace xj::motion
