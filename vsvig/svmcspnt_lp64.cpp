// lp64conv and the nb_ front ends of the standard formatted-output routines.
//
// Formats in this code base are written for a 32-bit long: "%ld" means a
// 32-bit argument and "%Ld" a 64-bit one.  lp64conv rewrites such a format
// for the 64-bit C library ("%ld" -> "%d", "%Ld" -> "%ld") before vsprintf or
// vfprintf sees it.
#include <cstring>

#include "svmcspnt.h"

namespace {

// Letters that end a specification; copied as they stand.
bool is_conversion(char c) {
  return c != '\0' && std::strchr("dhiwxupXefgEGnocs%", c) != nullptr;
}

// Flags, width and precision characters; copied, and the scan goes on.
bool is_modifier(char c) {
  return c != '\0' && (std::strchr("*+-. #", c) != nullptr || (c >= '0' && c <= '9'));
}

// The rewrite target.  A specification must fit whole: one that would run
// past the last byte before the terminator is dropped together with the rest
// of the format.  That keeps every format, however long its flags or width,
// inside the 256-byte buffer and never hands vsprintf a cut specification.
class Rewrite {
 public:
  explicit Rewrite(char *out) : out_(out) {}
  ~Rewrite() { out_[length_] = '\0'; }
  Rewrite(const Rewrite &) = delete;
  Rewrite &operator=(const Rewrite &) = delete;

  size_t length() const { return length_; }
  // Appends one character; false (and the conversion specification dropped) when it
  // does not fit.
  bool put(char c) {
    if (length_ >= LP64CONV_BUFFER_SIZE - 1) {
      length_ = spec_start_;
      return false;
    }
    out_[length_++] = c;
    return true;
  }
  void begin_specification() { spec_start_ = length_; }

 private:
  char *out_;
  size_t length_ = 0;
  size_t spec_start_ = 0;
};

// Rewrites one specification (after its '%').  Returns the position after it,
// or null when the rewrite has to stop.
const char *rewrite_specification(const char *format, Rewrite &out) {
  bool had_l = false;
  for (;;) {
    const char c = *format;
    if (c == '\0') {
      if (had_l && !out.put('d')) return nullptr;
      return nullptr;
    }
    ++format;
    if (c == 'l') {
      had_l = true;
      continue;
    }
    if (c == 'L') {
      if (!out.put('l')) return nullptr;
      continue;
    }
    if (is_modifier(c)) {
      if (!out.put(c)) return nullptr;
      continue;
    }
    // A conversion letter ends the conversion specification as it stands; any other
    // character after an `l` means the caller wanted a number.
    if (!is_conversion(c) && had_l && !out.put('d')) return nullptr;
    if (!out.put(c)) return nullptr;
    return format;
  }
}

int format_to_stream(FILE *stream, const char *format, va_list args) {
  char rewritten[LP64CONV_BUFFER_SIZE];
  lp64conv(format, rewritten);
  return vfprintf(stream, rewritten, args);
}

}  // namespace

extern "C" {

void lp64conv(const char *format, char *out) {
  Rewrite rewrite(out);
  while (*format != '\0' && rewrite.length() < LP64CONV_TEXT_LIMIT) {
    if (*format != '%') {
      rewrite.put(*format++);
      continue;
    }
    rewrite.begin_specification();
    rewrite.put('%');
    format = rewrite_specification(format + 1, rewrite);
    if (format == nullptr) break;
  }
}

int nb_sprintf(char *out, const char *format, ...) {
  char rewritten[LP64CONV_BUFFER_SIZE];
  lp64conv(format, rewritten);
  va_list args;
  va_start(args, format);
  const int written = vsprintf(out, rewritten, args);
  va_end(args);
  return written;
}

int nb_printf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = format_to_stream(stdout, format, args);
  va_end(args);
  return written;
}

int nb_fprintf(FILE *stream, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = format_to_stream(stream, format, args);
  va_end(args);
  return written;
}

}  // extern "C"
