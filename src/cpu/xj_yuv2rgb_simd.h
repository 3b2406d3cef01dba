// One row of 4:2:0 video to packed RGB24, dispatched to the best vector target.
#pragma once
#include <cstdint>

namespace xj::simd {

// Limited-range BT.601 in integer arithmetic, for pixels 0 to width - 1:
//   C = 298 * y[x] - 4640, D = u[k] - 128, E = v[k] - 128, k = (x >> 1) * chromaStep
//   R = clamp((C + 409 E) >> 8), G = clamp((C - 100 D - 208 E) >> 8), B = clamp((C + 516 D) >> 8)
// chromaStep is 1 for planar chroma, 2 for interleaved chroma (u and v one byte
// apart, in either order). Writes 3 * width bytes to rgb; every target and the
// scalar path give the same bytes. Reads nothing past the row.
void yuv420RowToRgb24(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width,
                      int chromaStep, uint8_t* rgb);

}  // namespace xj::simd
