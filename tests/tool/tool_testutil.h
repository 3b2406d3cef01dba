// Running the `xj` tool and the ffmpeg command line from tests.
#pragma once
#include <string>
#include <vector>

// Set by CMake when the tool is built (-DXJ_BUILD_TOOLS=ON); without it the tests skip.
#ifndef XJ_TOOL_PATH
#define XJ_TOOL_PATH ""
#endif

namespace tooltest {

inline bool haveTool() { return XJ_TOOL_PATH[0] != '\0'; }

struct Run {
  int status = -1;  // exit code
  std::string out, err;
};

// Runs the shell command cmd with stdout and stderr captured through files in scratch.
Run shell(const std::string& cmd, const std::string& scratch);
// The tool with arguments (each quoted).
Run xj(const std::vector<std::string>& args, const std::string& scratch);
std::string quote(const std::string& s);
// Names in a folder, "." and ".." left out, sorted.
std::vector<std::string> listDir(const std::string& dir);

}  // namespace tooltest
