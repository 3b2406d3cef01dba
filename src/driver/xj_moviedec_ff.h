// What the movie decoder of this build is, for hosts that report it.
#pragma once
#include <string>

#include "xj/xj.h"

namespace xj {

// "libavcodec " + the version this library was built against (major.minor.micro)
// + " / " + the configuration line of the libavcodec it runs with.
XJ_API std::string movieDecoderBuild();

// The version this library was built against, "major.minor.micro".
std::string libavcodecBuildVersion();

}  // namespace xj
