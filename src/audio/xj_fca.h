// The whole-utterance audio model of the batch path: one 63-float delta row per
// video frame for a whole utterance, in one call, with no state between calls.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace xj::fca {

constexpr int kLayers[6] = {4, 5, 6, 7, 8, 9};  // encoder layers averaged into a frame
constexpr int kOffs[7] = {-1, 0, 1, 2, 3, 4, 5};  // frame offsets stacked into a condition row
constexpr int kDim = 768;
constexpr int kCond = 7 * kDim;
constexpr int kHidden = 384;

// Frames minus a running baseline: at each frame the mean of the frames so far
// whose energy stood above the 20th percentile of the energies up to then.
// `frames` is T rows of kDim floats, rewritten in place.
void subtractRunningBaseline(std::vector<float>& frames, int T);

// The energy of each frame: its Euclidean norm, in double precision.
std::vector<float> frameEnergy(const std::vector<float>& frames, int T);

// The threshold of frame t: 0 before frame 7, else the value at position 0.2 t
// of the sorted energies 0..t, interpolated linearly.
float baselineThreshold(const std::vector<float>& energy, int t, std::vector<float>& scratch);

}  // namespace xj::fca
