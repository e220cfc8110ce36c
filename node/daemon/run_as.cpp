#include "daemon/run_as.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace snanode::daemon {
namespace {

std::optional<RunAs> lookup(const std::string &name, uid_t uid, bool by_name) {
  passwd entry{};
  passwd *found = nullptr;
  std::vector<char> buffer(16384);
  if (by_name) {
    ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  } else {
    ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
  }
  if (found == nullptr) return std::nullopt;
  RunAs account{found->pw_name, found->pw_uid, found->pw_gid, found->pw_dir, {}};
  int count = 64;
  account.groups.resize(static_cast<size_t>(count));
  if (::getgrouplist(found->pw_name, found->pw_gid, account.groups.data(), &count) < 0) {
    account.groups.resize(static_cast<size_t>(count));
    ::getgrouplist(found->pw_name, found->pw_gid, account.groups.data(), &count);
  }
  account.groups.resize(static_cast<size_t>(std::max(count, 0)));
  return account;
}

bool is_number(const std::string &text) {
  return !text.empty() && text.size() < 10 &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

std::optional<uid_t> account_uid(const std::string &name) {
  if (auto account = lookup(name, 0, true)) return account->uid;
  if (is_number(name)) return static_cast<uid_t>(std::stoul(name));
  return std::nullopt;
}

std::optional<RunAs> tp_account(const config::InvokableTp &tp, uid_t daemon_uid,
                                std::string &problem) {
  const std::string prefix = "TP " + tp.tp_name + ": ";
  if (tp.user.empty()) {
    if (daemon_uid == 0) {
      problem = prefix +
                "names no user; a daemon run as root starts no program as root unless the "
                "definition says user = \"root\"";
      return std::nullopt;
    }
    auto self = lookup("", daemon_uid, false);
    return self ? *self : RunAs{std::to_string(daemon_uid), daemon_uid, ::getegid(), "/", {}};
  }
  auto account = lookup(tp.user, 0, true);
  if (!account) {
    problem = prefix + "user \"" + tp.user + "\" is not an account of this host";
    return std::nullopt;
  }
  if (daemon_uid != 0 && account->uid != daemon_uid) {
    problem = prefix + "user \"" + tp.user + "\" is not the daemon's own account (uid " +
              std::to_string(daemon_uid) +
              "); only a daemon run as root can start programs "
              "as another user";
    return std::nullopt;
  }
  return account;
}

bool become(const RunAs &account) {
  // A daemon not run as root runs its programs as itself; root's as root.
  if (::geteuid() != 0 || account.uid == 0) return true;
  // The last call must fail: a process that could take root back is not done.
  return ::setgroups(account.groups.size(), account.groups.data()) == 0 &&
         ::setgid(account.gid) == 0 && ::setuid(account.uid) == 0 && ::setuid(0) != 0;
}

}  // namespace snanode::daemon
