// The image and distance kernels on every compiled target against the scalar
// model: random data with every float class, lengths around the vector widths,
// and the listed edge cases.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "cpu/xj_simd.h"
#include "cpu/xj_yuv2rgb_simd.h"
#include "simd_reference.h"

namespace {

using xjref::bitsOf;
using xjref::fromBits;

const std::vector<size_t> kLengths = {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33,
                                      47, 63, 64, 65, 95, 127, 128, 129, 191, 200, 1001};

// Halves: mostly ordinary values, with NaN, infinities, subnormals and zeros.
uint16_t randomHalf(std::mt19937& rng, bool specials) {
  const uint32_t r = rng() % 16;
  if (specials && r == 0) return static_cast<uint16_t>(0x7C00 | (rng() & 0x83FF));  // inf or NaN
  if (specials && r == 1) return static_cast<uint16_t>(rng() & 0x83FF);             // subnormal
  if (r == 2) return static_cast<uint16_t>(rng() & 0x8000);                          // zero
  return static_cast<uint16_t>((rng() & 0xBFFF) % 0x7800 | (rng() & 0x8000));
}

float randomWeight(std::mt19937& rng, bool specials) {
  const uint32_t r = rng() % 10;
  if (r == 0) return 0.0f;
  if (r == 1) return -0.0f;
  if (specials && r == 2) return fromBits(0x7F800000u | (rng() & 0x807FFFFFu));
  if (specials && r == 3) return fromBits(rng() & 0x807FFFFFu);
  return std::ldexp(static_cast<float>(static_cast<int>(rng() % 20001) - 10000), -12);
}

TEST(Rgb8ToPlanarF16, EveryByteValue) {
  std::vector<uint8_t> rgb(3 * 256);
  for (int i = 0; i < 256; ++i) {
    rgb[3 * i] = static_cast<uint8_t>(i);
    rgb[3 * i + 1] = static_cast<uint8_t>(255 - i);
    rgb[3 * i + 2] = static_cast<uint8_t>(i * 7);
  }
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    std::vector<uint16_t> dst(3 * 256);
    xj::simd::rgb8ToPlanarF16(rgb.data(), dst.data(), 256, 256);
    for (int c = 0; c < 3; ++c) {
      for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(dst[c * 256 + i], xjref::rgbToHalf(rgb[3 * i + c]))
            << xjref::targetName(t) << " plane " << c << " pixel " << i;
      }
    }
    EXPECT_EQ(dst[255], 0x3C00) << "255 gives exactly 1";
    EXPECT_EQ(dst[1], 0x1C04) << "1 gives half(1/255)";
    EXPECT_EQ(dst[0], 0x0000);
  }
}

// Planes of a wider stride: the gaps between planes and the space after the
// last one stay untouched.
TEST(Rgb8ToPlanarF16, StrideAndLengths) {
  std::mt19937 rng(11);
  for (size_t n : kLengths) {
    std::vector<uint8_t> rgb(3 * n);
    for (auto& b : rgb) b = static_cast<uint8_t>(rng());
    const size_t stride = n + 5;
    for (int64_t t : xjref::kernelTargets()) {
      xjref::TargetScope scope(t);
      std::vector<uint16_t> dst(3 * stride + 4, 0xBEEF);
      xj::simd::rgb8ToPlanarF16(rgb.data(), dst.data(), stride, n);
      for (size_t k = 0; k < dst.size(); ++k) {
        const size_t c = k / stride, i = k % stride;
        const uint16_t want = c < 3 && i < n ? xjref::rgbToHalf(rgb[3 * i + c]) : 0xBEEF;
        ASSERT_EQ(dst[k], want) << xjref::targetName(t) << " n=" << n << " at " << k;
      }
    }
  }
}

struct Planes {
  std::vector<uint16_t> a, b, wHalf;
  std::vector<float> w;
};

Planes randomPlanes(std::mt19937& rng, size_t n, bool specials) {
  Planes p;
  p.a.resize(3 * n);
  p.b.resize(3 * n);
  p.wHalf.resize(n);
  p.w.resize(n);
  for (auto& v : p.a) v = randomHalf(rng, specials);
  for (auto& v : p.b) v = randomHalf(rng, specials);
  for (size_t i = 0; i < n; ++i) {
    p.w[i] = randomWeight(rng, specials);
    p.wHalf[i] = rng() % 8 == 0 ? 0 : randomHalf(rng, specials);
  }
  return p;
}

TEST(RetrieveTerm, PooledAndExactAgainstModel) {
  std::mt19937 rng(5);
  for (bool specials : {false, true}) {
    for (size_t n : kLengths) {
      const Planes p = randomPlanes(rng, n, specials);
      const float pooled = xjref::retrieveTermPooled(p.a.data(), p.b.data(), p.wHalf.data(), n);
      const float exact = xjref::retrieveTermExactRange(p.a.data(), p.b.data(), p.w.data(), n, 0, n);
      for (int64_t t : xjref::kernelTargets()) {
        xjref::TargetScope scope(t);
        const float gp = xj::simd::retrieveTermPooled(p.a.data(), p.b.data(), p.wHalf.data(), n);
        const float ge = xj::simd::retrieveTermExact(p.a.data(), p.b.data(), p.w.data(), n);
        ASSERT_TRUE(xjref::sameFloat(gp, pooled)) << xjref::targetName(t) << " n=" << n << " got "
                                                  << gp << " want " << pooled;
        ASSERT_TRUE(xjref::sameFloat(ge, exact)) << xjref::targetName(t) << " n=" << n << " got "
                                                 << ge << " want " << exact;
        if (!specials) {
          EXPECT_EQ(bitsOf(gp), bitsOf(pooled));
          EXPECT_EQ(bitsOf(ge), bitsOf(exact));
        }
      }
    }
  }
}

TEST(RetrieveTerm, RangesAndEmpty) {
  std::mt19937 rng(9);
  const size_t n = 300;
  const Planes p = randomPlanes(rng, n, false);
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    EXPECT_EQ(bitsOf(xj::simd::retrieveTermPooled(p.a.data(), p.b.data(), p.wHalf.data(), 0)), 0u);
    EXPECT_EQ(bitsOf(xj::simd::retrieveTermExact(p.a.data(), p.b.data(), p.w.data(), 0)), 0u);
    for (size_t begin : {0, 1, 5, 16, 17, 100, 299, 300}) {
      for (size_t end : {begin, begin + 1, begin + 3, begin + 16, begin + 33, n}) {
        if (end > n || end < begin) continue;
        const float want = xjref::retrieveTermExactRange(p.a.data(), p.b.data(), p.w.data(), n, begin, end);
        const float got = xj::simd::retrieveTermExactRange(p.a.data(), p.b.data(), p.w.data(), n, begin, end);
        ASSERT_EQ(bitsOf(got), bitsOf(want)) << xjref::targetName(t) << " [" << begin << "," << end << ")";
        if (begin == end) {
          EXPECT_EQ(bitsOf(got), 0u);
        }
      }
    }
  }
}

// Summation in index order is observable: with terms 2^24, then many 1s, a
// pairwise or per-lane sum would keep the 1s that an ordered sum drops.
TEST(RetrieveTerm, SumRunsInIndexOrder) {
  const size_t n = 64;
  std::vector<uint16_t> a(3 * n, 0), b(3 * n, 0);
  std::vector<float> w(n, 1.0f);
  // Pixel 0: |diff| = 3 * 1.0 in each plane -> mean 1; weight 2^24.
  for (int c = 0; c < 3; ++c) a[c * n] = 0x3C00;
  w[0] = 16777216.0f;
  // Every other pixel: mean 1 with weight 1.
  for (size_t i = 1; i < n; ++i) {
    for (int c = 0; c < 3; ++c) a[c * n + i] = 0x3C00;
  }
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    EXPECT_EQ(xj::simd::retrieveTermExact(a.data(), b.data(), w.data(), n), 16777216.0f)
        << xjref::targetName(t);
  }
}

TEST(RetrieveTerm, ZeroWeightHidesNaN) {
  const size_t n = 37;
  std::vector<uint16_t> a(3 * n, 0x3C00), b(3 * n, 0x3800);
  std::vector<float> w(n, 0.5f);
  for (size_t i : {0, 5, 16, 36}) {
    a[i] = 0x7E00;          // NaN in plane 0
    a[2 * n + i] = 0x7C00;  // infinity in plane 2
    w[i] = i % 2 ? -0.0f : 0.0f;
  }
  // Every other pixel: mean |1 - 0.5| = 0.5, term 0.25.
  const float want = 0.25f * static_cast<float>(n - 4);
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    EXPECT_EQ(xj::simd::retrieveTermExact(a.data(), b.data(), w.data(), n), want) << xjref::targetName(t);
    EXPECT_TRUE(std::isnan(xj::simd::retrieveTermExactRange(a.data(), b.data(), std::vector<float>(n, 1.0f).data(), n, 0, n)));
  }
}

struct ConvShape {
  int N, Cin, H, W, Cout;
};

struct ConvData {
  std::vector<float> in, weights, bias;
};

ConvData randomConv(std::mt19937& rng, const ConvShape& s, bool specials) {
  ConvData d;
  d.in.resize(static_cast<size_t>(s.N) * s.Cin * s.H * s.W);
  d.weights.resize(static_cast<size_t>(s.Cout) * s.Cin * 9);
  d.bias.resize(s.Cout);
  auto val = [&] { return std::ldexp(static_cast<float>(static_cast<int>(rng() % 2001) - 1000), -9) + std::ldexp(static_cast<float>(rng() % 1024), -20); };
  for (auto& v : d.in) v = specials && rng() % 97 == 0 ? fromBits(0x7F800000u | (rng() % 3 ? 0 : 0x400000u)) : val();
  for (auto& v : d.weights) {
    const uint32_t r = rng() % 53;
    v = r == 0 ? 0.0f : specials && r == 1 ? (rng() % 2 ? INFINITY : -INFINITY) : val();
  }
  for (auto& v : d.bias) v = val();
  return d;
}

void checkConv(const ConvShape& s, const ConvData& d, int begin, int end) {
  const size_t plane = static_cast<size_t>(s.H) * s.W;
  const size_t total = static_cast<size_t>(s.N) * s.Cout * plane;
  std::vector<float> want(total, -123.0f);
  xjref::conv3x3(d.in.data(), s.Cin, s.H, s.W, d.weights.data(), d.bias.data(), s.Cout, want.data(), begin, end);
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    std::vector<float> got(total, -123.0f);
    xj::simd::conv3x3Range(d.in.data(), s.N, s.Cin, s.H, s.W, d.weights.data(), d.bias.data(), s.Cout,
                           got.data(), begin, end);
    for (size_t k = 0; k < total; ++k) {
      ASSERT_TRUE(xjref::sameFloat(got[k], want[k]))
          << xjref::targetName(t) << " N" << s.N << " Cin" << s.Cin << " H" << s.H << " W" << s.W
          << " Cout" << s.Cout << " units [" << begin << "," << end << ") unit " << k / plane
          << " pixel " << k % plane << " got " << got[k] << " want " << want[k];
    }
  }
}

TEST(Conv3x3Range, ShapesAndUnitRanges) {
  std::mt19937 rng(3);
  const ConvShape shapes[] = {
      {1, 1, 1, 1, 1}, {2, 3, 5, 17, 6},  {1, 2, 3, 16, 4},  {3, 4, 2, 33, 9}, {1, 1, 1, 40, 5},
      {2, 5, 4, 7, 8}, {1, 3, 6, 31, 4},  {2, 2, 1, 3, 3},   {1, 8, 9, 15, 12}, {1, 2, 2, 1, 7},
  };
  for (const ConvShape& s : shapes) {
    for (bool specials : {false, true}) {
      const ConvData d = randomConv(rng, s, specials);
      const int units = s.N * s.Cout;
      checkConv(s, d, 0, units);
      checkConv(s, d, 1, units);                      // blocks of four start off the channel grid
      checkConv(s, d, units / 2, std::min(units, units / 2 + 3));  // range ends inside a block
      checkConv(s, d, units - 1, units);
      checkConv(s, d, 2, 2);                          // empty: nothing written
    }
  }
}

// Edge taps are skipped, not multiplied by a padding zero: an infinite weight
// on a skipped tap leaves no NaN.
TEST(Conv3x3Range, EdgeTapsAreSkipped) {
  // 1x1 image: only the centre tap.
  {
    const ConvShape s{1, 2, 1, 1, 1};
    ConvData d;
    d.in = {2.0f, 3.0f};
    d.weights.assign(18, INFINITY);
    d.weights[4] = 0.5f;       // ci 0 centre
    d.weights[9 + 4] = 0.25f;  // ci 1 centre
    d.bias = {1.0f};
    for (int64_t t : xjref::kernelTargets()) {
      xjref::TargetScope scope(t);
      float out = 0;
      xj::simd::conv3x3Range(d.in.data(), 1, 2, 1, 1, d.weights.data(), d.bias.data(), 1, &out, 0, 1);
      EXPECT_EQ(out, 1.0f + (2.0f * 0.5f + 3.0f * 0.25f)) << xjref::targetName(t);
    }
    checkConv(s, d, 0, 1);
  }
  // W = 17: the second tile holds pixel 16 alone; its dx = 2 tap is skipped.
  {
    const ConvShape s{1, 1, 2, 17, 5};
    std::mt19937 rng(1);
    ConvData d = randomConv(rng, s, false);
    for (int co = 0; co < 5; ++co) {
      for (int dy = 0; dy < 3; ++dy) d.weights[co * 9 + dy * 3 + 2] = co % 2 ? INFINITY : NAN;
    }
    checkConv(s, d, 0, 5);
    for (int64_t t : xjref::kernelTargets()) {
      xjref::TargetScope scope(t);
      std::vector<float> out(5 * 2 * 17);
      xj::simd::conv3x3Range(d.in.data(), 1, 1, 2, 17, d.weights.data(), d.bias.data(), 5, out.data(), 0, 5);
      for (int co = 0; co < 5; ++co) {
        for (int y = 0; y < 2; ++y) EXPECT_FALSE(std::isnan(out[(co * 2 + y) * 17 + 16])) << xjref::targetName(t);
      }
    }
  }
}

std::vector<uint8_t> yuvRef(const std::vector<uint8_t>& y, const uint8_t* u, const uint8_t* v, int width, int step) {
  std::vector<uint8_t> out(3 * static_cast<size_t>(width));
  xjref::yuvRow(y.data(), u, v, width, step, out.data());
  return out;
}

TEST(Yuv420RowToRgb24, BlackAndWhite) {
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    for (int width : {1, 2, 3, 4, 5, 17, 64, 101}) {
      for (uint8_t luma : {16, 235}) {
        std::vector<uint8_t> y(width, luma), c((width + 1) / 2 * 2, 128), rgb(3 * width + 1, 7);
        xj::simd::yuv420RowToRgb24(y.data(), c.data(), c.data(), width, 1, rgb.data());
        for (int i = 0; i < 3 * width; ++i) ASSERT_EQ(rgb[i], luma == 16 ? 0 : 255) << xjref::targetName(t);
        EXPECT_EQ(rgb[3 * width], 7);
      }
    }
  }
}

// Planar chroma, interleaved chroma in both orders, and a gathered layout;
// widths around the vector sizes, odd widths, and a full HD row. The rows are
// sized exactly so that a read past the row would be seen by sanitizers.
TEST(Yuv420RowToRgb24, RandomRowsAllLayouts) {
  std::mt19937 rng(13);
  std::vector<int> widths;
  for (int w = 0; w <= 70; ++w) widths.push_back(w);
  for (int w : {127, 128, 129, 255, 257, 1920, 1921}) widths.push_back(w);
  for (int width : widths) {
    const int cw = (width + 1) / 2;
    std::vector<uint8_t> y(width), up(cw), vp(cw), uv(2 * cw), wide(4 * cw + 2);
    for (auto* vec : {&y, &up, &vp, &uv, &wide}) {
      for (auto& b : *vec) b = static_cast<uint8_t>(rng());
    }
    struct Layout {
      const uint8_t* u;
      const uint8_t* v;
      int step;
    } layouts[] = {
        {up.data(), vp.data(), 1},
        {uv.data(), uv.data() + 1, 2},  // u first
        {uv.data() + 1, uv.data(), 2},  // v first
        {wide.data(), wide.data() + 3, 2},
    };
    for (const Layout& l : layouts) {
      const auto want = yuvRef(y, l.u, l.v, width, l.step);
      for (int64_t t : xjref::kernelTargets()) {
        xjref::TargetScope scope(t);
        std::vector<uint8_t> got(3 * static_cast<size_t>(width) + 3, 0x5A);
        xj::simd::yuv420RowToRgb24(y.data(), l.u, l.v, width, l.step, got.data());
        for (size_t i = 0; i < got.size(); ++i) {
          ASSERT_EQ(got[i], i < want.size() ? want[i] : 0x5A)
              << xjref::targetName(t) << " width " << width << " step " << l.step << " byte " << i;
        }
      }
    }
  }
}

// Every (y, u, v) triple, through the vector path: the clamp and the shifts of
// negative sums agree with the model everywhere.
TEST(Yuv420RowToRgb24, AllSampleTriples) {
  const int width = 256;  // every luma value under one chroma pair
  std::vector<uint8_t> y(width), u(width / 2), v(width / 2), want(3 * width), got(3 * width);
  for (int x = 0; x < width; ++x) y[x] = static_cast<uint8_t>(x);
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    const int step = xjref::shortRun() ? 17 : 1;
    for (int cu = 0; cu < 256; cu += step) {
      for (int cv = 0; cv < 256; cv += step) {
        std::fill(u.begin(), u.end(), static_cast<uint8_t>(cu));
        std::fill(v.begin(), v.end(), static_cast<uint8_t>(cv));
        xjref::yuvRow(y.data(), u.data(), v.data(), width, 1, want.data());
        xj::simd::yuv420RowToRgb24(y.data(), u.data(), v.data(), width, 1, got.data());
        ASSERT_EQ(got, want) << xjref::targetName(t) << " u " << cu << " v " << cv;
      }
    }
  }
}

}  // namespace
