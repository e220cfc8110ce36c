// snanoded: the node daemon.  Processes of this host that use the node
// connect to its Unix socket; it brokers their allocations and attaches and
// starts invokable TPs.  See docs/daemon.md.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "client/socket_path.h"
#include "config/config_defaults.h"
#include "core/file_limit.h"
#include "core/log_files.h"
#include "daemon/config_check.h"
#include "daemon/daemon_config.h"
#include "daemon/server.h"

namespace {

using snanode::config::NodeConfig;

// Problems and warnings each on a line of their own; the exit status says
// whether the daemon could run with the file.
int check(const std::string &file, bool strict) {
  const auto report = snanode::daemon::check_configuration(file, strict);
  for (const auto &problem : report.problems) std::cout << problem << "\n";
  for (const auto &warning : report.warnings) std::cout << "warning: " << warning << "\n";
  const auto count = [](size_t n, const char *what) {
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
  };
  if (report.problems.empty()) {
    std::cout << file << ": configuration is valid";
    if (!report.warnings.empty()) {
      std::cout << " (" << count(report.warnings.size(), "warning") << ")";
    }
    std::cout << "\n";
    return 0;
  }
  std::cout << file << ": " << count(report.problems.size(), "problem") << "\n";
  return 1;
}

// Leaves the terminal: the parent returns once the socket is already bound,
// so a start-up script may connect as soon as snanoded returns.
void detach_from_terminal() {
  const pid_t pid = ::fork();
  if (pid < 0) {
    std::perror("fork");
    std::exit(1);
  }
  if (pid > 0) ::_exit(0);
  ::setsid();
  const int null = ::open("/dev/null", O_RDWR);
  if (null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) ::close(null);
  }
}

// Reads the daemon's configuration, never one found in the working directory,
// and only when the daemon may act on what it says.  The reasons it may not
// go to `problems`; TPs it will not start go to `warnings`.
bool read_trusted_config(const std::string &named, NodeConfig &config,
                         std::vector<std::string> &problems, std::vector<std::string> &warnings) {
  const std::string file = snanode::daemon::daemon_config_file(named);
  try {
    if (file.empty()) {
      config = snanode::config::default_config();
    } else if (auto why = snanode::daemon::untrusted_file(file, ::geteuid())) {
      problems.push_back(*why);
    } else {
      config = snanode::config::load_config(file);
    }
    snanode::config::apply_environment(config);
  } catch (const snanode::config::ConfigError &e) {
    problems.push_back(e.what());
  }
  if (problems.empty()) {
    auto trust = snanode::daemon::daemon_trust_problems(config, ::geteuid());
    problems = std::move(trust.problems);
    for (const auto &tp : trust.unstartable_tps) {
      warnings.push_back(tp + "; it will not be started");
    }
  }
  return problems.empty();
}

// The configuration at start-up; false when the daemon must not start, with
// the reasons on standard error.
bool load_trusted_config(const std::string &named, NodeConfig &config) {
  std::vector<std::string> problems, warnings;
  const bool usable = read_trusted_config(named, config, problems, warnings);
  for (const auto &warning : warnings) std::cerr << "snanoded: warning: " << warning << "\n";
  for (const auto &problem : problems) std::cerr << "snanoded: " << problem << "\n";
  if (!usable) {
    std::cerr << "snanoded: refusing to start\n";
    return false;
  }
  // The TPs it starts (which inherit SNANODE_CONFIG) see the same node.
  const std::string file = snanode::daemon::daemon_config_file(named);
  if (!file.empty()) ::setenv("SNANODE_CONFIG", std::filesystem::absolute(file).c_str(), 1);
  return true;
}

// On SIGHUP: the same file read and checked again, as at start-up.
snanode::daemon::ConfigReader reader_of(const std::string &named, bool foreground) {
  return [named, foreground](std::string &why) -> std::optional<NodeConfig> {
    NodeConfig fresh;
    std::vector<std::string> problems, warnings;
    if (!read_trusted_config(named, fresh, problems, warnings)) {
      for (const auto &problem : problems) why += (why.empty() ? "" : "; ") + problem;
      return std::nullopt;
    }
    for (const auto &warning : warnings) {
      snanode::daemon::daemon_log("warning: " + warning, foreground);
    }
    return fresh;
  };
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"snanoded: the SNA node daemon"};
  std::string config_file;
  std::string socket_path;
  std::string check_file;
  bool foreground = false;
  bool strict = false;
  app.add_option("--config", config_file,
                 "Node configuration (TOML); default: $SNANODE_CONFIG, /etc/snanode/snanode.toml, "
                 "built-in defaults")
      ->check(CLI::ExistingFile);
  app.add_option("--socket", socket_path, "Unix socket to serve (overrides the configuration)");
  app.add_flag("--foreground", foreground, "Stay attached to the terminal and log to stderr too");
  app.add_option("--check", check_file, "Validate a configuration file, explain every problem");
  app.add_flag("--strict", strict,
               "With --check: an invokable TP's program that is not installed is a problem, "
               "not a warning");
  // The test transport of the network (see network_node.h): an inherited
  // datagram socket to the partner node.  Hidden: Enterprise Extender is the real one.
  int link_fd = -1;
  app.add_option("--link-fd", link_fd, "")->group("");
  CLI11_PARSE(app, argc, argv);

  if (!check_file.empty()) return check(check_file, strict);

  NodeConfig config;
  if (!load_trusted_config(config_file, config)) return 1;
  if (!config.log_dir.empty()) snanode::set_configured_log_directory(config.log_dir);
  if (socket_path.empty()) socket_path = snanode::client::daemon_socket_path(config);

  // The poll loop takes these through a signalfd; started TPs get them back.
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGTERM);
  sigaddset(&handled, SIGINT);
  sigaddset(&handled, SIGCHLD);
  sigaddset(&handled, SIGHUP);
  ::sigprocmask(SIG_BLOCK, &handled, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  snanode::raise_open_file_limit();
  // A stream frees and allocates its records' buffers thousands of times a
  // second.  With the allocator's default, the top of the heap goes back to
  // the system whenever 128 KB of it are free and is faulted in again page by
  // page a moment later: a receiving daemon spent about a tenth of its CPU
  // so.  Up to 32 MB of freed heap are kept for reuse instead.
  ::mallopt(M_TRIM_THRESHOLD, 32 << 20);

  snanode::daemon::Server server(config, socket_path, foreground);
  std::string error;
  if (!server.listen(error)) {
    std::cerr << "snanoded: " << error << "\n";
    return 1;
  }
  if (link_fd >= 0 && !config.network.enabled) {
    std::cerr << "snanoded: --link-fd needs [network] enabled = true\n";
    return 1;
  }
  // Without the test link, an enabled network with a local address runs on
  // Enterprise Extender.
  if (link_fd >= 0 || (config.network.enabled && !config.network.local_address.empty())) {
    const char *capture = std::getenv("SNANODE_CAPTURE");
    if (!server.attach_link(link_fd, capture != nullptr ? capture : config.network.capture_file,
                            error)) {
      std::cerr << "snanoded: " << error << "\nsnanoded: refusing to start: [network] is "
                << "configured with local_address, and the node would run without it\n";
      return 1;
    }
  }
  server.set_config_reader(reader_of(config_file, foreground));
  if (!foreground) detach_from_terminal();
  return server.run();
}
