#include "net/formats/ebcdic_names.h"

namespace snanode::net {
namespace {

// Code page 037 places the letters in three runs of nine, eight and eight.
std::optional<uint8_t> ebcdic_of(char c) {
  if (c >= 'A' && c <= 'I') return static_cast<uint8_t>(0xC1 + (c - 'A'));
  if (c >= 'J' && c <= 'R') return static_cast<uint8_t>(0xD1 + (c - 'J'));
  if (c >= 'S' && c <= 'Z') return static_cast<uint8_t>(0xE2 + (c - 'S'));
  if (c >= '0' && c <= '9') return static_cast<uint8_t>(0xF0 + (c - '0'));
  switch (c) {
    case '$':
      return 0x5B;
    case '#':
      return 0x7B;
    case '@':
      return 0x7C;
    case '.':
      return 0x4B;
    default:
      return std::nullopt;
  }
}

std::optional<char> name_char_of(uint8_t b) {
  if (b >= 0xC1 && b <= 0xC9) return static_cast<char>('A' + (b - 0xC1));
  if (b >= 0xD1 && b <= 0xD9) return static_cast<char>('J' + (b - 0xD1));
  if (b >= 0xE2 && b <= 0xE9) return static_cast<char>('S' + (b - 0xE2));
  if (b >= 0xF0 && b <= 0xF9) return static_cast<char>('0' + (b - 0xF0));
  switch (b) {
    case 0x5B:
      return '$';
    case 0x7B:
      return '#';
    case 0x7C:
      return '@';
    case 0x4B:
      return '.';
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<Bytes> ebcdic_from_name(std::string_view name) {
  Bytes out;
  out.reserve(name.size());
  for (char c : name) {
    const auto b = ebcdic_of(c);
    if (!b) return std::nullopt;
    out.push_back(*b);
  }
  return out;
}

std::optional<std::string> name_from_ebcdic(ByteSpan name) {
  std::string out;
  out.reserve(name.size());
  for (uint8_t b : name) {
    const auto c = name_char_of(b);
    if (!c) return std::nullopt;
    out.push_back(*c);
  }
  return out;
}

}  // namespace snanode::net
