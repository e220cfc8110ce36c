// SNA names (LU, CP, mode, network-qualified "NETID.NAME") between ASCII and
// the EBCDIC bytes they travel as.  Only the name alphabet maps: upper-case
// letters, digits, '$', '#', '@' and the '.' that joins a network ID to a name.
// TP names may hold any byte (service TPs start below X'40'), so they stay raw
// bytes in the formats and only tests and configuration convert them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "net/formats/byte_io.h"

namespace snanode::net {

// The EBCDIC form of `name`, or nothing when it holds a character outside the
// name alphabet.
std::optional<Bytes> ebcdic_from_name(std::string_view name);

// The ASCII form of an EBCDIC name, or nothing when a byte is outside the name
// alphabet (the name then came from a partner that uses other characters).
std::optional<std::string> name_from_ebcdic(ByteSpan name);

}  // namespace snanode::net
