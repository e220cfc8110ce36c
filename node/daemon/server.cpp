#include "daemon/server.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <vector>

#include "core/log_files.h"
#include "core/safe_directory.h"
#include "daemon/pam_check.h"
#include "daemon/run_as.h"

namespace snanode::daemon {
namespace {

constexpr int kListenBacklog = 64;
// A client that does not take a message within this time is dropped, so one
// stuck process cannot stall the node.
constexpr timeval kClientSendTimeout = {5, 0};

PasswordCheck system_password_check(const config::NodeConfig &config) {
  if (!config.use_pam) return nullptr;
  return [service = config.pam_service](const std::string &user, const std::string &password) {
    return pam_verify(service, user, password);
  };
}

sockaddr_un socket_address(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

int poll_timeout(const std::optional<Clock::time_point> &deadline) {
  if (!deadline) return -1;
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(std::min<long long>(left + 1, 60'000));
}

}  // namespace

void daemon_log(const std::string &line, bool to_stderr) {
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  tm local{};
  ::localtime_r(&now, &local);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  const std::string record =
      std::string(stamp) + " snanoded[" + std::to_string(::getpid()) + "] " + line;
  append_log_line("snanoded.log", record);
  if (to_stderr) std::cerr << record << std::endl;
}

Server::Server(const config::NodeConfig &config, std::string socket_path, bool log_to_stderr)
    : config_(config),
      socket_path_(std::move(socket_path)),
      log_to_stderr_(log_to_stderr),
      broker_(config_, *this, system_password_check(config)) {}

Server::~Server() {
  if (listener_.valid()) ::unlink(socket_path_.c_str());
}

bool Server::listen(std::string &error) {
  if (socket_path_.size() >= sizeof(sockaddr_un::sun_path)) {
    error = "socket path too long: " + socket_path_;
    return false;
  }
  const sockaddr_un address = socket_address(socket_path_);
  // Its directory must be the daemon's own: where another user may create or
  // remove names, that user could take the socket's place.
  const std::string dir = std::filesystem::path(socket_path_).parent_path().string();
  if (!prepare_own_directory(dir.empty() ? "." : dir, 0755, error)) {
    error = "socket directory refused: " + error;
    return false;
  }
  if (::access(socket_path_.c_str(), F_OK) == 0) {
    client::UniqueFd probe = client::connect_unix_socket(socket_path_);
    if (probe.valid()) {
      error = "a node daemon already serves " + socket_path_;
      return false;
    }
    ::unlink(socket_path_.c_str());  // left behind by a daemon that died
  }
  client::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) {
    error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  // Created with 0660 at once, so no other user can connect in between.
  const mode_t old_mask = ::umask(0117);
  const int bound = ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
  const int bind_errno = errno;
  ::umask(old_mask);
  if (bound != 0) {
    error = "cannot bind " + socket_path_ + ": " + std::strerror(bind_errno);
    return false;
  }
  ::chmod(socket_path_.c_str(), 0660);
  if (::listen(fd.get(), kListenBacklog) != 0) {
    error = std::string("listen: ") + std::strerror(errno);
    ::unlink(socket_path_.c_str());
    return false;
  }
  listener_ = std::move(fd);
  return true;
}

int Server::run() {
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGTERM);
  sigaddset(&handled, SIGINT);
  sigaddset(&handled, SIGCHLD);
  signals_.reset(::signalfd(-1, &handled, SFD_CLOEXEC));
  if (!signals_.valid()) {
    log(std::string("signalfd: ") + std::strerror(errno));
    return 1;
  }
  log("serving " + socket_path_ + " for node " + config_.node_name);
  bool stopping = false;
  while (!stopping) {
    std::vector<pollfd> polled = {{signals_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    std::vector<ClientId> ids;
    for (const auto &[id, channel] : clients_) {
      polled.push_back({channel->fd(), POLLIN, 0});
      ids.push_back(id);
    }
    const int ready = ::poll(polled.data(), polled.size(), poll_timeout(broker_.next_deadline()));
    if (ready < 0 && errno != EINTR) {
      log(std::string("poll: ") + std::strerror(errno));
      return 1;
    }
    if (ready > 0 && (polled[0].revents & POLLIN) != 0) {
      // One signal per pass; poll reports the next one at once.
      signalfd_siginfo info{};
      if (::read(signals_.get(), &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGCHLD) {
          reap_children();
        } else {
          stopping = true;
        }
      }
    }
    if (ready > 0 && (polled[1].revents & POLLIN) != 0) accept_client();
    for (size_t i = 0; ready > 0 && i < ids.size(); ++i) {
      if (polled[i + 2].revents != 0) serve_client(ids[i]);
    }
    broker_.expire(Clock::now());
    while (!unreachable_.empty()) drop(*unreachable_.begin());
  }
  log("stopped");
  return 0;
}

void Server::accept_client() {
  client::UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!fd.valid()) return;
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kClientSendTimeout, sizeof kClientSendTimeout);
  const ClientId id = next_client_++;
  clients_[id] = std::make_unique<client::MessageChannel>(std::move(fd));
  broker_.connected(id, PeerCredentials{peer.pid, peer.uid});
  log("client " + std::to_string(id) + " connected: pid " + std::to_string(peer.pid) + ", uid " +
      std::to_string(peer.uid));
}

void Server::serve_client(ClientId id) {
  auto found = clients_.find(id);
  if (found == clients_.end()) return;
  client::MessageChannel &channel = *found->second;
  if (!channel.read_some()) {
    unreachable_.insert(id);
    return;
  }
  try {
    while (auto received = channel.next()) {
      if (!broker_.handle(id, std::move(*received))) {
        unreachable_.insert(id);
        return;
      }
    }
  } catch (const client::ProtocolError &e) {
    log("client " + std::to_string(id) + " dropped: " + e.what());
    unreachable_.insert(id);
  }
}

void Server::drop(ClientId id) {
  unreachable_.erase(id);
  if (clients_.erase(id) == 0) return;
  broker_.disconnected(id);
  log("client " + std::to_string(id) + " disconnected");
}

bool Server::send(ClientId client, const client::Message &message, int descriptor) {
  auto found = clients_.find(client);
  if (found == clients_.end() || unreachable_.count(client) != 0) return false;
  if (found->second->send(message, descriptor)) return true;
  unreachable_.insert(client);
  return false;
}

bool Server::launch(const config::InvokableTp &tp, const std::string &lu_alias) {
  std::vector<std::string> words = {tp.program};
  words.insert(words.end(), tp.arguments.begin(), tp.arguments.end());
  std::vector<char *> argv;
  for (auto &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::string problem;
  const std::optional<RunAs> account = tp_account(tp, ::geteuid(), problem);
  if (!account) {
    log(problem);
    return false;
  }
  const pid_t pid = ::fork();
  if (pid < 0) return false;
  if (pid == 0) {
    if (!become(*account)) ::_exit(126);
    ::setenv("USER", account->name.c_str(), 1);
    ::setenv("LOGNAME", account->name.c_str(), 1);
    ::setenv("HOME", account->home.c_str(), 1);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ::setenv("APPCTPN", tp.tp_name.c_str(), 1);
    if (!lu_alias.empty()) ::setenv("APPCLLU", lu_alias.c_str(), 1);
    ::setenv("SNANODE_SOCKET", socket_path_.c_str(), 1);  // the TP comes back to this daemon
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  children_[pid] = tp.tp_name;
  return true;
}

void Server::reap_children() {
  int status = 0;
  pid_t pid;
  while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
    auto found = children_.find(pid);
    if (found == children_.end()) continue;
    const std::string how = WIFEXITED(status)
                                ? "exited with status " + std::to_string(WEXITSTATUS(status))
                                : "ended by signal " + std::to_string(WTERMSIG(status));
    log("TP " + found->second + " (pid " + std::to_string(pid) + ") " + how);
    broker_.instance_exited(found->second);
    children_.erase(found);
  }
}

void Server::log(const std::string &line) {
  daemon_log(line, log_to_stderr_);
}

}  // namespace snanode::daemon
