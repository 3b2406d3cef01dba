// Driver video: frame sources behind one interface, and the look-ahead cursor
// that plays one of them in a loop for the paste or the director.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "bundle/xj_bundle.h"

namespace xj {

// One float to IEEE binary16 bits: round to nearest, ties to even, gradual
// underflow. Anything past the range, infinity and NaN alike, gives the
// infinity of its sign.
uint16_t f32ToF16(float v);

namespace driver {

// A member of a bundle as a stream of fixed-size frames, decoded one at a
// time. Only the cursor's thread drives a source, so none of it locks.
class Source {
 public:
  virtual ~Source();
  virtual int32_t NT() const = 0;
  virtual int32_t W() const = 0;
  virtual int32_t H() const = 0;
  // Bytes `next` writes per frame.
  virtual uint64_t frameBytes() const;
  // Writes the next frame to out; false at the end of the member.
  virtual bool next(unsigned char* out) = 0;
  // The next `next` gives frame 0.
  virtual void rewind() = 0;
  // The next `next` gives frame i.
  virtual void seek(int i) = 0;
  // The decoder, for logs and the host.
  virtual std::string name() const = 0;
  // Memory the source keeps for itself. Safe to call from any thread.
  virtual uint64_t residentBytes() const = 0;
};

// A directory of frame_000000.jpg, frame_000001.jpg, ... decoded with stb.
class JpgDirSource : public Source {
 public:
  JpgDirSource(std::string dir, int nt, int w, int h);
  int32_t NT() const override { return nt; }
  int32_t W() const override { return w; }
  int32_t H() const override { return h; }
  bool next(unsigned char* out) override;
  void rewind() override { pos = 0; }
  void seek(int i) override;
  std::string name() const override { return "jpg/stb"; }
  uint64_t residentBytes() const override { return 0; }

 private:
  std::string dir;
  int32_t nt, w, h;
  int32_t pos = 0;
};

// Touches nothing on disk: a missing or unreadable frame fails at its `next`.
std::unique_ptr<Source> openJpgDir(const std::string& dir, int nt, int w, int h);

}  // namespace driver

// A small ring of decoded frames between a source and its consumer. One
// thread decodes up to `ahead` frames ahead; the last `history` frames taken
// stay in the ring, so random access near the play position costs no decoder
// work. The member plays in a loop: frame 0 follows frame NT - 1.
//
// Consumer calls are serialised and may block until their frame is decoded.
// A pointer a pull returns stays valid until the ring reuses its slot, at
// least `history` pulls later on the forward path. A decoder failure is
// latched and thrown by every later pull, word for word.
class DriverCursor {
 public:
  // The driver video of a bundle: target_frames/ JPEGs or target_frames.mp4.
  static std::unique_ptr<DriverCursor> open(const Manifest& manifest, int lookAhead, int history);
  // The warp prior video of a bundle (P_hevc.mov or the member `P_hevc` names).
  static std::unique_ptr<DriverCursor> openPrior(const Manifest& manifest, int lookAhead, int history);
  static std::unique_ptr<DriverCursor> over(std::unique_ptr<driver::Source> source, int lookAhead, int history);
  ~DriverCursor();
  DriverCursor(const DriverCursor&) = delete;
  DriverCursor& operator=(const DriverCursor&) = delete;

  // Next frame in sequence copied to out; returns its index.
  int pull(unsigned char* out);
  // Next frame in sequence as a pointer into the ring; *index gets its index.
  const unsigned char* pull(int* index);
  // As pull, writable: the caller may paint on the frame in place, and the
  // ring never serves that entry again.
  unsigned char* pullMut(int* index);
  int pullAt(int i, unsigned char* out);
  const unsigned char* pullAt(int i, int* index);
  unsigned char* pullMutAt(int i, int* index);
  // Moves the play position to i; the thread seeks the source if it must.
  void seek(int i);
  // The frame the next sequential pull gives.
  int position() const;
  // Ring plus the source's own memory.
  uint64_t residentBytes() const;
  // Source seeks so far (ring hits are not counted).
  uint64_t seeks() const;

  struct Impl;
  std::unique_ptr<Impl> impl;
  // Copied from the source, readable without a lock.
  int32_t NT = 0;
  int32_t W = 0;
  int32_t H = 0;
  uint64_t frameBytes = 0;
  std::string backend;

 private:
  DriverCursor(std::unique_ptr<driver::Source> source, int lookAhead, int history);
};

}  // namespace xj
