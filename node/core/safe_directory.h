// Directories the node writes into (logs, the daemon's socket) that no other
// user can have prepared for it: a directory another user owns, or a symbolic
// link in its place, would let that user choose the file the node writes.
#pragma once

#include <sys/types.h>

#include <string>

namespace snanode {

// Makes `path` ready to write into: creates it (and missing parents) with
// `mode` when it is missing, then checks that it is a real directory (not a
// symbolic link) owned by this process's effective user or by root, and not
// writable by others.  False with `problem` saying why.
bool prepare_own_directory(const std::string &path, mode_t mode, std::string &problem);

}  // namespace snanode
