// What the motion model reads from its directory: raw float members of an
// exact size, numbers of meta.json, and the three networks.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "render/xj_ort.h"

namespace xj::motion {

// The whole member at `path`, which must hold exactly `count` float32 values.
std::vector<float> readFloats(const std::string& path, size_t count);

// The number behind "key" in a JSON text: the quoted key, the first ':' after
// it, then strtod. A missing key gives `fallback` unless `required`.
double jsonNum(const std::string& text, const std::string& key, bool required, double fallback = 0.0);

// The CoreML unit set that an ep beginning "coreml" names from its eighth character on.
const char* coremlComputeUnits(const std::string& ep);

// Installs the runtime's API table. A first member before any Ort:: member:
// even an empty Ort:: object calls into that table when it is destroyed.
struct OrtReady {
  OrtReady() { xj::ortInit(); }
};

// One network: an owned session, its input and output names in graph order,
// and each input's declared shape with every dimension below 1 taken as 1.
// The tensors sit over the caller's buffers and are bound once; they are bound
// again only when a caller hands other buffers.
class Net {
 public:
  Net() = default;
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;

  // ep "" is the CPU; an ep beginning "coreml" asks for the CoreML provider
  // with its models cached under cacheDir. Any other ep is refused.
  void open(Ort::Env& env, const std::string& path, int threads, const std::string& ep, const std::string& cacheDir);

  // inputs[i] holds sizes[i] floats, which must fill input i's declared shape;
  // the first output is written into out (outSize floats, shaped outShape).
  void run(const float* const* inputs, const size_t* sizes, float* out, size_t outSize, const int64_t* outShape,
           size_t outRank);

  size_t inputCount() const { return inNames.size(); }
  const std::string& path() const { return file; }

 private:
  OrtReady ortReady;
  std::string file;
  std::unique_ptr<Ort::Session> session;
  std::unique_ptr<Ort::IoBinding> binding;
  Ort::RunOptions runOptions{nullptr};
  Ort::MemoryInfo memInfo{nullptr};
  std::vector<std::string> inNames;
  std::vector<std::vector<int64_t>> inShapes;
  std::vector<size_t> inElems;
  std::string outName;
  std::vector<Ort::Value> inValues;
  std::vector<const float*> boundIn;
  Ort::Value outValue{nullptr};
  float* boundOut = nullptr;
  size_t boundOutSize = 0;

  [[noreturn]] void fail(const std::string& what) const;
};

}  // namespace xj::motion
