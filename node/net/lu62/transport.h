// What the session layer needs from below and from the daemon's loop: a way to
// send whole BIUs towards a partner LU, and the time.  Nothing here blocks or
// starts a thread; the daemon calls back in when units arrive or time passes.
#pragma once

#include <chrono>
#include <string_view>

#include "net/formats/byte_io.h"

namespace snanode::net::lu62 {

// Sends one whole BIU (TH + RH + RU) of a session on `mode` (empty when the
// unit answers a BIND for a mode not known here).  The daemon routes it by
// partner LU and by the mode's class of service onto the connection that
// reaches it; the session layer never sees that route.
class BiuTransport {
 public:
  virtual ~BiuTransport() = default;
  virtual void send_biu(std::string_view partner_lu, std::string_view mode, ByteSpan biu) = 0;
  // The same BIU in a buffer the transport may keep (moved from) instead of
  // copying it, down to the queue it waits in until acknowledged.  One that
  // cannot keep it sends a copy and leaves the buffer to the caller.
  virtual void send_biu_buffer(std::string_view partner_lu, std::string_view mode, Bytes &&biu) {
    send_biu(partner_lu, mode, ByteSpan(biu));
  }
};

class Clock {
 public:
  using time_point = std::chrono::steady_clock::time_point;
  virtual ~Clock() = default;
  virtual time_point now() const = 0;
};

}  // namespace snanode::net::lu62
