// The arithmetic of the a2x handle against independent references, and its refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "a2x_testutil.h"
#include "audio/xj_a2x.h"

namespace {

float fromBits(uint32_t b) {
  float f;
  std::memcpy(&f, &b, 4);
  return f;
}
uint32_t bitsOf(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

// Half rounding by arithmetic: below the smallest normal half (by exponent,
// before rounding) a signed zero, from 65520 up infinity, else 11 significant
// bits rounded to nearest, ties to even.
float refHalfRound(float x) {
  if (std::isnan(x)) return std::copysign(std::numeric_limits<float>::infinity(), x);
  const double a = std::fabs(static_cast<double>(x));
  if (a < std::ldexp(1.0, -14)) return std::copysign(0.0f, x);
  if (a >= 65520.0) return std::copysign(std::numeric_limits<float>::infinity(), x);
  int e;
  std::frexp(a, &e);  // a in [2^(e-1), 2^e)
  const double ulp = std::ldexp(1.0, e - 11);
  const double r = std::nearbyint(a / ulp) * ulp;  // the default rounding mode: ties to even
  return static_cast<float>(std::copysign(r, static_cast<double>(x)));
}

}  // namespace

TEST(HalfRound, EdgeValues) {
  const float inf = std::numeric_limits<float>::infinity();
  const struct {
    float in, out;
  } cases[] = {
      {1.0f, 1.0f},
      {65504.0f, 65504.0f},
      {65519.0f, 65504.0f},
      {65520.0f, inf},
      {-70000.0f, -inf},
      {std::ldexp(1.0f, -14), std::ldexp(1.0f, -14)},
      {std::ldexp(1.0f, -15), 0.0f},                              // would be subnormal: zero
      {std::nextafter(std::ldexp(1.0f, -14), 0.0f), 0.0f},        // rounding up would reach a normal: still zero
      {1.0f + std::ldexp(1.0f, -11), 1.0f},                       // tie, to even
      {1.0f + 3 * std::ldexp(1.0f, -11), 1.0f + std::ldexp(1.0f, -9)},  // tie, to even (up)
      {2047.5f, 2048.0f},                                         // carry into the exponent
      {std::numeric_limits<float>::quiet_NaN(), inf},
  };
  for (const auto& c : cases) EXPECT_EQ(bitsOf(xj::a2x::halfRound(c.in)), bitsOf(c.out)) << c.in;
  EXPECT_EQ(bitsOf(xj::a2x::halfRound(-std::ldexp(1.0f, -20))), 0x80000000u);
}

TEST(HalfRound, AgreesWithArithmeticReference) {
  std::mt19937 rng(1);
  // Every exponent a float has, random mantissas, both signs.
  for (int i = 0; i < 4000000; ++i) {
    const uint32_t b = rng();
    const float x = fromBits(b);
    if (std::isnan(x)) continue;
    ASSERT_EQ(bitsOf(xj::a2x::halfRound(x)), bitsOf(refHalfRound(x))) << std::hexfloat << x;
  }
  // Dense near the half range, where every rounding decision happens.
  std::uniform_real_distribution<float> near(-70000.0f, 70000.0f);
  for (int i = 0; i < 1000000; ++i) {
    const float x = near(rng);
    ASSERT_EQ(bitsOf(xj::a2x::halfRound(x)), bitsOf(refHalfRound(x))) << std::hexfloat << x;
  }
}

TEST(HalfBits, SubnormalsReadAsZero) {
  for (uint32_t h = 0; h < 65536; ++h) {
    const float got = xj::a2x::halfBitsToFloat(static_cast<uint16_t>(h));
    const int e = (h >> 10) & 31, m = h & 1023;
    double want = e == 0 ? 0.0 : e == 31 ? (m ? NAN : INFINITY) : std::ldexp(1.0 + m / 1024.0, e - 15);
    if (h & 0x8000) want = -want;
    if (std::isnan(want)) {
      ASSERT_TRUE(std::isnan(got)) << h;
    } else {
      ASSERT_EQ(bitsOf(got), bitsOf(static_cast<float>(want))) << h;
    }
  }
}

TEST(Normalise, PerWindowStatisticsInDouble) {
  std::vector<float> x = a2xtest::speech(32000, 3);
  x.resize(40000, 0.0f);  // trailing zero padding counts in the statistics
  std::vector<float> got = x;
  xj::a2x::normaliseWindow(got.data(), got.size());
  long double sum = 0, var = 0;
  for (float v : x) sum += v;
  const long double mean = sum / x.size();
  for (float v : x) var += (v - mean) * (v - mean);
  var /= x.size();
  const double scale = 1.0 / std::sqrt(static_cast<double>(static_cast<float>(var)) + 1e-7);
  for (size_t i = 0; i < x.size(); ++i)
    ASSERT_EQ(got[i], static_cast<float>((x[i] - static_cast<double>(mean)) * scale)) << i;
  std::vector<float> zeros(128, 0.0f);
  xj::a2x::normaliseWindow(zeros.data(), zeros.size());
  for (float v : zeros) EXPECT_EQ(bitsOf(v), 0u);
}

TEST(PositionalRows, OnePassThenTheUpperHalfCycles) {
  const struct {
    int64_t f, P, row;
  } cases[] = {{0, 10, 0}, {9, 10, 9}, {10, 10, 5}, {14, 10, 9}, {15, 10, 5}, {64, 64, 32},
               {95, 64, 63}, {96, 64, 32}, {11, 11, 5}, {17, 11, 5}, {1000, 1, 0}};
  for (const auto& c : cases) EXPECT_EQ(xj::a2x::posRow(c.f, c.P), c.row) << c.f << " of " << c.P;
}

TEST(DriveRows, LoopAndBounce) {
  const struct {
    int nt, start, dir;
    bool loop;
    std::vector<int> rows;
  } cases[] = {
      {1, 5, 1, true, {0, 0, 0}},
      {2, 0, 1, false, {0, 1, 0, 1, 0}},
      {4, 0, -1, true, {0, 3, 2, 1, 0, 3}},
      {4, 0, 1, false, {0, 1, 2, 3, 2, 1, 0, 1}},
      {4, 2, -1, false, {2, 1, 0, 1, 2, 3, 2}},
      {3, 7, 1, true, {1, 2, 0}},
  };
  for (const auto& c : cases)
    for (size_t k = 0; k < c.rows.size(); ++k)
      EXPECT_EQ(xj::a2x::driveRow(c.nt, c.start, c.dir, c.loop, static_cast<int64_t>(k)), c.rows[k])
          << "nt " << c.nt << " start " << c.start << " dir " << c.dir << " loop " << c.loop << " frame " << k;
}

// ---- refusals --------------------------------------------------------------

namespace {

struct Fault {
  const char* name;
  void (*apply)(const std::string& dir);
  std::string message;  // "$D" is the bundle directory
};

void PrintTo(const Fault& f, std::ostream* os) { *os << f.name; }

void rewrite(const std::string& path, const std::string& text) { xjtest::writeFile(path, text); }

class A2xRefusal : public ::testing::TestWithParam<Fault> {};

TEST_P(A2xRefusal, ExactWords) {
  xjtest::TempDir t;
  const std::string dir = t / "b";
  xjtest::copyTree(xjtest::fixture("a2x"), dir);
  GetParam().apply(dir);
  std::string want = GetParam().message;
  for (size_t p; (p = want.find("$D")) != std::string::npos;) want.replace(p, 2, dir);
  xj_a2x* h = xj_a2x_create(dir.c_str(), 1);
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(std::string(xj_a2x_last_error()), want);
  xj_a2x_destroy(h);
}

INSTANTIATE_TEST_SUITE_P(
    A2x, A2xRefusal,
    ::testing::Values(
        Fault{"MetaMissing", [](const std::string& d) { xjtest::removeTree(d + "/a2x_meta.json"); },
              "xj_a2x_create: a2x_meta.json missing in $D"},
        Fault{"MetaEmpty", [](const std::string& d) { rewrite(d + "/a2x_meta.json", ""); },
              "xj_a2x_create: a2x_meta.json missing in $D"},
        Fault{"NoWindow", [](const std::string& d) { rewrite(d + "/a2x_meta.json", R"({"h": 16, "left": 4})"); },
              "xj_a2x_create: meta lacks causal window/left (not a streaming a2x)"},
        Fault{"NegativeLeft",
              [](const std::string& d) { rewrite(d + "/a2x_meta.json", R"({"h": 16, "window": 2, "left": -1})"); },
              "xj_a2x_create: meta lacks causal window/left (not a streaming a2x)"},
        Fault{"OnePositionRow",
              [](const std::string& d) { rewrite(d + "/a2x_pos.f32", std::string(16 * 4 + 60, '\0')); },
              "xj_a2x_create: pos/norm/xs_target read failed"},
        Fault{"ShortNorm", [](const std::string& d) { rewrite(d + "/a2x_norm.f32", std::string(125 * 4, '\0')); },
              "xj_a2x_create: pos/norm/xs_target read failed"},
        Fault{"NoTarget", [](const std::string& d) { xjtest::removeTree(d + "/xs_target.bin"); },
              "xj_a2x_create: pos/norm/xs_target read failed"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace

TEST(A2xCreate, NeedsTheEncoderPath) {
  xjtest::ScopedEnv env("W2V_ONNX", nullptr);
  EXPECT_EQ(xj_a2x_create(xjtest::fixture("a2x").c_str(), 1), nullptr);
  EXPECT_STREQ(xj_a2x_last_error(), "xj_a2x_create: $W2V_ONNX not set");
  EXPECT_EQ(xj_a2x_preload_w2v(nullptr), 0);
  EXPECT_STREQ(xj_a2x_last_error(), "xj_a2x_preload_w2v: no path and $W2V_ONNX unset");
  EXPECT_EQ(xj_a2x_w2v8_lazy(), 1);
}

TEST(A2xCreate, WindowAndLeftZeroAreValid) {
  xjtest::TempDir t;
  const std::string dir = t / "b";
  xjtest::copyTree(xjtest::fixture("a2x"), dir);
  rewrite(dir + "/a2x_meta.json", R"({"h": 16, "window": 0, "left": 0, "layers": 3, "width": 1})");
  xj_a2x* h = xj_a2x_create(dir.c_str(), 1);
  ASSERT_NE(h, nullptr) << xj_a2x_last_error();
  EXPECT_EQ(h->right_reach, 0);
  EXPECT_EQ(h->left_reach, 0);
  xj_a2x_destroy(h);
}

TEST(A2xCreate, HoldBackFromTheEnvironment) {
  xjtest::ScopedEnv env("XJ_A2X_W2V_RIGHT", "-5");
  xj_a2x* h = xj_a2x_create(xjtest::fixture("a2x").c_str(), 1);
  ASSERT_NE(h, nullptr) << xj_a2x_last_error();
  // Raised to 0; the pair holds back its block of 8 on top.
  EXPECT_EQ(h->right, a2xtest::pairMode() ? 8 : 0);
  EXPECT_EQ(h->win_right, a2xtest::pairMode() ? 0 : 12);
  xj_a2x_destroy(h);
}
