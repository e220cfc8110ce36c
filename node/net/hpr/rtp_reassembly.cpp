#include "net/hpr/rtp_reassembly.h"

#include <algorithm>

namespace snanode::net::hpr {

RtpReassembly::Outcome RtpReassembly::accept(uint32_t wire_bsn, ByteSpan data, bool start, bool end,
                                             Completed &complete) {
  // Where the data lies relative to what was delivered, in the 32-bit
  // sequence space (so the stream may wrap).
  const int64_t at = offset_of(wire_bsn);
  const auto size = static_cast<int64_t>(data.size());
  const auto window = static_cast<int64_t>(window_);
  if (size == 0 || size > window || at < -window || at + size > window) return Outcome::kRefused;
  if (at + size <= 0) {
    ++duplicates_;
    return Outcome::kDuplicate;
  }
  if (at < 0) return Outcome::kRefused;  // overlaps delivered data at another offset
  const uint64_t bsn = next_ + static_cast<uint64_t>(at);
  const uint64_t stop = bsn + data.size();
  auto after = pending_.lower_bound(bsn);
  if (after != pending_.end() && after->first == bsn) {
    if (after->second.data.size() != data.size()) return Outcome::kRefused;
    ++duplicates_;
    return Outcome::kDuplicate;
  }
  if ((after != pending_.end() && after->first < stop) ||
      (after != pending_.begin() &&
       std::prev(after)->first + std::prev(after)->second.data.size() > bsn)) {
    return Outcome::kRefused;
  }
  highest_ = std::max(highest_, stop);
  if (bsn != next_) {
    buffered_ += data.size();
    pending_.emplace_hint(after, bsn, Piece{Bytes(data.begin(), data.end()), start, end});
    return Outcome::kAccepted;
  }
  deliver(data, nullptr, start, end, complete);
  while (!pending_.empty() && pending_.begin()->first == next_) {
    Piece next = std::move(pending_.begin()->second);
    pending_.erase(pending_.begin());
    buffered_ -= next.data.size();
    deliver(next.data, &next.data, next.start, next.end, complete);
  }
  return Outcome::kAccepted;
}

void RtpReassembly::deliver(ByteSpan data, Bytes *owned, bool start, bool end,
                            Completed &complete) {
  next_ += data.size();
  if (start) {
    // A start inside an unfinished message: the sender abandoned it.
    message_.clear();
    in_message_ = true;
  }
  if (!in_message_) return;  // the tail of a message whose start was never seen
  if (message_.size() + data.size() > max_message_) {
    broken_ = true;
    message_.clear();
    in_message_ = false;
    return;
  }
  if (start && end && owned == nullptr) {
    // A whole message in the caller's NLP: passed up as it lies there.
    complete.messages.push_back(data);
  } else if (start && end) {
    complete.storage.push_back(std::move(*owned));
    complete.messages.emplace_back(complete.storage.back());
  } else {
    message_.insert(message_.end(), data.begin(), data.end());
    if (!end) return;
    const size_t size = message_.size();
    complete.storage.push_back(std::move(message_));
    // A moved vector keeps its buffer, so this view survives the storage
    // growing.
    complete.messages.emplace_back(complete.storage.back());
    // The next message is likely the same size (a stream of records): room
    // for it at once instead of growing segment by segment.
    message_ = Bytes();
    message_.reserve(size);
  }
  in_message_ = false;
}

void RtpReassembly::note_stream_end(uint32_t wire_bsn) {
  const int64_t at = offset_of(wire_bsn);
  if (at > 0 && at <= static_cast<int64_t>(window_)) {
    highest_ = std::max(highest_, next_ + static_cast<uint64_t>(at));
  }
}

std::vector<std::pair<uint32_t, uint32_t>> RtpReassembly::gaps(size_t limit) const {
  std::vector<std::pair<uint32_t, uint32_t>> out;
  uint64_t at = next_;
  for (const auto &[bsn, piece] : pending_) {
    if (out.size() >= limit) return out;
    if (bsn > at) out.emplace_back(static_cast<uint32_t>(at), static_cast<uint32_t>(bsn));
    at = bsn + piece.data.size();
  }
  if (highest_ > at && out.size() < limit) {
    out.emplace_back(static_cast<uint32_t>(at), static_cast<uint32_t>(highest_));
  }
  return out;
}

}  // namespace snanode::net::hpr
