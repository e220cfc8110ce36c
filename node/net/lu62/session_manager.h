// The LU-LU sessions of one local LU: binding them (as primary) and accepting
// BINDs (as secondary) within the limits CNOS set per partner LU and mode,
// giving sessions to allocations in arrival order (as contention winner at
// once, as loser after a granted bid), and routing each unit that arrives to
// its session.  No I/O and no threads: the daemon hands in units and calls
// on_timer() by next_deadline().
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "net/lu62/cnos_service.h"
#include "net/lu62/session.h"
#include "net/lu62/transport.h"

namespace snanode::net::lu62 {

enum class AllocationOutcome : uint8_t {
  kAllocated,
  kTimedOut,     // no session became free in time
  kModeUnknown,  // not configured here
  kNoSessions,   // the partner allows no sessions on the mode (CNOS, or its BIND refusal)
  kPathLost,     // the path to the partner failed before a session was found
};

// Called once: with the session (its bracket ours to begin) when allocated,
// else with null and why.  The caller attaches its SessionUser to the session.
using AllocateCallback = std::function<void(Session *session, AllocationOutcome outcome)>;

// The conversation layer, for brackets the partner begins.
class IncomingConversations {
 public:
  virtual ~IncomingConversations() = default;
  // Attach a SessionUser to `session` to take the partner's first chain; a
  // session left without one ends with −RSP and UNBIND.
  virtual void on_partner_bracket(Session &session) = 0;
};

// Sees every unit of a session's brackets as the session transmits it or
// before the session takes it.  Units of no session (BIND, its answer) pass
// unseen.
class UnitObserver {
 public:
  virtual ~UnitObserver() = default;
  virtual void on_unit(Session &session, bool sent, ByteSpan biu) = 0;
};

struct LocalLuConfig {
  std::string lu_name;  // network-qualified, NETID.LU
  // This LU's half of every session address it assigns as primary, so the two
  // sides of a link never pick the same one.
  std::array<uint8_t, 4> address_prefix{};
  std::vector<ModeConfig> modes;
  std::chrono::milliseconds allocation_timeout{30000};
};

class SessionManager : public SessionHost, public CnosOwner {
 public:
  SessionManager(LocalLuConfig config, BiuTransport &transport, const Clock &clock,
                 IncomingConversations &incoming);
  ~SessionManager() override;

  void allocate_session(const std::string &partner, const std::string &mode,
                        AllocateCallback callback);
  // Runs CNOS for `mode` with `partner` (allocate_session also starts it when
  // the mode has no limits yet).
  void change_session_limits(const std::string &partner, const std::string &mode);
  // Ends the free sessions of `partner` and `mode` with a normal UNBIND.
  void deactivate_free_sessions(const std::string &partner, const std::string &mode);

  // The path to `partner` failed: every session with it ends without UNBIND
  // (each conversation on one hears `sense`), waiting allocations fail, and
  // the session limits are negotiated again before the next session.
  void on_path_lost(const std::string &partner, uint32_t sense);

  // One unit from the transport; `from` is the partner LU the daemon routes
  // replies to when the unit is a BIND.
  void on_unit_received(const std::string &from, ByteSpan biu);
  void on_timer();
  std::optional<Clock::time_point> next_deadline() const;

  SessionLimits limits(const std::string &partner, const std::string &mode) const;
  std::vector<Session *> sessions(const std::string &partner, const std::string &mode) const;
  size_t queued_allocations(const std::string &partner, const std::string &mode) const;
  // Sessions held, with those whose end is not complete or not yet swept.
  size_t held_sessions() const { return sessions_.size(); }
  const LocalLuConfig &config() const { return config_; }
  // Null (the default) costs the units nothing.
  void set_unit_observer(UnitObserver *observer) { observer_ = observer; }

 private:
  using Key = std::pair<std::string, std::string>;  // partner, mode
  struct Allocation {
    AllocateCallback callback;
    Clock::time_point deadline;
  };
  struct Counts {
    uint16_t total = 0;
    uint16_t local_winners = 0;
    uint16_t partner_winners = 0;
    uint16_t bids = 0;
    uint16_t pending_binds = 0;
  };
  struct ModeState {
    SessionLimits limits;
    bool limits_known = false;
    bool cnos_running = false;
    std::deque<Allocation> queue;
    // Every active session of the mode between brackets, and perhaps some
    // that have begun one since: where serve() looks for a free session.
    std::set<SessionAddress> between;
    // The active sessions and the BINDs awaiting their response (no bids),
    // kept as they come and go: binding a session must not cost more the
    // more sessions the LU holds.  A session counts until it tells of its
    // end.
    Counts held;
    // Sessions whose bid awaits its result (at most as many as allocations
    // waited); count() takes those still bidding.
    std::vector<const Session *> bidding;
  };
  struct PendingBind {
    Key key;
    Bind sent;
  };

  // SessionHost
  void transmit(Session &session, ByteSpan biu) override;
  void transmit_buffer(Session &session, Bytes &&biu) override;
  void on_bracket_free(Session &session) override;
  void on_partner_bracket(Session &session) override;
  void on_bid_result(Session &session, bool granted) override;
  void on_ended(Session &session, uint32_t sense) override;
  // CnosOwner
  const ModeConfig *find_mode(std::string_view name) const override;
  void on_cnos_done(const std::string &partner, const std::string &mode,
                    const SessionLimits &limits) override;
  void on_cnos_failed(const std::string &partner, const std::string &mode) override;
  bool wins_cnos_race(const std::string &partner, const std::string &mode) const override;

  ModeState &state(const Key &key);
  Counts count(const Key &key) const;
  // One session or BIND more (`delta` 1) or less (-1) in `counts`.
  static void tally(Counts &counts, bool local_winner, int delta);
  void tally_bind(const PendingBind &pending, int delta);
  void serve(const Key &key);
  bool bind_new(const Key &key);
  void give(Session &session, ModeState &state);
  void fail_queue(ModeState &state, AllocationOutcome outcome);
  bool may_accept(const Key &key, bool partner_wins) const;
  void on_bind(const std::string &from, const BiuView &unit);
  void on_bind_response(const BiuView &unit);
  void refuse_bind(const std::string &to, const BiuView &unit, uint32_t sense);
  Session &add_session(const SessionAddress &address, const Key &key, const SessionParams &params);
  void sweep();

  LocalLuConfig config_;
  ModeConfig service_mode_;
  BiuTransport &transport_;
  const Clock &clock_;
  IncomingConversations &incoming_;
  std::map<Key, ModeState> modes_;
  std::map<SessionAddress, std::unique_ptr<Session>> sessions_;
  std::map<SessionAddress, PendingBind> pending_binds_;
  std::set<SessionAddress> bid_refused_;  // wait for the partner's bracket to end
  std::set<SessionAddress> ending_;       // told of their end, not yet dropped
  std::vector<std::unique_ptr<CnosConversation>> cnos_;
  uint32_t next_address_ = 0;
  UnitObserver *observer_ = nullptr;
};

}  // namespace snanode::net::lu62
