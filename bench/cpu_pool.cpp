// xj::pool::parallelRange against spawning and joining std::threads for every
// job, with the same cut and the same body. Run with XJ_CORE_THREADS=2.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <thread>
#include <vector>

#include "cpu/xj_pool.h"

namespace {

// A light per-item body, so the cost of starting a job shows.
void body(const float* in, float* out, size_t b, size_t e) {
  for (size_t i = b; i < e; ++i) out[i] = in[i] * 0.5f + 1.0f;
}

void spawnAndJoin(size_t n, size_t minPerPart, const float* in, float* out) {
  const int p = xj::pool::parts(n, minPerPart);
  const size_t chunk = (n + p - 1) / p;
  std::vector<std::thread> ts;
  ts.reserve(p);
  for (int i = 1; i < p; ++i) {
    const size_t b = i * chunk;
    if (b >= n) break;
    ts.emplace_back([=] { body(in, out, b, std::min(n, b + chunk)); });
  }
  body(in, out, 0, std::min(chunk, n));
  for (auto& t : ts) t.join();
}

void BM_pool_parallelRange(benchmark::State& s) {
  const size_t n = static_cast<size_t>(s.range(0));
  std::vector<float> in(n, 2.0f), out(n);
  const std::function<void(size_t, size_t)> f = [&](size_t b, size_t e) { body(in.data(), out.data(), b, e); };
  for (auto _ : s) {
    xj::pool::parallelRange(n, 0x1000, f);
    benchmark::DoNotOptimize(out.data());
  }
  s.counters["threads"] = xj::pool::threads();
  s.counters["parts"] = xj::pool::parts(n, 0x1000);
}

void BM_pool_spawnJoin(benchmark::State& s) {
  const size_t n = static_cast<size_t>(s.range(0));
  std::vector<float> in(n, 2.0f), out(n);
  for (auto _ : s) {
    spawnAndJoin(n, 0x1000, in.data(), out.data());
    benchmark::DoNotOptimize(out.data());
  }
  s.counters["threads"] = xj::pool::threads();
  s.counters["parts"] = xj::pool::parts(n, 0x1000);
}

BENCHMARK(BM_pool_parallelRange)->Arg(1 << 13)->Arg(1 << 16)->Arg(1 << 20)->UseRealTime();
BENCHMARK(BM_pool_spawnJoin)->Arg(1 << 13)->Arg(1 << 16)->Arg(1 << 20)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
