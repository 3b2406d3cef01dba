// Flush: results, the queue across deliveries, the cap of 256, and what the
// host's POST function is given.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tel_testutil.h"
#include "xj/xj.h"

namespace {

using teltest::inFreshProcess;

constexpr int kNoTransport = INT_MIN;

struct Call {
  void* user;
  std::string path;
  std::string body;
  size_t cap;
  bool responseZeroed;
};

// A POST function that answers from a script and keeps what it was given.
struct Scripted {
  std::mutex mu;
  std::vector<int> answers;
  size_t next = 0;
  std::vector<Call> calls;
};

int scriptedPost(void* user, const char* path, const char* body, char* response, size_t cap) {
  auto* s = static_cast<Scripted*>(user);
  bool zeroed = std::all_of(response, response + cap, [](char c) { return c == 0; });
  // A reply the flush must ignore; the next call must get a clean buffer again.
  std::snprintf(response, cap, "{\"ok\":false}");
  std::lock_guard<std::mutex> lock(s->mu);
  s->calls.push_back({user, path, body, cap, zeroed});
  return s->next < s->answers.size() ? s->answers[s->next++] : 500;
}

// The "seq" numbers of the snapshots in a POST body, checking it on the way.
std::vector<long long> batchSeqs(const std::string& body, long long tsLow) {
  std::vector<long long> seqs;
  tjson::Value v;
  try {
    v = tjson::parse(body);
  } catch (const std::exception& e) {
    ADD_FAILURE() << e.what() << " in body " << body.substr(0, 400);
    return seqs;
  }
  EXPECT_EQ(v.keys(), std::vector<std::string>{"batch"});
  const tjson::Value* batch = v.find("batch");
  if (!batch || batch->kind != tjson::Value::Kind::Array) {
    ADD_FAILURE() << "no batch array";
    return seqs;
  }
  const long long tsHigh = static_cast<long long>(std::time(nullptr));
  for (const tjson::Value& snap : batch->items) {
    teltest::checkFixedMembers(snap, tsLow, tsHigh);
    const tjson::Value* ex = snap.find("extra");
    const tjson::Value* seq = ex ? ex->find("seq") : nullptr;
    seqs.push_back(seq ? std::atoll(seq->text.c_str()) : -1);
  }
  return seqs;
}

struct FlushRow {
  const char* name;
  std::vector<int> answers;  // per flush: the transport's status, or kNoTransport
  std::vector<int> results;
  std::vector<long long> queuedAfter;
};

const FlushRow kRows[] = {
    {"no transport", {kNoTransport, kNoTransport, kNoTransport}, {-2, -2, -2}, {1, 2, 3}},
    {"request could not be made", {-1, -7, -1}, {-2, -2, -2}, {1, 2, 3}},
    {"other statuses", {500, 404, 201}, {-3, -3, -3}, {1, 2, 3}},
    {"status zero is no 200", {0}, {-3}, {1}},
    {"every delivery succeeds", {200, 200, 200}, {0, 0, 0}, {0, 0, 0}},
    {"failures pile up until one delivery takes all",
     {kNoTransport, 500, -1, 200, 503, 200},
     {-2, -3, -2, 0, -3, 0},
     {1, 2, 3, 0, 1, 0}},
};

TEST(TelemetryFlush, ResultsQueueAndBatches) {
  for (const FlushRow& row : kRows) {
    SCOPED_TRACE(row.name);
    inFreshProcess([&row] {
      const long long tsLow = static_cast<long long>(std::time(nullptr));
      Scripted s;
      std::vector<long long> model;  // seqs that should be waiting, oldest first
      for (size_t i = 0; i < row.answers.size(); ++i) {
        SCOPED_TRACE("flush " + std::to_string(i));
        const bool installed = row.answers[i] != kNoTransport;
        s.answers = {row.answers[i]};
        s.next = 0;
        s.calls.clear();
        // Installing, then removing, must leave nothing behind.
        xj_tel_set_transport(scriptedPost, &s);
        if (!installed) xj_tel_set_transport(nullptr, &s);
        xj_tel_record("seq", static_cast<double>(i));
        model.push_back(static_cast<long long>(i));

        EXPECT_EQ(xj_tel_flush(), row.results[i]);

        ASSERT_EQ(s.calls.size(), installed ? 1u : 0u);
        if (installed) {
          const Call& c = s.calls[0];
          EXPECT_EQ(c.user, &s);
          EXPECT_EQ(c.path, "/v1/telemetry/ingest");
          EXPECT_EQ(c.cap, 65536u);
          EXPECT_TRUE(c.responseZeroed);
          EXPECT_EQ(batchSeqs(c.body, tsLow), model);
        }
        if (row.results[i] == 0) model.clear();
        long long queued = -1;
        teltest::pendingSnapshot(&queued);
        EXPECT_EQ(queued, row.queuedAfter[i]);
        EXPECT_EQ(queued, static_cast<long long>(model.size()));
      }
    });
  }
}

TEST(TelemetryFlush, QueueKeepsTheNewest256) {
  inFreshProcess([] {
    const long long tsLow = static_cast<long long>(std::time(nullptr));
    long long queued = -1;
    for (int i = 1; i <= 256; ++i) {
      xj_tel_record("seq", i);
      ASSERT_EQ(xj_tel_flush(), -2);
    }
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 256);
    xj_tel_record("seq", 257);
    EXPECT_EQ(xj_tel_flush(), -2);  // the 257th failure drops the first snapshot
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 256);

    Scripted s;
    s.answers = {500, 200};
    xj_tel_set_transport(scriptedPost, &s);
    xj_tel_record("seq", 258);
    EXPECT_EQ(xj_tel_flush(), -3);
    xj_tel_record("seq", 259);
    EXPECT_EQ(xj_tel_flush(), 0);
    ASSERT_EQ(s.calls.size(), 2u);
    std::vector<long long> want;
    for (long long q = 3; q <= 258; ++q) want.push_back(q);
    EXPECT_EQ(batchSeqs(s.calls[0].body, tsLow), want);
    want.erase(want.begin());
    want.push_back(259);
    EXPECT_EQ(batchSeqs(s.calls[1].body, tsLow), want);
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 0);
  });
}

// A POST function that uses the store itself, from inside the delivery.
int reentrantPost(void* user, const char* path, const char* body, char* response, size_t cap) {
  int* depth = static_cast<int*>(user);
  xj_tel_record("inside", *depth);
  xj_tel_record_str("inside_str", "yes");
  const std::string pending = xj_tel_pending_json();
  if (pending.find("\"inside_str\":\"yes\"") == std::string::npos) return -1;
  if (*depth == 0) {
    ++*depth;
    // A nested flush queues one more snapshot and delivers it at once.
    if (xj_tel_flush() != 0) return -1;
  }
  return 200;
}

TEST(TelemetryFlush, TransportMayUseTheStore) {
  inFreshProcess([] {
    int depth = 0;
    xj_tel_set_transport(reentrantPost, &depth);
    EXPECT_EQ(xj_tel_flush(), 0);
    EXPECT_EQ(depth, 1);
    long long queued = -1;
    tjson::Value snap = teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 0);
    const tjson::Value* ex = snap.find("extra");
    ASSERT_NE(ex, nullptr);
    ASSERT_NE(ex->find("inside"), nullptr);
    EXPECT_EQ(ex->find("inside")->text, "1");
  });
}

// The first call waits until released and answers 200; later ones answer 500.
struct Gate {
  std::mutex mu;
  std::condition_variable cv;
  int entered = 0;
  bool open = false;
};

int gatedPost(void* user, const char* path, const char* body, char* response, size_t cap) {
  auto* g = static_cast<Gate*>(user);
  std::unique_lock<std::mutex> lock(g->mu);
  const int me = g->entered++;
  g->cv.notify_all();
  if (me > 0) return 500;
  g->cv.wait(lock, [g] { return g->open; });
  return 200;
}

TEST(TelemetryFlush, SuccessEmptiesWhatOtherFlushesQueuedMeanwhile) {
  inFreshProcess([] {
    Gate g;
    xj_tel_set_transport(gatedPost, &g);
    int slowResult = 1;
    std::thread slow([&slowResult] { slowResult = xj_tel_flush(); });
    {
      std::unique_lock<std::mutex> lock(g.mu);
      ASSERT_TRUE(g.cv.wait_for(lock, std::chrono::seconds(10), [&g] { return g.entered == 1; }));
    }
    // While the first delivery hangs, a second flush queues and is refused.
    EXPECT_EQ(xj_tel_flush(), -3);
    long long queued = -1;
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 2);
    {
      std::lock_guard<std::mutex> lock(g.mu);
      g.open = true;
    }
    g.cv.notify_all();
    slow.join();
    EXPECT_EQ(slowResult, 0);
    teltest::pendingSnapshot(&queued);
    EXPECT_EQ(queued, 0) << "the 200 of the first delivery also takes the second snapshot";
  });
}

}  // namespace
