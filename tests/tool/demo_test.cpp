// The demo identity through `xj render`: a face that speaks with the audio.
//
// A small variant of the demo (320x180 canvas, crop 128) is generated once for
// the suite. Speech and a silence of the same length are rendered on the same
// driver loop, so frame k of both shows the same source frame: whatever
// differs between them in the mouth region is the mouth's motion.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tool_testutil.h"
#include "xj_testutil.h"

namespace {

constexpr int kW = 320, kH = 180, kCrop = 128, kNt = 25;
constexpr int kLead = 3, kTail = 4, kRamp = 6;
constexpr int kMouthRow = 19;  // the keypoint row whose y the demo's director opens the mouth by

using tooltest::quote;

class Demo : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new xjtest::TempDir;
    const tooltest::Run gen = tooltest::shell(std::string(XJ_PYTHON) + " " +
                                                  quote(std::string(XJ_SOURCE_DIR) + "/tools/bundlegen/bundlegen.py") +
                                                  " demo --width 320 --height 180 --crop 128 --nt 25 --out " +
                                                  quote(dir->path()),
                                              dir->path());
    genStatus = gen.status;
    genErr = gen.err;
  }
  static void TearDownTestSuite() {
    delete dir;
    dir = nullptr;
  }
  void SetUp() override {
    if (!tooltest::haveTool()) GTEST_SKIP() << "built without the xj tool";
    ASSERT_EQ(genStatus, 0) << genErr;
  }

  static std::string bundle() { return *dir / "bundle"; }

  static xjtest::TempDir* dir;
  static int genStatus;
  static std::string genErr;
};
xjtest::TempDir* Demo::dir = nullptr;
int Demo::genStatus = -1;
std::string Demo::genErr;

// The sound file as the tool hears it: mono float at 16 kHz.
std::vector<float> decode16k(const std::string& path, const std::string& scratch) {
  const tooltest::Run r = tooltest::shell(
      "ffmpeg -v error -nostdin -i " + quote(path) + " -ac 1 -ar 16000 -f f32le -", scratch);
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<float> pcm(r.out.size() / 4);
  std::memcpy(pcm.data(), r.out.data(), pcm.size() * 4);
  return pcm;
}

void writeWav16k(const std::string& path, const std::vector<int16_t>& s) {
  auto le = [](uint32_t v, int n) {
    std::string b;
    for (int i = 0; i < n; ++i) b += static_cast<char>((v >> (8 * i)) & 0xff);
    return b;
  };
  const uint32_t bytes = static_cast<uint32_t>(s.size() * 2);
  std::string w = "RIFF" + le(36 + bytes, 4) + "WAVEfmt " + le(16, 4) + le(1, 2) + le(1, 2) + le(16000, 4) +
                  le(32000, 4) + le(2, 2) + le(16, 2) + "data" + le(bytes, 4);
  w.append(reinterpret_cast<const char*>(s.data()), bytes);
  xjtest::writeFile(path, w);
}

std::map<std::string, std::string> probe(const std::string& mp4, const char* stream, const std::string& scratch) {
  const tooltest::Run r = tooltest::shell(
      std::string("ffprobe -v error -select_streams ") + stream +
          " -show_entries stream=codec_name,r_frame_rate,nb_frames,duration,pix_fmt -of default=noprint_wrappers=1 " +
          quote(mp4),
      scratch);
  std::map<std::string, std::string> kv;
  size_t at = 0;
  for (size_t nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1) {
    const std::string line = r.out.substr(at, nl - at);
    const size_t eq = line.find('=');
    if (eq != std::string::npos) kv[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return kv;
}

std::vector<std::vector<uint8_t>> frames(const std::string& mp4, const std::string& scratch) {
  const tooltest::Run r =
      tooltest::shell("ffmpeg -v error -nostdin -i " + quote(mp4) + " -f rawvideo -pix_fmt rgb24 -", scratch);
  EXPECT_EQ(r.status, 0) << r.err;
  const size_t n = static_cast<size_t>(kW) * kH * 3;
  std::vector<std::vector<uint8_t>> out;
  for (size_t at = 0; at + n <= r.out.size(); at += n) out.emplace_back(r.out.begin() + at, r.out.begin() + at + n);
  return out;
}

struct Box {
  int x0, x1, y0, y1;
};

// Mean absolute difference of two frames inside the box.
double meanDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, const Box& m) {
  double sum = 0;
  for (int y = m.y0; y < m.y1; ++y)
    for (int x = m.x0; x < m.x1; ++x)
      for (int c = 0; c < 3; ++c) {
        const size_t i = (static_cast<size_t>(y) * kW + x) * 3 + c;
        sum += std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i]));
      }
  return sum / (3.0 * (m.x1 - m.x0) * (m.y1 - m.y0));
}

double pearson(const std::vector<double>& a, const std::vector<double>& b) {
  double ma = 0, mb = 0;
  for (size_t i = 0; i < a.size(); ++i) ma += a[i], mb += b[i];
  ma /= a.size(), mb /= b.size();
  double sab = 0, saa = 0, sbb = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    sab += (a[i] - ma) * (b[i] - mb);
    saa += (a[i] - ma) * (a[i] - ma);
    sbb += (b[i] - mb) * (b[i] - mb);
  }
  return sab / std::sqrt(saa * sbb);
}

// Where the mouth is on the canvas: the paste matrix of frame 0 places the
// crop, and the mouth row's resting keypoint gives its height in the crop.
Box mouthBox(const std::string& bundle) {
  const std::string m = xjtest::readFile(bundle + "/M.f32");
  const std::string kp = xjtest::readFile(bundle + "/xs_target.bin");
  float mat[6], y;
  std::memcpy(mat, m.data(), sizeof mat);
  std::memcpy(&y, kp.data() + (kMouthRow * 3 + 1) * 4, 4);
  const double cx = mat[2] + mat[0] * (kCrop / 2.0), cy = mat[5] + mat[4] * ((y + 1) / 2 * kCrop);
  const double c = mat[0] * kCrop;
  return Box{static_cast<int>(cx - 0.12 * c), static_cast<int>(cx + 0.12 * c), static_cast<int>(cy - 0.05 * c),
             static_cast<int>(cy + 0.14 * c)};
}

TEST_F(Demo, MouthFollowsTheLoudnessOfSpeech) {
  xjtest::TempDir t;
  const tooltest::Run say = tooltest::shell(
      "espeak-ng -w " + quote(t / "speech.wav") + " 'The quick brown fox jumps over the lazy dog. Then it rests.'",
      t.path());
  if (say.status != 0) GTEST_SKIP() << "espeak-ng is not installed (scripts/setup.sh installs it): " << say.err;
  const std::vector<float> pcm = decode16k(t / "speech.wav", t.path());
  ASSERT_GT(pcm.size(), 16000u);
  writeWav16k(t / "silence.wav", std::vector<int16_t>(pcm.size(), 0));

  const std::vector<std::string> common{"--bundle", bundle(), "--lead", std::to_string(kLead), "--tail",
                                        std::to_string(kTail), "--steady", "b4"};
  for (const char* name : {"speech", "silence"}) {
    std::vector<std::string> args{"render", "--audio", t / (std::string(name) + ".wav"), "--out",
                                  t / (std::string(name) + ".mp4")};
    args.insert(args.end(), common.begin(), common.end());
    const tooltest::Run r = tooltest::xj(args, t.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(" frames per second, "), std::string::npos) << r.out;
  }

  const int speechFrames = static_cast<int>((pcm.size() + 639) / 640);
  const int expected = kLead + speechFrames + kRamp + kTail;
  const double seconds = pcm.size() / 16000.0 + (kLead + kRamp + kTail) / 25.0;
  auto video = probe(t / "speech.mp4", "v:0", t.path());
  auto audio = probe(t / "speech.mp4", "a:0", t.path());
  EXPECT_EQ(video["codec_name"], "h264");
  EXPECT_EQ(video["pix_fmt"], "yuv420p");
  EXPECT_EQ(video["r_frame_rate"], "25/1");
  EXPECT_NEAR(std::stod(video["nb_frames"]), expected, 1.0);
  EXPECT_NEAR(std::stod(video["duration"]), seconds, 0.04);
  EXPECT_EQ(audio["codec_name"], "aac");
  EXPECT_NEAR(std::stod(audio["duration"]), seconds, 0.04 + 1024 / 16000.0);  // one AAC frame of padding

  const auto s = frames(t / "speech.mp4", t.path());
  const auto z = frames(t / "silence.mp4", t.path());
  ASSERT_EQ(s.size(), z.size());
  ASSERT_GE(static_cast<int>(s.size()), kLead + speechFrames);
  const Box mouth = mouthBox(bundle());

  // Speech against silence, frame by frame, against the RMS of that frame's audio.
  std::vector<double> change, rms;
  double most = 0;
  for (int i = 0; i < speechFrames; ++i) {
    const int k = kLead + i;
    change.push_back(meanDiff(s[k], z[k], mouth));
    most = std::max(most, change.back());
    double e = 0;
    const size_t a = static_cast<size_t>(i) * 640, b = std::min(pcm.size(), a + 640);
    for (size_t j = a; j < b; ++j) e += static_cast<double>(pcm[j]) * pcm[j];
    rms.push_back(std::sqrt(e / 640.0));
  }
  EXPECT_GT(most, 8.0) << "the mouth never opened";
  EXPECT_GE(pearson(change, rms), 0.5);

  // Silence leaves the mouth still: a frame a loop later (the same source
  // frame) shows the same mouth, up to the encoder's noise (about 1 to 2.5
  // levels at this size, more on a new group of pictures).
  double silentMost = 0, spokenMost = 0;
  for (int k = kLead; k + kNt < kLead + speechFrames; ++k) {
    silentMost = std::max(silentMost, meanDiff(z[k], z[k + kNt], mouth));
    spokenMost = std::max(spokenMost, meanDiff(s[k], s[k + kNt], mouth));
  }
  EXPECT_LT(silentMost, 3.0);
  EXPECT_GT(spokenMost, 8.0);
}

TEST_F(Demo, BatchPathGivesTheSameLengthAndOpensTheMouth) {
  xjtest::TempDir t;
  std::vector<int16_t> tone(16000 * 2, 0);  // 1 s of silence, then 1 s of a loud vowel-like buzz
  for (size_t i = 16000; i < tone.size(); ++i)
    tone[i] = static_cast<int16_t>(9000 * std::sin(2 * M_PI * 180 * i / 16000.0) + 4000 * std::sin(2 * M_PI * 720 * i / 16000.0));
  writeWav16k(t / "tone.wav", tone);
  writeWav16k(t / "quiet.wav", std::vector<int16_t>(tone.size(), 0));
  for (const char* name : {"tone", "quiet"}) {
    const tooltest::Run r =
        tooltest::xj({"render", "--batch", "--bundle", bundle(), "--audio", t / (std::string(name) + ".wav"), "--out",
                      t / (std::string(name) + ".mp4"), "--lead", "2", "--tail", "3"},
                     t.path());
    ASSERT_EQ(r.status, 0) << r.err;
  }
  const auto a = frames(t / "tone.mp4", t.path());
  const auto b = frames(t / "quiet.mp4", t.path());
  ASSERT_EQ(a.size(), 2u + 50u + 3u);
  ASSERT_EQ(b.size(), a.size());
  const Box mouth = mouthBox(bundle());
  double quietPart = 0, loudPart = 0;
  for (int k = 2; k < 2 + 25; ++k) quietPart = std::max(quietPart, meanDiff(a[k], b[k], mouth));
  for (int k = 2 + 27; k < 2 + 50; ++k) loudPart = std::min(loudPart == 0 ? 1e9 : loudPart, meanDiff(a[k], b[k], mouth));
  EXPECT_LT(quietPart, 1.5);
  EXPECT_GT(loudPart, 8.0);
}

}  // namespace
