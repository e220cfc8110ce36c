#include "client/daemon_identity.h"

#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <vector>

#include "config/node_config.h"

namespace snanode::client {
namespace {

std::optional<uid_t> configured_daemon_uid() {
  std::string name;
  try {
    name = config::current_config().daemon_user;
  } catch (const config::ConfigError &) {
    return std::nullopt;  // a node that cannot start trusts nobody extra
  }
  if (name.empty()) return std::nullopt;
  passwd entry{};
  passwd *found = nullptr;
  std::vector<char> buffer(16384);
  ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (found != nullptr) return found->pw_uid;
  if (name.find_first_not_of("0123456789") == std::string::npos && name.size() < 10) {
    return static_cast<uid_t>(std::stoul(name));
  }
  return std::nullopt;
}

}  // namespace

bool daemon_is_trusted(int fd, const std::string &path) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  if (peer.uid == 0 || peer.uid == ::geteuid() || peer.uid == configured_daemon_uid()) {
    return true;
  }
  std::fprintf(stderr,
               "snanode: %s is served by uid %u, not by root, this user or the configured "
               "daemon_user: not used\n",
               path.c_str(), static_cast<unsigned>(peer.uid));
  return false;
}

}  // namespace snanode::client
