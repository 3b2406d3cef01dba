// Per-target bodies of pasteLanczos8Row. Highway re-includes this file once
// per compiled target; the part above the target include is compiled once.
#ifndef XJ_PASTE_SIMD_SHARED
#define XJ_PASTE_SIMD_SHARED

#include "paste/xj_paste_simd.h"

#include <cstddef>

// The same compiled targets as the other xj::simd kernels. x86: AVX-512,
// AVX2, SSE4 and the portable fallback. Arm64 keeps every target Highway
// offers (NEON, SVE, SVE2, SVE_256, SVE2_128, and NEON_WITHOUT_AES and
// NEON_BF16 where the release knows them): nothing is disabled there.
#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64)
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_AVX3_DL)
#endif
#endif

namespace xj::simd::paste {

// The 8x8 filter one channel at a time, skipping the taps outside the crop:
// the filter fades towards black past the edge, it does not renormalise.
// Taps run in the same order as the vector body, so an interior pixel gets
// the same bits either way.
inline void lanczosEdge(const float* quad, int side, int ix, int iy, const float* wx, const float* wy,
                        float* value) {
  for (int ch = 0; ch < 3; ++ch) {
    float acc = 0.0f;
    for (int r = 0; r < 8; ++r) {
      const int y = iy - 3 + r;
      if (y < 0 || y >= side) continue;
      const float* row = quad + static_cast<size_t>(y) * static_cast<size_t>(side) * 4 + ch;
      float sum = 0.0f;
      for (int k = 0; k < 8; ++k) {
        const int x = ix - 3 + k;
        if (x < 0 || x >= side) continue;
        sum = sum + wx[k] * row[static_cast<size_t>(x) * 4];
      }
      acc = acc + wy[r] * sum;
    }
    value[ch] = acc;
  }
}

}  // namespace xj::simd::paste

#endif  // XJ_PASTE_SIMD_SHARED

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "paste/xj_paste_simd.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace xj::simd {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One pixel is one 128-bit vector of R, G, B and an unused zero lane, so the
// 8x8 filter runs the three channels at once. The single-lane fallback has no
// such vector and filters channel by channel.
#undef XJ_PASTE_QUAD_VECTOR
#if HWY_TARGET == HWY_SCALAR
#define XJ_PASTE_QUAD_VECTOR 0
#else
#define XJ_PASTE_QUAD_VECTOR 1
#endif

void PasteLanczos8Row(const float* HWY_RESTRICT quad, int side, const unsigned char* HWY_RESTRICT mask,
                      const float* HWY_RESTRICT lanczos, const float* HWY_RESTRICT bilinear,
                      const int* HWY_RESTRICT adelta, const int* HWY_RESTRICT bdelta, int X, int Y, int x0,
                      int x1, unsigned char* HWY_RESTRICT canvasRow) {
#if XJ_PASTE_QUAD_VECTOR
  const hn::FixedTag<float, 4> d;
  const size_t rowStride = static_cast<size_t>(side) * 4;
#endif
  for (int x = x0; x <= x1; ++x) {
    const int j = x - x0;
    const int32_t sx = paste::addWrap(X, adelta[j]);
    const int32_t sy = paste::addWrap(Y, bdelta[j]);
    const int ix = sx >> 10;
    const int iy = sy >> 10;
    if (ix < -1 || ix >= side || iy < -1 || iy >= side) continue;
    const int fx = (sx >> 5) & 31;
    const int fy = (sy >> 5) & 31;
    const float alpha = paste::alphaAt(mask, side, ix, iy, bilinear + 2 * fx, bilinear + 2 * fy);
    if (alpha <= 0.0f) continue;

    const float* wx = lanczos + 8 * fx;
    const float* wy = lanczos + 8 * fy;
    HWY_ALIGN float value[4];
#if XJ_PASTE_QUAD_VECTOR
    if (ix >= 3 && ix + 4 < side && iy >= 3 && iy + 4 < side) {
      const float* block = quad + static_cast<size_t>(iy - 3) * rowStride + static_cast<size_t>(ix - 3) * 4;
      const auto w0 = hn::Set(d, wx[0]), w1 = hn::Set(d, wx[1]), w2 = hn::Set(d, wx[2]),
                 w3 = hn::Set(d, wx[3]), w4 = hn::Set(d, wx[4]), w5 = hn::Set(d, wx[5]),
                 w6 = hn::Set(d, wx[6]), w7 = hn::Set(d, wx[7]);
      auto acc = hn::Zero(d);
      for (int r = 0; r < 8; ++r) {
        const float* p = block + static_cast<size_t>(r) * rowStride;
        // Strictly in tap order, each product rounded before its sum.
        auto sum = hn::Zero(d);
        sum = hn::Add(sum, hn::Mul(w0, hn::LoadU(d, p + 0)));
        sum = hn::Add(sum, hn::Mul(w1, hn::LoadU(d, p + 4)));
        sum = hn::Add(sum, hn::Mul(w2, hn::LoadU(d, p + 8)));
        sum = hn::Add(sum, hn::Mul(w3, hn::LoadU(d, p + 12)));
        sum = hn::Add(sum, hn::Mul(w4, hn::LoadU(d, p + 16)));
        sum = hn::Add(sum, hn::Mul(w5, hn::LoadU(d, p + 20)));
        sum = hn::Add(sum, hn::Mul(w6, hn::LoadU(d, p + 24)));
        sum = hn::Add(sum, hn::Mul(w7, hn::LoadU(d, p + 28)));
        acc = hn::Add(acc, hn::Mul(hn::Set(d, wy[r]), sum));
      }
      hn::Store(acc, d, value);
    } else {
      paste::lanczosEdge(quad, side, ix, iy, wx, wy, value);
    }
#else
    paste::lanczosEdge(quad, side, ix, iy, wx, wy, value);
#endif
    unsigned char* px = canvasRow + 3 * static_cast<size_t>(x);
    px[0] = paste::blend(px[0], alpha, value[0]);
    px[1] = paste::blend(px[1], alpha, value[1]);
    px[2] = paste::blend(px[2], alpha, value[2]);
  }
}

void PasteFirRow(const float* HWY_RESTRICT in, const float* HWY_RESTRICT k, int taps, float* HWY_RESTRICT out,
                 size_t n) {
  const hn::ScalableTag<float> d;
  const size_t N = hn::Lanes(d);
  size_t i = 0;
  for (; i + N <= n; i += N) {
    auto acc = hn::Zero(d);
    for (int t = 0; t < taps; ++t) acc = hn::Add(acc, hn::Mul(hn::Set(d, k[t]), hn::LoadU(d, in + i + t)));
    hn::StoreU(acc, d, out + i);
  }
  for (; i < n; ++i) {
    float acc = 0.0f;
    for (int t = 0; t < taps; ++t) acc = acc + k[t] * in[i + static_cast<size_t>(t)];
    out[i] = acc;
  }
}

void PasteFirColumns(const float* HWY_RESTRICT in, size_t stride, const float* HWY_RESTRICT k, int taps,
                     float* HWY_RESTRICT out, size_t n) {
  const hn::ScalableTag<float> d;
  const size_t N = hn::Lanes(d);
  size_t x = 0;
  for (; x + N <= n; x += N) {
    auto acc = hn::Zero(d);
    for (int t = 0; t < taps; ++t) {
      acc = hn::Add(acc, hn::Mul(hn::Set(d, k[t]), hn::LoadU(d, in + static_cast<size_t>(t) * stride + x)));
    }
    hn::StoreU(acc, d, out + x);
  }
  for (; x < n; ++x) {
    float acc = 0.0f;
    for (int t = 0; t < taps; ++t) acc = acc + k[t] * in[static_cast<size_t>(t) * stride + x];
    out[x] = acc;
  }
}

void PasteSharpenRow(float* HWY_RESTRICT plane, const float* HWY_RESTRICT blur, float gain, float amount,
                     size_t n) {
  const hn::ScalableTag<float> d;
  const size_t N = hn::Lanes(d);
  const auto g = hn::Set(d, gain);
  const auto a = hn::Set(d, amount);
  const auto zero = hn::Zero(d);
  const auto top = hn::Set(d, 255.0f);
  size_t x = 0;
  for (; x + N <= n; x += N) {
    auto v = hn::Sub(hn::Mul(hn::LoadU(d, plane + x), g), hn::Mul(hn::LoadU(d, blur + x), a));
    // Compare and select rather than min/max, so that a NaN passes as it does below.
    v = hn::IfThenElse(hn::Lt(v, zero), zero, v);
    v = hn::IfThenElse(hn::Gt(v, top), top, v);
    hn::StoreU(v, d, plane + x);
  }
  for (; x < n; ++x) {
    const float v = plane[x] * gain - blur[x] * amount;
    plane[x] = v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace xj::simd
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace xj::simd {

HWY_EXPORT(PasteLanczos8Row);

void pasteLanczos8Row(const float* quad, int side, const unsigned char* mask, const float* lanczos,
                      const float* bilinear, const int* adelta, const int* bdelta, int X, int Y, int x0,
                      int x1, unsigned char* canvasRow) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(quad, side, mask, lanczos, bilinear, adelta, bdelta, X, Y, x0, x1,
                                         canvasRow);
}

HWY_EXPORT(PasteFirRow);
HWY_EXPORT(PasteFirColumns);
HWY_EXPORT(PasteSharpenRow);

void pasteFirRow(const float* in, const float* k, int taps, float* out, size_t n) {
  HWY_DYNAMIC_DISPATCH(PasteFirRow)(in, k, taps, out, n);
}

void pasteFirColumns(const float* in, size_t stride, const float* k, int taps, float* out, size_t n) {
  HWY_DYNAMIC_DISPATCH(PasteFirColumns)(in, stride, k, taps, out, n);
}

void pasteSharpenRow(float* plane, const float* blur, float gain, float amount, size_t n) {
  HWY_DYNAMIC_DISPATCH(PasteSharpenRow)(plane, blur, gain, amount, n);
}

}  // namespace xj::simd
#endif  // HWY_ONCE
