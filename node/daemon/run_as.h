// The account an invokable TP's programs run under.
//
// A daemon run as root starts each TP as the user its definition names and
// never as root unless the definition says `user = "root"`; a daemon run as
// another user can start programs only as itself.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "config/node_config.h"

namespace snanode::daemon {

struct RunAs {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;
  std::vector<gid_t> groups;  // the account's groups, its own first
};

// Switches this (just forked) process to `account` when it is not already
// it: groups, group, then user.  Only system calls, so it is safe between
// fork and exec.  False when any of them fails.
bool become(const RunAs &account);

// The account of `tp` for a daemon of effective uid `daemon_uid`; nothing,
// with `problem` saying why, when the daemon cannot or must not start it.
std::optional<RunAs> tp_account(const config::InvokableTp &tp, uid_t daemon_uid,
                                std::string &problem);

// The uid of an account name (or the decimal uid itself); nothing when the
// system knows no such account.
std::optional<uid_t> account_uid(const std::string &name);

}  // namespace snanode::daemon
