// Whole composites against the plain model, byte for byte, on every dispatch
// target and in the three interpolation modes; the cases that must leave the
// canvas alone; the exact cases that need no model.
#include <cmath>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "paste/xj_paste.h"
#include "paste_reference.h"
#include "paste_testutil.h"
#include "xj_testutil.h"

namespace {

using xjtest::ScopedEnv;

struct Scene {
  const char* name;
  int side, W, H;
  double scale, theta;
  bool reflect;
  double cx, cy;  // where the crop's centre lands
};

// Rotation, scale up and down, mirror, translation only, and crops hanging
// over each edge of the canvas.
const Scene kScenes[] = {
    {"identity-like", 24, 64, 48, 1.0, 0.0, false, 30.0, 22.0},
    {"rotated and enlarged", 20, 80, 70, 2.3, 0.6, false, 40.0, 35.0},
    {"shrunk", 40, 50, 40, 0.45, -0.3, false, 25.0, 20.0},
    {"mirrored", 28, 70, 60, 1.2, 0.25, true, 35.0, 30.0},
    {"upside down", 24, 60, 60, 1.0, 3.14159265, false, 30.0, 31.0},
    {"over the left edge", 30, 60, 50, 1.5, 0.1, false, 4.0, 25.0},
    {"over the bottom right", 30, 60, 50, 1.1, -0.2, true, 55.0, 47.0},
    {"larger than the canvas", 32, 30, 26, 2.0, 0.4, false, 15.0, 13.0},
    {"tiny crop", 5, 20, 20, 2.5, 0.7, false, 10.0, 10.0},
    {"over the top", 24, 50, 50, 1.3, 1.1, false, 25.0, -6.0},
};

struct Painted {
  std::vector<uint8_t> before, lib, ref;
};

Painted pasteBoth(const Scene& s, int mode, uint32_t seed, const std::vector<uint8_t>& mask, int ksize = 13) {
  std::mt19937 rng(seed);
  const std::vector<float> crop = xjpaste::randomCrop(rng, s.side);
  Painted r;
  r.before = xjpaste::randomCanvas(rng, s.W, s.H);
  r.lib = r.before;
  r.ref = r.before;
  float M[6];
  xjpaste::placeMatrix(M, s.side, s.scale, s.theta, s.reflect, s.cx, s.cy);
  // Sub-pixel placement so that all phases turn up.
  M[2] += 0.37f;
  M[5] -= 0.19f;

  const std::string m = std::to_string(mode);
  ScopedEnv fast("XJ_PASTE_FAST", m.c_str());
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  xj::Paste p(mask, s.side, xj::Unsharp{1.3f, 2.0f, ksize});
  p.composite(crop.data(), 255.0f, M, r.lib.data(), s.W, s.H);

  xjref::PasteSetup setup;
  setup.side = s.side;
  setup.mask = mask;
  setup.ksize = ksize;
  setup.mode = mode;
  xjref::composite(setup, crop.data(), 255.0f, M, r.ref.data(), s.W, s.H);
  return r;
}

void expectSame(const Painted& r, const std::string& what, int W) {
  const long at = xjpaste::firstDifference(r.lib, r.ref);
  if (at < 0) return;
  const long px = at / 3;
  ADD_FAILURE() << what << ": first difference at x " << px % W << " y " << px / W << " channel " << at % 3
                << ": " << int(r.lib[at]) << " vs model " << int(r.ref[at]);
}

TEST(PasteComposite, MatchesModelOnEveryTargetAndMode) {
  for (int64_t t : xjpaste::targets()) {
    xjpaste::TargetScope scope(t);
    for (int mode = 0; mode < 3; ++mode) {
      uint32_t seed = 100;
      for (const Scene& s : kScenes) {
        for (int maskKind = 0; maskKind < 2; ++maskKind) {
          std::mt19937 mrng(seed);
          const auto mask = maskKind == 0 ? xjpaste::softMask(s.side) : xjpaste::randomMask(mrng, s.side);
          const Painted r = pasteBoth(s, mode, seed++, mask);
          expectSame(r, std::string(xjpaste::targetName(t)) + " mode " + std::to_string(mode) + " " + s.name +
                            (maskKind ? " random mask" : " soft mask"),
                     s.W);
          // Something was painted: the comparison is not between two untouched canvases.
          EXPECT_NE(r.lib, r.before) << s.name;
        }
      }
    }
  }
}

TEST(PasteComposite, KernelSizesMatchModel) {
  const Scene s = kScenes[1];
  for (int ksize : {1, 3, 5}) {
    const Painted r = pasteBoth(s, 0, 7 + ksize, xjpaste::softMask(s.side), ksize);
    expectSame(r, "ksize " + std::to_string(ksize), s.W);
  }
  // XJ_PASTE_KSIZE=5 over a manifest of 13 is the same paste as a 5-tap manifest.
  std::mt19937 rng(77);
  const auto crop = xjpaste::randomCrop(rng, s.side);
  const auto canvas = xjpaste::randomCanvas(rng, s.W, s.H);
  float M[6];
  xjpaste::placeMatrix(M, s.side, s.scale, s.theta, s.reflect, s.cx, s.cy);
  auto paste = [&](const char* env, int ksize) {
    ScopedEnv fast("XJ_PASTE_FAST", nullptr);
    ScopedEnv ks("XJ_PASTE_KSIZE", env);
    xj::Paste p(xjpaste::softMask(s.side), s.side, xj::Unsharp{1.3f, 2.0f, ksize});
    std::vector<uint8_t> out = canvas;
    p.composite(crop.data(), 255.0f, M, out.data(), s.W, s.H);
    return out;
  };
  EXPECT_EQ(paste("5", 13), paste(nullptr, 5));
  EXPECT_NE(paste("5", 13), paste(nullptr, 13));
  EXPECT_EQ(paste("15", 13), paste(nullptr, 13));
}

TEST(PasteComposite, CanvasStaysAsItWas) {
  ScopedEnv fast("XJ_PASTE_FAST", nullptr);
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 16, W = 40, H = 30;
  struct Case {
    const char* name;
    float M[6];
    bool zeroMask;
    bool boxEmpty;
  } cases[] = {
      {"all zeros", {0, 0, 0, 0, 0, 0}, false, true},
      {"rank one", {1, 2, 5, 2, 4, 5}, false, true},
      {"only a translation", {0, 0, 10, 0, 0, 10}, false, true},
      {"off to the left", {1, 0, -30, 0, 1, 5}, false, true},
      {"off to the right", {1, 0, 45, 0, 1, 5}, false, true},
      {"off the top", {0.5f, 0, 5, 0, 0.5f, -20}, false, true},
      {"off the bottom", {1, 0, 5, 0, 1, 35}, false, true},
      {"mirrored off the left", {-1, 0, -5, 0, 1, 5}, false, true},
      {"mask all zero", {1.2f, 0.3f, 8, -0.3f, 1.2f, 6}, true, false},
  };
  for (int mode = 0; mode < 3; ++mode) {
    for (const Case& c : cases) {
      std::mt19937 rng(9);
      const auto crop = xjpaste::randomCrop(rng, side);
      const auto canvas = xjpaste::randomCanvas(rng, W, H);
      const std::string m = std::to_string(mode);
      ScopedEnv modeEnv("XJ_PASTE_FAST", m.c_str());
      xj::Paste p(std::vector<unsigned char>(side * side, c.zeroMask ? 0 : 255), side,
                  xj::Unsharp{1.3f, 2.0f, 13});
      for (auto& plane : p.planes) plane.assign(plane.size(), -1.0f);
      std::vector<uint8_t> out = canvas;
      p.composite(crop.data(), 255.0f, c.M, out.data(), W, H);
      EXPECT_EQ(out, canvas) << c.name << " mode " << mode;
      if (c.boxEmpty) {
        // Nothing runs at all: not even the sharpening touches the planes.
        for (const auto& plane : p.planes) EXPECT_EQ(plane[0], -1.0f) << c.name;
        EXPECT_TRUE(p.adelta.empty()) << c.name;
      } else {
        EXPECT_NE(p.planes[0][0], -1.0f) << c.name;
      }
    }
  }
}

// Whole-pixel placement lands every sample on phase 0: the Lanczos row is the
// pixel itself and a full mask makes the crop replace the canvas, truncated.
TEST(PasteComposite, WholePixelPlacementCopiesTheCrop) {
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 20, W = 50, H = 40, ox = 13, oy = 9;
  std::mt19937 rng(21);
  const auto crop = xjpaste::randomCrop(rng, side);
  for (int64_t t : xjpaste::targets()) {
    xjpaste::TargetScope scope(t);
    for (const char* mode : {"0", "1", "2"}) {
      ScopedEnv fast("XJ_PASTE_FAST", mode);
      const auto canvas = xjpaste::randomCanvas(rng, W, H);
      std::vector<uint8_t> out = canvas;
      xj::Paste p(std::vector<unsigned char>(side * side, 255), side, xj::Unsharp{0.0f, 2.0f, 13});
      const float M[6] = {1, 0, float(ox), 0, 1, float(oy)};
      p.composite(crop.data(), 255.0f, M, out.data(), W, H);
      for (int y = 0; y < H; ++y) {
        for (int x = 0; x < W; ++x) {
          for (int c = 0; c < 3; ++c) {
            const size_t at = (size_t(y) * W + x) * 3 + c;
            const int cx = x - ox, cy = y - oy;
            int want = canvas[at];
            if (cx >= 0 && cy >= 0 && cx < side && cy < side) {
              const float v = crop[(size_t(c) * side + cy) * side + cx] * 255.0f;
              want = v <= 0 ? 0 : v >= 255 ? 255 : int(v);
            }
            ASSERT_EQ(int(out[at]), want) << xjpaste::targetName(t) << " mode " << mode << " at " << x << ","
                                          << y << " channel " << c;
          }
        }
      }
    }
  }
}

// A full mask: inside, the result does not depend on the canvas; the last
// column and row of the crop fade through the mask's bilinear edge.
TEST(PasteComposite, FullMaskReplacesInsideAndFadesAtTheEdge) {
  ScopedEnv fast("XJ_PASTE_FAST", nullptr);
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 16, W = 40, H = 40;
  std::mt19937 rng(4);
  const auto crop = xjpaste::randomCrop(rng, side);
  // Half a pixel to the right and down: sample x = canvas x - 10.5.
  const float M[6] = {1, 0, 10.5f, 0, 1, 10.5f};
  std::vector<uint8_t> black(W * H * 3, 0), white(W * H * 3, 255);
  xj::Paste p(std::vector<unsigned char>(side * side, 255), side, xj::Unsharp{1.3f, 2.0f, 13});
  p.composite(crop.data(), 255.0f, M, black.data(), W, H);
  p.composite(crop.data(), 255.0f, M, white.data(), W, H);
  int inside = 0, faded = 0;
  for (int y = 0; y < H; ++y) {
    for (int x = 0; x < W; ++x) {
      const int ix = int(std::floor(x - 10.5)), iy = int(std::floor(y - 10.5));
      const size_t at = (size_t(y) * W + x) * 3;
      const bool touched = ix >= -1 && iy >= -1 && ix < side && iy < side;
      const bool full = ix >= 0 && iy >= 0 && ix < side - 1 && iy < side - 1;
      for (int c = 0; c < 3; ++c) {
        if (!touched) {
          ASSERT_EQ(black[at + c], 0) << x << "," << y;
          ASSERT_EQ(white[at + c], 255) << x << "," << y;
        } else if (full) {
          ASSERT_EQ(black[at + c], white[at + c]) << "inside at " << x << "," << y;
          ++inside;
        } else if (black[at + c] != white[at + c]) {
          ++faded;
        }
      }
    }
  }
  EXPECT_EQ(inside, 15 * 15 * 3);
  // Every pixel of the ring between the two squares blends with the canvas.
  EXPECT_EQ(faded, (17 * 17 - 15 * 15) * 3);
}

// The delta rows cover the box of the crop's corners widened by the Lanczos
// apron, (-4, -4) to (side + 3, side + 3), cut to the canvas.
TEST(PasteComposite, DeltaRowsSpanTheBox) {
  ScopedEnv fast("XJ_PASTE_FAST", nullptr);
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 16;
  struct Case {
    const char* name;
    float M[6];
    int W, x0, x1;
  } cases[] = {
      {"translation", {1, 0, 10, 0, 1, 5}, 100, 6, 29},
      {"fractional", {1, 0, 10.5f, 0, 1, 5}, 100, 6, 30},
      {"cut on the left", {1, 0, -2, 0, 1, 5}, 100, 0, 17},
      {"cut on the right", {1, 0, 10, 0, 1, 5}, 25, 6, 24},
      {"halved", {0.5f, 0, 20, 0, 0.5f, 5}, 100, 18, 30},
      {"mirrored", {-1, 0, 40, 0, 1, 5}, 100, 21, 44},
      {"rotated a quarter", {0, -1, 40, 1, 0, 5}, 100, 21, 44},
  };
  std::vector<float> crop(side * side * 3, 0.5f);
  for (const Case& c : cases) {
    xj::Paste p(std::vector<unsigned char>(side * side, 255), side, xj::Unsharp{1.3f, 2.0f, 13});
    std::vector<uint8_t> canvas(size_t(c.W) * 60 * 3, 0);
    p.composite(crop.data(), 255.0f, c.M, canvas.data(), c.W, 60);
    ASSERT_EQ(p.adelta.size(), size_t(c.x1 - c.x0 + 1)) << c.name;
    const double det = double(c.M[0]) * c.M[4] - double(c.M[1]) * c.M[3];
    for (int x = c.x0; x <= c.x1; ++x) {
      EXPECT_EQ(p.adelta[x - c.x0], std::llrint(x * (c.M[4] / det) * 1024)) << c.name << " x " << x;
      EXPECT_EQ(p.bdelta[x - c.x0], std::llrint(x * (-c.M[3] / det) * 1024)) << c.name << " x " << x;
    }
  }
}

TEST(PasteComposite, ScratchCarriesNothingBetweenFrames) {
  ScopedEnv fast("XJ_PASTE_FAST", nullptr);
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const Scene& s = kScenes[1];
  const auto mask = xjpaste::softMask(s.side);
  std::mt19937 rng(8);
  const auto cropA = xjpaste::randomCrop(rng, s.side);
  const auto cropB = xjpaste::randomCrop(rng, s.side);
  const auto canvas = xjpaste::randomCanvas(rng, s.W, s.H);
  float wide[6], narrow[6];
  xjpaste::placeMatrix(wide, s.side, 3.0, 0.2, false, 40, 35);
  xjpaste::placeMatrix(narrow, s.side, 0.8, -0.4, true, 30, 30);

  xj::Paste reused(mask, s.side, xj::Unsharp{1.3f, 2.0f, 13});
  std::vector<uint8_t> first = canvas;
  reused.composite(cropA.data(), 255.0f, wide, first.data(), s.W, s.H);
  const size_t grown = reused.adelta.size();
  std::vector<uint8_t> second = canvas;
  reused.composite(cropB.data(), 255.0f, narrow, second.data(), s.W, s.H);
  EXPECT_EQ(reused.adelta.size(), grown) << "the delta rows never shrink";

  xj::Paste fresh(mask, s.side, xj::Unsharp{1.3f, 2.0f, 13});
  std::vector<uint8_t> want = canvas;
  fresh.composite(cropB.data(), 255.0f, narrow, want.data(), s.W, s.H);
  EXPECT_EQ(second, want);
}

TEST(PasteComposite, SteadyFramesAllocateNothing) {
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 64, W = 300, H = 260;
  std::mt19937 rng(12);
  const auto crop = xjpaste::randomCrop(rng, side);
  for (const char* mode : {"0", "1", "2"}) {
    ScopedEnv fast("XJ_PASTE_FAST", mode);
    xj::Paste p(xjpaste::softMask(side), side, xj::Unsharp{1.3f, 2.0f, 13});
    std::vector<uint8_t> canvas = xjpaste::randomCanvas(rng, W, H);
    float big[6], small[6];
    xjpaste::placeMatrix(big, side, 3.5, 0.3, false, 150, 130);
    xjpaste::placeMatrix(small, side, 1.0, -0.2, false, 100, 100);
    p.composite(crop.data(), 255.0f, big, canvas.data(), W, H);  // grows the delta rows, starts the pool
    xjpaste::armAllocationCounter(true);
    p.composite(crop.data(), 255.0f, small, canvas.data(), W, H);
    p.composite(crop.data(), 255.0f, big, canvas.data(), W, H);
    xjpaste::armAllocationCounter(false);
    EXPECT_EQ(xjpaste::allocationCount(), 0u) << "mode " << mode;
  }
}

TEST(PasteComposite, SideAbove1024IsRefusedAtTheFirstFrame) {
  ScopedEnv fast("XJ_PASTE_FAST", nullptr);
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 2048;
  xj::Paste p(std::vector<unsigned char>(size_t(side) * side, 255), side, xj::Unsharp{1.3f, 2.0f, 13});
  std::vector<float> crop(size_t(side) * side * 3, 0.5f);
  std::vector<uint8_t> canvas(64 * 48 * 3, 3);
  // Wholly off the canvas: nothing runs, so nothing is refused.
  const float off[6] = {1, 0, 5000, 0, 1, 0};
  EXPECT_NO_THROW(p.composite(crop.data(), 255.0f, off, canvas.data(), 64, 48));
  const float on[6] = {0.02f, 0, 1, 0, 0.02f, 1};
  try {
    p.composite(crop.data(), 255.0f, on, canvas.data(), 64, 48);
    ADD_FAILURE() << "accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "paste: side > 1024");
  }
  EXPECT_EQ(canvas, std::vector<uint8_t>(64 * 48 * 3, 3));
}

TEST(PasteComposite, SideOf1024Works) {
  ScopedEnv fast("XJ_PASTE_FAST", "2");
  ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
  const int side = 1024;
  std::mt19937 rng(2);
  const auto crop = xjpaste::randomCrop(rng, side);
  std::vector<uint8_t> lib(40 * 30 * 3, 50), ref = lib;
  const float M[6] = {0.03f, 0.001f, 4, -0.002f, 0.025f, 3};
  xj::Paste p(xjpaste::softMask(side), side, xj::Unsharp{1.3f, 2.0f, 13});
  p.composite(crop.data(), 255.0f, M, lib.data(), 40, 30);
  EXPECT_NE(lib, std::vector<uint8_t>(40 * 30 * 3, 50));
  if (xjpaste::shortRun()) return;  // the model's unsharp of a 1024 crop is slow under a sanitizer
  xjref::PasteSetup setup;
  setup.side = side;
  setup.mask = xjpaste::softMask(side);
  setup.mode = 2;
  xjref::composite(setup, crop.data(), 255.0f, M, ref.data(), 40, 30);
  EXPECT_EQ(lib, ref);
}

}  // namespace
