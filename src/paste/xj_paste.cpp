#include "paste/xj_paste.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "cpu/xj_pool.h"
#include "paste/xj_paste_simd.h"

namespace xj {

namespace {

// Rows a pool chunk takes at least: below that a row costs less than a wake-up.
constexpr size_t kMinRows = 64;
// The vertical pass keeps one row of accumulators on the stack.
constexpr int kMaxSide = 1024;

// Reflect-101 (the edge pixel is not repeated), folded again for borders
// wider than the plane itself.
int reflect101(int s, int n) {
  if (n == 1) return 0;
  for (;;) {
    if (s < 0) s = -s;
    if (s < n) return s;
    s = 2 * (n - 1) - s;
  }
}

// Round to nearest, ties to even, saturated to int32 (NaN to the minimum);
// only degenerate matrices come near the limits.
int32_t fixedRound(double v) {
  const double r = std::nearbyint(v);
  if (!(r > static_cast<double>(std::numeric_limits<int32_t>::min()))) return std::numeric_limits<int32_t>::min();
  if (r >= static_cast<double>(std::numeric_limits<int32_t>::max())) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(r);
}

// One channel of a separable TAPS x TAPS filter whose first tap sits at
// (x0, y0): a sum of each row's column sums, taps in order. Taps outside the
// crop are skipped (they read as 0, with no renormalisation); a block wholly
// inside takes the same sums without the tests.
template <int TAPS>
inline float filterPlane(const float* plane, int side, int x0, int y0, const float* wx, const float* wy) {
  float acc = 0.0f;
  if (x0 >= 0 && y0 >= 0 && x0 + TAPS <= side && y0 + TAPS <= side) {
    const float* p = plane + static_cast<size_t>(y0) * static_cast<size_t>(side) + static_cast<size_t>(x0);
    for (int r = 0; r < TAPS; ++r, p += side) {
      float sum = 0.0f;
      for (int k = 0; k < TAPS; ++k) sum = sum + wx[k] * p[k];
      acc = acc + wy[r] * sum;
    }
    return acc;
  }
  for (int r = 0; r < TAPS; ++r) {
    const int y = y0 + r;
    if (y < 0 || y >= side) continue;
    const float* p = plane + static_cast<size_t>(y) * static_cast<size_t>(side);
    float sum = 0.0f;
    for (int k = 0; k < TAPS; ++k) {
      const int x = x0 + k;
      if (x < 0 || x >= side) continue;
      sum = sum + wx[k] * p[x];
    }
    acc = acc + wy[r] * sum;
  }
  return acc;
}

// One canvas row of the bicubic (4 taps from ix - 1) or bilinear (2 taps
// from ix) paste, straight from the planes.
template <int TAPS>
void plainRow(const Paste& p, const float* table, int X, int Y, int x0, int x1, unsigned char* line) {
  constexpr int kBack = TAPS == 4 ? 1 : 0;
  const int side = p.side;
  const unsigned char* mask = p.mask.data();
  const float* bil = p.bilinear.data();
  const float* r = p.planes[0].data();
  const float* g = p.planes[1].data();
  const float* b = p.planes[2].data();
  for (int x = x0; x <= x1; ++x) {
    const int j = x - x0;
    const int32_t sx = simd::paste::addWrap(X, p.adelta[static_cast<size_t>(j)]);
    const int32_t sy = simd::paste::addWrap(Y, p.bdelta[static_cast<size_t>(j)]);
    const int ix = sx >> 10;
    const int iy = sy >> 10;
    if (ix < -1 || ix >= side || iy < -1 || iy >= side) continue;
    const int fx = (sx >> 5) & 31;
    const int fy = (sy >> 5) & 31;
    const float alpha = simd::paste::alphaAt(mask, side, ix, iy, bil + 2 * fx, bil + 2 * fy);
    if (alpha <= 0.0f) continue;
    const float* wx = table + TAPS * fx;
    const float* wy = table + TAPS * fy;
    unsigned char* px = line + 3 * static_cast<size_t>(x);
    px[0] = simd::paste::blend(px[0], alpha, filterPlane<TAPS>(r, side, ix - kBack, iy - kBack, wx, wy));
    px[1] = simd::paste::blend(px[1], alpha, filterPlane<TAPS>(g, side, ix - kBack, iy - kBack, wx, wy));
    px[2] = simd::paste::blend(px[2], alpha, filterPlane<TAPS>(b, side, ix - kBack, iy - kBack, wx, wy));
  }
}

}  // namespace

Paste::Paste(std::vector<unsigned char> maskBytes, int sideIn, const Unsharp& u)
    : side(sideIn), ksize(u.ksize), padded(sideIn + u.ksize - 1), amount(u.amount), fast(0) {
  if (side < 1 || maskBytes.size() != static_cast<size_t>(side) * static_cast<size_t>(side)) {
    throw std::runtime_error("paste: mask size");
  }
  // A kernel has a centre tap: a positive odd number of taps.
  if (u.ksize % 2 == 0 || u.ksize < 1) throw std::runtime_error("paste: ksize must be odd");
  mask = std::move(maskBytes);

  if (const char* s = std::getenv("XJ_PASTE_FAST")) {
    const long v = std::strtol(s, nullptr, 10);
    fast = v >= 0 && v <= 2 ? static_cast<int32_t>(v) : 0;
  }
  if (const char* s = std::getenv("XJ_PASTE_KSIZE")) {
    const long v = std::strtol(s, nullptr, 10);
    if (v >= 3 && v % 2 == 1 && v <= u.ksize) {
      ksize = static_cast<int32_t>(v);
      padded = side + ksize - 1;
    }
  }

  // Gaussian taps, normalised to sum 1 in double.
  const double c = (ksize - 1) / 2.0;
  const double sigma = u.sigma;
  std::vector<double> g(static_cast<size_t>(ksize));
  double total = 0.0;
  for (int i = 0; i < ksize; ++i) {
    g[static_cast<size_t>(i)] = std::exp(-((i - c) * (i - c)) / (2.0 * sigma * sigma));
    total += g[static_cast<size_t>(i)];
  }
  kernel.resize(static_cast<size_t>(ksize));
  for (int i = 0; i < ksize; ++i) kernel[static_cast<size_t>(i)] = static_cast<float>(g[static_cast<size_t>(i)] / total);

  bilinear.resize(kPhases * 2);
  lanczos.resize(kPhases * 8);
  bicubic.resize(kPhases * 4);
  const double pi = 3.14159265358979323846;
  const double r = std::sqrt(0.5);
  // sin and cos of y0 - j*pi/4 from those of y0: (p0, p1) for tap j.
  const double rot[8][2] = {{1, 0}, {-r, -r}, {0, 1}, {r, -r}, {-1, 0}, {r, r}, {0, -1}, {-r, r}};
  for (int p = 0; p < kPhases; ++p) {
    const double x = p / static_cast<double>(kPhases);
    bilinear[2 * p] = static_cast<float>(1.0 - x);
    bilinear[2 * p + 1] = static_cast<float>(x);

    float* lz = &lanczos[8 * static_cast<size_t>(p)];
    if (x < 1e-7) {
      for (int j = 0; j < 8; ++j) lz[j] = 0.0f;
      lz[3] = 1.0f;
    } else {
      const double y0 = -(x + 3) * pi / 4;
      const double s0 = std::sin(y0);
      const double c0 = std::cos(y0);
      double w[8];
      double sum = 0.0;
      for (int j = 0; j < 8; ++j) {
        const double yj = (x + 3 - j) * pi / 4;
        w[j] = (rot[j][0] * s0 + rot[j][1] * c0) / (yj * yj);
        sum += w[j];
      }
      for (int j = 0; j < 8; ++j) lz[j] = static_cast<float>(w[j] / sum);
    }

    const double t = x + 1;
    const double uu = 1 - x;
    const float w0 = static_cast<float>(((-0.75 * t + 3.75) * t - 6) * t + 3);
    const float w1 = static_cast<float>((1.25 * x - 2.25) * x * x + 1);
    const float w2 = static_cast<float>((1.25 * uu - 2.25) * uu * uu + 1);
    float* bc = &bicubic[4 * static_cast<size_t>(p)];
    bc[0] = w0;
    bc[1] = w1;
    bc[2] = w2;
    bc[3] = static_cast<float>(1.0 - static_cast<double>(w0) - static_cast<double>(w1) - static_cast<double>(w2));
  }

  const size_t plane = static_cast<size_t>(side) * static_cast<size_t>(side);
  const size_t padArea = static_cast<size_t>(padded) * static_cast<size_t>(padded);
  for (auto& pl : planes) pl.resize(plane);
  quad.resize(plane * 4);
  pad.resize(padArea);
  tmp.resize(padArea);
}

void Paste::fillPlanes(const float* crop, float scale) {
  const size_t n = static_cast<size_t>(side) * static_cast<size_t>(side);
  for (size_t c = 0; c < 3; ++c) {
    const float* src = crop + c * n;
    float* dst = planes[c].data();
    for (size_t i = 0; i < n; ++i) dst[i] = src[i] * scale;
  }
}

void Paste::unsharpPlane(std::vector<float>& plane) {
  const int n = side;
  const int h = ksize / 2;
  const size_t pw = static_cast<size_t>(padded);
  const float* src = plane.data();
  float* padp = pad.data();
  float* tmpp = tmp.data();
  const float* k = kernel.data();
  const int taps = ksize;

  // The bodies capture one reference, so building the std::function allocates nothing.
  struct Job {
    int n, h, taps;
    size_t pw;
    const float* src;
    float* pad;
    float* tmp;
    const float* k;
    float* dst;
    float amount;
  } job{n, h, taps, pw, src, padp, tmpp, k, plane.data(), amount};

  pool::parallelRange(pw, kMinRows, [&job](size_t begin, size_t end) {
    const size_t n = static_cast<size_t>(job.n);
    const size_t h = static_cast<size_t>(job.h);
    for (size_t r = begin; r < end; ++r) {
      const int sy = reflect101(static_cast<int>(r) - job.h, job.n);
      const float* row = job.src + static_cast<size_t>(sy) * n;
      float* out = job.pad + r * job.pw;
      // The plane's own columns, then the mirrored margins.
      std::memcpy(out + h, row, n * sizeof(float));
      for (size_t x = 0; x < h; ++x) out[x] = row[reflect101(static_cast<int>(x) - job.h, job.n)];
      for (size_t x = h + n; x < job.pw; ++x) out[x] = row[reflect101(static_cast<int>(x) - job.h, job.n)];
    }
  });

  // Horizontal: the flat positions [0, pw*pw - taps], row by row; the last
  // taps-1 columns of a row mix two rows and are never read.
  const size_t last = pw * pw - static_cast<size_t>(taps);
  pool::parallelRange(pw, kMinRows, [&job, last](size_t begin, size_t end) {
    const size_t from = begin * job.pw;
    const size_t to = std::min(end * job.pw, last + 1);
    if (from >= to) return;
    simd::pasteFirRow(job.pad + from, job.k, job.taps, job.tmp + from, to - from);
  });

  if (side > kMaxSide) throw std::runtime_error("paste: side > 1024");

  pool::parallelRange(static_cast<size_t>(n), kMinRows, [&job](size_t begin, size_t end) {
    float blur[kMaxSide];
    const size_t n = static_cast<size_t>(job.n);
    const float gain = 1.0f + job.amount;
    for (size_t y = begin; y < end; ++y) {
      simd::pasteFirColumns(job.tmp + y * job.pw, job.pw, job.k, job.taps, blur, n);
      simd::pasteSharpenRow(job.dst + y * n, blur, gain, job.amount, n);
    }
  });
}

void Paste::compositeTail(unsigned char* canvas, int W, int x0, int x1, int y0, int y1, double ib, double ie,
                          double ic, double if_) {
  struct Job {
    Paste* self;
    unsigned char* canvas;
    size_t stride;
    int x0, x1, y0;
    double ib, ie, ic, if_;
  } job{this, canvas, 3 * static_cast<size_t>(W), x0, x1, y0, ib, ie, ic, if_};

  if (fast == 0) {
    pool::parallelRange(static_cast<size_t>(side), kMinRows, [&job](size_t begin, size_t end) {
      Paste& p = *job.self;
      const size_t n = static_cast<size_t>(p.side);
      const float* r = p.planes[0].data();
      const float* g = p.planes[1].data();
      const float* b = p.planes[2].data();
      float* q = p.quad.data();
      for (size_t i = begin * n; i < end * n; ++i) {
        q[4 * i] = r[i];
        q[4 * i + 1] = g[i];
        q[4 * i + 2] = b[i];
        q[4 * i + 3] = 0.0f;
      }
    });
  }

  const size_t rows = static_cast<size_t>(y1 - y0 + 1);
  pool::parallelRange(rows, kMinRows, [&job](size_t begin, size_t end) {
    const Paste& p = *job.self;
    const int side = p.side;
    const unsigned char* mask = p.mask.data();
    const int32_t* ad = p.adelta.data();
    const int32_t* bd = p.bdelta.data();
    for (size_t row = begin; row < end; ++row) {
      const int y = job.y0 + static_cast<int>(row);
      const int32_t X = simd::paste::addWrap(fixedRound((y * job.ib + job.ic) * 1024.0), 16);
      const int32_t Y = simd::paste::addWrap(fixedRound((y * job.ie + job.if_) * 1024.0), 16);
      unsigned char* line = job.canvas + static_cast<size_t>(y) * job.stride;
      if (p.fast == 0) {
        simd::pasteLanczos8Row(p.quad.data(), side, mask, p.lanczos.data(), p.bilinear.data(), ad, bd, X, Y,
                               job.x0, job.x1, line);
        continue;
      }
      if (p.fast == 1) {
        plainRow<4>(p, p.bicubic.data(), X, Y, job.x0, job.x1, line);
      } else {
        plainRow<2>(p, p.bilinear.data(), X, Y, job.x0, job.x1, line);
      }
    }
  });
}

void Paste::composite(const float* crop, float scale, const float* M, unsigned char* canvas, int W, int H) {
  const float a = M[0], b = M[1], c = M[2], d = M[3], e = M[4], f = M[5];
  const double det = static_cast<double>(a) * e - static_cast<double>(b) * d;
  if (det == 0.0) return;

  // The box the crop can reach on the canvas, the Lanczos support included.
  const float lo = -4.0f;
  const float hi = static_cast<float>(side + 3);
  const float cx[4] = {lo, hi, lo, hi};
  const float cy[4] = {lo, lo, hi, hi};
  float minX = 0, maxX = 0, minY = 0, maxY = 0;
  for (int i = 0; i < 4; ++i) {
    const float px = a * cx[i] + b * cy[i] + c;
    const float py = d * cx[i] + e * cy[i] + f;
    if (std::isnan(px) || std::isnan(py)) return;
    minX = i == 0 ? px : std::min(minX, px);
    maxX = i == 0 ? px : std::max(maxX, px);
    minY = i == 0 ? py : std::min(minY, py);
    maxY = i == 0 ? py : std::max(maxY, py);
  }
  if (W < 1 || H < 1) return;
  auto lowEdge = [](float v, int limit) {  // max(0, floor(v)), limit when past it
    const double fl = std::floor(static_cast<double>(v));
    return fl <= 0.0 ? 0 : (fl >= limit ? limit : static_cast<int>(fl));
  };
  auto highEdge = [](float v, int limit) {  // min(limit, ceil(v)), -1 when below 0
    const double cl = std::ceil(static_cast<double>(v));
    return cl >= limit ? limit : (cl < 0.0 ? -1 : static_cast<int>(cl));
  };
  const int x0 = lowEdge(minX, W), x1 = highEdge(maxX, W - 1);
  const int y0 = lowEdge(minY, H), y1 = highEdge(maxY, H - 1);
  if (x0 > x1 || y0 > y1) return;

  const size_t cols = static_cast<size_t>(x1 - x0 + 1);
  if (adelta.size() < cols) {
    adelta.resize(cols);
    bdelta.resize(cols);
  }

  const double D = 1.0 / det;
  const double ia = e * D;
  const double ib = -b * D;
  const double id = -d * D;
  const double ie = a * D;
  const double ic = -(c * ia + f * ib);
  const double if_ = -(c * id + f * ie);
  for (int x = x0; x <= x1; ++x) {
    adelta[static_cast<size_t>(x - x0)] = fixedRound(x * ia * 1024.0);
    bdelta[static_cast<size_t>(x - x0)] = fixedRound(x * id * 1024.0);
  }

  static std::once_flag announced;
  std::call_once(announced, [this] {
    std::fprintf(stderr, "[xj-paste] executor=%s (side=%d, ksize=%d, threads=%d) \xE2\x80\x94 1080p frame\n", "cpu",
                 side, ksize, pool::threads());
  });

  fillPlanes(crop, scale);
  for (auto& plane : planes) unsharpPlane(plane);
  compositeTail(canvas, W, x0, x1, y0, y1, ib, ie, ic, if_);
}

bool Paste::compositeGpuRgba(const float*, float, const float*, const unsigned char*, int, int, void*, int) {
  return false;
}

}  // namespace xj
