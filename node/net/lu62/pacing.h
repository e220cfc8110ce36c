// Session-level pacing, one object per direction.  The sender may send a
// window of normal-flow FMD requests; the first of each window asks for a
// pacing response (PI), and the next window opens only once that response
// has come back.  The receiver answers a PI when the layer above has room.
#pragma once

#include <cstdint>
#include <optional>

namespace snanode::net::lu62 {

class SendPacer {
 public:
  explicit SendPacer(uint8_t window = 0) : window_(window), credit_(window) {}
  bool paced() const { return window_ != 0; }
  bool can_send() const { return !paced() || credit_ > 0 || next_granted_; }
  // Counts one request going out; returns whether it carries PI.  Only call
  // when can_send().
  bool on_send();
  // A pacing response (isolated, or PI on a normal response) arrived.  False
  // when none was asked for: the partner broke the protocol.
  bool on_pacing_response();
  uint8_t window() const { return window_; }

 private:
  uint8_t window_;
  uint16_t credit_;  // requests left in the current window
  bool next_granted_ = false;
  bool response_outstanding_ = false;
};

class ReceivePacer {
 public:
  explicit ReceivePacer(uint8_t window = 0) : window_(window) {}
  // One request arrived.  Returns the SNF to answer with a pacing response now,
  // if any; false in `ok` when the sender overran its window.
  std::optional<uint16_t> on_request(bool pi, uint16_t snf, bool &ok);
  // The layer above has room (or not).  Returns the SNF of a pacing response
  // held back until now.
  std::optional<uint16_t> set_ready(bool ready);
  bool ready() const { return ready_; }
  uint8_t window() const { return window_; }

 private:
  uint8_t window_;
  bool ready_ = true;
  std::optional<uint16_t> owed_;
  // Requests received since the last pacing response was sent, counting the
  // window the sender was allowed before it.
  uint32_t allowed_ = 0;
  uint32_t received_ = 0;
};

}  // namespace snanode::net::lu62
