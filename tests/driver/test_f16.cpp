// xj::f32ToF16 against the definition: the nearest binary16, ties to the even
// encoding, anything past the range (infinity and NaN too) to the infinity of
// its sign. Expected values come from xj::halfToFloat and exact arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "bundle/xj_bundle.h"
#include "driver/xj_driver.h"

namespace {

float bitsToFloat(uint32_t b) {
  float f;
  std::memcpy(&f, &b, sizeof f);
  return f;
}

float halfValue(uint16_t h) {
  float f;
  xj::halfToFloat(&h, &f, 1);
  return f;
}

TEST(F32ToF16, SpecialValues) {
  const float inf = std::numeric_limits<float>::infinity();
  const struct {
    float in;
    uint16_t out;
  } cases[] = {
      {0.0f, 0x0000},
      {-0.0f, 0x8000},
      {1.0f, 0x3C00},
      {-2.0f, 0xC000},
      {65504.0f, 0x7BFF},
      {65519.996f, 0x7BFF},  // just below the midpoint to 2^16
      {65520.0f, 0x7C00},    // the midpoint: its tie goes to the even side, infinity
      {-65520.0f, 0xFC00},
      {1e10f, 0x7C00},
      {inf, 0x7C00},
      {-inf, 0xFC00},
      {std::ldexp(1.0f, -24), 0x0001},   // smallest subnormal
      {std::ldexp(1.0f, -25), 0x0000},   // half of it: tie to even zero
      {std::ldexp(1.5f, -25), 0x0001},   // above the tie
      {std::ldexp(3.0f, -25), 0x0002},   // 1.5 units: tie to even 2
      {-std::ldexp(1.0f, -26), 0x8000},  // underflow keeps the sign
      {std::ldexp(1.0f, -14), 0x0400},   // smallest normal
      {std::ldexp(1023.5f, -24), 0x0400},  // largest subnormal + half a unit: carries to the normal
      {bitsToFloat(1), 0x0000},          // float subnormal
  };
  for (const auto& c : cases) {
    EXPECT_EQ(xj::f32ToF16(c.in), c.out) << "input " << c.in;
  }
}

TEST(F32ToF16, NaNBecomesInfinityOfItsSign) {
  EXPECT_EQ(xj::f32ToF16(bitsToFloat(0x7FC00000u)), 0x7C00);
  EXPECT_EQ(xj::f32ToF16(bitsToFloat(0x7F800001u)), 0x7C00);
  EXPECT_EQ(xj::f32ToF16(bitsToFloat(0xFFC12345u)), 0xFC00);
}

// Every finite half exactly, the exact midpoint to its successor (tie to the
// even one), and the floats one unit either side of that midpoint.
TEST(F32ToF16, EveryHalfAndEveryMidpoint) {
  for (uint32_t sign = 0; sign <= 0x8000; sign += 0x8000) {
    for (uint32_t h = 0; h < 0x7C00; ++h) {
      const uint16_t here = static_cast<uint16_t>(sign | h);
      const float v = halfValue(here);
      ASSERT_EQ(xj::f32ToF16(v), here) << std::hex << here;
      const uint16_t up = static_cast<uint16_t>(sign | (h + 1));
      // h + 1 may be the infinity encoding; its "value" for the midpoint is 2^16.
      const double next = (h + 1 == 0x7C00) ? (sign ? -65536.0 : 65536.0) : halfValue(up);
      const float mid = static_cast<float>((static_cast<double>(v) + next) / 2);
      ASSERT_EQ(static_cast<double>(mid), (static_cast<double>(v) + next) / 2);  // exact in float
      const uint16_t even = (h & 1) ? up : here;
      ASSERT_EQ(xj::f32ToF16(mid), even) << std::hex << here;
      const float below = std::nextafter(mid, static_cast<float>(v));
      const float above = std::nextafter(mid, static_cast<float>(next));
      ASSERT_EQ(xj::f32ToF16(below), here) << std::hex << here;
      ASSERT_EQ(xj::f32ToF16(above), up) << std::hex << here;
    }
  }
}

}  // namespace
