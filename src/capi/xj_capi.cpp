#include "capi/xj_capi.h"

#include <cstdio>

#include "cpu/xj_pool.h"

namespace xj::capi {

std::string& lastError() {
  thread_local std::string text;
  return text;
}

void clearErr() { lastError().clear(); }
void setErr(const char* literal) { lastError() = literal; }
void setErr(const char* name, const std::exception& e) { lastError() = std::string(name) + ": " + e.what(); }

}  // namespace xj::capi

using xj::capi::clearErr;
using xj::capi::setErr;

xj_ctx::xj_ctx(const char* bundleDir, const char* key, int nThreads, bool chosen, const char* epName)
    : manifest(xj::loadManifest(bundleDir)),
      identity(manifest),
      drive(xj::loadDrive(manifest)),
      threads(nThreads),
      ep(epName),
      threadsChosen(chosen),
      modelKey(key) {}

xj_ctx::~xj_ctx() {
  canvas.clear();
  ep.clear();
  modelKey.clear();
  renderer.reset();
}

xj::Renderer& xj_ctx::ensureRenderer() {
  if (renderer) return *renderer;
  int width = threads;
  if (!threadsChosen && ep.empty()) {
    width = threads < 2 ? threads : 2;
    std::fprintf(stderr,
                 "[xj] director intra-op %d of pool %d: the caller did not choose, the core sized it for the xj_utt "
                 "pipeline\n",
                 width, threads);
  }
  renderer = std::make_unique<xj::Renderer>(manifest, identity, modelKey, width, ep);
  return *renderer;
}

extern "C" {

XJ_API xj_ctx* xj_create(const char* bundle_dir, const char* model_key, int threads, const char* ep) {
  clearErr();
  if (!bundle_dir || !model_key) {
    setErr("xj_create: NULL bundle_dir/model_key");
    return nullptr;
  }
  const bool chosen = threads > 0;
  if (!chosen) threads = xj::pool::threads();
  try {
    return new xj_ctx(bundle_dir, model_key, threads, chosen, ep ? ep : "");
  } catch (const std::exception& e) {
    setErr("xj_create", e);
    return nullptr;
  }
}

XJ_API void xj_destroy(xj_ctx* h) { delete h; }

XJ_API const char* xj_last_error(void) { return xj::capi::lastError().c_str(); }

XJ_API int xj_host_kp_rows(void) { return xj::kHostKpRows; }
XJ_API int xj_nt(const xj_ctx* h) { return h ? h->manifest.NT : 0; }
XJ_API int xj_width(const xj_ctx* h) { return h ? h->manifest.W : 0; }
XJ_API int xj_height(const xj_ctx* h) { return h ? h->manifest.H : 0; }
XJ_API int xj_crop(const xj_ctx* h) { return h ? h->manifest.crop : 0; }
XJ_API int xj_drive_frames(const xj_ctx* h) { return h ? h->drive.frames : 0; }

XJ_API const float* xj_render_kp_crop(xj_ctx* h, int si, const float* ks, const float* kd) {
  clearErr();
  if (!h || !ks || !kd || si < 0 || si >= h->manifest.NT) {
    setErr("xj_render_kp_crop: bad args");
    return nullptr;
  }
  try {
    const float* crop = h->ensureRenderer().render(&si, ks, kd, 1);
    h->lastCrop = crop;
    return crop;
  } catch (const std::exception& e) {
    setErr("xj_render_kp_crop", e);
    return nullptr;
  }
}

XJ_API const float* xj_render_drive_crop(xj_ctx* h, int i) {
  clearErr();
  if (!h || i < 0 || i >= h->drive.frames) {
    setErr("xj_render_drive_crop: bad frame index");
    return nullptr;
  }
  const size_t row = static_cast<size_t>(i) * 63;
  return xj_render_kp_crop(h, h->drive.si[static_cast<size_t>(i)], h->drive.xs.data() + row,
                           h->drive.xd.data() + row);
}

}  // extern "C"
