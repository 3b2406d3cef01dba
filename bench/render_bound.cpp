// Time per crop: the renderer's bound path (buffers wrapped and bound once,
// float16 rows widened straight into them) against a plain Session::Run that
// makes its input tensors and its output per call, on the same graph.
//
//   build/bench/xj_bench_render_bound
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bundle/xj_bundle.h"
#include "render/xj_ort.h"
#include "render/xj_renderer.h"

namespace {

// A generated bundle with the given crop, made once per crop.
std::string bundleDir(int crop) {
  static std::string root;
  if (root.empty()) {
    char tmpl[] = "/tmp/xj_bench_render.XXXXXX";
    root = mkdtemp(tmpl);
  }
  const std::string d = root + "/crop" + std::to_string(crop);
  const std::string cmd = "test -d " + d + " || " + XJ_PYTHON + " " + XJ_SOURCE_DIR +
                          "/tools/bundlegen/bundlegen.py bundle --crop " + std::to_string(crop) + " --out " + d;
  if (std::system(cmd.c_str()) != 0) std::abort();
  return d;
}

struct Fixture {
  xj::Manifest m;
  xj::Identity id;
  std::vector<float> ks, kd;
  explicit Fixture(int crop) : m(xj::loadManifest(bundleDir(crop))), id(m), ks(63), kd(63) {
    for (int i = 0; i < 63; ++i) {
      ks[i] = 0.01f * (i % 7);
      kd[i] = 0.02f * (i % 5);
    }
  }
};

void BM_BoundRender(benchmark::State& st) {
  Fixture f(static_cast<int>(st.range(0)));
  xj::Renderer r(f.m, f.id, "b1", 1, "");
  int si = 0;
  for (auto _ : st) {
    benchmark::DoNotOptimize(r.render(&si, f.ks.data(), f.kd.data(), 1));
    si = (si + 1) % f.m.NT;
  }
}

void BM_PerCallTensors(benchmark::State& st) {
  const int crop = static_cast<int>(st.range(0));
  Fixture f(crop);
  xj::ortInit();
  Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "bench");
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(1);
  o.SetInterOpNumThreads(1);
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  o.AddConfigEntry("mlas.disable_kleidiai", "1");
  Ort::Session session(env, f.m.modelPath("b1").c_str(), o);
  Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const char* inNames[] = {"pooled64", "P_rgb", "kp_driving", "kp_source"};
  const char* outNames[] = {"rgb"};
  const int64_t sp[] = {1, 64, 32, 32}, sr[] = {1, 3, crop, crop}, sk[] = {1, 21, 3};
  const size_t rgbElems = static_cast<size_t>(crop) * crop * 3;
  int si = 0;
  for (auto _ : st) {
    // What a caller without bound buffers does: fresh vectors and tensors each frame.
    std::vector<float> pooled(65536), prior(rgbElems);
    xj::halfToFloat(f.id.pooled64(si), pooled.data(), pooled.size());
    xj::halfToFloat(f.id.P(si), prior.data(), prior.size());
    std::vector<float> kd(f.kd), ks(f.ks);
    Ort::Value in[] = {Ort::Value::CreateTensor<float>(mem, pooled.data(), pooled.size(), sp, 4),
                       Ort::Value::CreateTensor<float>(mem, prior.data(), prior.size(), sr, 4),
                       Ort::Value::CreateTensor<float>(mem, kd.data(), kd.size(), sk, 3),
                       Ort::Value::CreateTensor<float>(mem, ks.data(), ks.size(), sk, 3)};
    auto out = session.Run(Ort::RunOptions{nullptr}, inNames, in, 4, outNames, 1);
    benchmark::DoNotOptimize(out[0].GetTensorData<float>());
    si = (si + 1) % f.m.NT;
  }
}

}  // namespace

BENCHMARK(BM_BoundRender)->Arg(64)->Arg(256)->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK(BM_PerCallTensors)->Arg(64)->Arg(256)->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK_MAIN();
