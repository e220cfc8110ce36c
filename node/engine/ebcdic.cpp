// Code page 037 conversion for the names that travel in verb records.
//
// Names reach the engine in EBCDIC (TP, mode and partner LU names, user IDs,
// passwords) while configuration, logs and the ASCII fields of the records are
// ASCII.  Only the printable range maps; anything else becomes '.' (to ASCII,
// the node's shared table) or an EBCDIC blank (to EBCDIC), and so never
// matches a configured name.
#include "engine/ebcdic.h"

#include "core/ebcdic_text.h"

#include <algorithm>

namespace snanode::engine {
namespace {

constexpr uint8_t kAsciiToEbcdic[128] = {
    0x00, 0x01, 0x02, 0x03, 0x37, 0x2D, 0x2E, 0x2F, 0x16, 0x05, 0x25, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,
    0x10, 0x11, 0x12, 0x13, 0x3C, 0x3D, 0x32, 0x26, 0x18, 0x19, 0x3F, 0x27, 0x1C, 0x1D, 0x1E, 0x1F,
    0x40, 0x5A, 0x7F, 0x7B, 0x5B, 0x6C, 0x50, 0x7D, 0x4D, 0x5D, 0x5C, 0x4E, 0x6B, 0x60, 0x4B, 0x61,
    0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0x7A, 0x5E, 0x4C, 0x7E, 0x6E, 0x6F,
    0x7C, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6,
    0xD7, 0xD8, 0xD9, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xBA, 0xE0, 0xBB, 0xB0, 0x6D,
    0x79, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x91, 0x92, 0x93, 0x94, 0x95, 0x96,
    0x97, 0x98, 0x99, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xC0, 0x4F, 0xD0, 0xA1, 0x07};

}  // namespace

std::string ebcdic_name(const uint8_t *field, size_t size) {
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    if (field[i] == kEbcdicBlank || field[i] == 0) break;
    out.push_back(ebcdic_to_printable(field[i]));
  }
  return out;
}

std::string ebcdic_secret(const uint8_t *field, size_t size) {
  while (size > 0 && field[size - 1] == kEbcdicBlank) --size;
  // A field nobody filled in (all zeros) holds nothing.
  if (std::all_of(field, field + size, [](uint8_t b) { return b == 0; })) return "";
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    const char c = ebcdic_to_printable(field[i]);
    // The shared table shows unprintable bytes as '.', which is also a
    // character a password may hold.
    const bool printable = c != '.' || field[i] == kAsciiToEbcdic['.'];
    out.push_back(printable ? c : '\x7f');
  }
  return out;
}

std::string ascii_name(const uint8_t *field, size_t size) {
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    if (field[i] == ' ' || field[i] == 0) break;
    out.push_back(static_cast<char>(field[i]));
  }
  return out;
}

void put_ebcdic_name(const std::string &name, uint8_t *field, size_t size) {
  std::fill(field, field + size, kEbcdicBlank);
  const size_t n = std::min(name.size(), size);
  for (size_t i = 0; i < n; ++i) {
    const auto c = static_cast<uint8_t>(name[i]);
    field[i] = c < 128 ? kAsciiToEbcdic[c] : kEbcdicBlank;
  }
}

void put_ascii_name(const std::string &name, uint8_t *field, size_t size) {
  std::fill(field, field + size, static_cast<uint8_t>(' '));
  std::copy_n(name.begin(), std::min(name.size(), size), field);
}

}  // namespace snanode::engine
