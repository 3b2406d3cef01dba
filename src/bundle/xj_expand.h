// Materialising a QVX container as a bundle directory, once.
//
// A container C unwraps into <root>/<name>, where name is C's file name less
// one ".qvx", with ".xjbundle" appended unless already there, and root is
// XJ_QVX_UNWRAP_ROOT or C's folder. Beside that directory a marker
// "<dir>.qvx_unwrapped" holds one line naming the container's file name,
// size, modification time (ns) and inode; while it matches, the directory is
// reused without touching the payload.
#pragma once
#include <sys/stat.h>

#include <string>

namespace xj {
namespace qvx {

// Where container c unwraps to.
std::string unwrapDir(const std::string& c);
// The marker of an unwrap directory.
std::string markerPath(const std::string& dir);
// The marker's line for container c as lstat saw it.
std::string markerText(const std::string& c, const struct stat& st);

// Makes p and its missing parents (mode 0755). A directory that another
// process made first counts as made.
bool mkdirs(const std::string& p);
// Removes a tree; links are removed, never followed. Failures are ignored.
void rmTree(const std::string& p);

// Makes sure the unwrap directory of container c is complete and returns it.
// Unwraps of one process run one at a time; processes are kept apart by an
// advisory lock on the container while one of them rebuilds. Members appear
// under their final names only whole (".part" and rename), and the marker is
// written last. Throws std::runtime_error when the container can't be unwrapped.
std::string unwrapOnce(const std::string& c);

}  // namespace qvx
}  // namespace xj
