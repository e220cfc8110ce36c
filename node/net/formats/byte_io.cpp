#include "net/formats/byte_io.h"

namespace snanode::net {

uint8_t ByteReader::u8() {
  if (remaining() < 1) {
    failed_ = true;
    offset_ = bytes_.size();
    return 0;
  }
  return bytes_[offset_++];
}

uint16_t ByteReader::u16() {
  if (remaining() < 2) {
    failed_ = true;
    offset_ = bytes_.size();
    return 0;
  }
  const uint16_t value = load_u16(bytes_.data() + offset_);
  offset_ += 2;
  return value;
}

uint32_t ByteReader::u32() {
  if (remaining() < 4) {
    failed_ = true;
    offset_ = bytes_.size();
    return 0;
  }
  const uint32_t value = load_u32(bytes_.data() + offset_);
  offset_ += 4;
  return value;
}

ByteSpan ByteReader::take(size_t count) {
  if (remaining() < count) {
    failed_ = true;
    offset_ = bytes_.size();
    return {};
  }
  const ByteSpan part = bytes_.subspan(offset_, count);
  offset_ += count;
  return part;
}

bool ByteReader::copy(size_t count, Bytes &out) {
  const ByteSpan part = take(count);
  out.assign(part.begin(), part.end());
  return ok();
}

void ByteWriter::u16(uint16_t value) {
  out_.push_back(static_cast<uint8_t>(value >> 8));
  out_.push_back(static_cast<uint8_t>(value));
}

void ByteWriter::u32(uint32_t value) {
  u16(static_cast<uint16_t>(value >> 16));
  u16(static_cast<uint16_t>(value));
}

void ByteWriter::patch_u16(size_t at, uint16_t value) {
  out_[at] = static_cast<uint8_t>(value >> 8);
  out_[at + 1] = static_cast<uint8_t>(value);
}

}  // namespace snanode::net
