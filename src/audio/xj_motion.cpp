#include "audio/xj_motion.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "bundle/xj_bundle.h"
#include "render/xj_renderer.h"

using namespace xj::motion;

namespace xj::motion {

float bin66(const float* logits) {
  float top = logits[0];
  for (int i = 1; i < kLogitBins; ++i) top = std::max(top, logits[i]);
  float sum = 0.0f, weighted = 0.0f;
  for (int i = 0; i < kLogitBins; ++i) {
    const float e = std::exp(logits[i] - top);
    sum += e;
    weighted += static_cast<float>(i) * e;
  }
  return weighted / sum * 3.0f - 97.5f;
}

void poseToR(float pitch, float yaw, float roll, float R[3][3]) {
  const float kPi = 3.1415927f;
  float sp, cp, sy, cy, sr, cr;
  sincosf(pitch * kPi / 180.0f, &sp, &cp);
  sincosf(yaw * kPi / 180.0f, &sy, &cy);
  sincosf(roll * kPi / 180.0f, &sr, &cr);
  R[0][0] = cy * cr;
  R[0][1] = cy * sr;
  R[0][2] = -sy;
  R[1][0] = sp * sy * cr - sr * cp;
  R[1][1] = cp * cr + sp * sy * sr;
  R[1][2] = sp * cy;
  R[2][0] = sp * sr + cp * sy * cr;
  R[2][1] = cp * sy * sr - cr * sp;
  R[2][2] = cp * cy;
}

int eagerStep(int eager, bool anyEmitted, double eagerMs) {
  if (!anyEmitted) return 1;
  if (eager > 0) return eager;
  // One pass per as many 40 ms frames as a pass takes, so the provisional work
  // never outruns the audio; at most 8 frames (320 ms) between passes.
  const double frames = std::min(eagerMs / 40.0 + 0.999, static_cast<double>(kMaxEagerStep));
  const int step = static_cast<int>(frames);
  return step < 1 ? 1 : step;
}

}  // namespace xj::motion

namespace {

// The mean of value j over the rows that exist among prev, cur and next.
inline float tapMean(const float* prev, const float* cur, const float* next, int j) {
  float sum = 0.0f;
  float count = 0.0f;
  if (prev) {
    sum += prev[j];
    count += 1.0f;
  }
  sum += cur[j];
  count += 1.0f;
  if (next) {
    sum += next[j];
    count += 1.0f;
  }
  return sum / count;
}

std::string readText(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot open " + path);
  std::string text;
  char buf[4096];
  size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, got);
  const bool bad = std::ferror(f) != 0;
  std::fclose(f);
  if (bad) throw std::runtime_error("short read " + path);
  return text;
}

// A count of meta.json: a whole number from 1 on.
int32_t metaCount(const std::string& meta, const char* key) {
  const double v = jsonNum(meta, key, true);
  if (!(v >= 1.0 && v <= 1e8 && v == std::floor(v)))
    throw std::runtime_error(std::string("meta.json: bad ") + key + " (a whole number from 1 on is needed)");
  return static_cast<int32_t>(v);
}

constexpr size_t kInitialFrames = 20 * 25;  // room for 20 s before anything grows

}  // namespace

xj_motion::xj_motion(const std::string& directory, int threads, const std::string& ep) : dir(directory) {
  const char* dumpEnv = std::getenv("XJ_MOTION_DUMP");
  if (dumpEnv && *dumpEnv) dumpDir = dumpEnv;
  loadTables();

  env = Ort::Env(ORT_LOGGING_LEVEL_WARNING, "xj_motion");
  const std::string cacheDir = xj::coremlCacheDir(dir);
  student.open(env, dir + "/hubert_student.onnx", threads, ep, cacheDir);
  generator.open(env, dir + "/lmdm.onnx", threads, ep, cacheDir);
  stitcher.open(env, dir + "/stitch.onnx", threads, "", "");
  auto inputs = [](const Net& net, size_t want, const char* what) {
    if (net.inputCount() != want)
      throw std::runtime_error("xj_motion: " + net.path() + " declares " + std::to_string(net.inputCount()) +
                               " inputs, expected " + std::to_string(want) + " (" + what + ")");
  };
  inputs(student, 1, "the log-mel spectrogram");
  inputs(generator, 2, "kp, then the condition");
  inputs(stitcher, 2, "a, then b");

  audioWin.assign(kWindowSamples, 0.0f);
  mel.assign(kMelSize, 0.0f);
  feat.assign(kStudentRows * kAudioDim, 0.0f);
  pred.assign(kChunk * kRowDim, 0.0f);
  genCond.assign(kChunk * kCondDim, 0.0f);
  tapSnap.reserve((kChunk + 2) * kRowDim);
  pcm.reserve(kInitialFrames * kFrameSamples);
  cond.reserve(kInitialFrames * kCondDim);
  res.reserve((kInitialFrames + kChunk) * kRowDim);
  reset(0, 1, 0);

  // One run of each network on zeros: a graph that does not fit is refused
  // here, and the first real window pays no first-run cost.
  std::memset(genKp, 0, sizeof genKp);
  std::memset(stA, 0, sizeof stA);
  std::memset(stB, 0, sizeof stB);
  {
    const float* in[] = {mel.data()};
    const size_t sz[] = {mel.size()};
    const int64_t shape[] = {1, kStudentRows, kAudioDim};
    student.run(in, sz, feat.data(), feat.size(), shape, 3);
  }
  {
    const float* in[] = {genKp, genCond.data()};
    const size_t sz[] = {kRowDim, genCond.size()};
    const int64_t shape[] = {1, kChunk, kRowDim};
    generator.run(in, sz, pred.data(), pred.size(), shape, 3);
  }
  {
    const float* in[] = {stA, stB};
    const size_t sz[] = {kKpDim, kKpDim};
    const int64_t shape[] = {1, xj::kHostKpRows, 3};
    stitcher.run(in, sz, stOut, kKpDim, shape, 3);
  }
}

void xj_motion::loadTables() {
  const std::string meta = readText(dir + "/meta.json");
  nt = metaCount(meta, "nt");
  n_src = metaCount(meta, "n_src");
  n_emo = metaCount(meta, "n_emo");
  s_bridge = static_cast<float>(jsonNum(meta, "s_bridge", true));
  delta_pitch = static_cast<float>(jsonNum(meta, "delta_pitch", false, 0.0));
  if (n_src != nt) throw std::runtime_error("xj_motion: n_src != nt unsupported");

  const std::string d = dir + "/";
  stftWindow = readFloats(d + "hubert_stft_window.bin", kFftSize);
  binmat = readFloats(d + "hubert_stft_binmat.bin", static_cast<size_t>(kFftBins) * kMelBins);
  fmean = readFloats(d + "hubert_fmean.bin", kAudioDim);
  fstd = readFloats(d + "hubert_fstd.bin", kAudioDim);
  emo = readFloats(d + "emo.bin", static_cast<size_t>(n_emo) * kEmoDim);
  chXsInfo = readFloats(d + "ch_xs_info.bin", kPoseDim);
  chSc = readFloats(d + "ch_sc.bin", kKpDim);
  chEyeOpen = readFloats(d + "ch_eye_open.bin", 2);
  chEyeBall = readFloats(d + "ch_eye_ball.bin", 6);
  vMinMax = readFloats(d + "v_min_max.bin", 2 * kRowDim);
  srcXsInfo = readFloats(d + "src_xs_info.bin", static_cast<size_t>(n_src) * kPoseDim);
  xsTarget = readFloats(xj::resolveMember(dir, "xs_target.bin"), static_cast<size_t>(nt) * kKpDim);

  // The start seed is the character's own pose record in the generator's row layout.
  const float* c = chXsInfo.data();
  kp0[kRowScale] = c[kPoseScale] - 1.0f;
  std::memcpy(kp0 + kRowPitch, c + kPosePitch, kLogitBins * sizeof(float));
  std::memcpy(kp0 + kRowYaw, c + kPoseYaw, kLogitBins * sizeof(float));
  std::memcpy(kp0 + kRowRoll, c + kPoseRoll, kLogitBins * sizeof(float));
  std::memcpy(kp0 + kRowT, c + kPoseT, 3 * sizeof(float));
  std::memcpy(kp0 + kRowExp, c + kPoseExp, kKpDim * sizeof(float));

  ratio = c[kPoseScale] / srcXsInfo[kPoseScale];
  if (!std::isfinite(ratio)) {
    char scale[32];
    std::snprintf(scale, sizeof scale, "%g", static_cast<double>(srcXsInfo[kPoseScale]));
    throw std::runtime_error("xj_motion: " + d + "src_xs_info.bin: the first record's scale is " + scale +
                             ", so the lip gain ch/src is not finite");
  }
}

// ---- the numeric path ------------------------------------------------------

void xj_motion::processWindow(int w) {
  const int64_t base = static_cast<int64_t>(w) * kFrameSamples - kWindowBack;
  const int64_t have = static_cast<int64_t>(pcm.size());
  for (int i = 0; i < kWindowSamples; ++i) {
    const int64_t at = base + i;
    audioWin[i] = (at >= 0 && at < have) ? pcm[static_cast<size_t>(at)] : 0.0f;
  }
  logMel(audioWin.data(), stftWindow.data(), binmat.data(), twiddles, mel.data());
  {
    const float* in[] = {mel.data()};
    const size_t sz[] = {mel.size()};
    const int64_t shape[] = {1, kStudentRows, kAudioDim};
    student.run(in, sz, feat.data(), feat.size(), shape, 3);
  }
  for (int r = 0; r < kStudentRows; ++r) {
    float* row = feat.data() + r * kAudioDim;
    for (int d = 0; d < kAudioDim; ++d) row[d] = row[d] * fstd[d] + fmean[d];
  }
  if (w == 0) {
    dumpFloats("/mel0.bin", mel.data(), mel.size());
    dumpFloats("/feat0.bin", feat.data(), feat.size());
  }

  cond.resize(static_cast<size_t>(cond_n + kWindowFrames) * kCondDim);
  for (int k = 0; k < kWindowFrames; ++k) {
    float* row = cond.data() + static_cast<size_t>(cond_n + k) * kCondDim;
    const float* lo = feat.data() + (6 + 2 * k) * kAudioDim;
    const float* hi = lo + kAudioDim;
    for (int d = 0; d < kAudioDim; ++d) row[d] = (lo[d] + hi[d]) * 0.5f;
    float* tail = row + kAudioDim;
    std::memcpy(tail, emo.data() + static_cast<size_t>((w + k) % n_emo) * kEmoDim, kEmoDim * sizeof(float));
    tail += kEmoDim;
    std::memcpy(tail, chEyeOpen.data(), 2 * sizeof(float));
    tail += 2;
    std::memcpy(tail, chEyeBall.data(), 6 * sizeof(float));
    tail += 6;
    std::memcpy(tail, chSc.data(), kKpDim * sizeof(float));
  }
  cond_n += kWindowFrames;
}

void xj_motion::runChunk(int start, int end, float* seed) {
  int last = std::min(cond_n, end) - start - 1;
  if (last > kChunk - 1) last = kChunk - 1;
  if (last < 0)
    throw std::logic_error("xj_motion: chunk at frame " + std::to_string(start) + " has no condition row");
  for (int i = 0; i < kChunk; ++i)
    std::memcpy(genCond.data() + static_cast<size_t>(i) * kCondDim,
                cond.data() + static_cast<size_t>(start + std::min(i, last)) * kCondDim, kCondDim * sizeof(float));
  std::memcpy(genKp, seed, sizeof genKp);
  {
    const float* in[] = {genKp, genCond.data()};
    const size_t sz[] = {kRowDim, genCond.size()};
    const int64_t shape[] = {1, kChunk, kRowDim};
    generator.run(in, sz, pred.data(), pred.size(), shape, 3);
  }
  if (start == 0) {
    dumpFloats("/lmdm0_kp.bin", genKp, kRowDim);
    dumpFloats("/lmdm0_aud.bin", genCond.data(), genCond.size());
    dumpFloats("/lmdm0_pred.bin", pred.data(), pred.size());
  }

  if (res_n == 0) {
    res.assign(pred.begin(), pred.end());
    res_n = kChunk;
    smooth(0, kChunk);
  } else {
    // Cross-fade the overlap, then append the rest of the chunk.
    for (int i = 0; i < kOverlap; ++i) {
      const float w = static_cast<float>(i) / 10.0f;
      float* row = res.data() + static_cast<size_t>(res_n - kOverlap + i) * kRowDim;
      const float* p = pred.data() + static_cast<size_t>(i) * kRowDim;
      for (int j = 0; j < kRowDim; ++j) row[j] = (1.0f - w) * row[j] + w * p[j];
    }
    const int old = res_n;
    res.insert(res.end(), pred.begin() + kOverlap * kRowDim, pred.end());
    res_n += kChunkStep;
    smooth(old - kOverlap, old + 1);
  }
  // The next chunk starts from the row 10 behind this one's end; the
  // expression part of the seed always stays the character's own.
  std::memcpy(seed, kp0, kRowDim * sizeof(float));
  std::memcpy(seed, res.data() + static_cast<size_t>(res_n - 11) * kRowDim, kFiltered * sizeof(float));
}

void xj_motion::smooth(int lo, int hi) {
  lo = std::max(lo, 0);
  hi = std::min(hi, res_n);
  if (lo >= hi) return;
  const int first = std::max(lo - 1, 0);
  const int past = std::min(hi + 1, res_n);
  tapSnap.assign(res.begin() + static_cast<ptrdiff_t>(first) * kRowDim,
                 res.begin() + static_cast<ptrdiff_t>(past) * kRowDim);
  auto snapRow = [&](int i) { return tapSnap.data() + static_cast<size_t>(i - first) * kRowDim; };
  for (int i = lo; i < hi; ++i) {
    const float* prev = i > 0 ? snapRow(i - 1) : nullptr;
    const float* next = i + 1 < res_n ? snapRow(i + 1) : nullptr;
    const float* cur = snapRow(i);
    float* out = res.data() + static_cast<size_t>(i) * kRowDim;
    for (int j = 0; j < kFiltered; ++j) out[j] = tapMean(prev, cur, next, j);
  }
}

void xj_motion::emitFrame(const float* row, int src, float* xs, float* xd) {
  const float* S = srcXsInfo.data() + static_cast<size_t>(src) * kPoseDim;
  if (!first_set) {
    std::memcpy(first_exp, row + kRowExp, sizeof first_exp);
    first_set = true;
  }
  // Only the lips move, by their change since the utterance's first frame.
  std::memcpy(expE, S + kPoseExp, sizeof expE);
  for (int p : kLip)
    for (int c = 0; c < 3; ++c) {
      const int k = 3 * p + c;
      expE[k] = S[kPoseExp + k] + (row[kRowExp + k] - first_exp[k]) * ratio;
    }
  const float pitch = bin66(S + kPosePitch);
  const float yaw = bin66(S + kPoseYaw);
  const float roll = bin66(S + kPoseRoll);
  float R[3][3], R2[3][3];
  poseToR(pitch, yaw, roll, R);
  poseToR(pitch + delta_pitch, yaw, roll, R2);
  const float scale = S[kPoseScale];
  for (int p = 0; p < xj::kHostKpRows; ++p) {
    const float x = S[kPoseCanonical + 3 * p], y = S[kPoseCanonical + 3 * p + 1], z = S[kPoseCanonical + 3 * p + 2];
    for (int c = 0; c < 3; ++c) {
      float a = (x * R[0][c] + y * R[1][c] + z * R[2][c] + S[kPoseExp + 3 * p + c]) * scale;
      float b = (x * R2[0][c] + y * R2[1][c] + z * R2[2][c] + expE[3 * p + c]) * scale;
      if (c < 2) {
        a += S[kPoseT + c];
        b += S[kPoseT + c];
      }
      stA[3 * p + c] = a;
      stB[3 * p + c] = b;
    }
  }
  {
    const float* in[] = {stA, stB};
    const size_t sz[] = {kKpDim, kKpDim};
    const int64_t shape[] = {1, xj::kHostKpRows, 3};
    stitcher.run(in, sz, stOut, kKpDim, shape, 3);
  }
  const float* T = xsTarget.data() + static_cast<size_t>(src) * kKpDim;
  for (int k = 0; k < kKpDim; ++k) {
    xs[k] = T[k];
    xd[k] = (stOut[k] - stA[k]) * s_bridge + T[k];
  }
}

void xj_motion::buildFinal() {
  res_n = std::min(res_n, total);
  res.resize(static_cast<size_t>(res_n) * kRowDim);
  dumpFloats("/res_post.bin", res.data(), res.size());
  smooth(0, res_n);
  final.assign(res.begin(), res.end());
  const float* lo = vMinMax.data();
  const float* hi = lo + kRowDim;
  for (int32_t i = 0; i < res_n; ++i) {
    float* row = final.data() + static_cast<size_t>(i) * kRowDim;
    for (int j = 0; j < kRowDim; ++j) row[j] = std::min(std::max(row[j], lo[j]), hi[j]);
  }
  final_built = true;
  dumpFloats("/final.bin", final.data(), final.size());
}

void xj_motion::streamRow(int f, float* out) {
  const float* cur = res.data() + static_cast<size_t>(f) * kRowDim;
  const float* prev = f > 0 ? cur - kRowDim : nullptr;
  const float* next = f + 1 < res_n ? cur + kRowDim : nullptr;
  std::memcpy(out, cur, kRowDim * sizeof(float));
  for (int j = 0; j < kFiltered; ++j) out[j] = tapMean(prev, cur, next, j);
  const float* lo = vMinMax.data();
  const float* hi = lo + kRowDim;
  for (int j = 0; j < kRowDim; ++j) out[j] = std::min(std::max(out[j], lo[j]), hi[j]);
}

// ---- cadence ---------------------------------------------------------------

void xj_motion::reset(int start, int dir_, int loop) {
  if (start < 0) start = 0;
  if (start > nt - 1) start = nt - 1;
  drive_pos = start;
  drive_dir = dir_ < 0 ? -1 : 1;
  drive_wrap = loop;
  pcm.clear();
  cond.clear();
  cond_n = 0;
  res.clear();
  res_n = 0;
  final.clear();
  std::memcpy(kp, kp0, sizeof kp);
  std::memset(first_exp, 0, sizeof first_exp);
  first_set = false;
  finished = false;
  total = -1;
  win_next = 0;
  chunk_n = 0;
  final_built = false;
  emitted = 0;
  prov_cond = 0;
  snap_set = false;
  snap_n = 0;
  eager_frames = 0;
  eager_hi = -1;
  chunk_fresh = false;
  dumpEmitStarted = false;
}

void xj_motion::push(const float* samples, int count) { pcm.insert(pcm.end(), samples, samples + count); }

void xj_motion::finish() {
  if (finished) return;
  finished = true;
  total = static_cast<int32_t>((pcm.size() + kFrameSamples - 1) / kFrameSamples);
  if (!dumpDir.empty()) {
    runStages();
    dumpFloats("/cond.bin", cond.data(), static_cast<size_t>(cond_n) * kCondDim);
  }
}

void xj_motion::rollbackProvisional() {
  if (prov_cond == 0) return;
  cond_n -= prov_cond;
  cond.resize(static_cast<size_t>(cond_n) * kCondDim);
  prov_cond = 0;
}

void xj_motion::restoreSnapshot() {
  res_n = snap_n;
  res.resize(static_cast<size_t>(res_n) * kRowDim);
  const int keep = std::min(res_n, kOverlap);
  std::memcpy(res.data() + static_cast<size_t>(res_n - keep) * kRowDim, snap_rows,
              static_cast<size_t>(keep) * kRowDim * sizeof(float));
  snap_set = false;
}

void xj_motion::runStages() {
  // 1. Real windows: all the audio they read has come (or the utterance ended).
  for (;;) {
    const bool can = finished ? win_next < total
                              : static_cast<int64_t>(pcm.size()) >=
                                    static_cast<int64_t>(win_next) * kFrameSamples + kWindowAhead;
    if (!can) break;
    rollbackProvisional();
    processWindow(win_next);
    win_next += kWindowFrames;
  }
  // 2. End of audio: no provisional row survives, and no row past the end.
  if (finished) {
    rollbackProvisional();
    if (cond_n > total) {
      cond_n = total;
      cond.resize(static_cast<size_t>(cond_n) * kCondDim);
    }
  }
  // 3. Real chunks.
  for (;;) {
    const int s = kChunkStep * chunk_n;
    const bool can = (cond_n - prov_cond) > s + kChunk - 1 || (finished && s < std::min(total, cond_n));
    if (!can) break;
    if (snap_set) restoreSnapshot();
    runChunk(s, INT_MAX, kp);
    ++chunk_n;
    chunk_fresh = true;
  }
  // 4. The final result, once.
  if (finished && !final_built && kChunkStep * chunk_n >= total) buildFinal();
  // 5. A speculative pass over what audio has come.
  if (eager != 0 && !finished && !final_built) {
    const int a = static_cast<int>((pcm.size() + kFrameSamples - 1) / kFrameSamples);
    const int step = eagerStep(eager, emitted > 0, eager_ms);
    if (chunk_fresh || a - eager_frames >= step) eagerAdvance();
  }
}

void xj_motion::eagerAdvance() {
  const auto t0 = std::chrono::steady_clock::now();
  const int a = static_cast<int>((pcm.size() + kFrameSamples - 1) / kFrameSamples);
  rollbackProvisional();
  // Audio past what has come reads as silence, so these rows are provisional
  // and go before the next real window.
  for (int f = win_next; f < a; f += kWindowFrames) {
    processWindow(f);
    prov_cond += kWindowFrames;
  }
  if (snap_set) restoreSnapshot();
  if (a > kChunkStep * chunk_n) {
    snap_n = res_n;
    const int keep = std::min(res_n, kOverlap);
    std::memcpy(snap_rows, res.data() + static_cast<size_t>(res_n - keep) * kRowDim,
                static_cast<size_t>(keep) * kRowDim * sizeof(float));
    snap_set = true;
    std::memcpy(kpEager, kp, sizeof kpEager);
    for (int s = kChunkStep * chunk_n; s < a; s += kChunkStep) runChunk(s, a, kpEager);
  }
  eager_frames = a;
  chunk_fresh = false;
  eager_hi = std::max(eager_hi, a - 1);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  eager_ms = eager_ms == 0.0 ? ms : 0.7 * eager_ms + 0.3 * ms;
}

int xj_motion::ready() const {
  if (final_built) return res_n - emitted;
  const int hi = eager != 0 ? std::min(res_n - 1, eager_hi) : std::min(res_n - 11, cond_n - 1);
  return std::max(0, hi - emitted);
}

int xj_motion::avail() {
  runStages();
  return ready();
}

int xj_motion::advanceCursor() {
  const int src = drive_pos;
  if (drive_wrap) {
    drive_pos = ((drive_pos + drive_dir) % nt + nt) % nt;
  } else {
    int p = drive_pos + drive_dir;
    if (p < 0) {
      p = 1;
      drive_dir = 1;
    }
    if (p >= nt) {
      p = nt - 2;
      drive_dir = -1;
    }
    drive_pos = std::min(std::max(p, 0), nt - 1);
  }
  return src;
}

int xj_motion::pull(int32_t* rows, float* xs, float* xd, int n) {
  runStages();
  const int count = std::min(ready(), n);
  for (int i = 0; i < count; ++i) {
    const int f = emitted;
    const bool fromFinal = final_built;
    const float* row = rowBuf;
    if (fromFinal) row = final.data() + static_cast<size_t>(f) * kRowDim;
    else streamRow(f, rowBuf);
    const int src = advanceCursor();
    if (rows) rows[i] = src;
    float* outXs = xs + static_cast<size_t>(i) * kKpDim;
    float* outXd = xd + static_cast<size_t>(i) * kKpDim;
    emitFrame(row, src, outXs, outXd);
    ++emitted;
    if (!dumpDir.empty()) {
      // xs/xd: every frame since reset; xsla/xdla: those that left before the final result.
      if (!dumpEmitStarted) {
        for (const char* name : {"/xs.bin", "/xd.bin", "/xsla.bin", "/xdla.bin"}) dumpFloats(name, nullptr, 0);
        dumpEmitStarted = true;
      }
      dumpFloats("/xs.bin", outXs, kKpDim, true);
      dumpFloats("/xd.bin", outXd, kKpDim, true);
      if (!fromFinal) {
        dumpFloats("/xsla.bin", outXs, kKpDim, true);
        dumpFloats("/xdla.bin", outXd, kKpDim, true);
      }
    }
  }
  return count;
}

void xj_motion::dumpFloats(const char* name, const float* data, size_t n, bool append) const {
  if (dumpDir.empty()) return;
  const std::string path = dumpDir + name;
  FILE* f = std::fopen(path.c_str(), append ? "ab" : "wb");
  if (!f) {
    std::fprintf(stderr, "[xj] motion dump: cannot write %s\n", path.c_str());
    return;
  }
  if (n) std::fwrite(data, sizeof(float), n, f);
  std::fclose(f);
}
