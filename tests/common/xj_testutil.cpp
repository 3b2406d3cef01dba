#include "xj_testutil.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace xjtest {

std::string fixturesDir() {
  const char* e = std::getenv("XJ_FIXTURES_DIR");
  return (e && *e) ? e : XJ_FIXTURES_DIR;
}

std::string fixture(const std::string& name) { return fixturesDir() + "/" + name; }

TempDir::TempDir() {
  const char* t = std::getenv("TMPDIR");
  std::string tmpl = std::string((t && *t) ? t : "/tmp") + "/xjtest.XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() { removeTree(path_); }

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw std::runtime_error("test: cannot open " + path);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  if (!f) throw std::runtime_error("test: cannot write " + path);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void copyTree(const std::string& from, const std::string& to) {
  mkdir(to.c_str(), 0755);
  DIR* d = opendir(from.c_str());
  if (!d) throw std::runtime_error("test: cannot list " + from);
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n == "." || n == "..") continue;
    struct stat st {};
    if (stat((from + "/" + n).c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) copyTree(from + "/" + n, to + "/" + n);
    else writeFile(to + "/" + n, readFile(from + "/" + n));
  }
  closedir(d);
}

void removeTree(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* d = opendir(path.c_str())) {
      while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") removeTree(path + "/" + n);
      }
      closedir(d);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* o = std::getenv(name)) {
    had_ = true;
    old_ = o;
  }
  if (value) setenv(name, value, 1);
  else unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_) setenv(name_.c_str(), old_.c_str(), 1);
  else unsetenv(name_.c_str());
}

std::string captureStderr(void (*fn)(void*), void* arg, int* status) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
  std::fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], 2);
    fn(arg);
    std::fflush(stderr);
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[4096];
  ssize_t k;
  while ((k = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(k));
  close(fds[0]);
  int st = 0;
  waitpid(pid, &st, 0);
  if (status) *status = st;
  return out;
}

}  // namespace xjtest
