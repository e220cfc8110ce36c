#include "net/lu62/session_manager.h"

#include <algorithm>

#include "net/formats/control_rus.h"
#include "net/formats/ebcdic_names.h"
#include "net/formats/sense_codes.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net::lu62 {
namespace {

// Offset of the PLU name in a BIND, for the sense of an unreadable one.
constexpr size_t kAtPluName = 27;

bool is_service_mode(const std::string &mode) {
  return mode == kServiceMode;
}

}  // namespace

SessionManager::SessionManager(LocalLuConfig config, BiuTransport &transport, const Clock &clock,
                               IncomingConversations &incoming)
    : config_(std::move(config)),
      service_mode_(service_mode_config()),
      transport_(transport),
      clock_(clock),
      incoming_(incoming) {}

SessionManager::~SessionManager() = default;

const ModeConfig *SessionManager::find_mode(std::string_view name) const {
  if (name == kServiceMode) return &service_mode_;
  for (const ModeConfig &mode : config_.modes) {
    if (mode.name == name) return &mode;
  }
  return nullptr;
}

SessionManager::ModeState &SessionManager::state(const Key &key) {
  ModeState &state = modes_[key];
  if (is_service_mode(key.second) && !state.limits_known) {
    state.limits = service_mode_limits();
    state.limits_known = true;
  }
  return state;
}

SessionManager::Counts SessionManager::count(const Key &key) const {
  auto it = modes_.find(key);
  if (it == modes_.end()) return {};
  Counts counts = it->second.held;
  // A bid ends unheard when the partner's bracket begins first.
  for (const Session *session : it->second.bidding) {
    if (session->state() == SessionState::kActive && session->bracket() == Bracket::kBidding) {
      ++counts.bids;
    }
  }
  return counts;
}

void SessionManager::tally(Counts &counts, bool local_winner, int delta) {
  counts.total = static_cast<uint16_t>(counts.total + delta);
  uint16_t &winners = local_winner ? counts.local_winners : counts.partner_winners;
  winners = static_cast<uint16_t>(winners + delta);
}

void SessionManager::tally_bind(const PendingBind &pending, int delta) {
  Counts &held = state(pending.key).held;
  tally(held, pending.sent.primary_contention_winner, delta);
  held.pending_binds = static_cast<uint16_t>(held.pending_binds + delta);
}

void SessionManager::allocate_session(const std::string &partner, const std::string &mode,
                                      AllocateCallback callback) {
  if (!find_mode(mode)) return callback(nullptr, AllocationOutcome::kModeUnknown);
  const Key key{partner, mode};
  ModeState &ms = state(key);
  if (ms.limits_known && ms.limits.limit == 0) {
    return callback(nullptr, AllocationOutcome::kNoSessions);
  }
  ms.queue.push_back({std::move(callback), clock_.now() + config_.allocation_timeout});
  serve(key);
}

void SessionManager::change_session_limits(const std::string &partner, const std::string &mode) {
  const ModeConfig *config = find_mode(mode);
  ModeState &ms = state({partner, mode});
  if (!config || is_service_mode(mode) || ms.cnos_running) return;
  ms.cnos_running = true;
  allocate_session(partner, std::string(kServiceMode),
                   [this, partner, config](Session *session, AllocationOutcome) {
                     if (!session) return on_cnos_failed(partner, config->name);
                     cnos_.push_back(CnosConversation::start(*this, *session, *config));
                   });
}

void SessionManager::on_cnos_done(const std::string &partner, const std::string &mode,
                                  const SessionLimits &limits) {
  const Key key{partner, mode};
  ModeState &ms = state(key);
  ms.limits = limits;
  ms.limits_known = true;
  ms.cnos_running = false;
  if (limits.limit == 0) return fail_queue(ms, AllocationOutcome::kNoSessions);
  serve(key);
}

void SessionManager::on_cnos_failed(const std::string &partner, const std::string &mode) {
  // Allocations stay queued until their time-out; a later allocation retries.
  state({partner, mode}).cnos_running = false;
}

bool SessionManager::wins_cnos_race(const std::string &partner, const std::string &mode) const {
  auto it = modes_.find({partner, mode});
  return it != modes_.end() && it->second.cnos_running && config_.lu_name < partner;
}

void SessionManager::fail_queue(ModeState &ms, AllocationOutcome outcome) {
  std::deque<Allocation> failed;
  failed.swap(ms.queue);
  for (Allocation &allocation : failed) allocation.callback(nullptr, outcome);
}

void SessionManager::give(Session &session, ModeState &ms) {
  Allocation allocation = std::move(ms.queue.front());
  ms.queue.pop_front();
  allocation.callback(&session, AllocationOutcome::kAllocated);
}

void SessionManager::serve(const Key &key) {
  ModeState &ms = state(key);
  if (ms.queue.empty()) return;
  if (!ms.limits_known) return change_session_limits(key.first, key.second);
  // Sessions this LU wins serve at once; on the others it bids, no more bids
  // than allocations waiting.  Only sessions between brackets can be free, and
  // no more are looked at than the allocations need: an allocation must not
  // cost more the more sessions are busy.
  std::vector<Session *> winners, losers;
  for (auto it = ms.between.begin(); it != ms.between.end() && winners.size() < ms.queue.size();) {
    auto found = sessions_.find(*it);
    if (found == sessions_.end() || found->second->state() != SessionState::kActive ||
        found->second->bracket() != Bracket::kBetween) {
      it = ms.between.erase(it);  // back by on_bracket_free or on_bid_result
      continue;
    }
    Session *session = found->second.get();
    const bool winner = session->params().local_winner;
    auto &pick = winner ? winners : losers;
    if (session->free() && pick.size() < ms.queue.size() &&
        (winner || !bid_refused_.count(session->address()))) {
      pick.push_back(session);
    }
    ++it;
  }
  for (Session *session : winners) {
    if (ms.queue.empty()) return;
    if (session->free()) give(*session, ms);  // unless taken by a callback re-entering
  }
  size_t bids = losers.empty() ? 0 : count(key).bids;
  for (Session *session : losers) {
    if (ms.queue.empty()) return;
    if (session->free() && bids < ms.queue.size() && session->bid()) {
      ++bids;
      ms.bidding.push_back(session);
    }
  }
  if (ms.queue.empty()) return;
  const Counts counts = count(key);
  size_t covered = counts.bids + counts.pending_binds;
  while (covered < ms.queue.size() && bind_new(key)) ++covered;
}

bool SessionManager::bind_new(const Key &key) {
  const ModeState &ms = state(key);
  const Counts counts = count(key);
  const SessionLimits &limits = ms.limits;
  bool primary_winner;
  // Winners of our own first, within what the partner's reserved winners
  // leave; then, if the partner has not bound its own, one it wins.
  if (counts.local_winners + limits.partner_winners < limits.limit) {
    primary_winner = true;
  } else if (counts.partner_winners < limits.partner_winners && counts.total < limits.limit) {
    primary_winner = false;
  } else {
    return false;
  }
  SessionAddress address{};
  std::copy(config_.address_prefix.begin(), config_.address_prefix.end(), address.begin());
  const uint32_t n = ++next_address_;
  for (int i = 0; i < 4; ++i) address[4 + i] = static_cast<uint8_t>(n >> (24 - 8 * i));
  Bind bind = build_bind(*find_mode(key.second), config_.lu_name, key.first, primary_winner);
  Bytes ru;
  if (!encode_bind(bind, ru)) return false;
  Rh rh;
  rh.category = RuCategory::kSc;
  rh.fi = true;
  rh.set_form(ResponseForm::kRqd1);
  Bytes biu;
  encode_biu(Fid5Th{.expedited = true, .snf = 1, .session_address = address}, rh, ru, biu);
  tally_bind(pending_binds_[address] = {key, std::move(bind)}, 1);
  transport_.send_biu(key.first, key.second, biu);
  return true;
}

bool SessionManager::may_accept(const Key &key, bool partner_wins) const {
  auto it = modes_.find(key);
  SessionLimits limits = is_service_mode(key.second) ? service_mode_limits() : SessionLimits{};
  if (it != modes_.end() && it->second.limits_known) limits = it->second.limits;
  const Counts counts = count(key);
  if (counts.total >= limits.limit) return false;
  return partner_wins ? counts.partner_winners + limits.local_winners < limits.limit
                      : counts.local_winners + limits.partner_winners < limits.limit;
}

void SessionManager::refuse_bind(const std::string &to, const BiuView &unit, uint32_t sense) {
  Bytes ru;
  encode_negative_response({sense, kRequestBind}, ru);
  Bytes biu;
  encode_biu(
      Fid5Th{.expedited = true, .snf = unit.th.snf, .session_address = unit.th.session_address},
      response_rh(unit.rh, true), ru, biu);
  transport_.send_biu(to, {}, biu);
}

void SessionManager::on_bind(const std::string &from, const BiuView &unit) {
  Result<Bind> bind = decode_bind(unit.ru);
  if (!bind) return refuse_bind(from, unit, bind.sense());
  std::optional<std::string> partner = name_from_ebcdic(bind->plu_name);
  if (!partner || partner->empty())
    return refuse_bind(from, unit, sense::bind_parameter_at(kAtPluName));
  const std::string mode = name_from_ebcdic(bind->mode_name).value_or("");
  const ModeConfig *config = find_mode(mode);
  if (!config) return refuse_bind(*partner, unit, sense::kBindModeNameUnknown);
  const SessionAddress &address = unit.th.session_address;
  if (sessions_.count(address) || pending_binds_.count(address)) {
    return refuse_bind(*partner, unit, decision::kSenseSessionAddressInUse);
  }
  const Key key{*partner, mode};
  if (!may_accept(key, bind->primary_contention_winner)) {
    return refuse_bind(*partner, unit, sense::kSessionLimitExceeded);
  }
  Result<Bind> image = negotiate_bind(bind.value(), *config);
  Bytes ru;
  if (!image) return refuse_bind(*partner, unit, image.sense());
  if (Status s = encode_bind(image.value(), ru); !s) return refuse_bind(*partner, unit, s.sense);
  Bytes biu;
  encode_biu(Fid5Th{.expedited = true, .snf = unit.th.snf, .session_address = address},
             response_rh(unit.rh, false), ru, biu);
  transport_.send_biu(*partner, mode, biu);
  add_session(address, key, params_from_bind(image.value(), false));
  serve(key);
}

void SessionManager::on_bind_response(const BiuView &unit) {
  auto it = pending_binds_.find(unit.th.session_address);
  PendingBind pending = std::move(it->second);
  pending_binds_.erase(it);
  tally_bind(pending, -1);
  ModeState &ms = state(pending.key);
  if (unit.rh.rti) {
    Result<NegativeResponse> rsp = decode_negative_response(unit.ru);
    const uint32_t sense = rsp ? rsp->sense : 0;
    // A full partner leaves the allocations waiting for a session it binds or
    // frees; anything else means this mode cannot work with this partner.
    if ((sense & 0xFFFF0000) != sense::kSessionLimitExceeded) {
      fail_queue(ms, AllocationOutcome::kNoSessions);
    }
    return;
  }
  Result<Bind> image = decode_bind(unit.ru);
  if (image) image = check_bind_response(pending.sent, image.value());
  const Bind &agreed = image ? image.value() : pending.sent;
  Session &session =
      add_session(unit.th.session_address, pending.key, params_from_bind(agreed, true));
  if (!image) return session.unbind(decision::kUnbindInvalidSessionParameters, image.sense());
  serve(pending.key);
}

Session &SessionManager::add_session(const SessionAddress &address, const Key &key,
                                     const SessionParams &params) {
  auto session = std::make_unique<Session>(*this, address, key.first, key.second, params);
  Session &ref = *session;
  sessions_[address] = std::move(session);
  ModeState &ms = state(key);
  ms.between.insert(address);
  tally(ms.held, params.local_winner, 1);
  return ref;
}

void SessionManager::on_unit_received(const std::string &from, ByteSpan bytes) {
  Result<BiuView> unit = decode_biu(bytes);
  if (!unit) {
    // A unit whose TH still names a session ends that session; one that
    // names none cannot be answered.
    ByteReader in(bytes);
    Result<Fid5Th> th = decode_th(in);
    if (th) {
      auto it = sessions_.find(th->session_address);
      if (it != sessions_.end()) it->second->fail(unit.sense());
    }
  } else if (classify(unit.value()) == RuKind::kBind) {
    on_bind(from, unit.value());
  } else if (unit->rh.response && unit->th.expedited &&
             pending_binds_.count(unit->th.session_address)) {
    on_bind_response(unit.value());
  } else if (auto it = sessions_.find(unit->th.session_address); it != sessions_.end()) {
    if (observer_) observer_->on_unit(*it->second, false, bytes);
    it->second->on_unit(unit.value());
  }
  sweep();
}

void SessionManager::on_path_lost(const std::string &partner, uint32_t sense) {
  for (auto &[key, ms] : modes_) {
    if (key.first != partner) continue;
    ms.limits_known = ms.cnos_running = false;
    fail_queue(ms, AllocationOutcome::kPathLost);
  }
  std::erase_if(pending_binds_, [&](const auto &entry) {
    const PendingBind &pending = entry.second;
    if (pending.key.first != partner) return false;
    tally_bind(pending, -1);
    return true;
  });
  for (auto &[address, session] : sessions_) {
    if (session->partner() == partner) session->lost(sense);
  }
  sweep();
}

void SessionManager::on_timer() {
  const Clock::time_point now = clock_.now();
  for (auto &[key, ms] : modes_) {
    std::deque<Allocation> expired;
    for (auto it = ms.queue.begin(); it != ms.queue.end();) {
      if (it->deadline <= now) {
        expired.push_back(std::move(*it));
        it = ms.queue.erase(it);
      } else {
        ++it;
      }
    }
    for (Allocation &allocation : expired) {
      allocation.callback(nullptr, AllocationOutcome::kTimedOut);
    }
  }
}

std::optional<Clock::time_point> SessionManager::next_deadline() const {
  std::optional<Clock::time_point> next;
  for (const auto &[key, ms] : modes_) {
    for (const Allocation &allocation : ms.queue) {
      if (!next || allocation.deadline < *next) next = allocation.deadline;
    }
  }
  return next;
}

void SessionManager::deactivate_free_sessions(const std::string &partner, const std::string &mode) {
  for (Session *session : sessions(partner, mode)) {
    if (session->free()) session->unbind(decision::kUnbindNormal, 0);
  }
}

SessionLimits SessionManager::limits(const std::string &partner, const std::string &mode) const {
  auto it = modes_.find({partner, mode});
  return it == modes_.end() ? SessionLimits{} : it->second.limits;
}

std::vector<Session *> SessionManager::sessions(const std::string &partner,
                                                const std::string &mode) const {
  std::vector<Session *> found;
  for (const auto &[address, session] : sessions_) {
    if (session->partner() == partner && session->mode() == mode &&
        session->state() == SessionState::kActive) {
      found.push_back(session.get());
    }
  }
  return found;
}

size_t SessionManager::queued_allocations(const std::string &partner,
                                          const std::string &mode) const {
  auto it = modes_.find({partner, mode});
  return it == modes_.end() ? 0 : it->second.queue.size();
}

void SessionManager::transmit(Session &session, ByteSpan biu) {
  if (observer_) observer_->on_unit(session, true, biu);
  transport_.send_biu(session.partner(), session.mode(), biu);
}

void SessionManager::transmit_buffer(Session &session, Bytes &&biu) {
  if (observer_) observer_->on_unit(session, true, biu);
  transport_.send_biu_buffer(session.partner(), session.mode(), std::move(biu));
}

void SessionManager::on_bracket_free(Session &session) {
  bid_refused_.erase(session.address());
  const Key key{session.partner(), session.mode()};
  state(key).between.insert(session.address());
  serve(key);
}

void SessionManager::on_partner_bracket(Session &session) {
  if (is_service_mode(session.mode())) {
    cnos_.push_back(CnosConversation::answer(*this, session));
  } else {
    incoming_.on_partner_bracket(session);
  }
}

void SessionManager::on_bid_result(Session &session, bool granted) {
  const Key key{session.partner(), session.mode()};
  ModeState &ms = state(key);
  std::erase(ms.bidding, &session);
  if (!granted) {
    // Wait for the winner's bracket on this session to end; meanwhile another
    // session may do.
    bid_refused_.insert(session.address());
    ms.between.insert(session.address());
    return serve(key);
  }
  if (ms.queue.empty()) return session.release();
  give(session, ms);
}

void SessionManager::on_ended(Session &session, uint32_t) {
  const Key key{session.partner(), session.mode()};
  // One that ends while unbinding tells again.
  if (ending_.insert(session.address()).second) {
    ModeState &ms = state(key);
    tally(ms.held, session.params().local_winner, -1);
    std::erase(ms.bidding, &session);
  }
  bid_refused_.erase(session.address());
  serve(key);
}

void SessionManager::sweep() {
  // Only the sessions that told of their end are looked at: this runs for
  // every unit, and a scan of all sessions would make each unit cost more
  // the more sessions there are.  One still unbinding stays until it ends.
  std::erase_if(ending_, [this](const SessionAddress &address) {
    auto it = sessions_.find(address);
    if (it == sessions_.end()) return true;
    if (it->second->state() != SessionState::kEnded) return false;
    sessions_.erase(it);
    return true;
  });
  // A finished CNOS conversation goes once no session still points at it.
  std::erase_if(cnos_, [this](const auto &conversation) {
    if (!conversation->done()) return false;
    return std::none_of(sessions_.begin(), sessions_.end(), [&](const auto &entry) {
      return entry.second->user() == conversation.get();
    });
  });
}

}  // namespace snanode::net::lu62
