// One LU 6.2 half-session on an active (or activating) LU-LU session: its
// sequence numbers, chain and bracket state, the bid of a contention loser,
// pacing in both directions, and the checks that turn a partner's protocol
// error into the end of this session alone.
//
// The conversation on the session (a SessionUser) sends normal-flow requests
// and responses through it and gets what the partner sends.  The session
// itself sets BB on the first request of a bracket it may begin, sets PI as
// pacing asks, and ends the bracket on CEB (at once, or at the positive
// response when the CEB chain asked for a definite one).
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "net/formats/biu.h"
#include "net/formats/bind.h"
#include "net/lu62/pacing.h"
#include "net/lu62/session_params.h"

namespace snanode::net::lu62 {

class Session;

// The conversation using a session during one bracket.
class SessionUser {
 public:
  virtual ~SessionUser() = default;
  // A normal-flow request: FMD, or a LUSTAT carrying indicators only.
  virtual void on_request(Session &session, const Rh &rh, ByteSpan ru, uint16_t snf) = 0;
  // A response to one of this conversation's requests.
  virtual void on_response(Session &session, const Rh &rh, ByteSpan ru, uint16_t snf) = 0;
  virtual void on_request_to_send(Session &session) = 0;
  // Requests held by pacing have all gone out.
  virtual void on_send_window_open(Session &) {}
  // The session ended under the conversation; `sense` says why (0: normal
  // UNBIND).  The session must not be used after this.
  virtual void on_session_ended(Session &session, uint32_t sense) = 0;
};

// What the session needs from its owner (the session manager).
class SessionHost {
 public:
  virtual ~SessionHost() = default;
  virtual void transmit(Session &session, ByteSpan biu) = 0;
  // The same from a buffer the host may keep (see BiuTransport).
  virtual void transmit_buffer(Session &session, Bytes &&biu) { transmit(session, biu); }
  virtual void on_bracket_free(Session &session) = 0;
  // The partner began a bracket (an accepted bid or BB); the host attaches a user.
  virtual void on_partner_bracket(Session &session) = 0;
  virtual void on_bid_result(Session &session, bool granted) = 0;
  virtual void on_ended(Session &session, uint32_t sense) = 0;
};

enum class SessionState : uint8_t { kActive, kUnbinding, kEnded };
enum class Bracket : uint8_t { kBetween, kBidding, kLocal, kPartner };

class Session {
 public:
  Session(SessionHost &host, const SessionAddress &address, std::string partner, std::string mode,
          const SessionParams &params);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const SessionAddress &address() const { return address_; }
  const std::string &partner() const { return partner_; }
  const std::string &mode() const { return mode_; }
  const SessionParams &params() const { return params_; }
  SessionState state() const { return state_; }
  Bracket bracket() const { return bracket_; }
  bool in_use() const { return user_ != nullptr || bracket_ != Bracket::kBetween; }
  // Free for a new conversation: active, between brackets, nobody attached.
  bool free() const { return state_ == SessionState::kActive && !in_use(); }

  void attach_user(SessionUser *user) { user_ = user; }
  SessionUser *user() const { return user_; }

  // Sends one normal-flow request (category FMD, or DFC for LUSTAT).  Checks
  // the RU against the negotiated size and the chain state, sets BB when it
  // begins the bracket, and holds it while the pacing window is closed.
  Status send_request(Rh rh, ByteSpan ru);
  // The same for an RU the caller gives up: held, it is kept without a copy.
  Status send_request(Rh rh, Bytes &&ru);
  // Answers the partner's request number `snf` (whose RH was `request`).
  Status send_response(const Rh &request, uint16_t snf, uint32_t negative_sense = 0);
  // Request_To_Send (SIG, expedited).
  void send_request_to_send();
  // A unit as the conversation layer produces it: a request goes out as by
  // send_request (or SIG when expedited); a response answers the latest
  // request received on the normal flow, its sense taken from the RU; the
  // response to a SIG is the session's own and is dropped here.
  Status send_unit(const Rh &rh, Bytes ru, bool expedited);
  // The layer above can (or cannot) take more: pacing responses wait for it.
  void set_receive_ready(bool ready);
  size_t held_requests() const { return held_.size(); }

  // A contention loser asks the winner for the next bracket: a LUSTAT with BB
  // that asks for a definite response.  Only between brackets.
  bool bid();
  // Ends this session with UNBIND of `type`; a sense of 0 for a normal end.
  void unbind(uint8_t type, uint32_t sense);
  // The partner broke the protocol: answer `request` (if any) negatively, then
  // UNBIND with the same sense.
  void fail(uint32_t sense, const BiuView *request = nullptr);
  // The path beneath the session failed: it ends at once, without UNBIND
  // (nothing would carry it), and its conversation hears `sense`.
  void lost(uint32_t sense);
  // The conversation is done with a bracket it holds but has not used (or is
  // between brackets): ends it with a LUSTAT carrying CEB when begun.
  void release();

  // A unit for this session, from the manager (BIND and its responses are
  // handled there).
  void on_unit(const BiuView &unit);

 private:
  // `owned`, when given, holds `ru` and may be taken over.
  Status send_request(Rh rh, ByteSpan ru, Bytes *owned);
  void transmit(const Fid5Th &th, const Rh &rh, ByteSpan ru);
  void transmit_normal_request(Rh rh, ByteSpan ru);
  void flush_held();
  void send_pacing_response(uint16_t snf);
  void end_bracket();
  void end(uint32_t sense);
  void answer(const Rh &request, bool expedited, uint16_t snf, std::optional<uint8_t> code,
              uint32_t sense);
  void on_request(const BiuView &unit, RuKind kind);
  void on_normal_response(const BiuView &unit);
  void on_expedited(const BiuView &unit, RuKind kind);
  // Whether BB on a partner's request may be accepted; answers it if not.
  bool accept_partner_bracket(const BiuView &unit, bool is_bid);

  SessionHost &host_;
  SessionAddress address_;
  std::string partner_;
  std::string mode_;
  SessionParams params_;
  SessionState state_ = SessionState::kActive;
  Bracket bracket_ = Bracket::kBetween;
  SessionUser *user_ = nullptr;
  SendPacer send_pacer_;
  ReceivePacer receive_pacer_;

  uint16_t send_snf_ = 0;  // last normal-flow request sent
  uint16_t receive_snf_ = 0;
  uint16_t send_expedited_snf_ = 0;
  bool sending_chain_ = false;
  bool receiving_chain_ = false;
  bool discarding_chain_ = false;  // the rest of a chain refused by a bid reject
  uint32_t brackets_ended_ = 0;
  bool owe_rtr_ = false;  // a bid was refused: RTR when this bracket ends
  std::optional<uint16_t> bid_snf_;
  struct ReceivedRequest {
    Rh rh;
    uint16_t snf = 0;
  };
  std::optional<ReceivedRequest> last_request_;  // what send_unit's responses answer
  // The CEB chain that ends the bracket once its definite response is given.
  std::optional<uint16_t> local_ceb_snf_;
  std::optional<uint16_t> partner_ceb_snf_;

  struct HeldRequest {
    Rh rh;
    Bytes ru;
  };
  std::deque<HeldRequest> held_;
};

}  // namespace snanode::net::lu62
