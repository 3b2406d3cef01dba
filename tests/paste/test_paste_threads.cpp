// The thread count is fixed once per process, so each count runs in a fresh
// process of this program (the DISABLED_ tests below, started by the parent
// tests with XJ_CORE_THREADS set). Every count must give the model's bytes.
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cpu/xj_pool.h"
#include "paste/xj_paste.h"
#include "paste_reference.h"
#include "paste_testutil.h"
#include "xj_testutil.h"

namespace {

using xjtest::ScopedEnv;

int expectedThreads(int requested) {
  const int hw = static_cast<int>(std::thread::hardware_concurrency());
  return hw > 0 ? std::min(requested, hw) : requested;
}

std::string executorLine(int side, int ksize, int threads) {
  char buf[160];
  std::snprintf(buf, sizeof buf, "[xj-paste] executor=cpu (side=%d, ksize=%d, threads=%d) \xE2\x80\x94 1080p frame\n",
                side, ksize, threads);
  return buf;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

struct BigScene {
  const char* name;
  int side, W, H;
  double scale, theta;
  bool reflect;
  double cx, cy;
  bool lanczosOnly;
};

// Boxes of several hundred rows and crops of 256 and more, so that every pass
// of the paste is cut into as many pool chunks as there are threads.
const BigScene kBig[] = {
    {"256 rotated", 256, 640, 480, 1.4, 0.3, false, 320, 240, false},
    {"256 mirrored over the corner", 256, 500, 420, 1.2, -0.5, true, 60, 400, false},
    {"512 on a 1080p frame", 512, 1920, 1080, 1.05, 0.05, false, 960, 420, true},
};
// Under a sanitizer: one scene, still cut into two chunks per pass.
const BigScene kShort[] = {
    {"136 rotated", 136, 320, 260, 1.4, 0.3, false, 160, 130, false},
};

TEST(DISABLED_PasteChild, MatchesModel) {
  const char* req = std::getenv("XJ_CORE_THREADS");
  ASSERT_NE(req, nullptr);
  ASSERT_EQ(xj::pool::threads(), expectedThreads(std::atoi(req)));
  const bool shortRun = xjpaste::shortRun();
  std::vector<int64_t> targets = xjpaste::targets();
  if (shortRun) targets.resize(1);  // the best target only
  int cases = 0;
  for (const BigScene& s : shortRun ? std::vector<BigScene>(std::begin(kShort), std::end(kShort))
                                     : std::vector<BigScene>(std::begin(kBig), std::end(kBig))) {
    std::mt19937 rng(static_cast<uint32_t>(s.side + s.W));
    const auto crop = xjpaste::randomCrop(rng, s.side);
    const auto canvas = xjpaste::randomCanvas(rng, s.W, s.H);
    const auto mask = xjpaste::softMask(s.side);
    float M[6];
    xjpaste::placeMatrix(M, s.side, s.scale, s.theta, s.reflect, s.cx, s.cy);
    M[2] += 0.29f;
    for (int mode = 0; mode < (s.lanczosOnly ? 1 : 3); ++mode) {
      xjref::PasteSetup setup;
      setup.side = s.side;
      setup.mask = mask;
      setup.mode = mode;
      std::vector<uint8_t> want = canvas;
      xjref::composite(setup, crop.data(), 255.0f, M, want.data(), s.W, s.H);
      ASSERT_NE(want, canvas);
      for (int64_t t : targets) {
        if (mode != 0 && t != targets.front()) continue;  // the plain modes do not dispatch
        xjpaste::TargetScope scope(t);
        const std::string m = std::to_string(mode);
        ScopedEnv fast("XJ_PASTE_FAST", m.c_str());
        ScopedEnv ks("XJ_PASTE_KSIZE", nullptr);
        xj::Paste p(mask, s.side, xj::Unsharp{1.3f, 2.0f, 13});
        std::vector<uint8_t> got = canvas;
        p.composite(crop.data(), 255.0f, M, got.data(), s.W, s.H);
        const long at = xjpaste::firstDifference(got, want);
        EXPECT_EQ(at, -1) << s.name << " mode " << mode << " " << xjpaste::targetName(t) << " threads "
                          << xj::pool::threads() << ": pixel " << (at / 3) % s.W << "," << (at / 3) / s.W;
        ++cases;
      }
    }
  }
  std::fprintf(stderr, "[paste-child] %d composites compared\n", cases);
}

TEST(PasteThreads, EveryThreadCountMatchesModel) {
  for (int n : {1, 2, 4}) {
    int status = 0;
    const std::string err = xjpaste::runChildTest("DISABLED_PasteChild.MatchesModel", n, {}, &status);
    ASSERT_TRUE(WIFEXITED(status)) << "XJ_CORE_THREADS=" << n;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "XJ_CORE_THREADS=" << n << "\n" << err;
    EXPECT_EQ(countOf(err, "[xj-paste] executor="), 1u) << err;
    EXPECT_EQ(err.find(executorLine(xjpaste::shortRun() ? 136 : 256, 13, expectedThreads(n))), 0u) << err;
    EXPECT_NE(err.find("composites compared"), std::string::npos) << "the child ran no case:\n" << err;
  }
}

TEST(DISABLED_PasteChild, AnnouncesOnce) {
  std::mt19937 rng(1);
  const auto crop24 = xjpaste::randomCrop(rng, 24);
  const auto crop30 = xjpaste::randomCrop(rng, 30);
  std::vector<uint8_t> canvas = xjpaste::randomCanvas(rng, 64, 64);
  xj::Paste a(xjpaste::softMask(24), 24, xj::Unsharp{1.3f, 2.0f, 13});
  xj::Paste b(xjpaste::softMask(30), 30, xj::Unsharp{1.3f, 2.0f, 9});
  const float off[6] = {1, 0, 500, 0, 1, 0};
  const float on[6] = {1.1f, 0.1f, 5, -0.1f, 1.1f, 6};
  a.composite(crop24.data(), 255.0f, off, canvas.data(), 64, 64);  // empty box: nothing runs, nothing said
  std::fprintf(stderr, "|");
  a.composite(crop24.data(), 255.0f, on, canvas.data(), 64, 64);
  a.composite(crop24.data(), 255.0f, on, canvas.data(), 64, 64);
  b.composite(crop30.data(), 255.0f, on, canvas.data(), 64, 64);
  std::fprintf(stderr, "|");
}

TEST(PasteThreads, ExecutorLineOncePerProcess) {
  int status = 0;
  // XJ_PASTE_KSIZE=5 shows that the line reports the kernel in force.
  const std::string err = xjpaste::runChildTest("DISABLED_PasteChild.AnnouncesOnce", 1, {"XJ_PASTE_KSIZE=5"}, &status);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(err, "|" + executorLine(24, 5, 1) + "|");
}

}  // namespace
