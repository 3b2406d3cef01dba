// Per-target bodies of yuv420RowToRgb24; Highway re-includes this file once
// per compiled target, the part above the target include is compiled once.
#ifndef XJ_CPU_YUV2RGB_SHARED
#define XJ_CPU_YUV2RGB_SHARED

#include "cpu/xj_yuv2rgb_simd.h"

#include <cstddef>

// The same compiled targets as the other xj::simd kernels (see xj_simd.cpp).
#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64)
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_AVX3_DL)
#endif
#elif defined(__aarch64__)
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS 0
#endif
#endif

namespace xj::simd::detail {

inline uint8_t clampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Pixels [from, to) of the row, one at a time; the vector bodies give the same bytes.
inline void yuvPixels(const uint8_t* y, const uint8_t* u, const uint8_t* v, int from, int to,
                      int chromaStep, uint8_t* rgb) {
  for (int x = from; x < to; ++x) {
    const size_t k = static_cast<size_t>(x >> 1) * static_cast<size_t>(chromaStep);
    const int c = 298 * y[x] - 4640;
    const int d = u[k] - 128;
    const int e = v[k] - 128;
    uint8_t* p = rgb + 3 * static_cast<size_t>(x);
    p[0] = clampByte((c + 409 * e) >> 8);
    p[1] = clampByte((c - 100 * d - 208 * e) >> 8);
    p[2] = clampByte((c + 516 * d) >> 8);
  }
}

}  // namespace xj::simd::detail

#endif  // XJ_CPU_YUV2RGB_SHARED

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "cpu/xj_yuv2rgb_simd.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace xj::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void Yuv420RowToRgb24(const uint8_t* HWY_RESTRICT y, const uint8_t* u, const uint8_t* v, int width,
                      int chromaStep, uint8_t* HWY_RESTRICT rgb) {
  int x = 0;
#if HWY_TARGET != HWY_SCALAR
  // Pixels in 16-bit lanes. With 298 = 256 + 42, 409 = 256 + 153,
  // -208 = -256 + 48 and 516 = 512 + 4, the multiples of 256 leave the shift
  // whole and what is shifted stays within 16 bits:
  //   R = y + E      + ((42 y - 4640 + 153 E) >> 8)
  //   G = y - E      + ((42 y - 4640 - 100 D + 48 E) >> 8)
  //   B = y + 2 D    + ((42 y - 4640 + 4 D) >> 8)
  // the same integers as the 32-bit formula. Each chroma byte is widened to
  // 16 bits and doubled (c | c << 8): read as bytes, the sample repeated for
  // its pixel pair.
  const hn::ScalableTag<int16_t> d16;
  const hn::Rebind<uint8_t, decltype(d16)> d8;
  const hn::Half<decltype(d16)> d16h;
  const hn::Rebind<uint8_t, decltype(d16h)> d8h;
  const hn::Rebind<uint16_t, decltype(d16h)> du16h;
  const int lanes = static_cast<int>(hn::Lanes(d16));
  const int half = lanes / 2;
  if (width >= 4 && lanes >= 4) {
    const auto k42 = hn::Set(d16, 42);
    const auto k4640 = hn::Set(d16, 4640);
    const auto k128 = hn::Set(d16, 128);
    const auto k153 = hn::Set(d16, 153);
    const auto k100 = hn::Set(d16, 100);
    const auto k48 = hn::Set(d16, 48);
    const auto lowByte = hn::Set(du16h, uint16_t{0xFF});
    // Interleaved chroma with u and v adjacent is read as 16-bit pairs from the
    // lower address, which stays inside the row; other layouts are gathered.
    const bool pairs = chromaStep == 2 && (v == u + 1 || u == v + 1);
    const uint8_t* base = u < v ? u : v;
    const bool uLow = u < v;
    uint8_t gu[HWY_MAX_BYTES];
    uint8_t gv[HWY_MAX_BYTES];
    auto doubled = [&](hn::Vec<decltype(du16h)> c16) {
      return hn::PromoteTo(d16, hn::BitCast(d8, hn::Or(hn::ShiftLeft<8>(c16), c16)));
    };
    for (; x + lanes <= width; x += lanes) {
      const size_t k = static_cast<size_t>(x >> 1);
      hn::Vec<decltype(du16h)> u16, v16;
      if (chromaStep == 1) {
        u16 = hn::PromoteTo(du16h, hn::LoadU(d8h, u + k));
        v16 = hn::PromoteTo(du16h, hn::LoadU(d8h, v + k));
      } else if (pairs) {
        const auto both = hn::BitCast(du16h, hn::LoadU(d8, base + 2 * k));
        const auto lo = hn::And(both, lowByte);
        const auto hi = hn::ShiftRight<8>(both);
        u16 = uLow ? lo : hi;
        v16 = uLow ? hi : lo;
      } else {
        for (int j = 0; j < half; ++j) {
          const size_t at = (k + static_cast<size_t>(j)) * static_cast<size_t>(chromaStep);
          gu[j] = u[at];
          gv[j] = v[at];
        }
        u16 = hn::PromoteTo(du16h, hn::LoadU(d8h, gu));
        v16 = hn::PromoteTo(du16h, hn::LoadU(d8h, gv));
      }
      const auto yy = hn::PromoteTo(d16, hn::LoadU(d8, y + x));
      const auto d = hn::Sub(doubled(u16), k128);
      const auto e = hn::Sub(doubled(v16), k128);
      const auto t = hn::Sub(hn::Mul(yy, k42), k4640);
      const auto r = hn::Add(hn::Add(yy, e), hn::ShiftRight<8>(hn::Add(t, hn::Mul(e, k153))));
      const auto g = hn::Add(hn::Sub(yy, e),
                             hn::ShiftRight<8>(hn::Add(hn::Sub(t, hn::Mul(d, k100)), hn::Mul(e, k48))));
      const auto b = hn::Add(hn::Add(yy, hn::Add(d, d)), hn::ShiftRight<8>(hn::Add(t, hn::ShiftLeft<2>(d))));
      // The saturating narrowing is the clamp to 0..255.
      hn::StoreInterleaved3(hn::DemoteTo(d8, r), hn::DemoteTo(d8, g), hn::DemoteTo(d8, b), d8,
                            rgb + 3 * static_cast<size_t>(x));
    }
  }
#endif
  detail::yuvPixels(y, u, v, x, width, chromaStep, rgb);
}

}  // namespace HWY_NAMESPACE
}  // namespace xj::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace xj::simd {

HWY_EXPORT(Yuv420RowToRgb24);

void yuv420RowToRgb24(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                      int chromaStep, uint8_t* rgb) {
  HWY_DYNAMIC_DISPATCH(Yuv420RowToRgb24)(y, u, v, width, chromaStep, rgb);
}

}  // namespace xj::simd
#endif  // HWY_ONCE
