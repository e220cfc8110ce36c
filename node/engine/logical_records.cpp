// The LL walk shared by the sending and the receiving half.
#include "engine/logical_records.h"

#include <algorithm>

namespace snanode::engine {
namespace {

constexpr size_t kLengthMask = 0x7FFF;
constexpr size_t kLlSize = 2;

}  // namespace

bool RecordCursor::advance(const uint8_t *data, size_t size) {
  RecordCursor next = *this;
  size_t pos = 0;
  while (pos < size) {
    if (next.left_ > 0) {
      const size_t take = std::min(next.left_, size - pos);
      next.left_ -= take;
      pos += take;
    } else if (next.header_seen_ == 0) {
      next.first_ll_byte_ = data[pos++];
      next.header_seen_ = 1;
    } else {
      const size_t length = ((size_t{next.first_ll_byte_} << 8) | data[pos++]) & kLengthMask;
      if (length < kLlSize) return false;
      next.header_seen_ = 0;
      next.left_ = length - kLlSize;
    }
  }
  *this = next;
  return true;
}

std::optional<size_t> RecordCursor::left_in_record(const uint8_t *data, size_t size) const {
  if (left_ > 0) return left_;
  // An invalid LL never passes the sender's cursor; should one arrive anyway,
  // the record is treated as never complete rather than as a loop of zeros.
  if (header_seen_ == 1) {
    if (size < 1) return std::nullopt;
    const size_t length = ((size_t{first_ll_byte_} << 8) | data[0]) & kLengthMask;
    if (length < kLlSize) return std::nullopt;
    return length - 1;
  }
  if (size < kLlSize) return std::nullopt;
  const size_t length = ((size_t{data[0]} << 8) | data[1]) & kLengthMask;
  if (length < kLlSize) return std::nullopt;
  return length;
}

std::optional<size_t> RecordCursor::last_boundary(const uint8_t *data, size_t size) const {
  std::optional<size_t> boundary;
  if (at_boundary()) boundary = 0;
  RecordCursor walk = *this;
  size_t pos = 0;
  while (pos < size) {
    const auto left = walk.left_in_record(data + pos, size - pos);
    if (!left || *left > size - pos) break;
    walk.advance(data + pos, *left);
    pos += *left;
    boundary = pos;
  }
  return boundary;
}

}  // namespace snanode::engine
