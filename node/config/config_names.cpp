// Name checks shared by the parser and the defaults.
#include "config/config_names.h"

#include <algorithm>

namespace snanode::config {
namespace {

bool is_network_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '$' || c == '#' || c == '@';
}

bool is_visible_ascii(char c) {
  return c > ' ' && c < 0x7F;
}

std::string quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

Problem check_length(std::string_view what, std::string_view name, size_t max) {
  if (name.empty()) return std::string(what) + " is empty";
  if (name.size() > max) {
    return std::string(what) + " " + quoted(name) + " is longer than " + std::to_string(max) +
           " characters";
  }
  return std::nullopt;
}

}  // namespace

Problem check_network_name(std::string_view what, std::string_view name) {
  if (auto problem = check_length(what, name, 8)) return problem;
  if (name[0] >= '0' && name[0] <= '9') {
    return std::string(what) + " " + quoted(name) + " starts with a digit";
  }
  if (!std::all_of(name.begin(), name.end(), is_network_char)) {
    return std::string(what) + " " + quoted(name) + " may hold only A-Z, 0-9, $, # and @";
  }
  return std::nullopt;
}

Problem check_mode_name(std::string_view name) {
  return check_network_name("mode name", name);
}

Problem check_qualified_lu_name(std::string_view what, std::string_view name) {
  const size_t period = name.find('.');
  if (period == std::string_view::npos || name.find('.', period + 1) != std::string_view::npos) {
    return std::string(what) + " " + quoted(name) + " is not of the form NETID.LUNAME";
  }
  if (auto problem = check_network_name(what, name.substr(0, period))) return problem;
  return check_network_name(what, name.substr(period + 1));
}

Problem check_alias(std::string_view what, std::string_view name) {
  if (auto problem = check_length(what, name, 8)) return problem;
  if (!std::all_of(name.begin(), name.end(), is_visible_ascii)) {
    return std::string(what) + " " + quoted(name) +
           " may hold only printable ASCII characters and no blanks";
  }
  return std::nullopt;
}

Problem check_partner_reference(std::string_view name) {
  if (name.find('.') != std::string_view::npos) {
    return check_qualified_lu_name("partner LU name", name);
  }
  return check_alias("partner LU alias", name);
}

Problem check_tp_name(std::string_view name) {
  if (auto problem = check_length("TP name", name, 64)) return problem;
  if (!std::all_of(name.begin(), name.end(), is_visible_ascii)) {
    return "TP name " + quoted(name) + " may hold only printable ASCII characters and no blanks";
  }
  return std::nullopt;
}

Problem check_service_tp_name(std::string_view name) {
  const bool hex = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
  });
  if (name.size() != 8 || !hex) {
    return "service TP name " + quoted(name) + " must be 8 hexadecimal digits";
  }
  return std::nullopt;
}

Problem check_security_field(std::string_view what, std::string_view value, bool may_be_empty) {
  if (value.empty()) {
    return may_be_empty ? std::nullopt : Problem(std::string(what) + " is empty");
  }
  if (value.size() > 10) return std::string(what) + " is longer than 10 characters";
  if (!std::all_of(value.begin(), value.end(), is_visible_ascii)) {
    return std::string(what) + " may hold only printable ASCII characters and no blanks";
  }
  return std::nullopt;
}

}  // namespace snanode::config
