// Shared helpers of the motion model tests: the fixture directory, synthetic
// speech, and driving a handle through one utterance.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "xj/xj.h"
#include "xj_testutil.h"

namespace motiontest {

std::string motionDir();
std::string graphVariant(const std::string& name);

// Owns a handle; the error text of a failed create is kept.
struct Motion {
  xj_motion* m = nullptr;
  std::string error;
  explicit Motion(const std::string& dir, int threads = 1, const char* ep = nullptr);
  ~Motion();
  Motion(const Motion&) = delete;
  Motion& operator=(const Motion&) = delete;
};

// Voiced syllables over a little noise: features change from frame to frame.
std::vector<float> speech(size_t samples, uint32_t seed);

std::vector<float> readF32(const std::string& path);
void writeF32(const std::string& path, const std::vector<float>& v);

// What the frames of an utterance were, in the order they left.
struct Frames {
  std::vector<int> rows;
  std::vector<float> xs, xd;
  int count() const { return static_cast<int>(rows.size()); }
  const float* xdRow(int f) const { return xd.data() + static_cast<size_t>(f) * 63; }
  const float* xsRow(int f) const { return xs.data() + static_cast<size_t>(f) * 63; }
};

// Pulls everything ready, at most maxPerPull frames a call. False on a failed call.
bool pullReady(xj_motion* m, Frames& out, int maxPerPull = 7);

// reset(0, +1, loop), set_eager, push in pieces (pulling after each piece when
// `stream`), finish, pull the rest. *beforeFinish: frames that left before finish.
Frames utterance(xj_motion* m, const std::vector<float>& audio, size_t piece, int eager, bool stream,
                 int* beforeFinish = nullptr, int loop = 0);

// A copy of the standard fixture in a fresh folder.
struct MotionCopy {
  xjtest::TempDir tmp;
  std::string dir;
  MotionCopy();
  std::string member(const std::string& name) const { return dir + "/" + name; }
};

}  // namespace motiontest
