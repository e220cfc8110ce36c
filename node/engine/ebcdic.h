// Names in verb records: fixed-length fields, EBCDIC or ASCII, blank padded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace snanode::engine {

inline constexpr uint8_t kEbcdicBlank = 0x40;

// The name in an EBCDIC field, as ASCII, up to the first blank or NUL.
std::string ebcdic_name(const uint8_t *field, size_t size);

// A user ID or password field as ASCII: every byte up to the trailing blanks,
// so nothing after a byte the library could not convert (which it sends as
// X'00') is dropped.  A byte with no printable counterpart becomes DEL, which
// no configured value holds, so such a field never matches one.
std::string ebcdic_secret(const uint8_t *field, size_t size);

// The name in an ASCII field, up to the first blank or NUL.
std::string ascii_name(const uint8_t *field, size_t size);

// Writes `name` into a field of `size` bytes, converted and blank padded.
void put_ebcdic_name(const std::string &name, uint8_t *field, size_t size);
void put_ascii_name(const std::string &name, uint8_t *field, size_t size);

}  // namespace snanode::engine
