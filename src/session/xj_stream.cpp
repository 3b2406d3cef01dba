#include "session/xj_stream.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <memory>

#include "bundle/xj_bundle.h"
#include "capi/xj_capi.h"

namespace {

std::string& lastError() {
  thread_local std::string text;
  return text;
}

constexpr int kSlots = 4;

}  // namespace

xj_stream::~xj_stream() {
  xj_fca_destroy(fca);
  xj_destroy(ctx);
}

int xj_stream::run(const float* pcm, int n, xj_stream_frame_fn cb, void* user) {
  const int T = n > 0 ? (n + 639) / 640 : 0;
  std::vector<float> deltas(static_cast<size_t>(T) * 63);
  if (xj_fca_deltas(fca, pcm, n, deltas.data(), T) != T) {
    lastError() = std::string("xj_fca_deltas: ") + xj_fca_last_error();
    return -1;
  }
  const int F = T - skip;
  if (F < 1) return 0;

  // Keypoint rows: the driver loop from source frame 0; skipped frames move it too.
  std::vector<int32_t> si(static_cast<size_t>(F));
  std::vector<float> xs(static_cast<size_t>(F) * 63), xd(static_cast<size_t>(F) * 63);
  int idx = 0;
  for (int t = 0; t < T; ++t) {
    if (t >= skip) {
      const size_t k = static_cast<size_t>(t - skip);
      si[k] = idx;
      const float* rest = targetKp.data() + static_cast<size_t>(idx) * 63;
      for (int j = 0; j < 63; ++j) {
        xs[k * 63 + j] = rest[j];
        xd[k * 63 + j] = gain * deltas[static_cast<size_t>(t) * 63 + j] + rest[j];
      }
    }
    idx = nt > 1 ? (idx + 1) % nt : 0;
  }

  const size_t cropElems = static_cast<size_t>(crop) * crop * 3;
  std::vector<float> ring(kSlots * cropElems);
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  std::mutex mu;
  std::condition_variable space, data;
  int produced = 0, consumed = 0;
  bool renderDone = false;
  std::atomic<bool> failed{false};

  std::thread render([&] {
    for (int k = 0; k < F; ++k) {
      const float* c = xj_render_kp_crop(ctx, si[static_cast<size_t>(k)], &xs[static_cast<size_t>(k) * 63],
                                         &xd[static_cast<size_t>(k) * 63]);
      if (!c) {
        failed = true;
        break;
      }
      std::unique_lock<std::mutex> lk(mu);
      // A paste failure on the caller's side releases this wait.
      space.wait(lk, [&] { return produced - consumed <= kSlots - 1 || failed.load(); });
      if (failed) break;
      std::memcpy(ring.data() + static_cast<size_t>(produced % kSlots) * cropElems, c, cropElems * sizeof(float));
      ++produced;
      data.notify_all();
    }
    std::lock_guard<std::mutex> lk(mu);
    renderDone = true;
    data.notify_all();
  });

  int delivered = 0;
  for (int k = 0; k < F; ++k) {
    int slot;
    {
      std::unique_lock<std::mutex> lk(mu);
      data.wait(lk, [&] { return consumed < produced || renderDone || failed.load(); });
      if (failed || (consumed >= produced && renderDone)) break;
      slot = consumed % kSlots;
    }
    if (!xj_paste_crop(ctx, si[static_cast<size_t>(k)], ring.data() + static_cast<size_t>(slot) * cropElems, rgb.data(),
                       rgb.size())) {
      {
        std::lock_guard<std::mutex> lk(mu);
        failed = true;
      }
      space.notify_all();
      break;
    }
    {
      std::lock_guard<std::mutex> lk(mu);
      ++consumed;
    }
    space.notify_all();
    if (cb) cb(user, k, rgb.data(), w, h);
    ++delivered;
  }
  render.join();
  if (failed) {
    lastError() = "xj_stream_run: render/paste failed";
    return -1;
  }
  return delivered;
}

extern "C" {

XJ_API xj_stream* xj_stream_create(const char* bundle_dir, const char* encoder_path, int threads, int skip, float gain) {
  lastError().clear();
  auto s = std::make_unique<xj_stream>();
  try {
    s->ctx = xj_create(bundle_dir, "render", threads, "");
    if (!s->ctx) {
      lastError() = std::string("xj_create: ") + xj_last_error();
      return nullptr;
    }
    s->nt = xj_nt(s->ctx);
    s->w = xj_width(s->ctx);
    s->h = xj_height(s->ctx);
    s->crop = xj_crop(s->ctx);
    s->skip = skip;
    s->gain = gain;
    const std::string dir = s->ctx->manifest.dir;
    s->fca = xj_fca_create(encoder_path, (dir + "/fca_stream.onnx").c_str(), threads);
    if (!s->fca) {
      lastError() = std::string("xj_fca_create: ") + xj_fca_last_error();
      return nullptr;
    }
    std::ifstream f(xj::resolveMember(dir, "xs_target.bin"), std::ios::binary);
    s->targetKp.resize(static_cast<size_t>(s->nt) * 63);
    if (!f || !f.read(reinterpret_cast<char*>(s->targetKp.data()),
                      static_cast<std::streamsize>(s->targetKp.size() * sizeof(float)))) {
      lastError() = "xj_stream_create: cannot read xs_target.bin (NT*63 f32)";
      return nullptr;
    }
    return s.release();
  } catch (const std::exception& e) {
    lastError() = std::string("xj_stream_create: ") + e.what();
    return nullptr;
  }
}

XJ_API int xj_stream_run(xj_stream* s, const float* pcm, int n, xj_stream_frame_fn cb, void* user) {
  lastError().clear();
  if (!s || (n > 0 && !pcm)) {
    lastError() = "xj_stream_run: bad args";
    return -1;
  }
  try {
    return s->run(pcm, n, cb, user);
  } catch (const std::exception& e) {
    lastError() = std::string("xj_stream_run: ") + e.what();
    return -1;
  }
}

XJ_API void xj_stream_destroy(xj_stream* s) { delete s; }
XJ_API int xj_stream_width(xj_stream* s) { return s->w; }
XJ_API int xj_stream_height(xj_stream* s) { return s->h; }
XJ_API const char* xj_stream_last_error(void) { return lastError().c_str(); }

}  // extern "C"
