// The numeric path from audio to keypoint rows against a plain float64
// reference of the same arithmetic, through the documented test graphs:
//   student  feat[r][d] = mel[d % 80][r]
//   lmdm     pred[i][j] = 0.6 kp[j] + 0.4 tanh(c[i][j]) + 0.05 mean_k c[i][k] + 0.1 tanh(mean_i c[i][j])
//   stitch   st = 0.3 a + 0.7 b          (stitch_pass: st = b)
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "audio/xj_motion.h"
#include "audio/xj_motion_mel.h"
#include "motion_util.h"

using namespace motiontest;
namespace xm = xj::motion;

namespace {

constexpr int kRow = 265, kCond = 1103, kF = 202;
constexpr int kLips[6] = {6, 12, 14, 17, 19, 20};

std::vector<float> table(const std::string& dir, const std::string& name) { return readF32(dir + "/" + name); }

// Everything the reference needs of a motion directory.
struct Tables {
  std::vector<float> ch, src, target, bounds, emo, eyeOpen, eyeBall, sc, fmean, fstd, window, binmat;
  explicit Tables(const std::string& d)
      : ch(table(d, "ch_xs_info.bin")),
        src(table(d, "src_xs_info.bin")),
        target(table(d, "xs_target.bin")),
        bounds(table(d, "v_min_max.bin")),
        emo(table(d, "emo.bin")),
        eyeOpen(table(d, "ch_eye_open.bin")),
        eyeBall(table(d, "ch_eye_ball.bin")),
        sc(table(d, "ch_sc.bin")),
        fmean(table(d, "hubert_fmean.bin")),
        fstd(table(d, "hubert_fstd.bin")),
        window(table(d, "hubert_stft_window.bin")),
        binmat(table(d, "hubert_stft_binmat.bin")) {}

  // The character's pose record in the generator's row layout.
  std::vector<float> kp0() const {
    std::vector<float> k(kRow);
    k[0] = ch[258] - 1.0f;
    for (int i = 0; i < 66; ++i) {
      k[1 + i] = ch[126 + i];   // pitch
      k[67 + i] = ch[262 + i];  // yaw
      k[133 + i] = ch[192 + i]; // roll
    }
    for (int i = 0; i < 3; ++i) k[199 + i] = ch[259 + i];
    for (int i = 0; i < 63; ++i) k[202 + i] = ch[i];
    return k;
  }
};

// Three-tap mean of the first 202 values over rows [lo, hi), from a snapshot.
void tap(std::vector<double>& res, int n, int lo, int hi) {
  const std::vector<double> snap = res;
  for (int i = std::max(lo, 0); i < std::min(hi, n); ++i)
    for (int j = 0; j < kF; ++j) {
      double sum = snap[i * kRow + j];
      int count = 1;
      if (i > 0) sum += snap[(i - 1) * kRow + j], ++count;
      if (i + 1 < n) sum += snap[(i + 1) * kRow + j], ++count;
      res[i * kRow + j] = sum / count;
    }
}

// The generator runs of a finished utterance over real condition rows.
std::vector<double> referenceRes(const Tables& t, const std::vector<float>& cond, int total) {
  const int condN = static_cast<int>(cond.size() / kCond);
  const auto k0 = t.kp0();
  std::vector<double> kp(k0.begin(), k0.end());
  std::vector<double> res;
  int n = 0;
  for (int s = 0; s < std::min(total, condN); s += 70) {
    const int last = std::min(condN - s - 1, 79);
    std::vector<double> chunkMean(kRow, 0.0), pred(80 * kRow);
    for (int i = 0; i < 80; ++i)
      for (int j = 0; j < kRow; ++j) chunkMean[j] += cond[(s + std::min(i, last)) * kCond + j] / 80.0;
    for (int i = 0; i < 80; ++i) {
      const float* c = &cond[(s + std::min(i, last)) * kCond];
      double mean = 0.0;
      for (int k = 0; k < kCond; ++k) mean += c[k];
      mean /= kCond;
      for (int j = 0; j < kRow; ++j)
        pred[i * kRow + j] = 0.6 * kp[j] + 0.4 * std::tanh(c[j]) + 0.05 * mean + 0.1 * std::tanh(chunkMean[j]);
    }
    if (n == 0) {
      res = pred;
      n = 80;
      tap(res, n, 0, 80);
    } else {
      for (int i = 0; i < 10; ++i)
        for (int j = 0; j < kRow; ++j) {
          double& v = res[(n - 10 + i) * kRow + j];
          v = (1.0 - i / 10.0) * v + (i / 10.0) * pred[i * kRow + j];
        }
      res.insert(res.end(), pred.begin() + 10 * kRow, pred.end());
      const int old = n;
      n += 70;
      tap(res, n, old - 10, old + 1);
    }
    kp.assign(k0.begin(), k0.end());
    for (int j = 0; j < kF; ++j) kp[j] = res[(n - 11) * kRow + j];
  }
  res.resize(static_cast<size_t>(std::min(n, total)) * kRow);
  return res;
}

double bin66(const float* l) {
  double top = l[0];
  for (int i = 1; i < 66; ++i) top = std::max<double>(top, l[i]);
  double sum = 0.0, acc = 0.0;
  for (int i = 0; i < 66; ++i) {
    const double e = std::exp(l[i] - top);
    sum += e;
    acc += i * e;
  }
  return acc / sum * 3.0 - 97.5;
}

void rotation(double pitch, double yaw, double roll, double R[3][3]) {
  const double d = 3.14159265358979323846 / 180.0;
  const double sp = std::sin(pitch * d), cp = std::cos(pitch * d), sy = std::sin(yaw * d), cy = std::cos(yaw * d),
               sr = std::sin(roll * d), cr = std::cos(roll * d);
  const double m[3][3] = {{cy * cr, cy * sr, -sy},
                          {sp * sy * cr - sr * cp, cp * cr + sp * sy * sr, sp * cy},
                          {sp * sr + cp * sy * cr, cp * sy * sr - cr * sp, cp * cy}};
  std::memcpy(R, m, sizeof m);
}

// One driven keypoint row, as the standard stitch (0.3 a + 0.7 b) gives it.
void referenceXd(const Tables& t, const float* row, int src, const float* firstExp, double sBridge, double deltaPitch,
                 double* xd) {
  const float* S = &t.src[src * 328];
  const double ratio = static_cast<double>(t.ch[258]) / t.src[258];
  double E[63];
  for (int k = 0; k < 63; ++k) E[k] = S[k];
  for (int p : kLips)
    for (int c = 0; c < 3; ++c) E[3 * p + c] += (static_cast<double>(row[202 + 3 * p + c]) - firstExp[3 * p + c]) * ratio;
  const double pitch = bin66(S + 126), yaw = bin66(S + 262), roll = bin66(S + 192);
  double R[3][3], R2[3][3];
  rotation(pitch, yaw, roll, R);
  rotation(pitch + deltaPitch, yaw, roll, R2);
  for (int p = 0; p < 21; ++p)
    for (int c = 0; c < 3; ++c) {
      const double x = S[63 + 3 * p], y = S[64 + 3 * p], z = S[65 + 3 * p];
      double a = (x * R[0][c] + y * R[1][c] + z * R[2][c] + S[3 * p + c]) * S[258];
      double b = (x * R2[0][c] + y * R2[1][c] + z * R2[2][c] + E[3 * p + c]) * S[258];
      if (c < 2) a += S[259 + c], b += S[259 + c];
      const double st = 0.3 * a + 0.7 * b;
      xd[3 * p + c] = (st - a) * sBridge + t.target[src * 63 + 3 * p + c];
    }
}

// Pushes `total` frames of speech (the last frame short), finishes with the dump on.
struct DumpedUtterance {
  xjtest::TempDir dump;
  std::vector<float> audio;
  Frames frames;
  DumpedUtterance(const std::string& dir, int total, int eager = 0) {
    xjtest::ScopedEnv env("XJ_MOTION_DUMP", dump.path().c_str());
    Motion h(dir);
    if (!h.m) {
      ADD_FAILURE() << h.error;
      return;
    }
    audio = speech(static_cast<size_t>(total) * 640 - 100, 21);
    frames = utterance(h.m, audio, 2000, eager, true);
    EXPECT_EQ(xj_motion_total(h.m), total);
  }
  std::vector<float> file(const std::string& name) const { return readF32(dump / name); }
};

}  // namespace

TEST(MotionNumeric, ConditionRowsFollowTheirWindows) {
  const Tables t(motionDir());
  const int total = 83;
  DumpedUtterance u(motionDir(), total);
  const auto cond = u.file("cond.bin");
  ASSERT_EQ(cond.size(), static_cast<size_t>(total) * kCond) << "cut to the utterance";
  const xm::FftTwiddles tw;
  std::vector<float> win(6480), mel(1680), feat(20 * 1024);
  for (int w = 0; w < total; w += 5) {
    for (int i = 0; i < 6480; ++i) {
      const long at = static_cast<long>(w) * 640 - 2000 + i;
      win[i] = (at >= 0 && at < static_cast<long>(u.audio.size())) ? u.audio[at] : 0.0f;
    }
    xm::logMel(win.data(), t.window.data(), t.binmat.data(), tw, mel.data());
    for (int r = 0; r < 20; ++r)
      for (int d = 0; d < 1024; ++d) feat[r * 1024 + d] = mel[(d % 80) * 21 + r] * t.fstd[d] + t.fmean[d];
    for (int k = 0; k < 5 && w + k < total; ++k) {
      const int f = w + k;
      const float* row = &cond[f * kCond];
      for (int d = 0; d < 1024; ++d)
        ASSERT_EQ(row[d], (feat[(6 + 2 * k) * 1024 + d] + feat[(7 + 2 * k) * 1024 + d]) * 0.5f) << f << "," << d;
      for (int e = 0; e < 8; ++e) ASSERT_EQ(row[1024 + e], t.emo[(f % 3) * 8 + e]) << "emotion cycles by frame " << f;
      for (int e = 0; e < 2; ++e) ASSERT_EQ(row[1032 + e], t.eyeOpen[e]);
      for (int e = 0; e < 6; ++e) ASSERT_EQ(row[1034 + e], t.eyeBall[e]);
      for (int e = 0; e < 63; ++e) ASSERT_EQ(row[1040 + e], t.sc[e]);
    }
  }
  // The first generator run: seeded with the character's pose, fed rows 0..79.
  EXPECT_EQ(u.file("lmdm0_kp.bin"), t.kp0());
  const auto aud = u.file("lmdm0_aud.bin");
  ASSERT_EQ(aud.size(), 80u * kCond);
  EXPECT_TRUE(std::equal(aud.begin(), aud.end(), cond.begin()));
}

TEST(MotionNumeric, AShortUtteranceRepeatsItsLastConditionRow) {
  const int total = 33;
  DumpedUtterance u(motionDir(), total);
  EXPECT_EQ(u.frames.count(), total);
  const auto cond = u.file("cond.bin");
  const auto aud = u.file("lmdm0_aud.bin");
  ASSERT_EQ(cond.size(), static_cast<size_t>(total) * kCond);
  ASSERT_EQ(aud.size(), 80u * kCond);
  for (int i = 0; i < 80; ++i) {
    const int from = std::min(i, total - 1);
    ASSERT_TRUE(std::equal(aud.begin() + i * kCond, aud.begin() + (i + 1) * kCond, cond.begin() + from * kCond))
        << "generator row " << i;
  }
}

// Chunks, cross-fades, the three-tap passes, the cut, the bounds and the
// keypoint rows of every frame, for utterances of one to four chunks.
TEST(MotionNumeric, ChunksMergeFilterAndEmitAsTheReferenceDoes) {
  const Tables t(motionDir());
  for (int total : {33, 75, 150, 223}) {
    SCOPED_TRACE("total " + std::to_string(total));
    DumpedUtterance u(motionDir(), total);
    const auto cond = u.file("cond.bin");
    const auto want = referenceRes(t, cond, total);
    const auto post = u.file("res_post.bin");
    ASSERT_EQ(post.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(post[i], want[i], 2e-5) << "res row " << i / kRow;

    // The final pass filters once more from the rows as they ended, then bounds them.
    std::vector<double> fin(post.begin(), post.end());
    tap(fin, total, 0, total);
    const auto final = u.file("final.bin");
    ASSERT_EQ(final.size(), fin.size());
    int clamped = 0;
    for (size_t i = 0; i < fin.size(); ++i) {
      const int j = static_cast<int>(i % kRow);
      const double lo = t.bounds[j], hi = t.bounds[kRow + j];
      const double v = std::min(std::max(fin[i], lo), hi);
      clamped += v != fin[i];
      ASSERT_NEAR(final[i], v, 2e-5) << "final row " << i / kRow << " value " << j;
    }
    EXPECT_GT(clamped, 0) << "the bounds bite somewhere in the fixture";

    // Every frame that left: the streaming rows and the final rows agree, so
    // each is the reference's keypoint row of the final motion row.
    ASSERT_EQ(u.frames.count(), total);
    const float* firstExp = &final[202];
    for (int f = 0; f < total; ++f) {
      double xd[63];
      referenceXd(t, &final[f * kRow], u.frames.rows[f], firstExp, 1.5, 2.5, xd);
      for (int k = 0; k < 63; ++k) {
        ASSERT_NEAR(u.frames.xdRow(f)[k], xd[k], 1e-4) << "frame " << f << " value " << k;
        ASSERT_EQ(u.frames.xsRow(f)[k], t.target[u.frames.rows[f] * 63 + k]);
      }
    }
    const auto xd = u.file("xd.bin");
    EXPECT_EQ(xd, u.frames.xd) << "the dump holds every frame that left";
  }
}

TEST(MotionNumeric, HelpersOfThePose) {
  float flat[66];
  for (auto& v : flat) v = 0.25f;
  EXPECT_FLOAT_EQ(xm::bin66(flat), 0.0f) << "uniform logits sit on bin 32.5";
  float peak[66];
  for (int i = 0; i < 66; ++i) peak[i] = i == 40 ? 1000.0f : -1000.0f;
  EXPECT_FLOAT_EQ(xm::bin66(peak), 40 * 3 - 97.5f) << "large logits do not overflow";
  std::vector<float> random(66);
  for (int i = 0; i < 66; ++i) random[i] = std::sin(i * 1.7f) * 3.0f;
  EXPECT_NEAR(xm::bin66(random.data()), bin66(random.data()), 1e-4);

  for (const auto& a : {std::array<float, 3>{0, 0, 0}, std::array<float, 3>{12.5f, -30, 7},
                        std::array<float, 3>{-80, 45, 170}}) {
    float R[3][3];
    double W[3][3];
    xm::poseToR(a[0], a[1], a[2], R);
    rotation(a[0], a[1], a[2], W);
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(R[r][c], W[r][c], 1e-6) << r << c;
  }
}

// With no lip motion, no pitch offset and a stitch that passes b through, the
// driven row is the target row to the bit; each of the three changes moves it.
TEST(MotionNumeric, DrivenEqualsTargetOnlyWithoutMotionOffsetOrMix) {
  const struct {
    double deltaPitch;
    bool lipsHeld;
    bool lipsEqual, othersEqual;
  } cases[] = {
      {0.0, true, true, true},
      {0.0, false, false, true},
      {2.5, true, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("delta_pitch " + std::to_string(c.deltaPitch) + (c.lipsHeld ? " lips held" : " lips free"));
    MotionCopy copy;
    xjtest::writeFile(copy.member("stitch.onnx"), xjtest::readFile(graphVariant("stitch_pass.onnx")));
    xjtest::writeFile(copy.member("meta.json"), "{\"nt\": 5, \"n_src\": 5, \"n_emo\": 3, \"s_bridge\": 1.5, "
                                                "\"delta_pitch\": " + std::to_string(c.deltaPitch) + "}");
    if (c.lipsHeld) {
      auto b = readF32(copy.member("v_min_max.bin"));
      for (int j = 202; j < 265; ++j) b[j] = b[265 + j] = 0.125f;
      writeF32(copy.member("v_min_max.bin"), b);
    }
    for (int eager : {0, 1}) {
      Motion h(copy.dir);
      ASSERT_NE(h.m, nullptr) << h.error;
      const Frames fr = utterance(h.m, speech(640 * 120, 4), 1280, eager, true);
      ASSERT_EQ(fr.count(), 120);
      bool lipsEqual = true, othersEqual = true;
      for (int f = 0; f < fr.count(); ++f)
        for (int k = 0; k < 63; ++k) {
          const bool lip = std::find(std::begin(kLips), std::end(kLips), k / 3) != std::end(kLips);
          const bool same = fr.xdRow(f)[k] == fr.xsRow(f)[k];
          (lip ? lipsEqual : othersEqual) &= same;
        }
      EXPECT_EQ(lipsEqual, c.lipsEqual) << "eager " << eager;
      EXPECT_EQ(othersEqual, c.othersEqual) << "eager " << eager;
    }
  }
}
