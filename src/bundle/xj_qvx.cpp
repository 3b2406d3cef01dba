#include "bundle/xj_qvx.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "bundle/xj_expand.h"

namespace xj {
namespace qvx {

namespace {

uint16_t le16(const unsigned char* b) { return static_cast<uint16_t>(b[0] | (b[1] << 8)); }

uint64_t le64(const unsigned char* b) {
  uint64_t v = 0;
  for (int k = 7; k >= 0; --k) v = (v << 8) | b[k];
  return v;
}

void putLe16(std::string& s, uint16_t v) {
  s.push_back(static_cast<char>(v & 0xFF));
  s.push_back(static_cast<char>(v >> 8));
}

void putLe64(std::string& s, uint64_t v) {
  for (int k = 0; k < 8; ++k) s.push_back(static_cast<char>((v >> (8 * k)) & 0xFF));
}

bool readExact(std::FILE* f, void* p, size_t n) { return std::fread(p, 1, n, f) == n; }

bool endsWith(const std::string& s, const char* tail) {
  const size_t n = std::strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

std::vector<Entry> readToc(std::FILE* f, const std::string& c) {
  unsigned char h[kHeaderBytes];
  if (!readExact(f, h, sizeof h) || std::memcmp(h, kMagic, sizeof kMagic) != 0) {
    throw std::runtime_error(c + ": not an QVX\\0 container");
  }
  const uint16_t version = le16(h + 4);
  if (version != kVersion) {
    throw std::runtime_error(c + ": unsupported QVX container version " + std::to_string(version));
  }
  const uint16_t count = le16(h + 6);
  std::vector<Entry> toc;
  toc.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    unsigned char lb[2];
    if (!readExact(f, lb, sizeof lb)) throw std::runtime_error(c + ": truncated TOC at member " + std::to_string(i));
    Entry e;
    e.name.resize(le16(lb));
    if (!e.name.empty() && !readExact(f, &e.name[0], e.name.size())) {
      throw std::runtime_error(c + ": truncated member name at " + std::to_string(i));
    }
    unsigned char ob[16];
    if (!readExact(f, ob, sizeof ob)) throw std::runtime_error(c + ": truncated TOC offsets at member " + e.name);
    e.offset = le64(ob);
    e.size = le64(ob + 8);
    toc.push_back(std::move(e));
  }
  return toc;
}

std::vector<Entry> readToc(const std::string& c) {
  FilePtr f(std::fopen(c.c_str(), "rb"));
  if (!f) throw std::runtime_error("cannot open container " + c);
  return readToc(f.get(), c);
}

bool safeMemberName(const std::string& name) {
  if (name.empty() || name[0] == '/' || name[0] == '\\') return false;
  return name.find("..") == std::string::npos && name.find('\0') == std::string::npos;
}

bool isSyntheticManifest(const char* data, size_t n) {
  return memmem(data, n, kSyntheticTag, sizeof kSyntheticTag - 1) != nullptr;
}

std::string rstripSlash(const std::string& s) {
  size_t n = s.size();
  while (n > 1 && s[n - 1] == '/') --n;
  return s.substr(0, n);
}

std::string baseName(const std::string& s) {
  const std::string t = rstripSlash(s);
  const size_t slash = t.rfind('/');
  return slash == std::string::npos ? t : t.substr(slash + 1);
}

std::string dirName(const std::string& s) {
  const std::string t = rstripSlash(s);
  const size_t slash = t.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return t.substr(0, slash);
}

// ---- the writer ---------------------------------------------------------------

namespace {

struct Source {
  std::string name;  // relative to the bundle root, '/' separated
  std::string path;
  uint64_t size = 0;
};

struct FileId {
  dev_t dev = 0;
  ino_t ino = 0;
  bool set = false;
  bool is(const struct stat& st) const { return set && st.st_dev == dev && st.st_ino == ino; }
};

// Collects the regular files below dir. The container being written (and the
// one it replaces) may lie inside the bundle: those two are left out.
void collect(const std::string& dir, const std::string& rel, const FileId& skipA, const FileId& skipB,
             std::vector<Source>& out) {
  DIR* d = opendir(dir.c_str());
  if (!d) throw std::runtime_error("cannot list " + dir);
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    const std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  for (const std::string& n : names) {
    const std::string path = dir + "/" + n;
    const std::string name = rel.empty() ? n : rel + "/" + n;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) throw std::runtime_error("cannot stat " + path);
    if (S_ISDIR(st.st_mode)) {
      collect(path, name, skipA, skipB, out);
      continue;
    }
    // A link to a file is packed as the file; a link to a folder could loop.
    if (S_ISLNK(st.st_mode) && stat(path.c_str(), &st) != 0) {
      throw std::runtime_error("cannot pack " + path + ": the link leads nowhere");
    }
    if (!S_ISREG(st.st_mode)) throw std::runtime_error("cannot pack " + path + ": not a regular file or folder");
    if (skipA.is(st) || skipB.is(st)) continue;
    if (!safeMemberName(name)) {
      throw std::runtime_error("cannot pack " + path + ": '" + name + "' is not a safe member name");
    }
    if (name.size() > 0xFFFF) throw std::runtime_error("cannot pack " + path + ": member name longer than 65535 bytes");
    out.push_back({name, path, static_cast<uint64_t>(st.st_size)});
  }
}

// Removes the temporary file unless the container was placed.
struct TempFile {
  std::string path;
  std::FILE* f = nullptr;
  bool placed = false;
  ~TempFile() {
    if (f) std::fclose(f);
    if (!placed && !path.empty()) unlink(path.c_str());
  }
};

void copyInto(std::FILE* to, const Source& s, std::vector<char>& buf, const std::string& tmp) {
  FilePtr from(std::fopen(s.path.c_str(), "rb"));
  if (!from) throw std::runtime_error("cannot open " + s.path);
  uint64_t left = s.size;
  while (left > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, buf.size()));
    const size_t got = std::fread(buf.data(), 1, want, from.get());
    if (got == 0) break;
    if (std::fwrite(buf.data(), 1, got, to) != got) throw std::runtime_error("short write on " + tmp);
    left -= got;
  }
  // The size went into the table before the copy: any change since is refused.
  if (left != 0 || std::fgetc(from.get()) != EOF) {
    throw std::runtime_error("cannot pack " + s.path + ": the file changed while it was being packed");
  }
}

}  // namespace

std::vector<Entry> writeQvx(const std::string& dir, const std::string& out) {
  struct stat st {};
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) throw std::runtime_error("not a bundle folder: " + dir);

  TempFile tmp;
  std::string tmpl = out + ".tmp.XXXXXX";
  const int fd = mkstemp(&tmpl[0]);
  if (fd < 0) throw std::runtime_error("cannot write " + out);
  tmp.path = tmpl;
  tmp.f = fdopen(fd, "wb");
  if (!tmp.f) {
    close(fd);
    throw std::runtime_error("cannot write " + tmp.path);
  }
  fchmod(fd, 0644);

  FileId self, previous;
  if (fstat(fd, &st) == 0) self = {st.st_dev, st.st_ino, true};
  if (stat(out.c_str(), &st) == 0) previous = {st.st_dev, st.st_ino, true};

  std::vector<Source> files;
  collect(rstripSlash(dir), "", self, previous, files);
  std::sort(files.begin(), files.end(), [](const Source& a, const Source& b) { return a.name < b.name; });
  if (files.size() > 0xFFFF) {
    throw std::runtime_error("cannot pack " + dir + ": " + std::to_string(files.size()) +
                             " files, a container holds at most 65535");
  }

  uint64_t tocBytes = 0;
  for (const Source& s : files) tocBytes += 2 + s.name.size() + 16;
  std::vector<Entry> toc;
  std::string head(kMagic, sizeof kMagic);
  putLe16(head, kVersion);
  putLe16(head, static_cast<uint16_t>(files.size()));
  uint64_t offset = kHeaderBytes + tocBytes;
  for (const Source& s : files) {
    putLe16(head, static_cast<uint16_t>(s.name.size()));
    head += s.name;
    putLe64(head, offset);
    putLe64(head, s.size);
    toc.push_back({s.name, offset, s.size});
    offset += s.size;
  }
  if (std::fwrite(head.data(), 1, head.size(), tmp.f) != head.size()) {
    throw std::runtime_error("short write on " + tmp.path);
  }
  std::vector<char> buf(1 << 20);
  for (const Source& s : files) copyInto(tmp.f, s, buf, tmp.path);

  const bool flushed = std::fflush(tmp.f) == 0 && fsync(fileno(tmp.f)) == 0;
  const bool closed = std::fclose(tmp.f) == 0;
  tmp.f = nullptr;
  if (!flushed || !closed) throw std::runtime_error("short write on " + tmp.path);
  if (std::rename(tmp.path.c_str(), out.c_str()) != 0) throw std::runtime_error("cannot place container " + out);
  tmp.placed = true;
  return toc;
}

}  // namespace qvx

bool isQvxV2File(const std::string& path) {
  if (path.empty()) return false;
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  unsigned char h[qvx::kHeaderBytes];
  size_t got = 0;
  while (got < sizeof h) {
    const ssize_t k = read(fd, h + got, sizeof h - got);
    if (k <= 0) break;
    got += static_cast<size_t>(k);
  }
  close(fd);
  return got == sizeof h && std::memcmp(h, qvx::kMagic, sizeof qvx::kMagic) == 0 &&
         (h[4] | (h[5] << 8)) == qvx::kVersion;
}

std::string resolveBundlePath(const std::string& p) {
  if (p.empty()) return p;
  const std::string bare = qvx::rstripSlash(p);
  struct stat st {};
  if (stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
      stat((bare + ".qvx_unwrapped").c_str(), &st) != 0) {
    return p;
  }
  if (p.size() > 3 && qvx::endsWith(p, ".qvx") && isQvxV2File(p)) return qvx::unwrapOnce(p);
  // Named without its extension, or a directory unwrapped from a container beside it.
  if (isQvxV2File(bare + ".qvx")) return qvx::unwrapOnce(bare + ".qvx");
  if (isQvxV2File(p)) return qvx::unwrapOnce(p);
  return p;
}

}  // namespace xj
