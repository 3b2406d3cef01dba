// The telemetry store: host-recorded values and a queue of snapshots that a
// flush hands to the host's POST function. The library records nothing by
// itself and opens no connection of its own.
#include "telemetry/xj_telemetry.h"

#include <sys/utsname.h>
#if defined(__linux__)
#include <sys/sysinfo.h>
#endif

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "xj/xj.h"

#ifndef XJ_VERSION_TEXT
// A build that gives no version reports an empty one rather than a made-up one.
#define XJ_VERSION_TEXT ""
#endif

namespace xj::tel {
namespace {

// Undelivered snapshots beyond this many are dropped from the front, so an
// endpoint that is down for good costs bounded memory.
constexpr size_t kQueueCap = 256;
constexpr size_t kResponseCap = 65536;
constexpr const char* kIngestPath = "/v1/telemetry/ingest";
constexpr int kHttpOk = 200;
constexpr int kNoDelivery = -2;
constexpr int kRejected = -3;

// Values with a place of their own at the top level of a snapshot, in the
// order they are written there.
constexpr const char* kKnownNum[] = {"fps_ema", "frames_total", "session_s", "load_ms", "thermal_state"};

struct Sys {
  bool probed = false;
  std::string os;
  std::string os_version;
  std::string device_model;
  std::string arch;
  uint64_t cpu_cores = 0;
  uint64_t ram_bytes = 0;
};

struct TelState {
  std::mutex mutex;
  Sys sys;
  std::map<std::string, double> nums;
  std::map<std::string, std::string> strs;
  std::deque<std::string> queue;
  // The host's POST function; copied out under the mutex and called without it.
  xj_tel_post_fn post = nullptr;
  void* postUser = nullptr;
};

TelState& state() {
  static TelState s;
  return s;
}

bool isKnownNum(const std::string& key) {
  for (const char* k : kKnownNum)
    if (key == k) return true;
  return false;
}

// The machine does not change under a running process, so it is asked once.
void probe(Sys& sys) {
  if (sys.probed) return;
  struct utsname u;
  if (uname(&u) == 0) {
    sys.os_version = u.release;
    sys.arch = u.machine;
  }
  sys.cpu_cores = std::thread::hardware_concurrency();
  sys.os = "linux";
#if defined(__linux__)
  struct sysinfo si;
  if (sysinfo(&si) == 0) sys.ram_bytes = static_cast<uint64_t>(si.totalram) * si.mem_unit;
#endif
  sys.probed = true;
}

void appendEscaped(std::string& out, const std::string& s) {
  static const char kHex[] = "0123456789abcdef";
  out += '"';
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += kHex[c >> 4];
          out += kHex[c & 15];
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

// Whole values are written as integers so that counters read back exactly;
// anything else gets six significant digits.
void appendNumber(std::string& out, double v) {
  // Only inside [-2^63, 2^63) is the conversion to int64_t defined.
  if (v >= -9223372036854775808.0 && v < 9223372036854775808.0) {
    const int64_t i = static_cast<int64_t>(v);
    if (static_cast<double>(i) == v) {
      out += std::to_string(i);
      return;
    }
  }
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  out += buf;
}

void appendKey(std::string& out, const std::string& key) {
  appendEscaped(out, key);
  out += ':';
}

// Caller holds st.mutex.
std::string buildSnapshot(TelState& st) {
  probe(st.sys);
  const Sys& sys = st.sys;
  std::string o;
  o.reserve(512);
  o += "{\"ts\":";
  o += std::to_string(static_cast<long long>(std::time(nullptr)));
  o += ',';
  appendKey(o, "os");
  appendEscaped(o, sys.os);
  o += ',';
  appendKey(o, "os_version");
  appendEscaped(o, sys.os_version);
  o += ',';
  appendKey(o, "device_model");
  auto dm = st.strs.find("device_model");
  appendEscaped(o, dm != st.strs.end() ? dm->second : sys.device_model);
  o += ',';
  appendKey(o, "arch");
  appendEscaped(o, sys.arch);
  o += ',';
  appendKey(o, "cpu_cores");
  o += std::to_string(sys.cpu_cores);
  o += ',';
  appendKey(o, "ram_bytes");
  o += std::to_string(sys.ram_bytes);
  o += ',';
  appendKey(o, "sdk_version");
  appendEscaped(o, XJ_VERSION_TEXT);
  for (const char* k : kKnownNum) {
    auto it = st.nums.find(k);
    if (it == st.nums.end()) continue;
    o += ',';
    appendKey(o, k);
    appendNumber(o, it->second);
  }
  auto mk = st.strs.find("model_key");
  if (mk != st.strs.end()) {
    o += ',';
    appendKey(o, "model_key");
    appendEscaped(o, mk->second);
  }
  o += ",\"extra\":{";
  bool first = true;
  for (const auto& [key, value] : st.nums) {
    if (isKnownNum(key)) continue;
    if (!first) o += ',';
    first = false;
    appendKey(o, key);
    appendNumber(o, value);
  }
  for (const auto& [key, value] : st.strs) {
    if (key == "model_key" || key == "device_model") continue;
    if (!first) o += ',';
    first = false;
    appendKey(o, key);
    appendEscaped(o, value);
  }
  o += "}}";
  return o;
}

}  // namespace

std::string snapshot_json() {
  TelState& st = state();
  std::lock_guard<std::mutex> lock(st.mutex);
  return buildSnapshot(st);
}

}  // namespace xj::tel

using xj::tel::TelState;

extern "C" {

XJ_API void xj_tel_record(const char* key, double value) {
  if (!key || !*key) return;
  try {
    TelState& st = xj::tel::state();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.nums[key] = value;
  } catch (...) {
    // Recording is best effort and never fails towards the caller.
  }
}

XJ_API void xj_tel_record_str(const char* key, const char* value) {
  if (!key || !*key || !value) return;
  try {
    TelState& st = xj::tel::state();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.strs[key] = value;
  } catch (...) {
    // Recording is best effort and never fails towards the caller.
  }
}

XJ_API const char* xj_tel_pending_json(void) {
  thread_local std::string text;
  try {
    TelState& st = xj::tel::state();
    std::lock_guard<std::mutex> lock(st.mutex);
    std::string snap = xj::tel::buildSnapshot(st);
    text = "{\"queued\":";
    text += std::to_string(st.queue.size());
    text += ",\"snapshot\":";
    text += snap;
    text += '}';
  } catch (...) {
    text.clear();
  }
  return text.c_str();
}

XJ_API int xj_tel_flush(void) {
  try {
    TelState& st = xj::tel::state();
    std::string body;
    xj_tel_post_fn post = nullptr;
    void* user = nullptr;
    {
      std::lock_guard<std::mutex> lock(st.mutex);
      st.queue.push_back(xj::tel::buildSnapshot(st));
      while (st.queue.size() > xj::tel::kQueueCap) st.queue.pop_front();
      size_t len = 12;
      for (const std::string& s : st.queue) len += s.size() + 1;
      body.reserve(len);
      body += "{\"batch\":[";
      bool first = true;
      for (const std::string& s : st.queue) {
        if (!first) body += ',';
        first = false;
        body += s;
      }
      body += "]}";
      post = st.post;
      user = st.postUser;
    }
    if (!post) return xj::tel::kNoDelivery;
    // The queue keeps its entries while the host delivers, and recording goes
    // on meanwhile: the mutex is not held across the call.
    std::vector<char> response(xj::tel::kResponseCap, 0);
    const int status = post(user, xj::tel::kIngestPath, body.c_str(), response.data(), response.size());
    if (status < 0) return xj::tel::kNoDelivery;
    if (status != xj::tel::kHttpOk) return xj::tel::kRejected;
    std::lock_guard<std::mutex> lock(st.mutex);
    st.queue.clear();
    return 0;
  } catch (...) {
    return xj::tel::kNoDelivery;
  }
}

XJ_API void xj_tel_set_transport(xj_tel_post_fn fn, void* user) {
  try {
    TelState& st = xj::tel::state();
    std::lock_guard<std::mutex> lock(st.mutex);
    st.post = fn;
    st.postUser = fn ? user : nullptr;
  } catch (...) {
    // Locking a std::mutex only throws on a broken system; nothing to report to.
  }
}

}  // extern "C"
