// When windows and chunks run, which frames may leave, the eager passes and
// their rollback, the driver cursor, and the handle's lifecycle.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "audio/xj_motion.h"
#include "motion_util.h"

using namespace motiontest;

namespace {

int framesOf(size_t samples) { return static_cast<int>((samples + 639) / 640); }

bool isLip(int k) {
  const int p = k / 3;
  return p == 6 || p == 12 || p == 14 || p == 17 || p == 19 || p == 20;
}

}  // namespace

TEST(MotionCadence, WithoutEagerTheFirstFrameWaitsFor52480Samples) {
  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  xj_motion_set_eager(h.m, 0);
  xj_motion_reset(h.m, 0, 1, 0);
  const auto audio = speech(52480 + 70 * 640, 8);
  ASSERT_EQ(xj_motion_push(h.m, audio.data(), 52479), 1);
  EXPECT_EQ(xj_motion_avail(h.m), 0);
  ASSERT_EQ(xj_motion_push(h.m, audio.data() + 52479, 1), 1);
  EXPECT_EQ(xj_motion_avail(h.m), 69) << "one chunk, less the 10 rows the next merge changes and one";
  EXPECT_EQ(xj_motion_avail(h.m), 69) << "asking again changes nothing";

  Frames fr;
  ASSERT_TRUE(pullReady(h.m, fr, 100));
  EXPECT_EQ(fr.count(), 69);
  // The next chunk waits for 70 more frames of audio.
  ASSERT_EQ(xj_motion_push(h.m, audio.data() + 52480, 70 * 640 - 1), 1);
  EXPECT_EQ(xj_motion_avail(h.m), 0);
  ASSERT_EQ(xj_motion_push(h.m, audio.data() + 52480 + 70 * 640 - 1, 1), 1);
  EXPECT_EQ(xj_motion_avail(h.m), 70);
  EXPECT_EQ(xj_motion_total(h.m), -1);
}

TEST(MotionCadence, EagerFramesLeaveTwoFramesBehindTheAudio) {
  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  xj_motion_set_eager(h.m, 1);
  xj_motion_reset(h.m, 0, 1, 0);
  const auto audio = speech(16000 * 7, 12);
  std::mt19937 rng(4);
  std::uniform_int_distribution<int> piece(1, 1500);
  Frames fr;
  size_t at = 0;
  while (at < audio.size()) {
    const size_t n = std::min<size_t>(piece(rng), audio.size() - at);
    ASSERT_EQ(xj_motion_push(h.m, audio.data() + at, static_cast<int>(n)), 1);
    at += n;
    ASSERT_TRUE(pullReady(h.m, fr, 3)) << xj_motion_last_error();
    // Frame f leaves once a pass has seen frame f + 1 begin.
    ASSERT_EQ(fr.count(), std::max(0, framesOf(at) - 1)) << "after " << at << " samples";
    ASSERT_EQ(xj_motion_total(h.m), -1);
  }
  const int before = fr.count();
  xj_motion_finish(h.m);
  const int total = xj_motion_total(h.m);
  EXPECT_EQ(total, framesOf(audio.size()));
  EXPECT_EQ(xj_motion_avail(h.m), total - before) << "what left stays left; the rest comes from the final rows";
  ASSERT_TRUE(pullReady(h.m, fr));
  EXPECT_EQ(fr.count(), total);
  EXPECT_EQ(xj_motion_avail(h.m), 0);
}

TEST(MotionCadence, AFixedStepBatchesThePasses) {
  for (int step : {2, 4, 7}) {
    Motion h(motionDir());
    ASSERT_NE(h.m, nullptr) << h.error;
    xj_motion_set_eager(h.m, step);
    xj_motion_reset(h.m, 0, 1, 0);
    const auto audio = speech(640 * 200, 6);
    Frames fr;
    int largest = 0;
    for (int k = 1; k <= 200; ++k) {
      ASSERT_EQ(xj_motion_push(h.m, audio.data() + (k - 1) * 640, 640), 1);
      const int had = fr.count();
      ASSERT_TRUE(pullReady(h.m, fr, 64));
      largest = std::max(largest, fr.count() - had);
      const int edge = std::max(0, k - 1);
      ASSERT_LE(fr.count(), edge) << "step " << step << " after " << k << " frames";
      ASSERT_GT(fr.count(), edge - step) << "step " << step << " after " << k << " frames";
    }
    EXPECT_EQ(largest, step) << "frames come in groups of the step";
  }
}

TEST(MotionCadence, AutomaticStepFollowsThePassCost) {
  const struct {
    int eager;
    bool emitted;
    double ms;
    int step;
  } cases[] = {
      {-1, false, 500.0, 1}, {-1, true, 0.0, 1},   {-1, true, 1.0, 1},   {-1, true, 40.0, 1},
      {-1, true, 40.1, 2},   {-1, true, 80.0, 2},  {-1, true, 280.0, 7}, {-1, true, 280.1, 8},
      {-1, true, 1e6, 8},    {3, true, 1e6, 3},    {3, false, 0.0, 1},   {-5, true, 100.0, 3},
  };
  for (const auto& c : cases)
    EXPECT_EQ(xj::motion::eagerStep(c.eager, c.emitted, c.ms), c.step) << c.eager << " " << c.emitted << " " << c.ms;

  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  const auto audio = speech(640 * 150, 9);
  xj_motion_set_eager(h.m, -1);
  xj_motion_reset(h.m, 0, 1, 0);
  Frames fr;
  for (int k = 1; k <= 150; ++k) {
    ASSERT_EQ(xj_motion_push(h.m, audio.data() + (k - 1) * 640, 640), 1);
    ASSERT_TRUE(pullReady(h.m, fr));
    ASSERT_LE(fr.count(), k - 1);
    ASSERT_GT(fr.count(), k - 1 - 8) << "never more than 8 frames between passes";
  }
}

// Eager passes are rolled back exactly: the condition rows, the generator rows
// and the final result are those of a handle that never ran one; frames that
// leave from the final rows are the same frames; streamed frames without eager
// are the final result's frames to the bit.
TEST(MotionCadence, ProvisionalWorkLeavesNoTrace) {
  const auto audio = speech(640 * 230 - 77, 31);
  struct Run {
    xjtest::TempDir dump;
    Frames fr;
    int before = 0;
  };
  auto run = [&](Run& r, int eager, bool stream, bool dumpOn) {
    xjtest::ScopedEnv env("XJ_MOTION_DUMP", dumpOn ? r.dump.path().c_str() : nullptr);
    Motion h(motionDir());
    ASSERT_NE(h.m, nullptr) << h.error;
    r.fr = utterance(h.m, audio, 700, eager, stream, &r.before);
  };
  Run eager, plain, batch, eagerNoDump;
  run(eager, 1, true, true);
  run(plain, 0, true, true);
  run(batch, 0, false, true);
  run(eagerNoDump, 1, true, false);
  const int total = framesOf(audio.size());
  for (const Run* r : {&eager, &plain, &batch, &eagerNoDump}) ASSERT_EQ(r->fr.count(), total);
  ASSERT_GT(eager.before, plain.before);
  ASSERT_GT(plain.before, 0);
  EXPECT_EQ(batch.before, 0);

  for (const char* name : {"/cond.bin", "/res_post.bin", "/final.bin"}) {
    const auto e = readF32(eager.dump.path() + name), p = readF32(plain.dump.path() + name),
               b = readF32(batch.dump.path() + name);
    EXPECT_FALSE(b.empty()) << name;
    EXPECT_EQ(e, b) << name;
    EXPECT_EQ(p, b) << name;
  }
  EXPECT_EQ(plain.fr.xd, batch.fr.xd) << "a streamed frame is what the final rows give";
  EXPECT_EQ(plain.fr.rows, batch.fr.rows);
  EXPECT_EQ(eager.fr.rows, batch.fr.rows) << "one cursor step per frame, eager or not";
  EXPECT_EQ(eager.fr.xd, eagerNoDump.fr.xd) << "the dump changes no result";
  EXPECT_EQ(readF32(eager.dump / "xsla.bin").size(), static_cast<size_t>(eager.before) * 63);
  EXPECT_EQ(readF32(batch.dump / "xsla.bin").size(), 0u);

  // Frames that left before finish saw silence in place of the future; those
  // after come from the same final rows as everyone's. The lips move by their
  // change since each run's own first frame, so after finish the two runs
  // differ by one fixed lip offset per driver row, whatever the frame.
  bool provisionalDiffers = false;
  for (int f = 0; f < eager.before; ++f)
    for (int k = 0; k < 63; ++k) provisionalDiffers |= eager.fr.xdRow(f)[k] != batch.fr.xdRow(f)[k];
  EXPECT_TRUE(provisionalDiffers);
  std::vector<int> firstOfRow(5, -1);
  for (int f = eager.before; f < total; ++f) {
    const int row = eager.fr.rows[f];
    if (firstOfRow[row] < 0) firstOfRow[row] = f;
    const int g = firstOfRow[row];
    for (int k = 0; k < 63; ++k) {
      const float offset = eager.fr.xdRow(f)[k] - batch.fr.xdRow(f)[k];
      const float base = eager.fr.xdRow(g)[k] - batch.fr.xdRow(g)[k];
      if (isLip(k)) ASSERT_NEAR(offset, base, 5e-6) << "frame " << f << " value " << k;
      else ASSERT_EQ(offset, 0.0f) << "frame " << f << " value " << k;
    }
  }
}

TEST(MotionCadence, AShortUtteranceEndsWithOneChunkAfterFinish) {
  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  const auto audio = speech(640 * 30, 2);
  xj_motion_set_eager(h.m, 0);
  xj_motion_reset(h.m, 0, 1, 0);
  ASSERT_EQ(xj_motion_push(h.m, audio.data(), static_cast<int>(audio.size())), 1);
  EXPECT_EQ(xj_motion_avail(h.m), 0);
  EXPECT_EQ(xj_motion_total(h.m), -1);
  xj_motion_finish(h.m);
  EXPECT_EQ(xj_motion_total(h.m), 30);
  EXPECT_EQ(xj_motion_avail(h.m), 30);
  xj_motion_finish(h.m);
  EXPECT_EQ(xj_motion_total(h.m), 30) << "a second finish does nothing";
  EXPECT_EQ(xj_motion_avail(h.m), 30);
  Frames fr;
  ASSERT_TRUE(pullReady(h.m, fr));
  EXPECT_EQ(fr.count(), 30);
  EXPECT_EQ(xj_motion_avail(h.m), 0);

  // No audio at all: finished at once with no frame.
  xj_motion_reset(h.m, 0, 1, 0);
  xj_motion_finish(h.m);
  EXPECT_EQ(xj_motion_total(h.m), 0);
  EXPECT_EQ(xj_motion_avail(h.m), 0);
  EXPECT_STREQ(xj_motion_last_error(), "");
}

TEST(MotionCadence, APullTakesNoMoreThanIsReady) {
  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  const auto audio = speech(52480, 5);
  xj_motion_reset(h.m, 0, 1, 0);
  ASSERT_EQ(xj_motion_push(h.m, audio.data(), 52480), 1);
  std::vector<float> xs(100 * 63), xd(100 * 63);
  ASSERT_EQ(xj_motion_pull(h.m, nullptr, xs.data(), xd.data(), 67), 67) << "rows may be null";
  EXPECT_EQ(xj_motion_pull(h.m, nullptr, xs.data(), xd.data(), 3), 2);
  EXPECT_EQ(xj_motion_pull(h.m, nullptr, xs.data(), xd.data(), 3), 0);
  EXPECT_STREQ(xj_motion_last_error(), "");
}

TEST(MotionCadence, TheDriveCursorCyclesOrBounces) {
  const struct {
    int start, dir, loop;
    std::vector<int> rows;
  } cases[] = {
      {0, 1, 1, {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0, 1}},
      {3, -1, 1, {3, 2, 1, 0, 4, 3, 2, 1, 0, 4, 3, 2}},
      {0, 1, 0, {0, 1, 2, 3, 4, 3, 2, 1, 0, 1, 2, 3}},
      {4, 1, 0, {4, 3, 2, 1, 0, 1, 2, 3, 4, 3, 2, 1}},
      {-7, -1, 0, {0, 1, 2, 3, 4, 3, 2, 1, 0, 1, 2, 3}},
      {99, 0, 1, {4, 0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 0}},
      {2, -3, 0, {2, 1, 0, 1, 2, 3, 4, 3, 2, 1, 0, 1}},
  };
  Motion h(motionDir());
  ASSERT_NE(h.m, nullptr) << h.error;
  const auto audio = speech(640 * 12, 1);
  for (const auto& c : cases) {
    xj_motion_set_eager(h.m, 0);
    xj_motion_reset(h.m, c.start, c.dir, c.loop);
    ASSERT_EQ(xj_motion_push(h.m, audio.data(), static_cast<int>(audio.size())), 1);
    xj_motion_finish(h.m);
    Frames fr;
    ASSERT_TRUE(pullReady(h.m, fr, 5));
    EXPECT_EQ(fr.rows, c.rows) << "start " << c.start << " dir " << c.dir << " loop " << c.loop;
  }

  // One driver row: the bounce stays on it.
  MotionCopy one;
  xjtest::writeFile(one.member("meta.json"), "{\"nt\": 1, \"n_src\": 1, \"n_emo\": 3, \"s_bridge\": 1.5}");
  auto src = readF32(one.member("src_xs_info.bin"));
  src.resize(328);
  writeF32(one.member("src_xs_info.bin"), src);
  auto target = readF32(one.member("xs_target.bin"));
  target.resize(63);
  writeF32(one.member("xs_target.bin"), target);
  Motion single(one.dir);
  ASSERT_NE(single.m, nullptr) << single.error;
  EXPECT_EQ(xj_motion_nt(single.m), 1);
  for (int loop : {0, 1})
    for (int dir : {-1, 1}) {
      xj_motion_reset(single.m, 3, dir, loop);
      ASSERT_EQ(xj_motion_push(single.m, audio.data(), static_cast<int>(audio.size())), 1);
      xj_motion_finish(single.m);
      Frames fr;
      ASSERT_TRUE(pullReady(single.m, fr));
      EXPECT_EQ(fr.rows, std::vector<int>(12, 0)) << "loop " << loop << " dir " << dir;
    }
}

// A reset forgets the utterance (audio, rows, the first frame's lips, the
// rollback record) but keeps the eagerness.
TEST(MotionCadence, ResetStartsOverAsANewHandle) {
  const auto first = speech(640 * 90, 40), second = speech(640 * 140 + 300, 41);
  Motion used(motionDir()), fresh(motionDir());
  ASSERT_NE(used.m, nullptr) << used.error;
  ASSERT_NE(fresh.m, nullptr) << fresh.error;
  xj_motion_set_eager(used.m, 2);
  xj_motion_reset(used.m, 1, -1, 1);
  Frames partial;
  for (size_t at = 0; at < first.size(); at += 960) {
    ASSERT_EQ(xj_motion_push(used.m, first.data() + at, static_cast<int>(std::min<size_t>(960, first.size() - at))),
              1);
    ASSERT_TRUE(pullReady(used.m, partial));
  }
  ASSERT_GT(partial.count(), 0);
  const Frames again = utterance(used.m, second, 1100, 2, true, nullptr, 1);
  const Frames once = utterance(fresh.m, second, 1100, 2, true, nullptr, 1);
  EXPECT_EQ(again.count(), framesOf(second.size()));
  EXPECT_EQ(again.rows, once.rows);
  EXPECT_EQ(again.xd, once.xd);
  EXPECT_EQ(again.xs, once.xs);
}

// Handles on different threads share no scratch: each gives what one alone gives.
TEST(MotionCadence, HandlesOnSeveralThreads) {
  const auto audio = speech(640 * 160, 77);
  Motion alone(motionDir());
  ASSERT_NE(alone.m, nullptr) << alone.error;
  const Frames want = utterance(alone.m, audio, 900, 1, true);
  constexpr int kThreads = 3;
  std::vector<Frames> got(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      Motion h(motionDir());
      if (h.m) got[t] = utterance(h.m, audio, 900, 1, true);
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(got[t].xd, want.xd) << "thread " << t;
    EXPECT_EQ(got[t].rows, want.rows) << "thread " << t;
  }
}
