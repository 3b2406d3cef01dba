// Time per frame of the crop-to-canvas paste: a 512 x 512 crop onto a 1920 x
// 1080 canvas at 2 threads, in its three interpolation modes, against the same
// job done with OpenCV: a Gaussian unsharp mask (reflect-101 border), a
// Lanczos-4 warpAffine of the crop and of the mask into the box the crop
// reaches, and the alpha blend onto the canvas.
//
//   build/bench/xj_bench_paste_composite
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "cpu/xj_pool.h"
#include "paste/xj_paste.h"

namespace {

constexpr int kSide = 512;
constexpr int kW = 1920;
constexpr int kH = 1080;
constexpr float kAmount = 1.3f;
constexpr float kSigma = 2.0f;
constexpr int kKsize = 13;

struct Job {
  std::vector<float> crop;    // planes R, G, B on 0..1
  std::vector<uint8_t> mask;  // soft disc
  std::vector<uint8_t> canvas;
  float M[6];

  Job() : crop(size_t(kSide) * kSide * 3), mask(size_t(kSide) * kSide), canvas(size_t(kW) * kH * 3) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (size_t i = 0; i < crop.size(); ++i) crop[i] = 0.6f * u(rng) + 0.2f * std::sin(0.01f * float(i % 4099));
    const double c = (kSide - 1) / 2.0;
    for (int y = 0; y < kSide; ++y) {
      for (int x = 0; x < kSide; ++x) {
        const double v = std::clamp((0.48 * kSide - std::hypot(x - c, y - c)) / 24.0, 0.0, 1.0);
        mask[size_t(y) * kSide + x] = uint8_t(std::lround(255 * v));
      }
    }
    for (size_t i = 0; i < canvas.size(); ++i) canvas[i] = uint8_t((i * 7) >> 4);
    // A face-sized crop slightly enlarged and tilted, as a driver frame's M is.
    const double s = 1.07, t = 0.06;
    M[0] = float(s * std::cos(t));
    M[1] = float(-s * std::sin(t));
    M[3] = float(s * std::sin(t));
    M[4] = float(s * std::cos(t));
    M[2] = float(960 - (M[0] + M[1]) * kSide / 2.0);
    M[5] = float(420 - (M[3] + M[4]) * kSide / 2.0);
  }
};

const Job& job() {
  static const Job j;
  return j;
}

void BM_Paste(benchmark::State& st) {
  const Job& j = job();
  const std::string mode = std::to_string(st.range(0));
  setenv("XJ_PASTE_FAST", mode.c_str(), 1);
  xj::Paste p(j.mask, kSide, xj::Unsharp{kAmount, kSigma, kKsize});
  unsetenv("XJ_PASTE_FAST");
  std::vector<uint8_t> canvas = j.canvas;
  for (auto _ : st) {
    std::memcpy(canvas.data(), j.canvas.data(), canvas.size());
    p.composite(j.crop.data(), 255.0f, j.M, canvas.data(), kW, kH);
    benchmark::DoNotOptimize(canvas.data());
  }
  st.counters["threads"] = xj::pool::threads();
}

// The same frame the way an OpenCV program writes it, restricted to the box
// the crop reaches so that neither side warps empty canvas.
void BM_OpenCV(benchmark::State& st) {
  const Job& j = job();
  cv::setNumThreads(2);
  const float lo = -4.0f, hi = float(kSide + 3);
  float xs[4], ys[4];
  const float cx[4] = {lo, hi, lo, hi}, cy[4] = {lo, lo, hi, hi};
  for (int i = 0; i < 4; ++i) {
    xs[i] = j.M[0] * cx[i] + j.M[1] * cy[i] + j.M[2];
    ys[i] = j.M[3] * cx[i] + j.M[4] * cy[i] + j.M[5];
  }
  const int x0 = std::max(0, int(std::floor(*std::min_element(xs, xs + 4))));
  const int x1 = std::min(kW - 1, int(std::ceil(*std::max_element(xs, xs + 4))));
  const int y0 = std::max(0, int(std::floor(*std::min_element(ys, ys + 4))));
  const int y1 = std::min(kH - 1, int(std::ceil(*std::max_element(ys, ys + 4))));
  const cv::Rect box(x0, y0, x1 - x0 + 1, y1 - y0 + 1);
  const cv::Mat toBox = (cv::Mat_<double>(2, 3) << j.M[0], j.M[1], j.M[2] - x0, j.M[3], j.M[4], j.M[5] - y0);

  std::vector<uint8_t> canvasBytes = j.canvas;
  cv::Mat canvas(kH, kW, CV_8UC3, canvasBytes.data());
  const cv::Mat mask(kSide, kSide, CV_8UC1, const_cast<uint8_t*>(j.mask.data()));
  cv::Mat planes[3], merged, blur, sharp, warped, warpedMask, alpha, alpha3, base, one3;
  for (auto _ : st) {
    std::memcpy(canvasBytes.data(), j.canvas.data(), canvasBytes.size());
    for (int c = 0; c < 3; ++c) {
      cv::Mat(kSide, kSide, CV_32FC1, const_cast<float*>(j.crop.data()) + size_t(c) * kSide * kSide)
          .convertTo(planes[c], CV_32F, 255.0);
    }
    cv::merge(planes, 3, merged);
    cv::GaussianBlur(merged, blur, cv::Size(kKsize, kKsize), kSigma, kSigma, cv::BORDER_REFLECT_101);
    cv::addWeighted(merged, 1.0 + kAmount, blur, -kAmount, 0.0, sharp);
    cv::min(sharp, 255.0, sharp);
    cv::max(sharp, 0.0, sharp);
    cv::warpAffine(sharp, warped, toBox, box.size(), cv::INTER_LANCZOS4, cv::BORDER_CONSTANT, cv::Scalar::all(0));
    cv::warpAffine(mask, warpedMask, toBox, box.size(), cv::INTER_LANCZOS4, cv::BORDER_CONSTANT, cv::Scalar(0));
    warpedMask.convertTo(alpha, CV_32F, 1.0 / 255.0);
    cv::Mat a3[3] = {alpha, alpha, alpha};
    cv::merge(a3, 3, alpha3);
    canvas(box).convertTo(base, CV_32FC3);
    cv::subtract(cv::Scalar::all(1.0), alpha3, one3);
    base = base.mul(one3) + warped.mul(alpha3);
    base.convertTo(canvas(box), CV_8UC3);
    benchmark::DoNotOptimize(canvasBytes.data());
  }
  st.counters["threads"] = cv::getNumThreads();
}

BENCHMARK(BM_Paste)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OpenCV)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // The pool's width is fixed at its first use: two threads, as the comparison says.
  setenv("XJ_CORE_THREADS", "2", 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
