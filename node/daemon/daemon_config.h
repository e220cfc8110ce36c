// The daemon's configuration: where it comes from and whether the daemon may
// act on it.  The daemon starts programs, possibly as root, from what the file
// says, so it reads no file a user could have put in its way (./snanode.toml
// of whatever directory it was started in) and none another user can change.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "config/node_config.h"

namespace snanode::daemon {

inline constexpr const char *kSystemConfigPath = "/etc/snanode/snanode.toml";

// The file the daemon reads: `named` (--config), else $SNANODE_CONFIG, else
// the system file when it exists; empty: the built-in defaults.
std::string daemon_config_file(const std::string &named);

// Why the daemon must not trust `file` (a configuration or a program), or
// nothing: it must be owned by root or by `daemon_uid` and writable by
// nobody else.
std::optional<std::string> untrusted_file(const std::filesystem::path &file, uid_t daemon_uid);

struct TrustReport {
  // The daemon refuses the configuration: programs it would start that
  // another user could change, a daemon_user the clients would not take this
  // daemon for.
  std::vector<std::string> problems;
  // TPs with no account this daemon may run them as (none named while the
  // daemon is root, an unknown account, another account while it is not
  // root).  The node still serves everything else; an allocation that would
  // start such a TP is refused and the reason logged, as when its program
  // cannot be started.  One wrong definition does not take the node down.
  std::vector<std::string> unstartable_tps;
};

// What a daemon of effective uid `daemon_uid` would make of the
// configuration.  Each program is replaced by the absolute path that was
// checked, which is what the daemon then starts.
TrustReport daemon_trust_problems(config::NodeConfig &config, uid_t daemon_uid);

}  // namespace snanode::daemon
