// The motion model's own speech front end: one audio window to a log-mel
// spectrogram of 80 bins by 21 frames. Plain scalar arithmetic; the networks
// behind it take the time.
#pragma once
#include <cstddef>

namespace xj::motion {

constexpr int kWindowSamples = 6480;  // 2000 samples back, 4480 forward of a window's first frame
constexpr int kWindowBack = 2000;
constexpr int kWindowAhead = 4480;
constexpr int kFftSize = 512;
constexpr int kFftBins = kFftSize / 2 + 1;  // 257
constexpr int kReflect = kFftSize / 2;      // 256 samples mirrored at each side
constexpr int kPadded = kWindowSamples + 2 * kReflect;
constexpr int kMelHop = 320;
constexpr int kMelBins = 80;
constexpr int kMelFrames = 21;
constexpr int kMelSize = kMelBins * kMelFrames;  // 1680
constexpr float kMelFloor = 1e-8f;

// exp(-2 pi i k / 512) for k in [0, 256): the twiddles of the 512-point FFT.
struct FftTwiddles {
  float re[kFftSize / 2];
  float im[kFftSize / 2];
  FftTwiddles();
};

// In-place radix-2 decimation-in-time FFT of 512 points.
void fft512(float* re, float* im, const FftTwiddles& tw);

// mel[b * 21 + t] = ln(sum_k binmat[k * 80 + b] * |FFT(window * frame t)|[k] + 1e-8)
// over the window reflected by 256 samples at both ends, frames at a hop of 320.
// `samples` holds 6480 values, `stftWindow` 512, `binmat` 257 rows of 80.
// Scratch is per thread, so handles on different threads share nothing.
void logMel(const float* samples, const float* stftWindow, const float* binmat, const FftTwiddles& tw,
            float* mel);

}  // namespace xj::motion
