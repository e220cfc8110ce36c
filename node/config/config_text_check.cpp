#include "config/config_text_check.h"

#include <cstdint>
#include <cstdio>

#include "config/node_config.h"

namespace snanode::config {
namespace {

// Length of the UTF-8 sequence at `at` (1 for ASCII), 0 when it is not a
// valid one: overlong forms, surrogates and values past U+10FFFF included.
size_t utf8_length(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
  const uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  size_t length;
  uint32_t value;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, value = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, value = lead & 0x07;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    value = (value << 6) | (byte(i) & 0x3F);
  }
  if ((length == 3 && value < 0x800) || (length == 4 && value < 0x10000)) return 0;
  if ((value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF) return 0;
  return length;
}

// Where the scanner is, as far as the TOML grammar goes: strings and
// comments are the only places for text other than ASCII.
enum class Context { kPlain, kComment, kBasic, kLiteral, kMultiBasic, kMultiLiteral };

class TextCheck {
 public:
  TextCheck(std::string_view text, const std::string &name) : text_(text), name_(name) {}

  void run() {
    while (at_ < text_.size()) {
      const size_t length = utf8_length(text_, at_);
      if (length == 0) fail("bytes that are not UTF-8");
      const char c = text_[at_];
      if (length == 1 && is_control(c)) {
        char code[8];
        std::snprintf(code, sizeof code, "%02X", static_cast<unsigned>(static_cast<uint8_t>(c)));
        fail(std::string("control character 0x") + code);
      }
      if (length > 1 && context_ == Context::kPlain && !(at_ == 0 && is_bom(length))) {
        fail("a character outside ASCII outside a string or comment");
      }
      if (length == 1) step(c);
      advance(length, c);
    }
  }

 private:
  static bool is_control(char c) {
    const auto byte = static_cast<uint8_t>(c);
    return (byte < 0x20 && c != '\t' && c != '\r' && c != '\n') || byte == 0x7F;
  }
  bool is_bom(size_t length) const { return length == 3 && text_.substr(0, 3) == "\xEF\xBB\xBF"; }
  bool ahead(std::string_view what) const { return text_.substr(at_, what.size()) == what; }

  // Moves between contexts on an ASCII character.
  void step(char c) {
    switch (context_) {
      case Context::kPlain:
        if (c == '#') {
          context_ = Context::kComment;
        } else if (ahead("\"\"\"")) {
          context_ = Context::kMultiBasic, skip_ = 2;
        } else if (ahead("'''")) {
          context_ = Context::kMultiLiteral, skip_ = 2;
        } else if (c == '"') {
          context_ = Context::kBasic;
        } else if (c == '\'') {
          context_ = Context::kLiteral;
        }
        break;
      case Context::kComment:
        if (c == '\n') context_ = Context::kPlain;
        break;
      case Context::kBasic:
        if (c == '\\') {
          skip_ = 1;  // the escaped character never ends the string
        } else if (c == '"' || c == '\n') {
          context_ = Context::kPlain;
        }
        break;
      case Context::kLiteral:
        if (c == '\'' || c == '\n') context_ = Context::kPlain;
        break;
      case Context::kMultiBasic:
        if (c == '\\') {
          skip_ = 1;
        } else if (ahead("\"\"\"")) {
          close_multiline('"');
        }
        break;
      case Context::kMultiLiteral:
        if (ahead("'''")) close_multiline('\'');
        break;
    }
  }

  // A multi-line string ends at three quotes, which one or two more quotes
  // of its own may precede.
  void close_multiline(char quote) {
    size_t run = 0;
    while (at_ + run < text_.size() && text_[at_ + run] == quote && run < 5) ++run;
    context_ = Context::kPlain;
    skip_ = run - 1;
  }

  // Past the character, and past the ones `step` decided belong to it; the
  // skipped ones are checked for UTF-8 and control characters all the same.
  void advance(size_t length, char c) {
    move(length, c);
    for (; skip_ > 0 && at_ < text_.size(); --skip_) {
      const size_t next = utf8_length(text_, at_);
      if (next == 0) fail("bytes that are not UTF-8");
      if (next == 1 && is_control(text_[at_])) fail("a control character after an escape");
      move(next, text_[at_]);
    }
    skip_ = 0;
  }
  void move(size_t length, char c) {
    at_ += length;
    if (c == '\n') {
      ++line_, column_ = 1;
    } else {
      ++column_;
    }
  }

  [[noreturn]] void fail(const std::string &problem) const {
    throw ConfigError(name_ + ":" + std::to_string(line_) + ":" + std::to_string(column_) + ": " +
                      problem);
  }

  std::string_view text_;
  const std::string &name_;
  Context context_ = Context::kPlain;
  size_t at_ = 0;
  size_t line_ = 1;
  size_t column_ = 1;
  size_t skip_ = 0;
};

}  // namespace

void check_config_text(std::string_view text, const std::string &name) {
  TextCheck(text, name).run();
}

}  // namespace snanode::config
