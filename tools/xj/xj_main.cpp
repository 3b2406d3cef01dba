// xj: the command-line face of libxj_core. `xj <command> ...`; `xj help` lists them.
#include "xj_main.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

namespace xjtool {

namespace {

std::vector<Command>& commands() {
  static std::vector<Command> all;
  return all;
}

void listCommands(std::FILE* to) {
  std::vector<Command> all = commands();
  std::sort(all.begin(), all.end(), [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
  std::fprintf(to, "usage: xj <command> [arguments]\n\ncommands:\n");
  for (const Command& c : all) std::fprintf(to, "  %s %s\n      %s\n", c.name, c.args, c.summary);
}

}  // namespace

Registration::Registration(const Command& c) { commands().push_back(c); }

int usage(const Command& c) {
  std::fprintf(stderr, "usage: xj %s %s\n", c.name, c.args);
  return 2;
}

int fail(const Command& c, const std::string& what) {
  std::fprintf(stderr, "xj %s: %s\n", c.name, what.c_str());
  return 1;
}

}  // namespace xjtool

int main(int argc, char** argv) {
  using xjtool::Command;
  if (argc < 2) {
    xjtool::listCommands(stderr);
    return 2;
  }
  const char* name = argv[1];
  if (!std::strcmp(name, "help") || !std::strcmp(name, "--help") || !std::strcmp(name, "-h")) {
    xjtool::listCommands(stdout);
    return 0;
  }
  for (const Command& c : xjtool::commands()) {
    if (std::strcmp(c.name, name) != 0) continue;
    try {
      return c.run(argc - 1, argv + 1);
    } catch (const std::exception& e) {
      return xjtool::fail(c, e.what());
    }
  }
  std::fprintf(stderr, "xj: unknown command '%s' (xj help lists them)\n", name);
  return 2;
}
