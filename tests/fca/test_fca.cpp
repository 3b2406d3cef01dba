// The whole-utterance audio model: its running baseline against an
// independent numpy reference, and the model's calls.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "audio/xj_fca.h"
#include "xj/xj.h"
#include "xj_testutil.h"

namespace {

const std::string kEncoder = xjtest::fixture("w2v_only/w2v8.onnx");
const std::string kStream = xjtest::fixture("fca/fca_stream.onnx");

std::vector<float> numpyBaseline(const std::vector<float>& frames, int T) {
  xjtest::TempDir t;
  xjtest::writeFile(t / "in.f32", std::string(reinterpret_cast<const char*>(frames.data()), frames.size() * 4));
  const std::string cmd = std::string(XJ_PYTHON) + " " + XJ_SOURCE_DIR + "/tests/fca/baseline_ref.py " + (t / "in.f32") +
                          " " + (t / "out.f32") + " " + std::to_string(T);
  if (std::system(cmd.c_str()) != 0) throw std::runtime_error("reference failed: " + cmd);
  const std::string out = xjtest::readFile(t / "out.f32");
  std::vector<float> v(out.size() / 4);
  if (!v.empty()) std::memcpy(v.data(), out.data(), out.size());
  return v;
}

std::vector<float> audio(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> g(0.0f, 0.2f);
  std::vector<float> a(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) a[static_cast<size_t>(i)] = g(rng) * static_cast<float>(std::sin(i / 3000.0) > 0 ? 1 : 0.05);
  return a;
}

}  // namespace

TEST(FcaBaseline, AgreesWithNumpyReference) {
  std::mt19937 rng(4);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int T : {1, 7, 8, 37, 260}) {
    std::vector<float> frames(static_cast<size_t>(T) * xj::fca::kDim);
    for (int t = 0; t < T; ++t) {
      // Frames of random loudness, some silent: energies in every order.
      const float scale = (t % 5 == 3) ? 0.0f : std::exp(u(rng) * 2.0f);
      for (int d = 0; d < xj::fca::kDim; ++d) frames[static_cast<size_t>(t) * xj::fca::kDim + d] = u(rng) * scale;
    }
    const std::vector<float> want = numpyBaseline(frames, T);
    std::vector<float> got = frames;
    xj::fca::subtractRunningBaseline(got, T);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], want[i]) << "T " << T << " value " << i;
  }
}

TEST(FcaBaseline, ThresholdRules) {
  std::vector<float> scratch;
  const std::vector<float> e = {5, 0, 3, 9, 1, 4, 2, 8, 7, 6, 10};
  for (int t = 0; t < 7; ++t) EXPECT_EQ(xj::fca::baselineThreshold(e, t, scratch), 0.0f);
  // t = 7: sorted 0 1 2 3 4 5 8 9, position 1.4 -> 1.4.
  EXPECT_FLOAT_EQ(xj::fca::baselineThreshold(e, 7, scratch), 1.4f);
  // t = 10: sorted 0..10, position 2 exactly.
  EXPECT_EQ(xj::fca::baselineThreshold(e, 10, scratch), 2.0f);
  // A silent frame in the first seven never counts; every loud one does.
  std::vector<float> frames(3 * xj::fca::kDim, 0.0f);
  for (int d = 0; d < xj::fca::kDim; ++d) frames[static_cast<size_t>(2 * xj::fca::kDim + d)] = 1.0f;
  xj::fca::subtractRunningBaseline(frames, 3);
  for (int d = 0; d < xj::fca::kDim; ++d) {
    EXPECT_EQ(frames[static_cast<size_t>(d)], 0.0f);
    EXPECT_EQ(frames[static_cast<size_t>(2 * xj::fca::kDim + d)], 0.0f);  // itself is its own baseline
  }
}

TEST(Fca, DeltasPerFrame) {
  xj_fca* f = xj_fca_create(kEncoder.c_str(), kStream.c_str(), 1);
  ASSERT_NE(f, nullptr) << xj_fca_last_error();
  const std::vector<float> a = audio(16000 * 9 + 5, 3);  // two windows: frames 0..199 and 150..
  const int n = static_cast<int>(a.size());
  const int T = (n + 639) / 640;
  std::vector<float> out1(static_cast<size_t>(T) * 63, 0.0f), out2(out1.size(), 1.0f);
  EXPECT_EQ(xj_fca_deltas(f, a.data(), n, out1.data(), T - 1), -1);
  EXPECT_STREQ(xj_fca_last_error(), "");
  EXPECT_EQ(xj_fca_deltas(f, a.data(), 0, out1.data(), T), 0);
  ASSERT_EQ(xj_fca_deltas(f, a.data(), n, out1.data(), T), T) << xj_fca_last_error();
  ASSERT_EQ(xj_fca_deltas(f, a.data(), n, out2.data(), T), T);
  EXPECT_EQ(out1, out2);  // nothing is carried between calls
  double spread = 0;
  for (size_t i = 63; i < out1.size(); ++i) {
    ASSERT_TRUE(std::isfinite(out1[i]));
    spread += std::fabs(out1[i] - out1[i - 63]);
  }
  EXPECT_GT(spread, 0.0);
  // One sample is one frame.
  float one[63];
  EXPECT_EQ(xj_fca_deltas(f, a.data(), 1, one, 1), 1);
  xj_fca_destroy(f);
}

TEST(Fca, CreateRefusals) {
  EXPECT_EQ(xj_fca_create(kEncoder.c_str(), "/nonexistent/fca_stream.onnx", 1), nullptr);
  const std::string err = xj_fca_last_error();
  EXPECT_EQ(err.rfind("xj_fca_create: ", 0), 0u) << err;
  EXPECT_NE(err.find("/nonexistent/fca_stream.onnx"), std::string::npos) << err;
  xj_fca_destroy(nullptr);
}
