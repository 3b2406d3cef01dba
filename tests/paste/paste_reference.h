// A plain model of the crop-to-canvas paste, one pixel at a time, written from
// the compositor's definition with no code shared with the library: its
// tables, its unsharp mask and its fixed-point warp are recomputed here.
#pragma once
#include <cstdint>
#include <vector>

namespace xjref {

struct PasteTables {
  int ksize = 0;                 // in force, after XJ_PASTE_KSIZE
  std::vector<float> gauss;      // ksize taps
  std::vector<float> lanczos;    // [32][8]
  std::vector<float> bilinear;   // [32][2]
  std::vector<float> bicubic;    // [32][4]
};

// Tables for a kernel of `ksize` taps with the given sigma.
PasteTables pasteTables(int ksize, float sigma);

// Sharpens one side x side plane (values on 0..255) as the compositor does.
std::vector<float> unsharp(const std::vector<float>& plane, int side, const PasteTables& t, float amount);

struct PasteSetup {
  int side = 0;
  std::vector<uint8_t> mask;  // side*side
  float amount = 1.3f;
  float sigma = 2.0f;
  int ksize = 13;  // the kernel in force
  int mode = 0;    // 0 Lanczos-4, 1 bicubic, 2 bilinear
};

// The whole paste of `crop` (planes R, G, B) onto the RGB canvas, in place.
void composite(const PasteSetup& s, const float* crop, float scale, const float M[6], uint8_t* canvas, int W,
               int H);

// Lanczos-4 weight of offset t by its textbook definition, sinc(t) sinc(t/4).
double lanczos4(double t);

}  // namespace xjref
