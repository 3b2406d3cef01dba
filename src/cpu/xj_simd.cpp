// Per-target bodies of the xj::simd kernels. Highway re-includes this file once
// per compiled target; the part above the target include is compiled once.
#ifndef XJ_CPU_SIMD_SHARED
#define XJ_CPU_SIMD_SHARED

#include "cpu/xj_simd.h"

#include <cmath>
#include <cstring>
#include <vector>

// Compiled targets. x86: AVX-512, AVX2, SSE4 and the portable fallback (SSSE3
// would only duplicate the SSE4 body's results at a lower speed). Arm64: every
// Arm body the Highway release has among NEON_WITHOUT_AES, NEON, NEON_BF16,
// SVE, SVE2, SVE_256 and SVE2_128; nothing is disabled there.
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

// Scalar conversions with the bits of the vector instructions (F16C on x86,
// FCVT on Arm with default-NaN off): ties to even, NaN quiet with the upper
// payload kept. Each body's tail goes through these.
inline uint16_t narrowBits(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  const uint32_t sign = bits & 0x80000000u;
  const uint32_t x = bits ^ sign;
  uint32_t h;
  if (x >= 0x47800000u) {  // |f| >= 65536, infinity or NaN
    h = x > 0x7F800000u ? (0x7E00u | ((x >> 13) & 0x3FFu)) : 0x7C00u;
  } else if (x < 0x38800000u) {
    // Below the smallest normal half (2^-14): adding 0.5 leaves a spacing of
    // 2^-24, the subnormal half's, and the addition rounds to nearest even.
    // Single subnormals end as zero either way, so a denormals-are-zero mode
    // of the host changes nothing.
    float g;
    std::memcpy(&g, &x, 4);
    g = g + 0.5f;
    std::memcpy(&h, &g, 4);
    h -= 0x3F000000u;
  } else {  // a carry out of the mantissa lands in the exponent, up to infinity
    h = (x + 0xC8000FFFu + ((x >> 13) & 1u)) >> 13;
  }
  return static_cast<uint16_t>((sign >> 16) | h);
}

inline float widenBits(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  const uint32_t e = (h >> 10) & 0x1Fu;
  const uint32_t m = h & 0x3FFu;
  uint32_t bits;
  if (e == 0) {
    const float sub = static_cast<float>(static_cast<int32_t>(m)) * 5.9604644775390625e-8f;  // 2^-24
    std::memcpy(&bits, &sub, 4);
  } else if (e == 31) {
    bits = m == 0 ? 0x7F800000u : (0x7FC00000u | (m << 13));
  } else {
    bits = ((e + 112u) << 23) | (m << 13);
  }
  bits |= sign;
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

inline float r16(float f) { return widenBits(narrowBits(f)); }

// Mean absolute half difference of pixel i over the three planes, rounded to half.
inline float meanAbsDiff(const uint16_t* a, const uint16_t* b, size_t n, size_t i) {
  float acc = 0.0f;
  for (size_t c = 0; c < 3; ++c) {
    const float d = r16(widenBits(a[c * n + i]) - widenBits(b[c * n + i]));
    acc = acc + std::fabs(d);
  }
  return r16(acc / 3.0f);
}

inline float pooledTerm(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n,
                        size_t i) {
  return r16(widenBits(w[i]) * meanAbsDiff(a, b, n, i));
}

inline float exactTerm(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                       size_t i) {
  const float m = meanAbsDiff(a, b, n, i);
  return w[i] == 0.0f ? 0.0f : w[i] * m;
}

// Padded copy of one image for conv3x3Range, one per thread; it keeps its
// memory between calls so that steady use allocates nothing.
inline float* convScratch(size_t count) {
  thread_local std::vector<float> scratch;
  if (scratch.size() < count) scratch.resize(count);
  return scratch.data();
}

}  // namespace xj::simd::detail

#endif  // XJ_CPU_SIMD_SHARED

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "cpu/xj_simd.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace xj::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Targets whose hardware converts halves (F16C, Arm64 FCVT) use it; the others
// run the same integer algorithm as detail::narrowBits lane-wise.
#undef XJ_SIMD_HW_F16
#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL || \
    (HWY_ARCH_ARM_A64 && HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128)
#define XJ_SIMD_HW_F16 1
#else
#define XJ_SIMD_HW_F16 0
#endif

#if !XJ_SIMD_HW_F16
template <class DU>
HWY_INLINE hn::Vec<DU> NarrowBitsV(DU du, hn::Vec<DU> bits) {
  const auto one = hn::Set(du, 1u);
  const auto sign = hn::And(bits, hn::Set(du, 0x80000000u));
  const auto x = hn::Xor(bits, sign);

  const auto normal =
      hn::ShiftRight<13>(hn::Add(hn::Add(x, hn::Set(du, 0xC8000FFFu)),
                                 hn::And(hn::ShiftRight<13>(x), one)));

  // Below 2^-14 the same addition of 0.5 as in detail::narrowBits.
  const hn::Rebind<float, DU> df;
  const auto sub = hn::Sub(hn::BitCast(du, hn::Add(hn::BitCast(df, x), hn::Set(df, 0.5f))),
                           hn::Set(du, 0x3F000000u));

  const auto nan = hn::Or(hn::Set(du, 0x7E00u), hn::And(hn::ShiftRight<13>(x), hn::Set(du, 0x3FFu)));
  const auto big = hn::IfThenElse(hn::Gt(x, hn::Set(du, 0x7F800000u)), nan, hn::Set(du, 0x7C00u));

  const auto h = hn::IfThenElse(hn::Gt(hn::Set(du, 0x38800000u), x), sub,
                                hn::IfThenElse(hn::Gt(x, hn::Set(du, 0x477FFFFFu)), big, normal));
  return hn::Or(hn::ShiftRight<16>(sign), h);
}

template <class DF, class DU>
HWY_INLINE hn::Vec<DF> WidenBitsV(DF df, DU du, hn::Vec<DU> h) {
  const hn::RebindToSigned<DF> di;
  const auto zero = hn::Zero(du);
  const auto sign = hn::ShiftLeft<16>(hn::And(h, hn::Set(du, 0x8000u)));
  const auto e = hn::And(hn::ShiftRight<10>(h), hn::Set(du, 0x1Fu));
  const auto m = hn::And(h, hn::Set(du, 0x3FFu));
  const auto normal = hn::Or(hn::ShiftLeft<23>(hn::Add(e, hn::Set(du, 112u))), hn::ShiftLeft<13>(m));
  const auto sub = hn::BitCast(
      du, hn::Mul(hn::ConvertTo(df, hn::BitCast(di, m)), hn::Set(df, 5.9604644775390625e-8f)));
  const auto infNan = hn::IfThenElse(hn::Eq(m, zero), hn::Set(du, 0x7F800000u),
                                     hn::Or(hn::Set(du, 0x7FC00000u), hn::ShiftLeft<13>(m)));
  const auto bits = hn::IfThenElse(hn::Eq(e, zero), sub,
                                   hn::IfThenElse(hn::Eq(e, hn::Set(du, 31u)), infNan, normal));
  return hn::BitCast(df, hn::Or(bits, sign));
}
#endif

// r16 of every lane: rounded to binary16 and widened back.
template <class DF>
HWY_INLINE hn::Vec<DF> R16(DF df, hn::Vec<DF> v) {
#if XJ_SIMD_HW_F16
  const hn::Rebind<hwy::float16_t, DF> dh;
  return hn::PromoteTo(df, hn::DemoteTo(dh, v));
#else
  const hn::RebindToUnsigned<DF> du;
  return WidenBitsV(df, du, NarrowBitsV(du, hn::BitCast(du, v)));
#endif
}

template <class DF>
HWY_INLINE void StoreHalves(DF df, hn::Vec<DF> v, uint16_t* HWY_RESTRICT p) {
#if XJ_SIMD_HW_F16
  const hn::Rebind<hwy::float16_t, DF> dh;
  hn::StoreU(hn::DemoteTo(dh, v), dh, reinterpret_cast<hwy::float16_t*>(p));
#else
  const hn::RebindToUnsigned<DF> du;
  const hn::RebindToSigned<DF> di;
  const hn::Rebind<uint16_t, DF> d16;
  hn::StoreU(hn::DemoteTo(d16, hn::BitCast(di, NarrowBitsV(du, hn::BitCast(du, v)))), d16, p);
#endif
}

template <class DF>
HWY_INLINE hn::Vec<DF> LoadHalves(DF df, const uint16_t* HWY_RESTRICT p) {
#if XJ_SIMD_HW_F16
  const hn::Rebind<hwy::float16_t, DF> dh;
  return hn::PromoteTo(df, hn::LoadU(dh, reinterpret_cast<const hwy::float16_t*>(p)));
#else
  const hn::RebindToUnsigned<DF> du;
  const hn::Rebind<uint16_t, DF> d16;
  return WidenBitsV(df, du, hn::PromoteTo(du, hn::LoadU(d16, p)));
#endif
}

void F32ToF16(const float* HWY_RESTRICT src, uint16_t* HWY_RESTRICT dst, size_t n) {
  size_t i = 0;
#if HWY_TARGET != HWY_SCALAR  // one lane: the plain conversion is the body
  const hn::ScalableTag<float> df;
  const size_t lanes = hn::Lanes(df);
  for (; i + lanes <= n; i += lanes) StoreHalves(df, hn::LoadU(df, src + i), dst + i);
#endif
  for (; i < n; ++i) dst[i] = detail::narrowBits(src[i]);
}

void F16ToF32(const uint16_t* HWY_RESTRICT src, float* HWY_RESTRICT dst, size_t n) {
  size_t i = 0;
#if HWY_TARGET != HWY_SCALAR
  const hn::ScalableTag<float> df;
  const size_t lanes = hn::Lanes(df);
  for (; i + lanes <= n; i += lanes) hn::StoreU(LoadHalves(df, src + i), df, dst + i);
#endif
  for (; i < n; ++i) dst[i] = detail::widenBits(src[i]);
}

void RoundF16Mul(const float* HWY_RESTRICT a, const float* HWY_RESTRICT b, float* HWY_RESTRICT out,
                 size_t n) {
  const hn::ScalableTag<float> df;
  const size_t lanes = hn::Lanes(df);
  size_t i = 0;
  for (; i + lanes <= n; i += lanes) {
    hn::StoreU(hn::Mul(hn::LoadU(df, b + i), R16(df, hn::LoadU(df, a + i))), df, out + i);
  }
  for (; i < n; ++i) out[i] = b[i] * detail::r16(a[i]);
}

void Rgb8ToPlanarF16(const uint8_t* HWY_RESTRICT rgb, uint16_t* HWY_RESTRICT dst,
                     size_t planeStride, size_t n) {
  size_t i = 0;
#if HWY_TARGET != HWY_SCALAR
  // One full vector of bytes per channel, widened a quarter at a time.
  const hn::ScalableTag<uint8_t> d8;
  const hn::Half<decltype(d8)> d8h;
  const hn::Half<decltype(d8h)> d8q;
  const hn::Rebind<uint32_t, decltype(d8q)> du;
  const hn::Rebind<int32_t, decltype(d8q)> di;
  const hn::Rebind<float, decltype(d8q)> df;
  const size_t lanes8 = hn::Lanes(d8);
  const size_t lanesF = hn::Lanes(df);
  const auto k255 = hn::Set(df, 255.0f);
  auto quarter = [&](hn::Vec<decltype(d8q)> q, uint16_t* p) {
    const auto f = hn::ConvertTo(df, hn::BitCast(di, hn::PromoteTo(du, q)));
    StoreHalves(df, hn::Div(f, k255), p);
  };
  auto plane = [&](hn::Vec<decltype(d8)> v, uint16_t* p) {
    const auto lo = hn::LowerHalf(d8h, v);
    const auto hi = hn::UpperHalf(d8h, v);
    quarter(hn::LowerHalf(d8q, lo), p);
    quarter(hn::UpperHalf(d8q, lo), p + lanesF);
    quarter(hn::LowerHalf(d8q, hi), p + 2 * lanesF);
    quarter(hn::UpperHalf(d8q, hi), p + 3 * lanesF);
  };
  for (; i + lanes8 <= n; i += lanes8) {
    hn::Vec<decltype(d8)> r, g, b;
    hn::LoadInterleaved3(d8, rgb + 3 * i, r, g, b);
    plane(r, dst + i);
    plane(g, dst + planeStride + i);
    plane(b, dst + 2 * planeStride + i);
  }
#endif
  for (; i < n; ++i) {
    for (size_t c = 0; c < 3; ++c) {
      dst[c * planeStride + i] = detail::narrowBits(static_cast<float>(rgb[3 * i + c]) / 255.0f);
    }
  }
}

// Mean absolute half difference of lanes [i, i + lanes) over the three planes.
template <class DF>
HWY_INLINE hn::Vec<DF> MeanAbsDiff(DF df, const uint16_t* HWY_RESTRICT a,
                                   const uint16_t* HWY_RESTRICT b, size_t n, size_t i) {
  auto acc = hn::Zero(df);
  for (size_t c = 0; c < 3; ++c) {
    const auto d = R16(df, hn::Sub(LoadHalves(df, a + c * n + i), LoadHalves(df, b + c * n + i)));
    acc = hn::Add(acc, hn::Abs(d));
  }
  return R16(df, hn::Div(acc, hn::Set(df, 3.0f)));
}

float RetrieveTermPooled(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                         const uint16_t* HWY_RESTRICT w, size_t n) {
  const hn::ScalableTag<float> df;
  const size_t lanes = hn::Lanes(df);
  HWY_ALIGN float terms[HWY_MAX_BYTES / sizeof(float)];
  float sum = 0.0f;
  size_t i = 0;
  for (; i + lanes <= n; i += lanes) {
    const auto m = MeanAbsDiff(df, a, b, n, i);
    hn::Store(R16(df, hn::Mul(LoadHalves(df, w + i), m)), df, terms);
    for (size_t j = 0; j < lanes; ++j) sum = sum + terms[j];  // lane order: the sum stays serial
  }
  for (; i < n; ++i) sum = sum + detail::pooledTerm(a, b, w, n, i);
  return sum;
}

float RetrieveTermExactRange(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                             const float* HWY_RESTRICT w, size_t n, size_t begin, size_t end) {
  const hn::ScalableTag<float> df;
  const size_t lanes = hn::Lanes(df);
  HWY_ALIGN float terms[HWY_MAX_BYTES / sizeof(float)];
  const auto zero = hn::Zero(df);
  float sum = 0.0f;
  size_t i = begin;
  for (; i + lanes <= end; i += lanes) {
    const auto m = MeanAbsDiff(df, a, b, n, i);
    const auto wv = hn::LoadU(df, w + i);
    hn::Store(hn::IfThenZeroElse(hn::Eq(wv, zero), hn::Mul(wv, m)), df, terms);
    for (size_t j = 0; j < lanes; ++j) sum = sum + terms[j];
  }
  for (; i < end; ++i) sum = sum + detail::exactTerm(a, b, w, n, i);
  return sum;
}

float RetrieveTermExact(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                        const float* HWY_RESTRICT w, size_t n) {
  return RetrieveTermExactRange(a, b, w, n, 0, n);
}

// kBlock output channels of one image over the whole image. The sum of a pixel
// runs dy, dx, ci ascending with separate product and sum roundings; the edge
// taps are left out through a select on the accumulator, never multiplied.
template <int kBlock>
HWY_INLINE void ConvChannels(const float* HWY_RESTRICT pad, size_t pitch, int Cin, int H, int W,
                             const float* HWY_RESTRICT weights, const float* HWY_RESTRICT bias,
                             int channel, float* HWY_RESTRICT out) {
  const hn::CappedTag<float, 16> df;
  const hn::RebindToSigned<decltype(df)> di;
  const int lanes = static_cast<int>(hn::Lanes(df));
  const size_t planeSize = static_cast<size_t>(H) * pitch;
  const size_t wStride = static_cast<size_t>(Cin) * 9;
  const float* wBase = weights + static_cast<size_t>(channel) * wStride;
  const size_t outPlane = static_cast<size_t>(H) * static_cast<size_t>(W);
  HWY_ALIGN float tmp[16];
  for (int y = 0; y < H; ++y) {
    const int dyBegin = y == 0 ? 1 : 0;
    const int dyEnd = y == H - 1 ? 2 : 3;
    for (int x0 = 0; x0 < W; x0 += 16) {
      for (int x = x0; x < x0 + 16 && x < W; x += lanes) {
        const auto idx = hn::Iota(di, x);
        const auto keep0 = hn::RebindMask(df, hn::Ne(idx, hn::Zero(di)));
        const auto keep2 = hn::RebindMask(df, hn::Ne(idx, hn::Set(di, W - 1)));
        const bool edge0 = x == 0;
        const bool edge2 = x + lanes > W - 1;
        // Named accumulators: scalable vectors cannot form arrays.
        auto acc0 = hn::Zero(df), acc1 = acc0, acc2 = acc0, acc3 = acc0;
        for (int dy = dyBegin; dy < dyEnd; ++dy) {
          const float* row = pad + static_cast<size_t>(y + dy - 1) * pitch + static_cast<size_t>(x);
          for (int dx = 0; dx < 3; ++dx) {
            const bool masked = (dx == 0 && edge0) || (dx == 2 && edge2);
            const auto keep = dx == 0 ? keep0 : keep2;
            for (int ci = 0; ci < Cin; ++ci) {
              const auto v = hn::LoadU(df, row + static_cast<size_t>(ci) * planeSize + dx);
              const float* wp = wBase + static_cast<size_t>(ci) * 9 + dy * 3 + dx;
              auto tap = [&](hn::Vec<decltype(df)> acc, float w) {
                const auto sum = hn::Add(acc, hn::Mul(v, hn::Set(df, w)));
                return masked ? hn::IfThenElse(keep, sum, acc) : sum;
              };
              acc0 = tap(acc0, wp[0]);
              if (kBlock == 4) {
                acc1 = tap(acc1, wp[wStride]);
                acc2 = tap(acc2, wp[2 * wStride]);
                acc3 = tap(acc3, wp[3 * wStride]);
              }
            }
          }
        }
        const size_t at = static_cast<size_t>(y) * W + x;
        auto emit = [&](hn::Vec<decltype(df)> acc, int k) {
          const auto res = hn::Add(hn::Set(df, bias[channel + k]), acc);
          float* dst = out + k * outPlane + at;
          if (x + lanes <= W) {
            hn::StoreU(res, df, dst);
          } else {
            hn::Store(res, df, tmp);
            for (int j = 0; j < W - x; ++j) dst[j] = tmp[j];
          }
        };
        emit(acc0, 0);
        if (kBlock == 4) {
          emit(acc1, 1);
          emit(acc2, 2);
          emit(acc3, 3);
        }
      }
    }
  }
}

void Conv3x3Range(const float* HWY_RESTRICT in, int N, int Cin, int H, int W,
                  const float* HWY_RESTRICT weights, const float* HWY_RESTRICT bias, int Cout,
                  float* HWY_RESTRICT out, int begin, int end) {
  (void)N;
  if (begin >= end || H <= 0 || W <= 0) return;
  const size_t pitch = static_cast<size_t>(((W + 15) & ~15) + 2);
  const size_t planeSize = static_cast<size_t>(H) * pitch;
  const size_t imageSize = static_cast<size_t>(Cin) * planeSize;
  float* pad = detail::convScratch(imageSize);
  const size_t inPlane = static_cast<size_t>(H) * static_cast<size_t>(W);
  int image = -1;
  for (int u = begin; u < end;) {
    const int img = u / Cout;
    const int channel = u % Cout;
    if (img != image) {
      image = img;
      std::memset(pad, 0, imageSize * sizeof(float));
      const float* src = in + static_cast<size_t>(img) * Cin * inPlane;
      for (int ci = 0; ci < Cin; ++ci) {
        for (int y = 0; y < H; ++y) {
          std::memcpy(pad + ci * planeSize + static_cast<size_t>(y) * pitch + 1,
                      src + ci * inPlane + static_cast<size_t>(y) * W, static_cast<size_t>(W) * sizeof(float));
        }
      }
    }
    float* dst = out + static_cast<size_t>(u) * inPlane;
    if (channel + 4 <= Cout && u + 4 <= end) {
      ConvChannels<4>(pad, pitch, Cin, H, W, weights, bias, channel, dst);
      u += 4;
    } else {
      ConvChannels<1>(pad, pitch, Cin, H, W, weights, bias, channel, dst);
      u += 1;
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace xj::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace xj::simd {

#if HWY_ARCH_ARM_A64
// The Arm bodies; releases before NEON_WITHOUT_AES and NEON_BF16 existed have
// the other five.
#ifdef HWY_NEON_WITHOUT_AES
#define XJ_SIMD_NEON_EXTRA (HWY_NEON_WITHOUT_AES | HWY_NEON_BF16)
#else
#define XJ_SIMD_NEON_EXTRA 0
#endif
static_assert((HWY_TARGETS & ~(HWY_NEON | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 |
                               XJ_SIMD_NEON_EXTRA | HWY_SCALAR | HWY_EMU128)) == 0,
              "an Arm target outside the kernel set");
#endif

HWY_EXPORT(F32ToF16);
HWY_EXPORT(F16ToF32);
HWY_EXPORT(RoundF16Mul);
HWY_EXPORT(Rgb8ToPlanarF16);
HWY_EXPORT(RetrieveTermPooled);
HWY_EXPORT(RetrieveTermExact);
HWY_EXPORT(RetrieveTermExactRange);
HWY_EXPORT(Conv3x3Range);

void f32ToF16(const float* src, uint16_t* dst, size_t n) {
  HWY_DYNAMIC_DISPATCH(F32ToF16)(src, dst, n);
}

void f16ToF32(const uint16_t* src, float* dst, size_t n) {
  HWY_DYNAMIC_DISPATCH(F16ToF32)(src, dst, n);
}

void roundF16Mul(const float* a, const float* b, float* out, size_t n) {
  HWY_DYNAMIC_DISPATCH(RoundF16Mul)(a, b, out, n);
}

void rgb8ToPlanarF16(const uint8_t* rgb, uint16_t* dst, size_t planeStride, size_t n) {
  HWY_DYNAMIC_DISPATCH(Rgb8ToPlanarF16)(rgb, dst, planeStride, n);
}

float retrieveTermPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermPooled)(a, b, w, n);
}

float retrieveTermExact(const uint16_t* a, const uint16_t* b, const float* w, size_t n) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermExact)(a, b, w, n);
}

float retrieveTermExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                             size_t begin, size_t end) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermExactRange)(a, b, w, n, begin, end);
}

void conv3x3Range(const float* in, int N, int Cin, int H, int W, const float* weights,
                  const float* bias, int Cout, float* out, int begin, int end) {
  HWY_DYNAMIC_DISPATCH(Conv3x3Range)(in, N, Cin, H, W, weights, bias, Cout, out, begin, end);
}

const char* target() {
  const int64_t supported = hwy::SupportedTargets();
  return hwy::TargetName(supported & -supported);
}

}  // namespace xj::simd
#endif  // HWY_ONCE
