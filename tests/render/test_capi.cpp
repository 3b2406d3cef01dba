// The engine handle's C surface: lifecycle, accessors, per-thread errors, the
// sizing of the director, and a frame path that allocates nothing.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cpu/xj_pool.h"
#include "bundle/xj_bundle.h"
#include "ref_director.h"
#include "render/xj_ort.h"
#include "render/xj_renderer.h"
#include "xj/xj.h"
#include "xj_testutil.h"

// ---- allocation counting -------------------------------------------------
// Every operator new and every malloc made on the armed thread (ONNX Runtime's
// included, since the executable's definitions interpose, and it runs a
// one-thread director on the caller) is counted; other threads, such as the
// driver cursor's look-ahead, are not. Not under the sanitizers, which own
// malloc themselves.
namespace {
thread_local bool gArmed = false;
thread_local long gAllocs = 0;
}  // namespace
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define XJ_COUNT_ALLOCS 1

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* malloc(size_t n) {
  if (gArmed) ++gAllocs;
  return __libc_malloc(n);
}
extern "C" void* calloc(size_t a, size_t b) {
  if (gArmed) ++gAllocs;
  return __libc_calloc(a, b);
}
extern "C" void* realloc(void* p, size_t n) {
  if (gArmed) ++gAllocs;
  return __libc_realloc(p, n);
}
void* operator new(size_t n) {
  if (gArmed) ++gAllocs;
  if (void* p = __libc_malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
#endif

namespace {

const std::string kBasic = xjtest::fixture("basic");

struct Handle {
  xj_ctx* h;
  Handle(const std::string& dir, const char* key, int threads = 1, const char* ep = nullptr)
      : h(xj_create(dir.c_str(), key, threads, ep)) {}
  ~Handle() { xj_destroy(h); }
};

std::vector<float> kp(unsigned seed, float spread) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-spread, spread);
  std::vector<float> k(63);
  for (float& v : k) v = u(rng);
  return k;
}

int threadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

}  // namespace

TEST(CApi, HeaderConstantAndAccessors) {
  EXPECT_EQ(xj_host_kp_rows(), 21);
  EXPECT_EQ(xj_host_kp_rows(), xj::kHostKpRows);
  EXPECT_EQ(xj_nt(nullptr), 0);
  EXPECT_EQ(xj_width(nullptr), 0);
  EXPECT_EQ(xj_height(nullptr), 0);
  EXPECT_EQ(xj_crop(nullptr), 0);
  EXPECT_EQ(xj_drive_frames(nullptr), 0);
  xj_destroy(nullptr);
  Handle b(kBasic, "b1");
  ASSERT_NE(b.h, nullptr) << xj_last_error();
  EXPECT_STREQ(xj_last_error(), "");
  EXPECT_EQ(xj_nt(b.h), 3);
  EXPECT_EQ(xj_width(b.h), 40);
  EXPECT_EQ(xj_height(b.h), 32);
  EXPECT_EQ(xj_crop(b.h), 16);
  EXPECT_EQ(xj_drive_frames(b.h), 5);
}

TEST(CApi, ArgumentAndBundleRefusals) {
  const auto k = kp(1, 0.2f);
  struct {
    const char* what;
    bool ok;
    std::string message;
  } cases[] = {
      {"null dir", xj_create(nullptr, "b1", 1, nullptr) != nullptr, "xj_create: NULL bundle_dir/model_key"},
      {"null key", xj_create(kBasic.c_str(), nullptr, 1, nullptr) != nullptr, "xj_create: NULL bundle_dir/model_key"},
      {"no bundle", xj_create("/nonexistent/b", "b1", 1, nullptr) != nullptr,
       "xj_create: cannot open /nonexistent/b/manifest.json"},
      {"null handle", xj_render_kp_crop(nullptr, 0, k.data(), k.data()) != nullptr, "xj_render_kp_crop: bad args"},
      {"drive null handle", xj_render_drive_crop(nullptr, 0) != nullptr, "xj_render_drive_crop: bad frame index"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(c.ok) << c.what;
    // Each call above overwrote the text of the one before; re-run to read its own.
  }
  EXPECT_EQ(xj_create(nullptr, "b1", 1, nullptr), nullptr);
  EXPECT_STREQ(xj_last_error(), cases[0].message.c_str());
  EXPECT_EQ(xj_create("/nonexistent/b", "b1", 1, nullptr), nullptr);
  EXPECT_EQ(std::string(xj_last_error()), cases[2].message);

  Handle b(kBasic, "b1");
  ASSERT_NE(b.h, nullptr);
  struct {
    int si;
    const float *ks, *kd;
  } bad[] = {{-1, k.data(), k.data()}, {3, k.data(), k.data()}, {0, nullptr, k.data()}, {0, k.data(), nullptr}};
  for (const auto& a : bad) {
    EXPECT_EQ(xj_render_kp_crop(b.h, a.si, a.ks, a.kd), nullptr);
    EXPECT_STREQ(xj_last_error(), "xj_render_kp_crop: bad args");
  }
  for (int i : {-1, 5}) {
    EXPECT_EQ(xj_render_drive_crop(b.h, i), nullptr);
    EXPECT_STREQ(xj_last_error(), "xj_render_drive_crop: bad frame index");
  }
  // A successful call clears the text.
  ASSERT_NE(xj_render_drive_crop(b.h, 4), nullptr);
  EXPECT_STREQ(xj_last_error(), "");
}

TEST(CApi, ErrorsArePerThread) {
  EXPECT_EQ(xj_create(nullptr, nullptr, 0, nullptr), nullptr);
  std::string other = "unset";
  std::thread([&] { other = xj_last_error(); }).join();
  EXPECT_EQ(other, "");
  EXPECT_STREQ(xj_last_error(), "xj_create: NULL bundle_dir/model_key");
  // The accessors neither set nor clear it.
  xj_nt(nullptr);
  xj_host_kp_rows();
  EXPECT_STREQ(xj_last_error(), "xj_create: NULL bundle_dir/model_key");
}

TEST(CApi, DriveCropIsTheRowOfTheIdleTables) {
  Handle b(kBasic, "b1");
  ASSERT_NE(b.h, nullptr);
  const std::string xs = xjtest::readFile(kBasic + "/drive/xs.f32");
  const std::string xd = xjtest::readFile(kBasic + "/drive/xd.f32");
  const std::string si = xjtest::readFile(kBasic + "/drive/si.i32");
  for (int i = 0; i < 5; ++i) {
    const float* crop = xj_render_drive_crop(b.h, i);
    ASSERT_NE(crop, nullptr) << xj_last_error();
    int32_t s;
    std::memcpy(&s, si.data() + 4 * i, 4);
    const auto* ks = reinterpret_cast<const float*>(xs.data()) + 63 * i;
    const auto* kd = reinterpret_cast<const float*>(xd.data()) + 63 * i;
    EXPECT_LT(refdir::maxAbsDiff(crop, refdir::plainCrop(kBasic, 16, s, ks, kd)), 1e-4) << "row " << i;
  }
}

TEST(CApi, FailedDirectorLeavesTheHandleOpenAndIsRetried) {
  xjtest::TempDir t;
  const std::string dir = t / "b";
  xjtest::copyTree(kBasic, dir);
  const std::string model = xjtest::readFile(dir + "/model_b1.onnx");
  xjtest::removeTree(dir + "/model_b1.onnx");
  Handle b(dir, "b1");
  ASSERT_NE(b.h, nullptr) << "the director is not loaded by xj_create";
  const auto k = kp(5, 0.2f);
  EXPECT_EQ(xj_render_kp_crop(b.h, 0, k.data(), k.data()), nullptr);
  EXPECT_EQ(std::string(xj_last_error()).rfind("xj_render_kp_crop: ", 0), 0u) << xj_last_error();
  xjtest::writeFile(dir + "/model_b1.onnx", model);
  const float* crop = xj_render_kp_crop(b.h, 0, k.data(), k.data());
  ASSERT_NE(crop, nullptr) << xj_last_error();
  EXPECT_LT(refdir::maxAbsDiff(crop, refdir::plainCrop(dir, 16, 0, k.data(), k.data())), 1e-4);
}

// ONNX Runtime's CPU executor makes small allocations inside every Run, bound
// or not. The frame path must add none of its own: a render costs exactly what
// a bare bound Run of the same graph costs.
static long bareBoundRunAllocs(const std::string& model) {
  xj::ortInit();
  Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "test");
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(1);
  o.SetInterOpNumThreads(1);
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  o.AddConfigEntry("mlas.disable_kleidiai", "1");
  Ort::Session session(env, model.c_str(), o);
  Ort::RunOptions ro;
  ro.AddConfigEntry("memory.enable_memory_arena_shrinkage", "cpu:0");
  Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<float> pooled(4 * 65536, 0.1f), prior(4 * 768, 0.5f), kd(4 * 63, 0.2f), ks(4 * 63), rgb(4 * 768);
  const int64_t sp[] = {4, 64, 32, 32}, sr[] = {4, 3, 16, 16}, sk[] = {4, 21, 3};
  std::vector<Ort::Value> v;
  v.push_back(Ort::Value::CreateTensor<float>(mem, pooled.data(), pooled.size(), sp, 4));
  v.push_back(Ort::Value::CreateTensor<float>(mem, prior.data(), prior.size(), sr, 4));
  v.push_back(Ort::Value::CreateTensor<float>(mem, kd.data(), kd.size(), sk, 3));
  v.push_back(Ort::Value::CreateTensor<float>(mem, ks.data(), ks.size(), sk, 3));
  v.push_back(Ort::Value::CreateTensor<float>(mem, rgb.data(), rgb.size(), sr, 4));
  Ort::IoBinding b(session);
  b.BindInput("pooled64", v[0]);
  b.BindInput("P_rgb", v[1]);
  b.BindInput("kp_driving", v[2]);
  b.BindInput("kp_source", v[3]);
  b.BindOutput("rgb", v[4]);
  session.Run(ro, b);
  session.Run(ro, b);
  gAllocs = 0;
  gArmed = true;
  session.Run(ro, b);
  gArmed = false;
  return gAllocs;
}

TEST(CApi, RenderAfterTheFirstAllocatesNothingOfItsOwn) {
#ifndef XJ_COUNT_ALLOCS
  GTEST_SKIP() << "allocation counting is off under the sanitizers";
#endif
  const long runtime = bareBoundRunAllocs(kBasic + "/model_b4.onnx");
  Handle b(kBasic, "b4");
  ASSERT_NE(b.h, nullptr);
  const auto ks = kp(8, 0.3f), kd = kp(9, 0.5f);
  ASSERT_NE(xj_render_kp_crop(b.h, 1, ks.data(), kd.data()), nullptr) << xj_last_error();
  ASSERT_NE(xj_render_kp_crop(b.h, 2, kd.data(), ks.data()), nullptr);
  for (int round = 0; round < 5; ++round) {
    gAllocs = 0;
    gArmed = true;
    const float* a = xj_render_kp_crop(b.h, round % 3, ks.data(), kd.data());
    const long afterKp = gAllocs;
    const float* d = xj_render_drive_crop(b.h, round);
    gArmed = false;
    ASSERT_NE(a, nullptr);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(afterKp, runtime) << "round " << round;
    EXPECT_EQ(gAllocs - afterKp, runtime) << "round " << round;
  }
}

// ---- sizing of the director ----------------------------------------------

namespace {

struct SizingRun {
  int threads;
  const char* ep;
};

// In a child: create, count threads around the first render, print the count.
void sizingChild(void* arg) {
  const auto* r = static_cast<SizingRun*>(arg);
  xj_ctx* h = xj_create(kBasic.c_str(), "b1", r->threads, r->ep);
  if (!h) {
    std::fprintf(stderr, "create failed: %s\n", xj_last_error());
    return;
  }
  const int before = threadCount();
  const float* c = xj_render_drive_crop(h, 0);
  std::fprintf(stderr, "render %s, new threads %d\n", c ? "ok" : xj_last_error(), threadCount() - before);
  xj_destroy(h);
}

}  // namespace

// Threads the first render starts beyond the director's intra-op workers (the
// runtime's own), measured with a width of 1.
static int baseThreads() {
  static const int base = [] {
    SizingRun run{1, nullptr};
    const std::string err = xjtest::captureStderr(sizingChild, &run);
    const size_t at = err.find("new threads ");
    return at == std::string::npos ? -1000 : std::atoi(err.c_str() + at + 12);
  }();
  return base;
}

// xj_create opens the driver video of the bundle, which says so first.
static const std::string kDriverLine =
    "[xj-driver] target_frames/ (raw jpg, 3 frames) \xE2\x80\x94 read one frame per pull\n";

static std::string renderLine(int width) {
  return "render ok, new threads " + std::to_string(baseThreads() + width - 1) + "\n";
}

TEST(CApi, DirectorSizing) {
  const int pool = xj::pool::threads();
  const int unchosen = pool < 2 ? pool : 2;
  char line[256];
  std::snprintf(line, sizeof line,
                "[xj] director intra-op %d of pool %d: the caller did not choose, the core sized it for the xj_utt "
                "pipeline\n",
                unchosen, pool);
  struct {
    SizingRun run;
    std::string expect;
  } cases[] = {
      // Not chosen, no ep: the sizing line, and the width min(pool, 2).
      {{0, nullptr}, kDriverLine + line + "[xj] director ep=cpu (ORT CPU EP)\n" + renderLine(unchosen)},
      {{-4, ""}, kDriverLine + line + "[xj] director ep=cpu (ORT CPU EP)\n" + renderLine(unchosen)},
      // Chosen: no line, the asked width even above the pool.
      {{3, nullptr}, kDriverLine + "[xj] director ep=cpu (ORT CPU EP)\n" + renderLine(3)},
      {{1, ""}, kDriverLine + "[xj] director ep=cpu (ORT CPU EP)\n" + renderLine(1)},
  };
  for (auto& c : cases) {
    int status = 0;
    EXPECT_EQ(xjtest::captureStderr(sizingChild, &c.run, &status), c.expect) << "threads " << c.run.threads;
    EXPECT_EQ(status, 0);
  }
}

TEST(CApi, NamedProviderKeepsThePoolWidthAndFallsBackToCpu) {
  // CoreML is not on this platform: the runtime refuses the provider and the
  // director opens on the CPU provider, at the pool width, without the sizing line.
  SizingRun run{0, "coreml"};
  int status = 0;
  const std::string err = xjtest::captureStderr(sizingChild, &run, &status);
  EXPECT_EQ(err.find("intra-op"), std::string::npos) << err;
  const std::string refused = kDriverLine + "[xj] CoreML EP session refused: ";
  ASSERT_EQ(err.rfind(refused, 0), 0u) << err;
  const std::string tail = " \xE2\x80\x94 falling back to the ORT CPU EP\n[xj] director ep=cpu (ORT CPU EP)\n" +
                           renderLine(xj::pool::threads());
  ASSERT_GT(err.size(), tail.size());
  EXPECT_EQ(err.substr(err.size() - tail.size()), tail) << err;
}

// ---- profiling -------------------------------------------------------------

namespace {
void profileChild(void* arg) {
  const int frames = *static_cast<int*>(arg);
  xj_ctx* h = xj_create(kBasic.c_str(), "b1", 1, nullptr);
  const auto k = kp(2, 0.2f);
  for (int i = 0; i < frames; ++i) xj_render_kp_crop(h, i % 3, k.data(), k.data());
  xj_destroy(h);
}
void neverRunChild(void*) {
  const xj::Manifest m = xj::loadManifest(kBasic);
  xj::Identity id(m);
  xj::Renderer r(m, id, "b1", 1, "");
}
}  // namespace

TEST(CApi, NeverRunRendererStillEndsProfiling) {
  xjtest::TempDir t;
  xjtest::ScopedEnv env("XJ_ORT_PROFILE", (t / "idle").c_str());
  const std::string err = xjtest::captureStderr(neverRunChild, nullptr);
  const std::string head = "[xj] director ep=cpu (ORT CPU EP)\n[xj_ort_profile] " + t.path() + "/idle";
  EXPECT_EQ(err.rfind(head, 0), 0u) << err;
  EXPECT_EQ(err.find("frames:"), std::string::npos) << err;
}

TEST(CApi, ProfileLinesAtDestruction) {
  xjtest::TempDir t;
  xjtest::ScopedEnv env("XJ_ORT_PROFILE", (t / "prof").c_str());
  int frames = 3;
  const std::string err = xjtest::captureStderr(profileChild, &frames);
  const std::string head = kDriverLine + "[xj] director ep=cpu (ORT CPU EP)\n[xj_ort_profile] 3 frames: ";
  ASSERT_EQ(err.rfind(head, 0), 0u) << err;
  const size_t ms = err.find(" ms/frame in Session::Run\n[xj_ort_profile] " + t.path() + "/prof");
  EXPECT_NE(ms, std::string::npos) << err;
  // The file that the runtime names exists and holds its trace.
  const size_t nameAt = err.rfind("[xj_ort_profile] ") + 17;
  const std::string file = err.substr(nameAt, err.size() - nameAt - 1);
  EXPECT_NE(xjtest::readFile(file).find("\"name\""), std::string::npos);
}
