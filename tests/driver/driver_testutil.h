// Shared pieces of the driver tests: plain reference conversions of the
// planes the fixture generator wrote, and a scriptable in-memory source.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "driver/xj_driver.h"

namespace drvtest {

// XJ_TEST_SHORT=1 asks for shorter stress runs.
bool shortRun();

// Limited-range BT.601, 8-bit integer form, of a 4:2:0 picture given as
// planes (y: w*h, u and v: ceil(w/2)*ceil(h/2)); interleaved RGB out.
std::vector<uint8_t> refRgbFrom420(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, int h);

// The prior's 16.16 conversion of a 4:4:4 picture, each byte through the
// nearest binary16 of byte / 255; planes R, G, B of w*h halves.
std::vector<uint16_t> refPriorFrom444(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, int h);

// All frames of a raw planar file, each converted by the reference.
std::vector<std::vector<uint8_t>> refCanvasFrames(const std::string& yuvPath, int w, int h);
std::vector<std::vector<uint16_t>> refPriorFrames(const std::string& yuvPath, int w, int h);

// What fn writes to file descriptor 2, run in this process (so test
// assertions inside fn count); an exception in fn propagates.
std::string stderrHere(const std::function<void()>& fn);
// Only the lines that start with one of the prefixes, in order.
std::string linesStartingWith(const std::string& text, const std::vector<std::string>& prefixes);

// Largest packet of the first video stream, read with libavformat directly.
int largestPacket(const std::string& path);

// Frames whose every byte derives from the frame index, so a test can tell
// any frame from any other and from a painted one. Counts its own work, and
// can be told to end early, to throw at a frame, or to fail a seek.
class PatternSource : public xj::driver::Source {
 public:
  struct Counters {
    std::atomic<int> nexts{0};
    std::atomic<int> rewinds{0};
    std::atomic<int> seeks{0};
    std::atomic<int> held{0};  // frames written and then held (holdNext)
  };

  PatternSource(int nt, int w, int h, Counters* counters);
  int32_t NT() const override { return nt; }
  int32_t W() const override { return w; }
  int32_t H() const override { return h; }
  bool next(unsigned char* out) override;
  void rewind() override;
  void seek(int i) override;
  std::string name() const override { return "pattern"; }
  uint64_t residentBytes() const override { return 1000; }

  int endAfter = -1;      // next() returns false once this many frames were given
  int throwAt = -1;       // next() throws at this frame
  bool failSeek = false;  // seek() throws
  int spinEvery = 0;      // every n-th frame yields the CPU a while, to vary timing
  // While set, seek() waits (after counting itself), holding the thread inside it.
  std::atomic<bool>* holdSeeks = nullptr;
  // While set, next() waits after writing the frame, before returning it.
  std::atomic<bool>* holdNext = nullptr;

 private:
  int nt, w, h, pos = 0;
  Counters* counters;
};

// The byte a PatternSource writes at offset k of frame i.
inline uint8_t patternByte(int frame, size_t k) {
  return static_cast<uint8_t>((frame * 131 + static_cast<int>(k % 251) * 7 + static_cast<int>(k / 251)) & 0xFF);
}
// True when buf is frame i of a PatternSource, unpainted.
bool isPattern(const unsigned char* buf, size_t bytes, int frame);

}  // namespace drvtest
