#include "net/hpr/rate_control.h"

#include <algorithm>
#include <cmath>

namespace snanode::net::hpr {

RateControl::RateControl(const RtpConfig &config)
    : config_(config), rate_(config.initial_rate), rto_(config.initial_rto) {}

// The bucket holds a burst at the current rate, and never less than four
// packets of the size asked for: otherwise a link with large packets at a low
// rate could never save up for one.
void RateControl::refill(RtpTime now, size_t packet) {
  const double burst =
      std::max(4.0 * static_cast<double>(std::max<size_t>(packet, 1500)),
               static_cast<double>(rate_) * std::chrono::duration<double>(config_.burst).count());
  if (refilled_ == RtpTime{}) {
    tokens_ = burst;
  } else if (now > refilled_) {
    tokens_ += static_cast<double>(rate_) * std::chrono::duration<double>(now - refilled_).count();
  }
  tokens_ = std::min(tokens_, burst);
  refilled_ = now;
}

bool RateControl::try_spend(size_t bytes, RtpTime now, RtpTime &ready_at) {
  refill(now, bytes);
  const double need = static_cast<double>(bytes);
  if (tokens_ >= need) {
    tokens_ -= need;
    sent_since_change_ += bytes;
    return true;
  }
  const double seconds = (need - tokens_) / static_cast<double>(rate_);
  ready_at = now + std::chrono::duration_cast<RtpDuration>(std::chrono::duration<double>(seconds)) +
             std::chrono::microseconds(1);
  return false;
}

void RateControl::on_rtt_sample(RtpDuration rtt) {
  // The usual smoothed estimate: srtt += (rtt - srtt) / 8, rttvar += (|err| - rttvar) / 4.
  last_rtt_ = rtt;
  min_rtt_ = has_rtt_ ? std::min(min_rtt_, rtt) : rtt;
  if (!has_rtt_) {
    if (changed_at_ == RtpTime{} && rtt.count() > 0) {
      // Ten packets per round trip, as many bytes as TCP's initial window
      // (at least two packets): a fast path starts fast, a slow one slowly.
      const double window = static_cast<double>(
          std::min(10 * packet_size_, std::max(2 * packet_size_, config_.initial_window)));
      const double start = window * 1e9 / static_cast<double>(RtpDuration(rtt).count());
      rate_ = static_cast<uint32_t>(std::clamp<double>(start, rate_, config_.max_rate));
    }
    srtt_ = rtt;
    rttvar_ = rtt / 2;
    has_rtt_ = true;
  } else {
    const RtpDuration err = rtt > srtt_ ? rtt - srtt_ : srtt_ - rtt;
    rttvar_ += (err - rttvar_) / 4;
    srtt_ += (rtt - srtt_) / 8;
  }
  rto_ = std::clamp<RtpDuration>(2 * srtt_ + 4 * rttvar_, config_.min_rto, config_.max_rto);
}

void RateControl::on_request_timeout() {
  rto_ = std::min<RtpDuration>(rto_ * 2, config_.max_rto);
}

void RateControl::back_off(double factor, RtpTime now) {
  rate_ = std::max(config_.min_rate, static_cast<uint32_t>(rate_ * factor));
  started_ = true;
  changed_at_ = now;
  sent_since_change_ = missing_since_change_ = 0;
}

// Growth and back-off act at most once per round trip: only a reply to a
// request sent after the last change shows what that change did, and only
// data sent after it can show that it was not enough.  A round
// trip grown well beyond the shortest seen means a queue is building on the
// path: a slowdown the sender sees for itself.
//
// A loss is taken for congestion when the path is also queueing or when more
// than loss_tolerance of what was sent since the last change went missing.
// A path that drops a few packets at random (radio, a busy switch) would
// otherwise cut the rate on nearly every round trip, down to min_rate, while
// sending slower saves none of those packets.
void RateControl::on_reply(RateAction action, RtpTime lost_sent_at, RtpTime request_sent,
                           RtpTime now) {
  const bool fresh = request_sent > changed_at_;
  // Only a sender that used its rate can have built the queue: one that had
  // less to send (a conversation turning round, say) leaves its rate alone
  // when a round trip runs long, or a single stall of either node would end
  // the start phase before any stream began.
  const bool queueing = rate_limited_ && has_rtt_ && last_rtt_ > 2 * min_rtt_ &&
                        last_rtt_ - min_rtt_ > config_.queueing_slack;
  const bool heavy = static_cast<double>(missing_since_change_) >
                     config_.loss_tolerance * static_cast<double>(sent_since_change_);
  // A loss of data sent before the last back-off was already answered by it.
  const bool loss = lost_sent_at > changed_at_ && (heavy || queueing);
  if (action == RateAction::kCritical) {
    rate_ = config_.min_rate;
    back_off(1.0, now);
  } else if (action == RateAction::kSlowdown2 || action == RateAction::kSlowdown1 || loss ||
             queueing) {
    if (!fresh && !loss) return;
    back_off(action == RateAction::kSlowdown2 ? config_.slowdown2_backoff
             : loss                           ? config_.loss_backoff
                                              : config_.slowdown1_backoff,
             now);
  } else if (fresh && action == RateAction::kNormal && rate_limited_) {
    // Growth is per round trip.  At a low rate of large packets replies come
    // far less often than that: each then counts for the round trips since
    // the last change, but never for more than the start phase's step.
    double factor = config_.start_growth;
    if (started_) {
      const double rounds = srtt_.count() > 0 ? static_cast<double>((now - changed_at_).count()) /
                                                    static_cast<double>(srtt_.count())
                                              : 1.0;
      factor = std::min(config_.start_growth, std::pow(config_.growth, std::max(1.0, rounds)));
    }
    rate_ = static_cast<uint32_t>(std::min<double>(config_.max_rate, rate_ * factor + 1));
    changed_at_ = now;
    rate_limited_ = false;
    sent_since_change_ = missing_since_change_ = 0;
  }
}

RateAction receive_rate_action(bool slowdown1_seen, bool slowdown2_seen) {
  if (slowdown2_seen) return RateAction::kSlowdown2;
  if (slowdown1_seen) return RateAction::kSlowdown1;
  return RateAction::kNormal;
}

}  // namespace snanode::net::hpr
