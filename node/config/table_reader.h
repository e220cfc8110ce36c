// Typed, position-aware access to one TOML table of the configuration file.
//
// Every value is read through a reader so that a wrong type, an out-of-range
// number or a misspelt key ends the parse with one message naming the file,
// line and column.  Keys that no reader asked for are reported by finish():
// an unknown key is most often a typo, and silently ignoring it would run the
// node with a configuration the operator did not write.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <toml++/toml.h>

#include "config/node_config.h"

namespace snanode::config {

// Throws ConfigError "FILE:LINE:COLUMN: problem" for a position in the file.
[[noreturn]] void fail_at(const std::string &file, const toml::source_region &where,
                          const std::string &problem);

class TableReader {
 public:
  // `where` names the table in messages, e.g. "[[side_info]]".
  TableReader(const toml::table &table, std::string where, const std::string &file);

  bool has(std::string_view key) const { return table_.contains(key); }
  std::string string(std::string_view key, const std::string &fallback);
  std::string required_string(std::string_view key);
  bool boolean(std::string_view key, bool fallback);
  uint32_t integer(std::string_view key, uint32_t fallback, int64_t min, int64_t max);
  std::vector<std::string> strings(std::string_view key);
  std::vector<uint8_t> bytes(std::string_view key, size_t max_count);

  // The position of a key's value, or of the table when the key is absent.
  toml::source_region position(std::string_view key) const;
  [[noreturn]] void fail(std::string_view key, const std::string &problem) const;

  // Reports the first key of the table that no accessor read.
  void finish() const;

 private:
  const toml::node *use(std::string_view key, toml::node_type type, const char *type_name);

  const toml::table &table_;
  std::string where_;
  const std::string &file_;
  std::set<std::string, std::less<>> used_;
};

// The tables of an array of tables such as [[mode]]; an absent key gives none.
std::vector<const toml::table *> table_array(const toml::table &root, std::string_view key,
                                             const std::string &file);

}  // namespace snanode::config
