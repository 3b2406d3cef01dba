// The look-ahead cursor over an in-memory source whose every frame is known:
// looping, ring and history hits without decoder work, the rule for frames
// handed out writable, latched failures, and random use under stress.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "driver/xj_driver.h"
#include "driver/xj_driver_ff.h"
#include "driver_testutil.h"
#include "xj_testutil.h"

namespace {

using drvtest::isPattern;
using drvtest::PatternSource;

const std::string kEm = "\xE2\x80\x94";
constexpr int kW = 8, kH = 4;
constexpr size_t kBytes = kW * kH * 3;

std::string thrownBy(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

bool waitFor(const std::function<bool()>& done) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Rig {
  PatternSource::Counters counters;
  std::unique_ptr<xj::DriverCursor> cur;  // last: stops its thread before the counters go

  Rig(int nt, int ahead, int history, const std::function<void(PatternSource&)>& tweak = {}) {
    auto src = std::make_unique<PatternSource>(nt, kW, kH, &counters);
    if (tweak) tweak(*src);
    cur = xj::DriverCursor::over(std::move(src), ahead, history);
  }
  // `count` sequential pulls, each checked.
  void pullThrough(int count) {
    std::vector<unsigned char> buf(kBytes);
    for (int k = 0; k < count; ++k) {
      const int want = cur->position();
      ASSERT_EQ(cur->pull(buf.data()), want);
      ASSERT_TRUE(isPattern(buf.data(), kBytes, want)) << want;
    }
  }
  // Waits until the thread has decoded exactly `decoded` frames and stopped.
  void settle(int decoded) {
    ASSERT_TRUE(waitFor([&] { return counters.nexts.load() >= decoded; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(counters.nexts.load(), decoded) << "the thread decoded past its look-ahead";
  }
};

TEST(Cursor, SequentialPullsLoopAndRewindOncePerPass) {
  Rig r(5, 2, 11);
  EXPECT_EQ(r.cur->NT, 5);
  EXPECT_EQ(r.cur->frameBytes, kBytes);
  EXPECT_EQ(r.cur->backend, "pattern");
  std::vector<unsigned char> buf(kBytes);
  for (int k = 0; k < 15; ++k) {
    ASSERT_EQ(r.cur->pull(buf.data()), k % 5);
    ASSERT_TRUE(isPattern(buf.data(), kBytes, k % 5));
    ASSERT_EQ(r.cur->position(), (k + 1) % 5);
  }
  r.settle(17);  // 15 taken, 2 ahead: frame 0 was needed 3 more times
  EXPECT_EQ(r.counters.rewinds.load(), 3);
  EXPECT_EQ(r.counters.seeks.load(), 0);
  EXPECT_EQ(r.cur->seeks(), 0u);
}

// After frames 0..19 were taken (and 20, 21 decoded ahead), which frames the
// ring serves with no source seek, and which need one.
TEST(Cursor, RingAndHistoryReach) {
  const struct {
    int target;
    bool seeks;
    const char* why;
  } cases[] = {
      {19, false, "the frame just taken"},
      {14, false, "inside the history"},
      {8, false, "the oldest frame the history keeps"},
      {7, true, "one entry past the history"},
      {20, false, "the next frame, already decoded"},
      {21, false, "in the look-ahead"},
      {22, false, "the frame the thread decodes next"},
      {25, true, "ahead of the thread"},
      {0, true, "far behind"},
  };
  for (const auto& c : cases) {
    Rig r(40, 2, 11);
    r.pullThrough(20);
    r.settle(22);
    std::vector<unsigned char> buf(kBytes);
    ASSERT_EQ(r.cur->pullAt(c.target, buf.data()), c.target);
    EXPECT_TRUE(isPattern(buf.data(), kBytes, c.target)) << c.why;
    EXPECT_EQ(r.cur->seeks(), c.seeks ? 1u : 0u) << c.why;
    EXPECT_EQ(r.cur->position(), c.target + 1) << c.why;
    if (c.seeks) {
      ASSERT_TRUE(waitFor([&] { return r.counters.seeks.load() == 1; })) << c.why;
    } else if (c.target < 20) {
      // A history hit costs no decoder work: the look-ahead is already full.
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      EXPECT_EQ(r.counters.nexts.load(), 22) << c.why;
      EXPECT_EQ(r.counters.seeks.load(), 0) << c.why;
    }
  }
}

// The history is counted from the play position, not from what the ring
// still holds: while the thread is busy in a source seek the ring keeps two
// entries more than the history, and those are not served.
TEST(Cursor, HistoryIsCountedFromThePlayPosition) {
  const struct {
    int target;
    bool seeks;
  } cases[] = {{21, false}, {10, false}, {9, true}, {8, true}};
  for (const auto& c : cases) {
    std::atomic<bool> hold{false};
    Rig r(40, 2, 11, [&](PatternSource& s) { s.holdSeeks = &hold; });
    r.pullThrough(20);
    r.settle(22);  // entries 8..21 hold frames 8..21
    hold = true;
    r.cur->seek(30);  // a real seek; the thread is held inside it
    ASSERT_TRUE(waitFor([&] { return r.counters.seeks.load() == 1; }));
    r.cur->seek(c.target);
    EXPECT_EQ(r.cur->seeks(), c.seeks ? 2u : 1u) << c.target;
    hold = false;
    std::vector<unsigned char> buf(kBytes);
    ASSERT_EQ(r.cur->pull(buf.data()), c.target);
    EXPECT_TRUE(isPattern(buf.data(), kBytes, c.target)) << c.target;
  }
}

// A decode that a seek overtakes is dropped, but it has already written over
// the slot of the oldest entry: that entry must not come back as history.
TEST(Cursor, ADroppedDecodeTakesItsSlotOutOfTheHistory) {
  std::atomic<bool> holdNext{false}, holdSeeks{false};
  Rig r(40, 2, 11, [&](PatternSource& s) {
    s.holdNext = &holdNext;
    s.holdSeeks = &holdSeeks;
  });
  r.pullThrough(20);
  r.settle(22);  // entries 8..21 hold frames 8..21, in slots 8..13, 0..7
  holdNext = true;
  std::vector<unsigned char> buf(kBytes);
  ASSERT_EQ(r.cur->pull(buf.data()), 20);
  ASSERT_TRUE(waitFor([&] { return r.counters.held.load() == 1; }));  // frame 22 written over slot 8
  r.cur->seek(35);  // overtakes that decode
  holdSeeks = true;
  holdNext = false;
  ASSERT_TRUE(waitFor([&] { return r.counters.seeks.load() == 1; }));  // dropped; the thread is seeking
  r.cur->seek(10);  // back into the history, from where frame 8 is within reach again
  ASSERT_EQ(r.cur->pull(buf.data()), 10);
  r.cur->seek(8);
  EXPECT_EQ(r.cur->seeks(), 2u) << "frame 8 served from an overwritten slot";
  holdSeeks = false;
  ASSERT_EQ(r.cur->pull(buf.data()), 8);
  EXPECT_TRUE(isPattern(buf.data(), kBytes, 8));
}

// A frame handed out writable may carry paint: neither it nor anything older
// is served from the ring again; the source decodes it afresh.
TEST(Cursor, WritableFramesAreNeverServedAgain) {
  const struct {
    const char* what;
    bool sequential;  // pullMut of frame 5, else pullMutAt(2) from the history
    int then;
    bool seeks;
  } cases[] = {
      {"painted frame itself", true, 5, true},
      {"older than the painted frame", true, 4, true},
      {"painted from the history", false, 2, true},
      {"newer than the painted history frame", false, 3, false},
  };
  for (const auto& c : cases) {
    Rig r(40, 2, 11);
    r.pullThrough(5);
    r.settle(7);
    int index = -1;
    unsigned char* paint = c.sequential ? r.cur->pullMut(&index) : r.cur->pullMutAt(2, &index);
    ASSERT_EQ(index, c.sequential ? 5 : 2) << c.what;
    ASSERT_TRUE(isPattern(paint, kBytes, index)) << c.what;
    EXPECT_EQ(r.cur->seeks(), 0u) << c.what;
    std::memset(paint, 0xEE, kBytes);
    std::vector<unsigned char> buf(kBytes);
    ASSERT_EQ(r.cur->pullAt(c.then, buf.data()), c.then) << c.what;
    EXPECT_TRUE(isPattern(buf.data(), kBytes, c.then)) << c.what << ": served painted or wrong pixels";
    EXPECT_EQ(r.cur->seeks(), c.seeks ? 1u : 0u) << c.what;
  }
}

TEST(Cursor, ReadOnlyPointerHoldsForTheHistory) {
  Rig r(40, 2, 11);
  int index = -1;
  const unsigned char* first = r.cur->pull(&index);
  ASSERT_EQ(index, 0);
  std::vector<unsigned char> buf(kBytes);
  for (int k = 1; k <= 11; ++k) {
    ASSERT_EQ(r.cur->pull(buf.data()), k);
    ASSERT_TRUE(isPattern(first, kBytes, 0)) << "overwritten after " << k << " pulls";
  }
  r.settle(14);
  EXPECT_TRUE(isPattern(first, kBytes, 0));
}

TEST(Cursor, OutOfRangeSeekThrowsAndTheCursorGoesOn) {
  Rig r(40, 2, 11);
  std::vector<unsigned char> buf(kBytes);
  ASSERT_EQ(r.cur->pull(buf.data()), 0);
  EXPECT_EQ(thrownBy([&] { r.cur->seek(40); }), "xj_driver: seek(40) outside [0,40)");
  EXPECT_EQ(thrownBy([&] { r.cur->seek(-1); }), "xj_driver: seek(-1) outside [0,40)");
  EXPECT_EQ(thrownBy([&] { r.cur->pullAt(41, buf.data()); }), "xj_driver: seek(41) outside [0,40)");
  int index = -1;
  EXPECT_EQ(thrownBy([&] { r.cur->pullMutAt(-5, &index); }), "xj_driver: seek(-5) outside [0,40)");
  EXPECT_EQ(r.cur->position(), 1);
  ASSERT_EQ(r.cur->pull(buf.data()), 1);
  EXPECT_TRUE(isPattern(buf.data(), kBytes, 1));
}

TEST(Cursor, SeekSetsThePositionOfTheNextPull) {
  Rig r(40, 2, 11);
  std::vector<unsigned char> buf(kBytes);
  r.cur->seek(17);
  EXPECT_EQ(r.cur->position(), 17);
  EXPECT_EQ(r.cur->pull(buf.data()), 17);
  EXPECT_TRUE(isPattern(buf.data(), kBytes, 17));
  r.cur->seek(39);
  EXPECT_EQ(r.cur->pull(buf.data()), 39);
  EXPECT_EQ(r.cur->pull(buf.data()), 0);
  EXPECT_TRUE(isPattern(buf.data(), kBytes, 0));
  r.cur->seek(3);
  r.cur->seek(30);  // the last seek wins
  EXPECT_EQ(r.cur->pull(buf.data()), 30);
}

TEST(Cursor, LookAheadAndHistoryHaveFloors) {
  Rig small(10, 0, -1);
  EXPECT_EQ(small.cur->residentBytes(), 2 * kBytes + 1000) << "one ahead, no history: two slots";
  Rig normal(10, 2, 11);
  EXPECT_EQ(normal.cur->residentBytes(), 14 * kBytes + 1000);

  std::vector<unsigned char> buf(kBytes);
  small.pullThrough(2);
  small.settle(3);
  ASSERT_EQ(small.cur->pullAt(1, buf.data()), 1);  // the frame just taken is still there
  EXPECT_EQ(small.cur->seeks(), 0u);
  ASSERT_EQ(small.cur->pullAt(0, buf.data()), 0);
  EXPECT_TRUE(isPattern(buf.data(), kBytes, 0));
  EXPECT_EQ(small.cur->seeks(), 1u);
}

// A failure is latched: the first cause is thrown at the next pull and by
// every call after it, word for word, and the cursor never goes on.
TEST(Cursor, FailuresAreLatched) {
  const struct {
    const char* what;
    std::function<void(PatternSource&)> tweak;
    int goodPulls;    // sequential pulls that must succeed
    int mayPull;      // further pulls that may succeed before the failure shows
    int seekTo;       // -1: none; else a pullAt that forces a source seek
    std::string message;
  } cases[] = {
      {"member one frame short", [](PatternSource& s) { s.endAfter = 5; }, 4, 1, -1,
       "xj_driver: pattern ended after 5 frames, the manifest says NT=6 " + kEm +
           " a short driver is a session that stops part way through the loop, refusing"},
      {"decoder fault", [](PatternSource& s) { s.throwAt = 3; }, 2, 1, -1,
       "xj_driver: pattern broke at frame 3"},
      {"seek fault", [](PatternSource& s) { s.failSeek = true; }, 2, 0, 5,
       "xj_driver: seek failed: pattern cannot seek"},
  };
  for (const auto& c : cases) {
    Rig r(6, 2, 11, c.tweak);
    std::vector<unsigned char> buf(kBytes);
    for (int k = 0; k < c.goodPulls; ++k) {
      ASSERT_EQ(r.cur->pull(buf.data()), k) << c.what;
      ASSERT_TRUE(isPattern(buf.data(), kBytes, k)) << c.what;
    }
    std::string first;
    if (c.seekTo >= 0) {
      first = thrownBy([&] { r.cur->pullAt(c.seekTo, buf.data()); });
    } else {
      for (int k = 0; k <= c.mayPull && first.empty(); ++k) {
        try {
          const int got = r.cur->pull(buf.data());
          ASSERT_EQ(got, c.goodPulls + k) << c.what;
          ASSERT_TRUE(isPattern(buf.data(), kBytes, got)) << c.what;
        } catch (const std::exception& e) {
          first = e.what();
        }
      }
    }
    EXPECT_EQ(first, c.message) << c.what;
    int index = -1;
    EXPECT_EQ(thrownBy([&] { r.cur->pull(buf.data()); }), c.message) << c.what;
    EXPECT_EQ(thrownBy([&] { r.cur->pullAt(0, &index); }), c.message) << c.what;
    EXPECT_EQ(thrownBy([&] { r.cur->pullMut(&index); }), c.message) << c.what;
    EXPECT_EQ(thrownBy([&] { r.cur->seek(1); }), c.message) << c.what;
    EXPECT_EQ(thrownBy([&] { r.cur->seek(6); }), "xj_driver: seek(6) outside [0,6)") << c.what;
  }
}

// ---- stress -----------------------------------------------------------------

// One consumer at random: pulls by position and in sequence, writable pulls
// that it paints over, seeks, while the thread decodes with uneven timing.
// Every frame served must be the asked one, unpainted.
TEST(CursorStress, RandomUseFromOneConsumer) {
  const int iterations = drvtest::shortRun() ? 3000 : 30000;
  const int nt = 23;
  Rig r(nt, 2, 11, [](PatternSource& s) { s.spinEvery = 3; });
  std::mt19937 rng(99);
  std::vector<unsigned char> buf(kBytes);
  int index = -1;
  auto pick = [&] {
    // Mostly near the play position, where the ring can serve it.
    if (rng() % 4 == 0) return static_cast<int>(rng() % nt);
    const int off = static_cast<int>(rng() % 29) - 16;
    return ((r.cur->position() + off) % nt + nt) % nt;
  };
  for (int n = 0; n < iterations; ++n) {
    const unsigned op = rng() % 100;
    if (op < 25) {
      const int i = pick();
      ASSERT_EQ(r.cur->pullAt(i, buf.data()), i);
      ASSERT_TRUE(isPattern(buf.data(), kBytes, i)) << "op " << n;
    } else if (op < 45) {
      const int i = pick();
      const unsigned char* p = r.cur->pullAt(i, &index);
      ASSERT_EQ(index, i);
      ASSERT_TRUE(isPattern(p, kBytes, i)) << "op " << n;
    } else if (op < 60) {
      const int i = pick();
      unsigned char* p = r.cur->pullMutAt(i, &index);
      ASSERT_EQ(index, i);
      ASSERT_TRUE(isPattern(p, kBytes, i)) << "op " << n;
      std::memset(p, static_cast<int>(rng() & 0xFF), kBytes);
    } else if (op < 72) {
      const int want = r.cur->position();
      const unsigned char* p = r.cur->pull(&index);
      ASSERT_EQ(index, want);
      ASSERT_TRUE(isPattern(p, kBytes, want)) << "op " << n;
    } else if (op < 78) {
      const int want = r.cur->position();
      unsigned char* p = r.cur->pullMut(&index);
      ASSERT_EQ(index, want);
      ASSERT_TRUE(isPattern(p, kBytes, want)) << "op " << n;
      std::memset(p, 0x5A, kBytes);
    } else if (op < 95) {
      const int i = pick();
      r.cur->seek(i);
      ASSERT_EQ(r.cur->position(), i);
    } else {
      const int bad = (rng() & 1) ? nt + static_cast<int>(rng() % 5) : -1 - static_cast<int>(rng() % 5);
      ASSERT_EQ(thrownBy([&] { r.cur->seek(bad); }),
                "xj_driver: seek(" + std::to_string(bad) + ") outside [0," + std::to_string(nt) + ")");
    }
    ASSERT_EQ(r.cur->residentBytes(), 14 * kBytes + 1000);
  }
  EXPECT_GT(r.cur->seeks(), 0u);
  EXPECT_LE(static_cast<uint64_t>(r.counters.seeks.load()), r.cur->seeks())
      << "a source seek the cursor did not ask for";
}

// Consumers on several threads: every call is atomic, so a copying pull
// always delivers the frame it asked for.
TEST(CursorStress, ConsumersOnSeveralThreads) {
  const int iterations = drvtest::shortRun() ? 1000 : 8000;
  const int nt = 31;
  Rig r(nt, 2, 11, [](PatternSource& s) { s.spinEvery = 2; });
  std::atomic<int> bad{0};
  auto consumer = [&](unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> buf(kBytes);
    for (int n = 0; n < iterations; ++n) {
      const int i = static_cast<int>(rng() % nt);
      switch (rng() % 4) {
        case 0:
          r.cur->seek(i);
          break;
        case 1: {
          const int got = r.cur->pull(buf.data());
          if (got < 0 || got >= nt || !isPattern(buf.data(), kBytes, got)) ++bad;
          break;
        }
        default:
          if (r.cur->pullAt(i, buf.data()) != i || !isPattern(buf.data(), kBytes, i)) ++bad;
      }
      (void)r.cur->position();
      (void)r.cur->seeks();
    }
  };
  std::thread a(consumer, 1u), b(consumer, 2u);
  consumer(3u);
  a.join();
  b.join();
  EXPECT_EQ(bad.load(), 0);
}

// The same random use over a real video member, against the reference frames.
TEST(CursorStress, RandomUseOverAVideo) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const auto ref = drvtest::refCanvasFrames(xjtest::fixture("clips") + "/h264_420.yuv", 32, 24);
  const int iterations = drvtest::shortRun() ? 200 : 1500;
  auto cur = xj::DriverCursor::over(
      xj::driver::openMp4(xjtest::fixture("clips") + "/h264_420.mp4", 20, 32, 24), 2, 11);
  std::mt19937 rng(5);
  std::vector<unsigned char> buf(cur->frameBytes);
  int index = -1;
  for (int n = 0; n < iterations; ++n) {
    const int i = (rng() % 3 == 0) ? static_cast<int>(rng() % 20)
                                   : (cur->position() + 20 + static_cast<int>(rng() % 9) - 5) % 20;
    switch (rng() % 5) {
      case 0:
        cur->seek(i);
        break;
      case 1: {
        const int got = cur->pull(buf.data());
        ASSERT_EQ(0, std::memcmp(buf.data(), ref[static_cast<size_t>(got)].data(), buf.size())) << "op " << n;
        break;
      }
      case 2: {
        unsigned char* p = cur->pullMutAt(i, &index);
        ASSERT_EQ(0, std::memcmp(p, ref[static_cast<size_t>(i)].data(), buf.size())) << "op " << n;
        std::memset(p, 0, buf.size());
        break;
      }
      default:
        ASSERT_EQ(cur->pullAt(i, buf.data()), i);
        ASSERT_EQ(0, std::memcmp(buf.data(), ref[static_cast<size_t>(i)].data(), buf.size())) << "op " << n;
    }
  }
}

}  // namespace
