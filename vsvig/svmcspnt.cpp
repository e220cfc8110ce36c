// The formatting engine t_print_args, its front end t_sprintf, and printnum.
//
// The engine reads integers as 32-bit values unless a specification carries
// `L`; `l` only marks a specification as numeric.  It has no floating point.
// Caller errors in a format go to the node's assertion facility and
// formatting goes on, so a bad trace format never loses the rest of a line.
#include "svmcspnt.h"

#include <cstring>

#include "snanode/snanode.h"

namespace {

constexpr const char *kUnit = "vsvig/svmcspnt";

// Room for the 22 octal digits of a 64-bit value and a terminator.
constexpr int kDigitBufferSize = 24;

// One conversion specification as read so far.
struct Specification {
  bool left_justify = false;
  bool zero_fill = false;
  bool alternate = false;  // '#'
  bool uselong = false;    // 'L': 64-bit argument
  bool numeric = false;    // 'l' or 'L' seen
  bool in_precision = false;
  int width = 0;
  int precision = 0;
};

// Writes `value` in `base` (upper-case hexadecimal digits) into `buffer` and
// returns the first digit.
const char *to_digits(uint64_t value, unsigned base, char (&buffer)[kDigitBufferSize]) {
  char *digit = buffer + kDigitBufferSize - 1;
  *digit = '\0';
  do {
    *--digit = "0123456789ABCDEF"[value % base];
    value /= base;
  } while (value != 0);
  return digit;
}

class Engine {
 public:
  Engine(char *out, uint32_t limit, va_list args) : start_(out), position_(out), limit_(limit) {
    va_copy(args_, args);
  }
  ~Engine() { va_end(args_); }
  Engine(const Engine &) = delete;
  Engine &operator=(const Engine &) = delete;

  int run(const char *format);

 private:
  // Reads a specification after its '%'; returns the position after it, or
  // null when the format ended inside it.
  const char *specification(const char *format);
  void convert(char conversion, const Specification &spec);
  void signed_number(const Specification &spec);
  void unsigned_number(const Specification &spec, uint64_t value, unsigned base,
                       const char *prefix);
  void string(const Specification &spec);
  // The limit rule: true (and the newline and first terminator written) once
  // more than limit - 20 bytes stand in the buffer.
  bool limit_reached();

  char *start_;
  char *position_;
  uint32_t limit_;
  va_list args_;
};

int Engine::run(const char *format) {
  while (*format != '\0') {
    if (*format == '%') {
      format = specification(format + 1);
      if (format == nullptr) break;
    } else {
      *position_++ = *format++;
    }
    if (limit_reached()) break;
  }
  *position_ = '\0';
  return static_cast<int>(position_ - start_);
}

bool Engine::limit_reached() {
  if (limit_ == 0) return false;
  if (position_ - start_ <= static_cast<int64_t>(limit_) - 20) return false;
  *position_++ = '\n';
  *position_++ = '\0';
  return true;
}

const char *Engine::specification(const char *format) {
  Specification spec;
  for (;;) {
    const char c = *format;
    if (c == '\0') {
      // A specification cut by the end of the format: a numeric one still
      // prints its argument, anything else is a caller error.
      if (spec.numeric) {
        signed_number(spec);
      } else {
        v0_assert(kUnit, __LINE__, "0");
      }
      return nullptr;
    }
    ++format;
    switch (c) {
      case '#':
        spec.alternate = true;
        break;
      case '-':
        spec.left_justify = true;
        break;
      case '.':
        spec.in_precision = true;
        break;
      case '*': {
        const int value = va_arg(args_, int);
        (spec.in_precision ? spec.precision : spec.width) = value;
        break;
      }
      case 'L':
        spec.uselong = true;
        spec.numeric = true;
        break;
      case 'l':
        spec.numeric = true;
        break;
      case '%':
        *position_++ = '%';
        return format;
      default:
        if (c >= '0' && c <= '9') {
          const int digit = c - '0';
          if (spec.in_precision) {
            spec.precision = spec.precision * 10 + digit;
          } else {
            if (digit == 0 && spec.width == 0) spec.zero_fill = true;
            spec.width = spec.width * 10 + digit;
          }
          break;
        }
        convert(c, spec);
        return format;
    }
  }
}

void Engine::convert(char conversion, const Specification &spec) {
  switch (conversion) {
    case 'd':
    case 'i':
    case 'w':
      signed_number(spec);
      return;
    case 'u': {
      const uint64_t value = spec.uselong ? va_arg(args_, uint64_t) : va_arg(args_, unsigned);
      unsigned_number(spec, value, 10, "");
      return;
    }
    case 'o': {
      const uint64_t value = spec.uselong ? va_arg(args_, uint64_t) : va_arg(args_, unsigned);
      unsigned_number(spec, value, 8, spec.alternate ? "0" : "");
      return;
    }
    case 'x':
    case 'X': {
      const uint64_t value = spec.uselong ? va_arg(args_, uint64_t) : va_arg(args_, unsigned);
      unsigned_number(spec, value, 16, spec.alternate ? "0X" : "");
      return;
    }
    case 'p': {
      const auto value = reinterpret_cast<uintptr_t>(va_arg(args_, void *));
      unsigned_number(spec, value, 16, spec.alternate ? "0X" : "");
      return;
    }
    case 'c':
      *position_++ = static_cast<char>(va_arg(args_, int));
      if (spec.uselong || spec.alternate) {
        v0_assert(kUnit, __LINE__, "(uselong == 0) && (extra == 0)");
      }
      return;
    case 's':
      string(spec);
      if (spec.uselong || spec.alternate) {
        v0_assert(kUnit, __LINE__, "(uselong == 0) && (extra == 0)");
      }
      return;
    default:
      // Not a conversion of this engine.  After `l` or `L` the caller meant a
      // number: print it and keep the character as text.
      if (spec.numeric) {
        signed_number(spec);
      } else {
        v0_assert(kUnit, __LINE__, "0");
      }
      *position_++ = conversion;
      return;
  }
}

void Engine::signed_number(const Specification &spec) {
  const int64_t value = spec.uselong ? va_arg(args_, int64_t) : va_arg(args_, int);
  // Negate in unsigned arithmetic so the most negative value stays defined.
  const uint64_t magnitude =
      value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  unsigned_number(spec, magnitude, 10, value < 0 ? "-" : "");
}

void Engine::unsigned_number(const Specification &spec, uint64_t value, unsigned base,
                             const char *prefix) {
  char buffer[kDigitBufferSize];
  printnum(&position_, to_digits(value, base, buffer), spec.left_justify, spec.width,
           spec.precision, prefix, spec.zero_fill);
}

void Engine::string(const Specification &spec) {
  const char *text = va_arg(args_, const char *);
  // A null string prints like an empty one: only the padding.
  size_t length = 0;
  if (text != nullptr && spec.precision >= 0) {
    length =
        spec.precision > 0 ? strnlen(text, static_cast<size_t>(spec.precision)) : std::strlen(text);
  }
  const size_t padding =
      spec.width > 0 && static_cast<size_t>(spec.width) > length ? spec.width - length : 0;
  if (!spec.left_justify)
    position_ = static_cast<char *>(std::memset(position_, ' ', padding)) + padding;
  if (length > 0) position_ = static_cast<char *>(std::memcpy(position_, text, length)) + length;
  if (spec.left_justify)
    position_ = static_cast<char *>(std::memset(position_, ' ', padding)) + padding;
}

}  // namespace

extern "C" {

void printnum(char **position, const char *digits, int left_justify, int width, int precision,
              const char *prefix, int zero_fill) {
  const int digit_count = static_cast<int>(std::strlen(digits));
  const int prefix_length = static_cast<int>(std::strlen(prefix));
  const int zeros = precision > digit_count ? precision - digit_count : 0;
  const int text_length = prefix_length + zeros + digit_count;
  const int padding = width > text_length ? width - text_length : 0;
  const char pad = zero_fill ? '0' : ' ';
  char *out = *position;
  // Right-justified padding stands before the sign or prefix, so zero-fill
  // gives "00-42"; left-justified padding follows the digits ("42000").
  if (!left_justify) out = static_cast<char *>(std::memset(out, pad, padding)) + padding;
  out = static_cast<char *>(std::memcpy(out, prefix, prefix_length)) + prefix_length;
  out = static_cast<char *>(std::memset(out, '0', zeros)) + zeros;
  out = static_cast<char *>(std::memcpy(out, digits, digit_count)) + digit_count;
  if (left_justify) out = static_cast<char *>(std::memset(out, pad, padding)) + padding;
  *position = out;
}

int t_print_args(char *out, uint32_t limit, const char *format, va_list args) {
  Engine engine(out, limit, args);
  return engine.run(format);
}

int t_sprintf(char *out, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = t_print_args(out, 0, format, args);
  va_end(args);
  return written;
}

}  // extern "C"
