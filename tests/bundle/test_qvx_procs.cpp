// Two processes open the same new container at the same moment: both must
// succeed, and no member may ever be seen half-written under its final name.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bundle/xj_qvx.h"
#include "qvx_testutil.h"
#include "xj_testutil.h"

namespace {

struct Child {
  pid_t pid = -1;
  int errFd = -1;  // the child's stderr
  std::string err;
  int status = 0;
  bool done = false;
};

// Opens the container once the gate opens, then reads every member back at
// once and compares it byte for byte. Exit 0 when all is well.
[[noreturn]] void childMain(int gate, const std::string& c, const std::string& dir,
                            const std::map<std::string, std::string>& want) {
  char b;
  while (read(gate, &b, 1) > 0) {
  }
  std::string got;
  try {
    got = xj::resolveBundlePath(c);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "FAILED: %s\n", e.what());
    _exit(2);
  }
  if (got != dir) {
    std::fprintf(stderr, "FAILED: resolved to %s\n", got.c_str());
    _exit(3);
  }
  for (const auto& m : want) {
    std::string bytes;
    try {
      bytes = xjtest::readFile(dir + "/" + m.first);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "FAILED: %s\n", e.what());
      _exit(4);
    }
    if (bytes != m.second) {
      std::fprintf(stderr, "FAILED: %s holds %zu of %zu bytes, or other bytes\n", m.first.c_str(), bytes.size(),
                   m.second.size());
      _exit(5);
    }
  }
  _exit(0);
}

void drain(Child& ch) {
  char buf[4096];
  ssize_t k;
  while ((k = read(ch.errFd, buf, sizeof buf)) > 0) ch.err.append(buf, static_cast<size_t>(k));
}

}  // namespace

TEST(QvxProcesses, TwoOpenTheSameNewContainerAtOnce) {
  const bool shortRun = std::getenv("XJ_TEST_SHORT") != nullptr;
  const int rounds = shortRun ? 2 : 5;
  std::mt19937 rng(99);
  // Many small members and one that takes several copies of the buffer: the
  // two processes overlap in every phase of the unwrap.
  std::vector<qvxtest::Member> members;
  for (int m = 0; m < 60; ++m) {
    std::string s(1000 + 37 * m, '\0');
    for (char& ch : s) ch = static_cast<char>(rng() & 0xFF);
    members.push_back({"s" + std::to_string(m % 4) + "/m" + std::to_string(m), s});
  }
  std::string big((8u << 20) + 4099, '\0');
  for (size_t k = 0; k < big.size(); k += 4096) big[k] = static_cast<char>(rng() & 0xFF);
  members.push_back({"big.bin", big});
  std::map<std::string, std::string> want;
  for (const auto& m : members) want[m.name] = m.payload;
  const std::string bytes = qvxtest::container(members);

  for (int round = 0; round < rounds; ++round) {
    xjtest::TempDir tmp;
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
    const std::string c = tmp / "same.qvx";
    const std::string dir = tmp / "same.xjbundle";
    xjtest::writeFile(c, bytes);

    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::fflush(nullptr);
    Child kids[2];
    for (Child& ch : kids) {
      int errPipe[2];
      ASSERT_EQ(pipe(errPipe), 0);
      ch.pid = fork();
      ASSERT_GE(ch.pid, 0);
      if (ch.pid == 0) {
        close(gate[1]);
        close(errPipe[0]);
        dup2(errPipe[1], 2);
        childMain(gate[0], c, dir, want);
      }
      close(errPipe[1]);
      ch.errFd = errPipe[0];
      fcntl(ch.errFd, F_SETFL, O_NONBLOCK);
    }
    close(gate[0]);
    close(gate[1]);  // both children start now

    // Meanwhile this process watches the directory: a member under its final
    // name must always be whole. A member is appended to as it is copied, so
    // a torn one shows in its size; the bytes are compared at first sight.
    std::vector<std::string> torn;
    std::map<std::string, bool> verified;
    int looks = 0;
    while (!(kids[0].done && kids[1].done)) {
      for (const auto& m : want) {
        const std::string path = dir + "/" + m.first;
        const int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0) continue;
        struct stat st {};
        fstat(fd, &st);
        ++looks;
        if (static_cast<size_t>(st.st_size) != m.second.size()) {
          torn.push_back(m.first + ": " + std::to_string(st.st_size) + " of " + std::to_string(m.second.size()));
        } else if (!verified[m.first]) {
          std::string got(m.second.size(), '\0');
          size_t at = 0;
          ssize_t k;
          while (at < got.size() && (k = read(fd, &got[at], got.size() - at)) > 0) at += static_cast<size_t>(k);
          if (got != m.second) torn.push_back(m.first + ": other bytes");
          verified[m.first] = true;
        }
        close(fd);
      }
      for (Child& ch : kids) {
        drain(ch);
        if (!ch.done && waitpid(ch.pid, &ch.status, WNOHANG) == ch.pid) ch.done = true;
      }
    }
    for (Child& ch : kids) {
      fcntl(ch.errFd, F_SETFL, 0);
      drain(ch);
      close(ch.errFd);
      EXPECT_TRUE(WIFEXITED(ch.status) && WEXITSTATUS(ch.status) == 0)
          << "round " << round << ": child " << ch.pid << " status " << ch.status << ": " << ch.err;
    }
    EXPECT_TRUE(torn.empty()) << "round " << round << ": " << torn.front();
    EXPECT_GT(looks, 0);
    // One of the two unwrapped, the other found the finished directory.
    const std::string line = "[xj] unwrapped " + c + " -> " + dir + "\n";
    EXPECT_EQ(kids[0].err + kids[1].err, line) << "round " << round;
    EXPECT_EQ(qvxtest::treeFiles(dir), want);
  }
}
