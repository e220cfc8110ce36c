// EBCDIC (code page 037) bytes as printable ASCII, for logs that show names
// and data the node holds in EBCDIC.  Bytes without a printable counterpart
// show as '.'.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace snanode {

char ebcdic_to_printable(uint8_t byte);
std::string ebcdic_to_printable(const uint8_t *bytes, size_t length);

}  // namespace snanode
