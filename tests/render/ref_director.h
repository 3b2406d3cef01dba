// An independent computation of the generated test directors (tools/bundlegen),
// straight from the member files, in double precision.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <unistd.h>
#include <string>
#include <vector>

#include "xj_testutil.h"

namespace refdir {

inline double half(uint16_t h) {
  const int s = h >> 15, e = (h >> 10) & 31, m = h & 1023;
  double v = e == 0 ? std::ldexp(m, -24) : std::ldexp(1.0 + m / 1024.0, e - 15);
  return s ? -v : v;
}

inline std::vector<double> halves(const std::string& file, size_t offset, size_t count) {
  const std::string bytes = xjtest::readFile(file);
  std::vector<double> out(count);
  for (size_t i = 0; i < count; ++i) {
    uint16_t h;
    std::memcpy(&h, bytes.data() + 2 * (offset + i), 2);
    out[i] = half(h);
  }
  return out;
}

// t = mean over rows of (kd - ks), per coordinate.
inline void kpTerm(const float* ks, const float* kd, double t[3]) {
  for (int c = 0; c < 3; ++c) {
    double s = 0;
    for (int r = 0; r < 21; ++r) s += static_cast<double>(kd[r * 3 + c]) - ks[r * 3 + c];
    t[c] = s / 21;
  }
}

// The member file under whichever of its two names the bundle uses.
inline std::string member(const std::string& dir, const std::string& legacy, const std::string& canonical) {
  return ::access((dir + "/" + legacy).c_str(), F_OK) == 0 ? dir + "/" + legacy : dir + "/" + canonical;
}

inline double pooledMean(const std::string& dir, int si) {
  const auto p = halves(member(dir, "pooled64.f16", "pooled_features.f16"), static_cast<size_t>(si) * 65536, 65536);
  double s = 0;
  for (double v : p) s += v;
  return s / 65536;
}

constexpr double kPoolW[3] = {0.5, -0.25, 1.0};

// The plain director: a bilinear GridSample (zeros, align_corners=0) of the prior
// shifted by half the mean keypoint displacement, plus the pooled and keypoint terms.
inline std::vector<double> plainCrop(const std::string& dir, int crop, int si, const float* ks, const float* kd) {
  const size_t plane = static_cast<size_t>(crop) * crop;
  const auto P = halves(member(dir, "P.f16", "source_frames.f16"), static_cast<size_t>(si) * plane * 3, plane * 3);
  const double pm = pooledMean(dir, si);
  double t[3];
  kpTerm(ks, kd, t);
  std::vector<double> out(plane * 3);
  for (int c = 0; c < 3; ++c) {
    for (int y = 0; y < crop; ++y) {
      for (int x = 0; x < crop; ++x) {
        const double gx = (2.0 * x + 1) / crop - 1 + 0.5 * t[0];
        const double gy = (2.0 * y + 1) / crop - 1 + 0.5 * t[1];
        const double ix = ((gx + 1) * crop - 1) / 2, iy = ((gy + 1) * crop - 1) / 2;
        const int x0 = static_cast<int>(std::floor(ix)), y0 = static_cast<int>(std::floor(iy));
        const double fx = ix - x0, fy = iy - y0;
        double v = 0;
        for (int dy = 0; dy < 2; ++dy)
          for (int dx = 0; dx < 2; ++dx) {
            const int xx = x0 + dx, yy = y0 + dy;
            if (xx < 0 || yy < 0 || xx >= crop || yy >= crop) continue;
            const double w = (dx ? fx : 1 - fx) * (dy ? fy : 1 - fy);
            v += w * P[c * plane + static_cast<size_t>(yy) * crop + xx];
          }
        out[c * plane + static_cast<size_t>(y) * crop + x] = v + pm * kPoolW[c] + 0.1 * t[c];
      }
    }
  }
  return out;
}

// The FeatSynth director: an average pool of the first three feature channels
// down to the crop, plus the pooled and keypoint terms.
inline std::vector<double> featSynthCrop(const std::string& dir, int crop, int si, const float* ks, const float* kd) {
  const size_t fsPlane = 64 * 64;
  const auto fs = halves(dir + "/fs_red.f16", static_cast<size_t>(si) * 262144, 3 * fsPlane);
  const double pm = pooledMean(dir, si);
  double t[3];
  kpTerm(ks, kd, t);
  const int k = 64 / crop;
  const size_t plane = static_cast<size_t>(crop) * crop;
  std::vector<double> out(plane * 3);
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < crop; ++y)
      for (int x = 0; x < crop; ++x) {
        double s = 0;
        for (int a = 0; a < k; ++a)
          for (int b = 0; b < k; ++b) s += fs[c * fsPlane + static_cast<size_t>(y * k + a) * 64 + x * k + b];
        out[c * plane + static_cast<size_t>(y) * crop + x] = s / (k * k) + pm * kPoolW[c] + 0.1 * t[c];
      }
  return out;
}

inline double maxAbsDiff(const float* got, const std::vector<double>& want) {
  double m = 0;
  for (size_t i = 0; i < want.size(); ++i) m = std::fmax(m, std::fabs(got[i] - want[i]));
  return m;
}

}  // namespace refdir
