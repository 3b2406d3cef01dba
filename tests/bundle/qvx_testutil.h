// Containers written byte by byte, independently of the library's writer, and
// small file-system helpers for the container tests.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qvxtest {

std::string le16(uint16_t v);
std::string le64(uint64_t v);

// "QVX\0", version, count.
std::string header(uint16_t version, uint16_t count);
// One table entry: nameLen, name, offset, size.
std::string tocEntry(const std::string& name, uint64_t offset, uint64_t size);

struct Member {
  std::string name;
  std::string payload;
};
// A version-2 container with the payloads after the table, in table order.
std::string container(const std::vector<Member>& members);

// Every regular file below dir, by its '/'-separated path relative to dir.
std::map<std::string, std::string> treeFiles(const std::string& dir);
// Every entry below dir (files and folders), relative, sorted.
std::vector<std::string> treeEntries(const std::string& dir);

bool exists(const std::string& path);
bool isDir(const std::string& path);

// Runs a program with arguments; returns its exit code (-1 when it did not exit).
struct Run {
  int code = -1;
  std::string out;
  std::string err;
};
Run runProgram(const std::vector<std::string>& argv);

// What fn writes to file descriptor 2, run in this process.
std::string stderrHere(const std::function<void()>& fn);
// The text of the exception fn throws, "" when it throws none.
std::string errorOf(const std::function<void()>& fn);

// Sets the modification time of path to sec.nsec.
void setMtime(const std::string& path, int64_t sec, long nsec);

}  // namespace qvxtest
