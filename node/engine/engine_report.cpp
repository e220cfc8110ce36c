// What the engine holds, as the node daemon's status shows it: the process's
// TPs, its conversations with their state and the bytes each way, and the
// sessions its allocations hold.  The daemon is not on the data path of
// conversations between processes, so only the engines can say this.
#include <chrono>

#include "engine/engine.h"

namespace snanode::engine {
namespace {

const char *state_name(ConvState state) {
  switch (state) {
    case ConvState::kReset:
      return "reset";
    case ConvState::kSend:
      return "send";
    case ConvState::kReceive:
      return "receive";
    case ConvState::kConfirm:
      return "confirm";
    case ConvState::kConfirmSend:
      return "confirm-send";
    case ConvState::kConfirmDeallocate:
      return "confirm-deallocate";
    case ConvState::kSendPending:
      return "send-pending";
  }
  return "unknown";
}

}  // namespace

client::StatsReport Engine::report() const {
  client::StatsReport report;
  for (const auto &[id, tp] : tps_) report.tps.push_back({tp.name, tp.lu_name});
  const auto now = DeadlineTimer::Clock::now();
  for (const auto &[id, entry] : convs_) {
    const Conversation &conv = *entry.conv;
    auto tp = tps_.find(entry.tp);
    client::ConversationReport line;
    line.id = id;
    if (tp != tps_.end()) {
      line.local_tp = tp->second.name;
      line.local_lu = tp->second.lu_name;
    }
    line.partner_tp = entry.partner_tp;
    line.partner_lu = entry.partner_lu;
    line.mode = entry.mode;
    line.state = state_name(conv.state());
    line.bytes_sent = conv.bytes_sent();
    line.bytes_received = conv.bytes_received();
    line.age_ms = static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now - entry.since).count());
    report.conversations.push_back(std::move(line));
  }
  for (const auto &[session, count] : sessions_in_use_) {
    if (count == 0) continue;
    const size_t slash = session.find('/');
    report.sessions.push_back({session.substr(0, slash),
                               slash == std::string::npos ? "" : session.substr(slash + 1), count});
  }
  return report;
}

}  // namespace snanode::engine
