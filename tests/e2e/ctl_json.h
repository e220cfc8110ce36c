// Just enough JSON to read snanodectl's answers in tests: objects, arrays,
// strings (without \u escapes past ASCII), integers, true, false, null.  A
// text that is not valid JSON fails the parse, which the tests check too.
#pragma once

#include <cctype>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ctl_test {

struct Json {
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = Kind::kNull;
  bool flag = false;
  int64_t number = 0;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> members;

  const Json &operator[](const std::string &name) const {
    static const Json missing;
    auto found = members.find(name);
    return found == members.end() ? missing : found->second;
  }
};

class JsonParser {
 public:
  explicit JsonParser(const std::string &text) : s_(text) {}
  // The value, or nothing when the text is not one JSON value.
  std::optional<Json> parse() {
    Json value;
    if (!value_into(value)) return std::nullopt;
    skip();
    return at_ == s_.size() ? std::optional(value) : std::nullopt;
  }

 private:
  void skip() {
    while (at_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[at_]))) ++at_;
  }
  bool eat(char c) {
    skip();
    if (at_ < s_.size() && s_[at_] == c) return ++at_, true;
    return false;
  }
  bool word(const char *w) {
    const std::string text(w);
    if (s_.compare(at_, text.size(), text) != 0) return false;
    at_ += text.size();
    return true;
  }
  bool string_into(std::string &out) {
    if (!eat('"')) return false;
    while (at_ < s_.size() && s_[at_] != '"') {
      char c = s_[at_++];
      if (c == '\\') {
        if (at_ >= s_.size()) return false;
        c = s_[at_++];
        if (c == 'u') {
          if (at_ + 4 > s_.size()) return false;
          c = static_cast<char>(std::stoi(s_.substr(at_, 4), nullptr, 16));
          at_ += 4;
        } else if (c == 'n') {
          c = '\n';
        }
      }
      out += c;
    }
    return eat('"');
  }
  bool value_into(Json &v) {
    skip();
    if (at_ >= s_.size()) return false;
    const char c = s_[at_];
    if (c == '{') {
      v.kind = Json::Kind::kObject;
      ++at_;
      if (eat('}')) return true;
      do {
        std::string name;
        if (!string_into(name) || !eat(':') || !value_into(v.members[name])) return false;
      } while (eat(','));
      return eat('}');
    }
    if (c == '[') {
      v.kind = Json::Kind::kArray;
      ++at_;
      if (eat(']')) return true;
      do {
        if (!value_into(v.items.emplace_back())) return false;
      } while (eat(','));
      return eat(']');
    }
    if (c == '"') return v.kind = Json::Kind::kString, string_into(v.text);
    if (word("true")) return v.kind = Json::Kind::kBool, v.flag = true, true;
    if (word("false")) return v.kind = Json::Kind::kBool, true;
    if (word("null")) return true;
    size_t used = 0;
    try {
      v.number = std::stoll(s_.substr(at_), &used);
    } catch (...) {
      return false;
    }
    at_ += used;
    v.kind = Json::Kind::kNumber;
    return true;
  }

  const std::string &s_;
  size_t at_ = 0;
};

}  // namespace ctl_test
