// The one way this library includes ONNX Runtime's C++ wrappers: the API table
// is requested at a fixed version, the oldest the library is written against,
// so that nothing newer can be called by accident.
#pragma once
#define ORT_API_MANUAL_INIT
#include <onnxruntime_cxx_api.h>
#undef ORT_API_MANUAL_INIT

#include <cstdint>
#include <initializer_list>

namespace xj {

constexpr int kOrtApiVersion = 26;

// Installs the API table; call before any Ort:: object is made. Thread-safe,
// idempotent. Throws std::runtime_error when the runtime is older than kOrtApiVersion.
void ortInit();

// A float tensor over caller memory, no copy.
inline Ort::Value floatTensor(const Ort::MemoryInfo& mem, float* data, size_t n, std::initializer_list<int64_t> shape) {
  return Ort::Value::CreateTensor<float>(mem, data, n, shape.begin(), shape.size());
}

}  // namespace xj
