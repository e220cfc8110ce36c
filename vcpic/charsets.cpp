// The four ASCII/EBCDIC conversion tables.  Each is 512 bytes: bytes 0-255
// map an ISO 8859-1 byte to EBCDIC (code page 037), bytes 256-511 map an
// EBCDIC byte back.  A character outside a table's set maps to 0x00 in both
// halves.  The tables are computed at compile time from the one description
// below (which characters exist, their code page 037 codes, and which sets
// hold them), so they are ready without any start-up code and stay writable
// for programs that patch them.
#include <array>
#include <cstddef>
#include <cstdint>

#include "internal.h"

namespace {

// Membership of a character in the four sets.  Each set contains the one
// before it, except that the upper-case-only set lacks the period and the
// lower-case letters (which it folds instead).
enum SetBits : uint8_t {
  kInA = 1,        // cpic_a: names that go to the node in upper case
  kInAE = 2,       // cpic_ae: user IDs, passwords, log data
  kIn640 = 4,      // cpic_ae640: TP names (character set 00640)
  kInExtended = 8  // cpic_ae640_ex: application data
};
constexpr uint8_t kFromAE = kInAE | kIn640 | kInExtended;
constexpr uint8_t kFrom640 = kIn640 | kInExtended;
constexpr uint8_t kEverySet = kInA | kFromAE;

// A run of consecutive characters whose codes are consecutive in both codes.
struct Run {
  unsigned char ascii;
  unsigned char ebcdic;
  unsigned char count;
  uint8_t sets;
};

// Letters and digits: EBCDIC splits the alphabet into three runs.
constexpr Run kAlphanumerics[] = {
    {'A', 0xC1, 9, kEverySet},  {'J', 0xD1, 9, kEverySet}, {'S', 0xE2, 8, kEverySet},
    {'a', 0x81, 9, kFromAE},    {'j', 0x91, 9, kFromAE},   {'s', 0xA2, 8, kFromAE},
    {'0', 0xF0, 10, kEverySet},
};

// Every other character that some set holds, one per line.
constexpr Run kSpecials[] = {
    {' ', 0x40, 1, kEverySet},     // space
    {'#', 0x7B, 1, kEverySet},     //
    {'$', 0x5B, 1, kEverySet},     //
    {'@', 0x7C, 1, kEverySet},     //
    {'.', 0x4B, 1, kFromAE},       // not in cpic_a: names there hold no period
    {'"', 0x7F, 1, kFrom640},      // the specials of character set 00640
    {'%', 0x6C, 1, kFrom640},      //
    {'&', 0x50, 1, kFrom640},      //
    {'\'', 0x7D, 1, kFrom640},     //
    {'(', 0x4D, 1, kFrom640},      //
    {')', 0x5D, 1, kFrom640},      //
    {'*', 0x5C, 1, kFrom640},      //
    {'+', 0x4E, 1, kFrom640},      //
    {',', 0x6B, 1, kFrom640},      //
    {'-', 0x60, 1, kFrom640},      //
    {'/', 0x61, 1, kFrom640},      //
    {':', 0x7A, 1, kFrom640},      //
    {';', 0x5E, 1, kFrom640},      //
    {'<', 0x4C, 1, kFrom640},      //
    {'=', 0x7E, 1, kFrom640},      //
    {'>', 0x6E, 1, kFrom640},      //
    {'?', 0x6F, 1, kFrom640},      //
    {'_', 0x6D, 1, kFrom640},      //
    {'!', 0x5A, 1, kInExtended},   // the rest of printable ASCII, except [ ] ^
    {'\\', 0xE0, 1, kInExtended},  //
    {'`', 0x79, 1, kInExtended},   //
    {'{', 0xC0, 1, kInExtended},   //
    {'|', 0x4F, 1, kInExtended},   //
    {'}', 0xD0, 1, kInExtended},   //
    {'~', 0xA1, 1, kInExtended},   //
    {0xA2, 0x4A, 1, kInExtended},  // cent sign
    {0xA6, 0x6A, 1, kInExtended},  // broken bar
    {0xAC, 0x5F, 1, kInExtended},  // not sign
};

using Table = std::array<unsigned char, 512>;

constexpr void add_runs(Table &table, const Run *runs, std::size_t n, uint8_t set) {
  for (std::size_t r = 0; r < n; ++r) {
    if ((runs[r].sets & set) == 0) continue;
    for (unsigned k = 0; k < runs[r].count; ++k) {
      const unsigned ascii = runs[r].ascii + k;
      const unsigned ebcdic = runs[r].ebcdic + k;
      table[ascii] = static_cast<unsigned char>(ebcdic);
      table[256 + ebcdic] = static_cast<unsigned char>(ascii);
    }
  }
}

// cpic_a folds case: lower-case letters in either code give upper case.
constexpr void fold_to_upper(Table &table) {
  for (std::size_t r = 0; r < 3; ++r) {
    const Run &upper = kAlphanumerics[r];
    const Run &lower = kAlphanumerics[r + 3];
    for (unsigned k = 0; k < upper.count; ++k) {
      table[lower.ascii + k] = static_cast<unsigned char>(upper.ebcdic + k);
      table[256 + lower.ebcdic + k] = static_cast<unsigned char>(upper.ascii + k);
    }
  }
}

constexpr Table build(uint8_t set) {
  Table table{};
  add_runs(table, kAlphanumerics, std::size(kAlphanumerics), set);
  add_runs(table, kSpecials, std::size(kSpecials), set);
  if (set == kInA) fold_to_upper(table);
  return table;
}

constexpr Table kA = build(kInA);
constexpr Table kAE = build(kInAE);
constexpr Table kAE640 = build(kIn640);
constexpr Table kAE640Ex = build(kInExtended);

static_assert(kA['a'] == 0xC1 && kA[256 + 0x81] == 'A' && kA['.'] == 0);
static_assert(kAE['.'] == 0x4B && kAE['a'] == 0x81 && kAE['%'] == 0);
static_assert(kAE640Ex['['] == 0 && kAE640Ex['^'] == 0 && kAE640Ex[0xAC] == 0x5F);

}  // namespace

// The exported objects must be plain C arrays, so the computed tables are
// spelled out element by element.
#define CPIC_T2(t, i) t[i], t[i + 1]
#define CPIC_T4(t, i) CPIC_T2(t, i), CPIC_T2(t, i + 2)
#define CPIC_T8(t, i) CPIC_T4(t, i), CPIC_T4(t, i + 4)
#define CPIC_T16(t, i) CPIC_T8(t, i), CPIC_T8(t, i + 8)
#define CPIC_T32(t, i) CPIC_T16(t, i), CPIC_T16(t, i + 16)
#define CPIC_T64(t, i) CPIC_T32(t, i), CPIC_T32(t, i + 32)
#define CPIC_T128(t, i) CPIC_T64(t, i), CPIC_T64(t, i + 64)
#define CPIC_T256(t, i) CPIC_T128(t, i), CPIC_T128(t, i + 128)
#define CPIC_T512(t) CPIC_T256(t, 0), CPIC_T256(t, 256)

extern "C" {
unsigned char cpic_a[512] = {CPIC_T512(kA)};
unsigned char cpic_ae[512] = {CPIC_T512(kAE)};
unsigned char cpic_ae640[512] = {CPIC_T512(kAE640)};
unsigned char cpic_ae640_ex[512] = {CPIC_T512(kAE640Ex)};
}
