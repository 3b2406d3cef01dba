// The motion model with the test graphs: audio seconds served per compute
// second with eager passes off, every frame, and automatic; and the log-mel
// front end of one window against the student network's run on that window.
// Needs the fixtures: tools/bundlegen/bundlegen.py --out <build>/fixtures.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio/xj_motion.h"
#include "audio/xj_motion_mel.h"
#include "audio/xj_motion_net.h"
#include "xj/xj.h"

namespace {

std::string motionDir() {
  const char* e = std::getenv("XJ_FIXTURES_DIR");
  return std::string((e && *e) ? e : XJ_FIXTURES_DIR) + "/motion";
}

std::vector<float> voice(size_t n) {
  std::vector<float> out(n);
  const double pi = 3.14159265358979323846;
  for (size_t i = 0; i < n; ++i) {
    const double t = static_cast<double>(i) / 16000.0;
    const double env = 0.5 + 0.5 * std::sin(2.0 * pi * 3.0 * t);
    out[i] = static_cast<float>(0.2 * env * (std::sin(2.0 * pi * 140.0 * t) + 0.4 * std::sin(2.0 * pi * 420.0 * t)));
  }
  return out;
}

constexpr double kAudioSeconds = 8.0;

// One utterance as a live session drives it: 640 samples a push, everything
// ready pulled after each push, then finish and the rest.
void BM_HandleRealTime(benchmark::State& state) {
  const int eager = static_cast<int>(state.range(0));
  xj_motion* m = xj_motion_create(motionDir().c_str(), 1, nullptr);
  if (!m) {
    state.SkipWithError(xj_motion_last_error());
    return;
  }
  const auto audio = voice(static_cast<size_t>(kAudioSeconds * 16000));
  std::vector<int> rows(64);
  std::vector<float> xs(64 * 63), xd(64 * 63);
  long frames = 0;
  for (auto _ : state) {
    xj_motion_set_eager(m, eager);
    xj_motion_reset(m, 0, 1, 1);
    for (size_t at = 0; at < audio.size(); at += 640) {
      xj_motion_push(m, audio.data() + at, static_cast<int>(std::min<size_t>(640, audio.size() - at)));
      while (xj_motion_avail(m) > 0) frames += xj_motion_pull(m, rows.data(), xs.data(), xd.data(), 64);
    }
    xj_motion_finish(m);
    while (xj_motion_avail(m) > 0) frames += xj_motion_pull(m, rows.data(), xs.data(), xd.data(), 64);
  }
  state.counters["audio_s_per_s"] =
      benchmark::Counter(kAudioSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["frames"] = static_cast<double>(frames) / static_cast<double>(state.iterations());
  xj_motion_destroy(m);
}
BENCHMARK(BM_HandleRealTime)->Arg(0)->Arg(1)->Arg(-1)->ArgName("eager")->Unit(benchmark::kMillisecond);

// The front end of one window: reflection, 21 FFTs of 512 points, the mel matrix, the log.
void BM_FrontEndWindow(benchmark::State& state) {
  namespace xm = xj::motion;
  const auto window = xm::readFloats(motionDir() + "/hubert_stft_window.bin", xm::kFftSize);
  const auto binmat = xm::readFloats(motionDir() + "/hubert_stft_binmat.bin", xm::kFftBins * xm::kMelBins);
  const auto audio = voice(xm::kWindowSamples);
  const xm::FftTwiddles tw;
  std::vector<float> mel(xm::kMelSize);
  for (auto _ : state) {
    xm::logMel(audio.data(), window.data(), binmat.data(), tw, mel.data());
    benchmark::DoNotOptimize(mel.data());
  }
}
BENCHMARK(BM_FrontEndWindow)->Unit(benchmark::kMicrosecond);

// The graph run of one window: the student network on its mel, bound once.
void BM_StudentRunWindow(benchmark::State& state) {
  namespace xm = xj::motion;
  xm::Net net;
  Ort::Env env{nullptr};
  try {
    xj::ortInit();
    env = Ort::Env(ORT_LOGGING_LEVEL_WARNING, "bench");
    net.open(env, motionDir() + "/hubert_student.onnx", 1, "", "");
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  std::vector<float> mel(xm::kMelSize, -3.0f), feat(xm::kStudentRows * xm::kAudioDim);
  const float* in[] = {mel.data()};
  const size_t sz[] = {mel.size()};
  const int64_t shape[] = {1, xm::kStudentRows, xm::kAudioDim};
  for (auto _ : state) net.run(in, sz, feat.data(), feat.size(), shape, 3);
}
BENCHMARK(BM_StudentRunWindow)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
