#include "tel_testutil.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "xj/xj.h"
#include "xj_testutil.h"

namespace teltest {
namespace {

void runBody(void* arg) {
  alarm(30);  // a deadlock ends the child instead of the whole run
  (*static_cast<const std::function<void()>*>(arg))();
  std::fflush(stdout);
  if (::testing::Test::HasFailure()) std::fputs("failures in the child process (see its output above)\n", stderr);
}

std::string trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

// The project version as the build file states it: "project(xj_core VERSION x.y.z".
std::string projectVersion() {
  const std::string cm = xjtest::readFile(std::string(XJ_SOURCE_DIR) + "/CMakeLists.txt");
  const std::string tag = "VERSION ";
  size_t p = cm.find("project(");
  if (p == std::string::npos) return "?";
  p = cm.find(tag, p);
  if (p == std::string::npos) return "?";
  p += tag.size();
  size_t e = cm.find_first_of(" )", p);
  return cm.substr(p, e - p);
}

// Total RAM in bytes as /proc/meminfo reports it (in kB).
std::string memTotalBytes() {
  std::ifstream f("/proc/meminfo");
  std::string name;
  unsigned long long kb = 0;
  std::string unit;
  while (f >> name >> kb >> unit)
    if (name == "MemTotal:") return std::to_string(kb * 1024ULL);
  return "?";
}

}  // namespace

bool shortRun() {
  const char* v = std::getenv("XJ_TEST_SHORT");
  return v && std::string(v) == "1";
}

void inFreshProcess(const std::function<void()>& body) {
  std::fflush(stdout);  // or the child repeats what the parent had buffered
  int status = 0;
  std::string err = xjtest::captureStderr(runBody, const_cast<std::function<void()>*>(&body), &status);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  EXPECT_EQ(err, "");
}

tjson::Value pendingSnapshot(long long* queued) {
  const std::string text = xj_tel_pending_json();
  tjson::Value v;
  try {
    v = tjson::parse(text);
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what() << " in " << text;
    return tjson::Value();
  }
  EXPECT_EQ(v.keys(), (std::vector<std::string>{"queued", "snapshot"})) << text;
  const tjson::Value* q = v.find("queued");
  const tjson::Value* s = v.find("snapshot");
  if (!q || !s) return tjson::Value();
  EXPECT_EQ(q->kind, tjson::Value::Kind::Number);
  if (queued) *queued = std::atoll(q->text.c_str());
  return *s;
}

std::vector<std::pair<std::string, tjson::Value>> checkFixedMembers(const tjson::Value& snap,
                                                                     long long tsLow, long long tsHigh) {
  std::vector<std::pair<std::string, tjson::Value>> middle;
  if (!snap.isObject()) {
    ADD_FAILURE() << "snapshot is not an object";
    return middle;
  }
  const std::vector<std::string> kHead = {"ts",       "os",        "os_version", "device_model",
                                          "arch",     "cpu_cores", "ram_bytes",  "sdk_version"};
  const auto& m = snap.members;
  if (m.size() < kHead.size() + 1) {
    ADD_FAILURE() << "snapshot has only " << m.size() << " members";
    return middle;
  }
  for (size_t i = 0; i < kHead.size(); ++i) EXPECT_EQ(m[i].first, kHead[i]) << "member " << i;
  EXPECT_EQ(m.back().first, "extra");
  EXPECT_TRUE(m.back().second.isObject());

  using K = tjson::Value::Kind;
  EXPECT_EQ(m[0].second.kind, K::Number);
  const long long ts = std::atoll(m[0].second.text.c_str());
  EXPECT_EQ(m[0].second.text, std::to_string(ts)) << "ts is a whole number";
  EXPECT_GE(ts, tsLow);
  EXPECT_LE(ts, tsHigh);
  for (int i : {1, 2, 3, 4, 7}) EXPECT_EQ(m[i].second.kind, K::String) << kHead[i];
  for (int i : {5, 6}) EXPECT_EQ(m[i].second.kind, K::Number) << kHead[i];

  struct utsname u;
  if (uname(&u) != 0) {
    ADD_FAILURE() << "uname failed";
    return middle;
  }
  EXPECT_EQ(m[1].second.text, "linux");
  EXPECT_EQ(m[2].second.text, trim(xjtest::readFile("/proc/sys/kernel/osrelease")));
  EXPECT_EQ(m[4].second.text, u.machine);
  EXPECT_EQ(m[5].second.text, std::to_string(std::thread::hardware_concurrency()));
  EXPECT_EQ(m[6].second.text, memTotalBytes());
  EXPECT_EQ(m[7].second.text, projectVersion());
  middle.assign(m.begin() + static_cast<long>(kHead.size()), m.end() - 1);
  return middle;
}

}  // namespace teltest
