// The error text of the xj_motion_ family, one per thread.
#pragma once
#include <string>

namespace xj::motion {

std::string& lastError();

}  // namespace xj::motion
