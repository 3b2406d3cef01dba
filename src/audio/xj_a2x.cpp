#include "audio/xj_a2x.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "audio/xj_a2x_w2v.h"
#include "bundle/xj_bundle.h"
#include "bundle/xj_qvx.h"
#include "cpu/xj_pool.h"

namespace xj::a2x {

float halfRound(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  const uint32_t sign = b & 0x80000000u;
  int e = static_cast<int>((b >> 23) & 0xff) - 127 + 15;
  uint32_t out;
  if (e <= 0) {
    out = sign;
  } else if (e >= 31) {
    out = sign | 0x7f800000u;
  } else {
    uint32_t mh = (b & 0x7fffff) >> 13;
    const uint32_t dropped = b & 0x1fff;
    if (dropped > 0x1000 || (dropped == 0x1000 && (mh & 1))) {
      if (++mh == 0x400) {
        mh = 0;
        ++e;
      }
    }
    out = e >= 31 ? (sign | 0x7f800000u) : (sign | (static_cast<uint32_t>(e - 15 + 127) << 23) | (mh << 13));
  }
  float r;
  std::memcpy(&r, &out, 4);
  return r;
}

float halfBitsToFloat(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h & 0x8000) << 16;
  const uint32_t e = (h >> 10) & 0x1f;
  const uint32_t m = h & 0x3ff;
  uint32_t out;
  if (e == 0) out = sign;  // zero and subnormals
  else if (e == 31) out = sign | 0x7f800000u | (m << 13);
  else out = sign | ((e - 15 + 127) << 23) | (m << 13);
  float r;
  std::memcpy(&r, &out, 4);
  return r;
}

void normaliseWindow(float* x, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += x[i];
  const double mean = sum / static_cast<double>(n);
  double var = 0;
  for (size_t i = 0; i < n; ++i) {
    const double d = x[i] - mean;
    var += d * d;
  }
  var /= static_cast<double>(n);
  const double scale = 1.0 / std::sqrt(static_cast<double>(static_cast<float>(var)) + 1e-7);
  for (size_t i = 0; i < n; ++i) x[i] = static_cast<float>((x[i] - mean) * scale);
}

void loadWindow8(std::vector<float>& window, const float* pcm, int64_t n, int32_t s) {
  window.assign(kW8Samples, 0.0f);
  const int64_t start = static_cast<int64_t>(s) * kFrameSamples;
  const int64_t count = std::min<int64_t>(kW8Samples, n - start);
  if (count > 0) std::memcpy(window.data(), pcm + start, static_cast<size_t>(count) * sizeof(float));
  normaliseWindow(window.data(), window.size());
}

int64_t posRow(int64_t f, int64_t P) {
  if (f < P) return f;
  const int64_t half = P / 2;
  return half + (f - P) % (P - half);
}

int driveRow(int nt, int start, int dir, bool loop, int64_t k) {
  if (nt < 2) return 0;
  const int64_t pos = static_cast<int64_t>(start) + k * dir;
  if (loop) {
    int64_t r = pos % nt;
    if (r < 0) r += nt;
    return static_cast<int>(r);
  }
  const int64_t period = 2 * (static_cast<int64_t>(nt) - 1);
  int64_t r = pos % period;
  if (r < 0) r += period;
  return static_cast<int>(r <= nt - 1 ? r : period - r);
}

}  // namespace xj::a2x

using namespace xj::a2x;

namespace {

std::string& lastError() {
  thread_local std::string text;
  return text;
}

// A refusal whose text is already the whole message of the entry point.
struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void behind(const char* what) {
  throw std::runtime_error(std::string("stream read behind the retained window (") + what + ")");
}

struct Visible {
  int64_t total;
  int64_t G;
  int32_t A;
  int32_t L;
};

Visible visible(const xj_a2x& a) {
  Visible v;
  v.total = a.pcm_base + static_cast<int64_t>(a.pcm.size());
  if (a.finished) {
    v.G = v.total;
  } else {
    v.G = std::min<int64_t>((v.total + 639) / kBlockSamples * kBlockSamples, v.total);
  }
  v.A = static_cast<int32_t>((v.G + kFrameSamples - 1) / kFrameSamples);
  v.L = a.finished ? v.A : std::max(0, v.A - std::max(a.right, a.right_reach));
  return v;
}

std::vector<float> readFloats(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return {};
  std::ostringstream ss;
  ss << f.rdbuf();
  const std::string bytes = ss.str();
  std::vector<float> v(bytes.size() / 4);
  if (!v.empty()) std::memcpy(v.data(), bytes.data(), v.size() * 4);
  return v;
}

// The meta is not parsed as JSON: the first quoted key, the first colon behind it.
const char* metaValue(const std::string& meta, const char* key) {
  const size_t k = meta.find(std::string("\"") + key + "\"");
  if (k == std::string::npos) return nullptr;
  const size_t colon = meta.find(':', k);
  if (colon == std::string::npos) return nullptr;
  return meta.c_str() + colon + 1;
}

long metaInt(const std::string& meta, const char* key, long def) {
  const char* v = metaValue(meta, key);
  return v ? std::strtol(v, nullptr, 10) : def;
}

bool metaBool(const std::string& meta, const char* key) {
  const char* v = metaValue(meta, key);
  if (!v) return false;
  while (*v == ' ' || *v == '\t' || *v == '\n' || *v == '\r') ++v;
  if (std::strncmp(v, "true", 4) == 0) return true;
  if (std::strncmp(v, "false", 5) == 0) return false;
  return std::strtol(v, nullptr, 10) != 0;
}

// Runs one graph call, counting its time.
template <typename F>
auto timed(xj_a2x& a, F&& run) {
  const auto t0 = std::chrono::steady_clock::now();
  auto out = run();
  a.graph_ns += std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
  ++a.graph_runs;
  return out;
}

// One run of the band encoder on T frames of features starting at absolute frame b0.
std::vector<Ort::Value> runBand(xj_a2x& a, float* featView, int64_t b0, int T) {
  const int64_t P = static_cast<int64_t>(a.pos.size()) / a.h;
  const size_t h = static_cast<size_t>(a.h);
  a.posBuf.resize(static_cast<size_t>(T) * h);
  for (int i = 0; i < T; ++i) {
    const int64_t row = posRow(b0 + i, P);
    std::memcpy(a.posBuf.data() + static_cast<size_t>(i) * h, a.pos.data() + static_cast<size_t>(row) * h,
                h * sizeof(float));
  }
  a.attnBuf.resize(static_cast<size_t>(T) * T);
  const float ninf = -std::numeric_limits<float>::infinity();
  for (int i = 0; i < T; ++i)
    for (int j = 0; j < T; ++j)
      a.attnBuf[static_cast<size_t>(i) * T + j] = (j <= i + a.window && j >= i - a.left) ? 0.0f : ninf;
  Ort::Value in[] = {xj::floatTensor(a.mem, featView, static_cast<size_t>(T) * kFeatFloats, {1, T, 12, 768}),
                     xj::floatTensor(a.mem, a.posBuf.data(), a.posBuf.size(), {1, T, a.h}),
                     xj::floatTensor(a.mem, a.attnBuf.data(), a.attnBuf.size(), {1, 1, T, T})};
  const char* inNames[] = {"feat", "pos_window", "attn"};
  const char* outNames[] = {a.enc_out.c_str(), a.wn_out.c_str()};
  return timed(a, [&] { return a.enc->Run(Ort::RunOptions{nullptr}, inNames, in, 3, outNames, a.width ? 2 : 1); });
}

// One decoder step from `ctxRow`: advances prev and state, returns the raw output.
const float* runDecoder(xj_a2x& a, const float* ctxRow) {
  Ort::Value in[] = {xj::floatTensor(a.mem, const_cast<float*>(ctxRow), static_cast<size_t>(a.h), {1, a.h}),
                     xj::floatTensor(a.mem, a.prev.data(), a.prev.size(), {1, kRow}),
                     xj::floatTensor(a.mem, a.state.data(), a.state.size(), {1, 1, a.h})};
  const char* inNames[] = {"ctx_t", "prev", "h"};
  const char* outNames[] = {"m", "h_out"};
  auto out = timed(a, [&] { return a.dec->Run(Ort::RunOptions{nullptr}, inNames, in, 3, outNames, 2); });
  std::memcpy(a.prev.data(), out[0].GetTensorData<float>(), kRow * sizeof(float));
  std::memcpy(a.state.data(), out[1].GetTensorData<float>(), static_cast<size_t>(a.h) * sizeof(float));
  return a.prev.data();
}

void writeDelta(const xj_a2x& a, const float* m, float* row) {
  for (int k = 0; k < kRow; ++k) row[k] = m[k] * a.norm_std[k] + a.norm_mean[k];
}

Ort::Session& w2v8(xj_a2x& a) {
  if (!a.w2v) a.w2v = sharedW2v(a.w2v_path, a.n_threads);
  if (!a.w2v) throw std::runtime_error("the shared 8 s w2v encoder did not load ($W2V_ONNX=" + a.w2v_path + ")");
  return *a.w2v;
}

// Runs the 8 s encoder on a normalised window; returns audio_emb [12][200][768].
std::vector<Ort::Value> runW2v8(xj_a2x& a, float* window) {
  Ort::Session& s = w2v8(a);
  Ort::Value in = xj::floatTensor(a.mem, window, kW8Samples, {1, kW8Samples});
  const char* inName = "input_values";
  const char* outName = "audio_emb";
  return timed(a, [&] {
    std::vector<Ort::Value> out;
    onOwnerThread([&] { out = s.Run(Ort::RunOptions{nullptr}, &inName, &in, 1, &outName, 1); });
    return out;
  });
}

void growFeat(xj_a2x& a, int64_t frames) {
  const size_t want = static_cast<size_t>(std::max<int64_t>(frames, 0)) * kFeatFloats;
  if (a.feat.size() < want) a.feat.resize(want, 0.0f);
}

void fillFeat8(xj_a2x& a, int32_t need, const Visible& v) {
  growFeat(a, need - a.feat_base);
  while (a.feat_n < need) {
    const int32_t s = a.win_next;
    a.window8.assign(kW8Samples, 0.0f);
    const int64_t start = static_cast<int64_t>(s) * kFrameSamples;
    if (v.G > start) {
      if (start < a.pcm_base) behind("8 s window audio");
      const int64_t n = std::min<int64_t>(kW8Samples, v.G - start);
      std::memcpy(a.window8.data(), a.pcm.data() + (start - a.pcm_base), static_cast<size_t>(n) * sizeof(float));
    }
    normaliseWindow(a.window8.data(), a.window8.size());
    auto out = runW2v8(a, a.window8.data());
    const float* emb = out[0].GetTensorData<float>();
    int32_t limit = s + 200;
    if (!a.finished) limit = std::min(limit, std::max(0, v.A - a.right));
    for (int i = s == 0 ? 0 : 50; i < 200; ++i) {
      const int32_t f = s + i;
      if (f < a.feat_n) continue;
      if (f >= limit) break;
      if (f < a.feat_base) behind("feat frame");
      growFeat(a, f + 1 - a.feat_base);
      float* dst = a.feat.data() + static_cast<size_t>(f - a.feat_base) * kFeatFloats;
      for (int l = 0; l < 12; ++l)
        for (int d = 0; d < 768; ++d)
          dst[l * 768 + d] = halfRound(emb[(static_cast<size_t>(l) * 200 + i) * 768 + d]);
    }
    a.feat_n = std::max(a.feat_n, std::min(limit, s + 200));
    if (!a.finished && limit <= s + 199) break;
    a.win_next += 100;
  }
}

void fillFeatWin(xj_a2x& a, int32_t need, const Visible& v) {
  growFeat(a, need - a.feat_base);
  const WinPair pair = winPair();
  while (a.feat_n < need) {
    const int32_t s = a.win_next;
    const int64_t end = static_cast<int64_t>(a.win_right + s + 8) * kFrameSamples;
    const int64_t start = end - kWinSamples;
    if (!a.finished && end > v.G) break;
    a.window8.assign(kWinSamples, 0.0f);
    const int64_t from = std::max<int64_t>(start, 0), to = std::min(end, v.G);
    if (from < to) {
      if (from < a.pcm_base) behind("w2v window audio");
      std::memcpy(a.window8.data() + (from - start), a.pcm.data() + (from - a.pcm_base),
                  static_cast<size_t>(to - from) * sizeof(float));
    }
    normaliseWindow(a.window8.data(), kWinSamples);
    Ort::Value in = xj::floatTensor(a.mem, a.window8.data(), kWinSamples, {1, kWinSamples});
    const char* inName = "input_values";
    std::vector<Ort::Value> trunkOut = timed(a, [&] {
      std::vector<Ort::Value> o;
      onOwnerThread([&] { o = pair.trunk->Run(Ort::RunOptions{nullptr}, &inName, &in, 1, &pair.trunkOut, 1); });
      return o;
    });
    int LT = winLT();
    if (LT == 0) {
      const auto shape = trunkOut[0].GetTensorTypeAndShapeInfo().GetShape();
      LT = shape.size() >= 3 ? static_cast<int>(shape[2]) : 0;
      setWinLT(LT);
    }
    const auto* lat = reinterpret_cast<const uint16_t*>(trunkOut[0].GetTensorRawData());
    a.winX.resize(8 * 640);
    for (int k = 0; k < 8; ++k) {
      const int32_t f = s + k;
      int64_t base, local;
      if (f <= 199) {
        base = 0;
        local = f;
      } else {
        base = 100 * (f / 100 - 1);
        local = f - base;
      }
      const double p = static_cast<double>(base * kFrameSamples - start) / 80.0 + local * 8.030150753768844;
      const double fl = std::floor(p);
      if (fl < 0 || fl >= LT) throw std::runtime_error("w2v_win: trunk pos out of range");
      const int i0 = static_cast<int>(fl);
      const double t = p - fl;
      const int i1 = std::min(i0 + 1, LT - 1);
      for (int c = 0; c < 640; ++c) {
        const double v0 = halfBitsToFloat(lat[static_cast<size_t>(c) * LT + i0]);
        const double v1 = halfBitsToFloat(lat[static_cast<size_t>(c) * LT + i1]);
        a.winX[static_cast<size_t>(k) * 640 + c] = halfRound(static_cast<float>(v0 * (1 - t) + v1 * t));
      }
    }
    Ort::Value x = xj::floatTensor(a.mem, a.winX.data(), a.winX.size(), {8, 640});
    const char* xName = "x";
    const char* embName = "emb";
    std::vector<Ort::Value> headOut = timed(a, [&] {
      std::vector<Ort::Value> o;
      onOwnerThread([&] { o = pair.head->Run(Ort::RunOptions{nullptr}, &xName, &x, 1, &embName, 1); });
      return o;
    });
    const float* emb = headOut[0].GetTensorData<float>();
    if (s < a.feat_base) behind("feat block");
    growFeat(a, s + 8 - a.feat_base);
    float* dst = a.feat.data() + static_cast<size_t>(s - a.feat_base) * kFeatFloats;
    for (size_t i = 0; i < 8u * kFeatFloats; ++i) dst[i] = halfRound(emb[i]);
    a.win_next = s + 8;
    a.feat_n = s + 8;
  }
}

void bandStage(xj_a2x& a, int32_t target, int32_t A) {
  const int64_t P = static_cast<int64_t>(a.pos.size()) / a.h;
  const size_t h = static_cast<size_t>(a.h);
  for (int32_t c0 = a.ctx_n; c0 < target;) {
    int32_t c1 = std::min(c0 + 64, target);
    const int32_t b0 = std::max(c0 - a.left_reach, 0);
    int32_t b1 = std::min(c1 + a.right_reach, A);
    if (c0 < P) {
      c1 = static_cast<int32_t>(std::min<int64_t>(c1, P));
      b1 = static_cast<int32_t>(std::min<int64_t>(b1, P));
    }
    if (b0 < a.feat_base || c0 < a.ctx_base) behind("encoder band");
    const int T = b1 - b0;
    auto out = runBand(a, a.feat.data() + static_cast<size_t>(b0 - a.feat_base) * kFeatFloats, b0, T);
    const size_t rows = static_cast<size_t>(c1 - c0);
    const size_t at = static_cast<size_t>(c0 - a.ctx_base);
    if (a.ctx.size() < (at + rows) * h) a.ctx.resize((at + rows) * h, 0.0f);
    if (a.wn.size() < at + rows) a.wn.resize(at + rows, 0.0f);
    std::memcpy(a.ctx.data() + at * h, out[0].GetTensorData<float>() + static_cast<size_t>(c0 - b0) * h,
                rows * h * sizeof(float));
    if (a.width) std::memcpy(a.wn.data() + at, out[1].GetTensorData<float>() + (c0 - b0), rows * sizeof(float));
    c0 = c1;
  }
  a.ctx_n = target;
}

void decoderStage(xj_a2x& a, int32_t target) {
  for (int32_t f = a.dec_n; f < target; ++f) {
    if (f < a.ctx_base || f < a.delta_base) behind("decoder frame");
    const float* m = runDecoder(a, a.ctx.data() + static_cast<size_t>(f - a.ctx_base) * a.h);
    const size_t row = static_cast<size_t>(f - a.delta_base) * kRow;
    if (a.deltas.size() < row + kRow) a.deltas.resize(row + kRow, 0.0f);
    writeDelta(a, m, a.deltas.data() + row);
    a.dec_n = f + 1;
  }
}

void extend(xj_a2x& a, int32_t want) {
  const Visible v = visible(a);
  const int32_t target = std::min(want, v.L);
  if (target <= a.dec_n) return;
  const int32_t need = std::min(v.A, target + a.right_reach);
  try {
    if (a.short_window) fillFeatWin(a, need, v);
    else fillFeat8(a, need, v);
    if (target > a.ctx_n) bandStage(a, target, v.A);
    if (target > a.dec_n) decoderStage(a, target);
  } catch (const std::exception& e) {
    lastError() = std::string("xj_a2x extend: ") + e.what();
  }
}

// Drops the first k elements of v in one move.
template <typename T>
void dropFront(std::vector<T>& v, size_t k) {
  k = std::min(k, v.size());
  v.erase(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k));
}

void trim(xj_a2x& a) {
  const int64_t keepPcm = std::max<int64_t>(static_cast<int64_t>(a.win_next) * kFrameSamples - kWinSamples, 0);
  if (keepPcm - a.pcm_base > 81919) {
    dropFront(a.pcm, static_cast<size_t>(keepPcm - a.pcm_base));
    a.pcm_base = keepPcm;
  }
  const int32_t keepFeat = std::max(0, std::min(a.feat_n, a.ctx_n - a.left_reach));
  if (keepFeat - a.feat_base > 127) {
    dropFront(a.feat, static_cast<size_t>(keepFeat - a.feat_base) * kFeatFloats);
    a.feat_base = keepFeat;
  }
  const int32_t keepCtx = std::min(a.pulled, a.dec_n);
  if (keepCtx - a.ctx_base >= 128) {
    dropFront(a.ctx, static_cast<size_t>(keepCtx - a.ctx_base) * a.h);
    dropFront(a.wn, static_cast<size_t>(keepCtx - a.ctx_base));
    a.ctx_base = keepCtx;
  }
  if (a.pulled - a.delta_base >= 128) {
    dropFront(a.deltas, static_cast<size_t>(a.pulled - a.delta_base) * kRow);
    a.delta_base = a.pulled;
  }
}

int pullCore(xj_a2x& a, int32_t* rows, float* xs, float* xd, float* wnOut, int n) {
  if (a.pulled >= a.dec_n) extend(a, std::min(visible(a).L, a.pulled + std::max(n, 0)));
  const int32_t limit = std::min(visible(a).L, a.dec_n);
  if (n < 1 || limit <= a.pulled) return 0;
  int k = 0;
  for (; k < n && a.pulled < limit; ++k) {
    const int row = driveRow(a.nt, a.drive_start, a.drive_dir, a.drive_loop != 0, a.pulled);
    const float* src = a.xs_target.data() + static_cast<size_t>(row) * kRow;
    const float* delta = a.deltas.data() + static_cast<size_t>(a.pulled - a.delta_base) * kRow;
    if (rows) rows[k] = row;
    for (int j = 0; j < kRow; ++j) {
      if (xs) xs[k * kRow + j] = src[j];
      if (xd) xd[k * kRow + j] = delta[j] + src[j];
    }
    if (wnOut) {
      const int64_t at = static_cast<int64_t>(a.pulled) - a.ctx_base;
      wnOut[k] = (a.width && at >= 0 && at < static_cast<int64_t>(a.wn.size())) ? a.wn[static_cast<size_t>(at)] : 0.0f;
    }
    ++a.pulled;
  }
  trim(a);
  return k;
}

void clearKeeping(std::vector<float>& v) {
  if (v.capacity() * sizeof(float) > 16777216) std::vector<float>().swap(v);
  else v.clear();
}

void siliencePrime(xj_a2x& a, int count) {
  if (!a.w2v) a.w2v = sharedW2v(a.w2v_path, a.n_threads);
  if (!a.w2v) throw Refusal("xj_a2x_create: shared w2v load failed (silence_prime)");
  try {
    const std::vector<float>& zero = zeroEmbedding(*a.w2v);
    const int T = std::min(count, 200);
    std::vector<float> feat(static_cast<size_t>(T) * kFeatFloats);
    for (int t = 0; t < T; ++t)
      for (int l = 0; l < 12; ++l)
        for (int d = 0; d < 768; ++d)
          feat[(static_cast<size_t>(t) * 12 + l) * 768 + d] = halfRound(zero[(static_cast<size_t>(l) * 200 + t) * 768 + d]);
    auto out = runBand(a, feat.data(), 0, T);
    const float* ctx = out[0].GetTensorData<float>();
    a.prev.assign(kRow, 0.0f);
    a.state.assign(static_cast<size_t>(a.h), 0.0f);
    for (int t = 0; t < T; ++t) runDecoder(a, ctx + static_cast<size_t>(t) * a.h);
    a.prime_prev = a.prev;
    a.prime_state = a.state;
    std::fprintf(stderr, "[xj_a2x] silence-primed AR state cached (%d frames)\n", T);
  } catch (const std::exception& e) {
    a.prime_prev.clear();
    a.prime_state.clear();
    std::fprintf(stderr, "[xj_a2x] silence-prime failed (%s) -- legacy zero state\n", e.what());
  }
}

void create(xj_a2x& a, const char* bundle, int threads) {
  xj::ortInit();
  const int poolThreads = xj::pool::threads();
  a.n_threads = (threads < 1 || threads >= poolThreads) ? poolThreads : threads;
  static std::once_flag cadence;
  std::call_once(cadence, [&] {
    std::fprintf(stderr, "[xj_a2x] live cadence: block-%d (one trunk window per %d frames), push-size invariant, threads=%d\n",
                 320, 8, a.n_threads);
  });
  a.env = std::make_unique<Ort::Env>(ORT_LOGGING_LEVEL_WARNING, "xj_a2x");
  a.opts = Ort::SessionOptions();
  a.opts.SetIntraOpNumThreads(a.n_threads);
  a.opts.SetInterOpNumThreads(1);
  a.opts.AddConfigEntry("session.intra_op.allow_spinning", "0");
  a.opts.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  maybeCuda(a.opts, "enc/dec");
  a.mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);

  const std::string dir = xj::resolveBundlePath(bundle);
  std::string meta;
  {
    std::ifstream f(dir + "/a2x_meta.json", std::ios::binary);
    std::ostringstream ss;
    if (f) ss << f.rdbuf();
    meta = ss.str();
  }
  if (meta.empty()) throw Refusal("xj_a2x_create: a2x_meta.json missing in " + dir);
  a.h = static_cast<int32_t>(metaInt(meta, "h", 256));
  const long window = metaInt(meta, "window", -1), left = metaInt(meta, "left", -1);
  if (window < 0 || left < 0) throw Refusal("xj_a2x_create: meta lacks causal window/left (not a streaming a2x)");
  a.window = static_cast<int32_t>(window);
  a.left = static_cast<int32_t>(left);
  const long layers = metaInt(meta, "layers", 6);
  a.left_reach = static_cast<int32_t>(a.left * layers);
  a.right_reach = static_cast<int32_t>(a.window * layers);
  a.right = 12;
  if (const char* r = std::getenv("XJ_A2X_W2V_RIGHT")) a.right = std::max(0L, std::strtol(r, nullptr, 10));

  a.pos = readFloats(dir + "/a2x_pos.f32");
  const std::vector<float> norm = readFloats(dir + "/a2x_norm.f32");
  a.xs_target = readFloats(xj::resolveMember(dir, "xs_target.bin"));
  if (a.h < 1 || a.pos.size() < 2u * static_cast<size_t>(a.h) || norm.size() < 126 || a.xs_target.empty())
    throw Refusal("xj_a2x_create: pos/norm/xs_target read failed");
  a.norm_mean.assign(norm.begin(), norm.begin() + 63);
  a.norm_std.assign(norm.begin() + 63, norm.begin() + 126);
  a.nt = static_cast<int32_t>(a.xs_target.size() / kRow);

  const char* w2vPath = std::getenv("W2V_ONNX");
  if (!w2vPath) throw Refusal("xj_a2x_create: $W2V_ONNX not set");
  a.w2v_path = w2vPath;

  if (sharedW2vWin(a.n_threads, a.w2v_path)) {
    a.short_window = true;
    a.win_right = a.right;
    a.right += 8;
  } else {
    a.w2v = sharedW2v(a.w2v_path, a.n_threads);
    if (!a.w2v) throw Refusal("xj_a2x_create: shared w2v load failed");
  }

  Ort::AllocatorWithDefaultOptions alloc;
  a.enc = std::make_unique<Ort::Session>(*a.env, xj::resolveMember(dir, "a2x_enc_stream.onnx").c_str(), a.opts);
  a.enc_out = a.enc->GetOutputNameAllocated(0, alloc).get();
  const size_t outputs = a.enc->GetOutputCount();
  if (outputs >= 2) {
    a.wn_out = a.enc->GetOutputNameAllocated(1, alloc).get();
    a.width = true;
  }
  const bool metaWidth = metaBool(meta, "width");
  if (metaWidth != a.width) {
    std::fprintf(stderr,
                 "[xj_a2x] WARNING: a2x_meta width=%d but the encoder declares %zu output(s) \xE2\x80\x94 serving the "
                 "GRAPH (width=%d). Repackage this bundle.\n",
                 metaWidth ? 1 : 0, outputs, a.width ? 1 : 0);
  }
  a.dec = std::make_unique<Ort::Session>(*a.env, xj::resolveMember(dir, "a2x_dec.onnx").c_str(), a.opts);

  long prime = metaInt(meta, "silence_prime", 0);
  if (const char* p = std::getenv("XJ_A2X_SILENCE_PRIME")) prime = std::strtol(p, nullptr, 10);
  if (prime > 0) siliencePrime(a, static_cast<int>(std::min(prime, 200L)));
  xj_a2x_reset(&a, 0, 1, 1);
}

// The frame count of n samples.
int framesOf(int64_t n) { return static_cast<int>((n + kFrameSamples - 1) / kFrameSamples); }

// Whole utterance: 8 s windows every 100 frames, bands of 24, one decoder pass.
int deltasCore(xj_a2x& a, const float* pcm, int n, float* out, float* wnOut, int cap) {
  if (n < 1) return 0;
  const int T = framesOf(n);
  if (cap < T) return -2;
  const size_t h = static_cast<size_t>(a.h);
  std::vector<float> feat(static_cast<size_t>(T) * kFeatFloats, 0.0f);
  std::vector<char> filled(static_cast<size_t>(T), 0);
  std::vector<float> window;
  for (int s = 0; s < T; s += 100) {
    loadWindow8(window, pcm, n, s);
    auto emb = runW2v8(a, window.data());
    const float* e = emb[0].GetTensorData<float>();
    for (int i = s == 0 ? 0 : 50; i < 200 && s + i < T; ++i) {
      if (filled[static_cast<size_t>(s + i)]) continue;
      filled[static_cast<size_t>(s + i)] = 1;
      float* dst = feat.data() + static_cast<size_t>(s + i) * kFeatFloats;
      for (int l = 0; l < 12; ++l)
        for (int d = 0; d < 768; ++d) dst[l * 768 + d] = halfRound(e[(static_cast<size_t>(l) * 200 + i) * 768 + d]);
    }
  }
  std::vector<float> ctx(static_cast<size_t>(T) * h);
  a.batch_wn.assign(static_cast<size_t>(T), 0.0f);
  for (int c0 = 0; c0 < T;) {
    const int c1 = std::min(c0 + 24, T);
    const int b0 = std::max(c0 - a.left_reach, 0);
    const int b1 = std::min(c1 + a.right_reach, T);
    auto o = runBand(a, feat.data() + static_cast<size_t>(b0) * kFeatFloats, b0, b1 - b0);
    std::memcpy(ctx.data() + static_cast<size_t>(c0) * h, o[0].GetTensorData<float>() + static_cast<size_t>(c0 - b0) * h,
                static_cast<size_t>(c1 - c0) * h * sizeof(float));
    if (a.width)
      std::memcpy(a.batch_wn.data() + c0, o[1].GetTensorData<float>() + (c0 - b0),
                  static_cast<size_t>(c1 - c0) * sizeof(float));
    c0 = c1;
  }
  // The decoder runs on its own copy of the start state: the stream's is untouched.
  const std::vector<float> savePrev = a.prev, saveState = a.state;
  const bool primed = !a.prime_prev.empty() && !a.prime_state.empty();
  a.prev = primed ? a.prime_prev : std::vector<float>(kRow, 0.0f);
  a.state = primed ? a.prime_state : std::vector<float>(h, 0.0f);
  try {
    for (int f = 0; f < T; ++f) writeDelta(a, runDecoder(a, ctx.data() + static_cast<size_t>(f) * h), out + f * kRow);
  } catch (...) {
    a.prev = savePrev;
    a.state = saveState;
    throw;
  }
  a.prev = savePrev;
  a.state = saveState;
  if (wnOut)
    for (int f = 0; f < T; ++f) wnOut[f] = a.batch_wn[static_cast<size_t>(f)];
  return T;
}

}  // namespace

extern "C" {

XJ_API xj_a2x* xj_a2x_create(const char* bundle, int threads) {
  lastError().clear();
  xj_a2x* a = nullptr;
  try {
    xj::ortInit();  // before any Ort member exists: even an empty one calls the API table when destroyed
    a = new xj_a2x;
    create(*a, bundle ? bundle : "", threads);
    return a;
  } catch (const Refusal& e) {
    lastError() = e.what();
  } catch (const std::exception& e) {
    lastError() = std::string("xj_a2x_create: ") + e.what();
  }
  delete a;
  return nullptr;
}

XJ_API void xj_a2x_destroy(xj_a2x* h) { delete h; }
XJ_API const char* xj_a2x_last_error(void) { return lastError().c_str(); }
XJ_API int xj_a2x_nt(const xj_a2x* h) { return h ? h->nt : 0; }
XJ_API int xj_a2x_width(const xj_a2x* h) { return h && h->width ? 1 : 0; }

XJ_API void xj_a2x_reset(xj_a2x* a, int start, int dir, int loop) {
  if (!a) return;
  if (start < 0) start = a->nt < 2 ? 0 : driveRow(a->nt, a->drive_start, a->drive_dir, a->drive_loop != 0, a->pulled);
  clearKeeping(a->pcm);
  clearKeeping(a->feat);
  clearKeeping(a->ctx);
  clearKeeping(a->deltas);
  clearKeeping(a->wn);
  a->finished = false;
  a->pulled = a->win_next = a->feat_n = a->ctx_n = a->dec_n = 0;
  a->pcm_base = 0;
  a->feat_base = a->ctx_base = a->delta_base = 0;
  if (!a->prime_prev.empty() && !a->prime_state.empty()) {
    a->prev = a->prime_prev;
    a->state = a->prime_state;
  } else {
    a->prev.assign(kRow, 0.0f);
    a->state.assign(static_cast<size_t>(a->h), 0.0f);
  }
  a->drive_start = start;
  a->drive_dir = dir < 0 ? -1 : 1;
  a->drive_loop = loop;
}

XJ_API void xj_a2x_set_eager(xj_a2x* a, int n) {
  if (a) a->eager = n;
}

XJ_API int xj_a2x_push(xj_a2x* a, const float* pcm, int n) {
  if (!a || !pcm || n < 1) return 1;
  a->pcm.insert(a->pcm.end(), pcm, pcm + n);
  return 1;
}

XJ_API void xj_a2x_finish(xj_a2x* a) {
  if (a) a->finished = true;
}

XJ_API int xj_a2x_total(const xj_a2x* a) {
  if (!a || !a->finished) return -1;
  return framesOf(a->pcm_base + static_cast<int64_t>(a->pcm.size()));
}

XJ_API int xj_a2x_avail(xj_a2x* a) {
  if (!a) return 0;
  const Visible v = visible(*a);
  if (a->dec_n < v.L) extend(*a, std::min(a->dec_n + (a->short_window ? 8 : 64), v.L));
  return std::max(0, a->dec_n - a->pulled);
}

XJ_API int xj_a2x_pull(xj_a2x* a, int32_t* rows, float* xs, float* xd, int n) {
  return a ? pullCore(*a, rows, xs, xd, nullptr, n) : 0;
}

XJ_API int xj_a2x_pull_wn(xj_a2x* a, int32_t* rows, float* xs, float* xd, float* wn, int n) {
  return a ? pullCore(*a, rows, xs, xd, wn, n) : 0;
}

XJ_API int xj_a2x_deltas(xj_a2x* a, const float* pcm, int n, float* out, int cap) {
  lastError().clear();
  if (!a || (!pcm && n > 0) || (!out && n > 0)) {
    lastError() = "xj_a2x_deltas: bad args";
    return -1;
  }
  try {
    return deltasCore(*a, pcm, n, out, nullptr, cap);
  } catch (const std::exception& e) {
    lastError() = std::string("xj_a2x_deltas: ") + e.what();
    return -1;
  }
}

XJ_API int xj_a2x_deltas_wn(xj_a2x* a, const float* pcm, int n, float* out, float* wn, int cap) {
  lastError().clear();
  if (!a || (!pcm && n > 0) || (!out && n > 0) || (!wn && n > 0)) {
    lastError() = "xj_a2x_deltas_wn: bad args";
    return -1;
  }
  if (!a->width) {
    lastError() = "xj_a2x_deltas_wn: encoder declares no wn output";
    return -3;
  }
  try {
    return deltasCore(*a, pcm, n, out, wn, cap);
  } catch (const std::exception& e) {
    lastError() = std::string("xj_a2x_deltas_wn: ") + e.what();
    return -1;
  }
}

XJ_API int xj_a2x_preload_w2v(const char* path) {
  lastError().clear();
  std::string p = path ? path : "";
  if (p.empty()) {
    const char* env = std::getenv("W2V_ONNX");
    if (!env) {
      lastError() = "xj_a2x_preload_w2v: no path and $W2V_ONNX unset";
      return 0;
    }
    p = env;
  }
  try {
    return sharedW2v(p, xj::pool::threads()) ? 1 : 0;
  } catch (const std::exception& e) {
    lastError() = std::string("xj_a2x_preload_w2v: ") + e.what();
    return 0;
  }
}

XJ_API int xj_a2x_w2v8_lazy(void) { return 1; }

}  // extern "C"
