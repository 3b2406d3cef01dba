// The cursor factories on a bundle, and the identity's video prior: which
// member is played and what is said about it, exact prior rows, the renderer
// on a video prior against the same prior stored raw.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/version.h>
}

#include "bundle/xj_bundle.h"
#include "driver/xj_driver.h"
#include "driver_testutil.h"
#include "render/xj_renderer.h"
#include "xj_testutil.h"

namespace {

const std::string kEm = "\xE2\x80\x94";
constexpr int kNT = 3, kCrop = 16, kW = 40, kH = 32;

size_t frameBytesOf(int crop) { return static_cast<size_t>(crop) * crop * 6; }

// ThreadSanitizer's own pthread_once never resets a flag whose function
// threw, so under it a second open attempt would wait for ever.
#if defined(__SANITIZE_THREAD__)
constexpr bool kRetryAfterThrow = false;
#else
constexpr bool kRetryAfterThrow = true;
#endif

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

// A private copy of the "video" bundle that a test may change.
struct BundleCopy {
  xjtest::TempDir tmp;
  std::string dir = tmp / "b";
  BundleCopy() { xjtest::copyTree(xjtest::fixture("video"), dir); }
  std::string operator/(const std::string& name) const { return dir + "/" + name; }
  void addKeys(const std::string& keys) {
    std::string text = xjtest::readFile(dir + "/manifest.json");
    text.replace(text.find('{'), 1, "{" + keys + ",");
    xjtest::writeFile(dir + "/manifest.json", text);
  }
  void replaceText(const std::string& from, const std::string& to) {
    std::string text = xjtest::readFile(dir + "/manifest.json");
    const size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
    xjtest::writeFile(dir + "/manifest.json", text);
  }
};

std::vector<std::vector<uint8_t>> canvasRef() {
  return drvtest::refCanvasFrames(xjtest::fixture("video_src") + "/canvas.yuv", kW, kH);
}
std::vector<std::vector<uint16_t>> priorRef() {
  return drvtest::refPriorFrames(xjtest::fixture("video_src") + "/prior.yuv", kCrop, kCrop);
}

const std::string kHwdecOff = "[xj-driver] XJ_DRIVER_HWDEC=0 " + kEm +
                              " h264_cuvid not attempted; the software decoder is the one decoder on this fleet "
                              "(same samples)\n";

std::string jpgLine(const std::string& name) {
  return "[xj-driver] " + name + "/ (raw jpg, 3 frames) " + kEm + " read one frame per pull\n";
}
std::string mp4Line(const std::string& name, int ahead, int history) {
  return "[xj-driver] " + name + " decoded IN PLACE (mp4/libavcodec " + avcodecVersion() +
         " h264, 3 frames 40x32, look-ahead " + std::to_string(ahead) + ", history " + std::to_string(history) +
         ") " + kEm + " no frame of the driver is expanded ahead of the paste\n";
}

// Opens the driver cursor of the bundle at dir, plays `pulls` frames in
// sequence, checks each against the reference of its member, and returns
// what the library said.
std::string playDriver(const std::string& dir, int ahead, int history, const std::string& wantBackend,
                       int pulls = 7) {
  const xj::Manifest m = xj::loadManifest(dir);
  const auto mp4Ref = canvasRef();
  const std::string rgb = xjtest::readFile(xjtest::fixture("video_src") + "/canvas.rgb");
  std::unique_ptr<xj::DriverCursor> cur;
  const std::string said = drvtest::stderrHere([&] { cur = xj::DriverCursor::open(m, ahead, history); });
  EXPECT_EQ(cur->backend.substr(0, wantBackend.size()), wantBackend);
  EXPECT_EQ(cur->W, kW);
  EXPECT_EQ(cur->H, kH);
  std::vector<unsigned char> buf(cur->frameBytes);
  for (int k = 0; k < pulls; ++k) {
    EXPECT_EQ(cur->pull(buf.data()), k % kNT);
    if (cur->backend == "jpg/stb") {
      long long diff = 0;
      for (size_t i = 0; i < buf.size(); ++i) diff += std::abs(int(buf[i]) - int(uint8_t(rgb[(k % kNT) * buf.size() + i])));
      EXPECT_LT(static_cast<double>(diff) / buf.size(), 1.5) << "jpeg frame " << k;
    } else {
      EXPECT_EQ(0, std::memcmp(buf.data(), mp4Ref[static_cast<size_t>(k % kNT)].data(), buf.size())) << k;
    }
  }
  return drvtest::linesStartingWith(said, {"[xj-driver]"});
}

TEST(DriverOpen, PicksTheMemberAndSaysWhich) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const std::string fx = xjtest::fixture("video");
  {
    xjtest::ScopedEnv prefer("XJ_DRIVER_PREFER_MP4", nullptr);
    EXPECT_EQ(playDriver(fx, 2, 11, "jpg/stb"), jpgLine("target_frames"));
  }
  {
    xjtest::ScopedEnv prefer("XJ_DRIVER_PREFER_MP4", "true");  // only "1" counts
    EXPECT_EQ(playDriver(fx, 2, 11, "jpg/stb"), jpgLine("target_frames"));
  }
  {
    xjtest::ScopedEnv prefer("XJ_DRIVER_PREFER_MP4", "1");
    EXPECT_EQ(playDriver(fx, 2, 11, "mp4/libavcodec"),
              "[xj-driver] XJ_DRIVER_PREFER_MP4=1 " + kEm +
                  " target_frames/ is populated and NOT used; target_frames.mp4 is the member this consumer reads\n" +
                  kHwdecOff + mp4Line("target_frames.mp4", 2, 11));
    EXPECT_EQ(playDriver(fx, 0, -1, "mp4/libavcodec"),
              "[xj-driver] XJ_DRIVER_PREFER_MP4=1 " + kEm +
                  " target_frames/ is populated and NOT used; target_frames.mp4 is the member this consumer reads\n" +
                  kHwdecOff + mp4Line("target_frames.mp4", 1, 0));
  }
}

// A directory counts as populated only when its last expected frame is there.
TEST(DriverOpen, HalfFilledDirectoryIsNotADriver) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  xjtest::ScopedEnv prefer("XJ_DRIVER_PREFER_MP4", nullptr);
  BundleCopy b;
  std::remove((b / "target_frames/frame_000002.jpg").c_str());
  EXPECT_EQ(playDriver(b.dir, 2, 11, "mp4/libavcodec"), kHwdecOff + mp4Line("target_frames.mp4", 2, 11));
  std::remove((b / "target_frames/frame_000001.jpg").c_str());
  std::remove((b / "target_frames.mp4").c_str());
  const xj::Manifest m = xj::loadManifest(b.dir);
  EXPECT_EQ(thrownBy([&] { xj::DriverCursor::open(m, 2, 11); }),
            "this bundle carries neither a populated target_frames/ nor target_frames.mp4 (" + (b / "target_frames.mp4") +
                ") " + kEm + " there is no driver video to play. REFUSING to create a session.");
}

TEST(DriverOpen, ManifestNamesTheMembers) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  BundleCopy b;
  std::rename((b / "target_frames").c_str(), (b / "frames_x").c_str());
  std::rename((b / "target_frames.mp4").c_str(), (b / "drv.mp4").c_str());
  b.addKeys("\"target_frames\": \"frames_x\", \"target_frames_mp4\": \"drv.mp4\"");
  {
    xjtest::ScopedEnv prefer("XJ_DRIVER_PREFER_MP4", nullptr);
    EXPECT_EQ(playDriver(b.dir, 2, 11, "jpg/stb"), jpgLine("frames_x"));
  }
  {
    xjtest::ScopedEnv prefer("XJ_DRIVER_PREFER_MP4", "1");
    EXPECT_EQ(playDriver(b.dir, 2, 11, "mp4/libavcodec"),
              "[xj-driver] XJ_DRIVER_PREFER_MP4=1 " + kEm +
                  " frames_x/ is populated and NOT used; drv.mp4 is the member this consumer reads\n" + kHwdecOff +
                  mp4Line("drv.mp4", 2, 11));
    // Preferring a video that is not there leaves the directory in charge.
    std::remove((b / "drv.mp4").c_str());
    EXPECT_EQ(playDriver(b.dir, 2, 11, "jpg/stb"), jpgLine("frames_x"));
  }
}

// ---- the identity's video prior ---------------------------------------------

TEST(VideoPrior, RowsAreExactAndComeInAnyOrder) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const xj::Manifest m = xj::loadManifest(xjtest::fixture("video"));
  xj::Identity id(m);
  EXPECT_EQ(id.priorPath, m.dir + "/P_hevc.mov");
  EXPECT_EQ(id.pMap.base, nullptr);
  const auto ref = priorRef();
  ASSERT_EQ(ref.size(), 3u);
  std::string said;
  said = drvtest::stderrHere([&] {
    for (int i : {2, 0, 1, 1, 0, 2, 2, 1}) {
      const uint16_t* p = id.P(i);
      ASSERT_EQ(0, std::memcmp(p, ref[static_cast<size_t>(i)].data(), kCrop * kCrop * 3 * 2)) << "frame " << i;
    }
  });
  EXPECT_EQ(drvtest::linesStartingWith(said, {"Veltrona", "[xj"}),
            kHwdecOff + "Veltrona: identity source ready " + kEm +
                " 3 frames 16x16, played straight from P_hevc.mov (hevc444/libavcodec " + avcodecVersion() +
                " hevc); nothing is unpacked to disk\n");
  EXPECT_EQ(id.priorBackend(), "hevc444/libavcodec " + avcodecVersion() + " hevc");
  EXPECT_EQ(&id.prior(), &id.prior()) << "opened once";
  const uint64_t frame = kCrop * kCrop * 6;
  EXPECT_EQ(id.priorResidentBytes(), 14 * frame + static_cast<uint64_t>(drvtest::largestPacket(id.priorPath)) +
                                         kCrop * kCrop * 3 * (4 + 5));
}

TEST(VideoPrior, WalkingInStepNeedsNoSeek) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  const xj::Manifest m = xj::loadManifest(xjtest::fixture("video"));
  xj::Identity id(m);
  const auto ref = priorRef();
  for (int k = 0; k < 10; ++k) {
    id.walkP(k % kNT);
    // The director asks for the frame the paste just walked past.
    ASSERT_EQ(0, std::memcmp(id.P(k % kNT), ref[static_cast<size_t>(k % kNT)].data(), frameBytesOf(kCrop)));
  }
  EXPECT_EQ(id.priorSeeks(), 0u);
  EXPECT_EQ(id.prior().position(), 1);
}

TEST(VideoPrior, OtherLayoutsReportNoVideo) {
  const xj::Manifest basicM = xj::loadManifest(xjtest::fixture("basic"));
  xj::Identity basic(basicM);
  EXPECT_EQ(basic.priorBackend(), "mmap P.f16");
  EXPECT_EQ(basic.priorResidentBytes(), 0u);
  EXPECT_EQ(basic.priorSeeks(), 0u);
  basic.walkP(1);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(basic.P(2)), basic.pMap.data + 2 * frameBytesOf(basicM.crop));

  const xj::Manifest fsM = xj::loadManifest(xjtest::fixture("featsynth"));
  xj::Identity fs(fsM);
  EXPECT_EQ(fs.priorBackend(), "none");
  EXPECT_EQ(fs.priorResidentBytes(), 0u);
  EXPECT_EQ(fs.priorSeeks(), 0u);
  fs.walkP(0);
  // Asking it for a prior anyway is refused, every time: a failed open is retried.
  const std::string refusal = "this bundle carries neither a raw P.f16 nor P_hevc.mov (" + fsM.dir +
                              "/P_hevc.mov) " + kEm + " there is no warp prior to play. REFUSING to create a session.";
  EXPECT_EQ(thrownBy([&] { fs.P(0); }), refusal);
  if (kRetryAfterThrow) {
    EXPECT_EQ(thrownBy([&] { fs.prior(); }), refusal);
  }
}

TEST(VideoPrior, AFailedOpenIsTriedAgainAtTheNextUse) {
  if (!kRetryAfterThrow) GTEST_SKIP() << "std::call_once cannot retry under ThreadSanitizer";
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  BundleCopy b;
  std::rename((b / "P_hevc.mov").c_str(), (b / "prior.mov").c_str());
  b.replaceText("\"P_hevc\": \"P_hevc.mov\"", "\"P_hevc\": \"prior.mov\"");
  const xj::Manifest m = xj::loadManifest(b.dir);
  xj::Identity id(m);
  ASSERT_EQ(id.priorPath, b / "prior.mov");
  std::rename((b / "prior.mov").c_str(), (b / "away.mov").c_str());
  EXPECT_EQ(thrownBy([&] { id.P(1); }), "this bundle carries neither a raw P.f16 nor prior.mov (" + (b / "prior.mov") +
                                            ") " + kEm + " there is no warp prior to play. REFUSING to create a session.");
  std::rename((b / "away.mov").c_str(), (b / "prior.mov").c_str());
  const auto ref = priorRef();
  std::string said = drvtest::stderrHere(
      [&] { ASSERT_EQ(0, std::memcmp(id.P(1), ref[1].data(), frameBytesOf(kCrop))); });
  EXPECT_NE(said.find("played straight from prior.mov (hevc444/"), std::string::npos) << said;
}

// The director renders the same crop from the video prior as from the same
// prior stored raw in P.f16.
TEST(VideoPrior, RendererGivesTheCropOfTheRawPrior) {
  xjtest::ScopedEnv hw("XJ_DRIVER_HWDEC", "0");
  BundleCopy raw;
  std::string bytes;
  for (const auto& f : priorRef()) bytes.append(reinterpret_cast<const char*>(f.data()), f.size() * 2);
  xjtest::writeFile(raw / "P.f16", bytes);

  const xj::Manifest vm = xj::loadManifest(xjtest::fixture("video"));
  const xj::Manifest rm = xj::loadManifest(raw.dir);
  xj::Identity vid(vm), rid(rm);
  ASSERT_FALSE(vid.priorPath.empty());
  ASSERT_NE(rid.pMap.base, nullptr);
  EXPECT_EQ(rid.priorBackend(), "mmap P.f16");

  std::mt19937 rng(11);
  std::uniform_real_distribution<float> u(-0.3f, 0.3f);
  for (const char* key : {"b1", "b4"}) {
    xj::Renderer rv(vm, vid, key, 1, ""), rr(rm, rid, key, 1, "");
    const int n = rv.batch();
    const size_t crop = static_cast<size_t>(kCrop) * kCrop * 3 * static_cast<size_t>(n);
    for (const auto& order : std::vector<std::vector<int>>{{0, 1, 2, 0}, {2, 2, 1, 0}, {1, 0, 2, 1}}) {
      std::vector<int> si(order.begin(), order.begin() + n);
      std::vector<float> ks(63 * static_cast<size_t>(n)), kd(ks.size());
      for (float& v : ks) v = u(rng);
      for (float& v : kd) v = u(rng);
      const float* a = rv.render(si.data(), ks.data(), kd.data(), n);
      const std::vector<float> fromVideo(a, a + crop);
      const float* c = rr.render(si.data(), ks.data(), kd.data(), n);
      ASSERT_EQ(0, std::memcmp(fromVideo.data(), c, crop * sizeof(float))) << key << " si " << si[0];
    }
  }
}

}  // namespace
