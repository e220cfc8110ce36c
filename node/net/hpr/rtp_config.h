// The tunables of an RTP connection: timers, the adaptive rate's constants,
// the window and the limits that bound memory.  Every value here has a row in
// docs/network.md ("RTP connections"); tests shrink the timers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace snanode::net::hpr {

using RtpClock = std::chrono::steady_clock;
using RtpTime = RtpClock::time_point;
using RtpDuration = std::chrono::nanoseconds;

struct RtpConfig {
  // Liveness: after `alive_timer` with nothing heard from the partner the
  // connection asks it for a status; if the partner stays silent for a further
  // `failure_timeout` the connection fails.  A dead partner is therefore
  // declared within failure_bound() of the last unit it sent.
  RtpDuration alive_timer = std::chrono::seconds(10);
  RtpDuration failure_timeout = std::chrono::seconds(20);
  RtpDuration failure_bound() const { return alive_timer + failure_timeout; }

  // How long a status request may stay unanswered before it is asked again
  // (and unacknowledged data is probed): twice the smoothed round trip,
  // clamped to [min_rto, max_rto]; initial_rto before the first sample.
  RtpDuration initial_rto = std::chrono::milliseconds(500);
  RtpDuration min_rto = std::chrono::milliseconds(2);
  RtpDuration max_rto = std::chrono::seconds(2);

  // Adaptive rate (bytes of NLP per second).  The sender starts at
  // initial_rate; the first round trip measured raises it to an initial window
  // per round trip (TCP's: ten packets, at most initial_window bytes but at
  // least two packets).  It multiplies the rate by start_growth on every
  // status reply that shows the partner kept up while the sender had more to
  // send (doubling per round trip, as TCP's slow start does), until the
  // first back-off; from then on by growth per round trip since the last
  // change (at most start_growth at once).  A reported gap multiplies the rate
  // by loss_backoff; the partner's slowdown indications by slowdown1_backoff or
  // slowdown2_backoff; "critical" drops it to min_rate.  At most one back-off
  // per round trip (until a reply to a request sent after it arrives).
  uint32_t initial_rate = 512 * 1024;
  uint32_t min_rate = 16 * 1024;
  uint32_t max_rate = 4000u * 1000 * 1000;
  size_t initial_window = 14600;
  double start_growth = 2.0;
  double growth = 1.0625;
  double loss_backoff = 0.75;
  // A gap counts as congestion only while the path queues (below) or when
  // more than this share of the bytes sent since the last rate change went
  // missing; rarer losses are taken as the path's own and only resent.
  double loss_tolerance = 0.1;
  double slowdown1_backoff = 0.875;
  double slowdown2_backoff = 0.5;
  // A round trip more than twice the shortest seen and longer than it by more
  // than this counts as a slowdown indication (a queue builds on the path).
  RtpDuration queueing_slack = std::chrono::milliseconds(2);
  // The pacer may send this long a burst at the current rate at once (at
  // least four packets).
  RtpDuration burst = std::chrono::milliseconds(5);

  // Bytes sent and not yet acknowledged, at most; the receiver keeps out of
  // order bytes up to this far beyond what it delivered.
  size_t window = 2 * 1024 * 1024;
  // A status is requested at least every this many bytes sent.
  size_t status_every = 64 * 1024;
  // A status request that does not ask for a reply at once (the end of a
  // message with nothing queued after it: the partner's answer may follow)
  // is answered on the next NLP this side sends, or alone after this long;
  // never longer than half of min_rto, so the sender's timer does not run out.
  RtpDuration status_hold = std::chrono::milliseconds(1);
  // Gaps listed in one status report, at most.
  size_t max_gaps_reported = 64;
  // The longest message a partner may send (a BIU is far smaller).
  size_t max_message = 1024 * 1024;
};

}  // namespace snanode::net::hpr
