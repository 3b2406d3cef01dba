// The engine handle behind the C surface, and the error plumbing of the xj_ family.
#pragma once
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bundle/xj_bundle.h"
#include "driver/xj_driver.h"
#include "paste/xj_paste.h"
#include "render/xj_renderer.h"
#include "xj/xj.h"

// One opened bundle. No lock of its own: one thread at a time, or the session
// that owns it.
struct xj_ctx {
  xj::Manifest manifest;
  xj::Identity identity;
  xj::Drive drive;
  std::unique_ptr<xj::Renderer> renderer;
  std::unique_ptr<xj::Paste> paste;
  int32_t threads = 0;
  std::string ep;
  bool threadsChosen = false;
  std::string modelKey;
  std::unique_ptr<xj::DriverCursor> cursor;  // driver video: look-ahead 2, history 11
  std::vector<uint8_t> canvas;               // W*H*3, the target of xj_paste_last
  const float* lastCrop = nullptr;

  xj_ctx(const char* bundleDir, const char* modelKey, int threads, bool threadsChosen, const char* ep);
  ~xj_ctx();

  // Creates the director on first use; sized for the live pipeline unless the caller chose.
  xj::Renderer& ensureRenderer();
  // The director's intra-op width: min(threads, 2) when the caller chose neither
  // threads nor a provider, else threads.
  int directorWidth() const { return (!threadsChosen && ep.empty() && threads > 2) ? 2 : threads; }
};

namespace xj::capi {

// This thread's last error of the xj_ family.
std::string& lastError();
void clearErr();
void setErr(const char* literal);
void setErr(const char* name, const std::exception& e);

}  // namespace xj::capi
