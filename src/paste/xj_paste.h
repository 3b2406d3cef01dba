// The crop-to-canvas compositor: sharpens a rendered crop, warps it back onto
// the driver frame by the inverse of its paste matrix and blends it through
// a soft mask warped the same way.
#pragma once
#include <array>
#include <cstdint>
#include <vector>

namespace xj {

// Unsharp-mask settings of a bundle.
struct Unsharp {
  float amount = 0.0f;
  float sigma = 0.0f;
  int32_t ksize = 0;
};

// Owns its scratch: one composite at a time per object. Everything a frame
// needs is allocated here, except the two delta rows, which grow with the
// widest box seen and never shrink.
class Paste {
 public:
  // Refuses a mask that is not side*side bytes and an even kernel size.
  // Reads XJ_PASTE_FAST (0 Lanczos-4, 1 bicubic, 2 bilinear; anything else 0)
  // and XJ_PASTE_KSIZE (a smaller odd kernel of at least 3 taps, same sigma).
  Paste(std::vector<unsigned char> mask, int side, const Unsharp& u);

  // Pastes a crop of side*side*3 floats (planes R, G, B, times `scale` on
  // 0..255) onto an interleaved RGB canvas of W x H, in place. M is the 2x3
  // matrix from crop to canvas coordinates. A singular M, or a crop that
  // lands wholly off the canvas, leaves the canvas as it was.
  void composite(const float* crop, float scale, const float* M, unsigned char* canvas, int W, int H);

  // planes[c][i] = crop[c*side*side + i] * scale.
  void fillPlanes(const float* crop, float scale);
  // Unsharp mask over a reflect-101 border, clamped to [0, 255], in place.
  void unsharpPlane(std::vector<float>& plane);
  // Warp and blend over the box [x0, x1] x [y0, y1]; ib, ie, ic, if_ are
  // entries of the inverse matrix, adelta and bdelta already filled.
  void compositeTail(unsigned char* canvas, int W, int x0, int x1, int y0, int y1, double ib, double ie,
                     double ic, double if_);
  // There is no GPU compositor: always false, and the caller uses composite.
  bool compositeGpuRgba(const float* crop, float scale, const float* M, const unsigned char* canvas, int W, int H,
                        void* target, int flags);

  int32_t side = 0;
  int32_t ksize = 0;
  int32_t padded = 0;
  float amount = 0.0f;
  int32_t fast = 0;
  std::vector<unsigned char> mask;
  std::vector<float> kernel;
  std::vector<float> lanczos;   // 32 phases x 8 taps
  std::vector<float> bilinear;  // 32 phases x 2 taps
  std::vector<float> bicubic;   // 32 phases x 4 taps
  std::array<std::vector<float>, 3> planes;
  std::vector<float> pad;
  std::vector<float> tmp;
  std::vector<float> quad;
  std::vector<int32_t> adelta;
  std::vector<int32_t> bdelta;

  static constexpr int kPhases = 32;
  static constexpr int kFracBits = 10;
};

}  // namespace xj
