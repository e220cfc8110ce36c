#include "core/log_record.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string_view>

#include "core/ebcdic_text.h"

namespace snanode {
namespace {

// Byte arrays longer than this are shown up to it and marked as cut, so one
// record stays one readable line.
constexpr uint32_t kMaxBytesShown = 256;

std::string hex_bytes(const uint8_t *bytes, uint32_t length) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(length * 2);
  for (uint32_t i = 0; i < length; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
  }
  return text;
}

std::string ascii_printable(const uint8_t *bytes, size_t length) {
  std::string text(bytes, bytes + length);
  for (char &c : text) {
    if (c < 0x20 || c > 0x7E) c = '.';
  }
  return text;
}

std::string hex_number(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%X", value);
  return text;
}

// One byte-array argument: "name[length]=HEX" and, with a text form, ' "text"'.
void append_array(std::ostringstream &line, std::string_view token, uint32_t length,
                  const void *address, SNT_RECORD &record, uint32_t slot) {
  line << token << '[' << length << "]=";
  if (address == nullptr) {
    line << "(null)";
    return;
  }
  const auto *bytes = static_cast<const uint8_t *>(address);
  const uint32_t shown = std::min(length, kMaxBytesShown);
  line << hex_bytes(bytes, shown);
  if (token == "ca") line << " \"" << ascii_printable(bytes, shown) << '"';
  if (token == "es") line << " \"" << ebcdic_to_printable(bytes, shown) << '"';
  if (shown < length) line << "...";
  if (slot < 8) {
    std::memcpy(record.bytes[slot], bytes, std::min<uint32_t>(length, sizeof record.bytes[slot]));
  }
}

}  // namespace

std::string log_line_prefix() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto micros =
      std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count() %
      1000000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[96];
  const size_t used = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + used, sizeof text - used, ".%06lldZ pid %ld tid %ld",
                static_cast<long long>(micros), static_cast<long>(getpid()),
                static_cast<long>(syscall(SYS_gettid)));
  return text;
}

FormattedRecord format_log_record(const char *kind, uint32_t code, uint32_t probe,
                                  const char *arg_types, va_list args) {
  FormattedRecord result{};
  SNT_RECORD &record = result.record;
  record.code = code;
  record.probe = probe;
  const std::string types = arg_types != nullptr ? arg_types : "";
  std::snprintf(record.arg_types, sizeof record.arg_types, "%s", types.c_str());

  std::ostringstream line;
  line << log_line_prefix() << ' ' << kind << ' ' << hex_number(code) << " probe " << probe;
  std::istringstream tokens(types);
  std::string token;
  uint32_t slot = 0;
  for (; tokens >> token; ++slot) {
    line << (slot == 0 ? ": " : ", ");
    if (token == "l" || token == "x" || token == "lx" || token == "b") {
      const uint32_t value = va_arg(args, unsigned int);
      if (slot < 8) record.args[slot] = value;
      line << token << '=';
      if (token == "l") {
        line << value;
      } else if (token == "b") {
        line << hex_number(value & 0xFFu);
      } else {
        line << hex_number(value);
      }
    } else if (token == "s") {
      const char *text = va_arg(args, const char *);
      line << "s=";
      if (text == nullptr) {
        line << "(null)";
      } else {
        // Kept to one line: control characters show as '.'.
        line << '"' << ascii_printable(reinterpret_cast<const uint8_t *>(text), std::strlen(text))
             << '"';
        if (slot < 8) std::snprintf(reinterpret_cast<char *>(record.bytes[slot]), 64, "%s", text);
      }
    } else if (token == "ba" || token == "ca" || token == "es") {
      const uint32_t length = va_arg(args, unsigned int);
      const void *address = va_arg(args, const void *);
      if (slot < 8) record.args[slot] = length;
      append_array(line, token, length, address, record, slot);
    } else {
      line << '?' << token;
      ++slot;
      break;
    }
  }
  record.arg_count = slot;
  result.line = line.str();
  std::snprintf(record.line, sizeof record.line, "%s", result.line.c_str());
  return result;
}

}  // namespace snanode
