// Construction of the compositor: refusals, the two environment switches,
// the filter tables and the unsharp mask, each against the plain model.
#include <cmath>
#include <cstring>
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

uint32_t bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

void expectSameFloats(const std::vector<float>& got, const std::vector<float>& want, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_EQ(bits(got[i]), bits(want[i])) << what << " at " << i << ": " << got[i] << " vs " << want[i];
  }
}

// Constructs with both switches unset unless a case sets them.
struct CleanEnv {
  ScopedEnv fast{"XJ_PASTE_FAST", nullptr};
  ScopedEnv ks{"XJ_PASTE_KSIZE", nullptr};
};

TEST(PasteSetup, Refusals) {
  CleanEnv env;
  struct Case {
    const char* name;
    size_t maskBytes;
    int side;
    int ksize;
    const char* message;
  } cases[] = {
      {"mask one byte short", 15, 4, 13, "paste: mask size"},
      {"mask one byte long", 17, 4, 13, "paste: mask size"},
      {"empty mask", 0, 4, 13, "paste: mask size"},
      {"mask of a 512 crop for a 16 crop", 512 * 512, 16, 13, "paste: mask size"},
      {"even kernel", 16, 4, 12, "paste: ksize must be odd"},
      {"no kernel", 16, 4, 0, "paste: ksize must be odd"},
      {"the mask is checked first", 3, 4, 12, "paste: mask size"},
  };
  for (const Case& c : cases) {
    try {
      xj::Paste p(std::vector<unsigned char>(c.maskBytes, 255), c.side, xj::Unsharp{1.3f, 2.0f, c.ksize});
      ADD_FAILURE() << c.name << ": accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), c.message) << c.name;
    }
  }
}

TEST(PasteSetup, ModeSwitch) {
  struct Case {
    const char* value;
    int mode;
  } cases[] = {{nullptr, 0}, {"0", 0}, {"1", 1}, {"2", 2}, {"3", 0}, {"-1", 0},
               {"abc", 0},   {"", 0},  {"2x", 2}, {" 1", 1}, {"99999999999999999999", 0}};
  for (const Case& c : cases) {
    ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
    ScopedEnv fast("XJ_PASTE_FAST", c.value);
    xj::Paste p(std::vector<unsigned char>(64, 0), 8, xj::Unsharp{1.3f, 2.0f, 13});
    EXPECT_EQ(p.fast, c.mode) << "XJ_PASTE_FAST=" << (c.value ? c.value : "(unset)");
  }
}

TEST(PasteSetup, KernelSizeSwitch) {
  const int side = 10;
  struct Case {
    const char* value;
    int manifestKsize;
    int inForce;
  } cases[] = {{nullptr, 13, 13}, {"15", 13, 13}, {"13", 13, 13}, {"11", 13, 11}, {"5", 13, 5},
               {"3", 13, 3},      {"4", 13, 13},  {"1", 13, 13},  {"-5", 13, 13}, {"abc", 13, 13},
               {"7px", 13, 7},    {"3", 1, 1},    {"", 13, 13},   {"5", 5, 5},    {"7", 5, 5}};
  for (const Case& c : cases) {
    ScopedEnv fast("XJ_PASTE_FAST", nullptr);
    ScopedEnv ks("XJ_PASTE_KSIZE", c.value);
    xj::Paste p(std::vector<unsigned char>(side * side, 9), side, xj::Unsharp{0.7f, 1.6f, c.manifestKsize});
    const std::string what = std::string("XJ_PASTE_KSIZE=") + (c.value ? c.value : "(unset)") + " over " +
                             std::to_string(c.manifestKsize);
    EXPECT_EQ(p.ksize, c.inForce) << what;
    EXPECT_EQ(p.padded, side + c.inForce - 1) << what;
    EXPECT_EQ(p.pad.size(), static_cast<size_t>(p.padded * p.padded)) << what;
    EXPECT_EQ(p.tmp.size(), static_cast<size_t>(p.padded * p.padded)) << what;
    // Built with the manifest's sigma whatever the size in force.
    expectSameFloats(p.kernel, xjref::pasteTables(c.inForce, 1.6f).gauss, what);
  }
}

TEST(PasteSetup, TablesMatchTheirDefinition) {
  CleanEnv env;
  for (float sigma : {2.0f, 0.8f, 5.5f}) {
    for (int ksize : {1, 3, 13, 31}) {
      xj::Paste p(std::vector<unsigned char>(4, 0), 2, xj::Unsharp{1.3f, sigma, ksize});
      const xjref::PasteTables ref = xjref::pasteTables(ksize, sigma);
      const std::string what = "sigma " + std::to_string(sigma) + " ksize " + std::to_string(ksize);
      expectSameFloats(p.kernel, ref.gauss, what + " gauss");
      expectSameFloats(p.lanczos, ref.lanczos, what + " lanczos");
      expectSameFloats(p.bilinear, ref.bilinear, what + " bilinear");
      expectSameFloats(p.bicubic, ref.bicubic, what + " bicubic");
      for (int i = 0; i < ksize; ++i) {
        EXPECT_EQ(bits(p.kernel[i]), bits(p.kernel[ksize - 1 - i])) << what << ": the kernel is symmetric";
      }
    }
  }
  xj::Paste one(std::vector<unsigned char>(4, 0), 2, xj::Unsharp{1.3f, 2.0f, 1});
  ASSERT_EQ(one.kernel.size(), 1u);
  EXPECT_EQ(one.kernel[0], 1.0f);
}

TEST(PasteSetup, PhaseRows) {
  CleanEnv env;
  xj::Paste p(std::vector<unsigned char>(4, 0), 2, xj::Unsharp{1.3f, 2.0f, 13});
  ASSERT_EQ(p.lanczos.size(), 32u * 8);
  ASSERT_EQ(p.bilinear.size(), 32u * 2);
  ASSERT_EQ(p.bicubic.size(), 32u * 4);
  // Phase 0 is the pixel itself in every filter.
  const float lz0[8] = {0, 0, 0, 1, 0, 0, 0, 0};
  for (int j = 0; j < 8; ++j) EXPECT_EQ(p.lanczos[j], lz0[j]) << "tap " << j;
  const float bc0[4] = {0, 1, 0, 0};
  for (int j = 0; j < 4; ++j) EXPECT_EQ(p.bicubic[j], bc0[j]) << "tap " << j;
  EXPECT_EQ(p.bilinear[0], 1.0f);
  EXPECT_EQ(p.bilinear[1], 0.0f);
  for (int ph = 1; ph < 32; ++ph) {
    const double x = ph / 32.0;
    // The rotated sine pairs are sinc(t) sinc(t/4) at the tap offsets, normalised.
    double norm = 0;
    for (int j = 0; j < 8; ++j) norm += xjref::lanczos4(x + 3 - j);
    double lsum = 0, csum = 0;
    for (int j = 0; j < 8; ++j) {
      EXPECT_NEAR(p.lanczos[8 * ph + j], xjref::lanczos4(x + 3 - j) / norm, 2e-7) << "phase " << ph << " tap " << j;
      lsum += p.lanczos[8 * ph + j];
    }
    for (int j = 0; j < 4; ++j) csum += p.bicubic[4 * ph + j];
    EXPECT_NEAR(lsum, 1.0, 1e-6) << "phase " << ph;
    EXPECT_NEAR(csum, 1.0, 1e-6) << "phase " << ph;
    EXPECT_EQ(p.bilinear[2 * ph + 1], static_cast<float>(x));
    EXPECT_EQ(p.bilinear[2 * ph], static_cast<float>(1 - x));
    // Keys' cubic with A = -0.75 at the two inner taps.
    const double w1 = (1.25 * x - 2.25) * x * x + 1;
    EXPECT_NEAR(p.bicubic[4 * ph + 1], w1, 1e-7) << "phase " << ph;
  }
}

TEST(PasteSetup, UnsharpMatchesModel) {
  CleanEnv env;
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> value(-20.0f, 275.0f);
  // Tiny planes fold the mirror more than once; 64 and above split into pool
  // chunks; odd sides leave vector tails.
  for (int64_t target : xjpaste::targets()) {
  xjpaste::TargetScope scope(target);
  for (int side : {1, 2, 3, 5, 16, 33, 64, 130}) {
    for (int ksize : {1, 3, 13}) {
      for (float amount : {0.0f, 1.3f, 4.0f}) {
        xj::Paste p(std::vector<unsigned char>(side * side, 0), side, xj::Unsharp{amount, 2.0f, ksize});
        std::vector<float> plane(side * side);
        for (auto& v : plane) v = value(rng);
        const std::vector<float> want = xjref::unsharp(plane, side, xjref::pasteTables(ksize, 2.0f), amount);
        p.unsharpPlane(plane);
        expectSameFloats(plane, want,
                         std::string(xjpaste::targetName(target)) + " side " + std::to_string(side) +
                             " ksize " + std::to_string(ksize) + " amount " + std::to_string(amount));
      }
    }
  }
  }
}

TEST(PasteSetup, UnsharpEdgeCases) {
  CleanEnv env;
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> value(-50.0f, 300.0f);
  const int side = 24;
  std::vector<float> plane(side * side);
  for (auto& v : plane) v = value(rng);
  auto clamp = [](float v) { return v < 0 ? 0.0f : (v > 255 ? 255.0f : v); };

  // amount 0: the plane itself, clamped to [0, 255].
  {
    xj::Paste p(std::vector<unsigned char>(side * side, 0), side, xj::Unsharp{0.0f, 2.0f, 13});
    std::vector<float> got = plane;
    p.unsharpPlane(got);
    for (int i = 0; i < side * side; ++i) ASSERT_EQ(bits(got[i]), bits(clamp(plane[i]))) << i;
  }
  // One tap: the blur is the plane, so p (1 + a) - p a, clamped.
  {
    xj::Paste p(std::vector<unsigned char>(side * side, 0), side, xj::Unsharp{1.3f, 2.0f, 1});
    std::vector<float> got = plane;
    p.unsharpPlane(got);
    for (int i = 0; i < side * side; ++i) {
      const float gain = 1.0f + 1.3f;
      ASSERT_EQ(bits(got[i]), bits(clamp(plane[i] * gain - plane[i] * 1.3f))) << i;
    }
  }
  // A flat plane stays flat: the border mirror adds nothing new.
  {
    xj::Paste p(std::vector<unsigned char>(side * side, 0), side, xj::Unsharp{2.0f, 3.0f, 13});
    std::vector<float> flat(side * side, 100.0f);
    p.unsharpPlane(flat);
    for (float v : flat) ASSERT_NEAR(v, 100.0f, 1e-3f);
  }
}

TEST(PasteSetup, NoGpuCompositor) {
  CleanEnv env;
  xj::Paste p(std::vector<unsigned char>(16, 255), 4, xj::Unsharp{1.3f, 2.0f, 3});
  std::vector<float> crop(48, 0.5f);
  std::vector<unsigned char> canvas(10 * 10 * 3, 7), target(10 * 10 * 4, 9);
  const float M[6] = {1, 0, 2, 0, 1, 2};
  EXPECT_FALSE(p.compositeGpuRgba(crop.data(), 255.0f, M, canvas.data(), 10, 10, target.data(), 0));
  EXPECT_EQ(target, std::vector<unsigned char>(10 * 10 * 4, 9));
}

}  // namespace
