// Resolution of the path a host names a bundle by.
#pragma once
#include <string>

namespace xj {

// The directory to read a bundle's members from. A plain bundle directory comes
// back as it is; so does a path that exists nowhere (the first member read then
// reports what is missing).
std::string resolveBundlePath(const std::string& p);

}  // namespace xj
