#include "net/formats/byte_io.h"

namespace snanode::net {

bool ByteReader::need(size_t count) {
  if (remaining() >= count) return true;
  failed_ = true;
  offset_ = bytes_.size();
  return false;
}

uint8_t ByteReader::u8() {
  return need(1) ? bytes_[offset_++] : 0;
}

uint16_t ByteReader::u16() {
  if (!need(2)) return 0;
  offset_ += 2;
  return load_u16(bytes_.data() + offset_ - 2);
}

uint32_t ByteReader::u32() {
  if (!need(4)) return 0;
  offset_ += 4;
  return load_u32(bytes_.data() + offset_ - 4);
}

ByteSpan ByteReader::take(size_t count) {
  if (!need(count)) return {};
  offset_ += count;
  return bytes_.subspan(offset_ - count, count);
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
