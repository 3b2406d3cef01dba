// A host that behaves at random for a while: utterances, silences, interrupts,
// end_utterance, pulls at random rates and pauses. Every pulled frame is
// checked against the stream's invariants, and the session is destroyed at
// random moments and must return promptly.
#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "utt_testutil.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Checker {
  int NT;
  bool first = true;
  uint64_t seq = 0;
  int si = 0, kind = 0, index = -1, rampRun = 0, rampLimit = 6;
  bool interrupted = false;  // an interrupt since the last pulled frame
  long frames = 0, speech = 0, ramps = 0, utterances = 0, interrupts = 0;

  void onInterrupt() {
    interrupted = true;
    ++interrupts;
  }

  void onFrame(const xj_utt_frame_info& f) {
    ++frames;
    if (!first) {
      // Sequence numbers count up; only an interrupt drops published frames.
      if (interrupted) ASSERT_GT(f.seq, seq);
      else ASSERT_EQ(f.seq, seq + 1);
      // One driver frame counter through idle, speech, ramp and interrupts.
      ASSERT_EQ(f.si, (si + 1) % NT) << "kind " << kind << " -> " << f.kind;
    }
    switch (f.kind) {
      case 0:
        ASSERT_EQ(f.index, -1);
        rampRun = 0;
        break;
      case 1:
        ++speech;
        if (f.index == 0) ++utterances;
        // Within an utterance the index counts up; after an interrupt nothing
        // of the old utterance may show: speech starts again at 0.
        if (kind == 1 && !interrupted) ASSERT_EQ(f.index, index + 1);
        else ASSERT_EQ(f.index, 0) << "a stale speech frame";
        rampRun = 0;
        break;
      case 2:
        ++ramps;
        ASSERT_EQ(f.index, -1);
        // An interrupt starts a ramp of 4 from the frame shown; the end of an
        // utterance one of 6.
        if (interrupted) {
          rampRun = 0;
          rampLimit = 4;
        } else if (rampRun == 0) {
          rampLimit = 6;
        }
        ASSERT_LE(++rampRun, rampLimit) << "a ramp longer than asked for";
        break;
      default:
        FAIL() << "kind " << f.kind;
    }
    first = false;
    seq = f.seq;
    si = f.si;
    kind = f.kind;
    index = f.index;
    interrupted = false;
  }
};

void soak(const std::string& motionDir, int pipe, double seconds, unsigned seed) {
  utttest::Session s(xjtest::fixture("live"), motionDir, pipe, "b4", 0.3);
  ASSERT_NE(s.u, nullptr);
  ASSERT_TRUE(s.waitReady());
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> dice(0, 99);
  const auto voice = utttest::speech(16000 * 4, seed);
  const std::vector<int16_t> silence(16000, 0);
  Checker c;
  c.NT = s.NT;
  xj_utt_frame_info info;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  size_t at = 0;
  while (Clock::now() < end) {
    const int d = dice(rng);
    if (d < 30) {
      // 20 to 200 ms of audio, speech or silence.
      const size_t n = 320 + static_cast<size_t>(rng() % 2880);
      const auto& src = dice(rng) < 80 ? voice : silence;
      const size_t from = at % (src.size() - n);
      xj_utt_push_audio(s.u, src.data() + from, static_cast<int>(n));
      at += n;
    } else if (d < 33) {
      xj_utt_end_utterance(s.u);
    } else if (d < 36) {
      xj_utt_interrupt(s.u);
      c.onInterrupt();
    } else if (d < 85) {
      for (int k = rng() % 4; k > 0; --k) {
        if (xj_utt_pull_frame(s.u, s.buf.data(), s.buf.size(), &info) != 1) break;
        c.onFrame(info);
        if (testing::Test::HasFatalFailure()) return;
      }
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 20));
    }
  }
  char text[256];
  EXPECT_EQ(xj_utt_render_status(s.u, text, sizeof text, nullptr), 0) << text;
  xj_utt_stats st;
  xj_utt_get_stats(s.u, &st);
  EXPECT_EQ(st.frames, static_cast<uint64_t>(c.frames));
  EXPECT_EQ(st.speech_frames, static_cast<uint64_t>(c.speech));
  // The run saw every kind of frame and did exercise interrupts.
  EXPECT_GT(c.speech, 0);
  EXPECT_GT(c.ramps, 0);
  EXPECT_GT(c.interrupts, 0);
  const auto t0 = Clock::now();
  xj_utt_destroy(s.u);
  s.u = nullptr;
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - t0).count(), 2.0);
}

double soakSeconds() { return std::getenv("XJ_TEST_SHORT") ? 8.0 : 45.0; }

}  // namespace

TEST(UttSoak, A2xWithThePasteThread) { soak(xjtest::fixture("live"), 1, soakSeconds(), 11); }
TEST(UttSoak, MotionInline) { soak(xjtest::fixture("live_motion"), 0, soakSeconds(), 12); }
TEST(UttSoak, A2xInline) { soak(xjtest::fixture("live"), 0, soakSeconds(), 13); }

TEST(UttSoak, DestroyAtAnyMoment) {
  std::mt19937 rng(5);
  const auto voice = utttest::speech(16000 * 2, 7);
  const int rounds = std::getenv("XJ_TEST_SHORT") ? 4 : 12;
  for (int r = 0; r < rounds; ++r) {
    utttest::Session s(xjtest::fixture("live"), xjtest::fixture("live"), r % 2);
    ASSERT_NE(s.u, nullptr);
    if (r % 3 != 0) s.waitReady();  // a third of them die while still warming
    xj_utt_push_audio(s.u, voice.data(), static_cast<int>(voice.size()));
    if (r % 4 == 1) xj_utt_interrupt(s.u);
    std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 300));
    const auto t0 = Clock::now();
    xj_utt_destroy(s.u);
    s.u = nullptr;
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - t0).count(), 2.0) << "round " << r;
  }
}
