// Process-wide store of host-recorded values, turned into one-line JSON
// snapshots that also describe the machine. The C side (xj_tel_*) is in xj/xj.h.
#pragma once
#include <string>

namespace xj::tel {

// A fresh snapshot, built under the store's mutex; it is not queued.
std::string snapshot_json();

}  // namespace xj::tel
