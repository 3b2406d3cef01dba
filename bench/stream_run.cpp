// Frames per second of the batch stream (render thread beside the caller's
// paste) against a serial render-then-paste loop over the same frames, on a
// generated bundle with a 256 crop and a 1280x720 canvas.
//
//   build/bench/xj_bench_stream_run
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "xj/xj.h"

namespace {

const std::string& bundle() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/xj_bench_stream.XXXXXX";
    const std::string d = std::string(mkdtemp(tmpl)) + "/b";
    const std::string cmd = std::string(XJ_PYTHON) + " " + XJ_SOURCE_DIR +
                            "/tools/bundlegen/bundlegen.py live --nt 25 --crop 256 --width 1280 --height 720 --out " + d;
    if (std::system(cmd.c_str()) != 0) std::abort();
    return d;
  }();
  return dir;
}

std::string encoder() {
  const std::string d = XJ_FIXTURES_DIR;
  const std::string cmd = std::string("test -f ") + d + "/w2v_only/w2v8.onnx || " + XJ_PYTHON + " " + XJ_SOURCE_DIR +
                          "/tools/bundlegen/bundlegen.py --out " + d + " >/dev/null";
  if (std::system(cmd.c_str()) != 0) std::abort();
  return d + "/w2v_only/w2v8.onnx";
}

std::vector<float> audio() {
  std::vector<float> a(16000 * 4);
  for (size_t i = 0; i < a.size(); ++i) a[i] = 0.3f * static_cast<float>(std::sin(i * 0.07) * std::sin(i * 0.0003));
  return a;
}

void BM_StreamRun(benchmark::State& st) {
  xj_stream* s = xj_stream_create(bundle().c_str(), encoder().c_str(), 1, 0, 1.0f);
  if (!s) {
    st.SkipWithError(xj_stream_last_error());
    return;
  }
  const auto a = audio();
  int frames = 0;
  for (auto _ : st) frames += xj_stream_run(s, a.data(), static_cast<int>(a.size()), nullptr, nullptr);
  st.counters["fps"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
  xj_stream_destroy(s);
}

// The same rows, rendered and pasted one after the other on one thread.
void BM_SerialRenderThenPaste(benchmark::State& st) {
  xj_ctx* h = xj_create(bundle().c_str(), "render", 1, "");
  xj_fca* f = xj_fca_create(encoder().c_str(), (bundle() + "/fca_stream.onnx").c_str(), 1);
  const auto a = audio();
  const int n = static_cast<int>(a.size()), T = (n + 639) / 640, NT = xj_nt(h);
  std::vector<float> deltas(static_cast<size_t>(T) * 63), xs(63, 0.0f), xd(63);
  std::vector<uint8_t> rgb(static_cast<size_t>(xj_width(h)) * xj_height(h) * 3);
  int frames = 0;
  for (auto _ : st) {
    xj_fca_deltas(f, a.data(), n, deltas.data(), T);
    for (int t = 0; t < T; ++t) {
      for (int j = 0; j < 63; ++j) xd[static_cast<size_t>(j)] = deltas[static_cast<size_t>(t) * 63 + j];
      const float* crop = xj_render_kp_crop(h, t % NT, xs.data(), xd.data());
      xj_paste_crop(h, t % NT, crop, rgb.data(), rgb.size());
      ++frames;
    }
  }
  st.counters["fps"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
  xj_fca_destroy(f);
  xj_destroy(h);
}

}  // namespace

BENCHMARK(BM_StreamRun)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_SerialRenderThenPaste)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK_MAIN();
