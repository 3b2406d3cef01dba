// A host of the live session for tests: opens the engine handle and the
// session, pulls frames with their metadata, and checks the frame stream's
// invariants as it goes.
#pragma once
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "xj/xj.h"
#include "xj_testutil.h"

namespace utttest {

inline void useEncoders() {
  setenv("W2V_ONNX", (xjtest::fixturesDir() + "/w2v_pair/w2v8.onnx").c_str(), 0);
}

// 16-bit speech-like audio: tone bursts.
inline std::vector<int16_t> speech(int samples, unsigned seed) {
  std::vector<int16_t> a(static_cast<size_t>(samples));
  double ph = 0;
  for (int i = 0; i < samples; ++i) {
    const double t = i / 16000.0;
    ph += 2 * M_PI * (170 + 40 * std::sin(2 * M_PI * (1.7 + seed % 3) * t)) / 16000.0;
    const double env = std::max(0.0, std::sin(2 * M_PI * 1.1 * t + seed));
    a[static_cast<size_t>(i)] = static_cast<int16_t>(12000 * env * std::sin(ph));
  }
  return a;
}

struct Frame {
  xj_utt_frame_info info;
  std::vector<uint8_t> rgb;
};

struct Session {
  xj_ctx* ctx = nullptr;
  xj_utt* u = nullptr;
  int W = 0, H = 0, NT = 0;
  std::vector<uint8_t> buf;

  Session(const std::string& bundle, const std::string& motionDir, int pipePaste, const char* steady = "b4",
          double gapS = -1, int eager = 0) {
    useEncoders();
    xjtest::ScopedEnv pipe("XJ_UTT_PIPELINE_PASTE", pipePaste ? "1" : "0");
    ctx = xj_create(bundle.c_str(), "b1", 1, "");
    EXPECT_NE(ctx, nullptr) << xj_last_error();
    if (!ctx) return;
    W = xj_width(ctx);
    H = xj_height(ctx);
    NT = xj_nt(ctx);
    buf.resize(static_cast<size_t>(W) * H * 3);
    xj_utt_opts o{};
    o.motion_dir = motionDir.c_str();
    o.threads = 1;
    o.steady_model = steady;
    o.gap_s = gapS;
    o.eager = eager;
    u = xj_utt_create(ctx, &o);
    EXPECT_NE(u, nullptr) << xj_utt_last_error();
  }
  ~Session() {
    xj_utt_destroy(u);
    xj_destroy(ctx);
  }

  bool waitReady(int ms = 20000) {
    for (int i = 0; i < ms; ++i) {
      const int r = xj_utt_ready(u);
      if (r != 0) return r == 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  // Pulls one frame, waiting up to `ms` for it.
  bool pull(Frame& f, int ms = 20000) {
    for (int i = 0; i < ms * 10; ++i) {
      if (xj_utt_pull_frame(u, buf.data(), buf.size(), &f.info) == 1) {
        f.rgb = buf;
        return true;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return false;
  }

  void push(const std::vector<int16_t>& a) { xj_utt_push_audio(u, a.data(), static_cast<int>(a.size())); }
};

}  // namespace utttest
