#include "xj_audio_in.h"

#include <memory>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace xjtool {

namespace {

std::string avText(int err) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(err, buf, sizeof buf);
  return buf;
}

struct Input {
  AVFormatContext* fmt = nullptr;
  AVCodecContext* dec = nullptr;
  SwrContext* swr = nullptr;
  AVPacket* pkt = nullptr;
  AVFrame* frame = nullptr;
  ~Input() {
    av_frame_free(&frame);
    av_packet_free(&pkt);
    swr_free(&swr);
    avcodec_free_context(&dec);
    avformat_close_input(&fmt);
  }
};

void convert(Input& in, const AVFrame* f, std::vector<float>& out) {
  const int room = swr_get_out_samples(in.swr, f ? f->nb_samples : 0);
  if (room <= 0) return;
  const size_t at = out.size();
  out.resize(at + static_cast<size_t>(room));
  uint8_t* dst[1] = {reinterpret_cast<uint8_t*>(out.data() + at)};
  const int got = swr_convert(in.swr, dst, room, f ? const_cast<const uint8_t**>(f->extended_data) : nullptr,
                              f ? f->nb_samples : 0);
  if (got < 0) throw std::runtime_error("resampling failed: " + avText(got));
  out.resize(at + static_cast<size_t>(got));
}

void drain(Input& in, std::vector<float>& out) {
  for (;;) {
    const int r = avcodec_receive_frame(in.dec, in.frame);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
    if (r < 0) throw std::runtime_error("decoding failed: " + avText(r));
    convert(in, in.frame, out);
    av_frame_unref(in.frame);
  }
}

}  // namespace

std::vector<float> readAudio16k(const std::string& path) {
  Input in;
  int r = avformat_open_input(&in.fmt, path.c_str(), nullptr, nullptr);
  if (r < 0) throw std::runtime_error(avText(r));
  if ((r = avformat_find_stream_info(in.fmt, nullptr)) < 0) throw std::runtime_error(avText(r));
  const AVCodec* codec = nullptr;
  const int stream = av_find_best_stream(in.fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  if (stream < 0 || !codec) throw std::runtime_error("no audio stream");
  in.dec = avcodec_alloc_context3(codec);
  if (!in.dec) throw std::runtime_error("out of memory");
  avcodec_parameters_to_context(in.dec, in.fmt->streams[stream]->codecpar);
  if ((r = avcodec_open2(in.dec, codec, nullptr)) < 0) throw std::runtime_error(avText(r));
  if (in.dec->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
    av_channel_layout_default(&in.dec->ch_layout, in.dec->ch_layout.nb_channels);
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  if ((r = swr_alloc_set_opts2(&in.swr, &mono, AV_SAMPLE_FMT_FLT, kAudioRate, &in.dec->ch_layout,
                               in.dec->sample_fmt, in.dec->sample_rate, 0, nullptr)) < 0 ||
      (r = swr_init(in.swr)) < 0)
    throw std::runtime_error("cannot convert its audio: " + avText(r));
  in.pkt = av_packet_alloc();
  in.frame = av_frame_alloc();
  if (!in.pkt || !in.frame) throw std::runtime_error("out of memory");

  std::vector<float> out;
  while ((r = av_read_frame(in.fmt, in.pkt)) >= 0) {
    if (in.pkt->stream_index == stream) {
      const int s = avcodec_send_packet(in.dec, in.pkt);
      if (s < 0 && s != AVERROR(EAGAIN)) {
        av_packet_unref(in.pkt);
        throw std::runtime_error("decoding failed: " + avText(s));
      }
      drain(in, out);
    }
    av_packet_unref(in.pkt);
  }
  if (r != AVERROR_EOF) throw std::runtime_error("reading failed: " + avText(r));
  avcodec_send_packet(in.dec, nullptr);
  drain(in, out);
  convert(in, nullptr, out);  // what the resampler still holds
  return out;
}

}  // namespace xjtool
