// t_sprintf / t_print_args: conversions, flags, size rules, caller errors and
// the output limit.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "print_test_support.h"

using print_test::assertion;
using print_test::t_format;

namespace {

class PrintEngine : public ::testing::Test {
 protected:
  void SetUp() override { snt_reset(); }
};

int print_with_limit(char *out, uint32_t limit, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = t_print_args(out, limit, format, args);
  va_end(args);
  return written;
}

TEST_F(PrintEngine, SignedDecimalWidthPrecisionAndFill) {
  EXPECT_EQ(t_format("%d", -42), "-42");
  EXPECT_EQ(t_format("%i|%w", 17, -3), "17|-3");
  EXPECT_EQ(t_format("[%5d]", -42), "[  -42]");
  // Zero padding stands before the sign.
  EXPECT_EQ(t_format("%05d", -42), "00-42");
  EXPECT_EQ(t_format("[%-5d]", -42), "[-42  ]");
  // Left-justified zero fill appends the zeros on the right.
  EXPECT_EQ(t_format("%-05d", 42), "42000");
  EXPECT_EQ(t_format("%.4d", 7), "0007");
  EXPECT_EQ(t_format("%.4d", -7), "-0007");
  EXPECT_EQ(t_format("[%6.3d]", 5), "[   005]");
  EXPECT_EQ(t_format("%2d", 12345), "12345");
  EXPECT_EQ(t_format("%d", 0), "0");
  EXPECT_EQ(t_format("%d", INT32_MIN), "-2147483648");
  EXPECT_EQ(t_format("%Ld", INT64_MIN), "-9223372036854775808");
  EXPECT_EQ(t_format("%Ld", int64_t{1} << 40), "1099511627776");
  EXPECT_EQ(t_format("%*d|%-*d|%.*d", 4, 1, 3, 2, 3, 3), "   1|2  |003");
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(PrintEngine, UnsignedOctalAndHexadecimal) {
  EXPECT_EQ(t_format("%u", -1), "4294967295");
  EXPECT_EQ(t_format("%Lu", UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(t_format("%x|%X", 255, 255), "FF|FF");
  EXPECT_EQ(t_format("%#x", 255), "0XFF");
  EXPECT_EQ(t_format("%#X", 0xabcU), "0XABC");
  EXPECT_EQ(t_format("%o|%#o", 8, 8), "10|010");
  EXPECT_EQ(t_format("%Lo", UINT64_MAX), "1777777777777777777777");
  EXPECT_EQ(t_format("%08X", 0xab), "000000AB");
  // The zero padding goes before the 0X prefix as well.
  EXPECT_EQ(t_format("%#08x", 255), "00000XFF");
  EXPECT_EQ(t_format("%-#8x|", 255), "0XFF    |");
  void *pointer = reinterpret_cast<void *>(uintptr_t{0xabcdef0123456});
  EXPECT_EQ(t_format("%p", pointer), "ABCDEF0123456");
  EXPECT_EQ(t_format("%#p", pointer), "0XABCDEF0123456");
  EXPECT_EQ(t_format("%p", reinterpret_cast<void *>(UINTPTR_MAX)), "FFFFFFFFFFFFFFFF");
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(PrintEngine, LowerLDoesNotWidenUpperLDoes) {
  const uint64_t wide = 0x123456789ABCDEF0ULL;
  EXPECT_EQ(t_format("%lx", wide), "9ABCDEF0");
  EXPECT_EQ(t_format("%Lx", wide), "123456789ABCDEF0");
  // A 32-bit -1 read as 64 bits would print 4294967295.
  EXPECT_EQ(t_format("%ld %ld", -1, 5), "-1 5");
  EXPECT_EQ(t_format("%lu", 7), "7");
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(PrintEngine, StringsAndCharacters) {
  EXPECT_EQ(t_format("%.3s", "abcdef"), "abc");
  EXPECT_EQ(t_format("%.0s", "abcdef"), "abcdef");
  EXPECT_EQ(t_format("%.10s", "abc"), "abc");
  EXPECT_EQ(t_format("%-6s|", "ab"), "ab    |");
  EXPECT_EQ(t_format("%6s|", "ab"), "    ab|");
  // Zero fill never applies to strings.
  EXPECT_EQ(t_format("%06s|", "ab"), "    ab|");
  EXPECT_EQ(t_format("[%4s]", ""), "[    ]");
  // A negative precision from '*' prints only the padding.
  EXPECT_EQ(t_format("[%5.*s]", -1, "abc"), "[     ]");
  EXPECT_EQ(t_format("[%.*s]", -1, "abc"), "[]");
  // Only the low byte of the argument; width and flags do not apply.
  EXPECT_EQ(t_format("[%c]", 0x141), "[A]");
  EXPECT_EQ(t_format("[%5c]", 'z'), "[z]");
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST_F(PrintEngine, LongOrAlternateOnCharacterOrStringAssertsAfterOutput) {
  EXPECT_EQ(t_format("%Lc|", 'A'), "A|");
  EXPECT_EQ(t_format("%#c|", 'B'), "B|");
  EXPECT_EQ(t_format("%Ls|", "xy"), "xy|");
  EXPECT_EQ(t_format("%#4s|", "xy"), "  xy|");
  ASSERT_EQ(snt_assert_count(), 4u);
  for (uint32_t n = 0; n < 4; ++n) {
    EXPECT_EQ(assertion(n).file, "vsvig/svmcspnt");
    EXPECT_EQ(assertion(n).expression, "(uselong == 0) && (extra == 0)");
  }
}

TEST_F(PrintEngine, PercentAndUnknownConversions) {
  EXPECT_EQ(t_format("100%%"), "100%");
  EXPECT_EQ(t_format("[%5%]"), "[%]");
  EXPECT_EQ(snt_assert_count(), 0u);

  // With l or L the unknown character follows the next argument in decimal.
  EXPECT_EQ(t_format("%l;", 42), "42;");
  EXPECT_EQ(t_format("%lf|%d", -7, 3), "-7f|3");
  EXPECT_EQ(t_format("%Lz", int64_t{-5000000000}), "-5000000000z");
  EXPECT_EQ(t_format("%l+d", 5), "5+d");
  EXPECT_EQ(snt_assert_count(), 0u);

  // Without: an assertion, the character itself, and no argument consumed.
  struct Case {
    const char *format;
    const char *expected;
  } const cases[] = {
      {"%f|%d", "f|9"}, {"%e|%d", "e|9"}, {"%+d", "+d"},  {"% d", " d"},
      {"%hd", "hd"},    {"%n%d", "n9"},   {"%y%d", "y9"}, {"%{%d", "{9"},
  };
  uint32_t expected_count = 0;
  for (const Case &c : cases) {
    EXPECT_EQ(t_format(c.format, 9), c.expected) << c.format;
    ++expected_count;
    ASSERT_EQ(snt_assert_count(), expected_count) << c.format;
    EXPECT_EQ(assertion(expected_count - 1).expression, "0") << c.format;
    EXPECT_EQ(assertion(expected_count - 1).file, "vsvig/svmcspnt");
  }
}

TEST_F(PrintEngine, FormatEndingInsideASpecification) {
  EXPECT_EQ(t_format("abc%"), "abc");
  EXPECT_EQ(t_format("abc%-5"), "abc");
  ASSERT_EQ(snt_assert_count(), 2u);
  EXPECT_EQ(assertion(1).expression, "0");
  EXPECT_EQ(t_format("abc%l", 42), "abc42");
  EXPECT_EQ(t_format("abc%L", int64_t{1} << 33), "abc8589934592");
  EXPECT_EQ(snt_assert_count(), 2u);
}

TEST_F(PrintEngine, ReturnsBytesBeforeTheTerminator) {
  char buffer[64];
  std::memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(t_sprintf(buffer, "ab%dc", 123), 6);
  EXPECT_STREQ(buffer, "ab123c");
  EXPECT_EQ(t_sprintf(buffer, ""), 0);
  EXPECT_EQ(buffer[0], '\0');
}

TEST_F(PrintEngine, LimitRuleStopsWithNewlineAndCountsIt) {
  const std::string sixty(60, 'a');
  char buffer[128];
  std::memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(print_with_limit(buffer, 40, sixty.c_str()), 23);
  EXPECT_EQ(std::string(buffer, 21), std::string(21, 'a'));
  EXPECT_EQ(buffer[21], '\n');
  EXPECT_EQ(buffer[22], '\0');
  EXPECT_EQ(buffer[23], '\0');

  // A single conversion may run past the limit; the stop comes after it and
  // later specifications consume nothing.
  const std::string long_text(50, 's');
  std::memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(print_with_limit(buffer, 40, "ab%s%d", long_text.c_str(), 7), 54);
  EXPECT_EQ(std::string(buffer), "ab" + long_text + "\n");

  // Exactly limit - 20 bytes do not trigger the rule.
  EXPECT_EQ(print_with_limit(buffer, 40, "%s", std::string(20, 'b').c_str()), 20);
  EXPECT_EQ(std::string(buffer), std::string(20, 'b'));

  // Limit 0 means no limit.
  char large[700];
  const std::string many(600, 'c');
  EXPECT_EQ(print_with_limit(large, 0, many.c_str()), 600);
}

TEST(PrintNum, BuildsTextAndPads) {
  char buffer[64];
  struct Case {
    const char *digits;
    int left, width, precision;
    const char *prefix;
    int zero;
    const char *expected;
  } const cases[] = {
      {"42", 0, 6, 0, "-", 1, "000-42"}, {"42", 1, 6, 0, "-", 1, "-42000"},
      {"42", 0, 6, 4, "", 0, "  0042"},  {"FF", 1, 7, 3, "0X", 0, "0X0FF  "},
      {"123", 0, 2, 0, "", 1, "123"},    {"7", 0, 0, 0, "", 0, "7"},
  };
  for (const Case &c : cases) {
    char *position = buffer;
    printnum(&position, c.digits, c.left, c.width, c.precision, c.prefix, c.zero);
    *position = '\0';
    EXPECT_STREQ(buffer, c.expected) << c.digits << " width " << c.width;
    EXPECT_EQ(position - buffer, static_cast<long>(std::strlen(c.expected)));
  }
}

}  // namespace
