// TableReader: typed access to a TOML table with file positions in messages.
#include "config/table_reader.h"

namespace snanode::config {
namespace {

const char *type_name(toml::node_type type) {
  switch (type) {
    case toml::node_type::string:
      return "a string";
    case toml::node_type::integer:
      return "an integer";
    case toml::node_type::boolean:
      return "true or false";
    case toml::node_type::array:
      return "an array";
    case toml::node_type::table:
      return "a table";
    case toml::node_type::floating_point:
      return "a floating-point number";
    default:
      return "a date or time";
  }
}

}  // namespace

void fail_at(const std::string &file, const toml::source_region &where,
             const std::string &problem) {
  throw ConfigError(file + ":" + std::to_string(where.begin.line) + ":" +
                    std::to_string(where.begin.column) + ": " + problem);
}

TableReader::TableReader(const toml::table &table, std::string where, const std::string &file)
    : table_(table), where_(std::move(where)), file_(file) {}

toml::source_region TableReader::position(std::string_view key) const {
  if (const toml::node *node = table_.get(key)) return node->source();
  return table_.source();
}

void TableReader::fail(std::string_view key, const std::string &problem) const {
  fail_at(file_, position(key), where_ + " " + std::string(key) + ": " + problem);
}

const toml::node *TableReader::use(std::string_view key, toml::node_type type, const char *wanted) {
  used_.emplace(key);
  const toml::node *node = table_.get(key);
  if (node != nullptr && node->type() != type) {
    fail(key, std::string("must be ") + wanted + ", not " + type_name(node->type()));
  }
  return node;
}

std::string TableReader::string(std::string_view key, const std::string &fallback) {
  const toml::node *node = use(key, toml::node_type::string, "a string");
  return node ? node->as_string()->get() : fallback;
}

std::string TableReader::required_string(std::string_view key) {
  if (!has(key)) {
    fail_at(file_, table_.source(), where_ + " needs the key " + std::string(key));
  }
  return string(key, "");
}

bool TableReader::boolean(std::string_view key, bool fallback) {
  const toml::node *node = use(key, toml::node_type::boolean, "true or false");
  return node ? node->as_boolean()->get() : fallback;
}

uint32_t TableReader::integer(std::string_view key, uint32_t fallback, int64_t min, int64_t max) {
  const toml::node *node = use(key, toml::node_type::integer, "an integer");
  if (node == nullptr) return fallback;
  const int64_t value = node->as_integer()->get();
  if (value < min || value > max) {
    fail(key, "must be between " + std::to_string(min) + " and " + std::to_string(max) + ", not " +
                  std::to_string(value));
  }
  return static_cast<uint32_t>(value);
}

std::vector<std::string> TableReader::strings(std::string_view key) {
  std::vector<std::string> out;
  const toml::node *node = use(key, toml::node_type::array, "an array of strings");
  if (node == nullptr) return out;
  for (const toml::node &element : *node->as_array()) {
    if (!element.is_string()) {
      fail_at(file_, element.source(),
              where_ + " " + std::string(key) + ": every element must be a string");
    }
    out.push_back(element.as_string()->get());
  }
  return out;
}

std::vector<uint8_t> TableReader::bytes(std::string_view key, size_t max_count) {
  std::vector<uint8_t> out;
  const toml::node *node = use(key, toml::node_type::array, "an array of integers");
  if (node == nullptr) return out;
  const toml::array &array = *node->as_array();
  if (array.size() > max_count) {
    fail(key, "holds more than " + std::to_string(max_count) + " bytes");
  }
  for (const toml::node &element : array) {
    if (!element.is_integer() || element.as_integer()->get() < 0 ||
        element.as_integer()->get() > 255) {
      fail_at(file_, element.source(),
              where_ + " " + std::string(key) + ": every element must be an integer 0 to 255");
    }
    out.push_back(static_cast<uint8_t>(element.as_integer()->get()));
  }
  return out;
}

void TableReader::finish() const {
  for (auto &&[key, node] : table_) {
    if (!used_.contains(key.str())) {
      fail_at(file_, key.source(), where_ + ": unknown key " + std::string(key.str()));
    }
  }
}

std::vector<const toml::table *> table_array(const toml::table &root, std::string_view key,
                                             const std::string &file) {
  std::vector<const toml::table *> out;
  const toml::node *node = root.get(key);
  if (node == nullptr) return out;
  const toml::array *array = node->as_array();
  if (array == nullptr || !array->is_array_of_tables()) {
    fail_at(
        file, node->source(),
        std::string(key) + " must be written as an array of tables: [[" + std::string(key) + "]]");
  }
  for (const toml::node &element : *array) out.push_back(element.as_table());
  return out;
}

}  // namespace snanode::config
