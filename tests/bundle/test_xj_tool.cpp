// The `xj` tool's pack and ls, run as the separate program they are.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bundle/xj_qvx.h"
#include "qvx_testutil.h"
#include "xj_testutil.h"

namespace {

#ifdef XJ_TOOL_PATH
const char* const kTool = XJ_TOOL_PATH;
#else
const char* const kTool = nullptr;
#endif

qvxtest::Run tool(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kTool};
  argv.insert(argv.end(), args.begin(), args.end());
  return qvxtest::runProgram(argv);
}

// Entries of a folder: a failed command must leave neither its output nor a
// temporary file behind.
std::vector<std::string> entries(const std::string& dir) { return qvxtest::treeEntries(dir); }

class Tool : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!kTool) GTEST_SKIP() << "built without the xj tool";
  }
};

}  // namespace

TEST_F(Tool, PackThenUnwrapGivesTheFolderBack) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "u").c_str());
  for (const char* name : {"basic", "canonical", "video"}) {
    const std::string src = xjtest::fixture(name);
    const std::string out = tmp / (std::string(name) + ".qvx");
    const qvxtest::Run r = tool({"pack", src, out});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const auto files = qvxtest::treeFiles(src);
    uint64_t bytes = 0;
    for (const auto& f : files) bytes += f.second.size();
    EXPECT_EQ(r.out, "packed " + std::to_string(files.size()) + " members, " + std::to_string(bytes) +
                         " bytes of payload, into " + out + "\n");
    EXPECT_EQ(qvxtest::treeFiles(xj::resolveBundlePath(out)), files) << name;
  }
}

// The listing against an independent reading of the file: the table, then
// each payload found at its offset.
TEST_F(Tool, LsListsTheTable) {
  xjtest::TempDir tmp;
  const std::string src = xjtest::fixture("basic");
  ASSERT_EQ(tool({"pack", src, tmp / "b.qvx"}).code, 0);
  const qvxtest::Run r = tool({"ls", tmp / "b.qvx"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");

  const std::string bytes = xjtest::readFile(tmp / "b.qvx");
  const auto files = qvxtest::treeFiles(src);
  std::istringstream lines(r.out);
  std::string line;
  std::getline(lines, line);
  std::istringstream head(line);
  std::string h1, h2, h3;
  head >> h1 >> h2 >> h3;
  EXPECT_EQ(h1 + " " + h2 + " " + h3, "name offset size");
  std::vector<std::string> names;
  uint64_t total = 0;
  while (std::getline(lines, line)) {
    std::istringstream row(line);
    std::string name;
    uint64_t offset = 0, size = 0;
    if (!(row >> name >> offset >> size)) break;
    names.push_back(name);
    total += size;
    ASSERT_TRUE(files.count(name)) << name;
    EXPECT_EQ(bytes.substr(offset, size), files.at(name)) << name;
  }
  std::vector<std::string> want;
  for (const auto& f : files) want.push_back(f.first);
  EXPECT_EQ(names, want);  // every file, in byte order of the names
  EXPECT_EQ(line, std::to_string(files.size()) + " members, " + std::to_string(total) + " bytes in total");
  EXPECT_FALSE(std::getline(lines, line));
}

TEST_F(Tool, LsRefusals) {
  xjtest::TempDir tmp;
  const std::string c = tmp / "c.qvx";
  struct Case {
    const char* name;
    std::string bytes;
    std::string err;
  };
  const std::vector<Case> cases = {
      {"not a container", "hello", "xj ls: " + c + ": not an QVX\\0 container\n"},
      {"version 3", qvxtest::header(3, 0), "xj ls: " + c + ": unsupported QVX container version 3\n"},
      {"short table", qvxtest::header(2, 1) + qvxtest::le16(4) + "ab",
       "xj ls: " + c + ": truncated member name at 0\n"},
      {"past the end", qvxtest::header(2, 1) + qvxtest::tocEntry("m", 30, 2),
       "xj ls: " + c + ": member m runs past the end of the file (27 bytes)\n"},
      {"unsafe", qvxtest::header(2, 1) + qvxtest::tocEntry("../m", 0, 2),
       "xj ls: " + c + ": unsafe member name '../m'\n"},
  };
  for (const Case& k : cases) {
    xjtest::writeFile(c, k.bytes);
    const qvxtest::Run r = tool({"ls", c});
    EXPECT_EQ(r.code, 1) << k.name;
    EXPECT_EQ(r.err, k.err) << k.name;
  }
  const qvxtest::Run missing = tool({"ls", tmp / "none.qvx"});
  EXPECT_EQ(missing.code, 1);
  EXPECT_EQ(missing.err, "xj ls: no such file: " + tmp / "none.qvx" + "\n");
}

TEST_F(Tool, PackFailuresLeaveNoOutput) {
  xjtest::TempDir tmp;
  ASSERT_EQ(mkdir((tmp / "bundle").c_str(), 0755), 0);
  xjtest::writeFile(tmp / "bundle/manifest.json", "{}");
  ASSERT_EQ(mkdir((tmp / "out").c_str(), 0755), 0);
  struct Case {
    const char* name;
    std::function<void()> prepare;
    std::vector<std::string> args;
    int code;
    std::string err;
  };
  const std::string out = tmp / "out/b.qvx";
  const std::vector<Case> cases = {
      {"no such folder", [] {}, {"pack", tmp / "none", out}, 1, "xj pack: not a bundle folder: " + tmp / "none\n"},
      {"a file, not a folder", [] {}, {"pack", tmp / "bundle/manifest.json", out}, 1,
       "xj pack: not a bundle folder: " + tmp / "bundle/manifest.json\n"},
      {"unsafe name", [&] { xjtest::writeFile(tmp / "bundle/a..b", "x"); },
       {"pack", tmp / "bundle", out}, 1,
       "xj pack: cannot pack " + tmp / "bundle/a..b" + ": 'a..b' is not a safe member name\n"},
      {"link to nowhere",
       [&] {
         unlink((tmp / "bundle/a..b").c_str());
         symlink((tmp / "gone").c_str(), (tmp / "bundle/dangling").c_str());
       },
       {"pack", tmp / "bundle", out}, 1, "xj pack: cannot pack " + tmp / "bundle/dangling" + ": the link leads nowhere\n"},
      {"output folder missing", [&] { unlink((tmp / "bundle/dangling").c_str()); },
       {"pack", tmp / "bundle", tmp / "out/no/b.qvx"}, 1, "xj pack: cannot write " + tmp / "out/no/b.qvx" + "\n"},
      {"too few arguments", [] {}, {"pack", tmp / "bundle"}, 2, "usage: xj pack DIR OUT.qvx\n"},
      {"too many arguments", [] {}, {"pack", tmp / "bundle", out, "x"}, 2, "usage: xj pack DIR OUT.qvx\n"},
      {"ls without a file", [] {}, {"ls"}, 2, "usage: xj ls FILE.qvx\n"},
      {"unknown command", [] {}, {"unpack", out}, 2, "xj: unknown command 'unpack' (xj help lists them)\n"},
  };
  for (const Case& k : cases) {
    k.prepare();
    const qvxtest::Run r = tool(k.args);
    EXPECT_EQ(r.code, k.code) << k.name;
    EXPECT_EQ(r.err, k.err) << k.name;
    EXPECT_EQ(r.out, "") << k.name;
    EXPECT_EQ(entries(tmp / "out"), std::vector<std::string>{}) << k.name;
  }
  // An existing container stays as it was when a new pack fails.
  xjtest::writeFile(out, "previous");
  xjtest::writeFile(tmp / "bundle/x..y", "x");
  EXPECT_EQ(tool({"pack", tmp / "bundle", out}).code, 1);
  EXPECT_EQ(xjtest::readFile(out), "previous");
  EXPECT_EQ(entries(tmp / "out"), std::vector<std::string>{"b.qvx"});
}

TEST_F(Tool, PackingIntoTheBundleLeavesTheContainerOut) {
  xjtest::TempDir tmp;
  xjtest::copyTree(xjtest::fixture("basic"), tmp / "b");
  const auto files = qvxtest::treeFiles(tmp / "b");
  // Twice: the second run must not take in the container of the first.
  for (int k = 0; k < 2; ++k) {
    ASSERT_EQ(tool({"pack", tmp / "b", tmp / "b/self.qvx"}).code, 0);
    std::vector<std::string> names;
    for (const auto& e : xj::qvx::readToc(tmp / "b/self.qvx")) names.push_back(e.name);
    std::vector<std::string> want;
    for (const auto& f : files) want.push_back(f.first);
    EXPECT_EQ(names, want);
  }
}

TEST_F(Tool, HelpListsTheCommands) {
  const qvxtest::Run r = tool({"help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.out.find("  ls FILE.qvx\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  pack DIR OUT.qvx\n"), std::string::npos) << r.out;
  EXPECT_LT(r.out.find("  ls "), r.out.find("  pack "));
  const qvxtest::Run none = tool({});
  EXPECT_EQ(none.code, 2);
  EXPECT_EQ(none.err, r.out);
}
