// Checks of the names a node configuration holds.  Each returns an empty
// optional when the name is acceptable, else the problem in words; the parser
// adds the file position.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace snanode::config {

using Problem = std::optional<std::string>;

// Network names (network ID, one half of an LU name, node name): 1 to 8 of
// A-Z 0-9 $ # @, not starting with a digit.
Problem check_network_name(std::string_view what, std::string_view name);

// Mode names: like network names, upper case only (#INTER, #BATCH ...).
Problem check_mode_name(std::string_view name);

// A network-qualified LU name NETID.LUNAME, each half a network name.
Problem check_qualified_lu_name(std::string_view what, std::string_view name);

// Aliases and symbolic destination names: 1 to 8 printable ASCII characters
// without blanks (a blank would end the name where it is blank padded).
Problem check_alias(std::string_view what, std::string_view name);

// A partner LU as side information names it: an alias or a qualified name.
Problem check_partner_reference(std::string_view name);

// Application TP names: 1 to 64 printable ASCII characters without blanks.
Problem check_tp_name(std::string_view name);

// SNA service TP names: exactly 8 hexadecimal digits (4 bytes).
Problem check_service_tp_name(std::string_view name);

// User IDs and passwords: up to 10 printable ASCII characters without
// blanks; user IDs must not be empty.
Problem check_security_field(std::string_view what, std::string_view value, bool may_be_empty);

}  // namespace snanode::config
