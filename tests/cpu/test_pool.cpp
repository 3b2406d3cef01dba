// xj::pool: the thread count from the environment, the fixed cut of a range,
// chunk-to-worker mapping, serial nesting, worker lifetime, and many callers.
#include <dirent.h>
#include <unistd.h>

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cpu/xj_pool.h"
#include "simd_reference.h"
#include "xj_testutil.h"

namespace {

// Sanitizer runtimes start a helper thread with the first thread the program
// creates; one thread started and joined first keeps it out of the counts.
void settleRuntimeThreads() { std::thread([] {}).join(); }

int taskCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
  }
  return n;
}

struct Range {
  size_t begin, end;
  std::thread::id thread;
};

// Runs one job and returns its chunks sorted by begin.
std::vector<Range> record(size_t n, size_t minPerPart) {
  std::mutex mu;
  std::vector<Range> got;
  xj::pool::parallelRange(n, minPerPart, [&](size_t b, size_t e) {
    std::lock_guard<std::mutex> lk(mu);
    got.push_back({b, e, std::this_thread::get_id()});
  });
  std::sort(got.begin(), got.end(), [](const Range& x, const Range& y) {
    return x.begin != y.begin ? x.begin < y.begin : x.end < y.end;
  });
  return got;
}

std::string rangesText(const std::vector<Range>& rs) {
  std::string s;
  for (const Range& r : rs) {
    if (!s.empty()) s += ",";
    s += std::to_string(r.begin) + "-" + std::to_string(r.end);
  }
  return s;
}

// Started with XJ_POOL_PROBE set, the test program reports what the pool made
// of its environment and exits before any test runs: threads() is computed
// once per process, so every environment needs a process of its own.
const int kProbe = [] {
  if (!std::getenv("XJ_POOL_PROBE")) return 0;
  settleRuntimeThreads();
  const int before = taskCount();
  const std::string cut5 = rangesText(record(5, 1));
  const std::string cut10 = rangesText(record(10, 3));
  const int after = taskCount();
  const int first = xj::pool::threads();
  setenv("XJ_CORE_THREADS", first == 1 ? "2" : "1", 1);  // read once: no effect now
  std::fprintf(stderr, "threads=%d parts100=%d spawned=%d cut5=%s cut10=%s again=%d\n", first,
               xj::pool::parts(100, 1), after - before, cut5.c_str(), cut10.c_str(), xj::pool::threads());
  std::fflush(stderr);
  _exit(0);
}();

struct ProbeEnv {
  const char* core;   // nullptr: unset
  const char* paste;  // nullptr: unset
};

void execProbe(void* arg) {
  const auto* env = static_cast<const ProbeEnv*>(arg);
  auto put = [](const char* name, const char* value) {
    if (value) setenv(name, value, 1); else unsetenv(name);
  };
  put("XJ_CORE_THREADS", env->core);
  put("XJ_PASTE_THREADS", env->paste);
  setenv("XJ_POOL_PROBE", "1", 1);
  char* argv[] = {const_cast<char*>("xj_pool_probe"), nullptr};
  execv("/proc/self/exe", argv);
  std::fprintf(stderr, "exec failed\n");
}

std::string probe(const char* core, const char* paste) {
  ProbeEnv env{core, paste};
  int status = -1;
  std::string out = xjtest::captureStderr(execProbe, &env, &status);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;
  return out;
}

int hardware() { return static_cast<int>(std::thread::hardware_concurrency()); }
int clampHw(int request) { return hardware() > 0 ? std::min(request, hardware()) : request; }

// The chunks of a job of n items in p parts: ceil(n / p) each, in order, the
// empty trailing ones left out.
std::string expectedCut(size_t n, int p) {
  const size_t chunk = (n + p - 1) / p;
  std::string s;
  for (int i = 0; i < p; ++i) {
    const size_t b = i * chunk, e = std::min(n, b + chunk);
    if (b >= n) break;
    if (!s.empty()) s += ",";
    s += std::to_string(b) + "-" + std::to_string(e);
  }
  return s;
}

TEST(PoolThreads, EnvironmentRules) {
  struct Case {
    const char* core;
    const char* paste;
    int request;
  } cases[] = {
      {nullptr, nullptr, 4}, {"1", nullptr, 1},   {"0", nullptr, 1},   {"-3", nullptr, 1},
      {"abc", nullptr, 1},   {"", "2", 2},        {"3", "2", 3},       {nullptr, "2", 2},
      {"2", "1", 2},         {"", "", 4},         {"", "-1", 1},       {"64", nullptr, 64},
      {"2x", nullptr, 2},    {" 2", nullptr, 2},  {"99999999999999999999", nullptr, 1 << 30},
  };
  // Sanitizer runs start a slow process per case: the listed rules only.
  const size_t count = xjref::shortRun() ? 8 : sizeof cases / sizeof cases[0];
  for (size_t i = 0; i < count; ++i) {
    const Case& c = cases[i];
    const std::string out = probe(c.core, c.paste);
    const int want = clampHw(c.request);
    const std::string prefix = "threads=" + std::to_string(want) + " ";
    EXPECT_EQ(out.compare(0, prefix.size(), prefix), 0)
        << "XJ_CORE_THREADS=" << (c.core ? c.core : "(unset)")
        << " XJ_PASTE_THREADS=" << (c.paste ? c.paste : "(unset)") << ": " << out;
  }
}

// Under each count this machine can give, the cut of a job is fixed by n and
// the number of parts alone, and exactly threads() - 1 workers are started.
TEST(PoolThreads, CutAndWorkersPerCount) {
  for (int t = 1; t <= std::min(hardware(), 8); ++t) {
    const std::string count = std::to_string(t);
    const std::string out = probe(count.c_str(), nullptr);
    const int p5 = std::min(5, t);
    const int p10 = std::min(10 / 3, t);
    const std::string want = "threads=" + count + " parts100=" + std::to_string(std::min(100, t)) +
                             " spawned=" + std::to_string(t - 1) + " cut5=" +
                             expectedCut(5, t <= 1 ? 1 : p5) + " cut10=" +
                             expectedCut(10, t <= 1 ? 1 : p10) + " again=" + count + "\n";
    EXPECT_EQ(out, want);
  }
}

TEST(PoolThreads, FiveItemsInFourPartsLeaveTheLastEmpty) {
  if (hardware() < 4) GTEST_SKIP() << "needs 4 hardware threads";
  EXPECT_EQ(probe("4", nullptr),
            "threads=4 parts100=4 spawned=3 cut5=0-2,2-4,4-5 cut10=0-4,4-8,8-10 again=4\n");
}

TEST(PoolParts, Table) {
  const int t = xj::pool::threads();
  ASSERT_GE(t, 1);
  EXPECT_TRUE(xj::pool::available());
  struct Case {
    size_t n, g;
    int want;
  } cases[] = {
      {0, 1, 1},  {1, 1, 1},   {2, 1, std::min(2, t)},       {3, 2, 1},  {7, 4, 1},
      {8, 4, std::min(2, t)}, {100, 0, std::min(100, t)}, {100, 1, std::min(100, t)},
      {100, 50, std::min(2, t)}, {100, 51, 1}, {size_t(1) << 40, 1, t}, {5, 1, std::min(5, t)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(xj::pool::parts(c.n, c.g), t <= 1 ? 1 : c.want) << c.n << "/" << c.g;
  }
}

TEST(PoolRange, EmptyRangeRunsOnceOnCaller) {
  const auto rs = record(0, 1);
  ASSERT_EQ(rs.size(), 1u);
  EXPECT_EQ(rs[0].begin, 0u);
  EXPECT_EQ(rs[0].end, 0u);
  EXPECT_EQ(rs[0].thread, std::this_thread::get_id());
}

TEST(PoolRange, EmptyBodyThrows) {
  const std::function<void(size_t, size_t)> empty;
  EXPECT_THROW(xj::pool::parallelRange(1, 1, empty), std::bad_function_call);
  EXPECT_THROW(xj::pool::parallelRange(1000, 1, empty), std::bad_function_call);
  // The pool is still usable afterwards.
  EXPECT_EQ(rangesText(record(4, 1)), expectedCut(4, xj::pool::parts(4, 1)));
}

// Chunks tile [0, n) in order; chunk 0 runs on the caller and chunk i always on
// the same worker, a different one for each i.
TEST(PoolRange, CutAndWorkerMapping) {
  std::map<size_t, std::thread::id> workerOfChunk;
  for (int round = 0; round < 20; ++round) {
    for (size_t n : {2, 3, 5, 7, 64, 1000, 1001}) {
      for (size_t g : {0, 1, 3, 100}) {
        const int p = xj::pool::parts(n, g);
        const auto rs = record(n, g);
        ASSERT_EQ(rangesText(rs), p < 2 ? "0-" + std::to_string(n) : expectedCut(n, p))
            << n << "/" << g;
        const size_t chunk = (n + p - 1) / p;
        std::set<std::thread::id> seen;
        for (const Range& r : rs) {
          const size_t idx = r.begin / chunk;
          if (idx == 0) {
            EXPECT_EQ(r.thread, std::this_thread::get_id());
          } else {
            EXPECT_NE(r.thread, std::this_thread::get_id());
            auto it = workerOfChunk.emplace(idx, r.thread).first;
            EXPECT_EQ(it->second, r.thread) << "chunk " << idx << " moved to another worker";
          }
          EXPECT_TRUE(seen.insert(r.thread).second) << "two chunks on one thread";
        }
      }
    }
  }
}

TEST(PoolRange, NestedCallOnCallerChunkIsSerial) {
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> nestedCalls{0};
  std::atomic<bool> wholeOnCaller{false};
  std::atomic<int> workerNestedItems{0};
  xj::pool::parallelRange(1000, 1, [&](size_t b, size_t e) {
    if (std::this_thread::get_id() == caller) {
      xj::pool::parallelRange(500, 1, [&](size_t nb, size_t ne) {
        ++nestedCalls;
        wholeOnCaller = nb == 0 && ne == 500 && std::this_thread::get_id() == caller;
      });
    } else {
      // A worker's nested call goes through that worker's own pool and still
      // covers its range exactly once.
      std::atomic<int> items{0};
      xj::pool::parallelRange(e - b, 1, [&](size_t nb, size_t ne) { items += static_cast<int>(ne - nb); });
      workerNestedItems += items.load() == static_cast<int>(e - b) ? 1 : -1000;
    }
  });
  EXPECT_EQ(nestedCalls.load(), 1);
  EXPECT_TRUE(wholeOnCaller.load());
  EXPECT_EQ(workerNestedItems.load(), xj::pool::parts(1000, 1) - 1);
}

TEST(PoolLifetime, WorkersEndWithTheirCallingThread) {
  if (xj::pool::threads() < 2) GTEST_SKIP() << "one thread: no workers";
  settleRuntimeThreads();
  const int before = taskCount();
  int during = 0;
  std::thread caller([&] {
    std::atomic<size_t> items{0};
    xj::pool::parallelRange(4096, 1, [&](size_t b, size_t e) { items += e - b; });
    EXPECT_EQ(items.load(), 4096u);
    during = taskCount();
  });
  caller.join();
  EXPECT_EQ(during, before + xj::pool::threads());  // the caller and its workers
  // Joined workers may take a moment to leave the task list.
  int after = taskCount();
  for (int i = 0; i < 200 && after != before; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    after = taskCount();
  }
  EXPECT_EQ(after, before);
}

// A forked child keeps only the forking thread: its jobs run on a pool of its
// own instead of waiting for the parent's workers.
void childJob(void*) {
  std::atomic<size_t> items{0};
  xj::pool::parallelRange(1000, 1, [&](size_t b, size_t e) { items += e - b; });
  std::fprintf(stderr, "items=%zu\n", items.load());
}

TEST(PoolLifetime, ForkedChildRunsItsOwnJobs) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer refuses new threads after a multi-threaded fork";
#endif
  std::atomic<size_t> items{0};
  xj::pool::parallelRange(1000, 1, [&](size_t b, size_t e) { items += e - b; });
  ASSERT_EQ(items.load(), 1000u);
  int status = -1;
  EXPECT_EQ(xjtest::captureStderr(childJob, nullptr, &status), "items=1000\n");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Several threads post jobs at once; every item of every job is visited
// exactly once and the callers never see each other's work.
TEST(PoolStress, ManyCallingThreads) {
  const int callers = 4;
  const int jobs = xjref::shortRun() ? 40 : 400;
  std::atomic<int> failures{0};
  std::vector<std::thread> ts;
  for (int c = 0; c < callers; ++c) {
    ts.emplace_back([&, c] {
      std::vector<std::atomic<int>> hits(4099);
      for (int j = 0; j < jobs; ++j) {
        const size_t n = static_cast<size_t>((j * 131 + c * 17) % 4099);
        const size_t g = static_cast<size_t>(1 + (j % 5) * 7);
        for (size_t i = 0; i < n; ++i) hits[i].store(0, std::memory_order_relaxed);
        xj::pool::parallelRange(n, g, [&](size_t b, size_t e) {
          for (size_t i = b; i < e; ++i) hits[i].fetch_add(1, std::memory_order_relaxed);
        });
        for (size_t i = 0; i < n; ++i) {
          if (hits[i].load(std::memory_order_relaxed) != 1) ++failures;
        }
      }
    });
  }
  for (auto& t : ts) t.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
