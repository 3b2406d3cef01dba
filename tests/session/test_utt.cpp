// The live session with both audio models and with the paste thread on and
// off: the frame stream's kinds, indices, source frames and sequence numbers.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "utt_testutil.h"

using utttest::Frame;
using utttest::Session;

namespace {

const std::string kLive = xjtest::fixture("live");

struct Config {
  const char* name;
  bool a2x;  // else the motion model
  int pipe;
};

void PrintTo(const Config& c, std::ostream* os) { *os << c.name; }

std::string motionDir(const Config& c) { return c.a2x ? kLive : xjtest::fixture("live_motion"); }

class Utt : public ::testing::TestWithParam<Config> {};

// The driver frame i as the engine shows it: a separate handle on the same bundle.
std::vector<uint8_t> driverFrame(const std::string& bundle, int i) {
  xj_ctx* h = xj_create(bundle.c_str(), "b1", 1, "");
  const uint8_t* f = xj_target_frame(h, i);
  std::vector<uint8_t> v(f, f + static_cast<size_t>(xj_width(h)) * xj_height(h) * 3);
  xj_destroy(h);
  return v;
}

}  // namespace

TEST_P(Utt, IdleLoopPlaysTheDriverInOrder) {
  Session s(kLive, motionDir(GetParam()), GetParam().pipe);
  ASSERT_NE(s.u, nullptr);
  Frame f;
  for (int k = 0; k < 2 * s.NT + 3; ++k) {
    ASSERT_TRUE(s.pull(f)) << "frame " << k;
    EXPECT_EQ(f.info.seq, static_cast<uint64_t>(k));
    EXPECT_EQ(f.info.kind, 0);
    EXPECT_EQ(f.info.index, -1);
    EXPECT_EQ(f.info.si, k % s.NT);
    if (k == s.NT + 2) EXPECT_EQ(f.rgb, driverFrame(kLive, 2));
  }
  xj_utt_stats st;
  xj_utt_get_stats(s.u, &st);
  EXPECT_EQ(st.frames, static_cast<uint64_t>(2 * s.NT + 3));
  EXPECT_EQ(st.speech_frames, 0u);
  EXPECT_EQ(st.state, 0);
  // One byte short: refused, and the frame is still there.
  while (xj_utt_frames_available(s.u) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(xj_utt_pull_frame(s.u, s.buf.data(), s.buf.size() - 1, &f.info), 0);
  EXPECT_STREQ(xj_utt_last_error(), "xj_utt_pull_frame: buffer too small");
  EXPECT_EQ(xj_utt_frames_available(s.u), 1);
  EXPECT_EQ(xj_utt_pull_frame(s.u, s.buf.data(), s.buf.size(), &f.info), 1);
  EXPECT_EQ(f.info.si, (2 * s.NT + 3) % s.NT);
}

TEST_P(Utt, AnUtteranceSpeaksThenRampsBackToTheLoop) {
  Session s(kLive, motionDir(GetParam()), GetParam().pipe);
  ASSERT_NE(s.u, nullptr);
  ASSERT_TRUE(s.waitReady()) << xj_utt_last_error();
  Frame f;
  ASSERT_TRUE(s.pull(f));
  ASSERT_TRUE(s.pull(f));
  const auto audio = utttest::speech(16000 + 5000, 1);
  s.push(audio);
  xj_utt_end_utterance(s.u);
  const int speechFrames = (static_cast<int>(audio.size()) + 639) / 640;
  std::vector<Frame> frames;
  int ramp = 0, speech = 0;
  uint64_t seq = f.info.seq;
  int si = f.info.si;
  // Pull until the ramp is over and idle frames come again.
  for (int k = 0; k < 400 && (speech < speechFrames || ramp < 6 || f.info.kind != 0); ++k) {
    ASSERT_TRUE(s.pull(f)) << "after " << k << " frames";
    ASSERT_EQ(f.info.seq, ++seq);
    // Idle, speech and ramp run one driver frame counter: no cut, no seek.
    ASSERT_EQ(f.info.si, (si + 1) % s.NT) << "kind " << f.info.kind;
    si = f.info.si;
    if (f.info.kind == 1) {
      EXPECT_EQ(ramp, 0);
      EXPECT_EQ(f.info.index, speech++);
    } else if (f.info.kind == 2) {
      EXPECT_EQ(speech, speechFrames);
      EXPECT_EQ(f.info.index, -1);
      ++ramp;
    } else {
      EXPECT_EQ(f.info.index, -1);
      EXPECT_TRUE(speech == 0 || ramp == 6) << "idle inside an utterance";
    }
  }
  EXPECT_EQ(speech, speechFrames);
  EXPECT_EQ(ramp, 6);
  xj_utt_stats st;
  xj_utt_get_stats(s.u, &st);
  EXPECT_EQ(st.utterances, 1u);
  EXPECT_EQ(st.speech_frames, static_cast<uint64_t>(speechFrames));
  EXPECT_GT(st.first_frame_ms, 0.0);
  EXPECT_GT(st.render_ms, 0.0);
  char text[64];
  uint64_t fails = 99;
  EXPECT_EQ(xj_utt_render_status(s.u, text, sizeof text, &fails), 0);
  EXPECT_EQ(fails, 0u);
}

TEST_P(Utt, InterruptRampsFromWhatTheHostLastShowed) {
  Session s(kLive, motionDir(GetParam()), GetParam().pipe);
  ASSERT_NE(s.u, nullptr);
  ASSERT_TRUE(s.waitReady());
  s.push(utttest::speech(16000 * 3, 2));
  Frame f;
  do ASSERT_TRUE(s.pull(f));
  while (f.info.kind != 1);
  for (int k = 0; k < 3; ++k) ASSERT_TRUE(s.pull(f));
  ASSERT_EQ(f.info.kind, 1);
  const int lastSi = f.info.si;
  // Let the pipeline run ahead, then interrupt: what was not pulled is gone.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  xj_utt_interrupt(s.u);
  int si = lastSi, ramp = 0;
  for (int k = 0; k < 4 + 3; ++k) {
    ASSERT_TRUE(s.pull(f));
    ASSERT_NE(f.info.kind, 1) << "a stale speech frame after the interrupt";
    ASSERT_EQ(f.info.si, (si + 1) % s.NT);
    si = f.info.si;
    if (f.info.kind == 2) ++ramp;
    else EXPECT_EQ(ramp, 4);
  }
  EXPECT_EQ(ramp, 4);
}

TEST_P(Utt, InterruptAfterAnIdlePullDropsTheSpeechWithoutARamp) {
  Session s(kLive, motionDir(GetParam()), GetParam().pipe);
  ASSERT_NE(s.u, nullptr);
  ASSERT_TRUE(s.waitReady());
  Frame f;
  ASSERT_TRUE(s.pull(f));
  ASSERT_EQ(f.info.kind, 0);
  const int lastSi = f.info.si;
  s.push(utttest::speech(16000 * 2, 3));
  // Wait until speech frames stand in the ring, unpulled.
  for (int i = 0; i < 20000 && xj_utt_frames_available(s.u) < 2; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_GE(xj_utt_frames_available(s.u), 1);
  xj_utt_interrupt(s.u);
  for (int k = 0; k < 5; ++k) {
    ASSERT_TRUE(s.pull(f));
    EXPECT_EQ(f.info.kind, 0);
    EXPECT_EQ(f.info.si, (lastSi + 1 + k) % s.NT);
  }
}

INSTANTIATE_TEST_SUITE_P(Session, Utt,
                         ::testing::Values(Config{"A2xPipe", true, 1}, Config{"A2xInline", true, 0},
                                           Config{"MotionPipe", false, 1}, Config{"MotionInline", false, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(UttCreate, Refusals) {
  EXPECT_EQ(xj_utt_create(nullptr, nullptr), nullptr);
  EXPECT_STREQ(xj_utt_last_error(), "xj_utt_create: NULL ctx/opts");
  xj_ctx* h = xj_create(kLive.c_str(), "b1", 1, "");
  ASSERT_NE(h, nullptr);
  xj_utt_opts o{};
  EXPECT_EQ(xj_utt_create(h, &o), nullptr);
  EXPECT_STREQ(xj_utt_last_error(), "xj_utt_create: opts.motion_dir required");
  EXPECT_EQ(xj_utt_push_audio(nullptr, nullptr, 0), 0);
  EXPECT_STREQ(xj_utt_last_error(), "xj_utt_push_audio: bad args");
  EXPECT_EQ(xj_utt_ready(nullptr), -1);
  EXPECT_EQ(xj_utt_frames_available(nullptr), 0);
  xj_utt_destroy(nullptr);
  // A model that cannot load: idle for ever, ready -1 with the model's words.
  xj_utt* u = xj_utt_open(h, "/nonexistent/motion");
  ASSERT_NE(u, nullptr);
  int r = 0;
  for (int i = 0; i < 20000 && (r = xj_utt_ready(u)) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(r, -1);
  EXPECT_EQ(std::string(xj_utt_last_error()).rfind("xj_motion_create: ", 0), 0u) << xj_utt_last_error();
  std::vector<uint8_t> rgb(static_cast<size_t>(xj_width(h)) * xj_height(h) * 3);
  const std::vector<int16_t> a(3200, 1000);
  xj_utt_push_audio(u, a.data(), static_cast<int>(a.size()));
  xj_utt_frame_info info;
  for (int k = 0; k < 5; ++k) {
    while (xj_utt_pull_frame(u, rgb.data(), rgb.size(), &info) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(info.kind, 0);
  }
  xj_utt_destroy(u);
  xj_destroy(h);
}

TEST(UttSession, NoRestingKeypointsNoRamp) {
  Session s(xjtest::fixture("live_bare"), xjtest::fixture("live_motion"), 0);
  ASSERT_NE(s.u, nullptr);
  ASSERT_TRUE(s.waitReady());
  s.push(utttest::speech(12000, 4));
  xj_utt_end_utterance(s.u);
  Frame f;
  int speech = 0;
  for (int k = 0; k < 60; ++k) {
    ASSERT_TRUE(s.pull(f));
    EXPECT_NE(f.info.kind, 2);
    speech += f.info.kind == 1;
    if (speech == 19 && f.info.kind == 0) break;
  }
  EXPECT_EQ(speech, 19);
}

TEST(UttSession, DestroyReturnsPromptlyWhenTheHostStopsPulling) {
  for (int pipe : {0, 1}) {
    Session s(kLive, kLive, pipe);
    ASSERT_NE(s.u, nullptr);
    ASSERT_TRUE(s.waitReady());
    s.push(utttest::speech(16000 * 4, 5));
    // The ring and the paste queue fill; the main thread blocks in its 2 ms polls.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(xj_utt_frames_available(s.u), 8);
    const auto t0 = std::chrono::steady_clock::now();
    xj_utt_destroy(s.u);
    s.u = nullptr;
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 2.0) << "pipe " << pipe;
  }
}

TEST(UttSession, ALatchedDriverFailureIsFatalNotACrash) {
  // Frame 4 of the driver does not decode: the cursor latches the failure and
  // every pull after it throws. The session reports it and keeps answering.
  Session s(xjtest::fixture("live_broken"), xjtest::fixture("live_broken"), 1);
  ASSERT_NE(s.u, nullptr);
  Frame f;
  int pulled = 0;
  for (int k = 0; k < 10 && s.pull(f, 300); ++k) ++pulled;
  EXPECT_LE(pulled, 5);
  char text[512];
  uint64_t count = 0;
  for (int i = 0; i < 2000 && xj_utt_render_status(s.u, text, sizeof text, &count) == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(xj_utt_render_status(s.u, text, sizeof text, &count), -1);
  EXPECT_GE(count, 1u);
  EXPECT_EQ(std::string(text).rfind("ep=cpu paste: ", 0), 0u) << text;
  // Truncated copies stay terminated.
  char small[8];
  xj_utt_render_status(s.u, small, sizeof small, nullptr);
  EXPECT_EQ(std::strlen(small), 7u);
  s.push(utttest::speech(3200, 1));
  xj_utt_stats st;
  xj_utt_get_stats(s.u, &st);
  EXPECT_EQ(st.frames, static_cast<uint64_t>(pulled));
}

namespace {
void stageReportChild(void* pipe) {
  utttest::useEncoders();
  xjtest::ScopedEnv report("XJ_UTT_STAGE_REPORT", "1");
  Session s(kLive, kLive, *static_cast<int*>(pipe));
  s.waitReady();
  s.push(utttest::speech(8000, 6));
  xj_utt_end_utterance(s.u);
  Frame f;
  for (int k = 0; k < 30; ++k) s.pull(f);
}
}  // namespace

TEST(UttSession, StageReport) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the report is read from a forked child, and ThreadSanitizer stops a forked child that starts threads";
#endif
  int inlinePaste = 0, pipe = 1;
  const std::string none = xjtest::captureStderr(stageReportChild, &inlinePaste);
  EXPECT_NE(none.find("[xj_utt-stage] MEASURED NOTHING \xE2\x80\x94 the stage report was asked for and the paste-job "
                      "counter never advanced (pipe=0 jobsB=0 jobsC=0, 0 speech frames delivered). stageA/stageB/stageC "
                      "and the deliver latency are NOT reported rather than reported as zero: on this path the paste "
                      "does not run through the counted queue.\n"),
            std::string::npos)
      << none;
  const std::string some = xjtest::captureStderr(stageReportChild, &pipe);
  const size_t at = some.find("[xj_utt-stage] pipe=0 jobsB=0 jobsC=");
  ASSERT_NE(at, std::string::npos) << some;
  EXPECT_NE(some.find(" over 13 speech frames\n", at), std::string::npos) << some.substr(at);
}
