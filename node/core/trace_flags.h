// The node's trace flag bytes behind `ptrc`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace snanode {

// Replaces the flag bytes: the first `count` from `bytes`, the rest zero.
// The configuration module calls this with the file's trace settings.
void apply_trace_flags(const uint8_t *bytes, size_t count);

// Sets the flag bytes from the environment alone: all zero, then
// SNANODE_TRACE_FLAGS gives bytes explicitly, then SNANODE_TRACE (on) sets the
// API trace bit.  Runs once when the library is loaded.
void load_trace_flags_from_environment();

// The value of an on/off switch such as SNANODE_TRACE: 1, on, yes, true turn
// it on; 0, off, no, false off; anything else is nothing.  Every reader of the
// switch goes through here, so they cannot disagree.
std::optional<bool> switch_value(std::string_view text);

// Parses SNANODE_TRACE_FLAGS text: pairs of hexadecimal digits, one per byte
// from byte 0, optionally separated by blanks, ':', ',' or '-'.  Parsing stops
// at the first other character or lone digit; the bytes before it count.  At
// most SNANODE_TRACE_FLAG_BYTES bytes.
std::basic_string<uint8_t> parse_trace_flag_text(const std::string &text);

}  // namespace snanode
