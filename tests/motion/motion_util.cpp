#include "motion_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

namespace motiontest {

std::string motionDir() { return xjtest::fixture("motion"); }
std::string graphVariant(const std::string& name) { return xjtest::fixture("motion_graphs/" + name); }

Motion::Motion(const std::string& dir, int threads, const char* ep) {
  m = xj_motion_create(dir.c_str(), threads, ep);
  if (!m) error = xj_motion_last_error();
}

Motion::~Motion() { xj_motion_destroy(m); }

std::vector<float> speech(size_t samples, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> noise(0.0f, 0.01f);
  std::vector<float> out(samples);
  const double pi = 3.14159265358979323846;
  for (size_t i = 0; i < samples; ++i) {
    const double t = static_cast<double>(i) / 16000.0;
    const double syllable = 0.5 + 0.5 * std::sin(2.0 * pi * 3.1 * t + seed);
    const double pitch = 110.0 + 30.0 * std::sin(2.0 * pi * 0.7 * t);
    double v = 0.0;
    for (int h = 1; h <= 6; ++h) v += std::sin(2.0 * pi * pitch * h * t) / h;
    out[i] = static_cast<float>(0.25 * syllable * syllable * v) + noise(rng);
  }
  return out;
}

std::vector<float> readF32(const std::string& path) {
  const std::string bytes = xjtest::readFile(path);
  std::vector<float> v(bytes.size() / sizeof(float));
  if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
  return v;
}

void writeF32(const std::string& path, const std::vector<float>& v) {
  xjtest::writeFile(path, std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(float)));
}

bool pullReady(xj_motion* m, Frames& out, int maxPerPull) {
  for (;;) {
    const int ready = xj_motion_avail(m);
    if (ready == 0) return std::string(xj_motion_last_error()).empty();
    const int n = std::min(ready, maxPerPull);
    std::vector<int> rows(n, -1);
    std::vector<float> xs(static_cast<size_t>(n) * 63), xd(static_cast<size_t>(n) * 63);
    const int got = xj_motion_pull(m, rows.data(), xs.data(), xd.data(), n);
    if (got != n) return false;
    out.rows.insert(out.rows.end(), rows.begin(), rows.end());
    out.xs.insert(out.xs.end(), xs.begin(), xs.end());
    out.xd.insert(out.xd.end(), xd.begin(), xd.end());
  }
}

Frames utterance(xj_motion* m, const std::vector<float>& audio, size_t piece, int eager, bool stream,
                 int* beforeFinish, int loop) {
  Frames out;
  xj_motion_set_eager(m, eager);
  xj_motion_reset(m, 0, 1, loop);
  for (size_t at = 0; at < audio.size(); at += piece) {
    const size_t n = std::min(piece, audio.size() - at);
    EXPECT_EQ(xj_motion_push(m, audio.data() + at, static_cast<int>(n)), 1) << xj_motion_last_error();
    if (stream) {
      EXPECT_TRUE(pullReady(m, out)) << xj_motion_last_error();
    }
  }
  if (beforeFinish) *beforeFinish = out.count();
  xj_motion_finish(m);
  EXPECT_TRUE(pullReady(m, out)) << xj_motion_last_error();
  return out;
}

MotionCopy::MotionCopy() : dir(tmp / "motion") { xjtest::copyTree(motionDir(), dir); }

}  // namespace motiontest
