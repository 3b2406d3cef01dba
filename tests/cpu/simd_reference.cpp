#include "simd_reference.h"

#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace xjref {

uint32_t bitsOf(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

float fromBits(uint32_t b) {
  float f;
  std::memcpy(&f, &b, 4);
  return f;
}

bool sameFloat(float a, float b) {
  return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b));
}

namespace {

double pow2(int e) {  // exact 2^e for the small range used here, by building the double
  const uint64_t bits = static_cast<uint64_t>(1023 + e) << 52;
  double d;
  std::memcpy(&d, &bits, 8);
  return d;
}

// Nearest integer, ties to even, for 0 <= q < 2^52: adding 2^52 leaves no
// fraction bits, so the double addition does the rounding.
double roundEven(double q) {
  const double big = 4503599627370496.0;
  const double t = q + big;
  return t - big;
}

}  // namespace

// Rounds |f| to a multiple of the half-precision spacing at its magnitude in
// double arithmetic, then encodes.
uint16_t f32ToF16(float f) {
  const uint32_t b = bitsOf(f);
  const uint16_t sign = static_cast<uint16_t>((b >> 16) & 0x8000u);
  const int expo = static_cast<int>((b >> 23) & 0xFF);
  const uint32_t mant = b & 0x7FFFFFu;
  if (expo == 255) {
    if (mant == 0) return sign | 0x7C00;
    return static_cast<uint16_t>(sign | 0x7E00 | (mant >> 13));  // quiet, upper payload kept
  }
  if (expo == 0) return sign;  // zero or a single subnormal: far below half's range
  int e = expo - 127;
  if (e > 15) return sign | 0x7C00;  // 65536 and above
  if (e < -25) return sign;          // below 2^-25: less than half the smallest subnormal
  const double a = std::fabs(static_cast<double>(f));
  const int spacing = (e < -14 ? -14 : e) - 10;
  double q = roundEven(a * pow2(-spacing));
  if (e < -14) return static_cast<uint16_t>(sign | static_cast<uint16_t>(q));  // 1024 is the smallest normal
  if (q == 2048.0) {
    q = 1024.0;
    ++e;
  }
  if (e > 15) return sign | 0x7C00;
  return static_cast<uint16_t>(sign | ((e + 15) << 10) | (static_cast<int>(q) - 1024));
}

float f16ToF32(uint16_t h) {
  const bool neg = (h & 0x8000) != 0;
  const int expo = (h >> 10) & 0x1F;
  const int mant = h & 0x3FF;
  if (expo == 31) {
    if (mant == 0) return neg ? -INFINITY : INFINITY;
    return fromBits((neg ? 0x80000000u : 0u) | 0x7FC00000u | (static_cast<uint32_t>(mant) << 13));
  }
  const double mag = expo == 0 ? mant * pow2(-24) : (1024 + mant) * pow2(expo - 25);
  const float f = static_cast<float>(mag);
  return neg ? -f : f;
}

namespace {

// upper[h]: bits of the midpoint between finite half h and the next one up
// (65536 standing for the step past 65504 into infinity).
const std::vector<uint32_t>& midpoints() {
  static const std::vector<uint32_t> m = [] {
    std::vector<uint32_t> v(0x7C00);
    for (uint32_t h = 0; h < 0x7C00; ++h) {
      const double lo = f16ToF32(static_cast<uint16_t>(h));
      const double hi = h + 1 < 0x7C00 ? f16ToF32(static_cast<uint16_t>(h + 1)) : 65536.0;
      v[h] = bitsOf(static_cast<float>((lo + hi) / 2));  // 12 significant bits: exact
    }
    return v;
  }();
  return m;
}

}  // namespace

void f32ToF16Run(uint32_t first, size_t n, uint16_t* out) {
  const std::vector<uint32_t>& mid = midpoints();
  const uint16_t sign = static_cast<uint16_t>((first >> 16) & 0x8000u);
  uint32_t x = first & 0x7FFFFFFFu;
  size_t i = 0;
  // The first finite half whose upper midpoint is not below x.
  uint32_t h = static_cast<uint32_t>(std::lower_bound(mid.begin(), mid.end(), x) - mid.begin());
  while (i < n && x < 0x7F800000u) {
    if (h == 0x7C00) {  // past 65520, the midpoint above 65504: infinity
      const size_t run = std::min<uint64_t>(n - i, 0x7F800000u - x);
      std::fill(out + i, out + i + run, static_cast<uint16_t>(sign | 0x7C00));
      i += run;
      x += static_cast<uint32_t>(run);
      continue;
    }
    // Patterns strictly below the midpoint round to h.
    const uint32_t stop = mid[h];
    const size_t run = std::min<uint64_t>(n - i, stop > x ? stop - x : 0);
    std::fill(out + i, out + i + run, static_cast<uint16_t>(sign | h));
    i += run;
    x += static_cast<uint32_t>(run);
    if (i == n) break;
    // On the midpoint: the even one of h and h + 1.
    out[i++] = static_cast<uint16_t>(sign | ((h & 1) ? h + 1 : h));
    ++x;
    ++h;
  }
  for (; i < n; ++i, ++x) {
    const uint32_t m = x & 0x7FFFFFu;
    out[i] = x == 0x7F800000u ? (sign | 0x7C00) : static_cast<uint16_t>(sign | 0x7E00 | (m >> 13));
  }
}

float roundF16Mul(float a, float b) { return b * r16(a); }

uint16_t rgbToHalf(uint8_t v) { return f32ToF16(static_cast<float>(v) / 255.0f); }

namespace {
float meanAbs(const uint16_t* a, const uint16_t* b, size_t n, size_t i) {
  float acc = 0.0f;
  for (size_t c = 0; c < 3; ++c) {
    float d = r16(f16ToF32(a[c * n + i]) - f16ToF32(b[c * n + i]));
    if (std::signbit(d)) d = -d;
    acc = acc + d;
  }
  return r16(acc / 3.0f);
}
}  // namespace

float retrieveTermPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n) {
  float sum = 0.0f;
  for (size_t i = 0; i < n; ++i) sum = sum + r16(f16ToF32(w[i]) * meanAbs(a, b, n, i));
  return sum;
}

float retrieveTermExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                             size_t begin, size_t end) {
  float sum = 0.0f;
  for (size_t i = begin; i < end; ++i) {
    if (w[i] == 0.0f) continue;  // adds exactly nothing: the sum is never -0
    sum = sum + w[i] * meanAbs(a, b, n, i);
  }
  return sum;
}

void conv3x3(const float* in, int Cin, int H, int W, const float* weights, const float* bias,
             int Cout, float* out, int begin, int end) {
  for (int u = begin; u < end; ++u) {
    const int img = u / Cout;
    const int co = u % Cout;
    for (int y = 0; y < H; ++y) {
      for (int x = 0; x < W; ++x) {
        float acc = 0.0f;
        for (int dy = 0; dy < 3; ++dy) {
          const int sy = y + dy - 1;
          if (sy < 0 || sy >= H) continue;
          for (int dx = 0; dx < 3; ++dx) {
            const int sx = x + dx - 1;
            if (sx < 0 || sx >= W) continue;
            for (int ci = 0; ci < Cin; ++ci) {
              const float px = in[((static_cast<size_t>(img) * Cin + ci) * H + sy) * W + sx];
              const float wt = weights[((static_cast<size_t>(co) * Cin + ci) * 3 + dy) * 3 + dx];
              const float prod = px * wt;
              acc = acc + prod;
            }
          }
        }
        out[(static_cast<size_t>(u) * H + y) * W + x] = bias[co] + acc;
      }
    }
  }
}

void yuvRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width, int chromaStep,
            uint8_t* rgb) {
  auto clamp = [](int t) { return static_cast<uint8_t>(std::min(255, std::max(0, t))); };
  for (int x = 0; x < width; ++x) {
    const int k = (x / 2) * chromaStep;
    const int c = 298 * (y[x] - 16) + 128;
    const int d = u[k] - 128;
    const int e = v[k] - 128;
    // Arithmetic shift right by 8 is a division rounding towards minus infinity.
    auto shr8 = [](int t) { return static_cast<int>(std::floor(t / 256.0)); };
    rgb[3 * x + 0] = clamp(shr8(c + 409 * e));
    rgb[3 * x + 1] = clamp(shr8(c - 100 * d - 208 * e));
    rgb[3 * x + 2] = clamp(shr8(c + 516 * d));
  }
}

std::vector<int64_t> kernelTargets() {
  std::vector<int64_t> out;
  const int64_t all = hwy::SupportedTargets();
  for (int64_t rest = all; rest != 0; rest &= rest - 1) {
    const int64_t t = rest & -rest;
#if defined(__x86_64__) || defined(__i386__)
    if (t == HWY_SSSE3 || t == HWY_AVX3_DL) continue;
#endif
    if (t == HWY_EMU128 && (all & HWY_SCALAR)) continue;
    out.push_back(t);
  }
  return out;
}

const char* targetName(int64_t t) { return hwy::TargetName(t); }

TargetScope::TargetScope(int64_t target) { hwy::SetSupportedTargetsForTest(target); }
TargetScope::~TargetScope() { hwy::SetSupportedTargetsForTest(0); }

bool shortRun() {
  const char* s = std::getenv("XJ_TEST_SHORT");
  return s && *s && std::strcmp(s, "0") != 0;
}

}  // namespace xjref
