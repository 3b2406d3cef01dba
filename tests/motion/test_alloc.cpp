// A frame that needs no new window or chunk allocates nothing of its own: what
// a pull costs in allocations is exactly what one bound run of the stitch
// network costs inside the runtime.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

#include "motion_util.h"
#include "render/xj_ort.h"

namespace {
std::atomic<bool> gArmed{false};
std::atomic<long> gAllocs{0};
}  // namespace

// ---- allocation counting: every malloc and operator new of the process ----
// Sanitizers own malloc themselves, so under them nothing is replaced or counted.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define XJ_COUNT_ALLOCS 0
#else
#define XJ_COUNT_ALLOCS 1
// The replacements pair with each other, which the compiler cannot see.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* malloc(size_t n) {
  if (gArmed.load(std::memory_order_relaxed)) gAllocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(n);
}
extern "C" void* calloc(size_t a, size_t b) {
  if (gArmed.load(std::memory_order_relaxed)) gAllocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(a, b);
}
extern "C" void* realloc(void* p, size_t n) {
  if (gArmed.load(std::memory_order_relaxed)) gAllocs.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, n);
}
void* operator new(size_t n) {
  if (gArmed.load(std::memory_order_relaxed)) gAllocs.fetch_add(1, std::memory_order_relaxed);
  if (void* p = __libc_malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
#endif

using namespace motiontest;

namespace {

// Allocations of one run of stitch.onnx bound once over fixed buffers, with the
// options the model uses.
long bareStitchRunAllocs() {
  xj::ortInit();
  Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "alloc-test");
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(1);
  o.SetInterOpNumThreads(1);
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  const std::string path = motionDir() + "/stitch.onnx";
  Ort::Session session(env, path.c_str(), o);
  auto mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<float> a(63, 0.5f), b(63, 0.25f), st(63);
  const int64_t in[] = {1, 63}, out[] = {1, 21, 3};
  Ort::Value va = Ort::Value::CreateTensor<float>(mem, a.data(), 63, in, 2);
  Ort::Value vb = Ort::Value::CreateTensor<float>(mem, b.data(), 63, in, 2);
  Ort::Value vs = Ort::Value::CreateTensor<float>(mem, st.data(), 63, out, 3);
  Ort::IoBinding bind(session);
  bind.BindInput("a", va);
  bind.BindInput("b", vb);
  bind.BindOutput("st", vs);
  Ort::RunOptions ro;
  // The runtime settles after its first runs; count a settled one.
  for (int warm = 0; warm < 3; ++warm) session.Run(ro, bind);
  gAllocs = 0;
  gArmed = true;
  session.Run(ro, bind);
  gArmed = false;
  return gAllocs.load();
}

}  // namespace

TEST(MotionAlloc, AFrameCostsOneBoundStitchRunAndNothingElse) {
  if (!XJ_COUNT_ALLOCS) GTEST_SKIP() << "allocations are not counted under a sanitizer";
  const long runtime = bareStitchRunAllocs();
  for (int eager : {0, 1}) {
    Motion h(motionDir());
    ASSERT_NE(h.m, nullptr) << h.error;
    const auto audio = speech(52480 + 3000, 3);
    xj_motion_set_eager(h.m, eager);
    xj_motion_reset(h.m, 0, 1, 0);
    ASSERT_EQ(xj_motion_push(h.m, audio.data(), static_cast<int>(audio.size())), 1);
    float xs[63], xd[63];
    int row;
    ASSERT_EQ(xj_motion_pull(h.m, &row, xs, xd, 1), 1) << xj_motion_last_error();
    for (int round = 0; round < 5; ++round) {
      gAllocs = 0;
      gArmed = true;
      const int ready = xj_motion_avail(h.m);
      const long afterAvail = gAllocs.load();
      const int got = xj_motion_pull(h.m, &row, xs, xd, 1);
      gArmed = false;
      ASSERT_GT(ready, 0);
      ASSERT_EQ(got, 1) << xj_motion_last_error();
      EXPECT_EQ(afterAvail, 0) << "eager " << eager << " round " << round;
      EXPECT_EQ(gAllocs.load() - afterAvail, runtime) << "eager " << eager << " round " << round;
    }
  }
}
