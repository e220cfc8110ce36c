#include "daemon/control_service.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>

#include "core/log_files.h"
#include "daemon/log_text.h"

namespace snanode::daemon {
namespace {

// Options that take a value; every other word starting with "--" is a flag.
bool takes_value(const std::string &option) {
  return option == "--file" || option == "--tp" || option == "--pid";
}

std::string command_name(const std::vector<std::string> &words) {
  std::string name;
  for (const auto &word : words) name += (name.empty() ? "" : " ") + word;
  return name;
}

// The last `count` lines of a file of the log directory (a bounded read from
// its end, so a large log costs nothing).
std::vector<std::string> tail(const std::string &file_name, size_t count) {
  std::ifstream in(log_directory() + "/" + file_name, std::ios::binary);
  if (!in) return {};
  constexpr std::streamoff kTailBytes = 16 * 1024;
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  in.seekg(std::max<std::streamoff>(0, size - kTailBytes));
  std::vector<std::string> lines;
  std::string line;
  if (size > kTailBytes) std::getline(in, line);  // a partial first line
  while (std::getline(in, line)) lines.push_back(line);
  if (lines.size() > count) lines.erase(lines.begin(), lines.end() - static_cast<long>(count));
  return lines;
}

Section lines_section(std::string name, const std::vector<std::string> &lines) {
  Section section{std::move(name), false, {}};
  for (const auto &line : lines) section.rows.push_back(Row{}.add("line", line));
  return section;
}

}  // namespace

ControlCaller caller_of(int socket) {
  ControlCaller caller;
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    caller.uid = static_cast<uid_t>(-1);  // nobody: refused whatever it asks to change
    caller.gid = static_cast<gid_t>(-1);
    return caller;
  }
  caller.uid = peer.uid;
  caller.gid = peer.gid;
  gid_t groups[256];
  socklen_t groups_size = sizeof groups;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups, &groups_size) == 0) {
    caller.groups.assign(groups, groups + groups_size / sizeof(gid_t));
  }
  return caller;
}

bool may_change_node(const ControlCaller &caller, uid_t daemon_uid, gid_t socket_group) {
  if (caller.uid == 0 || caller.uid == daemon_uid || caller.gid == socket_group) return true;
  return std::find(caller.groups.begin(), caller.groups.end(), socket_group) != caller.groups.end();
}

ControlService::ControlService(const config::NodeConfig &config, const Broker &broker,
                               BrokerOutput &output, std::string socket_path,
                               std::function<bool()> has_network)
    : config_(config),
      broker_(broker),
      output_(output),
      socket_path_(std::move(socket_path)),
      has_network_(std::move(has_network)) {}

void ControlService::request(ClientId client, const ControlCaller &caller,
                             const client::ControlRequest &request) {
  const uint32_t id = request.request_id;
  if (request.version != client::kControlVersion) {
    reply(client, id, kControlBadRequest,
          "this snanodectl speaks control version " + std::to_string(request.version) +
              "; the node daemon serving " + socket_path_ + " speaks version " +
              std::to_string(client::kControlVersion) +
              ": use the snanodectl installed with this daemon\n");
    return;
  }
  Command command;
  for (size_t i = 0; i < request.words.size(); ++i) {
    const std::string &word = request.words[i];
    if (word == "--json") {
      command.json = true;
    } else if (takes_value(word) && i + 1 < request.words.size()) {
      command.options[word] = request.words[++i];
    } else if (word.rfind("--", 0) == 0) {
      reply(client, id, kControlBadRequest, "unknown option " + log_safe(word) + "\n");
      return;
    } else {
      command.words.push_back(word);
    }
  }
  const std::string name = command_name(command.words);
  if (name == "status") return start_query(client, id, StatusView::kAll, command.json);
  if (name == "tp list") return start_query(client, id, StatusView::kTps, command.json);
  if (name == "conversation list") {
    return start_query(client, id, StatusView::kConversations, command.json);
  }
  if (name == "session list") return start_query(client, id, StatusView::kSessions, command.json);
  if (name == "log") return send_log(client, id, command.json);
  // A changing command is its first two words; what follows names its object.
  const std::string verb =
      command.words.size() > 2 ? command.words[0] + " " + command.words[1] : name;
  const bool changes = verb == "trace on" || verb == "trace off" || verb == "capture on" ||
                       verb == "capture off" || verb == "link start" || verb == "link stop";
  if (!changes) {
    reply(client, id, kControlBadRequest, "unknown command: " + log_safe(name) + "\n");
    return;
  }
  struct stat socket_file {};
  const gid_t group =
      ::stat(socket_path_.c_str(), &socket_file) == 0 ? socket_file.st_gid : ::getegid();
  if (!may_change_node(caller, ::geteuid(), group)) {
    output_.log("control: refused " + log_safe(name) + " for uid " + std::to_string(caller.uid));
    reply(client, id, kControlRefused,
          "refused: " + name + " changes the node, which only root, the daemon's user (uid " +
              std::to_string(::geteuid()) + ") or a member of the socket's group (gid " +
              std::to_string(group) + ") may do; you are uid " + std::to_string(caller.uid) + "\n");
    return;
  }
  change(client, id, caller, command);
}

void ControlService::change(ClientId client, uint32_t request_id, const ControlCaller &caller,
                            const Command &command) {
  const std::string &what = command.words.front();
  if (what == "trace") return trace(client, request_id, caller, command);
  if (!has_network_() || !network_control_) {
    reply(client, request_id, kControlUnavailable, "no network configured\n");
    return;
  }
  // The network node takes the scope of a capture (--tp, --pid) after the words.
  std::vector<std::string> words = command.words;
  for (const auto &[option, value] : command.options) words.insert(words.end(), {option, value});
  const auto [done, text] = network_control_(words);
  output_.log("control: uid " + std::to_string(caller.uid) + ": " + log_safe(text));
  reply(client, request_id, done ? kControlOk : kControlUnavailable, text + "\n");
}

void ControlService::trace(ClientId client, uint32_t request_id, const ControlCaller &caller,
                           const Command &command) {
  TraceOrder order;
  order.control.on = command.words[1] == "on";
  order.set_by = caller.uid;
  if (auto file = command.options.find("--file"); file != command.options.end()) {
    order.control.file = file->second;
  }
  const auto tp = command.options.find("--tp");
  const auto pid = command.options.find("--pid");
  if (tp != command.options.end() && pid != command.options.end()) {
    reply(client, request_id, kControlBadRequest, "give --tp or --pid, not both\n");
    return;
  }
  const BrokerSnapshot snapshot = broker_.snapshot(Clock::now());
  std::map<ClientId, uid_t> targets;  // and their users
  std::string scope = "the node";
  const auto serves = [&](const std::vector<std::string> &names) {
    return std::find(names.begin(), names.end(), tp->second) != names.end();
  };
  if (tp != command.options.end()) {
    scope = "TP " + log_safe(tp->second);
    std::map<ClientId, uid_t> users;
    for (const auto &process : snapshot.processes) {
      users[process.client] = process.peer.uid;
      if (serves(process.tp_names)) targets[process.client] = process.peer.uid;
    }
    for (const auto &accept : snapshot.accepts) {
      if (serves(accept.tp_names)) targets[accept.client] = users[accept.client];
    }
    // Instances started later get it when they register the name.
    if (order.control.on) {
      tp_traces_[tp->second] = order;
    } else {
      tp_traces_.erase(tp->second);
    }
  } else if (pid != command.options.end()) {
    scope = "pid " + log_safe(pid->second);
    for (const auto &process : snapshot.processes) {
      if (std::to_string(process.peer.pid) == pid->second) {
        targets[process.client] = process.peer.uid;
      }
    }
    if (targets.empty()) {
      reply(client, request_id, kControlUnavailable,
            "no process with pid " + log_safe(pid->second) + " uses the node\n");
      return;
    }
  } else {
    for (const auto &process : snapshot.processes) targets[process.client] = process.peer.uid;
    node_trace_ = order.control.on ? std::optional(order) : std::nullopt;
    if (!order.control.on) tp_traces_.clear();
  }
  size_t without_file = 0;
  for (const auto &[target, uid] : targets) without_file += send_trace(target, uid, order) ? 0 : 1;
  const std::string file = order.control.file;
  std::string line = "trace " + std::string(order.control.on ? "on" : "off") + " for " + scope +
                     ": " + std::to_string(targets.size()) + " process(es) told" +
                     (file.empty() ? "" : ", file " + log_safe(file));
  if (without_file != 0) {
    line += "; " + std::to_string(without_file) +
            " of another user trace into their own file (only root names a file for them)";
  }
  output_.log("control: " + line);
  if (!command.json) {
    reply(client, request_id, kControlOk, line + "\n");
    return;
  }
  Row row;
  row.add("on", order.control.on)
      .add("scope", scope)
      .add("file", file)
      .add("processes_told", uint64_t{targets.size()})
      .add("processes_without_file", uint64_t{without_file});
  reply(client, request_id, kControlOk, render_json({Section{"trace", true, {row}}}));
}

bool ControlService::send_trace(ClientId client, uid_t uid, const TraceOrder &order) {
  if (order.control.file.empty() || order.set_by == 0 || order.set_by == uid) {
    output_.send(client, order.control, -1);
    return true;
  }
  client::TraceControl own_file = order.control;
  own_file.file.clear();
  output_.send(client, own_file, -1);
  return false;
}

void ControlService::greeted(ClientId client, uid_t uid) {
  if (node_trace_) send_trace(client, uid, *node_trace_);
}

void ControlService::tp_named(ClientId client, uid_t uid,
                              const std::vector<std::string> &tp_names) {
  for (const auto &name : tp_names) {
    if (auto found = tp_traces_.find(name); found != tp_traces_.end()) {
      send_trace(client, uid, found->second);
      return;
    }
  }
}

void ControlService::start_query(ClientId client, uint32_t request_id, StatusView view, bool json) {
  const uint32_t query_id = next_query_++;
  Query query{client, request_id, view, json, Clock::now() + kStatsDeadline, {}, {}};
  for (const auto &process : broker_.snapshot(Clock::now()).processes) {
    if (output_.send(process.client, client::StatsQuery{query_id}, -1)) {
      query.awaited.insert(process.client);
    }
  }
  const bool complete = query.awaited.empty();
  queries_.emplace(query_id, std::move(query));
  if (complete) finish(query_id);
}

void ControlService::report(ClientId client, client::StatsReport &&report) {
  auto found = queries_.find(report.query_id);
  if (found == queries_.end() || found->second.awaited.erase(client) == 0) return;  // too late
  found->second.reports[client] = std::move(report);
  if (found->second.awaited.empty()) finish(found->first);
}

void ControlService::finish(uint32_t query_id) {
  auto found = queries_.find(query_id);
  if (found == queries_.end()) return;
  Query query = std::move(found->second);
  queries_.erase(found);
  NodeStatus status;
  status.config = &config_;
  status.daemon_pid = ::getpid();
  status.now = Clock::now();
  status.uptime = status.now - started_;
  status.socket_path = socket_path_;
  status.network = has_network_();
  if (status.network && network_status_) status.network_sections = network_status_();
  status.broker = broker_.snapshot(status.now);
  for (const auto &process : status.broker.processes) {
    if (process.client == query.requester) continue;
    ProcessStatus entry{process.client, process.peer, process.tp_names, std::nullopt};
    if (auto report = query.reports.find(process.client); report != query.reports.end()) {
      entry.report = std::move(report->second);
    }
    status.processes.push_back(std::move(entry));
  }
  status.started.assign(started_tps_.begin(), started_tps_.end());
  std::string text;
  for (size_t rows = kMaxListedRows;; rows /= 2) {
    const Table table = status_table(status, query.view, rows);
    text = query.json ? render_json(table) : render_text(table);
    if (text.size() <= kMaxAnswerBytes || rows == 0) break;
  }
  reply(query.requester, query.request_id, kControlOk, text);
}

void ControlService::send_log(ClientId client, uint32_t request_id, bool json) {
  Table table;
  table.push_back(lines_section("daemon", {log_lines_.begin(), log_lines_.end()}));
  table.push_back(lines_section("problems", tail("problem.log", 20)));
  table.push_back(lines_section("audit", tail("audit.log", 20)));
  reply(client, request_id, kControlOk, json ? render_json(table) : render_text(table));
}

void ControlService::reply(ClientId client, uint32_t request_id, uint8_t status,
                           const std::string &text) {
  size_t at = 0;
  do {
    const size_t piece = std::min(client::kControlChunk, text.size() - at);
    const bool more = at + piece < text.size();
    if (!output_.send(client,
                      client::ControlReply{request_id, status, more, text.substr(at, piece)}, -1)) {
      return;  // a control client that does not read is dropped like any other
    }
    at += piece;
  } while (at < text.size());
}

void ControlService::disconnected(ClientId client) {
  for (auto it = queries_.begin(); it != queries_.end();) {
    if (it->second.requester == client) {
      it = queries_.erase(it);
      continue;
    }
    // A process that left is not waited for.
    const bool was_awaited = it->second.awaited.erase(client) != 0;
    const uint32_t id = it->first;
    ++it;
    if (was_awaited && queries_.at(id).awaited.empty()) finish(id);
  }
}

void ControlService::expire(Clock::time_point now) {
  std::vector<uint32_t> due;
  for (const auto &[id, query] : queries_) {
    if (query.deadline <= now) due.push_back(id);
  }
  for (const uint32_t id : due) finish(id);
}

std::optional<Clock::time_point> ControlService::next_deadline() const {
  std::optional<Clock::time_point> next;
  for (const auto &[id, query] : queries_) {
    if (!next || query.deadline < *next) next = query.deadline;
  }
  return next;
}

void ControlService::tp_started(pid_t pid, const std::string &tp_name) {
  if (started_tps_.size() == kStartedTpsKept) {
    // The oldest that has ended goes; running ones stay listed.
    auto ended = std::find_if(started_tps_.begin(), started_tps_.end(),
                              [](const StartedTp &tp) { return tp.exit_status || tp.signal; });
    started_tps_.erase(ended == started_tps_.end() ? started_tps_.begin() : ended);
  }
  started_tps_.push_back({tp_name, pid, Clock::now(), std::nullopt, std::nullopt});
}

void ControlService::tp_exited(pid_t pid, int status) {
  for (auto &tp : started_tps_) {
    if (tp.pid != pid || tp.exit_status || tp.signal) continue;
    if (WIFEXITED(status)) tp.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) tp.signal = WTERMSIG(status);
  }
}

void ControlService::remember_log_line(const std::string &line) {
  if (log_lines_.size() == kLogLinesKept) log_lines_.pop_front();
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  tm local{};
  ::localtime_r(&now, &local);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S ", &local);
  log_lines_.push_back(stamp + line);
}

}  // namespace snanode::daemon
