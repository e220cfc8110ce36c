#include "daemon/server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <vector>

#include "core/log_files.h"
#include "core/safe_directory.h"
#include "daemon/limits.h"
#include "daemon/log_text.h"
#include "daemon/pam_check.h"
#include "daemon/run_as.h"

namespace snanode::daemon {
namespace {

constexpr int kListenBacklog = 64;
constexpr int kEventsPerWait = 64;

// Event tokens of the daemon's own descriptors; clients are numbered from 1.
constexpr uint64_t kSignalsToken = ~uint64_t{0};
constexpr uint64_t kListenerToken = kSignalsToken - 1;
constexpr uint64_t kVerifierToken = kSignalsToken - 2;

sockaddr_un socket_address(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

bool watch(int epoll, int op, int fd, uint32_t events, uint64_t token) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = token;
  return ::epoll_ctl(epoll, op, fd, &event) == 0;
}

}  // namespace

PasswordCheck system_password_check(const config::NodeConfig &config) {
  if (!config.use_pam) return nullptr;
  return [service = config.pam_service](const std::string &user, const std::string &password) {
    return pam_verify(service, user, password);
  };
}

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

Server::Server(const config::NodeConfig &config, std::string socket_path, bool log_to_stderr,
               PasswordCheck password_check)
    : config_(config),
      socket_path_(std::move(socket_path)),
      log_to_stderr_(log_to_stderr),
      broker_(config_, *this, std::move(password_check)),
      control_(config_, broker_, *this, socket_path_, [this] { return network_ != nullptr; }),
      limited_log_(limits::kLogLinesPerWindow, limits::kLogWindow,
                   [this](const std::string &line) { log(line); }),
      verifier_(limits::kVerifierThreads, limits::kVerificationsWaiting,
                limits::kVerificationsPerClient) {}

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
  reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return true;
}

bool Server::attach_link(int link_fd, const std::string &capture_file, std::string &error) {
  // The network's sockets are watched by the loop's own epoll: one wait per
  // wake-up instead of a second one for the network's set.
  if (!epoll_.valid()) epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  network_ =
      std::make_unique<NetworkNode>(config_, client::UniqueFd(link_fd), broker_,
                                    static_cast<BrokerOutput &>(*this), capture_file, epoll_.get());
  if (link_fd < 0 && network_->ee_network() == nullptr) {
    error = network_->network_error();
    network_.reset();
    return false;
  }
  broker_.set_remote_allocation([this](ClientId client, const client::AllocateRequest &request,
                                       const std::optional<std::string> &user) {
    return network_->allocate(client, request, user);
  });
  control_.set_network_status([this] { return network_->status_sections(); });
  control_.set_network_control(
      [this](const std::vector<std::string> &words) { return network_->control(words); });
  return true;
}

int Server::run() {
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGTERM);
  sigaddset(&handled, SIGINT);
  sigaddset(&handled, SIGCHLD);
  sigaddset(&handled, SIGHUP);
  signals_.reset(::signalfd(-1, &handled, SFD_CLOEXEC));
  if (!epoll_.valid()) epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (!signals_.valid() || !epoll_.valid() ||
      !watch(epoll_.get(), EPOLL_CTL_ADD, signals_.get(), EPOLLIN, kSignalsToken) ||
      !watch(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), EPOLLIN, kListenerToken) ||
      !watch(epoll_.get(), EPOLL_CTL_ADD, verifier_.ready_fd(), EPOLLIN, kVerifierToken)) {
    log(std::string("cannot start the event loop: ") + std::strerror(errno));
    return 1;
  }
  log("serving " + socket_path_ + " for node " + log_safe(config_.node_name));
  bool stopping = false;
  epoll_event events[kEventsPerWait];
  while (!stopping) {
    const int ready = wait_for_events(events, kEventsPerWait, next_wait());
    if (ready < 0 && errno != EINTR) {
      log(std::string("epoll_wait: ") + std::strerror(errno));
      return 1;
    }
    for (int i = 0; i < ready; ++i) dispatch(events[i].data.u64, events[i].events, stopping);
    const Clock::time_point now = Clock::now();
    broker_.expire(now);
    control_.expire(now);
    if (network_) network_->on_timer();
    expire_silent_clients(now);
    if (accept_resumes_ && *accept_resumes_ <= now) set_accepting(true);
    limited_log_.flush(now);
    while (!unreachable_.empty()) drop(*unreachable_.begin());
  }
  // Closing every connection ends the path in each process that uses the
  // node: its outstanding verbs complete with an error at once, and its next
  // ones find the node gone.  Conversations between processes run on
  // socketpairs the daemon no longer holds, so they end with those paths.
  log("stopping: " + std::to_string(clients_.size()) + " connected processes, " +
      std::to_string(children_.size()) + " started TPs running");
  for (const auto &[id, connection] : clients_) ::shutdown(connection.channel->fd(), SHUT_RDWR);
  log("stopped");
  return 0;
}

void Server::dispatch(uint64_t token, uint32_t events, bool &stopping) {
  if (token == kSignalsToken) {
    // One signal per pass; the descriptor stays readable for the next one.
    signalfd_siginfo info{};
    if (::read(signals_.get(), &info, sizeof info) != sizeof info) return;
    if (info.ssi_signo == SIGCHLD) {
      reap_children();
    } else if (info.ssi_signo == SIGHUP) {
      reload();
    } else {
      stopping = true;
    }
  } else if (token == kListenerToken) {
    accept_client();
  } else if (token == kVerifierToken) {
    verifier_.complete_ready();
  } else if (network_ && NetworkNode::owns(token)) {
    network_->on_event(token, events);
  } else {
    auto found = clients_.find(token);
    if (found == clients_.end() || unreachable_.count(token) != 0) return;
    if ((events & EPOLLOUT) != 0) flush_client(token, found->second);
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) serve_client(token);
  }
}

std::optional<Clock::duration> Server::next_wait() const {
  std::optional<Clock::time_point> next = broker_.next_deadline();
  const auto earliest = [&](std::optional<Clock::time_point> at) {
    if (at && (!next || *at < *next)) next = at;
  };
  if (!hello_deadlines_.empty()) earliest(hello_deadlines_.front().first);
  earliest(accept_resumes_);
  earliest(control_.next_deadline());
  if (network_) earliest(network_->next_deadline());
  earliest(limited_log_.next_flush());
  if (!next) return std::nullopt;
  return std::clamp<Clock::duration>(*next - Clock::now(), Clock::duration::zero(),
                                     std::chrono::seconds(60));
}

int Server::wait_for_events(epoll_event *events, int size, std::optional<Clock::duration> wait) {
  // Network deadlines (the RTP pacer's next send, say) are often less than a
  // millisecond away.  Counted in whole milliseconds such a wait is either
  // none, and the loop spins until the deadline on a core the partner's
  // processes need, or a millisecond late.
  if (precise_wait_) {
    timespec timeout{};
    if (wait) {
      const auto whole = std::chrono::duration_cast<std::chrono::seconds>(*wait);
      timeout.tv_sec = static_cast<time_t>(whole.count());
      timeout.tv_nsec = static_cast<long>(
          std::chrono::duration_cast<std::chrono::nanoseconds>(*wait - whole).count());
    }
    const int ready =
        ::epoll_pwait2(epoll_.get(), events, size, wait ? &timeout : nullptr, nullptr);
    if (ready >= 0 || errno != ENOSYS) return ready;
    precise_wait_ = false;  // an older kernel: whole milliseconds, rounded up
  }
  int milliseconds = -1;
  if (wait) {
    const auto ceiling = std::chrono::ceil<std::chrono::milliseconds>(*wait);
    milliseconds = static_cast<int>(ceiling.count());
  }
  return ::epoll_wait(epoll_.get(), events, size, milliseconds);
}

void Server::accept_client() {
  client::UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!fd.valid()) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      shed_connection(errno);
    }
    return;  // otherwise the connection went before it was taken
  }
  if (out_of_descriptors_) {
    out_of_descriptors_ = false;
    log("descriptors available again: accepting connections");
  }
  if (clients_.size() >= limits::kClients) {
    log_limited("connection",
                "connection refused: " + std::to_string(clients_.size()) + " clients, the limit");
    return;
  }
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return;
  const ClientId id = next_client_++;
  const int socket = fd.get();
  Connection connection{
      std::make_unique<client::MessageChannel>(std::move(fd), client::DescriptorPolicy::kNone),
      OutputQueue(limits::kOutputBytesPerClient, limits::kOutputDescriptorsPerClient),
      PeerCredentials{peer.pid, peer.uid}};
  if (!watch(epoll_.get(), EPOLL_CTL_ADD, socket, EPOLLIN, id)) return;
  clients_.emplace(id, std::move(connection));
  hello_deadlines_.emplace_back(Clock::now() + limits::kHelloTimeout, id);
  broker_.connected(id, clients_.at(id).peer);
}

void Server::shed_connection(int error) {
  // The pending connection would keep the listening socket readable and the
  // loop spinning: take it with the reserve descriptor and close it.
  reserve_.reset();
  client::UniqueFd shed(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  shed.reset();
  if (!out_of_descriptors_) {
    out_of_descriptors_ = true;
    log_limited("descriptors", std::string("cannot accept connections: ") + std::strerror(error) +
                                   "; new connections are closed until descriptors free up");
  }
  reserve_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  set_accepting(false);
}

void Server::set_accepting(bool on) {
  if (on) {
    accept_resumes_.reset();
  } else {
    accept_resumes_ = Clock::now() + limits::kAcceptBackoff;
  }
  watch(epoll_.get(), EPOLL_CTL_MOD, listener_.get(), on ? uint32_t{EPOLLIN} : 0u, kListenerToken);
}

void Server::serve_client(ClientId id) {
  auto found = clients_.find(id);
  if (found == clients_.end()) return;
  Connection &connection = found->second;
  client::MessageChannel &channel = *connection.channel;
  if (!channel.read_some()) {
    unreachable_.insert(id);
    return;
  }
  try {
    while (auto received = channel.next()) {
      if (serve_control(id, connection, received->message)) {
        if (unreachable_.count(id) != 0) return;
        continue;
      }
      const bool hello = std::holds_alternative<client::Hello>(received->message);
      // Names it takes conversations for (the broker moves the message).
      std::vector<std::string> named;
      if (const auto *reg = std::get_if<client::RegisterTp>(&received->message)) {
        named.push_back(reg->tp_name);
      } else if (const auto *wait = std::get_if<client::AcceptWait>(&received->message)) {
        named = wait->tp_names;
      }
      if (!broker_.handle(id, std::move(*received))) {
        unreachable_.insert(id);
        return;
      }
      if (hello && !connection.greeted) {
        connection.greeted = true;
        const PeerCredentials &peer = connection.peer;
        log_limited("connection", "client " + std::to_string(id) + " connected: pid " +
                                      std::to_string(peer.pid) + ", uid " +
                                      std::to_string(peer.uid));
        control_.greeted(id, peer.uid);
      }
      if (!named.empty()) control_.tp_named(id, connection.peer.uid, named);
      if (unreachable_.count(id) != 0) return;
    }
  } catch (const client::ProtocolError &e) {
    unreachable(id, e.what());
  }
}

bool Server::serve_control(ClientId id, Connection &connection, client::Message &message) {
  if (connection.control) {
    unreachable(id, "a message after its control request");
    return true;
  }
  if (auto *report = std::get_if<client::StatsReport>(&message)) {
    if (!connection.greeted) return false;  // the broker drops it
    control_.report(id, std::move(*report));
    return true;
  }
  const auto *request = std::get_if<client::ControlRequest>(&message);
  if (request == nullptr) return false;
  if (connection.greeted) {
    unreachable(id, "a control request on a process's connection");
    return true;
  }
  connection.control = true;
  control_.request(id, caller_of(connection.channel->fd()), *request);
  return true;
}

void Server::flush_client(ClientId id, Connection &connection) {
  switch (connection.output.flush(connection.channel->fd())) {
    case OutputQueue::Flush::kDone:
      watch_writes(id, connection, false);
      break;
    case OutputQueue::Flush::kPending:
      watch_writes(id, connection, true);
      break;
    case OutputQueue::Flush::kBroken:
      unreachable_.insert(id);
      break;
  }
}

void Server::watch_writes(ClientId id, Connection &connection, bool on) {
  if (connection.waiting_to_write == on) return;
  connection.waiting_to_write = on;
  watch(epoll_.get(), EPOLL_CTL_MOD, connection.channel->fd(),
        on ? uint32_t{EPOLLIN | EPOLLOUT} : uint32_t{EPOLLIN}, id);
}

void Server::expire_silent_clients(Clock::time_point now) {
  while (!hello_deadlines_.empty() && hello_deadlines_.front().first <= now) {
    const ClientId id = hello_deadlines_.front().second;
    hello_deadlines_.pop_front();
    auto found = clients_.find(id);
    if (found != clients_.end() && found->second.control) {
      unreachable_.insert(id);  // a control connection has had its answer
    } else if (found != clients_.end() && !found->second.greeted &&
               unreachable_.insert(id).second) {
      log_limited("hello", "client " + std::to_string(id) + " dropped: no hello in time");
    }
  }
}

void Server::unreachable(ClientId id, const std::string &why) {
  if (!unreachable_.insert(id).second) return;
  log_limited("protocol", "client " + std::to_string(id) + " dropped: " + why);
}

void Server::drop(ClientId id) {
  unreachable_.erase(id);
  auto found = clients_.find(id);
  if (found == clients_.end()) return;
  const bool greeted = found->second.greeted;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.channel->fd(), nullptr);
  clients_.erase(found);
  broker_.disconnected(id);
  control_.disconnected(id);
  if (greeted) log_limited("connection", "client " + std::to_string(id) + " disconnected");
}

bool Server::send(ClientId client, const client::Message &message, int descriptor) {
  auto found = clients_.find(client);
  if (found == clients_.end() || unreachable_.count(client) != 0) return false;
  Connection &connection = found->second;
  OutputQueue::Push pushed;
  try {
    pushed = connection.output.push(message, descriptor);
  } catch (const client::ProtocolError &e) {
    unreachable(client, std::string("cannot send it a ") + client::message_name(message) +
                            " message: " + e.what());
    return false;
  }
  if (pushed == OutputQueue::Push::kNoDescriptor) {
    unreachable(client, std::string("no descriptor left to pass it a ") +
                            client::message_name(message) + ": " + std::strerror(errno));
    return false;
  }
  if (pushed == OutputQueue::Push::kFull) {
    log_limited("output", "client " + std::to_string(client) +
                              " dropped: it does not read what the node sends (" +
                              std::to_string(limits::kOutputBytesPerClient / 1024) + " KiB or " +
                              std::to_string(limits::kOutputDescriptorsPerClient) +
                              " descriptors queued)");
    unreachable_.insert(client);
    return false;
  }
  if (!connection.waiting_to_write) flush_client(client, connection);
  return unreachable_.count(client) == 0;
}

bool Server::verify_off_thread(ClientId client, std::function<bool()> check,
                               std::function<void(bool)> done) {
  return verifier_.submit(client, std::move(check), std::move(done));
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
  control_.tp_started(pid, tp.tp_name);
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
    log("TP " + log_safe(found->second) + " (pid " + std::to_string(pid) + ") " + how);
    broker_.instance_exited(found->second);
    control_.tp_exited(pid, status);
    children_.erase(found);
  }
}

void Server::reload() {
  if (!reader_) {
    log("SIGHUP: nothing to reload from");
    return;
  }
  std::string why;
  const std::optional<config::NodeConfig> fresh = reader_(why);
  if (!fresh) {
    log("reload refused, the definitions in use stay: " + log_safe(why));
    return;
  }
  config_.tps = fresh->tps;
  config_.side_info = fresh->side_info;
  config_.network.impair = fresh->network.impair;
  broker_.replace_definitions(*fresh);
  log("reloaded " + std::to_string(config_.tps.size()) + " invokable TPs and " +
      std::to_string(config_.side_info.size()) + " side information entries");
  if (network_ && network_->ee_network()) log(network_->ee_network()->reload_impairment());
}

void Server::log(const std::string &line) {
  control_.remember_log_line(line);
  daemon_log(line, log_to_stderr_);
}

void Server::log_limited(const std::string &kind, const std::string &line) {
  limited_log_.log(kind, line, Clock::now());
}

}  // namespace snanode::daemon
