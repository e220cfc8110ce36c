#include "daemon/control_table.h"

#include <algorithm>
#include <cstdio>

namespace snanode::daemon {
namespace {

std::string json_value(const FieldValue &value) {
  struct {
    std::string operator()(std::monostate) const { return "null"; }
    std::string operator()(const std::string &v) const { return "\"" + json_escape(v) + "\""; }
    std::string operator()(uint64_t v) const { return std::to_string(v); }
    std::string operator()(int64_t v) const { return std::to_string(v); }
    std::string operator()(bool v) const { return v ? "true" : "false"; }
  } visitor;
  return std::visit(visitor, value);
}

std::string text_value(const FieldValue &value) {
  if (std::holds_alternative<std::monostate>(value)) return "-";
  if (const auto *text = std::get_if<std::string>(&value)) return text->empty() ? "-" : *text;
  if (const auto *flag = std::get_if<bool>(&value)) return *flag ? "yes" : "no";
  return json_value(value);
}

std::string json_row(const Row &row) {
  std::string out = "{";
  for (const auto &[name, value] : row.fields) {
    if (out.size() > 1) out += ",";
    out += "\"" + name + "\":" + json_value(value);
  }
  return out + "}";
}

}  // namespace

std::string json_escape(const std::string &text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

std::string render_json(const Table &table) {
  std::string out = "{";
  for (const Section &section : table) {
    if (out.size() > 1) out += ",";
    out += "\"" + section.name + "\":";
    if (section.single) {
      out += section.rows.empty() ? "null" : json_row(section.rows.front());
      continue;
    }
    out += "[";
    for (size_t i = 0; i < section.rows.size(); ++i) {
      if (i != 0) out += ",";
      out += json_row(section.rows[i]);
    }
    out += "]";
  }
  return out + "}\n";
}

std::string render_text(const Table &table) {
  std::string out;
  for (const Section &section : table) {
    if (section.single) {
      for (const Row &row : section.rows) {
        for (const auto &[name, value] : row.fields) out += name + ": " + text_value(value) + "\n";
      }
      continue;
    }
    out += "\n" + section.name + " (" + std::to_string(section.rows.size()) + ")\n";
    if (section.rows.empty()) continue;
    // Columns as wide as their widest cell, names of the first row.
    const Row &first = section.rows.front();
    std::vector<size_t> width;
    for (const auto &field : first.fields) width.push_back(field.first.size());
    for (const Row &row : section.rows) {
      for (size_t i = 0; i < row.fields.size() && i < width.size(); ++i) {
        width[i] = std::max(width[i], text_value(row.fields[i].second).size());
      }
    }
    const auto line = [&](const auto &cell) {
      std::string text = " ";
      for (size_t i = 0; i < width.size(); ++i) {
        std::string value = cell(i);
        text += " " + value + std::string(width[i] - std::min(width[i], value.size()), ' ');
      }
      while (!text.empty() && text.back() == ' ') text.pop_back();
      out += text + "\n";
    };
    line([&](size_t i) { return first.fields[i].first; });
    for (const Row &row : section.rows) {
      line([&](size_t i) { return i < row.fields.size() ? text_value(row.fields[i].second) : ""; });
    }
  }
  return out;
}

}  // namespace snanode::daemon
