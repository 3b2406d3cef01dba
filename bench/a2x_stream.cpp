// The a2x handle with the generated test graphs: the real-time factor of the
// whole handle (audio seconds per second of work) and how its time divides
// between the graph runs and the library's own work around them.
//
//   build/bench/xj_bench_a2x_stream                  (short-window pair)
//   XJ_BENCH_W2V=only build/bench/xj_bench_a2x_stream (8 s window alone)
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio/xj_a2x.h"

namespace {

std::string fixtures() {
  static const std::string dir = [] {
    const std::string d = XJ_FIXTURES_DIR;
    const std::string cmd = std::string("test -d ") + d + "/a2x || " + XJ_PYTHON + " " + XJ_SOURCE_DIR +
                            "/tools/bundlegen/bundlegen.py --out " + d + " >/dev/null";
    if (std::system(cmd.c_str()) != 0) std::abort();
    return d;
  }();
  return dir;
}

std::vector<float> speech(int n) {
  std::vector<float> a(static_cast<size_t>(n));
  double ph = 0;
  for (int i = 0; i < n; ++i) {
    const double t = i / 16000.0;
    ph += 2 * M_PI * (180 + 60 * std::sin(2 * M_PI * 2.1 * t)) / 16000.0;
    a[static_cast<size_t>(i)] = static_cast<float>(std::max(0.0, std::sin(2 * M_PI * 1.3 * t)) * 0.6 * std::sin(ph));
  }
  return a;
}

// 30 s of audio pushed in 20 ms steps, everything pulled as it comes.
void BM_A2xLive(benchmark::State& st) {
  const char* mode = std::getenv("XJ_BENCH_W2V");
  const std::string w2v = fixtures() + "/w2v_" + (mode ? mode : "pair") + "/w2v8.onnx";
  setenv("W2V_ONNX", w2v.c_str(), 1);
  xj_a2x* h = xj_a2x_create((fixtures() + "/a2x").c_str(), 1);
  if (!h) {
    st.SkipWithError(xj_a2x_last_error());
    return;
  }
  const std::vector<float> audio = speech(16000 * 30);
  int32_t rows[32];
  std::vector<float> xs(32 * 63), xd(32 * 63);
  double wallS = 0, graphS = 0;
  for (auto _ : st) {
    xj_a2x_reset(h, 0, 1, 1);
    h->graph_ns = 0;
    const auto t0 = std::chrono::steady_clock::now();
    for (size_t s = 0; s < audio.size(); s += 320) {
      xj_a2x_push(h, audio.data() + s, 320);
      while (xj_a2x_avail(h) > 0 && xj_a2x_pull(h, rows, xs.data(), xd.data(), 32) > 0) {
      }
    }
    xj_a2x_finish(h);
    while (xj_a2x_avail(h) > 0 && xj_a2x_pull(h, rows, xs.data(), xd.data(), 32) > 0) {
    }
    wallS += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    graphS += h->graph_ns * 1e-9;
  }
  const double iters = static_cast<double>(st.iterations());
  st.counters["realtime_x"] = 30.0 * iters / wallS;
  st.counters["graph_ms_per_audio_s"] = 1000.0 * graphS / (30.0 * iters);
  st.counters["own_ms_per_audio_s"] = 1000.0 * (wallS - graphS) / (30.0 * iters);
  st.counters["graph_over_own"] = graphS / (wallS - graphS);
  xj_a2x_destroy(h);
}

}  // namespace

BENCHMARK(BM_A2xLive)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_MAIN();
