// The bytes of a configuration file, checked before the TOML parser sees
// them: the parser is a dependency whose handling of odd input the node does
// not control, so it is only ever given text it is known to handle.
#pragma once

#include <string>
#include <string_view>

namespace snanode::config {

// Throws ConfigError "NAME:LINE:COLUMN: problem" when `text` is not valid
// UTF-8, holds a control character other than tab, carriage return and line
// feed, or holds a character outside ASCII anywhere but in a string or a
// comment (every key and bare value of the configuration is ASCII).
void check_config_text(std::string_view text, const std::string &name);

}  // namespace snanode::config
