// Hot loops of the teeth pass and the driver reader, written once against
// Highway and dispatched at run time to the best compiled target. Every entry
// gives the same bits on every target and vector width: sums run strictly in
// index order, nothing is fused, tails use a scalar path of identical bits.
#pragma once
#include <cstddef>
#include <cstdint>

#include "cpu/xj_yuv2rgb_simd.h"

namespace xj::simd {

// Single to IEEE binary16, round to nearest, ties to even; overflow gives
// infinity, small values underflow gradually, NaN stays a quiet NaN (sign and
// the upper payload bits kept).
void f32ToF16(const float* src, uint16_t* dst, size_t n);

// Exact widening of binary16, subnormals included (a signalling NaN comes back quiet).
void f16ToF32(const uint16_t* src, float* dst, size_t n);

// out[i] = b[i] * r16(a[i]): a rounded to half and back, then a single product.
void roundF16Mul(const float* a, const float* b, float* out, size_t n);

// Interleaved 8-bit RGB to three planes of binary16 in [0, 1]:
// dst[c * planeStride + i] = half((float)rgb[3 i + c] / 255.0f), a true division.
void rgb8ToPlanarF16(const uint8_t* rgb, uint16_t* dst, size_t planeStride, size_t n);

// Sum over i of r16(w[i] * r16((|r16(a0-b0)| + |r16(a1-b1)| + |r16(a2-b2)|) / 3)),
// planes of stride n, summed in ascending i in single precision.
float retrieveTermPooled(const uint16_t* a, const uint16_t* b, const uint16_t* w, size_t n);

// As retrieveTermPooled with a single-precision weight and no rounding of the
// weighted term; a zero weight contributes exactly 0 whatever the data holds.
float retrieveTermExact(const uint16_t* a, const uint16_t* b, const float* w, size_t n);
float retrieveTermExactRange(const uint16_t* a, const uint16_t* b, const float* w, size_t n,
                             size_t begin, size_t end);

// Units [begin, end) of a 3x3, stride 1, zero-padded convolution; unit
// i = image * Cout + channel. in [N][Cin][H][W], weights [Cout][Cin][3][3],
// bias [Cout], out [N][Cout][H][W]. Taps outside the image are skipped; the
// sum of one pixel runs dy, dx, ci ascending and the bias is added last.
void conv3x3Range(const float* in, int N, int Cin, int H, int W, const float* weights,
                  const float* bias, int Cout, float* out, int begin, int end);

// Highway's name of the best supported target ("AVX2", "NEON", ...).
const char* target();

}  // namespace xj::simd
