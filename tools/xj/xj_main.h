// The subcommands of the `xj` tool. Each lives in a cmd_<name>.cpp of its own
// and registers itself at start-up, so a new one needs no edit here.
#pragma once
#include <string>

namespace xjtool {

struct Command {
  const char* name;
  const char* args;     // the arguments, as shown in the usage line
  const char* summary;  // one line for `xj help`
  // argv[0] is the subcommand's name. 0 on success, 1 on failure, 2 on bad usage.
  int (*run)(int argc, char** argv);
};

// Registers a subcommand; a static object of each cmd_<name>.cpp makes one.
struct Registration {
  explicit Registration(const Command& c);
};

// "usage: xj <name> <args>" on stderr; returns 2.
int usage(const Command& c);
// "xj <name>: <what>" on stderr; returns 1.
int fail(const Command& c, const std::string& what);

}  // namespace xjtool
