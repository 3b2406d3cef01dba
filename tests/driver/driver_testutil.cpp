#include "driver_testutil.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "xj_testutil.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace drvtest {

bool shortRun() {
  const char* v = std::getenv("XJ_TEST_SHORT");
  return v && std::string(v) == "1";
}

namespace {

uint8_t clampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// Nearest binary16 of a value in [0, 1], by search over the encodings
// themselves: no rounding arithmetic shared with the library.
uint16_t nearestHalf(double x) {
  uint16_t best = 0;
  double bestErr = 1e9;
  for (uint32_t h = 0; h <= 0x3C00; ++h) {
    const int e = static_cast<int>(h >> 10), m = static_cast<int>(h & 0x3FF);
    const double v = e == 0 ? std::ldexp(m, -24) : std::ldexp(1024 + m, e - 25);
    const double err = std::fabs(v - x);
    if (err < bestErr || (err == bestErr && (h & 1) == 0)) {
      best = static_cast<uint16_t>(h);
      bestErr = err;
    }
  }
  return best;
}

const std::vector<uint16_t>& byteHalves() {
  static const std::vector<uint16_t> table = [] {
    std::vector<uint16_t> t(256);
    for (int i = 0; i < 256; ++i) t[static_cast<size_t>(i)] = nearestHalf(static_cast<double>(static_cast<float>(i) / 255.0f));
    return t;
  }();
  return table;
}

}  // namespace

std::vector<uint8_t> refRgbFrom420(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, int h) {
  const int cw = (w + 1) / 2;
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  for (int r = 0; r < h; ++r) {
    for (int x = 0; x < w; ++x) {
      const int c = y[r * w + x] - 16;
      const int d = u[(r / 2) * cw + x / 2] - 128;
      const int e = v[(r / 2) * cw + x / 2] - 128;
      uint8_t* px = &rgb[(static_cast<size_t>(r) * w + x) * 3];
      px[0] = clampByte((298 * c + 409 * e + 128) >> 8);
      px[1] = clampByte((298 * c - 100 * d - 208 * e + 128) >> 8);
      px[2] = clampByte((298 * c + 516 * d + 128) >> 8);
    }
  }
  return rgb;
}

std::vector<uint16_t> refPriorFrom444(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, int h) {
  const size_t plane = static_cast<size_t>(w) * h;
  const std::vector<uint16_t>& half = byteHalves();
  std::vector<uint16_t> out(plane * 3);
  for (size_t k = 0; k < plane; ++k) {
    const long long yy = (static_cast<long long>(y[k]) - 16) * 76312;
    const long long uu = static_cast<long long>(u[k]) - 128;
    const long long vv = static_cast<long long>(v[k]) - 128;
    const long long r = (yy + 104600 * vv + 32768) >> 16;
    const long long g = (yy - 25672 * uu - 53280 * vv + 32768) >> 16;
    const long long b = (yy + 132200 * uu + 32768) >> 16;
    out[k] = half[clampByte(static_cast<int>(r))];
    out[plane + k] = half[clampByte(static_cast<int>(g))];
    out[2 * plane + k] = half[clampByte(static_cast<int>(b))];
  }
  return out;
}

std::vector<std::vector<uint8_t>> refCanvasFrames(const std::string& yuvPath, int w, int h) {
  const std::string raw = xjtest::readFile(yuvPath);
  const size_t ySize = static_cast<size_t>(w) * h;
  const size_t cSize = static_cast<size_t>((w + 1) / 2) * ((h + 1) / 2);
  const size_t frame = ySize + 2 * cSize;
  if (raw.size() % frame) throw std::runtime_error("test: odd raw size " + yuvPath);
  std::vector<std::vector<uint8_t>> out;
  for (size_t off = 0; off < raw.size(); off += frame) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(raw.data()) + off;
    out.push_back(refRgbFrom420(p, p + ySize, p + ySize + cSize, w, h));
  }
  return out;
}

std::vector<std::vector<uint16_t>> refPriorFrames(const std::string& yuvPath, int w, int h) {
  const std::string raw = xjtest::readFile(yuvPath);
  const size_t plane = static_cast<size_t>(w) * h;
  if (raw.size() % (3 * plane)) throw std::runtime_error("test: odd raw size " + yuvPath);
  std::vector<std::vector<uint16_t>> out;
  for (size_t off = 0; off < raw.size(); off += 3 * plane) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(raw.data()) + off;
    out.push_back(refPriorFrom444(p, p + plane, p + 2 * plane, w, h));
  }
  return out;
}

std::string stderrHere(const std::function<void()>& fn) {
  const char* t = std::getenv("TMPDIR");
  std::string tmpl = std::string((t && *t) ? t : "/tmp") + "/xjstderr.XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) throw std::runtime_error("test: mkstemp failed");
  unlink(name.data());
  std::fflush(stderr);
  const int saved = dup(2);
  dup2(fd, 2);
  auto restore = [&] {
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
  };
  try {
    fn();
  } catch (...) {
    restore();
    close(fd);
    throw;
  }
  restore();
  std::string out;
  lseek(fd, 0, SEEK_SET);
  char buf[4096];
  ssize_t k;
  while ((k = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(k));
  close(fd);
  return out;
}

std::string linesStartingWith(const std::string& text, const std::vector<std::string>& prefixes) {
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(at, end - at);
    for (const std::string& p : prefixes) {
      if (line.rfind(p, 0) == 0) {
        out += line + "\n";
        break;
      }
    }
    at = end + 1;
  }
  return out;
}

int largestPacket(const std::string& path) {
  AVFormatContext* fmt = nullptr;
  if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return -1;
  avformat_find_stream_info(fmt, nullptr);
  const int stream = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  AVPacket* p = av_packet_alloc();
  int best = 0;
  while (av_read_frame(fmt, p) >= 0) {
    if (p->stream_index == stream && p->size > best) best = p->size;
    av_packet_unref(p);
  }
  av_packet_free(&p);
  avformat_close_input(&fmt);
  return best;
}

PatternSource::PatternSource(int nt_, int w_, int h_, Counters* c) : nt(nt_), w(w_), h(h_), counters(c) {}

bool PatternSource::next(unsigned char* out) {
  if (pos >= nt || (endAfter >= 0 && pos >= endAfter)) return false;
  if (pos == throwAt) throw std::runtime_error("pattern broke at frame " + std::to_string(pos));
  if (spinEvery > 0 && pos % spinEvery == 0) std::this_thread::yield();
  const size_t bytes = frameBytes();
  for (size_t k = 0; k < bytes; ++k) out[k] = patternByte(pos, k);
  if (holdNext && holdNext->load()) {
    if (counters) counters->held.fetch_add(1);
    while (holdNext->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ++pos;
  if (counters) counters->nexts.fetch_add(1);
  return true;
}

void PatternSource::rewind() {
  pos = 0;
  if (counters) counters->rewinds.fetch_add(1);
}

void PatternSource::seek(int i) {
  if (counters) counters->seeks.fetch_add(1);
  while (holdSeeks && holdSeeks->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (failSeek) throw std::runtime_error("pattern cannot seek");
  if (i < 0 || i >= nt) throw std::runtime_error("xj_driver: seek outside the member");
  pos = i;
}

bool isPattern(const unsigned char* buf, size_t bytes, int frame) {
  for (size_t k = 0; k < bytes; ++k) {
    if (buf[k] != patternByte(frame, k)) return false;
  }
  return true;
}

}  // namespace drvtest

// FFmpeg's frame threads hand buffers between threads with atomics compiled
// without ThreadSanitizer, which then sees an allocation in one decoder
// thread and its release in another with nothing between them. Reports whose
// stacks lie in those libraries are about their internals, not this code.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "race:libavcodec.so\n"
         "race:libavutil.so\n"
         "race:libavformat.so\n";
}
