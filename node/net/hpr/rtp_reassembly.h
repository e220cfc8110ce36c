// The receiving half of an RTP connection: data bytes arrive by byte sequence
// number in any order, possibly twice; they leave as whole messages, in order,
// once each.  It also says what is missing, for the status reply.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "net/formats/byte_io.h"

namespace snanode::net::hpr {

class RtpReassembly {
 public:
  enum class Outcome : uint8_t { kAccepted, kDuplicate, kRefused };

  RtpReassembly(size_t window, size_t max_message) : window_(window), max_message_(max_message) {}

  // Messages completed by one accept(), in order.  A whole message that
  // arrived in order in one NLP is a view of that NLP's data (no copy); the
  // others are held in `storage`.  Valid while `storage` and the data passed
  // to accept() are.
  struct Completed {
    std::vector<ByteSpan> messages;
    std::vector<Bytes> storage;
  };

  // One NLP's data.  Completed messages are appended to `complete`.  kRefused
  // for data beyond the window or overlapping other data at another offset
  // (no honest sender does either); a message longer than max_message marks
  // the stream broken().
  Outcome accept(uint32_t bsn, ByteSpan data, bool start, bool end, Completed &complete);
  // A data-less NLP tells where the sender's stream ends: anything below that
  // not yet here is reported missing.
  void note_stream_end(uint32_t bsn);

  // Everything below this arrived (the acknowledged sequence).
  uint64_t next() const { return next_; }
  // Missing ranges [begin, end) above next(), at most `limit` of them.
  std::vector<std::pair<uint32_t, uint32_t>> gaps(size_t limit) const;
  size_t buffered() const { return buffered_; }
  bool broken() const { return broken_; }
  uint64_t duplicates() const { return duplicates_; }
  // The 64-bit sequence a 32-bit one on the wire stands for (the one nearest
  // to next()).
  uint64_t unwrap(uint32_t bsn) const {
    return next_ + static_cast<uint64_t>(static_cast<int64_t>(
                       static_cast<int32_t>(bsn - static_cast<uint32_t>(next_))));
  }

 private:
  struct Piece {
    Bytes data;
    bool start = false;
    bool end = false;
  };
  // `owned`: the buffered piece that `data` views, which a whole message
  // takes over; null for the caller's own NLP data.
  void deliver(ByteSpan data, Bytes *owned, bool start, bool end, Completed &complete);
  int64_t offset_of(uint32_t bsn) const {
    return static_cast<int32_t>(bsn - static_cast<uint32_t>(next_));
  }

  size_t window_;
  size_t max_message_;
  uint64_t next_ = 0;
  uint64_t highest_ = 0;  // one past the highest byte known to have been sent
  std::map<uint64_t, Piece> pending_;
  size_t buffered_ = 0;
  Bytes message_;
  bool in_message_ = false;
  bool broken_ = false;
  uint64_t duplicates_ = 0;
};

}  // namespace snanode::net::hpr
