// Running tshark from the capture tests: whether it is installed, what a
// command prints on its standard output, and bytes the way it prints them.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

// What tshark printed, cut at `separator`; a last piece with no separator
// after it is kept only if `keep_tail`.
inline std::vector<std::string> split(const std::string &text, char separator = '\n',
                                      bool keep_tail = false) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + 1) {
    parts.push_back(text.substr(start, at - start));
  }
  if (keep_tail) parts.push_back(text.substr(start));
  return parts;
}

}  // namespace snanode::net::tshark_check
