// Shared pieces of the paste tests: dispatch targets, generated crops, masks
// and matrices, a child process with its own thread count, an allocation
// counter.
#pragma once
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace xjpaste {

// The dispatch targets this CPU supports that have a body of their own.
std::vector<int64_t> targets();
const char* targetName(int64_t t);

// Restricts dispatch to one target for its lifetime.
class TargetScope {
 public:
  explicit TargetScope(int64_t target);
  ~TargetScope();
  TargetScope(const TargetScope&) = delete;
  TargetScope& operator=(const TargetScope&) = delete;
};

// Planes R, G, B of side*side floats, mostly in [0, 1] with some values past
// either end, smooth areas and sharp ones.
std::vector<float> randomCrop(std::mt19937& rng, int side);
// A soft-edged disc: 255 inside, a ramp, 0 at the corners.
std::vector<uint8_t> softMask(int side);
std::vector<uint8_t> randomMask(std::mt19937& rng, int side);
std::vector<uint8_t> randomCanvas(std::mt19937& rng, int W, int H);

// Crop to canvas: scale s, rotation theta (radians), mirrored in x when
// `reflect`, with the crop's centre landing on (cx, cy).
void placeMatrix(float M[6], int side, double s, double theta, bool reflect, double cx, double cy);

// Index of the first differing byte, or -1.
long firstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b);

// Runs the DISABLED_ test `name` of this program in a fresh process with
// XJ_CORE_THREADS=threads, extra environment `env` ("NAME=value" entries);
// returns its stderr, *status its raw wait status.
std::string runChildTest(const std::string& name, int threads, const std::vector<std::string>& env,
                         int* status);

// Counts operator new calls made by any thread while armed.
void armAllocationCounter(bool on);
size_t allocationCount();

bool shortRun();

}  // namespace xjpaste
