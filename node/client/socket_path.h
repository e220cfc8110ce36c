// Where the node daemon listens, as both the daemon and its clients find it.
#pragma once

#include <string>

#include "config/node_config.h"

namespace snanode::client {

// The socket of a node daemon run as root (by the system).
inline constexpr const char *kSystemSocketPath = "/run/snanode/snanode.sock";

// The configured socket_path; else $SNANODE_SOCKET; else, for a process not
// run as root, $XDG_RUNTIME_DIR/snanode.sock; else the system socket.
std::string daemon_socket_path(const config::NodeConfig &config);

}  // namespace snanode::client
