// The canvas video source against FFmpeg's own decode plus libswscale, per
// 1920x1080 frame; and the memory of a cursor over a 250-frame 1080p video
// against holding that video decoded in memory.
//
// The video is made once per run with the ffmpeg command in a temp folder.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include "driver/xj_driver.h"
#include "driver/xj_driver_ff.h"

namespace {

constexpr int kW = 1920, kH = 1080, kFrames = 250;

struct Video {
  std::string dir;
  std::string path;
  Video() {
    const char* t = std::getenv("TMPDIR");
    std::string tmpl = std::string((t && *t) ? t : "/tmp") + "/xjbench.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
    dir = buf.data();
    path = dir + "/driver.mp4";
    const std::string cmd = "ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i testsrc2=size=" +
                            std::to_string(kW) + "x" + std::to_string(kH) + ":rate=25 -frames:v " +
                            std::to_string(kFrames) + " -c:v libx264 -preset ultrafast -pix_fmt yuv420p '" + path +
                            "'";
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("ffmpeg failed: " + cmd);
  }
  ~Video() {
    std::remove(path.c_str());
    rmdir(dir.c_str());
  }
};

const Video& video() {
  static const Video v;
  return v;
}

// FFmpeg's own loop with the same demuxer and decoder settings (four frame
// threads), then sws_scale from the decoded picture to packed RGB24.
class FfmpegSwscale {
 public:
  explicit FfmpegSwscale(const std::string& path) {
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) throw std::runtime_error("open failed");
    avformat_find_stream_info(fmt, nullptr);
    stream = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const AVCodec* codec = avcodec_find_decoder(fmt->streams[stream]->codecpar->codec_id);
    dec = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(dec, fmt->streams[stream]->codecpar);
    dec->thread_count = 4;
    dec->thread_type = FF_THREAD_FRAME;
    if (avcodec_open2(dec, codec, nullptr) < 0) throw std::runtime_error("decoder failed");
    pkt = av_packet_alloc();
    frame = av_frame_alloc();
    sws = sws_getContext(kW, kH, AV_PIX_FMT_YUV420P, kW, kH, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr,
                         nullptr);
  }
  ~FfmpegSwscale() {
    sws_freeContext(sws);
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&dec);
    avformat_close_input(&fmt);
  }
  // The next frame as RGB24 into rgb (kW * 3 bytes a row), looping.
  void next(uint8_t* rgb) {
    if (!decodeOne(rgb)) {
      av_seek_frame(fmt, stream, 0, AVSEEK_FLAG_BACKWARD);
      avcodec_flush_buffers(dec);
      drained = false;
      decodeOne(rgb);
    }
  }

 private:
  bool decodeOne(uint8_t* rgb) {
    uint8_t* dst[4] = {rgb, nullptr, nullptr, nullptr};
    int dstStride[4] = {kW * 3, 0, 0, 0};
    for (;;) {
      const int r = avcodec_receive_frame(dec, frame);
      if (r == 0) {
        sws_scale(sws, frame->data, frame->linesize, 0, kH, dst, dstStride);
        av_frame_unref(frame);
        return true;
      }
      if (r == AVERROR_EOF || drained) return false;
      if (av_read_frame(fmt, pkt) < 0) {
        drained = true;
        avcodec_send_packet(dec, nullptr);
        continue;
      }
      if (pkt->stream_index == stream) avcodec_send_packet(dec, pkt);
      av_packet_unref(pkt);
    }
  }

  AVFormatContext* fmt = nullptr;
  AVCodecContext* dec = nullptr;
  AVPacket* pkt = nullptr;
  AVFrame* frame = nullptr;
  SwsContext* sws = nullptr;
  int stream = -1;
  bool drained = false;
};

// One frame from each pipeline per iteration, alternating, each timed on its
// own: whatever else the machine does weighs on both sides alike.
void BM_DecodeAndConvert(benchmark::State& state) {
  auto src = xj::driver::openMp4(video().path, kFrames, kW, kH);
  FfmpegSwscale ff(video().path);
  std::vector<unsigned char> a(src->frameBytes()), b(src->frameBytes());
  double xjSeconds = 0, ffSeconds = 0;
  using Clock = std::chrono::steady_clock;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (!src->next(a.data())) {
      src->rewind();
      src->next(a.data());
    }
    const auto t1 = Clock::now();
    ff.next(b.data());
    const auto t2 = Clock::now();
    xjSeconds += std::chrono::duration<double>(t1 - t0).count();
    ffSeconds += std::chrono::duration<double>(t2 - t1).count();
    benchmark::DoNotOptimize(a.data());
    benchmark::DoNotOptimize(b.data());
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["xj_ms_per_frame"] = 1e3 * xjSeconds / n;
  state.counters["ffmpeg_swscale_ms_per_frame"] = 1e3 * ffSeconds / n;
  state.counters["ffmpeg_over_xj"] = ffSeconds / xjSeconds;
}

// The conversion alone, on one decoded picture: the canvas conversion of the
// source against sws_scale, alternating.
void BM_ConvertOnly(benchmark::State& state) {
  AVFormatContext* fmt = nullptr;
  avformat_open_input(&fmt, video().path.c_str(), nullptr, nullptr);
  avformat_find_stream_info(fmt, nullptr);
  const int stream = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  const AVCodec* codec = avcodec_find_decoder(fmt->streams[stream]->codecpar->codec_id);
  AVCodecContext* dec = avcodec_alloc_context3(codec);
  avcodec_parameters_to_context(dec, fmt->streams[stream]->codecpar);
  avcodec_open2(dec, codec, nullptr);
  AVPacket* pkt = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  while (avcodec_receive_frame(dec, frame) != 0) {
    if (av_read_frame(fmt, pkt) < 0) break;
    if (pkt->stream_index == stream) avcodec_send_packet(dec, pkt);
    av_packet_unref(pkt);
  }
  SwsContext* sws = sws_getContext(kW, kH, AV_PIX_FMT_YUV420P, kW, kH, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr,
                                   nullptr, nullptr);
  std::vector<uint8_t> a(static_cast<size_t>(kW) * kH * 3), b(a.size());
  uint8_t* dst[4] = {b.data(), nullptr, nullptr, nullptr};
  int dstStride[4] = {kW * 3, 0, 0, 0};
  double xjSeconds = 0, ffSeconds = 0;
  using Clock = std::chrono::steady_clock;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    xj::driver::convertPicture(xj::driver::kModeCanvas, frame, "bench", kW, kH, nullptr, a.data());
    const auto t1 = Clock::now();
    sws_scale(sws, frame->data, frame->linesize, 0, kH, dst, dstStride);
    const auto t2 = Clock::now();
    xjSeconds += std::chrono::duration<double>(t1 - t0).count();
    ffSeconds += std::chrono::duration<double>(t2 - t1).count();
    benchmark::DoNotOptimize(a.data());
    benchmark::DoNotOptimize(b.data());
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["xj_ms_per_frame"] = 1e3 * xjSeconds / n;
  state.counters["swscale_ms_per_frame"] = 1e3 * ffSeconds / n;
  state.counters["swscale_over_xj"] = ffSeconds / xjSeconds;
  sws_freeContext(sws);
  av_frame_free(&frame);
  av_packet_free(&pkt);
  avcodec_free_context(&dec);
  avformat_close_input(&fmt);
}

// Sequential pulls through the cursor (decoding ahead on its own thread);
// the counters compare its memory with the whole video decoded.
void BM_CursorResident(benchmark::State& state) {
  auto cur = xj::DriverCursor::over(xj::driver::openMp4(video().path, kFrames, kW, kH), 2, 11);
  std::vector<unsigned char> rgb(cur->frameBytes);
  for (auto _ : state) benchmark::DoNotOptimize(cur->pull(rgb.data()));
  const double resident = static_cast<double>(cur->residentBytes());
  const double whole = static_cast<double>(cur->frameBytes) * kFrames;
  state.counters["resident_MiB"] = resident / (1 << 20);
  state.counters["decoded_video_MiB"] = whole / (1 << 20);
  state.counters["video_over_cursor"] = whole / resident;
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_DecodeAndConvert)->Unit(benchmark::kMillisecond)->Iterations(kFrames)->UseRealTime();
BENCHMARK(BM_ConvertOnly)->Unit(benchmark::kMillisecond)->Iterations(200)->UseRealTime();
BENCHMARK(BM_CursorResident)->Unit(benchmark::kMillisecond)->Iterations(kFrames)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // Software decoding on both sides of the comparison, and no attempt at a
  // hardware decoder to print about.
  setenv("XJ_DRIVER_HWDEC", "0", 1);
  benchmark::Initialize(&argc, argv);
  video();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
