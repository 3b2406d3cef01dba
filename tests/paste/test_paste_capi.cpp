// The whole-frame entry points of the engine handle on generated bundles:
// argument checks and their texts, the mask member, and frames that equal the
// plain model's paste of the crop onto the decoded driver frame.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "paste_reference.h"
#include "paste_testutil.h"
#include "xj/xj.h"
#include "xj_testutil.h"

namespace {

const std::string kBasic = xjtest::fixture("basic");

// What the generated bundles hold (tools/bundlegen): 3 source frames of a
// 16-pixel crop on a 40 x 32 canvas, 5 idle rows, source row i % 3.
constexpr int kNT = 3, kCrop = 16, kW = 40, kH = 32, kFrames = 5;
constexpr size_t kRgbBytes = size_t(kW) * kH * 3;
constexpr size_t kRgbaBytes = size_t(kW) * kH * 4;

struct Handle {
  xj_ctx* h;
  explicit Handle(const std::string& dir) : h(xj_create(dir.c_str(), "b1", 1, nullptr)) {}
  ~Handle() { xj_destroy(h); }
};

std::vector<float> keypoints(uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-0.3f, 0.3f);
  std::vector<float> k(63);
  for (auto& v : k) v = u(rng);
  return k;
}

// The paste of `crop` onto `frame` by the plain model, with the bundle's own
// mask and matrix read from its files.
std::vector<uint8_t> modelPaste(const std::string& bundle, int si, const float* crop, std::vector<uint8_t> frame) {
  const std::string maskBytes = xjtest::readFile(bundle + "/mask_512.u8");
  const std::string mats = xjtest::readFile(bundle + "/M.f32");
  float M[6];
  std::memcpy(M, mats.data() + size_t(si) * sizeof M, sizeof M);
  xjref::PasteSetup s;
  s.side = kCrop;
  s.mask.assign(maskBytes.begin(), maskBytes.begin() + kCrop * kCrop);
  s.amount = 1.3f;
  s.sigma = 2.0f;
  s.ksize = 13;
  const char* fast = std::getenv("XJ_PASTE_FAST");
  s.mode = fast ? std::atoi(fast) : 0;
  xjref::composite(s, crop, 255.0f, M, frame.data(), kW, kH);
  return frame;
}

std::vector<uint8_t> targetFrame(xj_ctx* h, int i) {
  const uint8_t* p = xj_target_frame(h, i);
  EXPECT_NE(p, nullptr) << xj_last_error();
  return p ? std::vector<uint8_t>(p, p + kRgbBytes) : std::vector<uint8_t>(kRgbBytes);
}

TEST(PasteCApi, ArgumentFaults) {
  Handle b(kBasic);
  ASSERT_NE(b.h, nullptr) << xj_last_error();
  std::vector<float> crop(kCrop * kCrop * 3, 0.5f);
  std::vector<uint8_t> out(kRgbaBytes);
  const auto k = keypoints(1);

  // Before any render there is no crop to paste.
  EXPECT_EQ(xj_paste_last(b.h, 0), nullptr);
  EXPECT_STREQ(xj_last_error(), "xj_paste_last: bad args / no prior render");
  ASSERT_NE(xj_render_kp_crop(b.h, 0, k.data(), k.data()), nullptr) << xj_last_error();

  xj_ctx* h = b.h;
  const char* kCropArgs = "xj_paste_crop: bad args / out too small";
  const char* kLastArgs = "xj_paste_last: bad args / no prior render";
  const char* kTarget = "xj_target_frame: bad args";
  const char* kRgba = "xj_render_*_rgba: out buffer too small";
  struct Case {
    const char* name;
    std::function<bool()> fails;  // the call, true when it reports failure
    const char* error;
  } cases[] = {
      {"paste_crop null handle", [&] { return !xj_paste_crop(nullptr, 0, crop.data(), out.data(), kRgbBytes); }, kCropArgs},
      {"paste_crop null crop", [&] { return !xj_paste_crop(h, 0, nullptr, out.data(), kRgbBytes); }, kCropArgs},
      {"paste_crop null out", [&] { return !xj_paste_crop(h, 0, crop.data(), nullptr, kRgbBytes); }, kCropArgs},
      {"paste_crop si -1", [&] { return !xj_paste_crop(h, -1, crop.data(), out.data(), kRgbBytes); }, kCropArgs},
      {"paste_crop si NT", [&] { return !xj_paste_crop(h, kNT, crop.data(), out.data(), kRgbBytes); }, kCropArgs},
      {"paste_crop one byte short", [&] { return !xj_paste_crop(h, 0, crop.data(), out.data(), kRgbBytes - 1); },
       kCropArgs},
      {"paste_last null handle", [&] { return !xj_paste_last(nullptr, 0); }, kLastArgs},
      {"paste_last si -1", [&] { return !xj_paste_last(h, -1); }, kLastArgs},
      {"paste_last si NT", [&] { return !xj_paste_last(h, kNT); }, kLastArgs},
      {"target_frame null handle", [&] { return !xj_target_frame(nullptr, 0); }, kTarget},
      {"target_frame -1", [&] { return !xj_target_frame(h, -1); }, kTarget},
      {"target_frame NT", [&] { return !xj_target_frame(h, kNT); }, kTarget},
      {"kp_rgba null out", [&] { return !xj_render_kp_rgba(h, 0, k.data(), k.data(), nullptr, kRgbaBytes); }, kRgba},
      {"kp_rgba one byte short",
       [&] { return !xj_render_kp_rgba(h, 0, k.data(), k.data(), out.data(), kRgbaBytes - 1); }, kRgba},
      {"kp_rgba si NT", [&] { return !xj_render_kp_rgba(h, kNT, k.data(), k.data(), out.data(), kRgbaBytes); },
       "xj_render_kp_crop: bad args"},
      {"drive_rgba one byte short", [&] { return !xj_render_drive_rgba(h, 1, out.data(), kRgbaBytes - 1); }, kRgba},
      {"drive_rgba row frames", [&] { return !xj_render_drive_rgba(h, kFrames, out.data(), kRgbaBytes); },
       "xj_render_drive_crop: bad frame index"},
      {"drive_rgba null handle", [&] { return !xj_render_drive_rgba(nullptr, 0, out.data(), kRgbaBytes); },
       "xj_render_drive_crop: bad frame index"},
      {"a good call clears the text", [&] { return xj_paste_last(h, 1) == nullptr; }, ""},
  };
  for (const Case& c : cases) {
    xj_target_frame(nullptr, 0);  // leaves a stale text that every entry point must clear or replace
    EXPECT_EQ(c.fails(), *c.error != '\0') << c.name;
    EXPECT_STREQ(xj_last_error(), c.error) << c.name;
  }
}

// A too small RGBA buffer fails after the render: the crop exists, and pastes.
TEST(PasteCApi, ShortRgbaBufferStillRenders) {
  Handle b(kBasic);
  ASSERT_NE(b.h, nullptr) << xj_last_error();
  std::vector<uint8_t> out(kRgbaBytes, 7);
  EXPECT_EQ(xj_render_drive_rgba(b.h, 4, out.data(), kRgbaBytes - 1), 0);
  EXPECT_STREQ(xj_last_error(), "xj_render_*_rgba: out buffer too small");
  EXPECT_EQ(out, std::vector<uint8_t>(kRgbaBytes, 7)) << "nothing written";
  EXPECT_NE(xj_paste_last(b.h, 1), nullptr) << xj_last_error();
}

// Every idle row: render, paste onto the row's source frame, widen to RGBA.
TEST(PasteCApi, DriveRgbaIsTheModelPasteOntoTheDriverFrame) {
  for (const char* mode : {"0", "2"}) {
    xjtest::ScopedEnv fast("XJ_PASTE_FAST", mode);
    Handle b(kBasic);
    ASSERT_NE(b.h, nullptr) << xj_last_error();
    for (int i = 0; i < kFrames; ++i) {
      const int si = i % kNT;
      const float* c = xj_render_drive_crop(b.h, i);
      ASSERT_NE(c, nullptr) << xj_last_error();
      const std::vector<float> crop(c, c + kCrop * kCrop * 3);
      const std::vector<uint8_t> frame = targetFrame(b.h, si);
      const std::vector<uint8_t> want = modelPaste(kBasic, si, crop.data(), frame);
      ASSERT_NE(want, frame) << "the crop covers part of the canvas";

      std::vector<uint8_t> rgba(kRgbaBytes + 8, 0xAB);
      ASSERT_EQ(xj_render_drive_rgba(b.h, i, rgba.data(), kRgbaBytes), 1) << xj_last_error();
      EXPECT_STREQ(xj_last_error(), "");
      for (size_t p = 0; p < size_t(kW) * kH; ++p) {
        for (int ch = 0; ch < 3; ++ch) {
          ASSERT_EQ(rgba[4 * p + ch], want[3 * p + ch])
              << "mode " << mode << " row " << i << " pixel " << p % kW << "," << p / kW << " channel " << ch;
        }
        ASSERT_EQ(rgba[4 * p + 3], 255);
      }
      EXPECT_EQ(rgba[kRgbaBytes], 0xAB) << "nothing past the frame";
    }
  }
}

// The driver frames are the bundle's own, in order: the generator draws frame
// k with red 40 + 50k + x, green 200 - 40k + y, blue 60 + 30k (JPEG-coded).
TEST(PasteCApi, TargetFrameIsTheDecodedDriverFrame) {
  Handle b(kBasic);
  ASSERT_NE(b.h, nullptr) << xj_last_error();
  for (int k : {0, 2, 1, 1, 0}) {
    const std::vector<uint8_t> f = targetFrame(b.h, k);
    int worst = 0;
    for (int y = 0; y < kH; ++y) {
      for (int x = 0; x < kW; ++x) {
        const int want[3] = {std::min(255, 40 + 50 * k + x), std::max(0, 200 - 40 * k + y), 60 + 30 * k};
        for (int c = 0; c < 3; ++c) worst = std::max(worst, std::abs(f[(size_t(y) * kW + x) * 3 + c] - want[c]));
      }
    }
    EXPECT_LE(worst, 6) << "frame " << k;
  }
}

TEST(PasteCApi, PasteCropAndPasteLastAgree) {
  Handle b(kBasic);
  ASSERT_NE(b.h, nullptr) << xj_last_error();
  std::mt19937 rng(5);
  const std::vector<float> host = xjpaste::randomCrop(rng, kCrop);
  for (int si = 0; si < kNT; ++si) {
    // A crop the host holds, written straight into the host's buffer.
    std::vector<uint8_t> out(kRgbBytes + 8, 0xCD);
    ASSERT_EQ(xj_paste_crop(b.h, si, host.data(), out.data(), out.size()), 1) << xj_last_error();
    const std::vector<uint8_t> want = modelPaste(kBasic, si, host.data(), targetFrame(b.h, si));
    EXPECT_TRUE(std::equal(want.begin(), want.end(), out.begin())) << "si " << si;
    EXPECT_EQ(std::vector<uint8_t>(out.begin() + kRgbBytes, out.end()), std::vector<uint8_t>(8, 0xCD));

    // The last render, into the handle's canvas; and the RGBA form of the same.
    const auto ks = keypoints(10 + si), kd = keypoints(20 + si);
    const float* c = xj_render_kp_crop(b.h, si, ks.data(), kd.data());
    ASSERT_NE(c, nullptr) << xj_last_error();
    const std::vector<float> crop(c, c + kCrop * kCrop * 3);
    const uint8_t* last = xj_paste_last(b.h, si);
    ASSERT_NE(last, nullptr) << xj_last_error();
    const std::vector<uint8_t> lastCopy(last, last + kRgbBytes);
    EXPECT_EQ(lastCopy, modelPaste(kBasic, si, crop.data(), targetFrame(b.h, si))) << "si " << si;
    std::vector<uint8_t> viaCrop(kRgbBytes);
    ASSERT_EQ(xj_paste_crop(b.h, si, crop.data(), viaCrop.data(), kRgbBytes), 1);
    EXPECT_EQ(viaCrop, lastCopy);
    std::vector<uint8_t> rgba(kRgbaBytes);
    ASSERT_EQ(xj_render_kp_rgba(b.h, si, ks.data(), kd.data(), rgba.data(), rgba.size()), 1) << xj_last_error();
    for (size_t p = 0; p < size_t(kW) * kH; ++p) {
      ASSERT_EQ(rgba[4 * p], lastCopy[3 * p]);
      ASSERT_EQ(rgba[4 * p + 1], lastCopy[3 * p + 1]);
      ASSERT_EQ(rgba[4 * p + 2], lastCopy[3 * p + 2]);
      ASSERT_EQ(rgba[4 * p + 3], 255);
    }
  }
}

TEST(PasteCApi, MaskMember) {
  const std::string mask = xjtest::readFile(kBasic + "/mask_512.u8");
  ASSERT_EQ(mask.size(), size_t(kCrop) * kCrop);
  struct Case {
    const char* name;
    const char* file;  // nullptr: no mask member at all
    std::string bytes;
    bool opens;
  } cases[] = {
      {"as generated", "mask_512.u8", mask, true},
      {"missing", nullptr, "", false},
      {"one byte short", "mask_512.u8", mask.substr(1), false},
      {"empty", "mask_512.u8", "", false},
      {"longer than crop*crop", "mask_512.u8", mask + std::string(100, '\x01'), true},
      {"under its canonical name", "paste_mask.u8", mask, true},
  };
  for (const Case& c : cases) {
    xjtest::TempDir t;
    const std::string dir = t / "b";
    xjtest::copyTree(kBasic, dir);
    std::remove((dir + "/mask_512.u8").c_str());
    if (c.file) xjtest::writeFile(dir + "/" + c.file, c.bytes);
    Handle b(dir);
    EXPECT_EQ(b.h != nullptr, c.opens) << c.name;
    EXPECT_STREQ(xj_last_error(), c.opens ? "" : "xj_create: mask read failed") << c.name;
    if (b.h) {
      std::vector<uint8_t> out(kRgbBytes);
      std::vector<float> crop(kCrop * kCrop * 3, 0.25f);
      ASSERT_EQ(xj_paste_crop(b.h, 1, crop.data(), out.data(), out.size()), 1) << c.name;
      EXPECT_EQ(out, modelPaste(kBasic, 1, crop.data(), targetFrame(b.h, 1))) << c.name;
    }
  }
}

TEST(PasteCApi, NoDriverVideoIsRefused) {
  xjtest::TempDir t;
  const std::string dir = t / "b";
  xjtest::copyTree(kBasic, dir);
  xjtest::removeTree(dir + "/target_frames");
  Handle b(dir);
  EXPECT_EQ(b.h, nullptr);
  const std::string err = xj_last_error();
  EXPECT_EQ(err.rfind("xj_create: this bundle carries neither a populated target_frames/ nor target_frames.mp4", 0),
            0u)
      << err;
}

}  // namespace
