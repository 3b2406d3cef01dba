#include "bundle/xj_bundle.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <unordered_map>

#include "bundle/xj_qvx.h"
#include "cpu/xj_simd.h"
#include "driver/xj_driver.h"

namespace xj {
namespace {

constexpr double kSentinel = -1e300;
constexpr size_t kPooledBytes = 131072;  // 65,536 float16 values
constexpr size_t kFsRedBytes = 524288;   // 262,144 float16 values

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

// strtod at a position of the text, which ends at its terminating NUL.
double numAt(const std::string& json, uint64_t pos) { return std::strtod(json.c_str() + pos, nullptr); }

int32_t trunc32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<int32_t>::max();
  if (v <= -2147483648.0) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(v);
}

const char* findKey(const std::string& json, const std::string& key) {
  const uint64_t pos = manifest_key::scalarValuePos(json, key);
  if (pos == manifest_key::kNoValue) fail("manifest: missing key " + key);
  return json.c_str() + pos;
}

std::string strField(const std::string& json, const std::string& key) {
  const char* p = findKey(json, key);
  const char* end = json.c_str() + json.size();
  const char* open = static_cast<const char*>(std::memchr(p, '"', static_cast<size_t>(end - p)));
  if (!open) fail("manifest: bad string " + key);
  const char* close = static_cast<const char*>(std::memchr(open + 1, '"', static_cast<size_t>(end - open - 1)));
  if (!close) fail("manifest: bad string " + key);
  return std::string(open + 1, close);
}

// A number under `key` that is present and is not the sentinel.
bool numValue(const std::string& json, const std::string& key, double& out) {
  const uint64_t pos = manifest_key::scalarValuePos(json, key);
  if (pos == manifest_key::kNoValue) return false;
  const double v = numAt(json, pos);
  if (v == kSentinel) return false;
  out = v;
  return true;
}

double numFieldEither(const std::string& json, const std::string& a, const std::string& b) {
  double v = 0;
  if (numValue(json, a, v)) return v;
  if (numValue(json, b, v)) return v;
  fail("manifest: missing key " + a + "/" + b);
}

std::string readFile(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) fail("cannot open " + path);
  std::fseek(f, 0, SEEK_END);
  const long size = std::ftell(f);
  std::fseek(f, 0, SEEK_SET);
  std::string s(size > 0 ? static_cast<size_t>(size) : 0, '\0');
  const size_t got = s.empty() ? 0 : std::fread(&s[0], 1, s.size(), f);
  std::fclose(f);
  if (got != s.size()) fail("short read " + path);
  return s;
}

std::string readText(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) fail("cannot open " + path);
  std::string s;
  char buf[8192];
  size_t k;
  while ((k = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, k);
  std::fclose(f);
  return s;
}

// Exactly n values and then end of file: a member may be neither shorter nor longer.
template <typename T>
std::vector<T> readRaw(const std::string& path, size_t n) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) fail("cannot open " + path);
  std::vector<T> v(n);
  const size_t got = n ? std::fread(v.data(), sizeof(T), n, f) : 0;
  unsigned char extra;
  const bool atEnd = std::fread(&extra, 1, 1, f) == 0;
  std::fclose(f);
  if (got != n || !atEnd) fail("size mismatch " + path);
  return v;
}

Mapping mapFile(const std::string& path, size_t expectedBytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail("cannot open " + path);
  struct stat st {};
  if (::fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) != expectedBytes) {
    ::close(fd);
    fail("size mismatch " + path);
  }
  Mapping m;
  void* p = ::mmap(nullptr, expectedBytes, PROT_READ, MAP_PRIVATE, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) fail("mmap failed " + path);
  m.base = p;
  m.data = static_cast<const uint8_t*>(p);
  m.length = expectedBytes;
  return m;
}

void unmap(Mapping& m) {
  if (m.base) ::munmap(m.base, m.length);
  m = Mapping{};
}

bool opens(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

bool statOk(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

const std::unordered_map<std::string, std::string>& exactPairs() {
  static const std::unordered_map<std::string, std::string> table = [] {
    const char* pairs[][2] = {
        {"P.f16", "source_frames.f16"},
        {"P_hevc.mov", "source_frames.hevc"},
        {"a2x_enc_stream.onnx", "audio_motion_encoder.onnx"},
        {"a2x_dec.onnx", "audio_motion_decoder.onnx"},
        {"M.f32", "paste_transform.f32"},
        {"mask_512.u8", "paste_mask.u8"},
        {"pooled64.f16", "pooled_features.f16"},
        {"fs_red.f16", "feature_synth.f16"},
        {"xs_target.bin", "target_keypoints.bin"},
    };
    std::unordered_map<std::string, std::string> t;
    for (auto& p : pairs) t.emplace(p[0], p[1]);
    return t;
  }();
  return table;
}

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

// ---- manifest scanner ---------------------------------------------------

namespace manifest_key {

std::vector<KeyHit> keyHits(const std::string& json, const std::string& key) {
  std::vector<KeyHit> hits;
  const size_t n = json.size();
  int32_t depth = 0;
  size_t i = 0;
  while (i < n) {
    const char c = json[i];
    if (c == '[' || c == '{') {
      ++depth;
      ++i;
      continue;
    }
    if (c == ']' || c == '}') {
      --depth;
      ++i;
      continue;
    }
    if (c != '"') {
      ++i;
      continue;
    }
    const size_t start = i + 1;
    size_t j = start;
    while (j < n && json[j] != '"') j += (json[j] == '\\') ? 2 : 1;
    if (j >= n) break;  // the text ends inside a string
    const size_t close = j;
    size_t k = close + 1;
    while (k < n && std::isspace(static_cast<unsigned char>(json[k]))) ++k;
    if (k < n && json[k] == ':' && close - start == key.size() &&
        json.compare(start, key.size(), key) == 0) {
      size_t v = k + 1;
      while (v < n && std::isspace(static_cast<unsigned char>(json[v]))) ++v;
      KeyHit h;
      h.pos = v;
      h.depth = depth;
      h.scalar = v < n && json[v] != '[' && json[v] != '{';
      hits.push_back(h);
    }
    i = close + 1;
  }
  return hits;
}

uint64_t scalarValuePos(const std::string& json, const std::string& key) {
  std::vector<uint64_t> scalars, roots;
  for (const KeyHit& h : keyHits(json, key)) {
    if (!h.scalar) continue;
    scalars.push_back(h.pos);
    if (h.depth == 1) roots.push_back(h.pos);
  }
  const std::vector<uint64_t>* report = nullptr;
  if (roots.size() == 1) return roots[0];
  if (roots.size() >= 2) report = &roots;
  else if (scalars.size() == 1) return scalars[0];
  else if (scalars.size() >= 2) report = &scalars;
  else return kNoValue;

  std::string msg = "manifest: key \"" + key + "\" is AMBIGUOUS \xE2\x80\x94 " + std::to_string(report->size()) +
                    " scalar occurrences (";
  for (size_t i = 0; i < report->size(); ++i) {
    if (i) msg += ", ";
    msg += "byte " + std::to_string((*report)[i]);
  }
  msg +=
      "). A loader that picks one silently installs a number nobody checks. Rename the colliding key (a nested "
      "block must not reuse a name the bundle loader reads: NT/frame_count, H, W, crop/crop_size, amount, sigma, "
      "ksize, frames, M_src_w/paste_source_width, M_src_h/paste_source_height), or produce the bundle with the "
      "legacy manifest layout.";
  throw std::runtime_error(msg);
}

}  // namespace manifest_key

bool optStr(const std::string& json, const std::string& key, std::string& out) {
  const uint64_t pos = manifest_key::scalarValuePos(json, key);
  if (pos == manifest_key::kNoValue || json[pos] != '"') return false;
  const size_t close = json.find('"', pos + 1);
  if (close == std::string::npos || close == pos + 1) return false;
  out = json.substr(pos + 1, close - pos - 1);
  return true;
}

std::string Manifest::modelPath(const std::string& key) const {
  return resolveMember(dir, "model_" + key + ".onnx");
}

Manifest loadManifest(const std::string& path) {
  Manifest m;
  m.dir = resolveBundlePath(path);
  const std::string json = readFile(m.dir + "/manifest.json");
  const std::string format = strField(json, "format");
  if (format != "xj-bundle-v0") fail("not an xj-bundle-v0: " + m.dir);

  m.agent = strField(json, "agent");
  m.NT = trunc32(numFieldEither(json, "NT", "frame_count"));
  m.H = trunc32(std::strtod(findKey(json, "H"), nullptr));
  m.W = trunc32(std::strtod(findKey(json, "W"), nullptr));
  m.crop = trunc32(numFieldEither(json, "crop", "crop_size"));
  m.amount = static_cast<float>(std::strtod(findKey(json, "amount"), nullptr));
  m.sigma = static_cast<float>(std::strtod(findKey(json, "sigma"), nullptr));
  m.ksize = trunc32(std::strtod(findKey(json, "ksize"), nullptr));
  m.frames = trunc32(std::strtod(findKey(json, "frames"), nullptr));
  if (m.NT < 1 || m.H < 1 || m.W < 1 || m.crop < 1) fail("manifest: bad dims");

  // The paste-space stamp: each dimension from its main name or its alias.
  double sw = 0, sh = 0;
  const bool hasW = numValue(json, "M_src_w", sw) || numValue(json, "paste_source_width", sw);
  const bool hasH = numValue(json, "M_src_h", sh) || numValue(json, "paste_source_height", sh);
  if (!hasW || !hasH) {
    const char* ok = std::getenv("QUILLON2_MSRC_MISSING_OK");
    if (!ok || std::strcmp(ok, "1") != 0) {
      fail(m.dir +
           "/manifest.json declares no paste-space stamp (M_src_w/M_src_h, aka paste_source_width/height) "
           "\xE2\x80\x94 the canvas is " +
           std::to_string(m.W) + "x" + std::to_string(m.H) +
           ", so M cannot be placed: absence is not evidence that M was authored at that size. Re-stamp the "
           "bundle (models/quillon-2/inference/backfill_msrc), or set QUILLON2_MSRC_MISSING_OK=1 to restore the "
           "legacy assumption.");
    }
    std::fprintf(stderr,
                 "[xj] WARNING QUILLON2_MSRC_MISSING_OK=1: %s/manifest.json carries no paste-space stamp; ASSUMING "
                 "M was authored on this %dx%d canvas. If it was not, the face pastes off-target (vq#144) and "
                 "nothing will say so.\n",
                 m.dir.c_str(), m.W, m.H);
    m.M_src_w = m.W;
    m.M_src_h = m.H;
  } else {
    m.M_src_w = trunc32(sw);
    m.M_src_h = trunc32(sh);
  }
  if (m.M_src_w <= 0 || m.M_src_h <= 0) fail("manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)");

  const std::string lip = resolveMember(m.dir, "lip_template.v1.json");
  if (opens(lip)) m.lipTemplateJson = readText(lip);
  return m;
}

// ---- member names -------------------------------------------------------

std::string canonicalMember(const std::string& name) {
  const auto& exact = exactPairs();
  const auto it = exact.find(name);
  if (it != exact.end()) return it->second;

  static const std::string kModel = "model_b", kOnnx = ".onnx";
  if (name.size() > kModel.size() + kOnnx.size() && startsWith(name, kModel.c_str()) && endsWith(name, kOnnx)) {
    const std::string mid = name.substr(kModel.size(), name.size() - kModel.size() - kOnnx.size());
    const size_t us = mid.find('_');
    const std::string batch = mid.substr(0, us);
    const std::string suffix = us == std::string::npos ? std::string() : mid.substr(us + 1);
    return "render_model.batch" + batch + (suffix.empty() ? "" : "." + suffix) + ".onnx";
  }

  if (startsWith(name, "drive/")) {
    const std::string rest = name.substr(6);
    const size_t dot = rest.find('.');
    std::string stem = rest.substr(0, dot);
    const std::string ext = dot == std::string::npos ? std::string() : rest.substr(dot);
    if (stem == "xs") stem = "source_keypoints";
    else if (stem == "xd") stem = "driven_keypoints";
    else if (stem == "si") stem = "source_index";
    return "idle_loop/" + stem + ext;
  }
  return name;
}

std::string resolveMember(const std::string& dir, const std::string& name) {
  const std::string canonical = canonicalMember(name);
  const std::string legacyPath = dir + "/" + name;
  if (canonical == name) return legacyPath;
  if (opens(legacyPath)) return legacyPath;
  const std::string canonicalPath = dir + "/" + canonical;
  if (opens(canonicalPath)) return canonicalPath;
  return legacyPath;
}

void ensureIdentityMembers(const Manifest& manifest) {
  const std::string& dir = manifest.dir;
  auto present = [&](const std::string& x) { return statOk(resolveMember(dir, x)); };
  const std::string text = readText(dir + "/manifest.json");
  std::string raw = "P.f16";
  optStr(text, "P_rgb", raw);
  const bool hasP = present("P.f16");
  const bool hasFs = present("fs_red.f16");
  if (raw != "P.f16" && present(raw) && !hasP && !hasFs) {
    fail("this bundle's manifest names its raw warp prior '" + raw +
         "' (P_rgb) but xj::Identity maps the welded name P.f16 and would find nothing \xE2\x80\x94 it maps NOTHING "
         "silently and Identity::P(si) is then an offset from a null pointer. REFUSING rather than rendering off a "
         "prior nothing will read.");
  }
  if (hasP || hasFs) return;
  std::string hevc;
  if (!optStr(text, "P_hevc", hevc)) {
    fail("this bundle carries neither " + raw +
         " nor fs_red.f16, and its manifest names no P_hevc member to play one from \xE2\x80\x94 the renderer has "
         "no warp prior and xj::Identity would hand it a null pointer. REFUSING to create a session.");
  }
  const std::string resolved = resolveMember(dir, hevc);
  if (!statOk(resolved)) {
    fail("this bundle's manifest names P_hevc '" + hevc + "' and the file is not there (" + resolved +
         ") \xE2\x80\x94 the renderer has no warp prior. REFUSING to create a session.");
  }
}

// ---- identity -----------------------------------------------------------

Identity::Identity(const Manifest& mf) : NT(mf.NT), crop(mf.crop), manifest(mf) {
  ensureIdentityMembers(manifest);
  const std::string& dir = manifest.dir;
  const size_t nt = static_cast<size_t>(NT);
  const size_t c = static_cast<size_t>(crop);
  try {
    pooled64Map = mapFile(resolveMember(dir, "pooled64.f16"), nt * kPooledBytes);
    const std::string pPath = resolveMember(dir, "P.f16");
    const std::string fsPath = resolveMember(dir, "fs_red.f16");
    if (opens(pPath)) {
      pMap = mapFile(pPath, c * c * nt * 6);
    } else if (!opens(fsPath)) {
      // No raw prior and no feature map: the prior is played from its video.
      std::string name;
      if (!optStr(readText(dir + "/manifest.json"), "P_hevc", name)) name = "P_hevc.mov";
      const std::string video = resolveMember(dir, name);
      if (opens(video)) priorPath = video;
    }
    if (opens(fsPath)) fsRedMap = mapFile(fsPath, nt * kFsRedBytes);
    m = readRaw<float>(resolveMember(dir, "M.f32"), nt * 6);
    rescaleM(manifest);
  } catch (...) {
    unmap(pooled64Map);
    unmap(pMap);
    unmap(fsRedMap);
    throw;
  }
}

Identity::~Identity() {
  priorCursor.reset();
  unmap(pooled64Map);
  unmap(pMap);
  unmap(fsRedMap);
}

const uint16_t* Identity::pooled64(int i) const {
  return reinterpret_cast<const uint16_t*>(pooled64Map.data + static_cast<size_t>(i) * kPooledBytes);
}

const uint16_t* Identity::P(int i) const {
  if (!pMap.base) {
    int index = -1;
    return reinterpret_cast<const uint16_t*>(prior().pullAt(i, &index));
  }
  const size_t c = static_cast<size_t>(crop);
  return reinterpret_cast<const uint16_t*>(pMap.data + static_cast<size_t>(i) * c * c * 6);
}

const uint16_t* Identity::fsRed(int i) const {
  return reinterpret_cast<const uint16_t*>(fsRedMap.data + static_cast<size_t>(i) * kFsRedBytes);
}

const float* Identity::M(int i) const { return m.data() + static_cast<size_t>(i) * 6; }

void Identity::rescaleM(const Manifest& mf) {
  if (mf.M_src_w <= 0 || mf.M_src_h <= 0) {
    fail(
        "xj::Identity: manifest carries no paste-space stamp (M_src_w/M_src_h) \xE2\x80\x94 refusing to paste M "
        "without knowing the space it was authored in");
  }
  if (mf.M_src_w == mf.W && mf.M_src_h == mf.H) return;
  const double sx = static_cast<double>(mf.W) / mf.M_src_w;
  const double sy = static_cast<double>(mf.H) / mf.M_src_h;
  for (size_t f = 0; f + 6 <= m.size(); f += 6) {
    for (int k = 0; k < 3; ++k) m[f + k] = static_cast<float>(static_cast<double>(m[f + k]) * sx);
    for (int k = 3; k < 6; ++k) m[f + k] = static_cast<float>(static_cast<double>(m[f + k]) * sy);
  }
}

// ---- idle tables --------------------------------------------------------

Drive loadDrive(const Manifest& mf) {
  Drive d;
  d.frames = mf.frames;
  const size_t n = mf.frames > 0 ? static_cast<size_t>(mf.frames) : 0;
  d.xs = readRaw<float>(resolveMember(mf.dir, "drive/xs.f32"), n * 63);
  d.xd = readRaw<float>(resolveMember(mf.dir, "drive/xd.f32"), n * 63);
  d.si = readRaw<int32_t>(resolveMember(mf.dir, "drive/si.i32"), n);
  for (int32_t s : d.si)
    if (s < 0 || s >= mf.NT) fail("drive: si out of range");
  return d;
}

// ---- half floats --------------------------------------------------------

void halfToFloat(const uint16_t* src, float* dst, size_t n) { simd::f16ToF32(src, dst, n); }

}  // namespace xj
