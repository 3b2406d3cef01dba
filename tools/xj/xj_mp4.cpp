#include "xj_mp4.h"

#include <algorithm>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace xjtool {

namespace {

constexpr int kFps = 25;
constexpr int kRate = 16000;

// RGB24 to yuv420p, BT.601 limited range (what FFmpeg's scaler gives for RGB
// input by default), chroma from the mean of each 2x2 block. The scaler has no
// fast path for RGB24 to yuv420p; this plain loop costs a fraction of it.
void rgbToYuv420(const uint8_t* rgb, int w, int h, AVFrame* f) {
  for (int y = 0; y < h; ++y) {
    const uint8_t* p = rgb + static_cast<size_t>(y) * w * 3;
    uint8_t* Y = f->data[0] + static_cast<size_t>(y) * f->linesize[0];
    for (int x = 0; x < w; ++x, p += 3) Y[x] = static_cast<uint8_t>(((66 * p[0] + 129 * p[1] + 25 * p[2] + 128) >> 8) + 16);
  }
  for (int y = 0; y < h / 2; ++y) {
    const uint8_t* a = rgb + static_cast<size_t>(2 * y) * w * 3;
    const uint8_t* b = a + static_cast<size_t>(w) * 3;
    uint8_t* U = f->data[1] + static_cast<size_t>(y) * f->linesize[1];
    uint8_t* V = f->data[2] + static_cast<size_t>(y) * f->linesize[2];
    for (int x = 0; x < w / 2; ++x, a += 6, b += 6) {
      const int r = a[0] + a[3] + b[0] + b[3], g = a[1] + a[4] + b[1] + b[4], bl = a[2] + a[5] + b[2] + b[5];
      U[x] = static_cast<uint8_t>(((-38 * r - 74 * g + 112 * bl + 512) >> 10) + 128);
      V[x] = static_cast<uint8_t>(((112 * r - 94 * g - 18 * bl + 512) >> 10) + 128);
    }
  }
}

std::string avText(int err) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(err, buf, sizeof buf);
  return buf;
}

void check(int r, const char* what) {
  if (r < 0) throw std::runtime_error(std::string(what) + ": " + avText(r));
}

}  // namespace

struct Mp4Writer::Impl {
  AVFormatContext* fmt = nullptr;
  AVCodecContext* venc = nullptr;
  AVCodecContext* aenc = nullptr;
  AVStream* vst = nullptr;
  AVStream* ast = nullptr;
  AVFrame* yuv = nullptr;
  AVPacket* pkt = nullptr;
  int width = 0, height = 0;
  int64_t nextPts = 0;
  std::vector<float> audio;
  bool finished = false;

  ~Impl() {
    av_frame_free(&afr);
    av_packet_free(&pkt);
    av_frame_free(&yuv);
    avcodec_free_context(&venc);
    avcodec_free_context(&aenc);
    if (fmt) {
      if (fmt->pb) avio_closep(&fmt->pb);
      avformat_free_context(fmt);
    }
  }

  // Sends frame (nullptr: flush) and writes every packet that comes out.
  void encode(AVCodecContext* enc, AVStream* st, const AVFrame* frame) {
    check(avcodec_send_frame(enc, frame), "encoding");
    for (;;) {
      const int r = avcodec_receive_packet(enc, pkt);
      if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
      check(r, "encoding");
      av_packet_rescale_ts(pkt, enc->time_base, st->time_base);
      pkt->stream_index = st->index;
      check(av_interleaved_write_frame(fmt, pkt), "writing");
    }
  }

  AVFrame* afr = nullptr;
  size_t audioAt = 0;

  // Encodes the sound track up to sample limit (padded with silence past its
  // end), so that audio and video interleave as the frames come.
  void writeAudioUpTo(size_t limit) {
    const size_t n = static_cast<size_t>(aenc->frame_size > 0 ? aenc->frame_size : 1024);
    while (audioAt + n <= limit) {
      check(av_frame_make_writable(afr), "audio frame");
      float* dst = reinterpret_cast<float*>(afr->data[0]);
      for (size_t i = 0; i < n; ++i) dst[i] = audioAt + i < audio.size() ? audio[audioAt + i] : 0.0f;
      afr->pts = static_cast<int64_t>(audioAt);
      encode(aenc, ast, afr);
      audioAt += n;
    }
  }
};

Mp4Writer::Mp4Writer(const std::string& path, int width, int height, int threads) : impl(new Impl) {
  Impl& m = *impl;
  m.width = width;
  m.height = height;
  if (width < 2 || height < 2 || width % 2 || height % 2)
    throw std::runtime_error("H.264 in yuv420p needs an even frame size, not " + std::to_string(width) + "x" +
                             std::to_string(height));
  check(avformat_alloc_output_context2(&m.fmt, nullptr, "mp4", path.c_str()), "mp4 muxer");

  const AVCodec* vc = avcodec_find_encoder_by_name("libx264");
  if (!vc) vc = avcodec_find_encoder(AV_CODEC_ID_H264);
  if (!vc) throw std::runtime_error("this FFmpeg has no H.264 encoder");
  m.venc = avcodec_alloc_context3(vc);
  m.venc->width = width;
  m.venc->height = height;
  m.venc->pix_fmt = AV_PIX_FMT_YUV420P;
  m.venc->time_base = AVRational{1, kFps};
  m.venc->framerate = AVRational{kFps, 1};
  m.venc->gop_size = 50;
  m.venc->thread_count = threads > 0 ? threads : 0;
  if (m.fmt->oformat->flags & AVFMT_GLOBALHEADER) m.venc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  AVDictionary* vopts = nullptr;
  if (!std::string(vc->name).compare("libx264")) {
    // Cheap enough to leave the two cores to the renderer, and sharp enough
    // for a drawn face.
    av_dict_set(&vopts, "preset", "superfast", 0);
    av_dict_set(&vopts, "crf", "20", 0);
  }
  const int vr = avcodec_open2(m.venc, vc, &vopts);
  av_dict_free(&vopts);
  check(vr, "opening the video encoder");
  m.vst = avformat_new_stream(m.fmt, nullptr);
  m.vst->time_base = m.venc->time_base;
  m.vst->avg_frame_rate = m.venc->framerate;
  check(avcodec_parameters_from_context(m.vst->codecpar, m.venc), "video stream");

  const AVCodec* ac = avcodec_find_encoder_by_name("aac");
  if (!ac) throw std::runtime_error("this FFmpeg has no AAC encoder");
  m.aenc = avcodec_alloc_context3(ac);
  m.aenc->sample_fmt = AV_SAMPLE_FMT_FLTP;
  m.aenc->sample_rate = kRate;
  m.aenc->bit_rate = 64000;
  m.aenc->time_base = AVRational{1, kRate};
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  av_channel_layout_copy(&m.aenc->ch_layout, &mono);
  if (m.fmt->oformat->flags & AVFMT_GLOBALHEADER) m.aenc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  check(avcodec_open2(m.aenc, ac, nullptr), "opening the audio encoder");
  m.ast = avformat_new_stream(m.fmt, nullptr);
  m.ast->time_base = m.aenc->time_base;
  check(avcodec_parameters_from_context(m.ast->codecpar, m.aenc), "audio stream");

  check(avio_open(&m.fmt->pb, path.c_str(), AVIO_FLAG_WRITE), ("opening " + path).c_str());
  check(avformat_write_header(m.fmt, nullptr), "writing the header");

  m.yuv = av_frame_alloc();
  m.pkt = av_packet_alloc();
  if (!m.yuv || !m.pkt) throw std::runtime_error("out of memory");
  m.yuv->format = AV_PIX_FMT_YUV420P;
  m.yuv->width = width;
  m.yuv->height = height;
  check(av_frame_get_buffer(m.yuv, 0), "frame buffer");
  m.afr = av_frame_alloc();
  if (!m.afr) throw std::runtime_error("out of memory");
  m.afr->format = m.aenc->sample_fmt;
  m.afr->nb_samples = m.aenc->frame_size > 0 ? m.aenc->frame_size : 1024;
  m.afr->sample_rate = kRate;
  av_channel_layout_copy(&m.afr->ch_layout, &m.aenc->ch_layout);
  check(av_frame_get_buffer(m.afr, 0), "audio frame");
}

Mp4Writer::~Mp4Writer() = default;

const char* Mp4Writer::videoEncoder() const { return impl->venc->codec->name; }

void Mp4Writer::addFrame(const uint8_t* rgb) {
  Impl& m = *impl;
  check(av_frame_make_writable(m.yuv), "frame buffer");
  rgbToYuv420(rgb, m.width, m.height, m.yuv);
  m.yuv->pts = m.nextPts++;
  m.encode(m.venc, m.vst, m.yuv);
  m.writeAudioUpTo(static_cast<size_t>(m.nextPts) * (kRate / kFps));
}

void Mp4Writer::setAudio(std::vector<float> pcm) { impl->audio = std::move(pcm); }

void Mp4Writer::finish() {
  Impl& m = *impl;
  if (m.finished) return;
  m.finished = true;
  m.encode(m.venc, m.vst, nullptr);
  // The sound track ends with the picture: the last partial frame of samples
  // is padded, and the encoder's priming is trimmed by the muxer's edit list.
  const size_t n = static_cast<size_t>(m.afr->nb_samples);
  const size_t end = static_cast<size_t>(m.nextPts) * (kRate / kFps);
  m.writeAudioUpTo((end + n - 1) / n * n);
  m.encode(m.aenc, m.ast, nullptr);
  check(av_write_trailer(m.fmt), "writing the trailer");
  check(avio_closep(&m.fmt->pb), "closing the file");
}

}  // namespace xjtool
