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
  check_security_characters(config, problems);
  return problems;
}

std::vector<std::string> check_configuration(const std::filesystem::path &file) {
  try {
    config::NodeConfig config = config::load_config(file);
    std::vector<std::string> problems = check_deployment(config);
    // What a daemon run by this user would refuse to start with.
    if (auto why = untrusted_file(file, ::geteuid())) problems.push_back(*why);
    for (auto &problem : daemon_trust_problems(config, ::geteuid())) problems.push_back(problem);
    return problems;
  } catch (const config::ConfigError &e) {
    return {e.what()};
  }
}

}  // namespace snanode::daemon
