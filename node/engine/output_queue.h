// Frames waiting to be written to a stream socket.
//
// One system call writes as many queued frames as fit (their headers and
// payloads as separate pieces, nothing copied together), from the front;
// what a full socket does not take stays for the next write.  Its owner
// serialises the calls; the byte count may be read from anywhere.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "engine/frame.h"

namespace snanode::engine {

// One frame on its way out: its encoded header (or the orderly end, or the
// rest of a header) and its payload.
struct Outgoing {
  uint8_t head[kFrameHeaderSize];
  size_t head_size = 0;
  std::vector<uint8_t> body;
  size_t size() const { return head_size + body.size(); }
};

class OutputQueue {
 public:
  enum class Written : uint8_t { kAll, kSocketFull, kFailed };

  void push_back(Outgoing &&out);
  // Ahead of everything queued, of which nothing may have been written yet.
  void push_front(Outgoing &&out);
  // Writes until the queue is empty or the socket full; a failed write (the
  // peer is gone) drops everything queued.
  Written write(int fd);

  // Drops everything queued, written in part or not.
  void clear();

  bool empty() const { return queue_.empty(); }
  size_t bytes() const { return bytes_.load(); }

 private:
  void consume(size_t written);

  std::deque<Outgoing> queue_;
  size_t front_written_ = 0;  // bytes of the front frame already written
  std::atomic<size_t> bytes_{0};
};

}  // namespace snanode::engine
