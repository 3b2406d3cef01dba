// Helpers shared by the test programs: fixture paths, scratch folders, files.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace xjtest {

// Folder the fixture generator wrote (tools/bundlegen), set by CTest.
std::string fixturesDir();
std::string fixture(const std::string& name);

// A fresh folder under the system temp dir, removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);
// Copies a folder tree (regular files and folders only).
void copyTree(const std::string& from, const std::string& to);
void removeTree(const std::string& path);

// Sets or unsets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);  // value nullptr: unset
  ~ScopedEnv();

 private:
  std::string name_;
  bool had_ = false;
  std::string old_;
};

// Runs fn in a forked child with stderr captured; returns what the child wrote
// to stderr and its exit status in *status. For process-once state (thread
// counts computed once) and for capturing diagnostic lines.
std::string captureStderr(void (*fn)(void*), void* arg, int* status = nullptr);

}  // namespace xjtest
