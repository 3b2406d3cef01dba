// xj pack DIR OUT.qvx: a bundle folder into one container file.
#include <cinttypes>
#include <cstdio>

#include "bundle/xj_qvx.h"
#include "xj_main.h"

namespace {

int run(int argc, char** argv);

const xjtool::Command kPack{"pack", "DIR OUT.qvx",
                            "packs every file below the bundle folder DIR into the container OUT.qvx", run};
const xjtool::Registration kRegistered(kPack);

int run(int argc, char** argv) {
  if (argc != 3) return xjtool::usage(kPack);
  // The writer builds the container under a temporary name beside OUT and
  // renames it at the end: a failure leaves no partial OUT behind.
  const auto toc = xj::qvx::writeQvx(argv[1], argv[2]);
  uint64_t bytes = 0;
  for (const auto& e : toc) bytes += e.size;
  std::printf("packed %zu members, %" PRIu64 " bytes of payload, into %s\n", toc.size(), bytes, argv[2]);
  return 0;
}

}  // namespace
