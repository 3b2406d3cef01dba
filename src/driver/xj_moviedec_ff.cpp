#include "driver/xj_moviedec_ff.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace xj {

std::string libavcodecBuildVersion() {
  return std::to_string(LIBAVCODEC_VERSION_MAJOR) + "." + std::to_string(LIBAVCODEC_VERSION_MINOR) + "." +
         std::to_string(LIBAVCODEC_VERSION_MICRO);
}

std::string movieDecoderBuild() {
  const char* conf = avcodec_configuration();
  return "libavcodec " + libavcodecBuildVersion() + " / " + (conf ? conf : "");
}

}  // namespace xj
