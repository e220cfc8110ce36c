// Cuts what a stream socket delivers into frames.
//
// Reads never block.  Small frames are decoded out of a read buffer of the
// reading thread's own; the start of a frame that is not whole yet is kept
// between reads (a few bytes, or a small frame), and a large frame is read
// straight into its own payload buffer, which saves copying it.  The stream
// ends in order with four zero bytes (no frame starts so), or broken: end of
// file without them, a read error, or bytes that are not a frame.
//
// One thread at a time reads; the owner of the socket's input sees to that.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "client/unique_fd.h"
#include "engine/frame.h"
#include "engine/link.h"

namespace snanode::engine {

// The bytes that end a stream in order.
inline constexpr uint8_t kOrderlyEnd[4] = {0, 0, 0, 0};

class FrameReader {
 public:
  enum class End : uint8_t { kNone, kOrderly, kBroken };

  // Reads what `fd` holds and appends its whole frames to `frames`.  A read
  // that comes back short means the socket was empty; `to_the_end` reads on
  // until the socket says so itself, or the stream has ended (a reader told
  // of a hang-up must not stop short of seeing the end).  `wait`: the first
  // read waits for something to come.  Without `to_the_end`, reading stops
  // once the frames appended hold `budget` payload bytes: a reader that does
  // not wait for the socket to empty (a level-triggered one) acts on each
  // batch first, and the writer is held back by the socket rather than the
  // reader taking in all it writes.
  void read(int fd, std::vector<Frame> &frames, bool to_the_end, bool wait = false,
            size_t budget = SIZE_MAX);

  // One read that puts the first frame's payload straight into `landing`
  // when it is DATA that fits and comes whole: that frame is delivered with
  // `landed` set.  Anything else read with it is decoded as usual.  False
  // when the reader is not between frames (nothing was read then).
  bool read_landing(int fd, const Landing &landing, std::vector<Frame> &frames, bool wait);

  // A read that waits first polls the socket for input alone (see
  // SocketPeer in socket_link.h), then reads.
  void set_poll_before_waiting(bool on) { poll_before_waiting_ = on; }

  // Takes in a descriptor passed with what it reads (the node daemon's
  // reader of a TP's end: the ring of record_ring.h).  One is kept until
  // taken; any other closes as it arrives, as every descriptor does on a
  // reader not so set.
  void set_takes_descriptors(bool on) { takes_descriptors_ = on; }
  client::UniqueFd take_descriptor() { return std::move(descriptor_); }

  End end() const { return end_; }
  // When a read last found the socket empty.
  std::chrono::steady_clock::time_point emptied_at() const { return emptied_at_; }

 private:
  // recv without blocking: the bytes read, 0 when there were none, -1 once
  // the stream has ended.
  ssize_t receive(int fd, uint8_t *into, size_t size, bool wait);
  // recvmsg(2) that keeps a descriptor passed with the bytes.
  ssize_t receive_taking_descriptors(int fd, uint8_t *into, size_t size, int flags);
  // Takes a read's result as receive() does: the bytes, 0, or -1.
  ssize_t received(ssize_t n);
  // Before a read that may wait: polls for input alone when so set.
  void await_input(int fd) const;
  // `hold_data`: the start of an incomplete DATA frame stays in `rest_` for
  // read_landing() rather than going into a payload of its own.
  void decode(const uint8_t *bytes, size_t size, std::vector<Frame> &frames,
              bool hold_data = false);

  std::vector<uint8_t> rest_;     // the start of a frame not yet whole
  std::optional<Frame> partial_;  // a large frame being read into its payload
  size_t partial_filled_ = 0;
  End end_ = End::kNone;
  bool landed_large_ = false;  // the last record landed was large
  bool poll_before_waiting_ = false;
  bool takes_descriptors_ = false;
  client::UniqueFd descriptor_;
  std::chrono::steady_clock::time_point emptied_at_;
};

}  // namespace snanode::engine
