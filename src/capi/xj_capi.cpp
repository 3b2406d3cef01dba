#include "capi/xj_capi.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>

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
      modelKey(key) {
  // The paste mask: crop*crop bytes, one a pixel, whatever the crop. Extra bytes are ignored.
  const size_t side = static_cast<size_t>(manifest.crop);
  std::vector<unsigned char> mask(side * side, 0);
  std::ifstream file(xj::resolveMember(manifest.dir, "mask_512.u8"), std::ios::binary);
  if (!file || !file.read(reinterpret_cast<char*>(mask.data()), static_cast<std::streamsize>(mask.size()))) {
    throw std::runtime_error("mask read failed");
  }
  paste = std::make_unique<xj::Paste>(std::move(mask), manifest.crop,
                                      xj::Unsharp{manifest.amount, manifest.sigma, manifest.ksize});
  cursor = xj::DriverCursor::open(manifest, 2, 11);
  canvas.resize(static_cast<size_t>(manifest.H) * static_cast<size_t>(manifest.W) * 3);
}

xj_ctx::~xj_ctx() {
  canvas.clear();
  canvas.shrink_to_fit();
  cursor.reset();  // joins the look-ahead thread
  ep.clear();
  modelKey.clear();
  paste.reset();
  renderer.reset();
}

xj::Renderer& xj_ctx::ensureRenderer() {
  if (renderer) return *renderer;
  const int width = directorWidth();
  if (!threadsChosen && ep.empty()) {
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

namespace {

size_t framePixels(const xj_ctx* h) {
  return static_cast<size_t>(h->manifest.W) * static_cast<size_t>(h->manifest.H);
}

// The step both RGBA forms share once their crop is rendered: paste it onto
// source frame si and widen the canvas to RGBA with an opaque alpha.
int pasteRgba(xj_ctx* h, int si, uint8_t* out, size_t outBytes) {
  const size_t pixels = framePixels(h);
  if (!out || 4 * pixels > outBytes) {
    setErr("xj_render_*_rgba: out buffer too small");
    return 0;
  }
  const uint8_t* rgb = xj_paste_last(h, si);
  if (!rgb) return 0;
  for (size_t p = 0; p < pixels; ++p) {
    out[4 * p] = rgb[3 * p];
    out[4 * p + 1] = rgb[3 * p + 1];
    out[4 * p + 2] = rgb[3 * p + 2];
    out[4 * p + 3] = 255;
  }
  return 1;
}

}  // namespace

extern "C" {

XJ_API int xj_paste_crop(xj_ctx* h, int si, const float* crop, uint8_t* out, size_t out_bytes) {
  clearErr();
  if (!h || !crop || !out || si < 0 || si >= h->manifest.NT || out_bytes < 3 * framePixels(h)) {
    setErr("xj_paste_crop: bad args / out too small");
    return 0;
  }
  try {
    h->cursor->pullAt(si, out);
    h->paste->composite(crop, 255.0f, h->identity.M(si), out, h->manifest.W, h->manifest.H);
    return 1;
  } catch (const std::exception& e) {
    setErr("xj_paste_crop", e);
    return 0;
  }
}

XJ_API const uint8_t* xj_paste_last(xj_ctx* h, int si) {
  clearErr();
  if (!h || !h->lastCrop || si < 0 || si >= h->manifest.NT) {
    setErr("xj_paste_last: bad args / no prior render");
    return nullptr;
  }
  try {
    h->cursor->pullAt(si, h->canvas.data());
    h->paste->composite(h->lastCrop, 255.0f, h->identity.M(si), h->canvas.data(), h->manifest.W, h->manifest.H);
    return h->canvas.data();
  } catch (const std::exception& e) {
    setErr("xj_paste_last", e);
    return nullptr;
  }
}

XJ_API int xj_render_kp_rgba(xj_ctx* h, int si, const float* ks, const float* kd, uint8_t* out, size_t out_bytes) {
  if (!xj_render_kp_crop(h, si, ks, kd)) return 0;
  return pasteRgba(h, si, out, out_bytes);
}

XJ_API int xj_render_drive_rgba(xj_ctx* h, int i, uint8_t* out, size_t out_bytes) {
  if (!xj_render_drive_crop(h, i)) return 0;
  return pasteRgba(h, h->drive.si[static_cast<size_t>(i)], out, out_bytes);
}

XJ_API const uint8_t* xj_target_frame(xj_ctx* h, int i) {
  clearErr();
  if (!h || i < 0 || i >= h->manifest.NT) {
    setErr("xj_target_frame: bad args");
    return nullptr;
  }
  try {
    int index = -1;
    return h->cursor->pullAt(i, &index);
  } catch (const std::exception& e) {
    setErr("xj_target_frame", e);
    return nullptr;
  }
}

}  // extern "C"
