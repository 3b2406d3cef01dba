#include "paste_reference.h"

#include <algorithm>
#include <cmath>

namespace xjref {

namespace {

const double kPi = 3.14159265358979323846;

// Mirror without repeating the edge pixel; tiny planes fold more than once.
int mirror(int i, int n) {
  if (n == 1) return 0;
  while (i < 0 || i >= n) {
    if (i < 0) i = -i;
    if (i >= n) i = 2 * (n - 1) - i;
  }
  return i;
}

}  // namespace

double lanczos4(double t) {
  if (t == 0.0) return 1.0;
  if (std::fabs(t) >= 4.0) return 0.0;
  const double a = kPi * t;
  return 4.0 * std::sin(a) * std::sin(a / 4.0) / (a * a);
}

PasteTables pasteTables(int ksize, float sigma) {
  PasteTables t;
  t.ksize = ksize;
  double sum = 0.0;
  std::vector<double> g;
  const double centre = (ksize - 1) / 2.0;
  const double s = sigma;
  for (int i = 0; i < ksize; ++i) {
    const double dx = i - centre;
    g.push_back(std::exp(-(dx * dx) / (2.0 * s * s)));
    sum += g.back();
  }
  for (double v : g) t.gauss.push_back(static_cast<float>(v / sum));

  const double h = std::sqrt(0.5);
  const double pairs[8][2] = {{1, 0}, {-h, -h}, {0, 1}, {h, -h}, {-1, 0}, {h, h}, {0, -1}, {-h, h}};
  for (int p = 0; p < 32; ++p) {
    const double x = p / 32.0;
    t.bilinear.push_back(static_cast<float>(1 - x));
    t.bilinear.push_back(static_cast<float>(x));

    if (x < 1e-7) {
      for (int j = 0; j < 8; ++j) t.lanczos.push_back(j == 3 ? 1.0f : 0.0f);
    } else {
      const double y0 = -(x + 3) * kPi / 4;
      const double sn = std::sin(y0), cs = std::cos(y0);
      double w[8], total = 0;
      for (int j = 0; j < 8; ++j) {
        const double yj = (x + 3 - j) * kPi / 4;
        w[j] = (pairs[j][0] * sn + pairs[j][1] * cs) / (yj * yj);
        total += w[j];
      }
      for (int j = 0; j < 8; ++j) t.lanczos.push_back(static_cast<float>(w[j] / total));
    }

    const double tt = x + 1, u = 1 - x;
    const float c0 = static_cast<float>(((-0.75 * tt + 3.75) * tt - 6) * tt + 3);
    const float c1 = static_cast<float>((1.25 * x - 2.25) * x * x + 1);
    const float c2 = static_cast<float>((1.25 * u - 2.25) * u * u + 1);
    t.bicubic.push_back(c0);
    t.bicubic.push_back(c1);
    t.bicubic.push_back(c2);
    t.bicubic.push_back(static_cast<float>(1.0 - double(c0) - double(c1) - double(c2)));
  }
  return t;
}

std::vector<float> unsharp(const std::vector<float>& plane, int side, const PasteTables& t, float amount) {
  const int k = t.ksize, half = k / 2, P = side + k - 1;
  // Padded plane, then each row filtered horizontally, then each column.
  std::vector<std::vector<float>> padded(P, std::vector<float>(P));
  for (int r = 0; r < P; ++r)
    for (int c = 0; c < P; ++c) padded[r][c] = plane[mirror(r - half, side) * side + mirror(c - half, side)];
  std::vector<std::vector<float>> horiz(P, std::vector<float>(side));
  for (int r = 0; r < P; ++r)
    for (int x = 0; x < side; ++x) {
      float acc = 0.0f;
      for (int i = 0; i < k; ++i) acc = acc + t.gauss[i] * padded[r][x + i];
      horiz[r][x] = acc;
    }
  std::vector<float> out(plane.size());
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      float blur = 0.0f;
      for (int i = 0; i < k; ++i) blur = blur + t.gauss[i] * horiz[y + i][x];
      const float v = plane[y * side + x] * (1.0f + amount) - blur * amount;
      out[y * side + x] = std::min(255.0f, std::max(0.0f, v));
    }
  return out;
}

void composite(const PasteSetup& s, const float* crop, float scale, const float M[6], uint8_t* canvas, int W,
               int H) {
  const double det = double(M[0]) * double(M[4]) - double(M[1]) * double(M[3]);
  if (det == 0) return;

  // Bounding box of the crop and a 4-pixel apron.
  const float corners[4][2] = {{-4.0f, -4.0f},
                               {float(s.side + 3), -4.0f},
                               {-4.0f, float(s.side + 3)},
                               {float(s.side + 3), float(s.side + 3)}};
  float xs[4], ys[4];
  for (int i = 0; i < 4; ++i) {
    xs[i] = M[0] * corners[i][0] + M[1] * corners[i][1] + M[2];
    ys[i] = M[3] * corners[i][0] + M[4] * corners[i][1] + M[5];
  }
  const int bx0 = std::max(0, int(std::floor(*std::min_element(xs, xs + 4))));
  const int bx1 = std::min(W - 1, int(std::ceil(*std::max_element(xs, xs + 4))));
  const int by0 = std::max(0, int(std::floor(*std::min_element(ys, ys + 4))));
  const int by1 = std::min(H - 1, int(std::ceil(*std::max_element(ys, ys + 4))));
  if (bx0 > bx1 || by0 > by1) return;

  const PasteTables t = pasteTables(s.ksize, s.sigma);
  const int n = s.side;
  std::vector<float> planes[3];
  for (int c = 0; c < 3; ++c) {
    std::vector<float> p(n * n);
    for (int i = 0; i < n * n; ++i) p[i] = crop[c * n * n + i] * scale;
    planes[c] = unsharp(p, n, t, s.amount);
  }

  const double inv = 1.0 / det;
  const double ia = M[4] * inv, ib = -M[1] * inv, id = -M[3] * inv, ie = M[0] * inv;
  const double ic = -(M[2] * ia + M[5] * ib);
  const double jf = -(M[2] * id + M[5] * ie);

  auto maskAt = [&](int x, int y) -> float {
    return (x >= 0 && y >= 0 && x < n && y < n) ? float(s.mask[y * n + x]) : 0.0f;
  };
  const float* table = s.mode == 0 ? t.lanczos.data() : s.mode == 1 ? t.bicubic.data() : t.bilinear.data();
  const int taps = s.mode == 0 ? 8 : s.mode == 1 ? 4 : 2;
  const int first = s.mode == 0 ? -3 : s.mode == 1 ? -1 : 0;

  for (int y = by0; y <= by1; ++y) {
    const long long X = std::llrint((y * ib + ic) * 1024) + 16;
    const long long Y = std::llrint((y * ie + jf) * 1024) + 16;
    for (int x = bx0; x <= bx1; ++x) {
      const long long sx = X + std::llrint(x * ia * 1024);
      const long long sy = Y + std::llrint(x * id * 1024);
      const long long ix = sx >> 10, iy = sy >> 10;  // arithmetic: floor
      if (ix < -1 || ix >= n || iy < -1 || iy >= n) continue;
      const int px = int((sx >> 5) & 31), py = int((sy >> 5) & 31);
      const float u0 = t.bilinear[2 * px], u1 = t.bilinear[2 * px + 1];
      const float v0 = t.bilinear[2 * py], v1 = t.bilinear[2 * py + 1];
      const float m = (u0 * maskAt(ix, iy) + u1 * maskAt(ix + 1, iy)) * v0 +
                      (u0 * maskAt(ix, iy + 1) + u1 * maskAt(ix + 1, iy + 1)) * v1;
      const float alpha = std::rint(m) / 255.0f;
      if (alpha <= 0) continue;
      const float* wx = table + taps * px;
      const float* wy = table + taps * py;
      for (int c = 0; c < 3; ++c) {
        float value = 0.0f;
        for (int r = 0; r < taps; ++r) {
          const long long yy = iy + first + r;
          if (yy < 0 || yy >= n) continue;
          float row = 0.0f;
          for (int q = 0; q < taps; ++q) {
            const long long xx = ix + first + q;
            if (xx < 0 || xx >= n) continue;
            row = row + wx[q] * planes[c][yy * n + xx];
          }
          value = value + wy[r] * row;
        }
        uint8_t& dst = canvas[(size_t(y) * W + x) * 3 + c];
        const float out = float(dst) * (1.0f - alpha) + alpha * value;
        dst = out < 0.0f ? 0 : out > 255.0f ? 255 : uint8_t(std::trunc(out));
      }
    }
  }
}

}  // namespace xjref
