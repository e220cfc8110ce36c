// The node's status as snanodectl shows it: what the daemon knows itself
// (configuration, connected processes, the broker's queues, the TPs it
// started) joined with what each process's engine reports (its TPs,
// conversations and sessions), as sections of a Table.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "client/daemon_protocol.h"
#include "config/node_config.h"
#include "daemon/broker.h"
#include "daemon/control_table.h"

namespace snanode::daemon {

// One connected process and its engine's answer, if it gave one in time.
struct ProcessStatus {
  ClientId client = 0;
  PeerCredentials peer;
  std::vector<std::string> registered;  // TP names it accepts under
  std::optional<client::StatsReport> report;
};

// An invokable TP instance the daemon started.
struct StartedTp {
  std::string tp_name;
  pid_t pid = 0;
  Clock::time_point started;
  std::optional<int> exit_status;  // exited normally
  std::optional<int> signal;       // killed by a signal
};

struct NodeStatus {
  const config::NodeConfig *config = nullptr;
  pid_t daemon_pid = 0;
  Clock::duration uptime{};
  std::string socket_path;
  bool network = false;
  // The network's own sections (links, RTP connections, LU-LU sessions), as
  // the network node describes them; empty without a network.
  Table network_sections;
  std::vector<ProcessStatus> processes;
  BrokerSnapshot broker;
  std::vector<StartedTp> started;
  Clock::time_point now;
};

// What a command shows.
enum class StatusView { kAll, kTps, kConversations, kSessions };

// An answer must fit the output queue of the client it goes to (limits.h):
// lists are cut to `max_rows` rows each, and the node section counts the rows
// left out.  The caller lowers `max_rows` until the rendered answer fits
// kMaxAnswerBytes.
inline constexpr size_t kMaxListedRows = 1000;
inline constexpr size_t kMaxAnswerBytes = 192 * 1024;

// The `node` section comes first in every view.
Table status_table(const NodeStatus &status, StatusView view, size_t max_rows);

}  // namespace snanode::daemon
