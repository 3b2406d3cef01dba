// The director session: keypoints and a source frame index in, a rendered crop out.
#pragma once
#include <memory>
#include <string>

#include "bundle/xj_bundle.h"

namespace xj {

// Where compiled CoreML models of a bundle are cached: keyed by the runtime's
// version, so a runtime upgrade never reuses a stale compile.
std::string coremlCacheDir(const std::string& bundleDir);

class Renderer {
 public:
  // Opens the bundle's "model_<modelKey>.onnx", checks it against the host
  // keypoint contract and against what the bundle carries, and binds every
  // buffer once. threads < 1 means xj::pool::threads(). ep "" is the CPU provider.
  // `id` must outlive the renderer. Throws on every refusal.
  Renderer(const Manifest& m, const Identity& id, const std::string& modelKey, int threads, const std::string& ep);
  ~Renderer();
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;

  int batch() const;
  const char* ep() const;
  const char* backend() const;
  const char* directorNote() const;

  // n crops (1 <= n <= batch()) of crop*crop*3 floats, planar RGB, valid until
  // the next render. ks and kd hold n rows of 63 floats each.
  const float* render(const int* si, const float* ks, const float* kd, int n);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace xj
