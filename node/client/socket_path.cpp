#include "client/socket_path.h"

#include <unistd.h>

#include <cstdlib>

namespace snanode::client {
namespace {

std::string environment(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::string daemon_socket_path(const config::NodeConfig &config) {
  if (!config.socket_path.empty()) return config.socket_path;
  if (std::string path = environment("SNANODE_SOCKET"); !path.empty()) return path;
  // Never a world-writable directory such as /tmp, where another user could
  // bind the name first: root's node lives in /run/snanode, which only root
  // can create; another user's in the runtime directory only it can write.
  if (::geteuid() != 0) {
    if (std::string dir = environment("XDG_RUNTIME_DIR"); !dir.empty()) {
      return dir + "/snanode.sock";
    }
  }
  return kSystemSocketPath;
}

}  // namespace snanode::client
