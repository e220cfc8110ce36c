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

// Everything that makes a daemon of effective uid `daemon_uid` refuse the
// configuration: programs it would start that another user could change or
// that are missing, TPs with no account to run as, a daemon_user the clients
// would not take this daemon for.  Each program is replaced by the absolute
// path that was checked, which is what the daemon then starts.
std::vector<std::string> daemon_trust_problems(config::NodeConfig &config, uid_t daemon_uid);

}  // namespace snanode::daemon
