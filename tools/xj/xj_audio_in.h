// Reads any audio file FFmpeg can open as mono float samples at 16000 Hz.
#pragma once
#include <string>
#include <vector>

namespace xjtool {

constexpr int kAudioRate = 16000;
constexpr int kSamplesPerFrame = 640;  // one video frame at 25 fps

// The whole file, resampled and mixed down; throws std::runtime_error with
// FFmpeg's reason when the file cannot be opened or holds no audio.
std::vector<float> readAudio16k(const std::string& path);

}  // namespace xjtool
