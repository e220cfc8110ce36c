#include "core/trace_flags.h"

#include <cstdlib>
#include <cstring>

#include "snanode/snanode.h"

namespace snanode {
namespace {

unsigned char g_trace_flags[SNANODE_TRACE_FLAG_BYTES];

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_separator(char c) {
  return c == ' ' || c == '\t' || c == ':' || c == ',' || c == '-';
}

// The flags must be right before libcpic's first call reads them, which can
// come before main().
[[maybe_unused]] const bool g_loaded = (load_trace_flags_from_environment(), true);

}  // namespace

std::basic_string<uint8_t> parse_trace_flag_text(const std::string &text) {
  std::basic_string<uint8_t> bytes;
  size_t i = 0;
  while (i < text.size() && bytes.size() < SNANODE_TRACE_FLAG_BYTES) {
    if (is_separator(text[i])) {
      ++i;
      continue;
    }
    const int high = hex_value(text[i]);
    const int low = i + 1 < text.size() ? hex_value(text[i + 1]) : -1;
    if (high < 0 || low < 0) break;
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    i += 2;
  }
  return bytes;
}

void apply_trace_flags(const uint8_t *bytes, size_t count) {
  if (count > sizeof g_trace_flags) count = sizeof g_trace_flags;
  std::memset(g_trace_flags, 0, sizeof g_trace_flags);
  if (count != 0) std::memcpy(g_trace_flags, bytes, count);
}

void load_trace_flags_from_environment() {
  const char *explicit_flags = std::getenv("SNANODE_TRACE_FLAGS");
  const auto bytes = parse_trace_flag_text(explicit_flags != nullptr ? explicit_flags : "");
  apply_trace_flags(bytes.data(), bytes.size());
  const char *trace = std::getenv("SNANODE_TRACE");
  if (trace != nullptr && switch_value(trace).value_or(false)) {
    g_trace_flags[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  }
}

std::optional<bool> switch_value(std::string_view text) {
  if (text == "1" || text == "on" || text == "yes" || text == "true") return true;
  if (text == "0" || text == "off" || text == "no" || text == "false") return false;
  return std::nullopt;
}

}  // namespace snanode

extern "C" {
unsigned char *ptrc = snanode::g_trace_flags;
}
