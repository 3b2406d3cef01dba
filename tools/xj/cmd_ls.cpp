// xj ls FILE.qvx: the table of contents of a container, checked against the file.
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

#include "bundle/xj_qvx.h"
#include "xj_main.h"

namespace {

int run(int argc, char** argv);

const xjtool::Command kLs{"ls", "FILE.qvx",
                          "lists a container's members (name, offset, size) and their total; fails on a member "
                          "an unwrap would refuse",
                          run};
const xjtool::Registration kRegistered(kLs);

int run(int argc, char** argv) {
  if (argc != 2) return xjtool::usage(kLs);
  const std::string path = argv[1];
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return xjtool::fail(kLs, "no such file: " + path);
  const std::vector<xj::qvx::Entry> toc = xj::qvx::readToc(path);
  const uint64_t fileBytes = static_cast<uint64_t>(st.st_size);

  int width = 4;
  for (const auto& e : toc) width = std::max(width, static_cast<int>(e.name.size()));
  std::printf("%-*s  %14s  %14s\n", width, "name", "offset", "size");
  uint64_t total = 0;
  std::vector<std::string> problems;
  for (const auto& e : toc) {
    std::printf("%-*s  %14" PRIu64 "  %14" PRIu64 "\n", width, e.name.c_str(), e.offset, e.size);
    total += e.size;
    if (!xj::qvx::safeMemberName(e.name)) problems.push_back("unsafe member name '" + e.name + "'");
    else if (e.offset > fileBytes || e.size > fileBytes - e.offset)
      problems.push_back("member " + e.name + " runs past the end of the file (" + std::to_string(fileBytes) +
                         " bytes)");
  }
  std::printf("%zu members, %" PRIu64 " bytes in total\n", toc.size(), total);
  for (const std::string& p : problems) std::fprintf(stderr, "xj ls: %s: %s\n", path.c_str(), p.c_str());
  return problems.empty() ? 0 : 1;
}

}  // namespace
