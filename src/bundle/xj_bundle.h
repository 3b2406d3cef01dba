// The bundle reader: manifest, member names, the mapped identity, the idle tables.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace xj {

class DriverCursor;

// The manifest of one bundle. Every number the engine installs is the only
// candidate for its key in the text (see manifest_key).
struct Manifest {
  std::string dir;  // resolved bundle directory
  std::string agent;
  int32_t NT = 0;
  int32_t H = 0;
  int32_t W = 0;
  int32_t M_src_w = 0;
  int32_t M_src_h = 0;
  int32_t crop = 512;
  float amount = 1.3f;
  float sigma = 2.0f;
  int32_t ksize = 13;
  int32_t frames = 0;
  std::string lipTemplateJson;

  // The director graph "model_<key>.onnx", under either spelling.
  std::string modelPath(const std::string& key) const;
};

namespace manifest_key {

struct KeyHit {
  uint64_t pos = 0;    // first non-space byte after the colon
  int32_t depth = 0;   // 1 for a key directly inside the root object
  bool scalar = false; // value is neither an array nor an object
};

constexpr uint64_t kNoValue = ~uint64_t{0};

std::vector<KeyHit> keyHits(const std::string& json, const std::string& key);
// The byte offset of the one value `key` stands for, kNoValue when it has no
// scalar value; throws when more than one candidate could be meant.
uint64_t scalarValuePos(const std::string& json, const std::string& key);

}  // namespace manifest_key

// Optional string value of a key: absent, not a string, or empty leaves `out`
// as it was and returns false. No escape processing.
bool optStr(const std::string& json, const std::string& key, std::string& out);

Manifest loadManifest(const std::string& path);

// A read-only private file mapping; a null base means the member is absent.
struct Mapping {
  const uint8_t* data = nullptr;
  void* base = nullptr;
  size_t length = 0;
};

// What the director and the paste need per source frame. Large members are
// mapped, never read into allocated memory. Immutable after construction,
// apart from the lazily opened cursor of a video prior.
class Identity {
 public:
  explicit Identity(const Manifest& manifest);
  ~Identity();
  Identity(const Identity&) = delete;
  Identity& operator=(const Identity&) = delete;

  int32_t NT = 0;
  int32_t crop = 0;
  Mapping pooled64Map;
  Mapping pMap;
  Mapping fsRedMap;
  std::vector<float> m;
  std::string priorPath;
  Manifest manifest;
  // The cursor of a video prior, opened at first use (a failed open is tried
  // again at the next use).
  mutable std::once_flag priorOnce;
  mutable std::unique_ptr<DriverCursor> priorCursor;

  const uint16_t* pooled64(int i) const;
  // Planar float16 warp prior of frame i, crop*crop*3 values. From a video
  // prior the pointer is into the cursor's ring: valid until the ring reuses
  // its slot, at least 11 frames later on the forward path.
  const uint16_t* P(int i) const;
  const uint16_t* fsRed(int i) const;
  const float* M(int i) const;

  // The video prior. walkP pulls frame i so the prior decoder keeps step with
  // the paste (no operation without a video prior); prior() opens the cursor
  // once; the other three report on it ("mmap P.f16", the decoder, or "none";
  // 0 without a video prior).
  void walkP(int i) const;
  DriverCursor& prior() const;
  std::string priorBackend() const;
  uint64_t priorResidentBytes() const;
  uint64_t priorSeeks() const;

  void rescaleM(const Manifest& manifest);
};

// Keypoint tables of the idle loop.
struct Drive {
  std::vector<float> xs;
  std::vector<float> xd;
  std::vector<int32_t> si;
  int32_t frames = 0;
};

Drive loadDrive(const Manifest& manifest);

// The other spelling of a member's name (legacy <-> canonical); a name with
// none is its own.
std::string canonicalMember(const std::string& name);
// Path of a member under either spelling; the legacy one wins when both exist.
// Never fails: with neither on disk it names the asked-for spelling.
std::string resolveMember(const std::string& dir, const std::string& name);
// Refuses a bundle with no usable warp prior before anything is mapped.
void ensureIdentityMembers(const Manifest& manifest);

// Widens n IEEE binary16 values.
void halfToFloat(const uint16_t* src, float* dst, size_t n);

}  // namespace xj
