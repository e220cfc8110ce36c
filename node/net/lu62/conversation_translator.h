// One conversation on an LU 6.2 session: the engine's conversation frames on
// one side, the RH indicators and RUs of the session on the other.
//
// A TP's process talks to its partner through frames on a link (see
// engine/frame.h).  When the partner is on another node the daemon holds the
// link's other end and puts a ConversationTranslator between it and the
// session: frames the TP sends become units for the session, units the
// session receives become frames for the TP, so the TP's process is the same
// whether its partner is local or remote.
//
// The translator does no I/O and keeps no timers.  It sees only the units of
// its own bracket on one session and the session's maximum RU size; the
// session layer adds the TH (sequence numbers, expedited flow), bids for the
// bracket before the first unit flows, and paces.  A response unit answers the
// latest request the session received on the same flow.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "engine/frame.h"
#include "net/formats/byte_io.h"
#include "net/formats/fmh5.h"
#include "net/formats/gds.h"
#include "net/formats/rh.h"

namespace snanode::net::lu62 {

// One unit for the session: RH and RU; expedited units (SIG and its
// response) travel ahead of the normal flow.
struct Unit {
  Rh rh;
  Bytes ru;
  bool expedited = false;
  bool operator==(const Unit &) const = default;
};

// What one event produced: units for the session, frames for the TP, and
// the conditions the daemon acts on.
struct Output {
  std::vector<Unit> units;
  std::vector<engine::Frame> frames;
  // The attached side: the partner's Attach, for the daemon's attach logic
  // (it checks the TP name, type, sync level and security and either hands the
  // link to a TP or answers with an ATTACH_FAILED frame).
  std::optional<Attach> attach;
  // The conversation is over without a frame that says so: the TP's next verb
  // gets this primary return code (AP_CONV_FAILURE_RETRY or _NO_RETRY).
  std::optional<uint16_t> failure;
  // The partner broke the protocol: the session layer ends the session with
  // this sense.
  uint32_t protocol_error = 0;
};

class ConversationTranslator {
 public:
  // The allocating side: `attach` goes out at the head of the first chain,
  // with the first data or status the TP sends.
  static ConversationTranslator allocating(Attach attach, size_t max_ru_size);
  // The attached side: the session hands it the unit that began the bracket.
  static ConversationTranslator attached(size_t max_ru_size);

  // Allocating side: the Attach in a chain of its own, when it has not gone
  // out yet with data or a status (the partner's TP is then started or
  // reached even though this side's TP sends nothing for a while).
  Output send_attach();
  // A frame from the local TP's link.
  Output on_frame(const engine::Frame &frame);
  // The partner's request-to-send (SIG), which the session answers itself.
  Output on_request_to_send();
  // A unit of this conversation's bracket from the session.
  Output on_unit(const Rh &rh, ByteSpan ru);
  // The TP's link broke without an orderly end (its process died): the
  // partner's TP sees a conversation failure, as from a local partner.
  Output on_link_lost();
  // The session failed under the conversation (UNBIND with `sense`, or the
  // route beneath it): how the TP's next verb learns of it.
  Output on_session_failure(uint32_t sense);

  // The bracket has ended: the session is free for another conversation.
  bool ended() const { return ended_; }
  bool mapped() const { return framing_ == RecordFraming::kMapped; }

 private:
  ConversationTranslator(RecordFraming framing, size_t max_ru_size, bool sending);

  // Outbound (conversation_outbound.cpp).
  struct ChainEnd {
    bool cd = false;
    bool ceb = false;
    bool definite = false;
  };
  // An FMH-7 this side still has to send once it holds the send right.
  struct DeferredError {
    uint32_t sense = 0;
    Bytes log_data;
    bool ends_bracket = false;
  };
  void append_data(const engine::Frame &frame, Output &out);
  // Puts the Attach, while it has not gone out, at the head of the chain.
  void start_chain();
  // Cuts the pending chain bytes into RUs, keeping at least one byte back so
  // the chain can still be ended with the indicators of what comes next.
  void emit_full_rus(Output &out);
  void end_chain(ChainEnd end, Output &out);
  // Ends the chain in progress (or the Attach still held) with no indicator.
  void close_open_chain(Output &out);
  void send_error_description(const DeferredError &error, Output &out);
  void send_status(const engine::Frame &frame, Output &out);
  void send_error(const engine::Frame &frame, Output &out);
  void send_abend(const Bytes &log_data, Output &out);
  // An FMH-7 now when this side holds the send right, else as below.
  void report_error(DeferredError error, Output &out);
  // An error or an end while the partner holds the send right (or owes a
  // response): −RSP(X'0846') first, then the FMH-7 once this side may send.
  void error_with_negative_response(DeferredError error, Output &out);
  void answer_pending_request(Output &out);
  void negative_response(uint32_t sense, Output &out);
  // The partner gave the turn after this side's −RSP(X'0846').
  void take_turn(Output &out);

  // Inbound (conversation_inbound.cpp).
  void take_response(const Rh &rh, ByteSpan ru, Output &out);
  void take_request(const Rh &rh, ByteSpan ru, Output &out);
  // Takes the FMH-5 from the head of the bracket's first chain; true when it
  // was accepted and `ru` now holds what follows it.
  bool take_attach(const Rh &rh, ByteSpan &ru, Output &out);
  void take_while_awaiting_turn(const Rh &rh, ByteSpan ru, Output &out);
  // Collects an FMH-7 chain; true once the chain is whole and taken.
  bool collect_error_chain(const Rh &rh, ByteSpan &ru);
  void take_error_description(Output &out);
  void deliver_data(ByteSpan bytes, Output &out);
  void end_of_chain(const Rh &rh, Output &out);
  void add_status(engine::Frame frame, Output &out);
  void fail(uint32_t sense, Output &out);

  RecordFraming framing_;
  size_t max_ru_;
  RecordAssembler assembler_;

  // The FMH-5 still to go at the head of the first chain (allocating side).
  Bytes attach_;
  bool bracket_begun_ = false;  // BB has gone out or come in
  bool attach_taken_ = false;   // attached side: the FMH-5 has been read
  Bytes attach_in_;             // attached side: the FMH-5 as it arrives
  bool ended_ = false;

  // Half-duplex state.  `holder_`: this side may send normal-flow requests
  // (it has not ended its last chain with CD or CEB, or it has since been
  // given the turn).
  bool holder_;
  bool chain_open_ = false;  // RUs of a chain went out without EC
  bool chain_fmh_ = false;   // the pending bytes start with an FM header
  Bytes pending_;            // chain bytes not yet cut into RUs

  // A definite response this side asked for: confirm, with CD or CEB.
  std::optional<ChainEnd> awaiting_confirmed_;
  // The latest normal-flow request received, and whether it still waits for
  // a definite response.
  Rh last_request_;
  bool response_owed_ = false;
  bool request_received_ = false;  // the partner has sent a request in this bracket
  // An error came before anything of the partner's: its −RSP(X'0846') answers
  // the partner's first request, which cannot be far behind (the partner
  // holds the turn, so it must send something).
  bool negative_response_due_ = false;

  // Purging after an error from the side without the send right:
  //  - `awaiting_turn_`: this side sent −RSP(X'0846') and waits for the
  //    partner's CD; what the partner sent before is dropped, and what this
  //    side's TP sends meanwhile waits in `held_frames_` behind `deferred_`.
  //  - `error_expected_`: the partner sent −RSP(X'0846'): what the TP sends
  //    is dropped until the partner's FMH-7 arrives.
  bool awaiting_turn_ = false;
  std::optional<DeferredError> deferred_;
  std::vector<engine::Frame> held_frames_;
  bool error_expected_ = false;
  // The partner's purging FMH-7 went to the TP: what the TP sends before its
  // ERROR_SEEN frame was sent before it knew, and is dropped.
  bool stale_until_error_seen_ = false;
  bool tp_gone_ = false;             // the TP ended while an error was expected
  bool process_ended_ = false;       // ...or its link broke: the end is a failure
  bool terminal_delivered_ = false;  // the TP was told the conversation ended

  // An FMH-7 chain being collected (it may carry its log over several RUs).
  bool in_error_chain_ = false;
  Bytes error_chain_;
};

}  // namespace snanode::net::lu62
