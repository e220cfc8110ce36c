// Bounded reading and appending of big-endian wire fields.
//
// All inline: the receiving daemon reads every header of every packet
// through these, a few bytes at a time, and a call per byte was a tenth of
// its time.
//
// Every decoder reads untrusted bytes through ByteReader.  A read past the end
// never touches memory outside the span: it yields zeros and marks the reader
// failed, so a decoder can read a whole header and check once, at the point
// where the failure decides the sense code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace snanode::net {

using Bytes = std::vector<uint8_t>;
using ByteSpan = std::span<const uint8_t>;

inline uint16_t load_u16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t load_u32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

class ByteReader {
 public:
  explicit ByteReader(ByteSpan bytes) : bytes_(bytes) {}

  size_t offset() const { return offset_; }
  size_t remaining() const { return bytes_.size() - offset_; }
  bool ok() const { return !failed_; }
  bool at_end() const { return offset_ == bytes_.size(); }

  uint8_t u8() { return need(1) ? bytes_[offset_++] : 0; }
  uint16_t u16() {
    if (!need(2)) return 0;
    offset_ += 2;
    return load_u16(bytes_.data() + offset_ - 2);
  }
  uint32_t u32() {
    if (!need(4)) return 0;
    offset_ += 4;
    return load_u32(bytes_.data() + offset_ - 4);
  }
  // The next `count` bytes; an empty span (and failure) when fewer remain.
  ByteSpan take(size_t count) {
    if (!need(count)) return {};
    offset_ += count;
    return bytes_.subspan(offset_ - count, count);
  }
  ByteSpan rest() { return take(remaining()); }
  // Copies the next `count` bytes into `out` (resized); false when fewer remain.
  bool copy(size_t count, Bytes &out) {
    const ByteSpan part = take(count);
    out.assign(part.begin(), part.end());
    return ok();
  }
  uint8_t peek(size_t ahead = 0) const { return ahead < remaining() ? bytes_[offset_ + ahead] : 0; }

 private:
  // False (and the reader failed, at its end) when fewer than `count` remain.
  bool need(size_t count) {
    if (remaining() >= count) return true;
    failed_ = true;
    offset_ = bytes_.size();
    return false;
  }

  ByteSpan bytes_;
  size_t offset_ = 0;
  bool failed_ = false;
};

// Appends to a byte vector; length fields are written first as placeholders
// and patched once what they count is known.
class ByteWriter {
 public:
  explicit ByteWriter(Bytes &out) : out_(out) {}

  size_t size() const { return out_.size(); }
  void u8(uint8_t value) { out_.push_back(value); }
  void u16(uint16_t value) {
    out_.push_back(static_cast<uint8_t>(value >> 8));
    out_.push_back(static_cast<uint8_t>(value));
  }
  void u32(uint32_t value) {
    u16(static_cast<uint16_t>(value >> 16));
    u16(static_cast<uint16_t>(value));
  }
  void bytes(ByteSpan data) { out_.insert(out_.end(), data.begin(), data.end()); }
  void patch_u8(size_t at, uint8_t value) { out_[at] = value; }
  void patch_u16(size_t at, uint16_t value) {
    out_[at] = static_cast<uint8_t>(value >> 8);
    out_[at + 1] = static_cast<uint8_t>(value);
  }

 private:
  Bytes &out_;
};

}  // namespace snanode::net
