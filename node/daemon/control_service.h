// The daemon's answers to snanodectl: control requests on the node's socket.
//
// A control connection sends one ControlRequest instead of a hello and gets
// its answer as ControlReply pieces.  Read-only commands (status and the
// lists, log) are for anyone who may connect; commands that change the node
// (trace, capture, link) need root, the daemon's user or a member of the
// socket's group, as the kernel reports the caller (SO_PEERCRED).
//
// The daemon is not on the data path of conversations between processes, so
// for the status it asks every connected process (StatsQuery) and its engine
// answers from what it holds.  The answer is sent once every process has
// answered or kStatsDeadline has passed, whichever is first; a process that
// did not answer is listed as such.  Nothing here ever waits: replies go
// through the client's bounded output queue like every other message.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/daemon_protocol.h"
#include "config/node_config.h"
#include "daemon/broker.h"
#include "daemon/control_status.h"

namespace snanode::daemon {

inline constexpr auto kStatsDeadline = std::chrono::milliseconds(500);
// Started TPs remembered for the status, and daemon log lines for `log`.
inline constexpr size_t kStartedTpsKept = 64;
inline constexpr size_t kLogLinesKept = 50;

// Reply status codes; snanodectl exits with them.
enum ControlStatus : uint8_t {
  kControlOk = 0,
  kControlRefused = 1,      // the caller may not change the node
  kControlBadRequest = 2,   // unknown command, another version
  kControlUnavailable = 3,  // nothing to act on (no network, no such process)
};

// Who sent a request, as the kernel reports it.
struct ControlCaller {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary
};
ControlCaller caller_of(int socket);

// Whether `caller` may change the node whose socket belongs to group
// `socket_group` and whose daemon runs as `daemon_uid`.
bool may_change_node(const ControlCaller &caller, uid_t daemon_uid, gid_t socket_group);

class ControlService {
 public:
  ControlService(const config::NodeConfig &config, const Broker &broker, BrokerOutput &output,
                 std::string socket_path, std::function<bool()> has_network);
  // Where the status gets the network's sections from (the network node,
  // once the daemon has one).
  void set_network_status(std::function<Table()> sections) {
    network_status_ = std::move(sections);
  }
  // What carries out `capture` and `link` commands (the network node): the
  // command's words, then each option given and its value.
  void set_network_control(
      std::function<std::pair<bool, std::string>(const std::vector<std::string> &)> control) {
    network_control_ = std::move(control);
  }

  void request(ClientId client, const ControlCaller &caller, const client::ControlRequest &request);
  // A process's answer to a stats query.
  void report(ClientId client, client::StatsReport &&report);
  // A process was welcomed / registered or waits for TP names: it gets the
  // trace the node or those TPs have on.
  void greeted(ClientId client, uid_t uid);
  void tp_named(ClientId client, uid_t uid, const std::vector<std::string> &tp_names);
  void disconnected(ClientId client);

  void expire(Clock::time_point now);
  std::optional<Clock::time_point> next_deadline() const;

  void tp_started(pid_t pid, const std::string &tp_name);
  // `status` as waitpid gives it.
  void tp_exited(pid_t pid, int status);
  void remember_log_line(const std::string &line);

 private:
  struct Command {
    std::vector<std::string> words;  // without options
    std::map<std::string, std::string> options;
    bool json = false;
  };
  struct Query {
    ClientId requester = 0;
    uint32_t request_id = 0;
    StatusView view = StatusView::kAll;
    bool json = false;
    Clock::time_point deadline;
    std::set<ClientId> awaited;
    std::map<ClientId, client::StatsReport> reports;
  };

  void reply(ClientId client, uint32_t request_id, uint8_t status, const std::string &text);
  void start_query(ClientId client, uint32_t request_id, StatusView view, bool json);
  void finish(uint32_t query_id);
  void send_log(ClientId client, uint32_t request_id, bool json);
  // A trace switched on or off, and who did it.  A trace file is opened by
  // each process as its own user, so only root may name one for the
  // processes of another user; they trace into their own default file.
  struct TraceOrder {
    client::TraceControl control;
    uid_t set_by = 0;
  };

  // trace / capture / link; the caller may change the node.
  void change(ClientId client, uint32_t request_id, const ControlCaller &caller,
              const Command &command);
  void trace(ClientId client, uint32_t request_id, const ControlCaller &caller,
             const Command &command);
  // False when the file was left out for this process.
  bool send_trace(ClientId client, uid_t uid, const TraceOrder &order);

  const config::NodeConfig &config_;
  const Broker &broker_;
  BrokerOutput &output_;
  std::string socket_path_;
  std::function<bool()> has_network_;
  std::function<Table()> network_status_;
  std::function<std::pair<bool, std::string>(const std::vector<std::string> &)> network_control_;
  Clock::time_point started_ = Clock::now();
  uint32_t next_query_ = 1;
  std::map<uint32_t, Query> queries_;
  std::deque<StartedTp> started_tps_;
  std::deque<std::string> log_lines_;
  std::optional<TraceOrder> node_trace_;         // trace on for every process
  std::map<std::string, TraceOrder> tp_traces_;  // by TP name
};

}  // namespace snanode::daemon
