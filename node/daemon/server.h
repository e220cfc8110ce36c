// The daemon's listening socket and its poll loop: one thread serves every
// connected process, the signals (stop, child exits) and the attach
// time-outs.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <set>
#include <string>

#include "client/message_channel.h"
#include "config/node_config.h"
#include "daemon/broker.h"

namespace snanode::daemon {

// Writes the daemon's log: snanoded.log in the node's log directory, and
// standard error as well while the daemon runs in the foreground.
void daemon_log(const std::string &line, bool to_stderr);

class Server : private BrokerOutput {
 public:
  Server(const config::NodeConfig &config, std::string socket_path, bool log_to_stderr);
  ~Server() override;
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // Binds the socket, mode 0660 (owner and group may use the node), after
  // removing a stale socket no daemon answers on.  False with `error` set.
  bool listen(std::string &error);

  // Serves until SIGTERM or SIGINT; these and SIGCHLD must be blocked in
  // every thread.  Returns the exit status.
  int run();

 private:
  // BrokerOutput
  bool send(ClientId client, const client::Message &message, int descriptor) override;
  bool launch(const config::InvokableTp &tp, const std::string &lu_alias) override;
  void log(const std::string &line) override;

  void accept_client();
  void serve_client(ClientId id);
  void drop(ClientId id);
  void reap_children();

  config::NodeConfig config_;
  std::string socket_path_;
  bool log_to_stderr_;
  client::UniqueFd listener_;
  client::UniqueFd signals_;
  Broker broker_;
  ClientId next_client_ = 1;
  std::map<ClientId, std::unique_ptr<client::MessageChannel>> clients_;
  std::set<ClientId> unreachable_;
  std::map<pid_t, std::string> children_;  // started TP instances by pid
};

}  // namespace snanode::daemon
