#include "daemon/config_check.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "client/socket_path.h"

namespace snanode::daemon {
namespace {

bool is_executable(const std::filesystem::path &path) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(path, ignored) && ::access(path.c_str(), X_OK) == 0;
}

// A program named without a slash is looked up in PATH, as exec does.
bool program_found(const std::string &program) {
  if (program.find('/') != std::string::npos) return is_executable(program);
  const char *path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (is_executable(std::filesystem::path(dir.empty() ? "." : dir) / program)) return true;
  }
  return false;
}

}  // namespace

std::vector<std::string> check_deployment(const config::NodeConfig &config) {
  std::vector<std::string> problems;
  for (const auto &tp : config.tps) {
    if (!program_found(tp.program)) {
      problems.push_back("TP " + tp.tp_name + ": program \"" + tp.program +
                         "\" is not an executable file (it is started when an allocation "
                         "arrives)");
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
  return problems;
}

std::vector<std::string> check_configuration(const std::filesystem::path &file) {
  try {
    return check_deployment(config::load_config(file));
  } catch (const config::ConfigError &e) {
    return {e.what()};
  }
}

}  // namespace snanode::daemon
