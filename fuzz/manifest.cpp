// The manifest byte scanner and loader on arbitrary text: no crash, no read
// past the text, and the scanner's answers agree with each other.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bundle/xj_bundle.h"

namespace {

const std::string& scratch() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/xj_fuzz_manifest.XXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const char* key : {"H", "NT", "format", "M_src_w", "P_hevc"}) {
    const auto hits = xj::manifest_key::keyHits(text, key);
    for (const auto& h : hits)
      if (h.pos > text.size()) std::abort();  // a value position lies inside the text, or at its end
    try {
      const uint64_t pos = xj::manifest_key::scalarValuePos(text, key);
      if (pos != xj::manifest_key::kNoValue) {
        bool found = false;
        for (const auto& h : hits) found = found || (h.scalar && h.pos == pos);
        if (!found) std::abort();  // the chosen value is one of the scalar hits
      }
    } catch (const std::runtime_error&) {
    }
    std::string out = "unchanged";
    try {
      xj::optStr(text, key, out);
    } catch (const std::runtime_error&) {
    }
  }
  // The whole loader on the text as a bundle's manifest.
  FILE* f = std::fopen((scratch() + "/manifest.json").c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  try {
    xj::loadManifest(scratch());
  } catch (const std::runtime_error&) {
  }
  return 0;
}
