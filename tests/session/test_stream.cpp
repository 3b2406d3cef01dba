// The batch stream against the same frames made one at a time through the
// public calls, and its ends: skips, gain, wrap, failures.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "xj/xj.h"
#include "xj_testutil.h"

namespace {

const std::string kLive = xjtest::fixture("live");
const std::string kEncoder = xjtest::fixture("w2v_only/w2v8.onnx");

std::vector<float> speech(int n) {
  std::vector<float> a(static_cast<size_t>(n));
  double ph = 0;
  for (int i = 0; i < n; ++i) {
    ph += 2 * M_PI * (160 + 50 * std::sin(i / 4000.0)) / 16000.0;
    a[static_cast<size_t>(i)] = static_cast<float>(0.5 * std::max(0.0, std::sin(i / 2500.0)) * std::sin(ph));
  }
  return a;
}

struct Collected {
  std::vector<std::vector<uint8_t>> frames;
  int sleepAt = -1;
};

void collect(void* user, int frame, const uint8_t* rgb, int w, int h) {
  auto* c = static_cast<Collected*>(user);
  EXPECT_EQ(frame, static_cast<int>(c->frames.size()));
  c->frames.emplace_back(rgb, rgb + static_cast<size_t>(w) * h * 3);
  if (frame == c->sleepAt) std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

// The same frames made serially through the public calls: deltas of the whole
// utterance, rows from the resting keypoints, render, paste.
std::vector<std::vector<uint8_t>> serial(const std::vector<float>& audio, int skip, float gain) {
  xj_ctx* h = xj_create(kLive.c_str(), "render", 1, "");
  xj_fca* f = xj_fca_create(kEncoder.c_str(), (kLive + "/fca_stream.onnx").c_str(), 1);
  const int n = static_cast<int>(audio.size()), T = (n + 639) / 640, NT = xj_nt(h);
  std::vector<float> deltas(static_cast<size_t>(T) * 63);
  EXPECT_EQ(xj_fca_deltas(f, audio.data(), n, deltas.data(), T), T);
  const std::string tk = xjtest::readFile(kLive + "/xs_target.bin");
  const auto* target = reinterpret_cast<const float*>(tk.data());
  std::vector<uint8_t> rgb(static_cast<size_t>(xj_width(h)) * xj_height(h) * 3);
  std::vector<std::vector<uint8_t>> out;
  for (int t = skip; t < T; ++t) {
    const int si = t % NT;
    float xd[63];
    for (int j = 0; j < 63; ++j) xd[j] = gain * deltas[static_cast<size_t>(t) * 63 + j] + target[si * 63 + j];
    const float* crop = xj_render_kp_crop(h, si, target + si * 63, xd);
    EXPECT_NE(crop, nullptr);
    EXPECT_EQ(xj_paste_crop(h, si, crop, rgb.data(), rgb.size()), 1);
    out.push_back(rgb);
  }
  xj_fca_destroy(f);
  xj_destroy(h);
  return out;
}

}  // namespace

TEST(Stream, FramesEqualTheSerialRoad) {
  const std::vector<float> audio = speech(16000 + 3000);  // 30 frames over a loop of 12
  for (auto [skip, gain] : {std::pair{0, 1.0f}, {2, 1.0f}, {0, 0.0f}, {5, 2.5f}}) {
    xj_stream* s = xj_stream_create(kLive.c_str(), kEncoder.c_str(), 1, skip, gain);
    ASSERT_NE(s, nullptr) << xj_stream_last_error();
    Collected c;
    EXPECT_EQ(xj_stream_run(s, audio.data(), static_cast<int>(audio.size()), collect, &c), 30 - skip);
    const auto want = serial(audio, skip, gain);
    ASSERT_EQ(c.frames.size(), want.size());
    for (size_t k = 0; k < want.size(); ++k) ASSERT_EQ(c.frames[k], want[k]) << "skip " << skip << " frame " << k;
    xj_stream_destroy(s);
  }
}

TEST(Stream, Ends) {
  xj_stream* s = xj_stream_create(kLive.c_str(), kEncoder.c_str(), 1, 3, 1.0f);
  ASSERT_NE(s, nullptr) << xj_stream_last_error();
  EXPECT_EQ(xj_stream_width(s), 40);
  EXPECT_EQ(xj_stream_height(s), 32);
  const std::vector<float> audio = speech(16000);
  Collected c;
  EXPECT_EQ(xj_stream_run(s, audio.data(), 0, collect, &c), 0);
  EXPECT_EQ(xj_stream_run(s, audio.data(), 3 * 640, collect, &c), 0);  // skip >= T
  EXPECT_TRUE(c.frames.empty());
  EXPECT_EQ(xj_stream_run(s, audio.data(), static_cast<int>(audio.size()), nullptr, nullptr), 25 - 3);
  EXPECT_STREQ(xj_stream_last_error(), "");
  xj_stream_destroy(s);
  xj_stream_destroy(nullptr);
}

TEST(Stream, CreateRefusals) {
  xjtest::TempDir t;
  const std::string noFca = t / "nofca", noTarget = t / "notarget";
  xjtest::copyTree(kLive, noFca);
  xjtest::removeTree(noFca + "/fca_stream.onnx");
  xjtest::copyTree(kLive, noTarget);
  xjtest::removeTree(noTarget + "/xs_target.bin");
  EXPECT_EQ(xj_stream_create(noFca.c_str(), kEncoder.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_EQ(std::string(xj_stream_last_error()).rfind("xj_fca_create: xj_fca_create: ", 0), 0u) << xj_stream_last_error();
  EXPECT_EQ(xj_stream_create(noTarget.c_str(), kEncoder.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STREQ(xj_stream_last_error(), "xj_stream_create: cannot read xs_target.bin (NT*63 f32)");
  EXPECT_EQ(xj_stream_create("/nonexistent", kEncoder.c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STREQ(xj_stream_last_error(), "xj_create: xj_create: cannot open /nonexistent/manifest.json");
}

TEST(Stream, APasteFailureEndsTheRunWithoutAHang) {
  // The driver's frame 4 does not decode, and the cursor throws its latched
  // failure at the first pull after it: a paste fails by frame 4 at the latest,
  // while the render thread, held up by a slow first callback, waits for room.
  xj_stream* s = xj_stream_create(xjtest::fixture("live_broken").c_str(), kEncoder.c_str(), 1, 0, 1.0f);
  ASSERT_NE(s, nullptr) << xj_stream_last_error();
  const std::vector<float> audio = speech(16000);
  Collected c;
  c.sleepAt = 0;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(xj_stream_run(s, audio.data(), static_cast<int>(audio.size()), collect, &c), -1);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 10.0);
  EXPECT_STREQ(xj_stream_last_error(), "xj_stream_run: render/paste failed");
  EXPECT_GE(c.frames.size(), 1u);
  EXPECT_LE(c.frames.size(), 4u);
  xj_stream_destroy(s);
}
