// xj::simd kernels against plain scalar loops built with the same flags, and the
// YUV row kernel over a full HD frame against libswscale's YUV420P -> RGB24.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "cpu/xj_simd.h"
#include "cpu/xj_yuv2rgb_simd.h"

namespace {

// ---- plain scalar loops: the obvious code, one element at a time ----------

uint16_t plainHalf(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  const uint32_t sign = (b >> 16) & 0x8000u;
  const uint32_t x = b & 0x7FFFFFFFu;
  if (x > 0x7F800000u) return static_cast<uint16_t>(sign | 0x7E00u | ((x >> 13) & 0x3FFu));
  if (x >= 0x477FF000u) return static_cast<uint16_t>(sign | 0x7C00u);
  if (x < 0x33000001u) return static_cast<uint16_t>(sign);
  const int e = static_cast<int>(x >> 23) - 127;
  uint32_t m = (x & 0x7FFFFFu) | 0x800000u;
  const int shift = e < -14 ? 13 + (-14 - e) : 13;
  const uint32_t q = m >> shift;
  const uint32_t rem = m & ((1u << shift) - 1);
  const uint32_t half = 1u << (shift - 1);
  const uint32_t r = q + (rem > half || (rem == half && (q & 1)));
  const uint32_t bits = e < -14 ? r : ((static_cast<uint32_t>(e + 15) << 10) + r - 0x400u);
  return static_cast<uint16_t>(sign | bits);
}

float plainFloat(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000u) << 16;
  const uint32_t e = (h >> 10) & 0x1F, m = h & 0x3FF;
  uint32_t bits;
  if (e == 0) {
    const float f = std::ldexp(static_cast<float>(m), -24);
    std::memcpy(&bits, &f, 4);
  } else if (e == 31) {
    bits = m ? 0x7FC00000u | (m << 13) : 0x7F800000u;
  } else {
    bits = ((e + 112) << 23) | (m << 13);
  }
  bits |= sign;
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

float plainR16(float f) { return plainFloat(plainHalf(f)); }

float plainMean(const uint16_t* a, const uint16_t* b, size_t n, size_t i) {
  float acc = 0;
  for (size_t c = 0; c < 3; ++c) acc += std::fabs(plainR16(plainFloat(a[c * n + i]) - plainFloat(b[c * n + i])));
  return plainR16(acc / 3.0f);
}

void plainConv(const float* in, int Cin, int H, int W, const float* w, const float* bias, int Cout, float* out) {
  for (int co = 0; co < Cout; ++co) {
    for (int y = 0; y < H; ++y) {
      for (int x = 0; x < W; ++x) {
        float acc = 0;
        for (int dy = 0; dy < 3; ++dy) {
          const int sy = y + dy - 1;
          if (sy < 0 || sy >= H) continue;
          for (int dx = 0; dx < 3; ++dx) {
            const int sx = x + dx - 1;
            if (sx < 0 || sx >= W) continue;
            for (int ci = 0; ci < Cin; ++ci) acc += in[(ci * H + sy) * W + sx] * w[((co * Cin + ci) * 3 + dy) * 3 + dx];
          }
        }
        out[(co * H + y) * W + x] = bias[co] + acc;
      }
    }
  }
}

void plainYuvRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, int width, uint8_t* rgb) {
  auto clamp = [](int t) { return static_cast<uint8_t>(t < 0 ? 0 : t > 255 ? 255 : t); };
  for (int x = 0; x < width; ++x) {
    const int c = 298 * y[x] - 4640, d = u[x >> 1] - 128, e = v[x >> 1] - 128;
    rgb[3 * x] = clamp((c + 409 * e) >> 8);
    rgb[3 * x + 1] = clamp((c - 100 * d - 208 * e) >> 8);
    rgb[3 * x + 2] = clamp((c + 516 * d) >> 8);
  }
}

// ---- data ------------------------------------------------------------------

constexpr size_t kN = 4096;

std::vector<float> randomFloats(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<float> v(n);
  for (auto& f : v) f = std::ldexp(static_cast<float>(static_cast<int>(rng() % 20001) - 10000), -10);
  return v;
}

std::vector<uint16_t> randomHalves(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint16_t> v(n);
  for (auto& h : v) h = static_cast<uint16_t>(rng() % 0x7800);
  return v;
}

template <class F>
void run(benchmark::State& state, size_t items, F&& f) {
  for (auto _ : state) f();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * items));
}

void BM_f32ToF16_simd(benchmark::State& s) {
  auto in = randomFloats(kN, 1);
  std::vector<uint16_t> out(kN);
  run(s, kN, [&] { xj::simd::f32ToF16(in.data(), out.data(), kN); benchmark::DoNotOptimize(out.data()); });
}
void BM_f32ToF16_scalar(benchmark::State& s) {
  auto in = randomFloats(kN, 1);
  std::vector<uint16_t> out(kN);
  run(s, kN, [&] { for (size_t i = 0; i < kN; ++i) out[i] = plainHalf(in[i]); benchmark::DoNotOptimize(out.data()); });
}
void BM_f16ToF32_simd(benchmark::State& s) {
  auto in = randomHalves(kN, 2);
  std::vector<float> out(kN);
  run(s, kN, [&] { xj::simd::f16ToF32(in.data(), out.data(), kN); benchmark::DoNotOptimize(out.data()); });
}
void BM_f16ToF32_scalar(benchmark::State& s) {
  auto in = randomHalves(kN, 2);
  std::vector<float> out(kN);
  run(s, kN, [&] { for (size_t i = 0; i < kN; ++i) out[i] = plainFloat(in[i]); benchmark::DoNotOptimize(out.data()); });
}
void BM_roundF16Mul_simd(benchmark::State& s) {
  auto a = randomFloats(kN, 3), b = randomFloats(kN, 4);
  std::vector<float> out(kN);
  run(s, kN, [&] { xj::simd::roundF16Mul(a.data(), b.data(), out.data(), kN); benchmark::DoNotOptimize(out.data()); });
}
void BM_roundF16Mul_scalar(benchmark::State& s) {
  auto a = randomFloats(kN, 3), b = randomFloats(kN, 4);
  std::vector<float> out(kN);
  run(s, kN, [&] { for (size_t i = 0; i < kN; ++i) out[i] = b[i] * plainR16(a[i]); benchmark::DoNotOptimize(out.data()); });
}
void BM_rgb8ToPlanarF16_simd(benchmark::State& s) {
  std::vector<uint8_t> rgb(3 * kN);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 31);
  std::vector<uint16_t> out(3 * kN);
  run(s, kN, [&] { xj::simd::rgb8ToPlanarF16(rgb.data(), out.data(), kN, kN); benchmark::DoNotOptimize(out.data()); });
}
void BM_rgb8ToPlanarF16_scalar(benchmark::State& s) {
  std::vector<uint8_t> rgb(3 * kN);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 31);
  std::vector<uint16_t> out(3 * kN);
  run(s, kN, [&] {
    for (size_t i = 0; i < kN; ++i)
      for (size_t c = 0; c < 3; ++c) out[c * kN + i] = plainHalf(static_cast<float>(rgb[3 * i + c]) / 255.0f);
    benchmark::DoNotOptimize(out.data());
  });
}
void BM_retrieveTermPooled_simd(benchmark::State& s) {
  auto a = randomHalves(3 * kN, 5), b = randomHalves(3 * kN, 6), w = randomHalves(kN, 7);
  run(s, kN, [&] { benchmark::DoNotOptimize(xj::simd::retrieveTermPooled(a.data(), b.data(), w.data(), kN)); });
}
void BM_retrieveTermPooled_scalar(benchmark::State& s) {
  auto a = randomHalves(3 * kN, 5), b = randomHalves(3 * kN, 6), w = randomHalves(kN, 7);
  run(s, kN, [&] {
    float sum = 0;
    for (size_t i = 0; i < kN; ++i) sum += plainR16(plainFloat(w[i]) * plainMean(a.data(), b.data(), kN, i));
    benchmark::DoNotOptimize(sum);
  });
}
void BM_retrieveTermExact_simd(benchmark::State& s) {
  auto a = randomHalves(3 * kN, 5), b = randomHalves(3 * kN, 6);
  auto w = randomFloats(kN, 8);
  run(s, kN, [&] { benchmark::DoNotOptimize(xj::simd::retrieveTermExact(a.data(), b.data(), w.data(), kN)); });
}
void BM_retrieveTermExact_scalar(benchmark::State& s) {
  auto a = randomHalves(3 * kN, 5), b = randomHalves(3 * kN, 6);
  auto w = randomFloats(kN, 8);
  run(s, kN, [&] {
    float sum = 0;
    for (size_t i = 0; i < kN; ++i) {
      const float m = plainMean(a.data(), b.data(), kN, i);
      sum += w[i] == 0.0f ? 0.0f : w[i] * m;
    }
    benchmark::DoNotOptimize(sum);
  });
}

// A blend-head sized convolution: 16 channels in and out, 32 x 32.
constexpr int kC = 16, kH = 32, kW = 32;
void BM_conv3x3Range_simd(benchmark::State& s) {
  auto in = randomFloats(kC * kH * kW, 9), w = randomFloats(kC * kC * 9, 10), bias = randomFloats(kC, 11);
  std::vector<float> out(kC * kH * kW);
  run(s, kC * kH * kW, [&] {
    xj::simd::conv3x3Range(in.data(), 1, kC, kH, kW, w.data(), bias.data(), kC, out.data(), 0, kC);
    benchmark::DoNotOptimize(out.data());
  });
}
void BM_conv3x3Range_scalar(benchmark::State& s) {
  auto in = randomFloats(kC * kH * kW, 9), w = randomFloats(kC * kC * 9, 10), bias = randomFloats(kC, 11);
  std::vector<float> out(kC * kH * kW);
  run(s, kC * kH * kW, [&] {
    plainConv(in.data(), kC, kH, kW, w.data(), bias.data(), kC, out.data());
    benchmark::DoNotOptimize(out.data());
  });
}

// ---- a full HD 4:2:0 frame --------------------------------------------------

constexpr int kFW = 1920, kFH = 1080;

struct Frame {
  std::vector<uint8_t> y, u, v, rgb;
  Frame() : y(kFW * kFH), u(kFW / 2 * kFH / 2), v(kFW / 2 * kFH / 2), rgb(3 * kFW * kFH) {
    std::mt19937 rng(12);
    for (auto& b : y) b = static_cast<uint8_t>(16 + rng() % 220);
    for (auto& b : u) b = static_cast<uint8_t>(16 + rng() % 225);
    for (auto& b : v) b = static_cast<uint8_t>(16 + rng() % 225);
  }
};

void BM_yuv420Frame_simd(benchmark::State& s) {
  Frame f;
  run(s, kFW * kFH, [&] {
    for (int r = 0; r < kFH; ++r) {
      xj::simd::yuv420RowToRgb24(f.y.data() + r * kFW, f.u.data() + (r / 2) * (kFW / 2), f.v.data() + (r / 2) * (kFW / 2),
                                 kFW, 1, f.rgb.data() + 3 * r * kFW);
    }
    benchmark::DoNotOptimize(f.rgb.data());
  });
}
void BM_yuv420Frame_scalar(benchmark::State& s) {
  Frame f;
  run(s, kFW * kFH, [&] {
    for (int r = 0; r < kFH; ++r) {
      plainYuvRow(f.y.data() + r * kFW, f.u.data() + (r / 2) * (kFW / 2), f.v.data() + (r / 2) * (kFW / 2), kFW,
                  f.rgb.data() + 3 * r * kFW);
    }
    benchmark::DoNotOptimize(f.rgb.data());
  });
}
void BM_yuv420Frame_swscale(benchmark::State& s) {
  Frame f;
  SwsContext* ctx = sws_getContext(kFW, kFH, AV_PIX_FMT_YUV420P, kFW, kFH, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr,
                                   nullptr, nullptr);
  if (!ctx) {
    s.SkipWithError("sws_getContext failed");
    return;
  }
  const uint8_t* src[3] = {f.y.data(), f.u.data(), f.v.data()};
  const int srcStride[3] = {kFW, kFW / 2, kFW / 2};
  uint8_t* dst[1] = {f.rgb.data()};
  const int dstStride[1] = {3 * kFW};
  run(s, kFW * kFH, [&] {
    sws_scale(ctx, src, srcStride, 0, kFH, dst, dstStride);
    benchmark::DoNotOptimize(f.rgb.data());
  });
  sws_freeContext(ctx);
}

BENCHMARK(BM_f32ToF16_simd);
BENCHMARK(BM_f32ToF16_scalar);
BENCHMARK(BM_f16ToF32_simd);
BENCHMARK(BM_f16ToF32_scalar);
BENCHMARK(BM_roundF16Mul_simd);
BENCHMARK(BM_roundF16Mul_scalar);
BENCHMARK(BM_rgb8ToPlanarF16_simd);
BENCHMARK(BM_rgb8ToPlanarF16_scalar);
BENCHMARK(BM_retrieveTermPooled_simd);
BENCHMARK(BM_retrieveTermPooled_scalar);
BENCHMARK(BM_retrieveTermExact_simd);
BENCHMARK(BM_retrieveTermExact_scalar);
BENCHMARK(BM_conv3x3Range_simd);
BENCHMARK(BM_conv3x3Range_scalar);
BENCHMARK(BM_yuv420Frame_simd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_yuv420Frame_scalar)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_yuv420Frame_swscale)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
