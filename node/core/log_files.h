// The node's log directory and the appending of log lines.
#pragma once

#include <string>

namespace snanode {

// The directory is, in order of precedence: $SNANODE_LOG_DIR, the directory
// the configuration names (set_configured_log_directory), $XDG_STATE_HOME/snanode,
// $HOME/.local/state/snanode, /tmp/snanode-<uid>.  It is looked up for every
// record, so a test can point a process at a fresh directory.
std::string log_directory();

// Configuration hook: the configuration's log directory (empty: none).
void set_configured_log_directory(const std::string &directory);

// Appends `line` and a newline to `file_name` in the log directory, creating
// the directory as needed (mode 0750).  A directory owned by another user (not
// root) or writable by everyone, a symbolic link in the directory's place or
// the file's, and the line is not written.  One write(2) on an O_APPEND descriptor per line, so
// lines of concurrent threads and processes never interleave.  A log that
// cannot be written is skipped: the record is still kept in memory.
void append_log_line(const char *file_name, const std::string &line);

}  // namespace snanode
