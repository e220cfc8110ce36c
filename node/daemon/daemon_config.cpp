#include "daemon/daemon_config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "daemon/run_as.h"

namespace snanode::daemon {
namespace {

// A program named without a slash is looked up in PATH, as exec would; the
// daemon then starts the file found, so PATH cannot change later what runs.
std::optional<std::filesystem::path> locate_program(const std::string &program) {
  if (program.find('/') != std::string::npos) return std::filesystem::absolute(program);
  const char *path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty() || dir[0] != '/') continue;  // never the working directory
    const std::filesystem::path candidate = std::filesystem::path(dir) / program;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return std::nullopt;
}

}  // namespace

std::string daemon_config_file(const std::string &named) {
  if (!named.empty()) return named;
  if (const char *env = std::getenv("SNANODE_CONFIG"); env != nullptr && *env != '\0') return env;
  std::error_code ignored;
  if (std::filesystem::exists(kSystemConfigPath, ignored)) return kSystemConfigPath;
  return "";
}

std::optional<std::string> untrusted_file(const std::filesystem::path &file, uid_t daemon_uid) {
  struct stat info {};
  if (::stat(file.c_str(), &info) != 0) return file.string() + ": cannot be found";
  if (info.st_uid != 0 && info.st_uid != daemon_uid) {
    return file.string() + ": owned by uid " + std::to_string(info.st_uid) +
           ", not by root or the daemon's user (uid " + std::to_string(daemon_uid) + ")";
  }
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return file.string() + ": writable by group or others";
  }
  return std::nullopt;
}

TrustReport daemon_trust_problems(config::NodeConfig &config, uid_t daemon_uid) {
  TrustReport report;
  std::vector<std::string> &problems = report.problems;
  for (auto &tp : config.tps) {
    std::string problem;
    if (!tp_account(tp, daemon_uid, problem)) report.unstartable_tps.push_back(problem);
    const auto program = locate_program(tp.program);
    std::error_code ignored;
    // A missing program is --check's to name; starting it fails and is logged.
    if (!program || !std::filesystem::exists(*program, ignored)) continue;
    if (auto why = untrusted_file(*program, daemon_uid)) {
      problems.push_back("TP " + tp.tp_name + ": program " + *why);
    }
    tp.program = program->string();
  }
  if (!config.daemon_user.empty()) {
    const auto uid = account_uid(config.daemon_user);
    if (!uid) {
      problems.push_back("daemon_user \"" + config.daemon_user +
                         "\" is not an account of this host");
    } else if (daemon_uid != 0 && *uid != daemon_uid) {
      problems.push_back("daemon_user \"" + config.daemon_user +
                         "\" is not the account the daemon runs as (uid " +
                         std::to_string(daemon_uid) +
                         "): programs would not take it for the "
                         "node daemon");
    }
  }
  return report;
}

}  // namespace snanode::daemon
