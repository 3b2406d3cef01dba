// Threads: recording goes on while a delivery hangs, and a mix of every call
// from several threads neither deadlocks, loses the last write of a key, nor
// produces a body or snapshot that is not strict JSON.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tel_testutil.h"
#include "telemetry/xj_telemetry.h"
#include "xj/xj.h"

namespace {

using Clock = std::chrono::steady_clock;
using teltest::inFreshProcess;

// A POST function that holds every caller until the test opens the latch.
struct Latch {
  std::mutex mu;
  std::condition_variable cv;
  int inside = 0;
  bool open = false;
};

int latchedPost(void* user, const char* path, const char* body, char* response, size_t cap) {
  auto* l = static_cast<Latch*>(user);
  std::unique_lock<std::mutex> lock(l->mu);
  ++l->inside;
  l->cv.notify_all();
  l->cv.wait(lock, [l] { return l->open; });
  --l->inside;
  return 200;
}

TEST(TelemetryThreads, RecordingIsNotHeldUpByASlowTransport) {
  inFreshProcess([] {
    Latch latch;
    xj_tel_set_transport(latchedPost, &latch);
    constexpr int kFlushers = 2;
    constexpr int kRecorders = 3;
    const int perRecorder = teltest::shortRun() ? 2000 : 20000;

    std::vector<int> flushResults(kFlushers, 1);
    std::vector<std::thread> flushers;
    for (int f = 0; f < kFlushers; ++f) flushers.emplace_back([&flushResults, f] { flushResults[f] = xj_tel_flush(); });
    {
      std::unique_lock<std::mutex> lock(latch.mu);
      ASSERT_TRUE(latch.cv.wait_for(lock, std::chrono::seconds(10), [&latch] { return latch.inside == kFlushers; }));
    }

    // Both deliveries now hang inside the transport. Recorders must run to the end.
    std::atomic<int> done{0};
    std::vector<double> worstCallMs(kRecorders, 0.0);
    std::vector<std::thread> recorders;
    for (int r = 0; r < kRecorders; ++r) {
      recorders.emplace_back([&, r] {
        const std::string numKey = "r" + std::to_string(r);
        const std::string strKey = "s" + std::to_string(r);
        double worst = 0;
        for (int i = 0; i < perRecorder; ++i) {
          const auto t0 = Clock::now();
          xj_tel_record(numKey.c_str(), i);
          if (i % 64 == 0) xj_tel_record_str(strKey.c_str(), std::to_string(i).c_str());
          if (i % 512 == 0) xj_tel_pending_json();
          worst = std::max(worst, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        worstCallMs[r] = worst;
        done.fetch_add(1);
      });
    }
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (done.load() < kRecorders && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // The latch is still shut: whatever finished, finished while both deliveries hung.
    EXPECT_EQ(done.load(), kRecorders) << "recording waited for the transport";

    long long queued = -1;
    tjson::Value snap = teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, kFlushers) << "queued snapshots stay while they are being delivered";
    const tjson::Value* ex = snap.find("extra");
    ASSERT_NE(ex, nullptr);
    for (int r = 0; r < kRecorders; ++r) {
      const tjson::Value* v = ex->find("r" + std::to_string(r));
      ASSERT_NE(v, nullptr);
      EXPECT_EQ(v->text, std::to_string(perRecorder - 1));
    }

    {
      std::lock_guard<std::mutex> lock(latch.mu);
      latch.open = true;
    }
    latch.cv.notify_all();
    for (auto& t : recorders) t.join();
    for (auto& t : flushers) t.join();
    for (int f = 0; f < kFlushers; ++f) EXPECT_EQ(flushResults[f], 0);
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 0);
    double worst = 0;
    for (double w : worstCallMs) worst = std::max(worst, w);
    std::printf("[telemetry] %d x %d record calls while 2 deliveries hung; slowest call %.3f ms\n", kRecorders,
                perRecorder, worst);
  });
}

// Checks every body strictly, sleeps a little, answers at random.
struct Checker {
  std::mutex mu;
  std::vector<std::string> faults;
  std::atomic<int> calls{0};
  std::atomic<bool> allOk{false};
  long long tsLow = 0;

  void fault(std::string f) {
    std::lock_guard<std::mutex> lock(mu);
    if (faults.size() < 10) faults.push_back(std::move(f));
  }
};

int checkingPost(void* user, const char* path, const char* body, char* response, size_t cap) {
  auto* c = static_cast<Checker*>(user);
  const int n = c->calls.fetch_add(1);
  try {
    tjson::Value v = tjson::parse(body);
    const tjson::Value* batch = v.find("batch");
    if (v.members.size() != 1 || !batch || batch->kind != tjson::Value::Kind::Array)
      c->fault("body is not {\"batch\":[...]}");
    else if (batch->items.empty() || batch->items.size() > 256)
      c->fault("batch of " + std::to_string(batch->items.size()));
    else
      for (const tjson::Value& snap : batch->items)
        if (!snap.isObject() || snap.members.front().first != "ts" || snap.members.back().first != "extra")
          c->fault("snapshot out of shape");
  } catch (const std::exception& e) {
    c->fault(e.what());
  }
  std::this_thread::sleep_for(std::chrono::microseconds(200 * (n % 5)));
  if (c->allOk.load()) return 200;
  static const int kAnswers[] = {200, 500, -1, 200, 404};
  return kAnswers[n % 5];
}

TEST(TelemetryThreads, MixedCallsFromManyThreads) {
  inFreshProcess([] {
    Checker checker;
    const auto runFor = std::chrono::milliseconds(teltest::shortRun() ? 300 : 1500);
    constexpr int kThreads = 4;
    std::atomic<bool> stop{false};
    std::vector<long long> lastWritten(kThreads, -1);
    std::vector<std::string> faults[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        std::mt19937 rng(1234u + static_cast<unsigned>(t));
        const std::string key = "t" + std::to_string(t);
        const std::string odd = "q\"\\\n\x01\xc3\xa9" + std::to_string(t);
        long long counter = 0;
        while (!stop.load()) {
          switch (rng() % 8) {
            case 0:
            case 1:
            case 2:
              xj_tel_record(key.c_str(), static_cast<double>(counter));
              lastWritten[t] = counter++;
              break;
            case 3:
              xj_tel_record_str(odd.c_str(), (odd + std::to_string(counter)).c_str());
              break;
            case 4: {
              const int r = xj_tel_flush();
              if (r != 0 && r != -2 && r != -3) faults[t].push_back("flush gave " + std::to_string(r));
              break;
            }
            case 5: {
              const std::string text = xj_tel_pending_json();
              try {
                tjson::Value v = tjson::parse(text);
                const long long q = std::atoll(v.find("queued")->text.c_str());
                if (q < 0 || q > 256) faults[t].push_back("queued " + std::to_string(q));
              } catch (const std::exception& e) {
                faults[t].push_back(e.what());
              }
              break;
            }
            case 6:
              try {
                tjson::parse(xj::tel::snapshot_json());
              } catch (const std::exception& e) {
                faults[t].push_back(e.what());
              }
              break;
            case 7:
              // Swapping the transport while others deliver.
              if (rng() % 4 == 0) xj_tel_set_transport(nullptr, nullptr);
              else xj_tel_set_transport(checkingPost, &checker);
              break;
          }
        }
      });
    }
    std::this_thread::sleep_for(runFor);
    stop.store(true);
    for (auto& th : threads) th.join();

    for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(faults[t].empty()) << faults[t].front();
    EXPECT_TRUE(checker.faults.empty()) << checker.faults.front();
    EXPECT_GT(checker.calls.load(), 0);

    long long queued = -1;
    tjson::Value snap = teltest::pendingSnapshot(&queued);
    EXPECT_LE(queued, 256);
    const tjson::Value* ex = snap.find("extra");
    ASSERT_NE(ex, nullptr);
    for (int t = 0; t < kThreads; ++t) {
      if (lastWritten[t] < 0) continue;
      const tjson::Value* v = ex->find("t" + std::to_string(t));
      ASSERT_NE(v, nullptr);
      EXPECT_EQ(v->text, std::to_string(lastWritten[t])) << "the last write of thread " << t;
    }

    // Quiet again: one good delivery empties the queue.
    checker.allOk.store(true);
    xj_tel_set_transport(checkingPost, &checker);
    EXPECT_EQ(xj_tel_flush(), 0);
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 0);
    EXPECT_TRUE(checker.faults.empty()) << checker.faults.front();
  });
}

}  // namespace
