#include "daemon/control_status.h"

#include <pwd.h>

#include <map>

namespace snanode::daemon {
namespace {

uint64_t millis(Clock::duration d) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
  return ms < 0 ? 0 : static_cast<uint64_t>(ms);
}

std::string user_name(uid_t uid) {
  passwd entry{};
  passwd *found = nullptr;
  char buffer[1024];
  if (::getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
    return found->pw_name;
  }
  return std::to_string(uid);
}

std::string joined(const std::vector<std::string> &names) {
  std::string out;
  for (const auto &name : names) out += (out.empty() ? "" : ",") + name;
  return out;
}

// Sessions in use by partner LU and mode, summed over the processes that
// answered (each counts the conversations it allocated).
std::map<std::pair<std::string, std::string>, uint64_t> sessions_in_use(const NodeStatus &status) {
  std::map<std::pair<std::string, std::string>, uint64_t> in_use;
  for (const auto &process : status.processes) {
    if (!process.report) continue;
    for (const auto &use : process.report->sessions)
      in_use[{use.partner_lu, use.mode}] += use.in_use;
  }
  return in_use;
}

uint64_t session_limit(const config::NodeConfig &config, const std::string &mode) {
  for (const auto &m : config.modes) {
    if (m.name == mode) return m.session_limit;
  }
  return 0;
}

Section node_section(const NodeStatus &status, size_t omitted) {
  size_t unanswered = 0;
  for (const auto &process : status.processes) unanswered += process.report ? 0 : 1;
  Row row;
  row.add("name", status.config->node_name)
      .add("pid", static_cast<int64_t>(status.daemon_pid))
      .add("uptime_s", millis(status.uptime) / 1000)
      .add("socket", status.socket_path)
      .add("network", status.network)
      .add("processes", uint64_t{status.processes.size()})
      .add("processes_not_answering", uint64_t{unanswered})
      .add("rows_omitted", uint64_t{omitted});
  return {"node", true, {row}};
}

Section process_section(const NodeStatus &status) {
  Section section{"processes", false, {}};
  for (const auto &process : status.processes) {
    Row row;
    row.add("pid", static_cast<int64_t>(process.peer.pid))
        .add("uid", static_cast<uint64_t>(process.peer.uid))
        .add("user", user_name(process.peer.uid))
        .add("answered", process.report.has_value())
        .add("trace", process.report ? FieldValue{process.report->trace_on} : FieldValue{})
        .add("registered", joined(process.registered));
    section.rows.push_back(std::move(row));
  }
  return section;
}

Section tp_section(const NodeStatus &status) {
  Section section{"tps", false, {}};
  for (const auto &process : status.processes) {
    if (!process.report) continue;
    for (const auto &tp : process.report->tps) {
      Row row;
      row.add("name", tp.name)
          .add("pid", static_cast<int64_t>(process.peer.pid))
          .add("uid", static_cast<uint64_t>(process.peer.uid))
          .add("user", user_name(process.peer.uid))
          .add("local_lu", tp.local_lu);
      section.rows.push_back(std::move(row));
    }
  }
  return section;
}

Section conversation_section(const NodeStatus &status) {
  Section section{"conversations", false, {}};
  for (const auto &process : status.processes) {
    if (!process.report) continue;
    for (const auto &conv : process.report->conversations) {
      Row row;
      row.add("pid", static_cast<int64_t>(process.peer.pid))
          .add("id", uint64_t{conv.id})
          .add("local_tp", conv.local_tp)
          // An Attach names the TP it starts, never the one that sent it:
          // on the attached side the partner TP is unknown (null).
          .add("partner_tp", conv.partner_tp.empty() ? FieldValue{} : FieldValue{conv.partner_tp})
          .add("local_lu", conv.local_lu)
          .add("partner_lu", conv.partner_lu)
          .add("mode", conv.mode)
          .add("state", conv.state)
          .add("bytes_sent", conv.bytes_sent)
          .add("bytes_received", conv.bytes_received)
          .add("age_ms", uint64_t{conv.age_ms});
      section.rows.push_back(std::move(row));
    }
  }
  return section;
}

Section session_section(const NodeStatus &status) {
  Section section{"sessions", false, {}};
  for (const auto &[key, count] : sessions_in_use(status)) {
    Row row;
    row.add("partner_lu", key.first)
        .add("mode", key.second)
        .add("in_use", count)
        .add("session_limit", session_limit(*status.config, key.second));
    section.rows.push_back(std::move(row));
  }
  return section;
}

void add_configuration(const NodeStatus &status, Table &table) {
  const config::NodeConfig &config = *status.config;
  Section locals{"local_lus", false, {}};
  for (const auto &lu : config.local_lus) {
    locals.rows.push_back(
        Row{}.add("alias", lu.alias).add("lu_name", lu.lu_name).add("default", lu.is_default));
  }
  Section partners{"partner_lus", false, {}};
  for (const auto &lu : config.partner_lus) {
    partners.rows.push_back(Row{}
                                .add("alias", lu.alias)
                                .add("lu_name", lu.lu_name)
                                .add("owning_cp", lu.owning_cp)
                                .add("host", lu.host));
  }
  // Sessions in use per mode over all partners.
  std::map<std::string, uint64_t> per_mode;
  for (const auto &[key, count] : sessions_in_use(status)) per_mode[key.second] += count;
  Section modes{"modes", false, {}};
  for (const auto &mode : config.modes) {
    modes.rows.push_back(Row{}
                             .add("name", mode.name)
                             .add("session_limit", uint64_t{mode.session_limit})
                             .add("sessions_in_use", per_mode[mode.name]));
  }
  table.push_back(std::move(locals));
  table.push_back(std::move(partners));
  table.push_back(std::move(modes));
}

Section queue_section(const NodeStatus &status) {
  Section section{"attach_queue", false, {}};
  for (const auto &attach : status.broker.attaches) {
    section.rows.push_back(Row{}
                               .add("tp_name", attach.tp_name)
                               .add("mode", attach.mode)
                               .add("partner_lu", attach.partner_lu)
                               .add("expires_in_ms", millis(attach.left)));
  }
  return section;
}

Section accept_section(const NodeStatus &status) {
  std::map<ClientId, pid_t> pids;
  for (const auto &process : status.processes) pids[process.client] = process.peer.pid;
  Section section{"waiting_accepts", false, {}};
  for (const auto &accept : status.broker.accepts) {
    section.rows.push_back(Row{}
                               .add("pid", static_cast<int64_t>(pids[accept.client]))
                               .add("tp_names", joined(accept.tp_names)));
  }
  return section;
}

Section started_section(const NodeStatus &status) {
  Section section{"started_tps", false, {}};
  for (const auto &tp : status.started) {
    const auto number = [](const std::optional<int> &v) {
      return v ? FieldValue{static_cast<int64_t>(*v)} : FieldValue{};
    };
    section.rows.push_back(Row{}
                               .add("tp_name", tp.tp_name)
                               .add("pid", static_cast<int64_t>(tp.pid))
                               .add("running", !tp.exit_status && !tp.signal)
                               .add("exit_status", number(tp.exit_status))
                               .add("signal", number(tp.signal))
                               .add("age_ms", millis(status.now - tp.started)));
  }
  return section;
}

}  // namespace

Table status_table(const NodeStatus &status, StatusView view, size_t max_rows) {
  Table table;
  switch (view) {
    case StatusView::kTps:
      table.push_back(tp_section(status));
      break;
    case StatusView::kConversations:
      table.push_back(conversation_section(status));
      break;
    case StatusView::kSessions:
      table.push_back(session_section(status));
      table.insert(table.end(), status.network_sections.begin(), status.network_sections.end());
      break;
    case StatusView::kAll:
      add_configuration(status, table);
      table.push_back(process_section(status));
      table.push_back(tp_section(status));
      table.push_back(conversation_section(status));
      table.push_back(queue_section(status));
      table.push_back(accept_section(status));
      table.push_back(started_section(status));
      table.insert(table.end(), status.network_sections.begin(), status.network_sections.end());
      break;
  }
  size_t omitted = 0;
  for (Section &section : table) {
    if (section.rows.size() <= max_rows) continue;
    omitted += section.rows.size() - max_rows;
    section.rows.resize(max_rows);
  }
  table.insert(table.begin(), node_section(status, omitted));
  return table;
}

}  // namespace snanode::daemon
