#include "bundle/xj_expand.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "bundle/xj_qvx.h"

namespace xj {
namespace qvx {

namespace {

constexpr size_t kCopyBytes = 8388608;
constexpr char kMarkerVersion[] = "qvx-unwrapped.v2";

std::mutex& unwrapMutex() {
  static std::mutex m;
  return m;
}

bool isDir(const std::string& p) {
  struct stat st {};
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string trimmed(const std::string& s) {
  const char* blanks = " \t\r\n";
  const size_t a = s.find_first_not_of(blanks);
  if (a == std::string::npos) return "";
  return s.substr(a, s.find_last_not_of(blanks) - a + 1);
}

// The directory is complete for this very container.
bool markerMatches(const std::string& out, const std::string& marker, const std::string& expected) {
  if (!isDir(out)) return false;
  const int fd = open(marker.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string text;
  char buf[512];
  ssize_t k;
  while ((k = read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(k));
  close(fd);
  const std::string t = trimmed(text);
  return !t.empty() && t == expected;
}

// Another process that opens the same new container at the same time would
// otherwise delete the tree this one is filling. Where the container can't be
// opened or locked, unwraps are unordered between processes, as before.
class ContainerLock {
 public:
  explicit ContainerLock(const std::string& c) : fd(open(c.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd < 0) return;
    int rc;
    while ((rc = flock(fd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc != 0) {
      close(fd);
      fd = -1;
    }
  }
  ~ContainerLock() {
    if (fd >= 0) close(fd);  // releases the lock
  }
  ContainerLock(const ContainerLock&) = delete;
  ContainerLock& operator=(const ContainerLock&) = delete;
  bool held() const { return fd >= 0; }

 private:
  int fd;
};

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

bool seekTo(std::FILE* f, uint64_t offset) {
  if (offset > static_cast<uint64_t>(INT64_MAX)) return false;
  return fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0;
}

// Copies one member to <final>.part and renames it into place, so nobody
// sees a half-written member under its final name.
void materialise(std::FILE* in, const std::string& c, const Entry& e, const std::string& final,
                 std::vector<char>& buf) {
  const std::string parent = dirName(final);
  if (!mkdirs(parent)) throw std::runtime_error("cannot create " + parent);
  if (!seekTo(in, e.offset)) throw std::runtime_error(c + ": cannot seek to member " + e.name);
  const std::string part = final + ".part";
  FilePtr o(std::fopen(part.c_str(), "wb"));
  if (!o) throw std::runtime_error("cannot write " + part);
  uint64_t left = e.size;
  while (left > 0) {
    const size_t want = static_cast<size_t>(left < buf.size() ? left : buf.size());
    const size_t got = std::fread(buf.data(), 1, want, in);
    if (got == 0) throw std::runtime_error(c + ": truncated payload for member " + e.name);
    if (std::fwrite(buf.data(), 1, got, o.get()) != got) {
      throw std::runtime_error("short write materialising " + final);
    }
    left -= got;
  }
  const bool flushed = std::fflush(o.get()) == 0;
  const bool closed = std::fclose(o.release()) == 0;
  if (!flushed || !closed) throw std::runtime_error("flush failed materialising " + final);
  if (std::rename(part.c_str(), final.c_str()) != 0) {
    unlink(part.c_str());
    throw std::runtime_error("cannot place member " + final);
  }
}

// A manifest member that only stands in for one: read it whole, when it can be.
bool skipSynthetic(std::FILE* in, const Entry& e, std::vector<char>& buf) {
  if (e.name != "manifest.json" || e.size < 1 || e.size > kSyntheticMax) return false;
  const size_t n = static_cast<size_t>(e.size);
  if (!seekTo(in, e.offset) || std::fread(buf.data(), 1, n, in) != n) return false;
  return isSyntheticManifest(buf.data(), n);
}

void rebuild(const std::string& c, const std::string& out, const std::string& marker,
             const std::string& expected) {
  // With the marker gone first, a stop anywhere below leaves a directory the
  // next open rebuilds.
  unlink(marker.c_str());
  rmTree(out);
  if (!mkdirs(out)) throw std::runtime_error("cannot create unwrap dir " + out);

  FilePtr in(std::fopen(c.c_str(), "rb"));
  if (!in) throw std::runtime_error("cannot open container " + c);
  const std::vector<Entry> toc = readToc(in.get(), c);
  std::vector<char> buf(kCopyBytes, 0);
  for (const Entry& e : toc) {
    if (!safeMemberName(e.name)) throw std::runtime_error(c + ": refusing unsafe member name '" + e.name + "'");
    if (skipSynthetic(in.get(), e, buf)) continue;
    materialise(in.get(), c, e, out + "/" + e.name, buf);
  }
  in.reset();

  FilePtr m(std::fopen(marker.c_str(), "wb"));
  if (!m) throw std::runtime_error("cannot write unwrap marker " + marker);
  const bool written = std::fwrite(expected.data(), 1, expected.size(), m.get()) == expected.size();
  const bool flushed = std::fflush(m.get()) == 0;
  const bool closed = std::fclose(m.release()) == 0;
  if (!written || !flushed || !closed) throw std::runtime_error("short write on unwrap marker " + marker);
}

}  // namespace

std::string unwrapDir(const std::string& c) {
  std::string name = baseName(c);
  if (endsWith(name, ".qvx")) name.resize(name.size() - 4);
  if (!endsWith(name, ".xjbundle")) name += ".xjbundle";
  const char* env = std::getenv("XJ_QVX_UNWRAP_ROOT");
  const std::string root = (env && *env) ? std::string(env) : dirName(c);
  return rstripSlash(root) + "/" + name;
}

std::string markerPath(const std::string& dir) { return dir + ".qvx_unwrapped"; }

std::string markerText(const std::string& c, const struct stat& st) {
  const int64_t mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return std::string(kMarkerVersion) + " " + baseName(c) + " " + std::to_string(static_cast<int64_t>(st.st_size)) +
         " " + std::to_string(mtimeNs) + " " + std::to_string(static_cast<uint64_t>(st.st_ino));
}

bool mkdirs(const std::string& p) {
  if (p.empty() || p == "." || p == "/") return true;
  if (isDir(p)) return true;
  const std::string parent = dirName(p);
  if (parent != p && !mkdirs(parent)) return false;
  if (mkdir(p.c_str(), 0755) != 0) return isDir(p);
  return true;
}

void rmTree(const std::string& p) {
  struct stat st {};
  if (lstat(p.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    unlink(p.c_str());
    return;
  }
  DIR* d = opendir(p.c_str());
  if (!d) {
    rmdir(p.c_str());
    return;
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    const std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  for (const std::string& n : names) rmTree(p + "/" + n);
  closedir(d);
  rmdir(p.c_str());
}

std::string unwrapOnce(const std::string& c) {
  const std::string out = unwrapDir(c);
  const std::string marker = markerPath(out);
  std::lock_guard<std::mutex> serial(unwrapMutex());

  struct stat st {};
  if (lstat(c.c_str(), &st) != 0) throw std::runtime_error("cannot stat container " + c);
  std::string expected = markerText(c, st);
  if (markerMatches(out, marker, expected)) return out;

  // Whoever held the lock may have finished the very unwrap this one needs.
  ContainerLock lock(c);
  if (lock.held()) {
    if (lstat(c.c_str(), &st) != 0) throw std::runtime_error("cannot stat container " + c);
    expected = markerText(c, st);
    if (markerMatches(out, marker, expected)) return out;
  }
  rebuild(c, out, marker, expected);
  std::fprintf(stderr, "[xj] unwrapped %s -> %s\n", c.c_str(), out.c_str());
  return out;
}

}  // namespace qvx
}  // namespace xj
