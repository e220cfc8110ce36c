#include "net/hpr/rtp_send_queue.h"

#include <algorithm>

namespace snanode::net::hpr {

void RtpSendQueue::push_message(Bytes &&message) {
  if (message.empty()) return;
  waiting_bytes_ += message.size();
  waiting_.push_back({share_buffer(std::move(message)), 0});
}

RtpSegment *RtpSendQueue::cut(size_t max_data) {
  if (waiting_.empty() || max_data == 0) return nullptr;
  Waiting &w = waiting_.front();
  const size_t whole = w.bytes->size();
  const size_t size = std::min(max_data, whole - w.offset);
  RtpSegment segment;
  segment.bsn = sent_end_;
  segment.start = w.offset == 0;
  segment.data = SharedSpan(w.bytes, w.offset, size);
  w.offset += size;
  segment.end = w.offset == whole;
  if (segment.end) waiting_.pop_front();
  waiting_bytes_ -= size;
  sent_end_ += size;
  unacked_.push_back(std::move(segment));
  return &unacked_.back();
}

uint64_t RtpSendQueue::unwrap(uint32_t sequence) const {
  const uint64_t back = static_cast<uint32_t>(static_cast<uint32_t>(sent_end_) - sequence);
  return back > sent_end_ ? 0 : sent_end_ - back;
}

void RtpSendQueue::acknowledge(uint32_t sequence) {
  const uint64_t upto = unwrap(sequence);
  if (upto <= acknowledged_) return;
  acknowledged_ = upto;
  while (!unacked_.empty() && unacked_.front().bsn + unacked_.front().data.size <= upto) {
    unacked_.pop_front();
  }
}

RtpTime RtpSendQueue::mark_missing(uint32_t wire_begin, uint32_t wire_end, RtpTime sent_before,
                                   size_t &newly_missing) {
  const uint64_t begin = unwrap(wire_begin);
  const uint64_t end = begin + static_cast<uint32_t>(wire_end - wire_begin);
  auto it =
      std::lower_bound(unacked_.begin(), unacked_.end(), begin,
                       [](const RtpSegment &s, uint64_t at) { return s.bsn + s.data.size <= at; });
  RtpTime latest{};
  for (; it != unacked_.end() && it->bsn < end; ++it) {
    if (it->queued_for_retransmission || it->last_sent >= sent_before) continue;
    it->queued_for_retransmission = true;
    retransmit_.push_back(it->bsn);
    newly_missing += it->data.size;
    latest = std::max(latest, it->last_sent);
  }
  return latest;
}

RtpSegment *RtpSendQueue::peek_retransmission() {
  while (!retransmit_.empty()) {
    const uint64_t bsn = retransmit_.front();
    auto it = std::lower_bound(unacked_.begin(), unacked_.end(), bsn,
                               [](const RtpSegment &s, uint64_t at) { return s.bsn < at; });
    if (it != unacked_.end() && it->bsn == bsn && it->queued_for_retransmission) return &*it;
    retransmit_.pop_front();  // acknowledged meanwhile
  }
  return nullptr;
}

void RtpSendQueue::retransmitted() {
  if (RtpSegment *segment = peek_retransmission()) {
    segment->queued_for_retransmission = false;
    retransmit_.pop_front();
    ++retransmitted_;
  }
}

}  // namespace snanode::net::hpr
