// Decoding the arguments of a problem or audit record into its log line and
// into the in-memory copy the test interface hands out.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "snanode/snanode_test.h"

namespace snanode {

// `kind` names the log ("problem", "audit").  Each token of `arg_types`
// consumes its arguments from `args`: l, x, lx, b one 32-bit integer; s one
// string; ba, ca, es a 32-bit length and an address.  An unknown token ends
// decoding (the arguments after it cannot be located).  The line has no
// trailing newline; record.line holds as much of it as fits.
struct FormattedRecord {
  SNT_RECORD record;
  std::string line;
};
FormattedRecord format_log_record(const char *kind, uint32_t code, uint32_t probe,
                                  const char *arg_types, va_list args);

// "2026-11-23T01:08:55.123456Z pid 1234 tid 1240": the prefix of every line.
std::string log_line_prefix();

}  // namespace snanode
