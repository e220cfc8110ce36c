// Adaptive rate-based flow control of one direction of an RTP connection:
// the rate the sender may use, the pacer that spends it, and the round-trip
// estimate that sets the status timer.  The receiver's side of the exchange
// (what it reports) is in receive_rate_report().
#pragma once

#include <cstddef>
#include <cstdint>

#include "net/hpr/rtp_config.h"

namespace snanode::net::hpr {

// What a receiver reports about itself in a rate reply (the ARB rate
// adjustment action).
enum class RateAction : uint8_t {
  kNormal = 0,
  kRestraint = 1,
  kSlowdown1 = 2,
  kSlowdown2 = 3,
  kCritical = 4,
};

class RateControl {
 public:
  explicit RateControl(const RtpConfig &config);

  uint32_t rate() const { return rate_; }
  RtpDuration rto() const { return rto_; }
  bool has_rtt() const { return has_rtt_; }

  // Tokens for `bytes` are available now (and are spent), or the time they
  // will be is returned through `ready_at`.
  bool try_spend(size_t bytes, RtpTime now, RtpTime &ready_at);
  // The sender had more to send than the rate allowed since the last reply.
  void note_rate_limited() { rate_limited_ = true; }
  // A status showed `bytes` of data missing for the first time.
  void note_missing(size_t bytes) { missing_since_change_ += bytes; }

  // The largest NLP the connection sends: sizes the initial window.
  void set_packet_size(size_t bytes) { packet_size_ = bytes; }
  // A round trip measured; the first one (before any rate change) raises the
  // conservative initial rate to an initial window per round trip.
  void on_rtt_sample(RtpDuration rtt);
  // A rate reply to the request sent at `request_sent` arrived; it showed
  // data missing that was last sent at `lost_sent_at` (RtpTime{}: none).
  void on_reply(RateAction action, RtpTime lost_sent_at, RtpTime request_sent, RtpTime now);
  // The request timer expired with nothing heard: the round trip estimate
  // doubles (up to max_rto).
  void on_request_timeout();

 private:
  void back_off(double factor, RtpTime now);
  void refill(RtpTime now, size_t packet);

  const RtpConfig &config_;
  uint32_t rate_;
  size_t packet_size_ = 1500;
  bool started_ = false;  // the first back-off ended the start phase
  bool rate_limited_ = false;
  RtpTime changed_at_{};
  // Data sent, and data reported missing, since the rate last changed: the
  // share lost tells congestion from a path that drops at random.
  uint64_t sent_since_change_ = 0;
  uint64_t missing_since_change_ = 0;
  double tokens_ = 0;
  RtpTime refilled_{};
  bool has_rtt_ = false;
  RtpDuration srtt_{};
  RtpDuration rttvar_{};
  RtpDuration last_rtt_{};
  RtpDuration min_rtt_{};
  RtpDuration rto_;
};

// The action a receiver reports: the network's slowdown bits seen since its
// last reply.  (Its reassembly buffer is no signal: it fills with what arrived
// after a loss, and the window already bounds it.)
RateAction receive_rate_action(bool slowdown1_seen, bool slowdown2_seen);

}  // namespace snanode::net::hpr
