#include "daemon/log_text.h"

namespace snanode::daemon {

std::string log_safe(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    // The backslash is escaped too, so an escape in the log always means one.
    if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
      safe.push_back(c);
    } else {
      safe += "\\x";
      safe.push_back(kHex[byte >> 4]);
      safe.push_back(kHex[byte & 0x0F]);
    }
  }
  return safe;
}

}  // namespace snanode::daemon
