#include "cpu/xj_pool.h"

#include <pthread.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace xj::pool {
namespace {

int computeThreads() {
  const char* v = std::getenv("XJ_CORE_THREADS");
  if (!v || !*v) v = std::getenv("XJ_PASTE_THREADS");
  long req = 4;
  if (v && *v) {
    req = std::strtol(v, nullptr, 10);
    if (req <= 0) req = 1;
  }
  const unsigned hw = std::thread::hardware_concurrency();
  if (hw > 0 && req > static_cast<long>(hw)) req = hw;
  return static_cast<int>(std::min<long>(req, INT_MAX));
}

// One per calling thread. Workers sleep on `wake` between jobs and every one of
// them reports each job, with or without a chunk, so `pending` counts them all.
struct Pool {
  int n = 1;
  std::vector<std::thread> workers;
  std::mutex mu;
  std::condition_variable wake;
  std::condition_variable done;
  const std::function<void(size_t, size_t)>* fn = nullptr;
  size_t total = 0;
  int parts = 1;
  int pending = 0;
  uint64_t generation = 0;
  bool stop = false;

  Pool() : n(threads()) {
    for (int i = 1; i < std::max(n, 1); ++i) workers.emplace_back([this, i] { run(i); });
  }

  ~Pool() {
    {
      std::lock_guard<std::mutex> lk(mu);
      stop = true;
      ++generation;
    }
    wake.notify_all();
    for (auto& w : workers) w.join();
  }

  void run(int i) {
    uint64_t seen = 0;
    for (;;) {
      std::unique_lock<std::mutex> lk(mu);
      wake.wait(lk, [&] { return generation != seen; });
      seen = generation;
      if (stop) return;
      const auto* body = fn;
      const size_t tot = total;
      const int p = parts;
      lk.unlock();
      if (i < p) {
        const size_t chunk = (tot + p - 1) / p;
        const size_t begin = static_cast<size_t>(i) * chunk;
        if (begin < tot) (*body)(begin, std::min(begin + chunk, tot));
      }
      lk.lock();
      if (--pending == 0) done.notify_all();
    }
  }
};

thread_local std::unique_ptr<Pool> tPool;  // destroyed, and its workers joined, at thread exit
thread_local bool inParallel = false;

// A forked child has only the forking thread: that thread's Pool names workers
// that do not exist there. The child drops it unjoined and builds a new one on
// its next parallel job.
void forgetPoolInChild() {
  (void)tPool.release();
  inParallel = false;
}

void registerForkHandler() {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(nullptr, nullptr, forgetPoolInChild); });
}

}  // namespace

int threads() {
  static const int t = computeThreads();
  return t;
}

bool available() { return true; }

int parts(size_t n, size_t minPerPart) {
  const int t = threads();
  if (t <= 1) return 1;
  const size_t g = minPerPart == 0 ? 1 : minPerPart;
  const size_t q = n / g;
  if (q <= 1) return 1;
  return static_cast<int>(std::min<size_t>(q, static_cast<size_t>(t)));
}

void parallelRange(size_t n, size_t minPerPart, const std::function<void(size_t, size_t)>& body) {
  if (inParallel) {
    body(0, n);
    return;
  }
  const int p = parts(n, minPerPart);
  if (p < 2) {
    body(0, n);
    return;
  }
  // An empty body must fail on the caller, as the serial paths do, and not in
  // a worker where nothing could catch it.
  if (!body) throw std::bad_function_call();
  if (!tPool) {
    registerForkHandler();
    tPool = std::make_unique<Pool>();
  }
  Pool& pool = *tPool;
  inParallel = true;
  {
    std::lock_guard<std::mutex> lk(pool.mu);
    pool.fn = &body;
    pool.total = n;
    pool.parts = p;
    pool.pending = static_cast<int>(pool.workers.size());
    ++pool.generation;
  }
  pool.wake.notify_all();
  const size_t chunk = (n + p - 1) / p;
  body(0, std::min(chunk, n));
  {
    std::unique_lock<std::mutex> lk(pool.mu);
    pool.done.wait(lk, [&] { return pool.pending == 0; });
    pool.fn = nullptr;
  }
  inParallel = false;
}

}  // namespace xj::pool
