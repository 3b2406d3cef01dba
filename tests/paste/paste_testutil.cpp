#include "paste_testutil.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include <hwy/targets.h>

#include "xj_testutil.h"

namespace {

std::atomic<bool> g_armed{false};
std::atomic<size_t> g_allocs{0};

}  // namespace

void* operator new(size_t n) {
  if (g_armed.load(std::memory_order_relaxed)) g_allocs.fetch_add(1, std::memory_order_relaxed);
  void* p = std::malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace xjpaste {

std::vector<int64_t> targets() {
  std::vector<int64_t> out;
  const int64_t all = hwy::SupportedTargets();
  for (int64_t rest = all; rest != 0; rest &= rest - 1) {
    const int64_t t = rest & -rest;
#if defined(__x86_64__) || defined(__i386__)
    if (t == HWY_SSSE3 || t == HWY_AVX3_DL) continue;  // no body: they fall to SSE4 and AVX3
#endif
    if (t == HWY_EMU128 && (all & HWY_SCALAR)) continue;
    out.push_back(t);
  }
  return out;
}

const char* targetName(int64_t t) { return hwy::TargetName(t); }

TargetScope::TargetScope(int64_t target) { hwy::SetSupportedTargetsForTest(target); }
TargetScope::~TargetScope() { hwy::SetSupportedTargetsForTest(0); }

std::vector<float> randomCrop(std::mt19937& rng, int side) {
  std::uniform_real_distribution<float> noise(-0.05f, 1.05f);
  std::uniform_real_distribution<float> phase(0.0f, 6.28f);
  std::vector<float> crop(static_cast<size_t>(side) * side * 3);
  for (int c = 0; c < 3; ++c) {
    const float p = phase(rng);
    for (int y = 0; y < side; ++y) {
      for (int x = 0; x < side; ++x) {
        float& v = crop[(static_cast<size_t>(c) * side + y) * side + x];
        // Left half smooth, right half noisy: both the sharpening and its clamps matter.
        if (x < side / 2) {
          v = 0.5f + 0.45f * std::sin(p + 0.21f * x + 0.13f * y);
        } else {
          v = noise(rng);
        }
      }
    }
  }
  return crop;
}

std::vector<uint8_t> softMask(int side) {
  std::vector<uint8_t> m(static_cast<size_t>(side) * side);
  const double c = (side - 1) / 2.0, r = 0.42 * side, ramp = std::max(2.0, 0.12 * side);
  for (int y = 0; y < side; ++y) {
    for (int x = 0; x < side; ++x) {
      const double d = std::hypot(x - c, y - c);
      const double v = std::clamp((r + ramp - d) / ramp, 0.0, 1.0);
      m[static_cast<size_t>(y) * side + x] = static_cast<uint8_t>(std::lround(255 * v));
    }
  }
  return m;
}

std::vector<uint8_t> randomMask(std::mt19937& rng, int side) {
  std::vector<uint8_t> m(static_cast<size_t>(side) * side);
  for (auto& v : m) {
    const uint32_t r = rng() % 4;
    v = r == 0 ? 0 : r == 1 ? 255 : static_cast<uint8_t>(rng() & 255);
  }
  return m;
}

std::vector<uint8_t> randomCanvas(std::mt19937& rng, int W, int H) {
  std::vector<uint8_t> c(static_cast<size_t>(W) * H * 3);
  for (auto& v : c) v = static_cast<uint8_t>(rng() & 255);
  return c;
}

void placeMatrix(float M[6], int side, double s, double theta, bool reflect, double cx, double cy) {
  const double fx = reflect ? -1.0 : 1.0;
  const double a = s * std::cos(theta) * fx, b = -s * std::sin(theta);
  const double d = s * std::sin(theta) * fx, e = s * std::cos(theta);
  const double h = side / 2.0;
  M[0] = static_cast<float>(a);
  M[1] = static_cast<float>(b);
  M[2] = static_cast<float>(cx - (a * h + b * h));
  M[3] = static_cast<float>(d);
  M[4] = static_cast<float>(e);
  M[5] = static_cast<float>(cy - (d * h + e * h));
}

long firstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size()) return 0;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i]) return static_cast<long>(i);
  return -1;
}

namespace {

struct ChildArgs {
  std::string filter;
  std::string threads;
  std::vector<std::string> env;
};

void execChild(void* p) {
  auto* a = static_cast<ChildArgs*>(p);
  setenv("XJ_CORE_THREADS", a->threads.c_str(), 1);
  unsetenv("XJ_PASTE_THREADS");
  for (const std::string& kv : a->env) {
    const size_t eq = kv.find('=');
    setenv(kv.substr(0, eq).c_str(), kv.substr(eq + 1).c_str(), 1);
  }
  execl("/proc/self/exe", "/proc/self/exe", "--gtest_also_run_disabled_tests", a->filter.c_str(),
        static_cast<char*>(nullptr));
  _exit(127);
}

}  // namespace

std::string runChildTest(const std::string& name, int threads, const std::vector<std::string>& env,
                         int* status) {
  ChildArgs a{"--gtest_filter=" + name, std::to_string(threads), env};
  return xjtest::captureStderr(execChild, &a, status);
}

void armAllocationCounter(bool on) {
  if (on) g_allocs.store(0);
  g_armed.store(on);
}

size_t allocationCount() { return g_allocs.load(); }

bool shortRun() {
  const char* s = std::getenv("XJ_TEST_SHORT");
  return s && *s && std::strcmp(s, "0") != 0;
}

}  // namespace xjpaste
