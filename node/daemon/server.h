// The daemon's listening socket and its event loop: one thread serves every
// connected process, the signals (stop, child exits), the attach time-outs
// and the results of password verifications, which run on threads of their
// own.  Nothing a client does or fails to do blocks the loop: sends go
// through a bounded queue per client, and what a client may hold is capped
// (limits.h).
#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "client/message_channel.h"
#include "config/node_config.h"
#include "daemon/broker.h"
#include "daemon/control_service.h"
#include "daemon/log_rate_limit.h"
#include "daemon/network_node.h"
#include "daemon/output_queue.h"
#include "daemon/verifier_pool.h"

namespace snanode::daemon {

// Writes the daemon's log: snanoded.log in the node's log directory, and
// standard error as well while the daemon runs in the foreground.
void daemon_log(const std::string &line, bool to_stderr);

// The system's password check the configuration asks for (PAM), if any.
PasswordCheck system_password_check(const config::NodeConfig &config);

// Reads the configuration again for a reload: the new one, or nothing with
// `why` saying what is wrong with it.
using ConfigReader = std::function<std::optional<config::NodeConfig>(std::string &why)>;

class Server : private BrokerOutput {
 public:
  // `password_check` verifies users configured without a password; by
  // default the system's the configuration asks for.
  Server(const config::NodeConfig &config, std::string socket_path, bool log_to_stderr,
         PasswordCheck password_check);
  Server(const config::NodeConfig &config, std::string socket_path, bool log_to_stderr)
      : Server(config, std::move(socket_path), log_to_stderr, system_password_check(config)) {}
  ~Server() override;
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // Binds the socket, mode 0660 (owner and group may use the node), after
  // removing a stale socket no daemon answers on.  False with `error` set.
  bool listen(std::string &error);

  // Joins the node to the network over `link_fd`, or over Enterprise Extender
  // when it is -1 (see network_node.h); only with [network] enabled.  Call
  // before run().  False with `error` set when the Enterprise Extender
  // endpoint cannot be opened (its address is not this host's, a port is
  // taken, the impairment cannot be read): a node configured for the network
  // does not run without it.
  bool attach_link(int link_fd, const std::string &capture_file, std::string &error);

  // SIGHUP makes the daemon take the invokable TPs and side information of
  // what `reader` returns; without a reader SIGHUP is only logged.
  void set_config_reader(ConfigReader reader) { reader_ = std::move(reader); }

  // Serves until SIGTERM or SIGINT; these, SIGHUP and SIGCHLD must be
  // blocked in every thread.  Returns the exit status.
  int run();

 private:
  struct Connection {
    std::unique_ptr<client::MessageChannel> channel;
    OutputQueue output;
    PeerCredentials peer;
    bool greeted = false;
    bool waiting_to_write = false;  // polled for room to write
    bool control = false;           // snanodectl's: one request, no hello
  };

  // BrokerOutput
  bool send(ClientId client, const client::Message &message, int descriptor) override;
  bool launch(const config::InvokableTp &tp, const std::string &lu_alias) override;
  void log(const std::string &line) override;
  void log_limited(const std::string &kind, const std::string &line) override;
  bool verify_off_thread(ClientId client, std::function<bool()> check,
                         std::function<void(bool)> done) override;

  void dispatch(uint64_t token, uint32_t events, bool &stopping);
  void accept_client();
  // Out of descriptors: takes the waiting connection with the reserve
  // descriptor, closes it, and rests the listening socket a while.
  void shed_connection(int error);
  void set_accepting(bool on);
  void serve_client(ClientId id);
  // Messages for the control service rather than the broker; true when taken.
  bool serve_control(ClientId id, Connection &connection, client::Message &message);
  void flush_client(ClientId id, Connection &connection);
  void watch_writes(ClientId id, Connection &connection, bool on);
  void expire_silent_clients(Clock::time_point now);
  // How long the loop may wait for events: nothing when no deadline is set.
  std::optional<Clock::duration> next_wait() const;
  // epoll_wait for at most `wait`, to the microsecond where the kernel can.
  int wait_for_events(epoll_event *events, int size, std::optional<Clock::duration> wait);
  void unreachable(ClientId id, const std::string &why);
  void drop(ClientId id);
  void reap_children();
  void reload();

  config::NodeConfig config_;
  std::string socket_path_;
  bool log_to_stderr_;
  client::UniqueFd listener_;
  client::UniqueFd reserve_;  // spent to shed a connection when none is left
  client::UniqueFd signals_;
  client::UniqueFd epoll_;
  Broker broker_;
  ControlService control_;
  LogRateLimit limited_log_;
  ClientId next_client_ = 1;
  std::map<ClientId, Connection> clients_;
  std::deque<std::pair<Clock::time_point, ClientId>> hello_deadlines_;  // oldest first
  std::set<ClientId> unreachable_;
  std::map<pid_t, std::string> children_;  // started TP instances by pid
  std::optional<Clock::time_point> accept_resumes_;
  bool precise_wait_ = true;  // epoll_pwait2 works here (else whole milliseconds)
  bool out_of_descriptors_ = false;
  std::unique_ptr<NetworkNode> network_;  // with a link only
  ConfigReader reader_;
  VerifierPool verifier_;  // last: its completions refer to the broker
};

}  // namespace snanode::daemon
