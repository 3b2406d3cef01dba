// Half conversions on every compiled target against the scalar model: all
// 2^32 singles, all 65,536 halves, the scalar tails, and the listed values.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpu/xj_simd.h"
#include "simd_reference.h"

namespace {

using xjref::bitsOf;
using xjref::fromBits;

constexpr int kShards = 16;
constexpr uint64_t kBlock = uint64_t(1) << 20;
constexpr uint64_t kBlocksPerShard = (uint64_t(1) << 32) / kBlock / kShards;

class F32ToF16Sweep : public ::testing::TestWithParam<int> {};

// Every single-precision bit pattern, in blocks of 2^20, through the vector
// bodies of every target. Sanitizer runs take every 127th block.
TEST_P(F32ToF16Sweep, AllBitPatterns) {
  const auto targets = xjref::kernelTargets();
  ASSERT_FALSE(targets.empty());
  std::vector<float> in(kBlock);
  std::vector<uint16_t> want(kBlock), got(kBlock);
  const uint64_t first = static_cast<uint64_t>(GetParam()) * kBlocksPerShard;
  const uint64_t step = xjref::shortRun() ? 127 : 1;
  for (uint64_t blk = first; blk < first + kBlocksPerShard; blk += step) {
    const uint32_t base = static_cast<uint32_t>(blk * kBlock);
    for (uint64_t i = 0; i < kBlock; ++i) in[i] = fromBits(base + static_cast<uint32_t>(i));
    xjref::f32ToF16Run(base, kBlock, want.data());
    for (int64_t t : targets) {
      xjref::TargetScope scope(t);
      xj::simd::f32ToF16(in.data(), got.data(), kBlock);
      if (std::memcmp(got.data(), want.data(), kBlock * 2) != 0) {
        for (uint64_t i = 0; i < kBlock; ++i) {
          ASSERT_EQ(got[i], want[i]) << xjref::targetName(t) << " input bits 0x" << std::hex
                                     << (base + i);
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Shards, F32ToF16Sweep, ::testing::Range(0, kShards));

// The two models of the narrowing, the nearest-value walk and the formula,
// agree on a spread of blocks; the formula is the one the other kernels use.
TEST(F32ToF16, ModelsAgree) {
  const uint32_t n = 4096;
  std::vector<uint16_t> walk(n);
  for (uint64_t start = 0; start < (uint64_t(1) << 32); start += uint64_t(1) << 22) {
    for (uint32_t off : {0u, 0x1FF000u}) {
      const uint32_t first = static_cast<uint32_t>(start) + off;
      xjref::f32ToF16Run(first, n, walk.data());
      for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(walk[i], xjref::f32ToF16(fromBits(first + i))) << std::hex << first + i;
      }
    }
  }
  // Around every midpoint of the positive range.
  for (uint32_t h = 0; h < 0x7C00; h += 1) {
    const float lo = xjref::f16ToF32(static_cast<uint16_t>(h));
    const float hi = h + 1 < 0x7C00 ? xjref::f16ToF32(static_cast<uint16_t>(h + 1)) : 65536.0f;
    const uint32_t mid = bitsOf((lo + hi) / 2);
    uint16_t got[3];
    xjref::f32ToF16Run(mid - 1, 3, got);
    for (uint32_t k = 0; k < 3; ++k) ASSERT_EQ(got[k], xjref::f32ToF16(fromBits(mid - 1 + k))) << h;
  }
}

// The scalar tail conversion: every exponent and sign with the 13 bits below
// half precision swept in full (every rounding case) under a few upper
// mantissas, in calls of three elements, shorter than any vector.
TEST(F32ToF16, ScalarTailAllRoundingCases) {
  std::vector<float> in;
  for (uint32_t sign = 0; sign < 2; ++sign) {
    for (uint32_t e = 0; e < 256; ++e) {
      for (uint32_t hi : {0u, 0x155u, 0x3FFu}) {
        for (uint32_t lo = 0; lo < (1u << 13); lo += xjref::shortRun() ? 61 : 1) {
          in.push_back(fromBits(sign << 31 | e << 23 | hi << 13 | lo));
        }
      }
    }
  }
  std::vector<uint16_t> got(in.size());
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    for (size_t i = 0; i < in.size(); i += 3) {
      xj::simd::f32ToF16(in.data() + i, got.data() + i, std::min<size_t>(3, in.size() - i));
    }
    for (size_t i = 0; i < in.size(); ++i) {
      ASSERT_EQ(got[i], xjref::f32ToF16(in[i]))
          << xjref::targetName(t) << " input bits 0x" << std::hex << bitsOf(in[i]);
    }
  }
}

TEST(F16ToF32, AllHalvesVectorAndTail) {
  std::vector<uint16_t> in(65536);
  for (uint32_t i = 0; i < 65536; ++i) in[i] = static_cast<uint16_t>(i);
  std::vector<float> whole(65536), tail(65536);
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    xj::simd::f16ToF32(in.data(), whole.data(), in.size());
    for (size_t i = 0; i < in.size(); i += 3) {
      xj::simd::f16ToF32(in.data() + i, tail.data() + i, std::min<size_t>(3, in.size() - i));
    }
    for (uint32_t i = 0; i < 65536; ++i) {
      const uint32_t want = bitsOf(xjref::f16ToF32(in[i]));
      ASSERT_EQ(bitsOf(whole[i]), want) << xjref::targetName(t) << " half 0x" << std::hex << i;
      ASSERT_EQ(bitsOf(tail[i]), want) << xjref::targetName(t) << " tail, half 0x" << std::hex << i;
    }
  }
}

// Values whose encodings are known by heart; they check the model as much as
// the kernels.
TEST(HalfConversion, KnownValues) {
  const float below65520 = std::nextafter(65520.0f, 0.0f);  // 65519.996
  const float aboveTie = std::nextafter(std::ldexp(1.0f, -25), 1.0f);
  struct Case {
    uint32_t in;
    uint16_t out;
  } cases[] = {
      {bitsOf(65520.0f), 0x7C00},         {bitsOf(below65520), 0x7BFF},
      {bitsOf(std::ldexp(1.0f, -25)), 0x0000}, {bitsOf(aboveTie), 0x0001},
      {bitsOf(-std::ldexp(1.0f, -25)), 0x8000}, {bitsOf(std::ldexp(3.0f, -25)), 0x0002},
      {bitsOf(std::ldexp(1.0f, -14)), 0x0400}, {bitsOf(std::ldexp(1023.0f, -24)), 0x03FF},
      {bitsOf(0.0f), 0x0000},             {bitsOf(-0.0f), 0x8000},
      {bitsOf(1.0f), 0x3C00},             {bitsOf(-2.0f), 0xC000},
      {bitsOf(65504.0f), 0x7BFF},         {bitsOf(1.0f / 3.0f), 0x3555},
      {bitsOf(1.00048828125f), 0x3C00},   {bitsOf(1.00146484375f), 0x3C02},  // ties to even
      {0x7F800000u, 0x7C00},              {0xFF800000u, 0xFC00},
      {0x7FC00000u, 0x7E00},              {0x7F800001u, 0x7E00},  // signalling NaN comes out quiet
      {0xFFFFFFFFu, 0xFFFF},              {0x7FA02000u, 0x7F01},
      {0x00000001u, 0x0000},              {0x3F7FFFFFu, 0x3C00},
  };
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    for (const Case& c : cases) {
      EXPECT_EQ(xjref::f32ToF16(fromBits(c.in)), c.out) << "model, bits 0x" << std::hex << c.in;
      // Once alone (tail) and once at the end of a 67-element run (vector + tail).
      uint16_t one = 0xAAAA;
      const float single = fromBits(c.in);
      xj::simd::f32ToF16(&single, &one, 1);
      EXPECT_EQ(one, c.out) << xjref::targetName(t) << " bits 0x" << std::hex << c.in;
      std::vector<float> run(67, fromBits(c.in));
      std::vector<uint16_t> outs(67);
      xj::simd::f32ToF16(run.data(), outs.data(), run.size());
      for (uint16_t o : outs) EXPECT_EQ(o, c.out) << xjref::targetName(t);
    }
    float sub = 0;
    const uint16_t smallest = 0x0001;
    xj::simd::f16ToF32(&smallest, &sub, 1);
    EXPECT_EQ(sub, std::ldexp(1.0f, -24)) << xjref::targetName(t);
    EXPECT_STRNE(xj::simd::target(), "Unknown");
    EXPECT_STREQ(xj::simd::target(), xjref::targetName(t));
  }
}

// Nothing is written outside [0, n); n = 0 writes nothing.
TEST(HalfConversion, WritesOnlyItsElements) {
  std::vector<float> src(80, 1.5f);
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    for (size_t n : {0, 1, 3, 4, 7, 8, 15, 16, 17, 31, 33, 63, 65}) {
      std::vector<uint16_t> h(n + 8, 0xBEEF);
      xj::simd::f32ToF16(src.data(), h.data(), n);
      for (size_t i = 0; i < h.size(); ++i) ASSERT_EQ(h[i], i < n ? 0x3E00 : 0xBEEF) << n;
      std::vector<float> f(n + 8, -7.0f);
      xj::simd::f16ToF32(h.data(), f.data(), n);
      for (size_t i = 0; i < f.size(); ++i) ASSERT_EQ(f[i], i < n ? 1.5f : -7.0f) << n;
      std::vector<float> m(n + 8, -7.0f);
      xj::simd::roundF16Mul(src.data(), src.data(), m.data(), n);
      for (size_t i = 0; i < m.size(); ++i) ASSERT_EQ(m[i], i < n ? 2.25f : -7.0f) << n;
    }
  }
}

// Random singles with every class: NaN, infinities, subnormals of both
// widths, values at half's limits.
float randomSpecial(std::mt19937& rng) {
  switch (rng() % 8) {
    case 0: return fromBits(rng());
    case 1: return fromBits((rng() & 0x807FFFFFu) | 0x7F800000u);  // infinity or NaN
    case 2: return fromBits(rng() & 0x807FFFFFu);                    // single subnormal
    case 3: return std::ldexp(static_cast<float>(rng() % 2048), -34) * (rng() & 1 ? 1 : -1);  // half subnormal range
    case 4: return (static_cast<float>(rng() % 140000) - 70000.0f) + (rng() % 4) * 0.25f;
    case 5: return 0.0f;
    default: return std::ldexp(static_cast<float>(static_cast<int>(rng() % 4001) - 2000), -static_cast<int>(rng() % 30));
  }
}

TEST(RoundF16Mul, RandomAllLengths) {
  std::mt19937 rng(7);
  for (size_t n = 0; n <= 70; ++n) {
    std::vector<float> a(n), b(n);
    for (size_t i = 0; i < n; ++i) {
      a[i] = randomSpecial(rng);
      b[i] = randomSpecial(rng);
    }
    for (int64_t t : xjref::kernelTargets()) {
      xjref::TargetScope scope(t);
      std::vector<float> out(n);
      xj::simd::roundF16Mul(a.data(), b.data(), out.data(), n);
      for (size_t i = 0; i < n; ++i) {
        const float want = xjref::roundF16Mul(a[i], b[i]);
        ASSERT_TRUE(xjref::sameFloat(out[i], want))
            << xjref::targetName(t) << " n=" << n << " i=" << i << " a=0x" << std::hex
            << bitsOf(a[i]) << " b=0x" << bitsOf(b[i]) << " got 0x" << bitsOf(out[i])
            << " want 0x" << bitsOf(want);
      }
    }
  }
}

TEST(RoundF16Mul, RoundsOnlyTheFirstOperand) {
  // 1 + 2^-11 rounds to 1 in half; 1 + 2^-12 as the second operand does not.
  const float a[1] = {1.0f + std::ldexp(1.0f, -11)};
  const float b[1] = {1.0f + std::ldexp(1.0f, -12)};
  float out[1];
  for (int64_t t : xjref::kernelTargets()) {
    xjref::TargetScope scope(t);
    xj::simd::roundF16Mul(a, b, out, 1);
    EXPECT_EQ(out[0], b[0]) << xjref::targetName(t);
  }
}

}  // namespace
