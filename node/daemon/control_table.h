// The shape of every answer snanodectl shows: named sections of rows, each
// row a list of named scalar fields.  The same table is rendered as JSON (an
// object of arrays of objects, for scripts) or as aligned text (for people),
// so the field names a script reads are the column names a person sees, and
// are defined in one place (control_status.cpp).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace snanode::daemon {

// null, text, a count, a signed number, a flag.
using FieldValue = std::variant<std::monostate, std::string, uint64_t, int64_t, bool>;

struct Row {
  std::vector<std::pair<std::string, FieldValue>> fields;
  Row &add(std::string name, FieldValue value) {
    fields.emplace_back(std::move(name), std::move(value));
    return *this;
  }
};

struct Section {
  std::string name;
  bool single = false;  // one object, not a list (the node itself)
  std::vector<Row> rows;
};

using Table = std::vector<Section>;

std::string render_json(const Table &table);
std::string render_text(const Table &table);

// JSON string contents: quotes, backslashes and control characters escaped,
// other bytes as they are.
std::string json_escape(const std::string &text);

}  // namespace snanode::daemon
