#include "daemon/config_check.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

#include "client/socket_path.h"
#include "daemon/daemon_config.h"

namespace snanode::daemon {
namespace {

enum class Program { kFound, kMissing, kNotExecutable };

Program program_at(const std::filesystem::path &path) {
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) return Program::kMissing;
  return std::filesystem::is_regular_file(path, ignored) && ::access(path.c_str(), X_OK) == 0
             ? Program::kFound
             : Program::kNotExecutable;
}

// A program named without a slash is looked up in PATH, as exec does; found
// nowhere, it counts as missing.
Program find_program(const std::string &program) {
  if (program.find('/') != std::string::npos) return program_at(program);
  const char *path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (program_at(std::filesystem::path(dir.empty() ? "." : dir) / program) == Program::kFound) {
      return Program::kFound;
    }
  }
  return Program::kMissing;
}

// User IDs and passwords reach the node converted to EBCDIC with the
// character set of the CPI-C library, which holds only letters, digits and
// the characters below; any other character arrives as X'00', so a value
// holding one could never be matched.
void check_security_characters(const config::NodeConfig &config,
                               std::vector<std::string> &problems) {
  const auto carried = [](const std::string &value) {
    return std::all_of(value.begin(), value.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '#' || c == '$' || c == '@' ||
             c == '.';
    });
  };
  for (const auto &user : config.users) {
    if (!carried(user.user_id)) {
      problems.push_back("user " + user.user_id +
                         ": the user ID holds characters a program cannot send (only A-Z, "
                         "a-z, 0-9, #, $, @ and . reach the node)");
    }
    if (!carried(user.password)) {
      problems.push_back("user " + user.user_id +
                         ": the password holds characters a program cannot send (only A-Z, "
                         "a-z, 0-9, #, $, @ and . reach the node), so it could never match");
    }
  }
}

}  // namespace

CheckReport check_deployment(const config::NodeConfig &config, bool strict) {
  CheckReport report;
  std::vector<std::string> &problems = report.problems;
  for (const auto &tp : config.tps) {
    const std::string program = "TP " + tp.tp_name + ": program \"" + tp.program + "\"";
    switch (find_program(tp.program)) {
      case Program::kFound:
        break;
      case Program::kMissing:
        (strict ? problems : report.warnings)
            .push_back(program + " is not installed; it would be started when an allocation for " +
                       tp.tp_name + " arrives, and that allocation would then fail");
        break;
      case Program::kNotExecutable:
        problems.push_back(program + " is not an executable file (it is started when an " +
                           "allocation for " + tp.tp_name + " arrives)");
        break;
    }
  }
  if (config.use_pam && !std::filesystem::exists("/etc/pam.d/" + config.pam_service) &&
      !std::filesystem::exists("/etc/pam.conf")) {
    problems.push_back("PAM service \"" + config.pam_service +
                       "\" is not set up on this host (no /etc/pam.d/" + config.pam_service +
                       "): users without a password cannot be verified");
  }
  const std::filesystem::path socket = client::daemon_socket_path(config);
  const std::filesystem::path dir = socket.has_parent_path() ? socket.parent_path() : ".";
  std::error_code ignored;
  // The daemon makes the socket's own directory (with a mode only it can
  // write), so that one may be missing as long as it can be made.
  const std::filesystem::path parent = dir.has_parent_path() ? dir.parent_path() : ".";
  if (!std::filesystem::is_directory(dir, ignored)) {
    if (!std::filesystem::is_directory(parent, ignored)) {
      problems.push_back("socket " + socket.string() + ": directory " + dir.string() +
                         " does not exist, nor does " + parent.string());
    } else if (::access(parent.c_str(), W_OK | X_OK) != 0) {
      problems.push_back("socket " + socket.string() + ": directory " + dir.string() +
                         " does not exist and cannot be made in " + parent.string());
    }
  } else if (::access(dir.c_str(), W_OK | X_OK) != 0) {
    problems.push_back("socket " + socket.string() + ": directory " + dir.string() +
                       " is not writable");
  }
  check_security_characters(config, problems);
  return report;
}

CheckReport check_configuration(const std::filesystem::path &file, bool strict) {
  try {
    config::NodeConfig config = config::load_config(file);
    CheckReport report = check_deployment(config, strict);
    // What a daemon run by this user would refuse to start with, or would
    // refuse to start a TP's program for.
    if (auto why = untrusted_file(file, ::geteuid())) report.problems.push_back(*why);
    TrustReport trust = daemon_trust_problems(config, ::geteuid());
    for (auto &problem : trust.problems) report.problems.push_back(std::move(problem));
    for (auto &warning : trust.unstartable_tps) {
      (strict ? report.problems : report.warnings).push_back(std::move(warning));
    }
    return report;
  } catch (const config::ConfigError &e) {
    return {{e.what()}, {}};
  }
}

}  // namespace snanode::daemon
