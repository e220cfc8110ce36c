// One RTP connection: a reliable, ordered, rate-paced stream of messages to
// the RTP endpoint of an adjacent node, over an NlpLink that may lose,
// duplicate and reorder.  A pure state machine: the owner hands it NLPs
// addressed to it, calls on_timer() at next_deadline(), and reads state()
// after each call (a failed or closed connection is the owner's to discard).
//
// Setup: until the initiator hears from the partner, every NLP it sends
// carries SETUPI, its own TCID in the THDR and the setup segments (connection
// setup with COS/TPF, switching information, ARB setup, connection
// identifier), and asks for a status; whichever arrives first sets the
// connection up at the partner.  The responder answers on the initiator's
// TCID and gives its own in a connection identifier segment on every NLP
// until one arrives without SETUPI.  From then on each side addresses the
// other's TCID.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "net/ee/nlp_link.h"
#include "net/formats/thdr_segments.h"
#include "net/hpr/rate_control.h"
#include "net/hpr/rtp_config.h"
#include "net/hpr/rtp_reassembly.h"
#include "net/hpr/rtp_send_queue.h"

namespace snanode::net::hpr {

enum class RtpState : uint8_t { kSettingUp, kConnected, kClosed, kFailed };

// What the connection needs to know about its two ends.
struct RtpEndpoint {
  std::string local_cp;  // NETID.CPNAME, named in the setup
  Priority priority = Priority::kHigh;
  Bytes anr_labels;      // the NHDR's labels towards the partner's endpoint
  std::string cos_name;  // the class of service the setup names; empty: the priority's usual one
};

// What a received setup NLP said.
struct RtpSetupOffer {
  Tcid partner_tcid{};
  uint32_t max_packet_size = 0;  // 0: not given
  uint32_t window = 0;           // 0: not given
  uint32_t alive_seconds = 0;
  std::string cos_name;  // from the COS/TPF vector; empty: none given
};
// The setup segments of a SETUPI NLP; nullopt when they are missing or do not
// decode (the NLP is then dropped).
std::optional<RtpSetupOffer> read_setup(const Thdr &thdr);

struct RtpStats {
  uint64_t nlps_sent = 0;
  uint64_t nlps_received = 0;
  uint64_t status_replies_sent = 0;
  uint64_t nlps_dropped = 0;  // malformed or outside the window
};

class RtpConnection {
 public:
  using MessageHandler = std::function<void(ByteSpan message)>;

  // The calling side.
  RtpConnection(const RtpConfig &config, RtpEndpoint endpoint, ee::NlpLink &link, Tcid local,
                MessageHandler on_message, RtpTime now);
  // The called side, from the first setup NLP that arrived (hand it to
  // on_nlp() next).
  RtpConnection(const RtpConfig &config, RtpEndpoint endpoint, ee::NlpLink &link, Tcid local,
                const RtpSetupOffer &offer, MessageHandler on_message, RtpTime now);
  RtpConnection(const RtpConnection &) = delete;
  RtpConnection &operator=(const RtpConnection &) = delete;

  // Queues one message (a BIU), keeping its buffer until the partner has it,
  // and sends what the rate allows.
  void send_message(Bytes &&message, RtpTime now);
  void on_nlp(const NlpView &nlp, RtpTime now);
  void on_timer(RtpTime now);
  std::optional<RtpTime> next_deadline() const;
  // Sends what is queued, then the last message indicator; the connection is
  // closed once the partner has sent its own (after its data), or has been
  // silent for the failure bound.  A partner's indicator makes this side send
  // its own once its data is acknowledged; until then it still takes messages.
  void close(RtpTime now);
  // Ends the connection at once (the link went down, the owner gives up).
  void fail(uint32_t sense, std::string why);

  RtpState state() const { return state_; }
  bool ended() const { return state_ == RtpState::kClosed || state_ == RtpState::kFailed; }
  uint32_t failure_sense() const { return failure_sense_; }
  const std::string &failure_reason() const { return failure_reason_; }
  const Tcid &local_tcid() const { return local_tcid_; }
  const Tcid &remote_tcid() const { return remote_tcid_; }
  bool initiator() const { return initiator_; }
  Priority priority() const { return endpoint_.priority; }
  uint32_t rate() const { return rate_.rate(); }
  uint64_t retransmitted() const { return send_.retransmitted(); }
  uint64_t duplicates() const { return receive_.duplicates(); }
  uint64_t bytes_acknowledged() const { return send_.acknowledged(); }
  // Received out of order, held until the bytes before them arrive.
  size_t bytes_held() const { return receive_.buffered(); }
  const RtpStats &stats() const { return stats_; }

 private:
  struct Request {
    uint8_t correlator;
    RtpTime sent;
    bool timed;  // asked for a reply at once: its round trip is a sample
  };
  // A status request answered later: on the next NLP sent, or at `due`.
  struct HeldReply {
    std::optional<uint8_t> correlator;
    RtpTime due;
  };

  void pump(RtpTime now);
  size_t header_size() const;
  size_t fixed_header_size() const;
  size_t packet_limit() const;
  size_t max_data() const;
  Thdr base_thdr() const;
  void add_setup_segments(Bytes &options) const;
  // Asks for a status on `thdr`; a held reply travels in the same ARB segment.
  void add_request(Thdr &thdr, bool reply_asap, RtpTime now, const Arb *reply = nullptr);
  void transmit(Thdr &thdr, const SharedSpan &data);
  StatusReport status_report() const;
  Arb rate_reply(uint8_t correlator);
  // Puts the held status reply on `thdr` when it fits with `data_size` bytes
  // of data (else sends it alone now); the rate reply to go in the ARB
  // segment, if the request had one.
  std::optional<Arb> attach_held_reply(Thdr &thdr, size_t data_size, RtpTime now);
  void hold_status(std::optional<uint8_t> correlator, RtpTime now);
  void send_segment(RtpSegment &segment, bool request_status, bool reply_asap, RtpTime now);
  void send_probe(RtpTime now);
  void send_status(std::optional<uint8_t> correlator, RtpTime now);
  void on_status(const StatusReport &status, const std::optional<Arb> &reply, RtpTime now);
  void finish_close_if_done(RtpTime now);
  void send_last_message(RtpTime now);
  bool partner_closed() const;
  RtpDuration request_timeout() const;
  void check_partner_close();

  const RtpConfig &config_;
  RtpEndpoint endpoint_;
  Nhdr nhdr_;  // the same on every NLP: built once
  ee::NlpLink &link_;
  MessageHandler on_message_;
  bool initiator_;
  Tcid local_tcid_;
  Tcid remote_tcid_{};
  bool heard_ = false;      // initiator: the partner's TCID is known
  bool confirmed_ = false;  // responder: the initiator uses our TCID
  uint32_t partner_max_packet_ = 0;
  mutable size_t setup_options_size_ = 0;
  size_t window_;
  RtpState state_ = RtpState::kSettingUp;
  uint32_t failure_sense_ = 0;
  std::string failure_reason_;

  RtpSendQueue send_;
  RateControl rate_;
  std::optional<RtpTime> pace_at_;
  std::deque<Request> requests_;  // status requests not yet answered, oldest first
  uint8_t next_correlator_ = 0;
  size_t bytes_since_request_ = 0;
  std::optional<HeldReply> held_reply_;
  RtpTime last_request_{};

  RtpReassembly receive_;
  RtpTime last_heard_;
  bool slowdown1_seen_ = false;
  bool slowdown2_seen_ = false;
  bool closing_ = false;
  bool last_message_sent_ = false;
  RtpTime last_message_at_{};
  RtpDuration last_message_wait_{};
  std::optional<uint64_t> partner_last_message_at_;

  RtpStats stats_;
};

}  // namespace snanode::net::hpr
