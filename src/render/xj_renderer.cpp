#include "render/xj_renderer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "cpu/xj_pool.h"
#include "render/xj_ort.h"
#include "xj/xj.h"

namespace xj {

// Every tensor is wrapped once, at load, round a vector that lives here, and
// bound once; a frame only writes new values into the same buffers.
struct Renderer::Impl {
  std::string ep;
  std::unique_ptr<Ort::Env> env;
  Ort::SessionOptions options{nullptr};
  std::unique_ptr<Ort::Session> session;
  std::unique_ptr<Ort::IoBinding> binding;
  Ort::RunOptions runOptions{nullptr};
  bool profiling = false;
  double runMs = 0;
  int64_t runFrames = 0;
  const Identity* identity = nullptr;
  int32_t batch = 0;
  int32_t crop = 0;
  int64_t pooledElems = 65536;
  int64_t rgbElems = 0;
  int64_t fsRedElems = 262144;
  bool featSynth = false;
  std::vector<float> pooledBuf;
  std::vector<float> pRgbBuf;
  std::vector<float> fsRedBuf;
  std::vector<float> kdBuf;
  std::vector<float> ksBuf;
  std::vector<float> rgbBuf;
  std::vector<Ort::Value> values;
  std::string note;
  std::string modelPath;
  int threads = 1;

  void openSession(const std::string& wantEp);
  void readInputs();
  void sizeBuffers();
  void bind();
};

namespace {

bool envStartsWith(const char* name, char c) {
  const char* v = std::getenv(name);
  return v && v[0] == c;
}

std::string coremlUnits(const std::string& ep) { return ep.size() < 8 ? "all" : ep.substr(7); }

}  // namespace

std::string coremlCacheDir(const std::string& bundleDir) {
  const char* ver = OrtGetApiBase()->GetVersionString();
  return bundleDir + "/.coreml_cache/ort" + ((ver && *ver) ? ver : "unknown");
}

// One session attempt with `wantEp` ("" is the CPU provider).
void Renderer::Impl::openSession(const std::string& wantEp) {
  session.reset();
  options = Ort::SessionOptions();
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  if (!envStartsWith("XJ_ORT_SPIN", '1')) options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  options.AddConfigEntry("mlas.disable_kleidiai", "1");
  const char* prof = std::getenv("XJ_ORT_PROFILE");
  profiling = false;
  if (prof && *prof) {
    options.EnableProfiling(prof);
    profiling = true;
  }

  const bool coreml = wantEp.rfind("coreml", 0) == 0;
  if (!wantEp.empty()) {
    if (wantEp.rfind("xnnpack", 0) == 0) {
      throw std::runtime_error(
          "Renderer: ep '" + wantEp +
          "' is REFUSED. This renderer rewrites its graph to Veltrona custom-domain nodes "
          "(com.veltrona::GridSampleFast, and com.veltrona::WarpDirector wherever XJ_WARP_NODE is on), and ORT's "
          "XNNPACK execution provider SEGFAULTS while partitioning a graph that carries them \xE2\x80\x94 measured "
          "2026-09-15 on a published quillon2-android AAR, null deref inside libonnxruntime.so at session create, "
          "on both a door-served and a hand-staged copy of the same identity. It is a signal, not an exception, so "
          "it cannot be caught and reported. Use the default ep (\"\", the ORT CPU EP), which opens the same bundle "
          "on the same bytes.");
    }
    if (!coreml) throw std::runtime_error("Renderer: unknown ep '" + wantEp + "'");
    const std::string units = coremlUnits(wantEp);
    const char* computeUnits = units == "cpu" ? "CPUOnly"
                               : units == "gpu" ? "CPUAndGPU"
                               : units == "ane" ? "CPUAndNeuralEngine"
                                                : "ALL";
    const std::string cacheDir = coremlCacheDir(identity->manifest.dir);
    options.AppendExecutionProvider(
        "CoreML", {{"ModelFormat", "MLProgram"}, {"MLComputeUnits", computeUnits}, {"ModelCacheDirectory", cacheDir}});
  }

  session = std::make_unique<Ort::Session>(*env, modelPath.c_str(), options);
  ep = wantEp.empty() ? "cpu" : wantEp;
  std::fprintf(stderr, "[xj] director ep=%s (%s)\n", ep.c_str(),
               coreml ? "ORT CoreML EP; unclaimed nodes on the CPU EP; std GridSample kept in the graph"
                      : "ORT CPU EP");
}

void Renderer::Impl::readInputs() {
  Ort::AllocatorWithDefaultOptions alloc;
  const size_t count = session->GetInputCount();
  std::vector<std::string> names;
  std::vector<std::vector<int64_t>> shapes;
  for (size_t i = 0; i < count; ++i) {
    names.emplace_back(session->GetInputNameAllocated(i, alloc).get());
    shapes.push_back(session->GetInputTypeInfo(i).GetTensorTypeAndShapeInfo().GetShape());
  }
  for (const auto& n : names)
    if (n == "fs_red") featSynth = true;

  const std::string batchName = featSynth ? "pooled" : "pooled64";
  batch = 0;
  for (size_t i = 0; i < count; ++i) {
    if (names[i] != batchName) continue;
    if (shapes[i].size() == 4 && shapes[i][0] > 0) batch = static_cast<int32_t>(shapes[i][0]);
  }
  if (batch < 1) throw std::runtime_error(batchName + " input not found / bad shape");

  const std::string kdName = featSynth ? "kd" : "kp_driving";
  const std::string ksName = featSynth ? "ks" : "kp_source";
  const std::string host = std::to_string(kHostKpRows);
  for (size_t i = 0; i < count; ++i) {
    if ((names[i] != kdName && names[i] != ksName) || shapes[i].size() != 3) continue;
    const int64_t rows = shapes[i][1];
    if (rows < 1 || rows == kHostKpRows) continue;
    std::string msg = "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + modelPath + " \xE2\x80\x94 the graph declares " +
                      names[i] + " with " + std::to_string(rows) + " keypoint rows, and this renderer feeds " + host +
                      " (xj::kHostKpRows, xj/xj). ";
    if (rows == 22) {
      msg += "That is the recipe_v4 / kd_v4 shape: row " + host +
             " is the WIDTH ROW (wn, seal, 0), fed from the a2x encoder's second output. This engine has no width "
             "feed (see xj_a2x_width / xj_a2x_pull_wn in xj/xj_a2x, which nothing on this path calls yet), so it "
             "cannot drive this director. ";
    }
    msg +=
        "REFUSING AT LOAD rather than dying inside ORT at the first Run. This build must not have been published to "
        "a host that links this renderer: training/recipe/host_kp_contract is the publish gate that exists to "
        "prevent it.";
    throw std::runtime_error(msg);
  }
}

void Renderer::Impl::sizeBuffers() {
  const size_t b = static_cast<size_t>(batch);
  rgbElems = static_cast<int64_t>(crop) * crop * 3;
  pooledBuf.assign(b * pooledElems, 0.0f);
  kdBuf.assign(b * 63, 0.0f);
  ksBuf.assign(b * 63, 0.0f);
  rgbBuf.assign(b * rgbElems, 0.0f);
  if (featSynth) {
    if (!identity->fsRedMap.base) throw std::runtime_error("FeatSynth graph but bundle lacks fs_red.f16");
    fsRedBuf.assign(b * fsRedElems, 0.0f);
  } else {
    if (!identity->pMap.base && identity->priorPath.empty()) {
      throw std::runtime_error(
          "m4b graph (P_rgb input) but this bundle carries no warp prior: neither P.f16, nor fs_red.f16, nor a "
          "P_hevc.mov to play in place is present, so xj::Identity mapped NOTHING and Identity::P(si) would be an "
          "offset from a null pointer \xE2\x80\x94 a SEGFAULT on the first frame, not a refusal. REFUSING to create a "
          "session.");
    }
    pRgbBuf.assign(b * rgbElems, 0.0f);
  }
}

void Renderer::Impl::bind() {
  Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const int64_t b = batch;
  const int64_t c = crop;
  auto wrap = [&](std::vector<float>& buf, std::vector<int64_t> shape) {
    values.push_back(Ort::Value::CreateTensor<float>(mem, buf.data(), buf.size(), shape.data(), shape.size()));
  };
  binding = std::make_unique<Ort::IoBinding>(*session);
  if (featSynth) {
    wrap(fsRedBuf, {b, 64, 64, 64});
    wrap(pooledBuf, {b, 64, 32, 32});
    wrap(kdBuf, {b, kHostKpRows, 3});
    wrap(ksBuf, {b, kHostKpRows, 3});
    wrap(rgbBuf, {b, 3, c, c});
    binding->BindInput("fs_red", values[0]);
    binding->BindInput("pooled", values[1]);
    binding->BindInput("kd", values[2]);
    binding->BindInput("ks", values[3]);
    binding->BindOutput("rgb", values[4]);
  } else {
    wrap(pooledBuf, {b, 64, 32, 32});
    wrap(pRgbBuf, {b, 3, c, c});
    wrap(kdBuf, {b, kHostKpRows, 3});
    wrap(ksBuf, {b, kHostKpRows, 3});
    wrap(rgbBuf, {b, 3, c, c});
    binding->BindInput("pooled64", values[0]);
    binding->BindInput("P_rgb", values[1]);
    binding->BindInput("kp_driving", values[2]);
    binding->BindInput("kp_source", values[3]);
    binding->BindOutput("rgb", values[4]);
  }
}

Renderer::Renderer(const Manifest& m, const Identity& id, const std::string& modelKey, int threads,
                   const std::string& ep)
    : impl_(std::make_unique<Impl>()) {
  ortInit();
  Impl& s = *impl_;
  s.env = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "xj");
  s.runOptions = Ort::RunOptions();
  s.identity = &id;
  s.crop = m.crop;
  s.threads = threads < 1 ? pool::threads() : threads;
  s.modelPath = m.modelPath(modelKey);
  s.runOptions.AddConfigEntry("memory.enable_memory_arena_shrinkage", "cpu:0");

  // A CoreML session that fails falls back once to the CPU provider, on the same bytes.
  try {
    s.openSession(ep);
  } catch (const std::exception& e) {
    if (ep.rfind("coreml", 0) != 0) throw;
    std::fprintf(stderr, "[xj] CoreML EP session refused: %s \xE2\x80\x94 falling back to the ORT CPU EP\n", e.what());
    s.session.reset();
    s.openSession("");
  }
  s.readInputs();
  s.sizeBuffers();
  s.bind();
}

Renderer::~Renderer() {
  if (!impl_) return;
  Impl& s = *impl_;
  if (s.profiling && s.runFrames > 0) {
    std::fprintf(stderr, "[xj_ort_profile] %ld frames: %.2f ms/frame in Session::Run\n", static_cast<long>(s.runFrames),
                 s.runMs / static_cast<double>(s.runFrames));
  }
  if (s.profiling && s.session) {
    try {
      Ort::AllocatorWithDefaultOptions alloc;
      auto file = s.session->EndProfilingAllocated(alloc);
      std::fprintf(stderr, "[xj_ort_profile] %s\n", file.get());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "[xj_ort_profile] FAILED: %s\n", e.what());
    }
  }
}

int Renderer::batch() const { return impl_->batch; }
const char* Renderer::ep() const { return impl_->ep.c_str(); }
const char* Renderer::backend() const { return "ort"; }
const char* Renderer::directorNote() const { return impl_->note.c_str(); }

const float* Renderer::render(const int* si, const float* ks, const float* kd, int n) {
  Impl& s = *impl_;
  if (n < 1 || n > s.batch) throw std::runtime_error("render: bad n");
  const Identity& id = *s.identity;
  std::vector<float>& srcBuf = s.featSynth ? s.fsRedBuf : s.pRgbBuf;
  const size_t srcElems = static_cast<size_t>(s.featSynth ? s.fsRedElems : s.rgbElems);
  const size_t pooled = static_cast<size_t>(s.pooledElems);
  for (int i = 0; i < s.batch; ++i) {
    const size_t slot = static_cast<size_t>(i);
    if (i < n) {
      halfToFloat(id.pooled64(si[i]), s.pooledBuf.data() + slot * pooled, pooled);
      halfToFloat(s.featSynth ? id.fsRed(si[i]) : id.P(si[i]), srcBuf.data() + slot * srcElems, srcElems);
    } else {
      // A padded slot repeats the last real sample; nothing is fetched twice.
      const size_t last = static_cast<size_t>(n - 1);
      std::memcpy(s.pooledBuf.data() + slot * pooled, s.pooledBuf.data() + last * pooled, pooled * sizeof(float));
      std::memcpy(srcBuf.data() + slot * srcElems, srcBuf.data() + last * srcElems, srcElems * sizeof(float));
    }
    const size_t from = static_cast<size_t>(i < n ? i : n - 1);
    std::memcpy(s.ksBuf.data() + slot * 63, ks + from * 63, 63 * sizeof(float));
    std::memcpy(s.kdBuf.data() + slot * 63, kd + from * 63, 63 * sizeof(float));
  }
  const auto t0 = std::chrono::steady_clock::now();
  s.session->Run(s.runOptions, *s.binding);
  const auto t1 = std::chrono::steady_clock::now();
  s.runMs += std::chrono::duration<double, std::milli>(t1 - t0).count();
  s.runFrames += 1;
  return s.rgbBuf.data();
}

}  // namespace xj
