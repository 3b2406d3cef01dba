// The QVX container: one plain file that holds every member of a bundle, and
// the resolution of the path a host names a bundle by.
//
// Version 2, little-endian throughout:
//   header  "QVX\0", u16 version (2), u16 count
//   TOC     count entries of u16 nameLen, name bytes, u64 offset, u64 size
//   payload wherever the TOC says; members are stored as they are.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace xj {

// The directory to read a bundle's members from. A plain bundle directory comes
// back as it is; so does a path that exists nowhere (the first member read then
// reports what is missing). A container, named with or without its ".qvx", is
// unwrapped once into a directory that later opens reuse.
std::string resolveBundlePath(const std::string& p);

// A non-empty path to a regular file (links followed) that opens and starts
// with the magic and version 2. Reads 8 bytes; never throws.
bool isQvxV2File(const std::string& path);

namespace qvx {

constexpr char kMagic[4] = {'Q', 'V', 'X', '\0'};
constexpr uint16_t kVersion = 2;
constexpr size_t kHeaderBytes = 8;
// A manifest member at most this long that carries kSyntheticTag is a
// placeholder a packer wrote, and is not materialised.
constexpr uint64_t kSyntheticMax = 4194304;
constexpr char kSyntheticTag[] = "_qvx_synthetic_manifest";

struct Entry {
  std::string name;
  uint64_t offset = 0;
  uint64_t size = 0;
};

// Header and table of contents of the container `c`, already open at its
// start. Throws the reader's refusals, each beginning with `c`.
std::vector<Entry> readToc(std::FILE* f, const std::string& c);
// The same, opening `c` itself ("cannot open container " + c).
std::vector<Entry> readToc(const std::string& c);

// Empty, led by '/' or '\', or holding ".." or a NUL byte: refused, so a
// member can never land outside its unwrap directory.
bool safeMemberName(const std::string& name);
// The payload is the placeholder manifest (the caller checks name and size).
bool isSyntheticManifest(const char* data, size_t n);

// Path helpers on strings; none of them touches the file system.
std::string rstripSlash(const std::string& s);  // trailing '/' off, "/" stays
std::string baseName(const std::string& s);
std::string dirName(const std::string& s);

// Packs every regular file below `dir` (links to files followed, names sorted)
// into the container `out`. The file is written under a temporary name in
// out's folder and renamed at the end, so `out` is either the whole container
// or untouched. Returns the table written. Throws with the reason.
std::vector<Entry> writeQvx(const std::string& dir, const std::string& out);

}  // namespace qvx
}  // namespace xj
