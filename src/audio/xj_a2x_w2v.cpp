#include "audio/xj_a2x_w2v.h"

#include <sys/stat.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "cpu/xj_pool.h"

namespace xj::a2x {
namespace {

std::mutex g_w2v_mtx;
std::unique_ptr<Ort::Env> g_w2v_env;
std::unique_ptr<Ort::Session> g_w2v_session;
std::string g_w2v_path;
std::unique_ptr<Ort::Session> g_w2vwin_trunk;
std::unique_ptr<Ort::Session> g_w2vwin_head;
bool g_w2vwin_tried = false;
int g_w2vwin_LT = 0;
std::string g_w2vwin_trunk_out;

std::mutex g_zeroemb_mtx;
std::vector<float> g_zeroemb;

bool cudaOn() {
  const char* v = std::getenv("XJ_A2X_CUDA");
  return v && std::strcmp(v, "1") == 0;
}

// The owner of GPU-placed sessions: created once, lives until process exit.
struct Owner {
  std::mutex mu;
  std::condition_variable cv;
  const std::function<void()>* job = nullptr;
  bool done = false;
};
Owner& owner() {
  static Owner* o = new Owner;  // never destroyed: the detached thread outlives statics
  return *o;
}
std::mutex one_at_a_time;
thread_local bool t_xj_a2x_on_owner = false;

void ownerLoop() {
  t_xj_a2x_on_owner = true;
  Owner& o = owner();
  std::unique_lock<std::mutex> lk(o.mu);
  for (;;) {
    o.cv.wait(lk, [&] { return o.job != nullptr; });
    const std::function<void()>* job = o.job;
    lk.unlock();
    (*job)();
    lk.lock();
    o.job = nullptr;
    o.done = true;
    o.cv.notify_all();
  }
}

int resolveThreads(int threads) { return threads < 1 ? pool::threads() : threads; }

// Options of every encoder session; the encoders never spin, whatever XJ_ORT_SPIN says.
Ort::SessionOptions encoderOptions(int threads) {
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(resolveThreads(threads));
  o.SetInterOpNumThreads(1);
  o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  maybeCuda(o, "w2v");
  return o;
}

void ensureEnv() {
  if (!g_w2v_env) g_w2v_env = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "xj_a2x_w2v");
}

bool readable(const std::string& p) { return std::ifstream(p, std::ios::binary).good(); }

}  // namespace

void onOwnerThread(const std::function<void()>& job) {
  if (!cudaOn() || t_xj_a2x_on_owner) {
    job();
    return;
  }
  static std::once_flag started;
  std::call_once(started, [] { std::thread(ownerLoop).detach(); });
  std::exception_ptr error;
  const std::function<void()> wrapped = [&] {
    try {
      job();
    } catch (...) {
      error = std::current_exception();
    }
  };
  {
    std::lock_guard<std::mutex> one(one_at_a_time);
    Owner& o = owner();
    std::unique_lock<std::mutex> lk(o.mu);
    o.job = &wrapped;
    o.done = false;
    o.cv.notify_all();
    o.cv.wait(lk, [&] { return o.done; });
  }
  if (error) std::rethrow_exception(error);
}

void maybeCuda(Ort::SessionOptions& options, const char* label) {
  if (!cudaOn() || std::strcmp(label, "w2v") != 0) return;
  size_t mib = 3072;
  if (const char* m = std::getenv("XJ_A2X_CUDA_MEM_MIB")) {
    char* end = nullptr;
    const long long v = std::strtoll(m, &end, 10);
    if (end != m && v > 0) mib = static_cast<size_t>(v);
  }
  OrtCUDAProviderOptionsV2* cuda = nullptr;
  try {
    Ort::ThrowOnError(Ort::GetApi().CreateCUDAProviderOptions(&cuda));
    const std::string limit = std::to_string(mib * 1024 * 1024);
    const char* keys[] = {"device_id", "arena_extend_strategy", "gpu_mem_limit", "cudnn_conv_use_max_workspace",
                          "use_tf32", "use_ep_level_unified_stream"};
    const char* values[] = {"0", "kSameAsRequested", limit.c_str(), "0", "0", "1"};
    Ort::ThrowOnError(Ort::GetApi().UpdateCUDAProviderOptions(cuda, keys, values, 6));
    options.AppendExecutionProvider_CUDA_V2(*cuda);
    Ort::GetApi().ReleaseCUDAProviderOptions(cuda);
    std::fprintf(stderr, "[xj_a2x] CUDA EP appended (%s, V2: no-max-workspace, mem<=%zuMiB)\n", label, mib);
  } catch (const std::exception& e) {
    if (cuda) Ort::GetApi().ReleaseCUDAProviderOptions(cuda);
    std::fprintf(stderr, "[xj_a2x] CUDA EP append failed (%s): %s -- falling back to CPU\n", label, e.what());
  }
}

std::unique_ptr<Ort::Session> openSession(Ort::Env& env, const std::string& path, Ort::SessionOptions& options) {
  try {
    return std::make_unique<Ort::Session>(env, path.c_str(), options);
  } catch (const Ort::Exception& e) {
    const std::string what = e.what();
    if (what.find("Gelu") == std::string::npos || what.find("float16") == std::string::npos) throw;
    std::fprintf(stderr,
                 "[xj_a2x] %s: ORT's level-2 Gelu fusion produced a float16 com.microsoft.Gelu this runtime has no "
                 "CPU kernel for; reopening at ORT_ENABLE_BASIC\n",
                 path.c_str());
    options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
    return std::make_unique<Ort::Session>(env, path.c_str(), options);
  }
}

Ort::Session* sharedW2v(const std::string& path, int threads) {
  ortInit();
  std::lock_guard<std::mutex> lk(g_w2v_mtx);
  if (g_w2v_session) return g_w2v_session.get();
  ensureEnv();
  Ort::SessionOptions o = encoderOptions(threads);
  onOwnerThread([&] { g_w2v_session = openSession(*g_w2v_env, path, o); });
  g_w2v_path = path;
  return g_w2v_session.get();
}

bool sharedW2vWin(int threads, const std::string& w2vPath) {
  ortInit();
  std::lock_guard<std::mutex> lk(g_w2v_mtx);
  if (g_w2vwin_trunk && g_w2vwin_head) return true;
  if (g_w2vwin_tried) return false;
  g_w2vwin_tried = true;

  std::string trunkPath, headPath;
  const char* ew = std::getenv("XJ_A2X_W2V_WIN_ONNX");
  const char* eh = std::getenv("XJ_A2X_W2V_HEAD_ONNX");
  if (ew && *ew && eh && *eh) {
    trunkPath = ew;
    headPath = eh;
  } else if (!w2vPath.empty()) {
    const size_t slash = w2vPath.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : w2vPath.substr(0, slash);
    const char* pairs[][2] = {{"audio_encoder_fp16_window_trunk.onnx", "audio_encoder_fp16_window_head.onnx"},
                              {"w2v_trunk32.onnx", "w2v_head32.onnx"}};
    for (const auto& p : pairs) {
      const std::string t = dir + "/" + p[0], h = dir + "/" + p[1];
      if (readable(t) && readable(h)) {
        trunkPath = t;
        headPath = h;
        break;
      }
    }
  }
  if (trunkPath.empty()) {
    std::fprintf(stderr,
                 "[xj_a2x] short-window audio frontend NOT DEPLOYED on this plane: neither "
                 "XJ_A2X_W2V_WIN_ONNX/XJ_A2X_W2V_HEAD_ONNX are set nor is the pair beside $W2V_ONNX (%s) as "
                 "audio_encoder_fp16_window_{trunk,head}.onnx (legacy w2v_trunk32.onnx/w2v_head32.onnx). Serving the "
                 "LEGACY 8s window \xE2\x80\x94 same reference quality, 2.8-3.9x the audio hop cost. Ship the pair "
                 "beside the encoder (tools/export_w2v_window).\n",
                 w2vPath.c_str());
    return false;
  }
  try {
    ensureEnv();
    Ort::SessionOptions o = encoderOptions(threads);
    onOwnerThread([&] {
      g_w2vwin_trunk = openSession(*g_w2v_env, trunkPath, o);
      g_w2vwin_head = openSession(*g_w2v_env, headPath, o);
    });
    Ort::AllocatorWithDefaultOptions alloc;
    g_w2vwin_trunk_out = g_w2vwin_trunk->GetOutputNameAllocated(0, alloc).get();
    const auto shape = g_w2vwin_trunk->GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    g_w2vwin_LT = (shape.size() == 3 && shape[2] >= 1) ? static_cast<int>(shape[2]) : 0;
    const std::string lt = g_w2vwin_LT ? std::to_string(g_w2vwin_LT) : "from-first-run";
    std::fprintf(stderr, "[xj_a2x] short-window w2v frontend loaded (LT=%s) trunk=%s (%lld B) head=%s (%lld B)\n",
                 lt.c_str(), trunkPath.c_str(), fileBytes(trunkPath), headPath.c_str(), fileBytes(headPath));
    return true;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[xj_a2x] short-window w2v load FAILED (%s) \xE2\x80\x94 legacy 8s path\n", e.what());
    g_w2vwin_trunk.reset();
    g_w2vwin_head.reset();
    return false;
  }
}

WinPair winPair() { return {g_w2vwin_trunk.get(), g_w2vwin_head.get(), g_w2vwin_trunk_out.c_str()}; }

int winLT() {
  std::lock_guard<std::mutex> lk(g_w2v_mtx);
  return g_w2vwin_LT;
}

void setWinLT(int lt) {
  std::lock_guard<std::mutex> lk(g_w2v_mtx);
  if (g_w2vwin_LT == 0) g_w2vwin_LT = lt;
}

const std::vector<float>& zeroEmbedding(Ort::Session& w2v8) {
  std::lock_guard<std::mutex> lk(g_zeroemb_mtx);
  if (!g_zeroemb.empty()) return g_zeroemb;
  std::vector<float> zeros(kW8Samples, 0.0f);
  const int64_t shape[] = {1, kW8Samples};
  Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  Ort::Value in = Ort::Value::CreateTensor<float>(mem, zeros.data(), zeros.size(), shape, 2);
  const char* inName = "input_values";
  const char* outName = "audio_emb";
  std::vector<float> emb;
  onOwnerThread([&] {
    auto out = w2v8.Run(Ort::RunOptions{nullptr}, &inName, &in, 1, &outName, 1);
    const size_t n = out[0].GetTensorTypeAndShapeInfo().GetElementCount();
    if (n < static_cast<size_t>(kZeroEmbFloats)) throw std::runtime_error("w2v: audio_emb smaller than [12,200,768]");
    const float* p = out[0].GetTensorData<float>();
    emb.assign(p, p + kZeroEmbFloats);
  });
  g_zeroemb = std::move(emb);
  return g_zeroemb;
}

long long fileBytes(const std::string& path) {
  if (path.empty()) return -1;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.st_size);
}

}  // namespace xj::a2x
