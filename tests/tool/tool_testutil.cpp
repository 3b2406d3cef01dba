#include "tool_testutil.h"

#include <dirent.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>

#include "xj_testutil.h"

namespace tooltest {

std::string quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

Run shell(const std::string& cmd, const std::string& scratch) {
  const std::string out = scratch + "/.stdout", err = scratch + "/.stderr";
  const int raw = std::system((cmd + " >" + quote(out) + " 2>" + quote(err)).c_str());
  Run r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = xjtest::readFile(out);
  r.err = xjtest::readFile(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
}

Run xj(const std::vector<std::string>& args, const std::string& scratch) {
  std::string cmd = quote(XJ_TOOL_PATH);
  for (const std::string& a : args) cmd += " " + quote(a);
  return shell(cmd, scratch);
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string n = e->d_name;
      if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace tooltest
