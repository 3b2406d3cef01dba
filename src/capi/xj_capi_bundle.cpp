#include "capi/xj_capi_bundle.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "bundle/xj_qvx.h"
#include "capi/xj_capi.h"

using xj::capi::clearErr;
using xj::capi::setErr;

namespace {

// Copies s with its NUL when it fits in cap bytes; otherwise out becomes "".
bool copyOut(const std::string& s, char* out, size_t cap) {
  if (s.size() + 1 > cap) {
    out[0] = '\0';
    return false;
  }
  std::memcpy(out, s.c_str(), s.size() + 1);
  return true;
}

}  // namespace

extern "C" {

XJ_API int xj_bundle_resolve_handle(const char* bundle, char* out, size_t cap) {
  clearErr();
  if (!out || cap == 0 || !bundle) return -1;
  try {
    if (!copyOut(xj::resolveBundlePath(bundle), out, cap)) {
      setErr("xj_bundle_resolve_handle: buffer too small");
      return -1;
    }
    return 1;
  } catch (const std::exception& e) {
    out[0] = '\0';
    setErr("xj_bundle_resolve_handle", e);
    return -1;
  }
}

XJ_API int xj_bundle_resolve_member(const char* bundle, const char* name, char* out, size_t cap) {
  if (!bundle || !name || !out || cap == 0) return -1;
  try {
    const std::string path = xj::resolveMember(xj::resolveBundlePath(bundle), name);
    if (!copyOut(path, out, cap)) return -1;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return 0;
    std::fclose(f);
    return 1;
  } catch (const std::exception&) {
    // This function has no error text of its own: a failed unwrap is -1.
    out[0] = '\0';
    return -1;
  }
}

XJ_API xj_prior* xj_prior_open(const char* bundle_dir, int look_ahead, int history) {
  clearErr();
  if (!bundle_dir) {
    setErr("xj_prior_open: NULL bundle_dir");
    return nullptr;
  }
  try {
    auto p = std::make_unique<xj_prior>();
    p->manifest = xj::loadManifest(xj::resolveBundlePath(bundle_dir));
    p->cursor = xj::DriverCursor::openPrior(p->manifest, look_ahead < 1 ? 2 : look_ahead, history < 0 ? 0 : history);
    p->backend = p->cursor->backend;
    return p.release();
  } catch (const std::exception& e) {
    setErr("xj_prior_open", e);
    return nullptr;
  }
}

XJ_API size_t xj_prior_row_bytes(const xj_prior* p) { return p ? static_cast<size_t>(p->cursor->frameBytes) : 0; }

XJ_API int xj_prior_row(xj_prior* p, int i, uint8_t* out, size_t cap) {
  clearErr();
  if (!p || !out) {
    setErr("xj_prior_row: NULL prior/out");
    return 0;
  }
  const uint64_t bytes = p->cursor->frameBytes;
  if (bytes > cap) {
    const std::string text = "xj_prior_row: cap " + std::to_string(cap) + " < row bytes " + std::to_string(bytes);
    setErr(text.c_str());
    return 0;
  }
  try {
    p->cursor->pullAt(i, out);
    return 1;
  } catch (const std::exception& e) {
    setErr("xj_prior_row", e);
    return 0;
  }
}

XJ_API const char* xj_prior_backend(const xj_prior* p) { return p ? p->backend.c_str() : ""; }

XJ_API void xj_prior_close(xj_prior* p) {
  if (!p) return;
  p->cursor.reset();  // joins the look-ahead thread
  delete p;
}

}  // extern "C"
