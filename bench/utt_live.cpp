// The live session on a generated bundle (256 crop, 1280x720 canvas, a2x
// model): frames per second while the host pulls as fast as it can, in
// speech and in idle, with the paste on its own thread against inline, and
// the first-frame latency of an utterance.
//
//   XJ_UTT_STAGE_REPORT=1 build/bench/xj_bench_utt_live
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "xj/xj.h"

namespace {

const std::string& bundle() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/xj_bench_utt.XXXXXX";
    const std::string d = std::string(mkdtemp(tmpl)) + "/b";
    const std::string gen = std::string(XJ_PYTHON) + " " + XJ_SOURCE_DIR + "/tools/bundlegen/bundlegen.py";
    const std::string cmd = gen + " live --nt 25 --crop 256 --width 1280 --height 720 --out " + d + " && (test -f " +
                            XJ_FIXTURES_DIR + "/w2v_pair/w2v8.onnx || " + gen + " --out " + XJ_FIXTURES_DIR +
                            " >/dev/null)";
    if (std::system(cmd.c_str()) != 0) std::abort();
    setenv("W2V_ONNX", (std::string(XJ_FIXTURES_DIR) + "/w2v_pair/w2v8.onnx").c_str(), 1);
    return d;
  }();
  return dir;
}

std::vector<int16_t> speech(int n) {
  std::vector<int16_t> a(static_cast<size_t>(n));
  double ph = 0;
  for (int i = 0; i < n; ++i) {
    ph += 2 * M_PI * (170 + 40 * std::sin(i / 5000.0)) / 16000.0;
    a[static_cast<size_t>(i)] = static_cast<int16_t>(10000 * std::max(0.0, std::sin(i / 3000.0)) * std::sin(ph));
  }
  return a;
}

struct Live {
  xj_ctx* ctx;
  xj_utt* u;
  std::vector<uint8_t> rgb;
  explicit Live(int pipe) {
    setenv("XJ_UTT_PIPELINE_PASTE", pipe ? "1" : "0", 1);
    ctx = xj_create(bundle().c_str(), "b1", 0, "");
    xj_utt_opts o{};
    o.motion_dir = bundle().c_str();
    o.steady_model = "b4";
    u = xj_utt_create(ctx, &o);
    while (xj_utt_ready(u) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    rgb.resize(static_cast<size_t>(xj_width(ctx)) * xj_height(ctx) * 3);
  }
  ~Live() {
    xj_utt_destroy(u);
    xj_destroy(ctx);
  }
  xj_utt_frame_info pull() {
    xj_utt_frame_info info{};
    while (xj_utt_pull_frame(u, rgb.data(), rgb.size(), &info) != 1) std::this_thread::yield();
    return info;
  }
};

// 10 s of speech pushed at once, then every speech frame pulled as fast as it comes.
void BM_Speech(benchmark::State& st) {
  Live l(static_cast<int>(st.range(0)));
  const auto a = speech(16000 * 10);
  double firstMs = 0;
  long frames = 0;
  for (auto _ : st) {
    xj_utt_push_audio(l.u, a.data(), static_cast<int>(a.size()));
    xj_utt_end_utterance(l.u);
    int speechFrames = 0;
    while (speechFrames < 250) speechFrames += l.pull().kind == 1;
    frames += speechFrames;
    xj_utt_stats s;
    xj_utt_get_stats(l.u, &s);
    firstMs += s.first_frame_ms;
    while (l.pull().kind != 0) {
    }
  }
  st.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
  st.counters["first_frame_ms"] = firstMs / static_cast<double>(st.iterations());
}

void BM_Idle(benchmark::State& st) {
  Live l(static_cast<int>(st.range(0)));
  long frames = 0;
  for (auto _ : st) {
    for (int k = 0; k < 100; ++k) l.pull();
    frames += 100;
  }
  st.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_Speech)->Arg(1)->Arg(0)->ArgName("pipe")->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_Idle)->Arg(1)->Arg(0)->ArgName("pipe")->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
BENCHMARK_MAIN();
