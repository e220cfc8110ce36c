#include "core/ebcdic_text.h"

#include <array>

namespace snanode {
namespace {

constexpr std::array<char, 256> build_table() {
  std::array<char, 256> table{};
  for (auto &c : table) c = '.';
  auto run = [&table](int first, const char *text) {
    for (int i = 0; text[i] != '\0'; ++i) table[first + i] = text[i];
  };
  run(0x40, " ");
  run(0x4A, "[.<(+|&");   // 0x4A is the cent sign in 037; '[' is its usual stand-in
  run(0x5A, "!$*);^-/");  // 0x5F is the not sign
  run(0x6A, "|,%_>?");
  run(0x79, "`:#@'=\"");
  run(0x81, "abcdefghi");
  run(0x91, "jklmnopqr");
  run(0xA1, "~stuvwxyz");
  run(0xBA, "[]");
  run(0xC0, "{ABCDEFGHI");
  run(0xD0, "}JKLMNOPQR");
  run(0xE0, "\\");
  run(0xE2, "STUVWXYZ");
  run(0xF0, "0123456789");
  return table;
}

constexpr std::array<char, 256> kTable = build_table();

}  // namespace

char ebcdic_to_printable(uint8_t byte) {
  return kTable[byte];
}

std::string ebcdic_to_printable(const uint8_t *bytes, size_t length) {
  std::string text(length, ' ');
  for (size_t i = 0; i < length; ++i) text[i] = kTable[bytes[i]];
  return text;
}

}  // namespace snanode
