// One Enterprise Extender link station: the LDLC side of a link to one
// partner node, as a state machine with no sockets and no clock of its own.
// It takes the partner's datagrams and the time, and gives datagrams to a
// DatagramSink and events to an NlpReceiver, so two stations run against each
// other over an in-memory pipe exactly as over UDP.
//
// Activation (either side may start it; when both do at once, the side that
// would end up secondary gives way and answers the other):
//   activator                          responder
//   XID3 prenegotiation, command  ->
//                                 <-   XID3 prenegotiation, response
//   XID3 negotiation-proceeding   ->   (role and TG number now fixed)
//                                 <-   XID3 negotiation-proceeding, complete
//   then the primary sends XID_DONE_RQ, the secondary answers XID_DONE_RSP;
//   each side is active once it has sent (secondary) or received (primary)
//   the response.  Commands are re-sent every retry interval, `retry_count`
//   times, before the activation fails.
// Liveness: while active, a TEST command goes out once nothing has been heard
// from the partner for a quarter of `liveness`, and again every sixteenth
// while unanswered; a partner that stops answering is declared down
// `liveness` after it was last heard.  Any frame from the partner counts.
// Deactivation: DISC, answered by DM; the receiver hears the link inactive
// when DISC is sent.  A station deactivated here stays down:
// the partner's activations are answered with DM until activate() is called
// again (an operator's "stop" holds until "start").  activate() while DISC is
// still unanswered takes effect once the link has ended.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "net/ee/ldlc_frames.h"
#include "net/ee/nlp_link.h"
#include "net/ee/xid_negotiation.h"

namespace snanode::net::ee {

using TimePoint = std::chrono::steady_clock::time_point;
using Duration = std::chrono::steady_clock::duration;

// The five ports of an endpoint, as offsets from its port base: 0 carries LLC
// commands and function-routed NLPs, 1..4 the NLPs of network, high, medium
// and low priority.
inline constexpr unsigned kPortCount = 5;
inline constexpr unsigned kLlcPortIndex = 0;
inline constexpr unsigned port_index_of(Priority priority) {
  return 4u - static_cast<unsigned>(priority);
}

class DatagramSink {
 public:
  virtual ~DatagramSink() = default;
  // One datagram to the partner's port `port_index` (0..4).
  virtual void send_datagram(unsigned port_index, Bytes datagram) = 0;
  // The datagram `head` followed by `tail`, sent as two pieces where the
  // sink can (the tail is then kept, not copied, until it has left).
  virtual void send_datagram_pieces(unsigned port_index, Bytes head, const SharedSpan &tail) {
    const ByteSpan bytes = tail.bytes();
    head.insert(head.end(), bytes.begin(), bytes.end());
    send_datagram(port_index, std::move(head));
  }
  // A buffer for the next datagram: empty, perhaps with the room of one sent
  // earlier, so that a busy link does not allocate one per datagram.
  virtual Bytes take_buffer() { return {}; }
};

struct LinkStationConfig {
  LocalIdentity local;
  std::string partner_cp_name;  // NETID.CPNAME the partner must give; empty: any
  uint8_t link_sap = kLinkSap;  // SAP of XID, TEST, DISC and DM
  Duration retry_interval = std::chrono::seconds(15);
  unsigned retry_count = 3;
  Duration liveness = std::chrono::seconds(10);
  // After a failure (liveness, activation refused or unanswered), activate
  // again this long after; zero: wait to be told.  Links activated at start
  // set it; either side's deactivation cancels it.
  Duration reactivate_after{0};
};

class LinkStation final : public NlpLink {
 public:
  enum class State : uint8_t {
    kReset,           // inactive
    kXidSent,         // activator: prenegotiation XID sent
    kNegotiating,     // activator: negotiation-proceeding XID sent
    kResponding,      // responder: answered the prenegotiation XID
    kXidDonePending,  // negotiated; waiting for XID_DONE_RQ or _RSP
    kActive,
    kDiscSent,
  };

  // `sink` and `receiver` must outlive the station.
  LinkStation(LinkStationConfig config, DatagramSink &sink, NlpReceiver &receiver);

  void activate(TimePoint now);
  void deactivate(TimePoint now);
  // Deactivated here and not activated since: the partner is refused.
  bool held_down() const { return held_down_; }
  // A datagram from the partner's address, on any of the five ports.
  void on_datagram(ByteSpan datagram, TimePoint now);
  void on_timer(TimePoint now);
  std::optional<TimePoint> next_deadline() const;

  State state() const { return state_; }
  bool active() const { return state_ == State::kActive; }
  // What the partner said in its last XID3 and what both agreed; meaningful
  // once the station is active.
  const PartnerXid &partner() const { return partner_; }
  const Negotiated &negotiated() const { return negotiated_; }
  const LinkStationConfig &config() const { return config_; }

  // NlpLink
  bool send_nlp(Priority priority, ByteSpan nlp) override;
  Bytes start_nlp() override;
  bool send_nlp_pieces(Priority priority, Bytes head, const SharedSpan &data) override;
  size_t max_nlp_size() const override;

 private:
  void on_xid(const LdlcFrame &frame, TimePoint now);
  void on_xid_command(const PartnerXid &xid, TimePoint now);
  void on_xid_response(const PartnerXid &xid, TimePoint now);
  void on_ui(ByteSpan nlp, TimePoint now);
  // Checks and records a partner XID3; on a refusal, tells the partner (as a
  // response to a command) and ends the activation.
  bool accept_partner(const PartnerXid &xid, bool answer_refusal, TimePoint now);
  void start_activation(TimePoint now);
  void answer_prenegotiation();
  void after_negotiation(TimePoint now);
  void become_active(TimePoint now);
  // Ends the link or its activation; `orderly` ends (DISC, DM) are not
  // followed by a reactivation.
  void fail(const std::string &why, TimePoint now, bool orderly = false);

  // Sends `datagram` on the LLC port and re-sends it every retry interval
  // until answered; the activation or deactivation fails after retry_count
  // re-sends.
  void send_with_retry(Bytes datagram, TimePoint now);
  // Waits (sending nothing) as long as a command's retries would take.
  void wait_for_partner(TimePoint now);
  void send_llc(Bytes datagram) { sink_.send_datagram(kLlcPortIndex, std::move(datagram)); }
  Bytes our_xid(XidExchangeState state, uint32_t error_sense = 0) const;

  LinkStationConfig config_;
  DatagramSink &sink_;
  NlpReceiver &receiver_;
  State state_ = State::kReset;
  PartnerXid partner_;
  Negotiated negotiated_;
  bool negotiated_known_ = false;

  Bytes retry_datagram_;  // empty: nothing to re-send when the timer runs out
  unsigned retries_left_ = 0;
  std::optional<TimePoint> deadline_;
  TimePoint active_since_{};
  TimePoint last_heard_{};
  uint32_t test_counter_ = 0;
  bool held_down_ = false;
  bool activate_when_reset_ = false;  // activate() came while DISC was unanswered
};

}  // namespace snanode::net::ee
