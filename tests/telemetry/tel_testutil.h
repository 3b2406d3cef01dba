// Shared pieces of the telemetry tests. The store is process-wide and has no
// reset, so every case that looks at its contents runs in a forked child.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "strict_json.h"

namespace teltest {

// Runs body in a fresh forked child (a watchdog ends it after 30 s); gtest
// failures inside it are reported by the child and fail the calling test.
void inFreshProcess(const std::function<void()>& body);

// Parses xj_tel_pending_json() strictly and checks its two members; *queued gets N.
tjson::Value pendingSnapshot(long long* queued = nullptr);

// Checks the members every snapshot carries, whatever was recorded: names and
// order of the first eight and of the last, and the machine's values.
// Returns the members between sdk_version and extra.
std::vector<std::pair<std::string, tjson::Value>> checkFixedMembers(const tjson::Value& snap,
                                                                     long long tsLow, long long tsHigh);

// XJ_TEST_SHORT=1 asks for shorter stress runs.
bool shortRun();

}  // namespace teltest
