#include "daemon/config_check.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "client/socket_path.h"
#include "daemon/daemon_config.h"
#include "net/ee/impairment.h"

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

// The network: its test impairment must read as the daemon reads it; the
// local address must be one of this host's (the daemon binds its ports to
// it), and a partner named by host name should
// resolve; one that does not yet is only a warning, since names are often
// added to DNS after a configuration is written.
void check_network(const config::NodeConfig &config, CheckReport &report) {
  const config::NetworkConfig &net = config.network;
  if (std::string error; !net::ee::parse_impairment(net.impair, &error)) {
    report.problems.push_back("[network] impair = \"" + net.impair + "\": " + error);
  }
  if (!net.enabled || net.local_address.empty()) return;
  sockaddr_storage address{};
  socklen_t size = 0;
  auto *in = reinterpret_cast<sockaddr_in *>(&address);
  auto *in6 = reinterpret_cast<sockaddr_in6 *>(&address);
  if (inet_pton(AF_INET, net.local_address.c_str(), &in->sin_addr) == 1) {
    in->sin_family = AF_INET;
    size = sizeof *in;
  } else if (inet_pton(AF_INET6, net.local_address.c_str(), &in6->sin6_addr) == 1) {
    in6->sin6_family = AF_INET6;
    size = sizeof *in6;
  } else {
    return;  // the parser refuses it
  }
  const int fd = ::socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd >= 0) {
    // Port 0: only whether the address is this host's, not whether the
    // node's ports are free (a running daemon holds them).
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), size) != 0 &&
        errno == EADDRNOTAVAIL) {
      report.problems.push_back("[network] local_address " + net.local_address +
                                " is not an address of this host: the node cannot bind its "
                                "UDP ports " +
                                std::to_string(net.port_base) + "-" +
                                std::to_string(net.port_base + 4) + " to it");
    }
    ::close(fd);
  }
  for (const config::LinkConfig &link : net.links) {
    addrinfo hints{};
    hints.ai_family = address.ss_family;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    if (::getaddrinfo(link.partner.c_str(), nullptr, &hints, &found) != 0) {
      report.warnings.push_back("link to " + link.cp_name + ": \"" + link.partner +
                                "\" does not resolve to an " +
                                (address.ss_family == AF_INET ? "IPv4" : "IPv6") +
                                " address here; the link cannot be activated until it does");
    } else {
      ::freeaddrinfo(found);
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
  check_network(config, report);
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
