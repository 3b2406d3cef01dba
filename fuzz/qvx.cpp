// The container reader and the unwrap over arbitrary bytes: no crash, no
// refusal other than a std::runtime_error, and nothing written outside the
// unwrap directory.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "bundle/xj_expand.h"
#include "bundle/xj_qvx.h"

namespace {

std::string gBase;  // this run's scratch folder: in/c.qvx, root/, canary/

void require(bool ok, const std::string& what) {
  if (ok) return;
  std::fprintf(stderr, "xj_fuzz_qvx: %s\n", what.c_str());
  std::abort();
}

std::vector<std::string> list(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string n = e->d_name;
      if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
  }
  return names;
}

// Only folders and regular files below the unwrap directory, under names an
// unwrap may write.
void checkTree(const std::string& dir, const std::string& rel) {
  for (const std::string& n : list(dir)) {
    const std::string path = dir + "/" + n;
    const std::string name = rel.empty() ? n : rel + "/" + n;
    struct stat st {};
    require(lstat(path.c_str(), &st) == 0, "vanished: " + path);
    // A refusal may leave a member's "<name>.part" behind (the next open rebuilds).
    const std::string suffix = ".part";
    const bool part = name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
    require(xj::qvx::safeMemberName(part ? name.substr(0, name.size() - suffix.size()) : name),
            "unsafe name on disk: " + name);
    if (S_ISDIR(st.st_mode)) checkTree(path, name);
    else require(S_ISREG(st.st_mode), "not a file or folder: " + path);
  }
}

void writeAll(const std::string& path, const uint8_t* data, size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  require(f != nullptr, "cannot write " + path);
  require(std::fwrite(data, 1, size, f) == size, "short write " + path);
  std::fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* t = std::getenv("TMPDIR");
  std::string tmpl = std::string((t && *t) ? t : "/tmp") + "/xj_fuzz_qvx.XXXXXX";
  require(mkdtemp(&tmpl[0]) != nullptr, "mkdtemp failed");
  gBase = tmpl;
  require(xj::qvx::mkdirs(gBase + "/in") && xj::qvx::mkdirs(gBase + "/canary"), "cannot make scratch folders");
  writeAll(gBase + "/canary/keep", reinterpret_cast<const uint8_t*>("k"), 1);
  setenv("XJ_QVX_UNWRAP_ROOT", (gBase + "/root").c_str(), 1);
  std::atexit([] { xj::qvx::rmTree(gBase); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string c = gBase + "/in/c.qvx";
  const std::string root = gBase + "/root";
  const std::string out = root + "/c.xjbundle";
  xj::qvx::rmTree(root);
  writeAll(c, data, size);

  const bool v2 = xj::isQvxV2File(c);
  require(v2 == (size >= 8 && data[0] == 'Q' && data[1] == 'V' && data[2] == 'X' && data[3] == 0 && data[4] == 2 &&
                 data[5] == 0),
          "isQvxV2File disagrees with the header");
  try {
    xj::qvx::readToc(c);
  } catch (const std::runtime_error&) {
  }
  bool unwrapped = false;
  try {
    const std::string dir = xj::resolveBundlePath(c);
    require(dir == (v2 ? out : c), "resolved to " + dir);
    unwrapped = v2;
  } catch (const std::runtime_error&) {
    require(v2, "a refusal for a file that is no container");
  }

  // Nothing beside the input, the unwrap root and the canary.
  for (const std::string& n : list(gBase)) require(n == "in" || n == "root" || n == "canary", "stray " + n);
  require(list(gBase + "/in") == std::vector<std::string>{"c.qvx"}, "the input folder changed");
  require(list(gBase + "/canary") == std::vector<std::string>{"keep"}, "the canary folder changed");
  for (const std::string& n : list(root)) {
    require(n == "c.xjbundle" || n == "c.xjbundle.qvx_unwrapped", "stray in the unwrap root: " + n);
  }
  struct stat st {};
  const bool marker = stat((out + ".qvx_unwrapped").c_str(), &st) == 0;
  require(marker == unwrapped, "a marker after a refusal, or none after an unwrap");
  checkTree(out, "");
  return 0;
}
