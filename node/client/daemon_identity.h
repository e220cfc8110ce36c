// Who answers at the daemon's socket.  A process tells the node daemon user
// IDs and passwords, so before it sends anything it asks the kernel who
// listens there: only root, this process's own user or the configured
// `daemon_user` is the node daemon.  Anyone else squats on the name.
#pragma once

#include <string>

namespace snanode::client {

// True when the peer of the connected Unix socket `fd` may be the node
// daemon; otherwise false, with a line on standard error naming `path` and
// the peer's uid.
bool daemon_is_trusted(int fd, const std::string &path);

}  // namespace snanode::client
