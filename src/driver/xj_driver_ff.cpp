#include "driver/xj_driver_ff.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "cpu/xj_yuv2rgb_simd.h"
#include "driver/xj_moviedec_ff.h"

namespace xj::driver {
namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

std::string errText(int err) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(err, buf, sizeof buf);
  return buf;
}

const char* kHwDecoder = "h264_cuvid";

inline int clampByte(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// Limited-range BT.601 in 16.16 fixed point, per 4:4:4 pixel; the byte then
// indexes the half table, which stands in for a float-to-half per sample.
void priorToPlanarHalf(const AVFrame* f, int w, int h, const uint16_t* halfOf, unsigned char* out) {
  const size_t plane = static_cast<size_t>(w) * static_cast<size_t>(h);
  uint16_t* outR = reinterpret_cast<uint16_t*>(out);
  uint16_t* outG = outR + plane;
  uint16_t* outB = outG + plane;
  for (int r = 0; r < h; ++r) {
    const uint8_t* py = f->data[0] + static_cast<ptrdiff_t>(r) * f->linesize[0];
    const uint8_t* pu = f->data[1] + static_cast<ptrdiff_t>(r) * f->linesize[1];
    const uint8_t* pv = f->data[2] + static_cast<ptrdiff_t>(r) * f->linesize[2];
    const size_t row = static_cast<size_t>(r) * static_cast<size_t>(w);
    for (int x = 0; x < w; ++x) {
      const int32_t y = (static_cast<int32_t>(py[x]) - 16) * 76312;
      const int32_t u = static_cast<int32_t>(pu[x]) - 128;
      const int32_t v = static_cast<int32_t>(pv[x]) - 128;
      const int32_t cr = (y + 104600 * v + 32768) >> 16;
      const int32_t cg = (y - 25672 * u - 53280 * v + 32768) >> 16;
      const int32_t cb = (y + 132200 * u + 32768) >> 16;
      outR[row + x] = halfOf[clampByte(cr)];
      outG[row + x] = halfOf[clampByte(cg)];
      outB[row + x] = halfOf[clampByte(cb)];
    }
  }
}

void canvasToRgb(const AVFrame* f, int w, int h, bool nv12, unsigned char* out) {
  const size_t rowBytes = static_cast<size_t>(w) * 3;
  for (int r = 0; r < h; ++r) {
    const uint8_t* y = f->data[0] + static_cast<ptrdiff_t>(r) * f->linesize[0];
    uint8_t* dst = out + static_cast<size_t>(r) * rowBytes;
    if (nv12) {
      const uint8_t* uv = f->data[1] + static_cast<ptrdiff_t>(r / 2) * f->linesize[1];
      simd::yuv420RowToRgb24(y, uv, uv + 1, w, 2, dst);
    } else {
      const uint8_t* u = f->data[1] + static_cast<ptrdiff_t>(r / 2) * f->linesize[1];
      const uint8_t* v = f->data[2] + static_cast<ptrdiff_t>(r / 2) * f->linesize[2];
      simd::yuv420RowToRgb24(y, u, v, w, 1, dst);
    }
  }
}

}  // namespace

void convertPicture(int mode, const AVFrame* f, const std::string& path, int w, int h, const uint16_t* halfOf,
                    unsigned char* out) {
  if (f->width != w || f->height != h) fail("xj_driver: " + path + " changed size mid-stream \xE2\x80\x94 refusing");
  const AVPixelFormat format = static_cast<AVPixelFormat>(f->format);
  const char* formatName = av_get_pix_fmt_name(format);
  if (!formatName) formatName = "?";
  if (mode == kModePrior) {
    if (format != AV_PIX_FMT_YUV444P) {
      fail("xj_driver: " + path + " decoded to " + formatName +
           ", not the yuv444p a warp prior is authored in \xE2\x80\x94 a subsampled prior is a different mouth, "
           "refusing");
    }
    priorToPlanarHalf(f, w, h, halfOf, out);
    return;
  }
  if (format != AV_PIX_FMT_YUV420P && format != AV_PIX_FMT_NV12) {
    fail("xj_driver: " + path + " decoded to " + formatName +
         ", not the 4:2:0 layout the canvas conversion is written for (yuv420p / nv12) \xE2\x80\x94 refusing rather "
         "than pasting onto a different pixel domain");
  }
  canvasToRgb(f, w, h, format == AV_PIX_FMT_NV12, out);
}

FfSource::FfSource(int mode_, std::string path_, int nt_, int w_, int h_)
    : mode(mode_), path(std::move(path_)), nt(nt_), w(w_), h(h_) {
  if (mode == kModePrior) {
    for (int i = 0; i < 256; ++i) halfOf[i] = f32ToF16(static_cast<float>(i) / 255.0f);
  }
}

FfSource::~FfSource() { close(); }

void FfSource::close() {
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&dec);
  avformat_close_input(&fmt);
  stream = -1;
  threads.store(0, std::memory_order_relaxed);
}

void FfSource::open() {
  if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) {
    fail("xj_driver: " + path + " is not a readable container");
  }
  if (avformat_find_stream_info(fmt, nullptr) < 0) fail("xj_driver: " + path + " carries no stream info");
  for (unsigned s = 0; s < fmt->nb_streams; ++s) {
    if (fmt->streams[s]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      stream = static_cast<int32_t>(s);
      break;
    }
  }
  if (stream < 0) fail("xj_driver: " + path + " has no video stream");
  const AVStream* st = fmt->streams[stream];
  const AVCodecParameters* par = st->codecpar;
  if (par->width != w || par->height != h) {
    fail("xj_driver: " + path + " is " + std::to_string(par->width) + "x" + std::to_string(par->height) +
         ", the manifest says " + std::to_string(w) + "x" + std::to_string(h) +
         " \xE2\x80\x94 refusing to rescale the driver");
  }
  if (st->nb_frames > 0 && st->nb_frames != nt) {
    fail("xj_driver: " + path + " carries " + std::to_string(st->nb_frames) + " frames, the manifest says NT=" +
         std::to_string(nt) + " \xE2\x80\x94 member/manifest mismatch, refusing");
  }

  bool opened = false;
  const char* hw = std::getenv("XJ_DRIVER_HWDEC");
  if (hw && std::strcmp(hw, "0") == 0) {
    std::fprintf(stderr,
                 "[xj-driver] XJ_DRIVER_HWDEC=0 \xE2\x80\x94 %s not attempted; the software decoder is the one "
                 "decoder on this fleet (same samples)\n",
                 kHwDecoder);
  } else if (mode == kModeCanvas && par->codec_id == AV_CODEC_ID_H264) {
    if (const AVCodec* hwCodec = avcodec_find_decoder_by_name(kHwDecoder)) {
      dec = avcodec_alloc_context3(hwCodec);
      if (dec && avcodec_parameters_to_context(dec, par) >= 0) {
        dec->thread_count = 1;
        opened = avcodec_open2(dec, hwCodec, nullptr) >= 0;
      }
      if (!opened) {
        avcodec_free_context(&dec);
        std::fprintf(stderr,
                     "[xj-driver] %s refused %s \xE2\x80\x94 falling back to the software h264 decoder (same "
                     "samples, more CPU)\n",
                     hwCodec->name, path.c_str());
      }
    }
  }
  if (!opened) {
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    if (!codec) {
      fail("xj_driver: no decoder for " + path + " (codec id " + std::to_string(static_cast<int>(par->codec_id)) +
           ")");
    }
    dec = avcodec_alloc_context3(codec);
    if (!dec) fail("xj_driver: avcodec_alloc_context3 failed");
    if (avcodec_parameters_to_context(dec, par) < 0) fail("xj_driver: avcodec_parameters_to_context failed");
    dec->thread_count = 4;
    dec->thread_type = FF_THREAD_FRAME;
    if (avcodec_open2(dec, codec, nullptr) < 0) fail("xj_driver: could not open the decoder for " + path);
  }
  threads.store(std::max(dec->thread_count, 1), std::memory_order_relaxed);

  packet = av_packet_alloc();
  frame = av_frame_alloc();
  if (!packet || !frame) fail("xj_driver: out of memory");
  drained = false;
  pos = 0;
  decoderName = std::string(mode == kModePrior ? "hevc444/libavcodec " : "mp4/libavcodec ") +
                libavcodecBuildVersion() + " " + dec->codec->name;
}

uint64_t FfSource::frameBytes() const {
  return static_cast<uint64_t>(w) * static_cast<uint64_t>(h) * (mode == kModePrior ? 6u : 3u);
}

uint64_t FfSource::residentBytes() const {
  const uint64_t pixels = static_cast<uint64_t>(w) * static_cast<uint64_t>(h);
  const uint64_t plane = mode == kModePrior ? pixels * 3 : (pixels * 3) / 2;
  const int t = threads.load(std::memory_order_relaxed);
  const uint64_t frames = t > 0 ? static_cast<uint64_t>(t) + 5 : 6;
  return static_cast<uint64_t>(maxPacket.load(std::memory_order_relaxed)) + plane * frames;
}

bool FfSource::next(unsigned char* out) {
  for (;;) {
    int r = avcodec_receive_frame(dec, frame);
    if (r == 0) {
      convertPicture(mode, frame, path, w, h, halfOf, out);
      av_frame_unref(frame);
      ++pos;
      return true;
    }
    if (r == AVERROR_EOF) return false;
    if (r != AVERROR(EAGAIN)) {
      fail("xj_driver: " + path + " decode fault at frame " + std::to_string(pos) + " (" + errText(r) + ")");
    }
    if (drained) return false;
    r = av_read_frame(fmt, packet);
    if (r == AVERROR_EOF) {
      drained = true;
      avcodec_send_packet(dec, nullptr);
      continue;
    }
    if (r < 0) fail("xj_driver: " + path + " read fault (" + errText(r) + ")");
    if (packet->stream_index == stream) {
      if (packet->size > maxPacket.load(std::memory_order_relaxed)) {
        maxPacket.store(packet->size, std::memory_order_relaxed);
      }
      r = avcodec_send_packet(dec, packet);
      if (r < 0 && r != AVERROR(EAGAIN)) {
        av_packet_unref(packet);
        fail("xj_driver: " + path + " packet refused (" + errText(r) + ")");
      }
    }
    av_packet_unref(packet);
  }
}

void FfSource::rewind() {
  if (fmt && dec && av_seek_frame(fmt, stream, 0, AVSEEK_FLAG_BACKWARD) >= 0) {
    avcodec_flush_buffers(dec);
    drained = false;
  } else {
    close();
    open();
  }
  pos = 0;
}

void FfSource::seek(int i) {
  if (i < 0 || i >= nt) fail("xj_driver: seek outside the member");
  if (pos > i) rewind();
  if (pos >= i) return;
  // Decoding forward is the only exact way to a frame that is not a key frame.
  std::vector<unsigned char> scratch(frameBytes());
  while (pos < i) {
    if (!next(scratch.data())) {
      fail("xj_driver: " + path + " ended at frame " + std::to_string(pos) + " while seeking to " +
           std::to_string(i));
    }
  }
}

std::unique_ptr<FfSource> openMp4(const std::string& path, int nt, int w, int h) {
  auto s = std::make_unique<FfSource>(kModeCanvas, path, nt, w, h);
  s->open();
  return s;
}

std::unique_ptr<FfSource> openPriorHevc(const std::string& path, int nt, int side) {
  auto s = std::make_unique<FfSource>(kModePrior, path, nt, side, side);
  s->open();
  return s;
}

}  // namespace xj::driver
