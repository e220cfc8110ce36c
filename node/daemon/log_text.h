// Text that goes into the daemon's log from outside: names a client sent,
// program paths of the configuration.  Every byte that could start a new
// line, move the cursor of a terminal or is not printable ASCII is written
// as \xHH, so a client cannot forge a log line or hide one.
#pragma once

#include <string>
#include <string_view>

namespace snanode::daemon {

// `text` with every control character, backslash and byte outside printable
// ASCII written as \xHH (a newline is \x0A).
std::string log_safe(std::string_view text);

}  // namespace snanode::daemon
