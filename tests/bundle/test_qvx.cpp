// The QVX container: header and table, path resolution, the unwrap directory
// and its marker, and every refusal of the unwrap, word for word.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bundle/xj_expand.h"
#include "bundle/xj_qvx.h"
#include "qvx_testutil.h"
#include "xj_testutil.h"

using qvxtest::container;
using qvxtest::header;
using qvxtest::le16;
using qvxtest::le64;
using qvxtest::Member;
using qvxtest::tocEntry;

namespace {

std::string randomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

// The marker line, formatted here from lstat of the container.
std::string expectedMarker(const std::string& c, const std::string& base) {
  struct stat st {};
  EXPECT_EQ(lstat(c.c_str(), &st), 0);
  const long long ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  return "qvx-unwrapped.v2 " + base + " " + std::to_string(static_cast<long long>(st.st_size)) + " " +
         std::to_string(ns) + " " + std::to_string(static_cast<unsigned long long>(st.st_ino));
}

std::string unwrapLine(const std::string& c, const std::string& out) {
  return "[xj] unwrapped " + c + " -> " + out + "\n";
}

}  // namespace

TEST(QvxPaths, Helpers) {
  struct Case {
    std::string in, strip, base, dir;
  };
  const std::vector<Case> cases = {
      {"", "", "", "."},
      {"/", "/", "", "/"},
      {"///", "/", "", "/"},
      {"a", "a", "a", "."},
      {"a/", "a", "a", "."},
      {"/a", "/a", "a", "/"},
      {"/a//", "/a", "a", "/"},
      {"a/b", "a/b", "b", "a"},
      {"a/b/c.qvx/", "a/b/c.qvx", "c.qvx", "a/b"},
      {"a//b", "a//b", "b", "a/"},
      {"./x", "./x", "x", "."},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(xj::qvx::rstripSlash(c.in), c.strip) << "'" << c.in << "'";
    EXPECT_EQ(xj::qvx::baseName(c.in), c.base) << "'" << c.in << "'";
    EXPECT_EQ(xj::qvx::dirName(c.in), c.dir) << "'" << c.in << "'";
  }
}

TEST(QvxPaths, UnwrapDirectoryNames) {
  struct Case {
    const char* root;  // XJ_QVX_UNWRAP_ROOT, nullptr: unset
    std::string container, dir;
  };
  const std::vector<Case> cases = {
      {nullptr, "/d/a.qvx", "/d/a.xjbundle"},
      {nullptr, "/d/a.xjbundle.qvx", "/d/a.xjbundle"},
      {nullptr, "/d/a", "/d/a.xjbundle"},
      {nullptr, "/d/a.xjbundle", "/d/a.xjbundle"},
      {nullptr, "/d/a.qvx.qvx", "/d/a.qvx.xjbundle"},
      {nullptr, "a.qvx", "./a.xjbundle"},
      {nullptr, "/a.qvx", "//a.xjbundle"},
      {nullptr, "/d/.qvx", "/d/.xjbundle"},
      {"", "/d/a.qvx", "/d/a.xjbundle"},
      {"/r", "/d/a.qvx", "/r/a.xjbundle"},
      {"/r//", "/d/a.qvx", "/r/a.xjbundle"},
      {"rel", "/d/a.bin", "rel/a.bin.xjbundle"},
  };
  for (const Case& c : cases) {
    xjtest::ScopedEnv env("XJ_QVX_UNWRAP_ROOT", c.root);
    EXPECT_EQ(xj::qvx::unwrapDir(c.container), c.dir) << c.container << " root " << (c.root ? c.root : "unset");
    EXPECT_EQ(xj::qvx::markerPath(c.dir), c.dir + ".qvx_unwrapped");
  }
}

TEST(QvxFormat, MemberNameSafety) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"manifest.json", true}, {"a/b/c.bin", true},       {"a.b", true},  {".hidden", true},
      {"a\\b", true},          {"", false},               {"/x", false},  {"\\x", false},
      {"../x", false},         {"x/../y", false},         {"a..b", false}, {"..", false},
      {"x/..", false},         {std::string("a\0b", 3), false},
  };
  for (const auto& c : cases) EXPECT_EQ(xj::qvx::safeMemberName(c.first), c.second) << c.first;
}

TEST(QvxFormat, IsQvxV2File) {
  xjtest::TempDir tmp;
  const std::string good = container({{"a", "x"}});
  struct Case {
    const char* name;
    std::string bytes;
    bool expected;
  };
  const std::vector<Case> cases = {
      {"good", good, true},
      {"header only", header(2, 0), true},
      {"seven bytes", header(2, 0).substr(0, 7), false},
      {"empty", "", false},
      {"version 1", header(1, 0), false},
      {"version 3", header(3, 0), false},
      {"version 0x0102", header(0x0102, 0), false},
      {"no NUL", std::string("QVXX") + le16(2) + le16(0), false},
      {"lower case", std::string("qvx\0", 4) + le16(2) + le16(0), false},
  };
  for (const Case& c : cases) {
    xjtest::writeFile(tmp / c.name, c.bytes);
    EXPECT_EQ(xj::isQvxV2File(tmp / c.name), c.expected) << c.name;
  }
  ASSERT_EQ(symlink((tmp / "good").c_str(), (tmp / "link").c_str()), 0);
  EXPECT_TRUE(xj::isQvxV2File(tmp / "link"));
  ASSERT_EQ(symlink((tmp / "gone").c_str(), (tmp / "dangling").c_str()), 0);
  EXPECT_FALSE(xj::isQvxV2File(tmp / "dangling"));
  ASSERT_EQ(mkdir((tmp / "dir.qvx").c_str(), 0755), 0);
  EXPECT_FALSE(xj::isQvxV2File(tmp / "dir.qvx"));
  EXPECT_FALSE(xj::isQvxV2File(tmp / "missing"));
  EXPECT_FALSE(xj::isQvxV2File(""));
}

// ---- unwrap ----------------------------------------------------------------------

TEST(QvxUnwrap, MaterialisesEveryMemberAndTheMarker) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "root").c_str());
  // Larger than the copy buffer, so the copy goes round more than once.
  const std::string big = randomBytes(8388608 + 3, 1);
  std::vector<Member> members = {
      {"manifest.json", "{\"format\": \"xj-bundle-v0\"}"},
      {"a/b/c.bin", randomBytes(1000, 2)},
      {"empty", ""},
      {"big.f16", big},
      {"a/side", "s"},
  };
  // Two more members reuse stored bytes: the header itself, and a slice of big.
  std::string toc, payload;
  uint64_t at = 8 + (2 + 4 + 16) + (2 + 5 + 16);
  for (const Member& m : members) at += 2 + m.name.size() + 16;
  uint64_t bigAt = 0;
  for (const Member& m : members) {
    if (m.name == "big.f16") bigAt = at + payload.size();
    toc += tocEntry(m.name, at + payload.size(), m.payload.size());
    payload += m.payload;
  }
  toc += tocEntry("head", 0, 8) + tocEntry("slice", bigAt + 100, 50);
  const std::string bytes = header(2, 7) + toc + payload;
  const std::string c = tmp / "bundle.qvx";
  xjtest::writeFile(c, bytes);

  std::string out;
  const std::string err = qvxtest::stderrHere([&] { out = xj::resolveBundlePath(c); });
  const std::string dir = tmp / "root/bundle.xjbundle";
  EXPECT_EQ(out, dir);
  EXPECT_EQ(err, unwrapLine(c, dir));

  std::map<std::string, std::string> want;
  for (const Member& m : members) want[m.name] = m.payload;
  want["head"] = header(2, 7);
  want["slice"] = big.substr(100, 50);
  EXPECT_EQ(qvxtest::treeFiles(dir), want);
  EXPECT_EQ(qvxtest::treeEntries(dir),
            (std::vector<std::string>{"a", "a/b", "a/b/c.bin", "a/side", "big.f16", "empty", "head",
                                      "manifest.json", "slice"}));
  EXPECT_EQ(xjtest::readFile(dir + ".qvx_unwrapped"), expectedMarker(c, "bundle.qvx"));
  struct stat st {};
  ASSERT_EQ(stat((dir + "/a/b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0755u);
}

TEST(QvxUnwrap, UnchangedContainerIsReusedAndATouchedOneRebuilt) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
  const std::string c = tmp / "a.qvx";
  const std::string dir = tmp / "a.xjbundle";
  xjtest::writeFile(c, container({{"m", "one"}}));
  qvxtest::setMtime(c, 1700000000, 123456789);
  EXPECT_EQ(qvxtest::stderrHere([&] { EXPECT_EQ(xj::resolveBundlePath(c), dir); }), unwrapLine(c, dir));
  EXPECT_EQ(xjtest::readFile(dir + ".qvx_unwrapped"),
            "qvx-unwrapped.v2 a.qvx " + std::to_string(xjtest::readFile(c).size()) + " 1700000000123456789 " +
                std::to_string(static_cast<unsigned long long>([&] {
                  struct stat st {};
                  lstat(c.c_str(), &st);
                  return st.st_ino;
                }())));

  // A file placed in the directory survives only while nothing is rebuilt.
  xjtest::writeFile(dir + "/placed", "p");
  for (int k = 0; k < 2; ++k) {
    EXPECT_EQ(qvxtest::stderrHere([&] { EXPECT_EQ(xj::resolveBundlePath(c), dir); }), "");
    EXPECT_TRUE(qvxtest::exists(dir + "/placed"));
  }
  // Blanks around the marker's line don't matter.
  xjtest::writeFile(dir + ".qvx_unwrapped", " \t\r\n" + expectedMarker(c, "a.qvx") + "\n\n \t");
  EXPECT_EQ(qvxtest::stderrHere([&] { xj::resolveBundlePath(c); }), "");
  EXPECT_TRUE(qvxtest::exists(dir + "/placed"));

  // A new modification time (one nanosecond) rebuilds; so does a new size with the same time.
  qvxtest::setMtime(c, 1700000000, 123456790);
  EXPECT_EQ(qvxtest::stderrHere([&] { xj::resolveBundlePath(c); }), unwrapLine(c, dir));
  EXPECT_FALSE(qvxtest::exists(dir + "/placed"));
  EXPECT_EQ(xjtest::readFile(dir + "/m"), "one");

  xjtest::writeFile(c, container({{"m", "two!"}}));
  qvxtest::setMtime(c, 1700000000, 123456790);
  EXPECT_EQ(qvxtest::stderrHere([&] { xj::resolveBundlePath(c); }), unwrapLine(c, dir));
  EXPECT_EQ(xjtest::readFile(dir + "/m"), "two!");
}

TEST(QvxUnwrap, MarkerStatesThatRebuild) {
  struct Case {
    const char* name;
    std::function<void(const std::string& dir, const std::string& marker)> spoil;
  };
  const std::vector<Case> cases = {
      {"marker removed", [](const std::string&, const std::string& m) { unlink(m.c_str()); }},
      {"marker blank", [](const std::string&, const std::string& m) { xjtest::writeFile(m, " \n\t "); }},
      {"marker empty", [](const std::string&, const std::string& m) { xjtest::writeFile(m, ""); }},
      {"other name",
       [](const std::string&, const std::string& m) {
         std::string t = xjtest::readFile(m);
         t.replace(t.find("c.qvx"), 5, "d.qvx");
         xjtest::writeFile(m, t);
       }},
      {"other inode",
       [](const std::string&, const std::string& m) { xjtest::writeFile(m, xjtest::readFile(m) + "0"); }},
      {"older version",
       [](const std::string&, const std::string& m) {
         std::string t = xjtest::readFile(m);
         t[t.find("v2")] = 'x';
         xjtest::writeFile(m, t);
       }},
      {"directory gone", [](const std::string& d, const std::string&) { xjtest::removeTree(d); }},
  };
  for (const Case& k : cases) {
    xjtest::TempDir tmp;
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "r").c_str());
    const std::string c = tmp / "c.qvx";
    const std::string dir = tmp / "r/c.xjbundle";
    xjtest::writeFile(c, container({{"m", "payload"}}));
    xj::qvx::unwrapOnce(c);
    xjtest::writeFile(dir + "/placed", "p");
    k.spoil(dir, dir + ".qvx_unwrapped");
    EXPECT_EQ(qvxtest::stderrHere([&] { EXPECT_EQ(xj::qvx::unwrapOnce(c), dir); }), unwrapLine(c, dir)) << k.name;
    EXPECT_FALSE(qvxtest::exists(dir + "/placed")) << k.name;
    EXPECT_EQ(xjtest::readFile(dir + "/m"), "payload") << k.name;
    EXPECT_EQ(xjtest::readFile(dir + ".qvx_unwrapped"), expectedMarker(c, "c.qvx")) << k.name;
  }
}

TEST(QvxUnwrap, SyntheticManifestIsPassedOver) {
  const std::string tag = "_qvx_synthetic_manifest";
  auto sized = [&](size_t n, size_t tagAt) {
    std::string s(n, ' ');
    s.replace(tagAt, tag.size(), tag);
    return s;
  };
  struct Case {
    const char* name;
    std::string member, payload;
    bool materialised;
  };
  const std::vector<Case> cases = {
      {"small", "manifest.json", "{\"" + tag + "\": true}", false},
      {"tag alone", "manifest.json", tag, false},
      {"4 MiB, tag at the end", "manifest.json", sized(4194304, 4194304 - tag.size()), false},
      {"4 MiB + 1", "manifest.json", sized(4194305, 0), true},
      {"no tag", "manifest.json", "{\"format\": \"xj-bundle-v0\"}", true},
      {"partial tag", "manifest.json", tag.substr(0, tag.size() - 1), true},
      {"empty", "manifest.json", "", true},
      {"nested name", "sub/manifest.json", tag, true},
      {"other name", "manifest.json.bak", tag, true},
  };
  for (const Case& k : cases) {
    xjtest::TempDir tmp;
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
    const std::string c = tmp / "s.qvx";
    xjtest::writeFile(c, container({{"before", "b"}, {k.member, k.payload}, {"after", "a"}}));
    const std::string dir = xj::resolveBundlePath(c);
    std::map<std::string, std::string> want = {{"before", "b"}, {"after", "a"}};
    if (k.materialised) want[k.member] = k.payload;
    EXPECT_EQ(qvxtest::treeFiles(dir), want) << k.name;
    EXPECT_TRUE(qvxtest::exists(dir + ".qvx_unwrapped")) << k.name;
  }
}

TEST(QvxUnwrap, EmptyContainerGivesAnEmptyDirectoryAndAMarker) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
  xjtest::writeFile(tmp / "e.qvx", header(2, 0));
  const std::string dir = xj::resolveBundlePath(tmp / "e.qvx");
  EXPECT_EQ(dir, tmp / "e.xjbundle");
  EXPECT_TRUE(qvxtest::isDir(dir));
  EXPECT_TRUE(qvxtest::treeEntries(dir).empty());
  EXPECT_EQ(xjtest::readFile(dir + ".qvx_unwrapped"), expectedMarker(tmp / "e.qvx", "e.qvx"));
}

TEST(QvxUnwrap, MissingRootFoldersAreMade) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "x/y/z").c_str());
  xjtest::writeFile(tmp / "c.qvx", container({{"m", "1"}}));
  EXPECT_EQ(xj::resolveBundlePath(tmp / "c.qvx"), tmp / "x/y/z/c.xjbundle");
  EXPECT_EQ(xjtest::readFile(tmp / "x/y/z/c.xjbundle/m"), "1");
  EXPECT_TRUE(xj::qvx::mkdirs(tmp / "x/y/z"));
  EXPECT_TRUE(xj::qvx::mkdirs("/"));
  EXPECT_TRUE(xj::qvx::mkdirs("."));
  EXPECT_TRUE(xj::qvx::mkdirs(""));
  EXPECT_FALSE(xj::qvx::mkdirs(tmp / "c.qvx/sub"));
}

TEST(QvxUnwrap, RemovalNeverFollowsLinks) {
  xjtest::TempDir tmp;
  ASSERT_EQ(mkdir((tmp / "keep").c_str(), 0755), 0);
  xjtest::writeFile(tmp / "keep/file", "k");
  ASSERT_EQ(mkdir((tmp / "tree").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((tmp / "tree/sub").c_str(), 0755), 0);
  xjtest::writeFile(tmp / "tree/sub/f", "f");
  ASSERT_EQ(symlink((tmp / "keep").c_str(), (tmp / "tree/link").c_str()), 0);
  xj::qvx::rmTree(tmp / "tree");
  EXPECT_FALSE(qvxtest::exists(tmp / "tree"));
  EXPECT_EQ(xjtest::readFile(tmp / "keep/file"), "k");
  xj::qvx::rmTree(tmp / "absent");  // nothing to do, no failure
}

// Every refusal, word for word, and what stays on disk after it: complete
// members, maybe a ".part" file, never a marker.
TEST(QvxUnwrap, Refusals) {
  struct Case {
    const char* name;
    std::function<std::string()> bytes;
    // The expected text, given the container path and the unwrap directory.
    std::function<std::string(const std::string& c, const std::string& dir)> message;
    std::vector<std::string> onDisk;  // final members left in the directory
  };
  auto tail = [](const std::string& t) {
    return [t](const std::string& c, const std::string&) { return c + t; };
  };
  const std::string ok = tocEntry("ok", 0, 4);  // the magic as payload
  const std::vector<Case> cases = {
      {"empty file", [] { return std::string(); }, tail(": not an QVX\\0 container"), {}},
      {"short header", [] { return header(2, 0).substr(0, 5); }, tail(": not an QVX\\0 container"), {}},
      {"bad magic", [] { return std::string("QVY\0", 4) + le16(2) + le16(0); }, tail(": not an QVX\\0 container"),
       {}},
      {"version 1", [] { return header(1, 0); }, tail(": unsupported QVX container version 1"), {}},
      {"version 65535", [] { return header(65535, 0); }, tail(": unsupported QVX container version 65535"), {}},
      {"no table", [] { return header(2, 1); }, tail(": truncated TOC at member 0"), {}},
      {"table short at 1", [=] { return header(2, 2) + ok + "\x01"; }, tail(": truncated TOC at member 1"), {}},
      {"short name", [] { return header(2, 1) + le16(5) + "abc"; }, tail(": truncated member name at 0"), {}},
      {"short name at 2", [=] { return header(2, 3) + ok + ok + le16(1); }, tail(": truncated member name at 2"),
       {}},
      {"short offsets", [] { return header(2, 1) + le16(3) + "abc" + le64(0); },
       tail(": truncated TOC offsets at member abc"), {}},
      {"unsafe ..", [=] { return header(2, 2) + ok + tocEntry("../x", 0, 4); },
       tail(": refusing unsafe member name '../x'"), {"ok"}},
      {"unsafe /", [=] { return header(2, 2) + ok + tocEntry("/x", 0, 4); },
       tail(": refusing unsafe member name '/x'"), {"ok"}},
      {"unsafe \\", [=] { return header(2, 2) + ok + tocEntry("\\x", 0, 4); },
       tail(": refusing unsafe member name '\\x'"), {"ok"}},
      {"unsafe empty", [=] { return header(2, 2) + ok + tocEntry("", 0, 4); },
       tail(": refusing unsafe member name ''"), {"ok"}},
      // The text holds the NUL, so what() ends there.
      {"unsafe NUL", [=] { return header(2, 2) + ok + tocEntry(std::string("a\0b", 3), 0, 4); },
       tail(": refusing unsafe member name 'a"), {"ok"}},
      {"unsafe a..b", [=] { return header(2, 2) + ok + tocEntry("a..b", 0, 4); },
       tail(": refusing unsafe member name 'a..b'"), {"ok"}},
      {"payload past the end", [=] { return header(2, 2) + ok + tocEntry("m", 8, 1000); },
       tail(": truncated payload for member m"), {"ok"}},
      {"offset past the end", [=] { return header(2, 2) + ok + tocEntry("m", 1 << 20, 1); },
       tail(": truncated payload for member m"), {"ok"}},
      {"offset beyond any file", [=] { return header(2, 2) + ok + tocEntry("m", 0x8000000000000005ull, 1); },
       tail(": cannot seek to member m"), {"ok"}},
      {"synthetic manifest past the end", [] { return header(2, 1) + tocEntry("manifest.json", 0, 100); },
       tail(": truncated payload for member manifest.json"), {}},
      {"file where a folder goes", [=] { return header(2, 2) + ok + tocEntry("ok/b", 0, 4); },
       [](const std::string&, const std::string& d) { return "cannot create " + d + "/ok"; }, {"ok"}},
      {"folder where a file goes", [] { return header(2, 2) + tocEntry("d/x", 0, 4) + tocEntry("d", 0, 4); },
       [](const std::string&, const std::string& d) { return "cannot place member " + d + "/d"; }, {"d/x"}},
      {"folder where the part file goes",
       [] { return header(2, 2) + tocEntry("x.part/y", 0, 4) + tocEntry("x", 0, 4); },
       [](const std::string&, const std::string& d) { return "cannot write " + d + "/x.part"; }, {"x.part/y"}},
  };
  for (const Case& k : cases) {
    xjtest::TempDir tmp;
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "r").c_str());
    const std::string c = tmp / "c.qvx";
    const std::string dir = tmp / "r/c.xjbundle";
    xjtest::writeFile(c, k.bytes());
    std::string err;
    const std::string log = qvxtest::stderrHere([&] { err = qvxtest::errorOf([&] { xj::qvx::unwrapOnce(c); }); });
    EXPECT_EQ(err, k.message(c, dir)) << k.name;
    EXPECT_EQ(log, "") << k.name;
    EXPECT_FALSE(qvxtest::exists(dir + ".qvx_unwrapped")) << k.name;
    std::vector<std::string> present;
    for (const auto& f : qvxtest::treeFiles(dir)) {
      if (f.first.size() < 5 || f.first.compare(f.first.size() - 5, 5, ".part") != 0) present.push_back(f.first);
    }
    EXPECT_EQ(present, k.onDisk) << k.name;
    for (const std::string& m : k.onDisk) EXPECT_EQ(xjtest::readFile(dir + "/" + m), "QVX" + std::string(1, '\0'));
    EXPECT_FALSE(qvxtest::exists(dir + "/d.part")) << k.name;
  }
}

TEST(QvxUnwrap, RefusalsOfThePlace) {
  xjtest::TempDir tmp;
  const std::string good = container({{"m", "1"}});
  {
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "r").c_str());
    EXPECT_EQ(qvxtest::errorOf([&] { xj::qvx::unwrapOnce(tmp / "missing.qvx"); }),
              "cannot stat container " + tmp / "missing.qvx");
    // lstat finds the link, the open does not.
    ASSERT_EQ(symlink((tmp / "gone").c_str(), (tmp / "dangling.qvx").c_str()), 0);
    EXPECT_EQ(qvxtest::errorOf([&] { xj::qvx::unwrapOnce(tmp / "dangling.qvx"); }),
              "cannot open container " + tmp / "dangling.qvx");
    EXPECT_FALSE(qvxtest::exists(tmp / "r/dangling.xjbundle.qvx_unwrapped"));
    // The marker's place is taken by a folder.
    xjtest::writeFile(tmp / "c.qvx", good);
    ASSERT_TRUE(xj::qvx::mkdirs(tmp / "r/c.xjbundle.qvx_unwrapped"));
    EXPECT_EQ(qvxtest::errorOf([&] { xj::qvx::unwrapOnce(tmp / "c.qvx"); }),
              "cannot write unwrap marker " + tmp / "r/c.xjbundle.qvx_unwrapped");
  }
  {
    // The unwrap root is a file.
    xjtest::writeFile(tmp / "plainfile", "x");
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "plainfile").c_str());
    EXPECT_EQ(qvxtest::errorOf([&] { xj::qvx::unwrapOnce(tmp / "c.qvx"); }),
              "cannot create unwrap dir " + tmp / "plainfile/c.xjbundle");
  }
}

TEST(QvxUnwrap, AFailedRebuildLeavesNothingToReuse) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
  const std::string c = tmp / "c.qvx";
  const std::string dir = tmp / "c.xjbundle";
  xjtest::writeFile(c, container({{"m", "good"}}));
  xj::resolveBundlePath(c);
  ASSERT_TRUE(qvxtest::exists(dir + ".qvx_unwrapped"));
  // Same size, another time: the payload now runs past the end.
  std::string bad = container({{"m", "good"}});
  bad.replace(bad.size() - 4 - 8, 8, le64(1000));
  xjtest::writeFile(c, bad);
  qvxtest::setMtime(c, 1600000000, 0);
  EXPECT_EQ(qvxtest::errorOf([&] { xj::resolveBundlePath(c); }), c + ": truncated payload for member m");
  EXPECT_FALSE(qvxtest::exists(dir + ".qvx_unwrapped"));
  EXPECT_FALSE(qvxtest::exists(dir + "/m"));
  EXPECT_EQ(qvxtest::errorOf([&] { xj::resolveBundlePath(c); }), c + ": truncated payload for member m");
  // Put right, the next open rebuilds from scratch.
  xjtest::writeFile(c, container({{"m", "good"}}));
  EXPECT_EQ(xj::resolveBundlePath(c), dir);
  EXPECT_EQ(qvxtest::treeFiles(dir), (std::map<std::string, std::string>{{"m", "good"}}));
}

// ---- resolution ------------------------------------------------------------------

TEST(QvxResolve, WhatAPathLeadsTo) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
  const std::string t = tmp.path();
  const std::string good = container({{"m", "1"}});
  // Layout: a plain directory; a container c.qvx; a container under another
  // name; a directory b.xjbundle beside b.xjbundle.qvx but without a marker;
  // a version 3 file named v3.qvx; a folder named f.qvx; a link to c.qvx.
  ASSERT_EQ(mkdir((tmp / "plain").c_str(), 0755), 0);
  xjtest::writeFile(tmp / "c.qvx", good);
  xjtest::writeFile(tmp / "other.bin", good);
  ASSERT_EQ(mkdir((tmp / "b.xjbundle").c_str(), 0755), 0);
  xjtest::writeFile(tmp / "b.xjbundle.qvx", good);
  xjtest::writeFile(tmp / "v3.qvx", header(3, 0));
  ASSERT_EQ(mkdir((tmp / "f.qvx").c_str(), 0755), 0);
  ASSERT_EQ(symlink((tmp / "c.qvx").c_str(), (tmp / "link.qvx").c_str()), 0);

  struct Case {
    std::string in, out;
    bool unwraps;  // an unwrap runs now (a later name for the same container reuses it)
  };
  const std::vector<Case> cases = {
      {"", "", false},
      {t + "/nothing", t + "/nothing", false},
      {t + "/c/", t + "/c.xjbundle", true},
      {t + "/plain", t + "/plain", false},
      {t + "/plain/", t + "/plain/", false},
      {t + "/b.xjbundle", t + "/b.xjbundle", false},
      {t + "/b.xjbundle/", t + "/b.xjbundle/", false},
      {t + "/v3.qvx", t + "/v3.qvx", false},
      {t + "/f.qvx", t + "/f.qvx", false},
      {t + "/c", t + "/c.xjbundle", false},
      {t + "/c/", t + "/c.xjbundle", false},
      {t + "/c.qvx", t + "/c.xjbundle", false},
      {t + "/other.bin", t + "/other.bin.xjbundle", true},
      {t + "/link.qvx", t + "/link.xjbundle", true},
  };
  for (const Case& k : cases) {
    std::string got;
    const std::string log = qvxtest::stderrHere([&] { got = xj::resolveBundlePath(k.in); });
    EXPECT_EQ(got, k.out) << k.in;
    EXPECT_EQ(log.find("[xj] unwrapped ") == 0, k.unwraps) << k.in << ": " << log;
  }
  EXPECT_FALSE(qvxtest::exists(tmp / "b.xjbundle.qvx_unwrapped"));
  // The link's marker records the link itself.
  EXPECT_EQ(xjtest::readFile(tmp / "link.xjbundle.qvx_unwrapped"), expectedMarker(tmp / "link.qvx", "link.qvx"));

  // A directory with its marker goes back through the container beside it:
  // here the container changed, so the directory is rebuilt.
  xj::qvx::unwrapOnce(tmp / "b.xjbundle.qvx");
  xjtest::writeFile(tmp / "b.xjbundle.qvx", container({{"m", "22"}}));
  std::string got;
  EXPECT_EQ(qvxtest::stderrHere([&] { got = xj::resolveBundlePath(tmp / "b.xjbundle/"); }),
            unwrapLine(tmp / "b.xjbundle.qvx", tmp / "b.xjbundle"));
  EXPECT_EQ(got, tmp / "b.xjbundle");
  EXPECT_EQ(xjtest::readFile(tmp / "b.xjbundle/m"), "22");
}

// Threads of one process unwrap one at a time: every caller gets a complete
// directory and each container is unwrapped exactly once.
TEST(QvxResolve, ThreadsOfOneProcess) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
  constexpr int kContainers = 3;
  constexpr int kThreadsEach = 4;
  std::vector<std::map<std::string, std::string>> want(kContainers);
  for (int c = 0; c < kContainers; ++c) {
    std::vector<Member> ms;
    for (int m = 0; m < 20; ++m) {
      ms.push_back({"d" + std::to_string(m % 3) + "/m" + std::to_string(m), randomBytes(5000 + 997 * m, 10 * c + m)});
      want[c][ms.back().name] = ms.back().payload;
    }
    xjtest::writeFile(tmp / ("c" + std::to_string(c) + ".qvx"), container(ms));
  }
  std::atomic<int> ready{0};
  std::atomic<int> bad{0};
  const std::string log = qvxtest::stderrHere([&] {
    std::vector<std::thread> threads;
    for (int k = 0; k < kContainers * kThreadsEach; ++k) {
      threads.emplace_back([&, k] {
        const int c = k % kContainers;
        ready.fetch_add(1);
        while (ready.load() < kContainers * kThreadsEach) std::this_thread::yield();
        const std::string dir = xj::resolveBundlePath(tmp / ("c" + std::to_string(c)));
        if (dir != tmp / ("c" + std::to_string(c) + ".xjbundle") || qvxtest::treeFiles(dir) != want[c]) ++bad;
      });
    }
    for (auto& t : threads) t.join();
  });
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), kContainers) << log;
  for (int c = 0; c < kContainers; ++c) {
    const std::string n = tmp / ("c" + std::to_string(c));
    EXPECT_NE(log.find(unwrapLine(n + ".qvx", n + ".xjbundle")), std::string::npos) << log;
  }
}
