// Audio and handles for the a2x tests.
#pragma once
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "xj/xj_a2x.h"
#include "xj_testutil.h"

namespace a2xtest {

// Speech-like test audio: bursts of tones and noise with silences between.
inline std::vector<float> speech(int samples, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> noise(0.0f, 0.1f);
  std::vector<float> a(static_cast<size_t>(samples));
  double phase = 0;
  for (int i = 0; i < samples; ++i) {
    const double t = i / 16000.0;
    const double env = std::max(0.0, std::sin(2 * M_PI * 1.3 * t)) * (0.5 + 0.5 * std::sin(2 * M_PI * 0.31 * t));
    phase += 2 * M_PI * (180 + 60 * std::sin(2 * M_PI * 2.1 * t)) / 16000.0;
    a[static_cast<size_t>(i)] = static_cast<float>(env * (0.6 * std::sin(phase) + noise(rng)));
  }
  return a;
}

// Whether this process serves the short-window pair (set by CTest through W2V_ONNX).
inline bool pairMode() {
  const char* w = std::getenv("W2V_ONNX");
  return w && std::string(w).find("w2v_pair") != std::string::npos;
}

struct Frames {
  std::vector<int32_t> rows;
  std::vector<float> xs, xd, wn;
  size_t count() const { return rows.size(); }
};

// Pulls everything that is available now.
inline void drain(xj_a2x* h, Frames& f) {
  int32_t rows[32];
  float xs[32 * 63], xd[32 * 63], wn[32];
  for (;;) {
    const int n = xj_a2x_pull_wn(h, rows, xs, xd, wn, 32);
    if (n <= 0) return;
    f.rows.insert(f.rows.end(), rows, rows + n);
    f.xs.insert(f.xs.end(), xs, xs + 63 * n);
    f.xd.insert(f.xd.end(), xd, xd + 63 * n);
    f.wn.insert(f.wn.end(), wn, wn + n);
  }
}

// Polls avail until it stops growing; returns the last count.
inline int settle(xj_a2x* h) {
  int last = -1;
  for (;;) {
    const int n = xj_a2x_avail(h);
    if (n == last) return n;
    last = n;
  }
}

}  // namespace a2xtest
