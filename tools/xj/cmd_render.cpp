// xj render --bundle B --audio FILE --out OUT.mp4: a person speaking a sound file.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "xj/xj.h"
#include "xj_audio_in.h"
#include "xj_main.h"
#include "xj_mp4.h"

namespace {

int run(int argc, char** argv);

const xjtool::Command kRender{
    "render",
    "--bundle B --audio FILE --out OUT.mp4 [--batch] [--threads N] [--ep NAME] [--lead N] [--tail N] "
    "[--model KEY] [--steady KEY] [--motion DIR] [--encoder FILE] [--gain G]",
    "renders the bundle's person speaking FILE (any audio FFmpeg reads) into OUT.mp4: H.264 at 25 fps with the "
    "audio muxed in",
    run};
const xjtool::Registration kRegistered(kRender);

using Clock = std::chrono::steady_clock;

struct Options {
  std::string bundle, audio, out;
  bool batch = false;
  int threads = 0;
  std::string ep;
  int lead = 5;
  int tail = 5;
  std::string model = "b1";
  std::string steady;  // empty: the library's choice
  std::string motion;  // empty: the bundle itself
  std::string encoder;
  float gain = 1.0f;
};

bool isDir(const std::string& p) {
  struct stat st {};
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& p) {
  struct stat st {};
  return stat(p.c_str(), &st) == 0;
}

std::string folderOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool parseInt(const char* s, int lo, int& out) {
  char* end = nullptr;
  const long v = std::strtol(s, &end, 10);
  if (!*s || *end || v < lo || v > 1000000) return false;
  out = static_cast<int>(v);
  return true;
}

// The file being written: removed unless it was renamed into place.
struct TempFile {
  std::string path;
  bool kept = false;
  ~TempFile() {
    if (!kept && !path.empty()) std::remove(path.c_str());
  }
};

// A line on stderr, rewritten in place as frames come.
class Progress {
 public:
  explicit Progress(int expected) : expected(expected), start(Clock::now()) {}
  void frame(int done) {
    const auto now = Clock::now();
    if (done < expected && now - last < std::chrono::milliseconds(100)) return;
    last = now;
    shown = true;
    const double s = std::chrono::duration<double>(now - start).count();
    const int width = 30;
    const int filled = expected > 0 ? std::min(width, done * width / expected) : width;
    std::fprintf(stderr, "\r[%s%s] %d/%d frames  %.1f fps ", std::string(static_cast<size_t>(filled), '#').c_str(),
                 std::string(static_cast<size_t>(width - filled), '.').c_str(), done, expected,
                 s > 0 ? done / s : 0.0);
    std::fflush(stderr);
  }
  void end() {
    if (shown) std::fprintf(stderr, "\n");
    shown = false;
  }
  // A failure's message starts on a line of its own.
  ~Progress() { end(); }

 private:
  bool shown = false;
  int expected;
  Clock::time_point start, last{};
};

struct Sink {
  xjtool::Mp4Writer* mp4;
  Progress* progress;
  int frames = 0;
  void put(const uint8_t* rgb) {
    mp4->addFrame(rgb);
    progress->frame(++frames);
  }
};

int framesOf(size_t samples) {
  return static_cast<int>((samples + xjtool::kSamplesPerFrame - 1) / xjtool::kSamplesPerFrame);
}

// The live session: idle lead-in, the utterance pushed whole, pulled as fast
// as frames come, until the ramp has eased back to idle; then the tail.
void renderLive(const Options& o, const std::string& dir, const std::vector<float>& pcm, const std::string& tmp,
                int& counts) {
  struct Handles {
    xj_ctx* ctx = nullptr;
    xj_utt* utt = nullptr;
    ~Handles() {
      xj_utt_destroy(utt);
      xj_destroy(ctx);
    }
  } h;
  h.ctx = xj_create(o.bundle.c_str(), o.model.c_str(), o.threads, o.ep.c_str());
  if (!h.ctx) throw std::runtime_error(xj_last_error());
  xj_utt_opts opts{};
  const std::string motion = o.motion.empty() ? dir : o.motion;
  opts.motion_dir = motion.c_str();
  opts.threads = o.threads;
  opts.ep = o.ep.empty() ? nullptr : o.ep.c_str();
  opts.steady_model = o.steady.empty() ? nullptr : o.steady.c_str();
  h.utt = xj_utt_create(h.ctx, &opts);
  if (!h.utt) throw std::runtime_error(xj_utt_last_error());
  const auto warmStart = Clock::now();
  for (;;) {
    const int r = xj_utt_ready(h.utt);
    if (r == 1) break;
    if (r < 0) throw std::runtime_error(xj_utt_last_error());
    if (Clock::now() - warmStart > std::chrono::seconds(300)) throw std::runtime_error("the audio model never got ready");
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }

  const int w = xj_width(h.ctx), hgt = xj_height(h.ctx);
  auto writer = std::make_unique<xjtool::Mp4Writer>(tmp, w, hgt, o.threads);
  std::vector<float> track(static_cast<size_t>(o.lead) * xjtool::kSamplesPerFrame, 0.0f);
  track.insert(track.end(), pcm.begin(), pcm.end());
  writer->setAudio(std::move(track));

  const int speech = framesOf(pcm.size());
  constexpr int kRamp = 6;  // the session's ramp after a finished utterance
  Progress progress(o.lead + speech + kRamp + o.tail);
  Sink sink{writer.get(), &progress};
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * hgt * 3);
  xj_utt_frame_info info{};
  auto pull = [&]() {
    auto last = Clock::now();
    for (;;) {
      if (xj_utt_pull_frame(h.utt, rgb.data(), rgb.size(), &info) == 1) return;
      char text[512] = {};
      if (xj_utt_render_status(h.utt, text, sizeof text, nullptr) < 0) throw std::runtime_error(text);
      if (Clock::now() - last > std::chrono::seconds(120)) throw std::runtime_error("the session stopped giving frames");
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  };
  auto waitAvailable = [&]() {
    const auto t0 = Clock::now();
    while (xj_utt_frames_available(h.utt) < 1) {
      if (Clock::now() - t0 > std::chrono::seconds(120)) throw std::runtime_error("the session stopped giving frames");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  };

  // The session keeps one idle frame ready: the lead-in's last frame is the
  // one standing when the audio comes, so speech follows it without a gap.
  for (int i = 0; i + 1 < o.lead; ++i) {
    pull();
    sink.put(rgb.data());
  }
  waitAvailable();
  std::vector<int16_t> pcm16(pcm.size());
  for (size_t i = 0; i < pcm.size(); ++i)
    pcm16[i] = static_cast<int16_t>(std::lrint(std::fmax(-32768.0f, std::fmin(32767.0f, pcm[i] * 32768.0f))));
  if (!xj_utt_push_audio(h.utt, pcm16.data(), static_cast<int>(pcm16.size())))
    throw std::runtime_error(xj_utt_last_error());
  xj_utt_end_utterance(h.utt);

  // After the lead-in's last frame, the first idle frame is the end of the
  // utterance (after its ramp, or at once when nothing was spoken).
  int after = 0;
  for (;;) {
    pull();
    const bool end = info.kind == 0 && after > 0;
    ++after;
    if (end) break;
    sink.put(rgb.data());
  }
  for (int i = 0; i < o.tail; ++i) {
    if (i > 0) pull();
    sink.put(rgb.data());
  }
  writer->finish();
  progress.end();
  counts = sink.frames;
}

// The batch stream: the whole utterance at once; lead-in and tail are the
// driver's own frames before and after it.
void renderBatch(const Options& o, const std::string& dir, const std::string& encoder, const std::vector<float>& pcm,
                 const std::string& tmp, int& counts) {
  struct Handles {
    xj_stream* stream = nullptr;
    xj_ctx* idle = nullptr;
    ~Handles() {
      xj_stream_destroy(stream);
      xj_destroy(idle);
    }
  } h;
  h.stream = xj_stream_create(dir.c_str(), encoder.c_str(), o.threads, 0, o.gain);
  if (!h.stream) throw std::runtime_error(xj_stream_last_error());
  h.idle = xj_create(dir.c_str(), "render", o.threads, o.ep.c_str());
  if (!h.idle) throw std::runtime_error(xj_last_error());
  const int w = xj_stream_width(h.stream), hgt = xj_stream_height(h.stream), nt = xj_nt(h.idle);

  xjtool::Mp4Writer writer(tmp, w, hgt, o.threads);
  std::vector<float> track(static_cast<size_t>(o.lead) * xjtool::kSamplesPerFrame, 0.0f);
  track.insert(track.end(), pcm.begin(), pcm.end());
  writer.setAudio(std::move(track));
  const int speech = framesOf(pcm.size());
  Progress progress(o.lead + speech + o.tail);
  Sink sink{&writer, &progress};

  auto idleFrame = [&](int si) {
    const uint8_t* rgb = xj_target_frame(h.idle, ((si % nt) + nt) % nt);
    if (!rgb) throw std::runtime_error(xj_last_error());
    sink.put(rgb);
  };
  for (int i = 0; i < o.lead; ++i) idleFrame(i - o.lead);  // the loop runs into frame 0, where speech starts
  struct Cb {
    Sink* sink;
    std::string error;
    static void fn(void* user, int, const uint8_t* rgb, int, int) {
      auto* c = static_cast<Cb*>(user);
      if (!c->error.empty()) return;
      try {
        c->sink->put(rgb);
      } catch (const std::exception& e) {
        c->error = e.what();
      }
    }
  } cb{&sink, {}};
  const int got = xj_stream_run(h.stream, pcm.data(), static_cast<int>(pcm.size()), &Cb::fn, &cb);
  if (got < 0) {
    // A paste failure leaves its detail in this thread's engine error.
    const std::string detail = xj_last_error();
    throw std::runtime_error(xj_stream_last_error() + (detail.empty() ? "" : " (" + detail + ")"));
  }
  if (!cb.error.empty()) throw std::runtime_error(cb.error);
  for (int i = 0; i < o.tail; ++i) idleFrame(got + i);
  writer.finish();
  progress.end();
  counts = sink.frames;
}

int run(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    auto value = [&]() -> const char* { return argv[++i]; };
    if (a == "--batch") {
      o.batch = true;
    } else if (!hasValue) {
      return xjtool::usage(kRender);
    } else if (a == "--bundle") {
      o.bundle = value();
    } else if (a == "--audio") {
      o.audio = value();
    } else if (a == "--out") {
      o.out = value();
    } else if (a == "--ep") {
      o.ep = value();
    } else if (a == "--model") {
      o.model = value();
    } else if (a == "--steady") {
      o.steady = value();
    } else if (a == "--motion") {
      o.motion = value();
    } else if (a == "--encoder") {
      o.encoder = value();
    } else if (a == "--gain") {
      o.gain = std::strtof(value(), nullptr);
    } else if (a == "--threads" || a == "--lead" || a == "--tail") {
      int v = 0;
      if (!parseInt(value(), a == "--lead" ? 1 : 0, v)) return xjtool::usage(kRender);
      (a == "--threads" ? o.threads : a == "--lead" ? o.lead : o.tail) = v;
    } else {
      return xjtool::usage(kRender);
    }
  }
  if (o.bundle.empty() || o.audio.empty() || o.out.empty()) return xjtool::usage(kRender);

  // Everything that can be checked before any work, in the order a user fixes it.
  if (!exists(o.bundle)) return xjtool::fail(kRender, "no such bundle: " + o.bundle);
  const std::string folder = folderOf(o.out);
  if (!isDir(folder)) return xjtool::fail(kRender, "cannot write " + o.out + ": no such folder " + folder);
  if (isDir(o.out)) return xjtool::fail(kRender, "cannot write " + o.out + ": it is a folder");
  char dirBuf[4096] = {};
  if (xj_bundle_resolve_handle(o.bundle.c_str(), dirBuf, sizeof dirBuf) != 1)
    return xjtool::fail(kRender, std::string("cannot open bundle ") + o.bundle + ": " + xj_last_error());
  const std::string dir = dirBuf;

  std::vector<float> pcm;
  try {
    pcm = xjtool::readAudio16k(o.audio);
  } catch (const std::exception& e) {
    return xjtool::fail(kRender, "cannot read audio " + o.audio + ": " + e.what());
  }
  if (pcm.empty()) return xjtool::fail(kRender, "cannot read audio " + o.audio + ": it holds no samples");

  // The 8 s speech encoder: named, or from the environment, or the bundle's own.
  std::string encoder = o.encoder;
  if (encoder.empty() && std::getenv("W2V_ONNX") && *std::getenv("W2V_ONNX")) encoder = std::getenv("W2V_ONNX");
  if (encoder.empty() && exists(dir + "/audio_encoder_fp16.onnx")) encoder = dir + "/audio_encoder_fp16.onnx";
  if (!encoder.empty()) setenv("W2V_ONNX", encoder.c_str(), 1);

  TempFile tmp;
  tmp.path = folder + "/." + baseOf(o.out) + ".part" + std::to_string(getpid());
  int frames = 0;
  const auto t0 = Clock::now();
  try {
    if (o.batch) {
      if (encoder.empty()) throw std::runtime_error("--batch needs the 8 s speech encoder: --encoder FILE or W2V_ONNX");
      renderBatch(o, dir, encoder, pcm, tmp.path, frames);
    } else {
      renderLive(o, dir, pcm, tmp.path, frames);
    }
  } catch (const std::exception& e) {
    return xjtool::fail(kRender, e.what());
  }
  const double s = std::chrono::duration<double>(Clock::now() - t0).count();
  if (std::rename(tmp.path.c_str(), o.out.c_str()) != 0)
    return xjtool::fail(kRender, "cannot write " + o.out + ": " + std::strerror(errno));
  tmp.kept = true;
  const double fps = s > 0 ? frames / s : 0.0;
  std::printf("%s: %d frames (%.2f s of audio), %s path\n", o.out.c_str(), frames,
              static_cast<double>(pcm.size()) / xjtool::kAudioRate, o.batch ? "batch" : "live");
  std::printf("rendered in %.2f s: %.1f frames per second, %.2fx real time\n", s, fps, fps / 25.0);
  return 0;
}

}  // namespace
