#include "render/xj_ort.h"

#include <mutex>
#include <stdexcept>
#include <string>

namespace xj {

void ortInit() {
  static std::once_flag once;
  static const OrtApi* api = nullptr;
  std::call_once(once, [] {
    api = OrtGetApiBase()->GetApi(kOrtApiVersion);
    if (api) Ort::InitApi(api);
  });
  if (!api) {
    throw std::runtime_error(std::string("ONNX Runtime ") + OrtGetApiBase()->GetVersionString() +
                             " does not serve API version " + std::to_string(kOrtApiVersion));
  }
}

}  // namespace xj
