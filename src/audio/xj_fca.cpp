#include "audio/xj_fca.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "audio/xj_a2x.h"
#include "audio/xj_a2x_w2v.h"
#include "cpu/xj_pool.h"
#include "render/xj_ort.h"
#include "xj/xj.h"

namespace xj::fca {

std::vector<float> frameEnergy(const std::vector<float>& frames, int T) {
  std::vector<float> e(static_cast<size_t>(T));
  for (int t = 0; t < T; ++t) {
    double s = 0;
    const float* f = frames.data() + static_cast<size_t>(t) * kDim;
    for (int d = 0; d < kDim; ++d) s += static_cast<double>(f[d]) * f[d];
    e[static_cast<size_t>(t)] = static_cast<float>(std::sqrt(s));
  }
  return e;
}

float baselineThreshold(const std::vector<float>& energy, int t, std::vector<float>& scratch) {
  if (t < 7) return 0.0f;
  scratch.assign(energy.begin(), energy.begin() + t + 1);
  std::sort(scratch.begin(), scratch.end());
  const double pos = 0.2 * t;
  const size_t lo = static_cast<size_t>(std::floor(pos)), hi = static_cast<size_t>(std::ceil(pos));
  const double frac = pos - std::floor(pos);
  return static_cast<float>(scratch[lo] + (static_cast<double>(scratch[hi]) - scratch[lo]) * frac);
}

void subtractRunningBaseline(std::vector<float>& frames, int T) {
  const std::vector<float> e = frameEnergy(frames, T);
  std::vector<float> sum(kDim, 0.0f), scratch;
  int count = 0;
  for (int t = 0; t < T; ++t) {
    float* f = frames.data() + static_cast<size_t>(t) * kDim;
    if (e[static_cast<size_t>(t)] > baselineThreshold(e, t, scratch)) {
      for (int d = 0; d < kDim; ++d) sum[static_cast<size_t>(d)] += f[d];
      ++count;
    }
    const float inv = 1.0f / static_cast<float>(count == 0 ? 1 : count);
    for (int d = 0; d < kDim; ++d) f[d] = f[d] - sum[static_cast<size_t>(d)] * inv;
  }
}

}  // namespace xj::fca

using namespace xj::fca;

struct xj_fca {
  std::unique_ptr<Ort::Env> env;
  Ort::SessionOptions opts{nullptr};
  std::unique_ptr<Ort::Session> encoder;
  std::unique_ptr<Ort::Session> stream;
  Ort::MemoryInfo mem{nullptr};
  Ort::RunOptions runOptions{nullptr};
};

namespace {

std::string& lastError() {
  thread_local std::string text;
  return text;
}

// Layers 4 to 9 averaged, over 8 s windows every 4 s, each frame filled once.
std::vector<float> features(xj_fca& f, const float* pcm, int n, int T) {
  std::vector<float> feat(static_cast<size_t>(T) * kDim, 0.0f);
  std::vector<char> filled(static_cast<size_t>(T), 0);
  std::vector<float> window;
  const char* inName = "input_values";
  const char* outName = "audio_emb";
  for (int s = 0; s < T; s += 100) {
    xj::a2x::loadWindow8(window, pcm, n, s);
    Ort::Value in = xj::floatTensor(f.mem, window.data(), window.size(), {1, xj::a2x::kW8Samples});
    auto out = f.encoder->Run(f.runOptions, &inName, &in, 1, &outName, 1);
    const float* emb = out[0].GetTensorData<float>();
    for (int i = s == 0 ? 0 : 50; i < 200 && s + i < T; ++i) {
      if (filled[static_cast<size_t>(s + i)]) continue;
      filled[static_cast<size_t>(s + i)] = 1;
      float* dst = feat.data() + static_cast<size_t>(s + i) * kDim;
      for (int d = 0; d < kDim; ++d) {
        float acc = 0.0f;
        for (int layer : kLayers) acc += emb[(static_cast<size_t>(layer) * 200 + i) * kDim + d];
        dst[d] = acc / 6.0f;
      }
    }
  }
  return feat;
}

int deltas(xj_fca& f, const float* pcm, int n, float* out, int cap) {
  if (n < 1) return 0;
  const int T = (n + 639) / 640;
  if (cap < T) return -1;
  std::vector<float> frames = features(f, pcm, n, T);
  subtractRunningBaseline(frames, T);
  std::vector<float> cond(static_cast<size_t>(T) * kCond);
  for (int t = 0; t < T; ++t)
    for (int k = 0; k < 7; ++k) {
      const int src = std::clamp(t + kOffs[k], 0, T - 1);
      std::memcpy(cond.data() + static_cast<size_t>(t) * kCond + static_cast<size_t>(k) * kDim,
                  frames.data() + static_cast<size_t>(src) * kDim, kDim * sizeof(float));
    }
  std::vector<float> prev(63, 0.0f), h(kHidden, 0.0f);
  const char* inNames[] = {"cond", "prev", "h"};
  const char* outNames[] = {"m", "hn"};
  for (int t = 0; t < T; ++t) {
    Ort::Value in[] = {xj::floatTensor(f.mem, cond.data() + static_cast<size_t>(t) * kCond, kCond, {1, kCond}),
                       xj::floatTensor(f.mem, prev.data(), prev.size(), {1, 63}),
                       xj::floatTensor(f.mem, h.data(), h.size(), {1, 1, kHidden})};
    auto o = f.stream->Run(f.runOptions, inNames, in, 3, outNames, 2);
    const float* m = o[0].GetTensorData<float>();
    std::memcpy(out + static_cast<size_t>(t) * 63, m, 63 * sizeof(float));
    std::memcpy(prev.data(), m, 63 * sizeof(float));
    std::memcpy(h.data(), o[1].GetTensorData<float>(), kHidden * sizeof(float));
  }
  return T;
}

}  // namespace

extern "C" {

XJ_API xj_fca* xj_fca_create(const char* encoder_path, const char* stream_path, int threads) {
  lastError().clear();
  std::unique_ptr<xj_fca> f;
  try {
    xj::ortInit();  // before any Ort member exists: even an empty one calls the API table when destroyed
    f = std::make_unique<xj_fca>();
    if (!encoder_path || !stream_path) throw std::runtime_error("NULL encoder_path/stream_path");
    f->env = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "xj_fca");
    f->opts = Ort::SessionOptions();
    f->opts.SetIntraOpNumThreads(threads < 1 ? xj::pool::threads() : threads);
    f->opts.SetInterOpNumThreads(1);
    f->opts.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
    f->encoder = std::make_unique<Ort::Session>(*f->env, encoder_path, f->opts);
    f->stream = std::make_unique<Ort::Session>(*f->env, stream_path, f->opts);
    f->mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    f->runOptions = Ort::RunOptions();
    return f.release();
  } catch (const std::exception& e) {
    lastError() = std::string("xj_fca_create: ") + e.what();
    return nullptr;
  }
}

XJ_API void xj_fca_destroy(xj_fca* f) { delete f; }

XJ_API const char* xj_fca_last_error(void) { return lastError().c_str(); }

XJ_API int xj_fca_deltas(xj_fca* f, const float* pcm, int n, float* out, int cap) {
  lastError().clear();
  if (!f || (n > 0 && (!pcm || !out))) {
    lastError() = "xj_fca_deltas: bad args";
    return -1;
  }
  try {
    return deltas(*f, pcm, n, out, cap);
  } catch (const std::exception& e) {
    lastError() = std::string("xj_fca_deltas: ") + e.what();
    return -1;
  }
}

}  // extern "C"
