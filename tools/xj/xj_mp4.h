// Writes RGB frames as H.264 (yuv420p) at 25 fps and mono 16 kHz audio as AAC
// into an MP4 file.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace xjtool {

class Mp4Writer {
 public:
  // Opens path for writing (the MP4 muxer whatever the file's name says).
  // threads < 1 lets the video encoder choose. Throws std::runtime_error.
  Mp4Writer(const std::string& path, int width, int height, int threads);
  ~Mp4Writer();
  Mp4Writer(const Mp4Writer&) = delete;
  Mp4Writer& operator=(const Mp4Writer&) = delete;

  // One frame of width*height*3 bytes of RGB, in display order.
  void addFrame(const uint8_t* rgb);
  // The sound track, mono float at 16000 Hz; written on finish.
  void setAudio(std::vector<float> pcm);
  // Flushes both encoders and writes the trailer. Throws on failure.
  void finish();
  // The name of the video encoder in use.
  const char* videoEncoder() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace xjtool
