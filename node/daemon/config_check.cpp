#include "daemon/config_check.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "client/socket_path.h"

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
  if (!std::filesystem::is_directory(dir, ignored)) {
    problems.push_back("socket " + socket.string() + ": directory " + dir.string() +
                       " does not exist");
  } else if (::access(dir.c_str(), W_OK | X_OK) != 0) {
    problems.push_back("socket " + socket.string() + ": directory " + dir.string() +
                       " is not writable");
  }
  return report;
}

CheckReport check_configuration(const std::filesystem::path &file, bool strict) {
  try {
    return check_deployment(config::load_config(file), strict);
  } catch (const config::ConfigError &e) {
    return {{e.what()}, {}};
  }
}

}  // namespace snanode::daemon
