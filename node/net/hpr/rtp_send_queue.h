// The sending half of an RTP connection's byte stream: messages waiting to go,
// cut into segments as they are sent, and segments sent but not yet
// acknowledged, kept for selective retransmission.  Byte sequence numbers are
// counted in 64 bits here and cut to 32 on the wire.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/shared_bytes.h"
#include "net/hpr/rtp_config.h"

namespace snanode::net::hpr {

struct RtpSegment {
  uint64_t bsn = 0;
  // A piece of the message it was cut from, which the datagrams carrying
  // it share rather than copy.
  SharedSpan data;
  bool start = false;  // SOMI
  bool end = false;    // EOMI
  RtpTime last_sent{};
  bool queued_for_retransmission = false;
};

class RtpSendQueue {
 public:
  void push_message(Bytes &&message);

  bool has_new_data() const { return !waiting_.empty(); }
  size_t waiting_bytes() const { return waiting_bytes_; }
  // The size of the segment cut(max_data) would cut now.
  size_t next_cut_size(size_t max_data) const {
    return waiting_.empty()
               ? 0
               : std::min(max_data, waiting_.front().bytes->size() - waiting_.front().offset);
  }
  // Cuts the next segment of at most `max_data` bytes from the waiting
  // messages and keeps it as unacknowledged; nullptr when nothing waits.
  RtpSegment *cut(size_t max_data);

  // The partner received everything below `sequence` (a 32-bit wire value,
  // taken as the nearest sequence at or below sent_end()).
  void acknowledge(uint32_t sequence);
  // Queues the unacknowledged segments overlapping [begin, end) that were
  // last sent before `sent_before`.  Returns when the latest of those newly
  // queued was sent (RtpTime{} if none was), and adds their bytes to
  // `newly_missing`.
  RtpTime mark_missing(uint32_t begin, uint32_t end, RtpTime sent_before, size_t &newly_missing);
  // The next segment to send again (stays queued until retransmitted()).
  RtpSegment *peek_retransmission();
  void retransmitted();

  uint64_t acknowledged() const { return acknowledged_; }
  uint64_t sent_end() const { return sent_end_; }
  size_t in_flight() const { return static_cast<size_t>(sent_end_ - acknowledged_); }
  bool all_acknowledged() const { return unacked_.empty() && waiting_.empty(); }
  uint64_t retransmitted() const { return retransmitted_; }
  uint64_t unwrap(uint32_t sequence) const;

 private:
  struct Waiting {
    SharedBuffer bytes;
    size_t offset = 0;
  };
  std::deque<Waiting> waiting_;
  size_t waiting_bytes_ = 0;
  std::deque<RtpSegment> unacked_;   // in sequence order
  std::deque<uint64_t> retransmit_;  // BSNs of segments to send again
  uint64_t acknowledged_ = 0;
  uint64_t sent_end_ = 0;
  uint64_t retransmitted_ = 0;
};

}  // namespace snanode::net::hpr
