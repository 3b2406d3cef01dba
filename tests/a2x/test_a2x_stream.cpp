// The a2x handle in streaming use. This program runs twice under CTest: once
// with the short-window pair beside $W2V_ONNX, once with the 8 s window alone.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

#include "a2x_testutil.h"
#include "audio/xj_a2x.h"
#include "audio/xj_a2x_w2v.h"

using a2xtest::Frames;

namespace {

const std::string kBundle = xjtest::fixture("a2x");

struct Handle {
  xj_a2x* h;
  explicit Handle(const std::string& dir = kBundle) : h(xj_a2x_create(dir.c_str(), 1)) {}
  ~Handle() { xj_a2x_destroy(h); }
};

// How a test feeds the audio: cut points, and whether to poll after each push.
enum class Poll { EveryPush, BlockEdges };

struct Feed {
  Frames frames;
  std::map<int64_t, int> availAt;  // settled avail count after the push that reached a total
};

Feed feed(const std::vector<float>& audio, const std::vector<size_t>& cuts, Poll poll) {
  Handle a;
  EXPECT_NE(a.h, nullptr) << xj_a2x_last_error();
  Feed r;
  size_t at = 0;
  for (size_t cut : cuts) {
    xj_a2x_push(a.h, audio.data() + at, static_cast<int>(cut - at));
    at = cut;
    if (poll == Poll::EveryPush || at % xj::a2x::kBlockSamples == 0) {
      r.availAt[static_cast<int64_t>(at)] = a2xtest::settle(a.h) + static_cast<int>(r.frames.count());
      a2xtest::drain(a.h, r.frames);
    }
  }
  xj_a2x_finish(a.h);
  a2xtest::settle(a.h);
  a2xtest::drain(a.h, r.frames);
  EXPECT_EQ(static_cast<int>(r.frames.count()), xj_a2x_total(a.h));
  return r;
}

std::vector<size_t> everyN(size_t total, size_t n) {
  std::vector<size_t> c;
  for (size_t i = n; i < total; i += n) c.push_back(i);
  c.push_back(total);
  return c;
}

// Random cuts; with `edges` every block edge is a cut too.
std::vector<size_t> randomCuts(size_t total, unsigned seed, bool edges) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<size_t> step(1, 9000);
  std::vector<size_t> c;
  for (size_t i = step(rng); i < total; i += step(rng)) c.push_back(i);
  if (edges)
    for (size_t e = xj::a2x::kBlockSamples; e < total; e += xj::a2x::kBlockSamples) c.push_back(e);
  c.push_back(total);
  std::sort(c.begin(), c.end());
  c.erase(std::unique(c.begin(), c.end()), c.end());
  return c;
}

void expectSameFrames(const Frames& a, const Frames& b, const char* what) {
  ASSERT_EQ(a.count(), b.count()) << what;
  EXPECT_EQ(a.rows, b.rows) << what;
  EXPECT_EQ(0, std::memcmp(a.xs.data(), b.xs.data(), a.xs.size() * 4)) << what;
  EXPECT_EQ(0, std::memcmp(a.xd.data(), b.xd.data(), a.xd.size() * 4)) << what;
  EXPECT_EQ(0, std::memcmp(a.wn.data(), b.wn.data(), a.wn.size() * 4)) << what;
}

}  // namespace

TEST(A2xStream, OpensWithTheBundleMembers) {
  Handle a;
  ASSERT_NE(a.h, nullptr) << xj_a2x_last_error();
  EXPECT_EQ(xj_a2x_nt(a.h), 7);
  EXPECT_EQ(xj_a2x_width(a.h), 1);
  EXPECT_EQ(a.h->short_window, a2xtest::pairMode());
  // Hold-back: 12 frames of margin, 8 more behind the pair's block.
  EXPECT_EQ(a.h->right, a2xtest::pairMode() ? 20 : 12);
  EXPECT_EQ(a.h->right_reach, 4);
  EXPECT_EQ(a.h->left_reach, 8);
  EXPECT_EQ(xj_a2x_nt(nullptr), 0);
  Handle canonical(xjtest::fixture("a2x_canonical"));
  EXPECT_NE(canonical.h, nullptr) << xj_a2x_last_error();
}

TEST(A2xStream, PushSizeInvariance) {
  const std::vector<float> audio = a2xtest::speech(16000 * 3 + 333, 5);
  const size_t n = audio.size();
  if (a2xtest::pairMode()) {
    // The pair reads only whole blocks of audio: any cut, any polling, the same rows.
    const Feed one = feed(audio, {n}, Poll::EveryPush);
    const Feed bySample = feed(audio, everyN(n, 1), Poll::EveryPush);
    const Feed byBlock = feed(audio, everyN(n, 5120), Poll::EveryPush);
    const Feed random = feed(audio, randomCuts(n, 9, false), Poll::EveryPush);
    expectSameFrames(one.frames, bySample.frames, "one piece / one sample at a time");
    expectSameFrames(one.frames, byBlock.frames, "one piece / blocks");
    expectSameFrames(one.frames, random.frames, "one piece / random cuts");
    for (const auto* r : {&byBlock, &random})
      for (const auto& [total, avail] : r->availAt) EXPECT_EQ(avail, bySample.availAt.at(total)) << "at " << total;
  } else {
    // The 8 s window reads the audio up to what is visible when it runs: the
    // same reads at the same totals give the same rows, whatever the cuts.
    const Feed bySample = feed(audio, everyN(n, 1), Poll::BlockEdges);
    const Feed byBlock = feed(audio, everyN(n, 5120), Poll::BlockEdges);
    const Feed random = feed(audio, randomCuts(n, 9, true), Poll::BlockEdges);
    expectSameFrames(byBlock.frames, bySample.frames, "blocks / one sample at a time");
    expectSameFrames(byBlock.frames, random.frames, "blocks / random cuts");
    EXPECT_EQ(byBlock.availAt, bySample.availAt);
    EXPECT_EQ(byBlock.availAt, random.availAt);
  }
}

TEST(A2xStream, HoldBackAndTail) {
  Handle a;
  ASSERT_NE(a.h, nullptr);
  const std::vector<float> audio = a2xtest::speech(16000 * 2, 6);
  // The first frame leaves once the hold-back is visible beyond it; visibility
  // grows by whole blocks of 8 frames, within 639 samples of the block edge.
  const int holdBack = a2xtest::pairMode() ? 20 : 12;
  const int firstVisible = (holdBack / 8 + 1) * 8;  // 24 with the pair, 16 with the 8 s window
  const int64_t firstTotal = static_cast<int64_t>(firstVisible) * 640 - 639;
  for (int64_t t = 0; t < static_cast<int64_t>(audio.size()); ++t) {
    xj_a2x_push(a.h, &audio[static_cast<size_t>(t)], 1);
    if ((t + 1) % 97 != 0 && t + 1 != firstTotal && t + 2 != firstTotal) continue;
    const int avail = a2xtest::settle(a.h);
    if (t + 1 < firstTotal) ASSERT_EQ(avail, 0) << "at total " << t + 1;
    else {
      ASSERT_GT(avail, 0) << "at total " << t + 1;
      EXPECT_EQ(avail, firstVisible - holdBack);
      break;
    }
  }
  // After finish the whole tail comes at once.
  xj_a2x_push(a.h, audio.data() + firstTotal, static_cast<int>(audio.size() - firstTotal));
  xj_a2x_finish(a.h);
  EXPECT_EQ(a2xtest::settle(a.h), xj_a2x_total(a.h));
  EXPECT_EQ(xj_a2x_total(a.h), 50);
}

TEST(A2xStream, TotalCountsSamplesSinceReset) {
  Handle a;
  ASSERT_NE(a.h, nullptr);
  const std::vector<float> audio(1000, 0.1f);
  EXPECT_EQ(xj_a2x_total(a.h), -1);
  for (auto [n, frames] : {std::pair{0, 0}, {1, 1}, {640, 1}, {641, 2}}) {
    xj_a2x_reset(a.h, 0, 1, 1);
    xj_a2x_push(a.h, audio.data(), n);
    EXPECT_EQ(xj_a2x_total(a.h), -1);
    xj_a2x_finish(a.h);
    EXPECT_EQ(xj_a2x_total(a.h), frames) << n << " samples";
    xj_a2x_push(a.h, audio.data(), 640);  // a push after finish still counts
    EXPECT_EQ(xj_a2x_total(a.h), frames + 1);
  }
  xj_a2x_reset(a.h, 0, 1, 1);
  xj_a2x_push(a.h, audio.data(), 1);
  xj_a2x_finish(a.h);
  EXPECT_EQ(a2xtest::settle(a.h), 1);
  int32_t row;
  float xs[63], xd[63];
  EXPECT_EQ(xj_a2x_pull(a.h, &row, xs, xd, 0), 0);
  EXPECT_EQ(xj_a2x_pull(a.h, &row, xs, xd, 5), 1);
  EXPECT_EQ(xj_a2x_pull(a.h, &row, xs, xd, 5), 0);
}

TEST(A2xStream, UtterancesAreIndependentAndRowsFollowTheDrive) {
  Handle a;
  ASSERT_NE(a.h, nullptr);
  const std::vector<float> audio = a2xtest::speech(16000, 7);
  const std::string xsBytes = xjtest::readFile(kBundle + "/xs_target.bin");
  const auto* table = reinterpret_cast<const float*>(xsBytes.data());
  Frames first, second;
  for (Frames* f : {&first, &second}) {
    xj_a2x_reset(a.h, 3, -1, 1);
    xj_a2x_push(a.h, audio.data(), static_cast<int>(audio.size()));
    xj_a2x_finish(a.h);
    a2xtest::settle(a.h);
    a2xtest::drain(a.h, *f);
  }
  expectSameFrames(first, second, "two utterances from a reset");
  ASSERT_EQ(first.count(), 25u);
  for (size_t k = 0; k < first.count(); ++k) {
    EXPECT_EQ(first.rows[k], xj::a2x::driveRow(7, 3, -1, true, static_cast<int64_t>(k)));
    EXPECT_EQ(0, std::memcmp(&first.xs[k * 63], table + 63 * first.rows[k], 252));
  }
  // A negative start continues where the old drive stands (frame 25 of it).
  xj_a2x_reset(a.h, -1, 1, 1);
  xj_a2x_push(a.h, audio.data(), 640);
  xj_a2x_finish(a.h);
  a2xtest::settle(a.h);
  Frames third;
  a2xtest::drain(a.h, third);
  ASSERT_EQ(third.count(), 1u);
  EXPECT_EQ(third.rows[0], xj::a2x::driveRow(7, 3, -1, true, 25));
}

TEST(A2xStream, DeltasMoveWithTheAudio) {
  // The predicted delta is the decoder's state at work: silence and speech differ,
  // and every frame's delta is finite.
  Handle a;
  ASSERT_NE(a.h, nullptr);
  Frames speech, silence;
  const std::vector<float> audio = a2xtest::speech(16000 * 3, 8), quiet(16000 * 3, 0.0f);
  for (auto [f, src] : {std::pair{&speech, &audio}, {&silence, &quiet}}) {
    xj_a2x_reset(a.h, 0, 1, 1);
    xj_a2x_push(a.h, src->data(), static_cast<int>(src->size()));
    xj_a2x_finish(a.h);
    a2xtest::settle(a.h);
    a2xtest::drain(a.h, *f);
  }
  ASSERT_EQ(speech.count(), silence.count());
  double diff = 0;
  for (size_t i = 0; i < speech.xd.size(); ++i) {
    ASSERT_TRUE(std::isfinite(speech.xd[i]));
    diff += std::fabs(speech.xd[i] - silence.xd[i]);
  }
  EXPECT_GT(diff / static_cast<double>(speech.xd.size()), 1e-4);
  // 75 frames run past the 64-row positional table: no seam error.
  EXPECT_STREQ(xj_a2x_last_error(), "");
}

TEST(A2xStream, LongUtteranceKeepsBoundedBuffers) {
  Handle a;
  ASSERT_NE(a.h, nullptr);
  // Ten minutes with the pair; the 8 s window costs a full window per block, so
  // it runs three (over a hundred trim cycles either way).
  const bool shortRun = std::getenv("XJ_TEST_SHORT") != nullptr;
  const int seconds = shortRun ? 60 : a2xtest::pairMode() ? 600 : 180;
  const std::vector<float> audio = a2xtest::speech(16000 * 20, 9);
  size_t maxPcm = 0, maxFeat = 0, maxCtx = 0, maxDeltas = 0;
  int64_t pulled = 0;
  int32_t rows[8];
  float xs[8 * 63], xd[8 * 63];
  // Real-time steps: one frame of audio pushed, then whatever is ready pulled.
  for (int64_t s = 0; s < static_cast<int64_t>(seconds) * 16000; s += 640) {
    xj_a2x_push(a.h, audio.data() + s % static_cast<int64_t>(audio.size()), 640);
    xj_a2x_avail(a.h);
    pulled += xj_a2x_pull(a.h, rows, xs, xd, 8);
    maxPcm = std::max(maxPcm, a.h->pcm.size());
    maxFeat = std::max(maxFeat, a.h->feat.size() / xj::a2x::kFeatFloats);
    maxCtx = std::max(maxCtx, a.h->ctx.size() / static_cast<size_t>(a.h->h));
    maxDeltas = std::max(maxDeltas, a.h->deltas.size() / 63);
  }
  EXPECT_GT(pulled, static_cast<int64_t>(seconds) * 25 - 40);
  EXPECT_STREQ(xj_a2x_last_error(), "");
  // The bounds follow from the trim thresholds, whatever the length.
  // The 8 s window keeps the audio of its whole window behind the trim point.
  EXPECT_LT(maxPcm, 81920u + 32000u + (a2xtest::pairMode() ? 0u : 128000u) + 64 * 640u);
  EXPECT_LT(maxFeat, 128u + 64u + 200u);
  EXPECT_LT(maxCtx, 128u + 64u + 8u);
  EXPECT_LT(maxDeltas, 128u + 64u + 8u);
}

TEST(A2xStream, WholeUtteranceForm) {
  // The stream cuts its bands at the end of the positional table's first pass
  // and the whole-utterance form does not: compare where no band meets that end.
  Handle a(xjtest::fixture("a2x_longpos"));
  ASSERT_NE(a.h, nullptr);
  const std::vector<float> audio = a2xtest::speech(16000 * 5 + 17, 10);
  const int n = static_cast<int>(audio.size());
  const int T = (n + 639) / 640;
  std::vector<float> out(static_cast<size_t>(T) * 63, -7.0f), wn(static_cast<size_t>(T), -7.0f);
  EXPECT_EQ(xj_a2x_deltas(a.h, audio.data(), n, out.data(), T - 1), -2);
  EXPECT_EQ(out[0], -7.0f);
  EXPECT_EQ(xj_a2x_deltas(a.h, audio.data(), 0, out.data(), T), 0);
  ASSERT_EQ(xj_a2x_deltas_wn(a.h, audio.data(), n, out.data(), wn.data(), T), T) << xj_a2x_last_error();
  // The 8 s stream finished on the same audio reads the same windows: the same rows.
  if (!a2xtest::pairMode()) {
    xj_a2x_reset(a.h, 0, 1, 1);
    xj_a2x_push(a.h, audio.data(), n);
    xj_a2x_finish(a.h);
    a2xtest::settle(a.h);
    Frames f;
    a2xtest::drain(a.h, f);
    ASSERT_EQ(f.count(), static_cast<size_t>(T));
    for (size_t i = 0; i < f.xd.size(); ++i) ASSERT_EQ(f.xd[i], out[i] + f.xs[i]) << "value " << i;
    EXPECT_EQ(0, std::memcmp(f.wn.data(), wn.data(), wn.size() * 4));
  }
  Handle narrow(xjtest::fixture("a2x_narrow"));
  ASSERT_NE(narrow.h, nullptr);
  EXPECT_EQ(xj_a2x_deltas_wn(narrow.h, audio.data(), n, out.data(), wn.data(), T), -3);
  EXPECT_STREQ(xj_a2x_last_error(), "xj_a2x_deltas_wn: encoder declares no wn output");
}
