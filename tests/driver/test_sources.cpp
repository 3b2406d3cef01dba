// Frame sources: exact frames of the lossless fixture videos against a plain
// reference conversion of the planes that were encoded, and every refusal in
// its own words.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/version.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "driver/xj_driver.h"
#include "driver/xj_driver_ff.h"
#include "driver/xj_moviedec_ff.h"
#include "driver_testutil.h"
#include "xj_testutil.h"

namespace {

const std::string kEm = "\xE2\x80\x94";

std::string clip(const std::string& name) { return xjtest::fixture("clips") + "/" + name; }

std::string avcodecVersion() {
  return std::to_string(LIBAVCODEC_VERSION_MAJOR) + "." + std::to_string(LIBAVCODEC_VERSION_MINOR) + "." +
         std::to_string(LIBAVCODEC_VERSION_MICRO);
}

std::string thrownBy(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

template <typename T>
std::vector<T> nextFrame(xj::driver::Source& s, bool* got = nullptr) {
  std::vector<T> buf(s.frameBytes() / sizeof(T));
  const bool ok = s.next(reinterpret_cast<unsigned char*>(buf.data()));
  if (got) *got = ok;
  return buf;
}

struct CanvasCase {
  const char* file;
  const char* codec;
};

void PrintTo(const CanvasCase& c, std::ostream* os) { *os << c.file; }

class CanvasVideo : public ::testing::TestWithParam<CanvasCase> {};

// Lossless H.264 and HEVC decode to the planes written; the RGB is then the
// integer BT.601 conversion of those planes, byte for byte, frame after
// frame, and again after a rewind and after seeks either way.
TEST_P(CanvasVideo, DecodesToTheExactConversionOfTheWrittenPlanes) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const auto ref = drvtest::refCanvasFrames(clip("h264_420.yuv"), 32, 24);
  ASSERT_EQ(ref.size(), 20u);
  auto src = xj::driver::openMp4(clip(GetParam().file), 20, 32, 24);
  EXPECT_EQ(src->name(), "mp4/libavcodec " + avcodecVersion() + " " + GetParam().codec);
  EXPECT_EQ(src->frameBytes(), 32u * 24 * 3);
  EXPECT_EQ(src->decoderThreads(), 4);
  for (int i = 0; i < 20; ++i) {
    bool ok = false;
    const auto rgb = nextFrame<uint8_t>(*src, &ok);
    ASSERT_TRUE(ok) << "frame " << i;
    ASSERT_EQ(rgb, ref[static_cast<size_t>(i)]) << "frame " << i;
  }
  bool ok = true;
  nextFrame<uint8_t>(*src, &ok);
  EXPECT_FALSE(ok) << "the member has 20 frames";
  EXPECT_FALSE(src->next(nextFrame<uint8_t>(*src).data())) << "and stays at its end";

  src->rewind();
  EXPECT_EQ(src->delivered(), 0);
  EXPECT_EQ(nextFrame<uint8_t>(*src), ref[0]);
  src->seek(13);
  EXPECT_EQ(nextFrame<uint8_t>(*src), ref[13]);
  src->seek(5);  // backward: decodes again from the start
  EXPECT_EQ(nextFrame<uint8_t>(*src), ref[5]);
  src->seek(19);
  EXPECT_EQ(nextFrame<uint8_t>(*src), ref[19]);

  const uint64_t plane = 32 * 24 * 3 / 2;
  EXPECT_EQ(src->residentBytes(), static_cast<uint64_t>(drvtest::largestPacket(clip(GetParam().file))) + plane * (4 + 5));
}

INSTANTIATE_TEST_SUITE_P(Codecs, CanvasVideo,
                         ::testing::Values(CanvasCase{"h264_420.mp4", "h264"}, CanvasCase{"hevc_420.mp4", "hevc"}),
                         [](const auto& info) { return std::string(info.param.codec); });

TEST(PriorVideo, RowsAreTheIntegerConversionThroughTheHalfTable) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const auto ref = drvtest::refPriorFrames(clip("prior_444.yuv"), 16, 16);
  ASSERT_EQ(ref.size(), 12u);
  auto src = xj::driver::openPriorHevc(clip("prior_444.mov"), 12, 16);
  EXPECT_EQ(src->name(), "hevc444/libavcodec " + avcodecVersion() + " hevc");
  EXPECT_EQ(src->frameBytes(), 16u * 16 * 6);
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < 12; ++i) {
      ASSERT_EQ(nextFrame<uint16_t>(*src), ref[static_cast<size_t>(i)]) << "pass " << pass << " frame " << i;
    }
    src->rewind();
  }
  src->seek(7);
  EXPECT_EQ(nextFrame<uint16_t>(*src), ref[7]);
  EXPECT_EQ(src->residentBytes(),
            static_cast<uint64_t>(drvtest::largestPacket(clip("prior_444.mov"))) + 16u * 16 * 3 * (4 + 5));
}

// A container that states no frame count opens, and the source simply ends
// where the member does: the cursor is the one to refuse a short driver.
TEST(CanvasVideo, MemberWithoutACountOpensAndEndsWhereItEnds) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const auto ref = drvtest::refCanvasFrames(clip("h264_420.yuv"), 32, 24);
  auto src = xj::driver::openMp4(clip("short.mkv"), 20, 32, 24);
  for (int i = 0; i < 19; ++i) ASSERT_EQ(nextFrame<uint8_t>(*src), ref[static_cast<size_t>(i)]) << i;
  bool ok = true;
  nextFrame<uint8_t>(*src, &ok);
  EXPECT_FALSE(ok);
  src->seek(19);  // frame 19 is not needed to stand before it
  EXPECT_EQ(src->delivered(), 19);
  // A manifest that claims more frames than the member holds.
  auto longer = xj::driver::openMp4(clip("short.mkv"), 25, 32, 24);
  EXPECT_EQ(thrownBy([&] { longer->seek(22); }),
            "xj_driver: " + clip("short.mkv") + " ended at frame 19 while seeking to 22");
}

TEST(CanvasVideo, SeekToTheCurrentFrameDecodesNothing) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  auto src = xj::driver::openMp4(clip("h264_420.mp4"), 20, 32, 24);
  src->seek(0);
  EXPECT_EQ(src->delivered(), 0);
  EXPECT_EQ(src->residentBytes(), 32u * 24 * 3 / 2 * (4 + 5)) << "no packet was read";
}

TEST(FrameSources, OpenRefusals) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  xjtest::TempDir tmp;
  xjtest::writeFile(tmp / "text.mp4", "this is not a video at all, only words.\n");
  const std::string mp4 = clip("h264_420.mp4");
  const struct {
    const char* what;
    std::function<void()> open;
    std::string message;
  } cases[] = {
      {"one pixel wider", [&] { xj::driver::openMp4(mp4, 20, 31, 24); },
       "xj_driver: " + mp4 + " is 32x24, the manifest says 31x24 " + kEm + " refusing to rescale the driver"},
      {"taller", [&] { xj::driver::openMp4(mp4, 20, 32, 25); },
       "xj_driver: " + mp4 + " is 32x24, the manifest says 32x25 " + kEm + " refusing to rescale the driver"},
      {"prior side", [&] { xj::driver::openPriorHevc(clip("prior_444.mov"), 12, 32); },
       "xj_driver: " + clip("prior_444.mov") + " is 16x16, the manifest says 32x32 " + kEm +
           " refusing to rescale the driver"},
      {"frame count", [&] { xj::driver::openMp4(mp4, 21, 32, 24); },
       "xj_driver: " + mp4 + " carries 20 frames, the manifest says NT=21 " + kEm +
           " member/manifest mismatch, refusing"},
      {"audio only", [&] { xj::driver::openMp4(clip("audio.wav"), 20, 32, 24); },
       "xj_driver: " + clip("audio.wav") + " has no video stream"},
      {"text", [&] { xj::driver::openMp4(tmp / "text.mp4", 20, 32, 24); },
       "xj_driver: " + (tmp / "text.mp4") + " is not a readable container"},
      {"missing", [&] { xj::driver::openPriorHevc(tmp / "gone.mov", 3, 16); },
       "xj_driver: " + (tmp / "gone.mov") + " is not a readable container"},
  };
  for (const auto& c : cases) EXPECT_EQ(thrownBy(c.open), c.message) << c.what;
}

TEST(FrameSources, PixelFormatRefusalsAtTheFirstFrame) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const std::string p420 = clip("prior_420.mov"), c422 = clip("h264_422.mp4"), p444 = clip("prior_444.mov");
  const struct {
    const char* what;
    std::function<std::unique_ptr<xj::driver::FfSource>()> open;
    std::string message;
  } cases[] = {
      {"4:2:0 prior", [&] { return xj::driver::openPriorHevc(p420, 3, 16); },
       "xj_driver: " + p420 + " decoded to yuv420p, not the yuv444p a warp prior is authored in " + kEm +
           " a subsampled prior is a different mouth, refusing"},
      {"4:2:2 canvas", [&] { return xj::driver::openMp4(c422, 2, 32, 24); },
       "xj_driver: " + c422 + " decoded to yuv422p, not the 4:2:0 layout the canvas conversion is written for " +
           "(yuv420p / nv12) " + kEm + " refusing rather than pasting onto a different pixel domain"},
      {"4:4:4 canvas", [&] { return xj::driver::openMp4(p444, 12, 16, 16); },
       "xj_driver: " + p444 + " decoded to yuv444p, not the 4:2:0 layout the canvas conversion is written for " +
           "(yuv420p / nv12) " + kEm + " refusing rather than pasting onto a different pixel domain"},
  };
  for (const auto& c : cases) {
    auto src = c.open();
    std::vector<unsigned char> buf(src->frameBytes());
    EXPECT_EQ(thrownBy([&] { src->next(buf.data()); }), c.message) << c.what;
  }
}

TEST(FrameSources, SeekOutsideTheMember) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  auto mp4 = xj::driver::openMp4(clip("h264_420.mp4"), 20, 32, 24);
  auto jpg = xj::driver::openJpgDir(xjtest::fixture("video") + "/target_frames", 3, 40, 32);
  for (int i : {-1, 20}) EXPECT_EQ(thrownBy([&] { mp4->seek(i); }), "xj_driver: seek outside the member") << i;
  for (int i : {-1, 3}) EXPECT_EQ(thrownBy([&] { jpg->seek(i); }), "xj_driver: seek outside the member") << i;
}

// ---- the conversion of one picture, on pictures laid out here ----------------

struct Picture {
  AVFrame* f = av_frame_alloc();
  ~Picture() { av_frame_free(&f); }
};

// A w x h picture of the given format with padded rows, planes copied from
// the raw 4:2:0 planes (interleaved for nv12).
void layOut(AVFrame* f, AVPixelFormat format, int w, int h, const uint8_t* y, const uint8_t* u, const uint8_t* v) {
  f->format = format;
  f->width = w;
  f->height = h;
  ASSERT_GE(av_frame_get_buffer(f, 64), 0);
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  for (int r = 0; r < h; ++r) std::memcpy(f->data[0] + r * f->linesize[0], y + r * w, static_cast<size_t>(w));
  for (int r = 0; r < ch; ++r) {
    if (format == AV_PIX_FMT_NV12) {
      for (int x = 0; x < cw; ++x) {
        f->data[1][r * f->linesize[1] + 2 * x] = u[r * cw + x];
        f->data[1][r * f->linesize[1] + 2 * x + 1] = v[r * cw + x];
      }
    } else {
      std::memcpy(f->data[1] + r * f->linesize[1], u + r * cw, static_cast<size_t>(cw));
      std::memcpy(f->data[2] + r * f->linesize[2], v + r * cw, static_cast<size_t>(cw));
    }
  }
}

// The nv12 path, which the software decoder never takes, on every frame of
// the clip laid out as nv12 and as yuv420p, at the clip's size and at an odd
// size with a lone last chroma column.
TEST(CanvasConversion, Nv12AndYuv420pGiveTheReference) {
  const std::string raw = xjtest::readFile(clip("h264_420.yuv"));
  const int sizes[][2] = {{32, 24}, {31, 23}};
  for (const auto& sz : sizes) {
    const int w = sz[0], h = sz[1];
    for (int frame = 0; frame < 20; ++frame) {
      // Planes of an odd size are cut from the clip's own planes.
      const uint8_t* base = reinterpret_cast<const uint8_t*>(raw.data()) + static_cast<size_t>(frame) * 1152;
      const int cw = (w + 1) / 2, ch = (h + 1) / 2;
      std::vector<uint8_t> y(static_cast<size_t>(w) * h), u(static_cast<size_t>(cw) * ch), v(u.size());
      for (int r = 0; r < h; ++r) std::memcpy(&y[static_cast<size_t>(r) * w], base + r * 32, static_cast<size_t>(w));
      for (int r = 0; r < ch; ++r) {
        std::memcpy(&u[static_cast<size_t>(r) * cw], base + 768 + r * 16, static_cast<size_t>(cw));
        std::memcpy(&v[static_cast<size_t>(r) * cw], base + 960 + r * 16, static_cast<size_t>(cw));
      }
      const auto expected = drvtest::refRgbFrom420(y.data(), u.data(), v.data(), w, h);
      for (AVPixelFormat format : {AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P}) {
        Picture p;
        layOut(p.f, format, w, h, y.data(), u.data(), v.data());
        std::vector<unsigned char> out(expected.size(), 0xAB);
        xj::driver::convertPicture(xj::driver::kModeCanvas, p.f, "pic", w, h, nullptr, out.data());
        ASSERT_EQ(out, expected) << av_get_pix_fmt_name(format) << " " << w << "x" << h << " frame " << frame;
      }
    }
  }
}

TEST(CanvasConversion, RefusesAPictureOfAnotherSize) {
  Picture p;
  std::vector<uint8_t> planes(64 * 64, 128);
  layOut(p.f, AV_PIX_FMT_YUV420P, 32, 24, planes.data(), planes.data(), planes.data());
  std::vector<unsigned char> out(33 * 24 * 3);
  EXPECT_EQ(thrownBy([&] {
              xj::driver::convertPicture(xj::driver::kModeCanvas, p.f, "a.mp4", 33, 24, nullptr, out.data());
            }),
            "xj_driver: a.mp4 changed size mid-stream " + kEm + " refusing");
  p.f->format = AV_PIX_FMT_NONE;
  EXPECT_EQ(thrownBy([&] {
              xj::driver::convertPicture(xj::driver::kModePrior, p.f, "b.mov", 32, 24, nullptr, out.data());
            }),
            "xj_driver: b.mov decoded to ?, not the yuv444p a warp prior is authored in " + kEm +
                " a subsampled prior is a different mouth, refusing");
}

// ---- the hardware decoder attempt ------------------------------------------

struct OpenArgs {
  std::string path;
  bool prior;
};

// What opening the video says, and the decoder it ends up with.
std::string openAndTell(const OpenArgs& a) {
  return drvtest::stderrHere([&] {
    std::unique_ptr<xj::driver::FfSource> s =
        a.prior ? xj::driver::openPriorHevc(a.path, 12, 16) : xj::driver::openMp4(a.path, 20, 32, 24);
    std::fprintf(stderr, "NAME %s\n", s->name().c_str());
  });
}

// Only the lines of this library, and the decoder the child ended up with.
std::string driverLines(const std::string& err) {
  return drvtest::linesStartingWith(err, {"[xj-driver]", "NAME "});
}

TEST(HardwareDecoder, SwitchedOffSaysSoOnceForEveryVideo) {
  const std::string line = "[xj-driver] XJ_DRIVER_HWDEC=0 " + kEm +
                           " h264_cuvid not attempted; the software decoder is the one decoder on this fleet "
                           "(same samples)\n";
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const std::string v = avcodecVersion();
  const struct {
    OpenArgs args;
    std::string name;
  } cases[] = {
      {{clip("h264_420.mp4"), false}, "mp4/libavcodec " + v + " h264"},
      {{clip("hevc_420.mp4"), false}, "mp4/libavcodec " + v + " hevc"},
      {{clip("prior_444.mov"), true}, "hevc444/libavcodec " + v + " hevc"},
  };
  for (auto c : cases) {
    EXPECT_EQ(driverLines(openAndTell(c.args)), line + "NAME " + c.name + "\n") << c.args.path;
  }
}

// Unset, or any value but exactly "0": H.264 canvas videos try the hardware
// decoder when this FFmpeg has one; a refusal falls back with one line, and
// a build without it falls back silently. Other videos never try it.
TEST(HardwareDecoder, TriedOnlyForH264Canvas) {
  const bool hasCuvid = avcodec_find_decoder_by_name("h264_cuvid") != nullptr;
  const std::string v = avcodecVersion();
  for (const char* value : {static_cast<const char*>(nullptr), "00", "1", ""}) {
    xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", value);
    OpenArgs h264{clip("h264_420.mp4"), false};
    const std::string got = driverLines(openAndTell(h264));
    const std::string software = "NAME mp4/libavcodec " + v + " h264\n";
    if (!hasCuvid) {
      EXPECT_EQ(got, software);
    } else if (got != "NAME mp4/libavcodec " + v + " h264_cuvid\n") {
      EXPECT_EQ(got, "[xj-driver] h264_cuvid refused " + h264.path + " " + kEm +
                         " falling back to the software h264 decoder (same samples, more CPU)\n" + software);
    }
    OpenArgs hevc{clip("hevc_420.mp4"), false};
    EXPECT_EQ(driverLines(openAndTell(hevc)), "NAME mp4/libavcodec " + v + " hevc\n");
    OpenArgs prior{clip("prior_444.mov"), true};
    EXPECT_EQ(driverLines(openAndTell(prior)), "NAME hevc444/libavcodec " + v + " hevc\n");
  }
}

TEST(MovieDecoderBuild, NamesTheBuildAndTheRunningConfiguration) {
  EXPECT_EQ(xj::movieDecoderBuild(), "libavcodec " + avcodecVersion() + " / " + avcodec_configuration());
}

// ---- JPEG directory ---------------------------------------------------------

TEST(JpgDir, FramesInOrderCloseToThePixelsEncoded) {
  const std::string dir = xjtest::fixture("video") + "/target_frames";
  const std::string rgb = xjtest::readFile(xjtest::fixture("video_src") + "/canvas.rgb");
  const size_t frame = 40 * 32 * 3;
  ASSERT_EQ(rgb.size(), 3 * frame);
  auto src = xj::driver::openJpgDir(dir, 3, 40, 32);
  EXPECT_EQ(src->name(), "jpg/stb");
  EXPECT_EQ(src->residentBytes(), 0u);
  EXPECT_EQ(src->frameBytes(), frame);
  auto check = [&](int want) {
    const auto got = nextFrame<uint8_t>(*src);
    // JPEG is lossy: each frame must be near its own pixels, and far from the others'.
    for (int k = 0; k < 3; ++k) {
      long long sum = 0;
      int worst = 0;
      for (size_t i = 0; i < frame; ++i) {
        const int d = std::abs(int(got[i]) - int(static_cast<uint8_t>(rgb[k * frame + i])));
        sum += d;
        worst = std::max(worst, d);
      }
      if (k == want) {
        EXPECT_LE(worst, 6) << "frame " << want;
        EXPECT_LT(static_cast<double>(sum) / frame, 1.5) << "frame " << want;
      } else {
        EXPECT_GT(static_cast<double>(sum) / frame, 10.0) << "frame " << want << " vs " << k;
      }
    }
  };
  check(0);
  check(1);
  check(2);
  bool ok = true;
  nextFrame<uint8_t>(*src, &ok);
  EXPECT_FALSE(ok);
  src->rewind();
  check(0);
  src->seek(2);
  check(2);
  src->seek(1);
  check(1);
}

TEST(JpgDir, Refusals) {
  const std::string dir = xjtest::fixture("video") + "/target_frames";
  std::vector<unsigned char> buf(41 * 32 * 3);
  auto wide = xj::driver::openJpgDir(dir, 3, 41, 32);
  EXPECT_EQ(thrownBy([&] { wide->next(buf.data()); }),
            "xj_driver: " + dir + "/frame_000000.jpg is 40x32, the manifest says 41x32 " + kEm + " refusing");
  xjtest::TempDir tmp;
  xjtest::writeFile(tmp / "frame_000000.jpg", "not a jpeg");
  auto broken = xj::driver::openJpgDir(tmp.path(), 2, 40, 32);  // touches nothing on disk
  EXPECT_EQ(thrownBy([&] { broken->next(buf.data()); }), "decode failed: " + (tmp / "frame_000000.jpg"));
  broken->seek(1);
  EXPECT_EQ(thrownBy([&] { broken->next(buf.data()); }), "decode failed: " + (tmp / "frame_000001.jpg"));
}

}  // namespace
