// The log-mel front end against numpy's float64 FFT (tests/motion/mel_reference.py),
// on windows of every kind, and the window a handle actually cuts from its audio.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "audio/xj_motion.h"
#include "audio/xj_motion_mel.h"
#include "motion_util.h"

using namespace motiontest;
namespace xm = xj::motion;

namespace {

// numpy's log-mel of each 6480-sample window, 80 x 21 doubles per window.
std::vector<double> numpyLogMel(const std::vector<float>& windows) {
  xjtest::TempDir tmp;
  writeF32(tmp / "windows.f32", windows);
  const std::string cmd = std::string(XJ_PYTHON) + " " + XJ_SOURCE_DIR + "/tests/motion/mel_reference.py " +
                          motionDir() + " " + (tmp / "windows.f32") + " " + (tmp / "mel.f64");
  if (std::system(cmd.c_str()) != 0) {
    ADD_FAILURE() << "reference failed: " << cmd;
    return {};
  }
  const std::string bytes = xjtest::readFile(tmp / "mel.f64");
  std::vector<double> out(bytes.size() / sizeof(double));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(double));
  return out;
}

// Relative agreement, with values near zero held to the same absolute bound.
void expectMelNear(const float* got, const double* want, const std::string& what) {
  int bad = 0;
  for (int i = 0; i < xm::kMelSize && bad < 5; ++i) {
    const double tol = 1e-4 * std::max(1.0, std::fabs(want[i]));
    if (!(std::fabs(got[i] - want[i]) <= tol)) {
      ADD_FAILURE() << what << ": mel[" << i / xm::kMelFrames << "][" << i % xm::kMelFrames << "] = " << got[i]
                    << ", numpy " << want[i];
      ++bad;
    }
  }
}

std::vector<float> table(const std::string& name) { return readF32(motionDir() + "/" + name); }

}  // namespace

TEST(MotionMel, AgreesWithNumpyOnEveryKindOfWindow) {
  std::mt19937 rng(5);
  std::normal_distribution<float> gauss(0.0f, 0.3f);
  const auto voice = speech(xm::kWindowSamples * 2, 3);
  std::vector<std::vector<float>> cases;
  // Leading zeros, as the window of frame 0 reads them, then speech.
  std::vector<float> lead(xm::kWindowSamples, 0.0f);
  for (int i = xm::kWindowBack; i < xm::kWindowSamples; ++i) lead[i] = voice[i];
  cases.push_back(lead);
  cases.emplace_back(voice.begin() + 1000, voice.begin() + 1000 + xm::kWindowSamples);
  std::vector<float> white(xm::kWindowSamples);
  for (auto& v : white) v = gauss(rng);
  cases.push_back(white);
  cases.emplace_back(xm::kWindowSamples, 0.0f);  // silence: every bin is ln(1e-8)
  std::vector<float> square(xm::kWindowSamples);
  for (int i = 0; i < xm::kWindowSamples; ++i) square[i] = ((i / 37) % 2) ? 1.0f : -1.0f;
  cases.push_back(square);
  // A lone impulse next to each edge: the reflection must mirror it without the edge sample.
  std::vector<float> edges(xm::kWindowSamples, 0.0f);
  edges[1] = 1.0f;
  edges[xm::kWindowSamples - 2] = -1.0f;
  edges[300] = 0.5f;
  cases.push_back(edges);

  std::vector<float> all;
  for (const auto& c : cases) all.insert(all.end(), c.begin(), c.end());
  const auto want = numpyLogMel(all);
  ASSERT_EQ(want.size(), cases.size() * xm::kMelSize);

  const auto window = table("hubert_stft_window.bin");
  const auto binmat = table("hubert_stft_binmat.bin");
  const xm::FftTwiddles tw;
  std::vector<float> mel(xm::kMelSize);
  for (size_t c = 0; c < cases.size(); ++c) {
    xm::logMel(cases[c].data(), window.data(), binmat.data(), tw, mel.data());
    expectMelNear(mel.data(), want.data() + c * xm::kMelSize, "case " + std::to_string(c));
  }
}

// The handle's first window reads 2000 zeros in front of the audio; its mel is
// what the dump shows, and the student's rows come back denormalised.
TEST(MotionMel, FirstWindowOfAHandleReadsZerosBeforeTheAudio) {
  xjtest::TempDir dump;
  xjtest::ScopedEnv env("XJ_MOTION_DUMP", dump.path().c_str());
  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  const auto audio = speech(xm::kWindowAhead + 640, 17);
  xj_motion_reset(h.m, 0, 1, 0);
  ASSERT_EQ(xj_motion_push(h.m, audio.data(), static_cast<int>(audio.size())), 1);
  EXPECT_EQ(xj_motion_avail(h.m), 0);

  std::vector<float> window(xm::kWindowSamples, 0.0f);
  for (int i = xm::kWindowBack; i < xm::kWindowSamples; ++i) window[i] = audio[i - xm::kWindowBack];
  const auto want = numpyLogMel(window);
  ASSERT_EQ(want.size(), static_cast<size_t>(xm::kMelSize));
  const auto mel = readF32(dump / "mel0.bin");
  ASSERT_EQ(mel.size(), static_cast<size_t>(xm::kMelSize));
  expectMelNear(mel.data(), want.data(), "mel0");

  // The test student copies mel[d % 80][r] into feat[r][d].
  const auto feat = readF32(dump / "feat0.bin");
  const auto fmean = table("hubert_fmean.bin"), fstd = table("hubert_fstd.bin");
  ASSERT_EQ(feat.size(), 20u * 1024u);
  for (int r = 0; r < 20; ++r)
    for (int d = 0; d < 1024; ++d) {
      const float m = mel[(d % 80) * xm::kMelFrames + r];
      ASSERT_EQ(feat[r * 1024 + d], m * fstd[d] + fmean[d]) << r << "," << d;
    }
}
