// The row kernel of the Lanczos paste, dispatched at run time like the other
// xj::simd kernels, and the per-pixel steps it shares with the plain modes.
#pragma once
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace xj::simd {

// One canvas row of the Lanczos-4 paste, columns [x0, x1]. `quad` holds the
// sharpened crop as side*side pixels of four floats (R, G, B, 0); `lanczos`
// and `bilinear` are the 32-phase tables (8 and 2 taps a phase); adelta[j]
// and bdelta[j] are the fixed-point contributions of column x0 + j, and X, Y
// the row start in the same 22.10 fixed point, half a phase step included.
// canvasRow is column 0 of the row, interleaved RGB.
void pasteLanczos8Row(const float* quad, int side, const unsigned char* mask, const float* lanczos,
                      const float* bilinear, const int* adelta, const int* bdelta, int X, int Y, int x0,
                      int x1, unsigned char* canvasRow);

// The three passes of the unsharp mask, element by element, so that every
// vector width gives the bits of the plain loops:
// out[i] = sum over t ascending of k[t] * in[i + t], from 0 (a row of the
// horizontal pass, taps in order).
void pasteFirRow(const float* in, const float* k, int taps, float* out, size_t n);
// out[x] = sum over t ascending of k[t] * in[t * stride + x], from 0.
void pasteFirColumns(const float* in, size_t stride, const float* k, int taps, float* out, size_t n);
// plane[x] = clamp(plane[x] * gain - blur[x] * amount, 0, 255).
void pasteSharpenRow(float* plane, const float* blur, float gain, float amount, size_t n);

namespace paste {

// Fixed-point positions wrap rather than overflow: only absurd matrices get
// there, and those land outside the crop either way.
inline int32_t addWrap(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Mask byte (x, y), 0 outside the crop.
inline float maskAt(const unsigned char* mask, int side, int x, int y) {
  if (x < 0 || y < 0 || x >= side || y >= side) return 0.0f;
  return static_cast<float>(mask[y * side + x]);
}

// The bilinear mask value at the sample (ix, iy) with phase rows u and v,
// rounded to a whole level, as an opacity in [0, 1].
inline float alphaAt(const unsigned char* mask, int side, int ix, int iy, const float* u, const float* v) {
  const float top = u[0] * maskAt(mask, side, ix, iy) + u[1] * maskAt(mask, side, ix + 1, iy);
  const float bottom = u[0] * maskAt(mask, side, ix, iy + 1) + u[1] * maskAt(mask, side, ix + 1, iy + 1);
  const float m = top * v[0] + bottom * v[1];
  return std::rint(m) / 255.0f;
}

// canvas * (1 - alpha) + alpha * value, clamped and truncated to a byte. A
// NaN value (only from a NaN crop) gives 0.
inline unsigned char blend(unsigned char canvas, float alpha, float value) {
  const float out = static_cast<float>(canvas) * (1.0f - alpha) + alpha * value;
  if (!(out > 0.0f)) return 0;
  if (out >= 255.0f) return 255;
  return static_cast<unsigned char>(static_cast<int>(out));
}

}  // namespace paste
}  // namespace xj::simd
