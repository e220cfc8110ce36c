#include "net/lu62/pacing.h"

namespace snanode::net::lu62 {

bool SendPacer::on_send() {
  if (!paced()) return false;
  if (credit_ == 0) {
    credit_ = window_;
    next_granted_ = false;
  }
  const bool pi = credit_ == window_;
  if (pi) response_outstanding_ = true;
  --credit_;
  return pi;
}

bool SendPacer::on_pacing_response() {
  if (!paced() || !response_outstanding_) return false;
  response_outstanding_ = false;
  next_granted_ = true;
  return true;
}

std::optional<uint16_t> ReceivePacer::on_request(bool pi, uint16_t snf, bool &ok) {
  ok = true;
  if (window_ == 0) return std::nullopt;
  if (received_ == 0 && allowed_ == 0) allowed_ = window_;
  ++received_;
  // The sender may run one window ahead of each response it got, never more.
  if (received_ > allowed_) ok = false;
  if (!pi) return std::nullopt;
  owed_ = snf;
  return set_ready(ready_);
}

std::optional<uint16_t> ReceivePacer::set_ready(bool ready) {
  ready_ = ready;
  if (!ready_ || !owed_) return std::nullopt;
  std::optional<uint16_t> snf = owed_;
  owed_.reset();
  allowed_ += window_;
  return snf;
}

}  // namespace snanode::net::lu62
