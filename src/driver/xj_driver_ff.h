// Video members decoded in place through libavformat and libavcodec: the
// canvas video (mode 0, 4:2:0 to RGB24) and the warp prior (mode 1, 4:4:4 to
// planar float16). Nothing is rescaled and no pixel domain is converted into
// another: a member that disagrees with the manifest is refused.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "driver/xj_driver.h"

struct AVFormatContext;
struct AVCodecContext;
struct AVPacket;
struct AVFrame;

namespace xj::driver {

constexpr int kModeCanvas = 0;
constexpr int kModePrior = 1;

class FfSource : public Source {
 public:
  FfSource(int mode, std::string path, int nt, int w, int h);
  ~FfSource() override;
  FfSource(const FfSource&) = delete;
  FfSource& operator=(const FfSource&) = delete;

  // Opens the container and the decoder; throws every refusal.
  void open();

  int32_t NT() const override { return nt; }
  int32_t W() const override { return w; }
  int32_t H() const override { return h; }
  uint64_t frameBytes() const override;
  bool next(unsigned char* out) override;
  void rewind() override;
  void seek(int i) override;
  std::string name() const override { return decoderName; }
  uint64_t residentBytes() const override;

  // Frames delivered since the start of the member.
  int32_t delivered() const { return pos; }
  // Frame threads of the open decoder, 0 while none is open.
  int decoderThreads() const { return threads.load(std::memory_order_relaxed); }

 private:
  void close();

  int32_t mode;
  std::string path;
  int32_t nt, w, h;
  uint16_t halfOf[256] = {};
  AVFormatContext* fmt = nullptr;
  AVCodecContext* dec = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  int32_t stream = -1;
  bool drained = false;
  int32_t pos = 0;
  // Read by residentBytes() from any thread while the owner decodes.
  std::atomic<int32_t> maxPacket{0};
  std::atomic<int32_t> threads{0};
  std::string decoderName;
};

std::unique_ptr<FfSource> openMp4(const std::string& path, int nt, int w, int h);
std::unique_ptr<FfSource> openPriorHevc(const std::string& path, int nt, int side);

// The conversion of one decoded picture into the frame layout of a mode,
// with the refusals of a picture that does not fit: a w x h picture, yuv420p
// or nv12 for the canvas, yuv444p for the prior (halfOf: the 256-entry table
// of i / 255 as binary16). `path` names the member in the messages.
void convertPicture(int mode, const AVFrame* picture, const std::string& path, int w, int h,
                    const uint16_t* halfOf, unsigned char* out);

}  // namespace xj::driver
