#include "driver/xj_driver.h"

#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "driver/xj_driver_ff.h"
#include "image/xj_image.h"

namespace xj {

uint16_t f32ToF16(float v) {
  uint32_t x;
  std::memcpy(&x, &v, sizeof x);
  const uint16_t sign = static_cast<uint16_t>((x >> 16) & 0x8000u);
  const uint32_t ax = x & 0x7FFFFFFFu;
  // 65520 is the midpoint between the largest half and 2^16, and its tie goes
  // to the even side, which is infinity. NaN lands here on purpose.
  if (ax >= 0x477FF000u) return static_cast<uint16_t>(sign | 0x7C00u);
  if (ax >= 0x38800000u) {  // normal half: 2^-14 and up
    uint32_t h = (((ax >> 23) - 112u) << 10) | ((ax >> 13) & 0x3FFu);
    const uint32_t rest = ax & 0x1FFFu;
    if (rest > 0x1000u || (rest == 0x1000u && (h & 1u))) ++h;  // a carry moves into the exponent
    return static_cast<uint16_t>(sign | h);
  }
  // Subnormal half: the value in units of 2^-24, rounded to nearest even.
  const uint32_t exponent = ax >> 23;
  if (exponent < 102u) return sign;  // below half of the smallest subnormal
  const uint32_t mantissa = (ax & 0x7FFFFFu) | 0x800000u;
  const uint32_t shift = 126u - exponent;
  uint32_t h = mantissa >> shift;
  const uint32_t rest = mantissa & ((1u << shift) - 1u);
  const uint32_t half = 1u << (shift - 1u);
  if (rest > half || (rest == half && (h & 1u))) ++h;
  return static_cast<uint16_t>(sign | h);
}

namespace driver {

Source::~Source() = default;

uint64_t Source::frameBytes() const {
  return static_cast<uint64_t>(W()) * static_cast<uint64_t>(H()) * 3;
}

JpgDirSource::JpgDirSource(std::string dir_, int nt_, int w_, int h_)
    : dir(std::move(dir_)), nt(nt_), w(w_), h(h_) {}

bool JpgDirSource::next(unsigned char* out) {
  if (pos >= nt) return false;
  char name[32];
  std::snprintf(name, sizeof name, "/frame_%06d.jpg", pos);
  const std::string path = dir + name;
  ImageRGB image;
  loadImageRGB(path, image);
  if (image.width != w || image.height != h) {
    throw std::runtime_error("xj_driver: " + path + " is " + std::to_string(image.width) + "x" +
                             std::to_string(image.height) + ", the manifest says " + std::to_string(w) + "x" +
                             std::to_string(h) + " \xE2\x80\x94 refusing");
  }
  std::memcpy(out, image.pixels.data(), image.pixels.size());
  ++pos;
  return true;
}

void JpgDirSource::seek(int i) {
  if (i < 0 || i >= nt) throw std::runtime_error("xj_driver: seek outside the member");
  pos = i;
}

std::unique_ptr<Source> openJpgDir(const std::string& dir, int nt, int w, int h) {
  return std::make_unique<JpgDirSource>(dir, nt, w, h);
}

}  // namespace driver

// ---- cursor ---------------------------------------------------------------

struct DriverCursor::Impl {
  std::unique_ptr<driver::Source> src;
  int32_t NT, W, H;
  uint64_t frameBytes;
  int32_t ahead;
  int32_t history;
  int32_t slots;
  std::vector<std::vector<unsigned char>> bufs;
  std::vector<int32_t> slotFrame;

  std::mutex mu;
  std::mutex apiMu;
  std::condition_variable cvSpace;
  std::condition_variable cvData;
  uint64_t head = 0;
  uint64_t tail = 0;
  uint64_t mutFloor = 0;
  bool decoding = false;
  int32_t nextFrame = 0;
  int32_t position = 0;
  int32_t srcPos = 0;  // the thread's alone
  int32_t seekTarget = -1;
  uint64_t seekGen = 0;
  bool stop = false;
  std::string error;
  uint64_t seeks = 0;
  std::thread thread;

  Impl(std::unique_ptr<driver::Source> source, int lookAhead, int historyFrames)
      : src(std::move(source)),
        NT(src->NT()),
        W(src->W()),
        H(src->H()),
        frameBytes(src->frameBytes()),
        ahead(std::max(lookAhead, 1)),
        history(std::max(historyFrames, 0)),
        slots(ahead + history + 1),
        bufs(static_cast<size_t>(slots), std::vector<unsigned char>(frameBytes)),
        slotFrame(static_cast<size_t>(slots), -1) {
    thread = std::thread([this] { run(); });
  }

  ~Impl() {
    {
      std::lock_guard<std::mutex> lk(mu);
      stop = true;
    }
    cvSpace.notify_all();
    cvData.notify_all();
    if (thread.joinable()) thread.join();
  }

  void fail(const std::string& text) {
    std::lock_guard<std::mutex> lk(mu);
    if (error.empty()) error = text;
    cvData.notify_all();
  }

  void run() {
    std::unique_lock<std::mutex> lk(mu);
    for (;;) {
      if (stop) return;
      if (seekTarget >= 0) {
        const int32_t target = seekTarget;
        nextFrame = target;
        seekTarget = -1;
        lk.unlock();
        try {
          src->seek(target);
        } catch (const std::exception& e) {
          fail(std::string("xj_driver: seek failed: ") + e.what());
          return;
        }
        srcPos = target;
        lk.lock();
        continue;
      }
      if (tail - head < static_cast<uint64_t>(ahead)) {
        const size_t slot = static_cast<size_t>(tail % static_cast<uint64_t>(slots));
        const int32_t frameIndex = nextFrame;
        const uint64_t gen = seekGen;
        decoding = true;
        lk.unlock();
        try {
          if (srcPos == NT) {  // the loop point
            src->rewind();
            srcPos = 0;
          }
          if (!src->next(bufs[slot].data())) {
            throw std::runtime_error(src->name() + " ended after " + std::to_string(srcPos) +
                                     " frames, the manifest says NT=" + std::to_string(NT) +
                                     " \xE2\x80\x94 a short driver is a session that stops part way through the "
                                     "loop, refusing");
          }
          ++srcPos;
        } catch (const std::exception& e) {
          {
            std::lock_guard<std::mutex> relock(mu);
            decoding = false;
          }
          fail(std::string("xj_driver: ") + e.what());
          return;
        }
        lk.lock();
        decoding = false;
        if (seekGen == gen) {
          slotFrame[slot] = frameIndex;
          ++tail;
          nextFrame = (frameIndex + 1) % NT;
          cvData.notify_all();
        } else {
          // Dropped; but the slot no longer holds the old entry it was
          // overwriting, which the ring would otherwise count as history again.
          slotFrame[slot] = -1;
        }
        continue;
      }
      cvSpace.wait(lk);
    }
  }

  // Caller holds apiMu.
  unsigned char* take(int* index, bool writable) {
    std::unique_lock<std::mutex> lk(mu);
    for (;;) {
      if (!error.empty()) throw std::runtime_error(error);
      if (tail > head) break;
      cvData.wait(lk);
    }
    const uint64_t n = head;
    head = n + 1;
    if (writable) mutFloor = n + 1;
    cvSpace.notify_one();
    const size_t slot = static_cast<size_t>(n % static_cast<uint64_t>(slots));
    const int32_t frame = slotFrame[slot];
    if (index) *index = frame;
    position = (frame + 1) % NT;
    return bufs[slot].data();
  }

  // Caller holds apiMu.
  void seek(int i) {
    if (i < 0 || i >= NT) {
      throw std::runtime_error("xj_driver: seek(" + std::to_string(i) + ") outside [0," + std::to_string(NT) +
                               ")");
    }
    std::lock_guard<std::mutex> lk(mu);
    if (!error.empty()) throw std::runtime_error(error);
    position = i;
    const int32_t upcoming = tail > head ? slotFrame[static_cast<size_t>(head % static_cast<uint64_t>(slots))]
                                         : (seekTarget >= 0 ? seekTarget : nextFrame);
    if (upcoming == i) return;
    if (seekTarget < 0) {
      // The oldest entry that still holds its frame and may be served again:
      // painted frames never are, overwritten ones cannot be, and history
      // reaches back `history` entries past the one just taken.
      uint64_t low = mutFloor;
      const uint64_t s = static_cast<uint64_t>(slots);
      if (tail >= s) low = std::max(low, tail + (decoding ? 1 : 0) - s);
      const uint64_t reach = static_cast<uint64_t>(history) + 1;
      if (head > reach) low = std::max(low, head - reach);
      for (uint64_t n = low; n < tail; ++n) {
        if (slotFrame[static_cast<size_t>(n % s)] == i) {
          head = n;
          cvSpace.notify_one();
          return;
        }
      }
      if (nextFrame == i) {
        head = tail;
        cvSpace.notify_one();
        return;
      }
    }
    head = tail;
    seekTarget = i;
    ++seekGen;
    ++seeks;
    cvSpace.notify_one();
  }

  int32_t currentPosition() {
    std::lock_guard<std::mutex> lk(mu);
    return position;
  }
};

DriverCursor::DriverCursor(std::unique_ptr<driver::Source> source, int lookAhead, int history)
    : NT(source->NT()), W(source->W()), H(source->H()), frameBytes(source->frameBytes()), backend(source->name()) {
  if (NT < 1) throw std::runtime_error("xj_driver: " + backend + " has no frames to play");
  // The thread starts last: from here on only it touches the source.
  impl = std::make_unique<Impl>(std::move(source), lookAhead, history);
}

DriverCursor::~DriverCursor() = default;

std::unique_ptr<DriverCursor> DriverCursor::over(std::unique_ptr<driver::Source> source, int lookAhead,
                                                 int history) {
  if (!source) throw std::runtime_error("xj_driver: no source to play");
  return std::unique_ptr<DriverCursor>(new DriverCursor(std::move(source), lookAhead, history));
}

namespace {

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::string textOrEmpty(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return {};
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

}  // namespace

std::unique_ptr<DriverCursor> DriverCursor::open(const Manifest& manifest, int lookAhead, int history) {
  const std::string text = textOrEmpty(manifest.dir + "/manifest.json");
  std::string jpgName = "target_frames";
  std::string mp4Name = "target_frames.mp4";
  optStr(text, "target_frames", jpgName);
  optStr(text, "target_frames_mp4", mp4Name);

  const std::string dirPath = manifest.dir + "/" + jpgName;
  char last[32];
  std::snprintf(last, sizeof last, "/frame_%06d.jpg", manifest.NT - 1);
  // A directory counts as populated when its last expected frame is there.
  const bool populated = exists(dirPath + last);

  const char* prefer = std::getenv("XJ_DRIVER_PREFER_MP4");
  const bool preferMp4 = prefer && std::strcmp(prefer, "1") == 0 && exists(resolveMember(manifest.dir, mp4Name));
  if (preferMp4 && populated) {
    std::fprintf(stderr,
                 "[xj-driver] XJ_DRIVER_PREFER_MP4=1 \xE2\x80\x94 %s/ is populated and NOT used; %s is the member "
                 "this consumer reads\n",
                 jpgName.c_str(), mp4Name.c_str());
  }
  if (!preferMp4 && populated) {
    std::fprintf(stderr, "[xj-driver] %s/ (raw jpg, %d frames) \xE2\x80\x94 read one frame per pull\n",
                 jpgName.c_str(), manifest.NT);
    return over(driver::openJpgDir(dirPath, manifest.NT, manifest.W, manifest.H), lookAhead, history);
  }
  const std::string mp4Path = resolveMember(manifest.dir, mp4Name);
  if (!exists(mp4Path)) {
    throw std::runtime_error("this bundle carries neither a populated " + jpgName + "/ nor " + mp4Name + " (" +
                             mp4Path +
                             ") \xE2\x80\x94 there is no driver video to play. REFUSING to create a session.");
  }
  std::unique_ptr<driver::Source> src = driver::openMp4(mp4Path, manifest.NT, manifest.W, manifest.H);
  std::fprintf(stderr,
               "[xj-driver] %s decoded IN PLACE (%s, %d frames %dx%d, look-ahead %d, history %d) \xE2\x80\x94 no "
               "frame of the driver is expanded ahead of the paste\n",
               mp4Name.c_str(), src->name().c_str(), manifest.NT, manifest.W, manifest.H, std::max(lookAhead, 1),
               std::max(history, 0));
  return over(std::move(src), lookAhead, history);
}

std::unique_ptr<DriverCursor> DriverCursor::openPrior(const Manifest& manifest, int lookAhead, int history) {
  std::string name = "P_hevc.mov";
  optStr(textOrEmpty(manifest.dir + "/manifest.json"), "P_hevc", name);
  const std::string path = resolveMember(manifest.dir, name);
  if (!exists(path)) {
    throw std::runtime_error("this bundle carries neither a raw P.f16 nor " + name + " (" + path +
                             ") \xE2\x80\x94 there is no warp prior to play. REFUSING to create a session.");
  }
  std::unique_ptr<driver::Source> src = driver::openPriorHevc(path, manifest.NT, manifest.crop);
  std::fprintf(stderr,
               "Veltrona: identity source ready \xE2\x80\x94 %d frames %dx%d, played straight from %s (%s); nothing "
               "is unpacked to disk\n",
               manifest.NT, manifest.crop, manifest.crop, name.c_str(), src->name().c_str());
  return over(std::move(src), lookAhead, history);
}

int DriverCursor::pull(unsigned char* out) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(impl->currentPosition());
  int index = -1;
  const unsigned char* frame = impl->take(&index, false);
  std::memcpy(out, frame, frameBytes);
  return index;
}

const unsigned char* DriverCursor::pull(int* index) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(impl->currentPosition());
  return impl->take(index, false);
}

unsigned char* DriverCursor::pullMut(int* index) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(impl->currentPosition());
  return impl->take(index, true);
}

namespace {

void checkYield(int got, int asked) {
  if (got != asked) {
    throw std::runtime_error("xj_driver: cursor yielded frame " + std::to_string(got) +
                             " for si=" + std::to_string(asked));
  }
}

}  // namespace

int DriverCursor::pullAt(int i, unsigned char* out) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(i);
  int index = -1;
  const unsigned char* frame = impl->take(&index, false);
  checkYield(index, i);
  std::memcpy(out, frame, frameBytes);
  return i;
}

const unsigned char* DriverCursor::pullAt(int i, int* index) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(i);
  int got = -1;
  const unsigned char* frame = impl->take(&got, false);
  checkYield(got, i);
  if (index) *index = got;
  return frame;
}

unsigned char* DriverCursor::pullMutAt(int i, int* index) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(i);
  int got = -1;
  unsigned char* frame = impl->take(&got, true);
  checkYield(got, i);
  if (index) *index = got;
  return frame;
}

void DriverCursor::seek(int i) {
  std::lock_guard<std::mutex> api(impl->apiMu);
  impl->seek(i);
}

int DriverCursor::position() const { return impl->currentPosition(); }

uint64_t DriverCursor::residentBytes() const {
  return static_cast<uint64_t>(impl->slots) * frameBytes + impl->src->residentBytes();
}

uint64_t DriverCursor::seeks() const {
  std::lock_guard<std::mutex> lk(impl->mu);
  return impl->seeks;
}

// ---- the video prior of an identity ------------------------------------------

DriverCursor& Identity::prior() const {
  // A failed open leaves the flag unset, so the next use tries again.
  std::call_once(priorOnce, [this] { priorCursor = DriverCursor::openPrior(manifest, 2, 11); });
  return *priorCursor;
}

void Identity::walkP(int i) const {
  if (pMap.base || priorPath.empty()) return;
  int index = -1;
  prior().pullAt(i, &index);
}

std::string Identity::priorBackend() const {
  if (pMap.base) return "mmap P.f16";
  if (!priorPath.empty()) return prior().backend;
  return "none";
}

uint64_t Identity::priorResidentBytes() const {
  if (pMap.base || priorPath.empty()) return 0;
  return prior().residentBytes();
}

uint64_t Identity::priorSeeks() const {
  if (pMap.base || priorPath.empty()) return 0;
  return prior().seeks();
}

}  // namespace xj
