#include "qvx_testutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "xj_testutil.h"

namespace qvxtest {

std::string le16(uint16_t v) { return std::string{static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)}; }

std::string le64(uint64_t v) {
  std::string s;
  for (int k = 0; k < 8; ++k) s.push_back(static_cast<char>((v >> (8 * k)) & 0xFF));
  return s;
}

std::string header(uint16_t version, uint16_t count) {
  return std::string("QVX\0", 4) + le16(version) + le16(count);
}

std::string tocEntry(const std::string& name, uint64_t offset, uint64_t size) {
  return le16(static_cast<uint16_t>(name.size())) + name + le64(offset) + le64(size);
}

std::string container(const std::vector<Member>& members) {
  uint64_t offset = 8;
  for (const Member& m : members) offset += 2 + m.name.size() + 16;
  std::string toc, payload;
  for (const Member& m : members) {
    toc += tocEntry(m.name, offset + payload.size(), m.payload.size());
    payload += m.payload;
  }
  return header(2, static_cast<uint16_t>(members.size())) + toc + payload;
}

namespace {

void walk(const std::string& dir, const std::string& rel, std::map<std::string, std::string>* files,
          std::vector<std::string>* entries) {
  DIR* d = opendir(dir.c_str());
  if (!d) throw std::runtime_error("test: cannot list " + dir);
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  for (const std::string& n : names) {
    const std::string path = dir + "/" + n;
    const std::string r = rel.empty() ? n : rel + "/" + n;
    if (entries) entries->push_back(r);
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) walk(path, r, files, entries);
    else if (files && S_ISREG(st.st_mode)) (*files)[r] = xjtest::readFile(path);
  }
}

}  // namespace

std::map<std::string, std::string> treeFiles(const std::string& dir) {
  std::map<std::string, std::string> files;
  walk(dir, "", &files, nullptr);
  return files;
}

std::vector<std::string> treeEntries(const std::string& dir) {
  std::vector<std::string> entries;
  walk(dir, "", nullptr, &entries);
  std::sort(entries.begin(), entries.end());
  return entries;
}

bool exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

bool isDir(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

Run runProgram(const std::vector<std::string>& argv) {
  int outPipe[2], errPipe[2];
  if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("test: pipe failed");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    close(outPipe[0]);
    close(errPipe[0]);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  Run r;
  // Drain both pipes at once, so neither side can fill up and stall the child.
  std::thread errReader([&] {
    char buf[4096];
    ssize_t k;
    while ((k = read(errPipe[0], buf, sizeof buf)) > 0) r.err.append(buf, static_cast<size_t>(k));
  });
  char buf[4096];
  ssize_t k;
  while ((k = read(outPipe[0], buf, sizeof buf)) > 0) r.out.append(buf, static_cast<size_t>(k));
  errReader.join();
  close(outPipe[0]);
  close(errPipe[0]);
  int st = 0;
  waitpid(pid, &st, 0);
  r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

std::string stderrHere(const std::function<void()>& fn) {
  xjtest::TempDir tmp;
  const std::string path = tmp / "stderr";
  std::fflush(stderr);
  const int saved = dup(2);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(fd, 2);
  close(fd);
  auto restore = [&] {
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
  };
  try {
    fn();
  } catch (...) {
    restore();
    throw;
  }
  restore();
  return xjtest::readFile(path);
}

std::string errorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

void setMtime(const std::string& path, int64_t sec, long nsec) {
  struct timespec ts[2];
  ts[0].tv_sec = static_cast<time_t>(sec);
  ts[0].tv_nsec = nsec;
  ts[1] = ts[0];
  if (utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW) != 0) throw std::runtime_error("test: utimensat");
}

}  // namespace qvxtest
