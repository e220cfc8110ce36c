// The number of files a process may hold open.
#pragma once

namespace snanode {

// Raises the process's soft limit on open files to its hard limit.  Every
// conversation with another process holds a socket, so a process with many
// conversations (or the daemon, holding the ends of queued attaches) would
// otherwise run out at the usual soft limit of 1024.
void raise_open_file_limit();

}  // namespace snanode
