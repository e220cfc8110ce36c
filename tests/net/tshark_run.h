// Running tshark from the capture tests: whether it is installed, what a
// command prints on its standard output, and bytes the way it prints them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "net/formats/byte_io.h"

namespace snanode::net::tshark_check {

inline bool have_tshark() {
  return std::system("command -v tshark >/dev/null 2>&1") == 0;
}

inline std::string run(const std::string &command) {
  std::string out;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

// Bytes as tshark prints a byte field: lower-case hex digits, no separator.
inline std::string hex(ByteSpan bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) {
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 0xF]);
  }
  return out;
}

}  // namespace snanode::net::tshark_check
