// The print routines the trace formats with: t_sprintf's conversions, flags,
// size rules and caller errors, its output limit, and lp64conv with the nb_
// front ends, whose rewrite must stay inside its 256-byte buffer.
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "library/support.h"
#include "svmcspnt.h"

namespace {

using namespace std::string_literals;
using lib_test::assertions;

template <typename... Args>
std::string t_format(const char *format, Args... args) {
  char buffer[1024];
  t_sprintf(buffer, format, args...);
  return buffer;
}
template <typename... Args>
std::string nb_format(const char *format, Args... args) {
  char buffer[1024];
  nb_sprintf(buffer, format, args...);
  return buffer;
}

TEST(Print, ConversionsFlagsAndSizes) {
  snt_reset();
  void *pointer = reinterpret_cast<void *>(uintptr_t{0xabcdef0123456});
  const std::pair<std::string, const char *> cases[] = {
      {t_format("%d|%i|%w", -42, 17, -3), "-42|17|-3"},
      {t_format("[%5d][%-5d]", -42, -42), "[  -42][-42  ]"},
      {t_format("%05d", -42), "00-42"},  // zero padding stands before the sign
      {t_format("%-05d", 42), "42000"},  // left-justified zero fill goes on the right
      {t_format("%.4d|%.4d|[%6.3d]", 7, -7, 5), "0007|-0007|[   005]"},
      {t_format("%2d|%d", 12345, INT32_MIN), "12345|-2147483648"},
      {t_format("%Ld|%Ld", INT64_MIN, int64_t{1} << 40), "-9223372036854775808|1099511627776"},
      {t_format("%*d|%-*d|%.*d", 4, 1, 3, 2, 3, 3), "   1|2  |003"},
      {t_format("%u|%Lu", -1, UINT64_MAX), "4294967295|18446744073709551615"},
      {t_format("%x|%X|%#x|%o|%#o", 255, 255, 255, 8, 8), "FF|FF|0XFF|10|010"},
      {t_format("%Lo", UINT64_MAX), "1777777777777777777777"},
      {t_format("%08X|%#08x|%-#8x|", 0xab, 255, 255), "000000AB|00000XFF|0XFF    |"},
      {t_format("%p|%#p", pointer, pointer), "ABCDEF0123456|0XABCDEF0123456"},
      {t_format("%p", reinterpret_cast<void *>(UINTPTR_MAX)), "FFFFFFFFFFFFFFFF"},
      // l does not widen, L does: a 32-bit -1 read as 64 bits would be 4294967295.
      {t_format("%lx|%Lx", uint64_t{0x123456789ABCDEF0}, uint64_t{0x123456789ABCDEF0}),
       "9ABCDEF0|123456789ABCDEF0"},
      {t_format("%ld %ld", -1, 5), "-1 5"},
      {t_format("%.3s|%.0s|%.10s", "abcdef", "abcdef", "abc"), "abc|abcdef|abc"},
      {t_format("%-6s|%6s|%06s|", "ab", "ab", "ab"), "ab    |    ab|    ab|"},
      {t_format("[%5.*s][%.*s]", -1, "abc", -1, "abc"), "[     ][]"},
      {t_format("[%c][%5c]", 0x141, 'z'), "[A][z]"},  // the low byte; no width
      {t_format("100%%[%5%]"), "100%[%]"},
      // With l or L an unknown character follows the next argument in decimal.
      {t_format("%l;|%lf|%d", 42, -7, 3), "42;|-7f|3"},
      {t_format("%Lz", int64_t{-5000000000}), "-5000000000z"},
      {t_format("abc%l|abc%L", 42, int64_t{1} << 33), "abc42|abc8589934592"},
  };
  for (const auto &[got, expected] : cases) EXPECT_EQ(got, expected);
  EXPECT_EQ(snt_assert_count(), 0u);
}

TEST(Print, CallerErrorsAreReportedAfterTheOutput) {
  snt_reset();
  // l, L or # on a character or string.
  EXPECT_EQ(t_format("%Lc|%#c|%Ls|%#4s|", 'A', 'B', "xy", "xy"), "A|B|xy|  xy|");
  EXPECT_EQ(assertions(),
            std::vector<std::string>(4, "vsvig/svmcspnt: (uselong == 0) && (extra == 0)"));
  // Unknown conversions without l: the character itself, no argument used.
  snt_reset();
  const std::pair<const char *, const char *> cases[] = {
      {"%f|%d", "f|9"}, {"%+d", "+d"},  {"% d", " d"},   {"%hd", "hd"},
      {"%n%d", "n9"},   {"%{%d", "{9"}, {"abc%", "abc"}, {"abc%-5", "abc"},
  };
  for (const auto &[format, expected] : cases) EXPECT_EQ(t_format(format, 9), expected) << format;
  EXPECT_EQ(assertions(), std::vector<std::string>(std::size(cases), "vsvig/svmcspnt: 0"));
}

int print_with_limit(char *out, uint32_t limit, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int written = t_print_args(out, limit, format, args);
  va_end(args);
  return written;
}

TEST(Print, TheLimitStopsWithANewlineThatCounts) {
  char buffer[128];
  std::memset(buffer, 'X', sizeof buffer);
  EXPECT_EQ(print_with_limit(buffer, 40, std::string(60, 'a').c_str()), 23);
  EXPECT_EQ(std::string(buffer, 24), std::string(21, 'a') + "\n\0\0"s);
  // One conversion may run past the limit; the stop comes after it and later
  // specifications consume nothing.
  const std::string long_text(50, 's');
  EXPECT_EQ(print_with_limit(buffer, 40, "ab%s%d", long_text.c_str(), 7), 54);
  EXPECT_EQ(std::string(buffer), "ab" + long_text + "\n");
  EXPECT_EQ(print_with_limit(buffer, 40, "%s", std::string(20, 'b').c_str()), 20);
  char large[700];
  EXPECT_EQ(print_with_limit(large, 0, std::string(600, 'c').c_str()), 600) << "0: no limit";
  EXPECT_EQ(t_sprintf(buffer, "ab%dc", 123), 6);
}

// Rewrites into a heap block of exactly the documented size, so the address
// sanitizer reports any write past it.
std::string rewrite(const std::string &format) {
  auto buffer = std::make_unique<char[]>(LP64CONV_BUFFER_SIZE);
  lp64conv(format.c_str(), buffer.get());
  const size_t length = strnlen(buffer.get(), LP64CONV_BUFFER_SIZE);
  EXPECT_LT(length, size_t{LP64CONV_BUFFER_SIZE}) << "unterminated rewrite";
  return std::string(buffer.get(), length);
}

TEST(Print, Lp64convRewritesSizesAndStaysInsideItsBuffer) {
  const std::pair<const char *, const char *> cases[] = {
      {"%ld|%lu|%08lx|%lld", "%d|%u|%08x|%d"},
      {"%Ld|%Lx", "%ld|%lx"},
      {"%l,|x=%l", "%d,|x=%d"},
      {"%-5.3ls|", "%-5.3s|"},
      {"%%|%hd|%5.2f|%lf", "%%|%hd|%5.2f|%f"},
      {"%+ #*d|%lq|%q", "%+ #*d|%dq|%q"},
      {"a%lXb%Lsc", "a%Xb%lsc"},
  };
  for (const auto &[format, expected] : cases) EXPECT_EQ(rewrite(format), expected) << format;
  // Ordinary text is cut at 248; a specification starting before the cut is
  // kept whole, one that would need byte 256 is dropped whole.
  const std::string a247(247, 'a'), h240(240, 'h');
  EXPECT_EQ(rewrite(std::string(300, 'a')), std::string(248, 'a'));
  EXPECT_EQ(rewrite(a247 + "%ldtail"), a247 + "%d");
  EXPECT_EQ(rewrite(h240 + "%" + std::string(13, '-') + "d"),
            h240 + "%" + std::string(13, '-') + "d");
  EXPECT_EQ(rewrite(h240 + "%" + std::string(14, '-') + "d"), h240);
  EXPECT_EQ(rewrite(h240 + "%" + std::string(13, '0') + "l"),
            h240 + "%" + std::string(13, '0') + "d");
  EXPECT_EQ(rewrite(h240 + "%" + std::string(14, '0') + "l;"), h240);
  // Formats built to overrun, starting at every position near the cut.
  const std::string tails[] = {
      "%" + std::string(100, '-') + "d",  "%0" + std::string(200, '9') + "ld",
      "%." + std::string(300, '7') + "s", "%" + std::string(50, 'L') + "x",
      "%" + std::string(40, '#') + "l",   "%" + std::string(30, ' ') + "l;" + std::string(30, 'z'),
  };
  for (size_t head = 230; head < 256; ++head) {
    for (const std::string &tail : tails) {
      const std::string out = rewrite(std::string(head, 'h') + tail);
      EXPECT_EQ(out.substr(0, std::min<size_t>(head, 248)),
                std::string(std::min<size_t>(head, 248), 'h'));
    }
  }
}

TEST(Print, NbFrontEndsReachTheStandardLibrary) {
  EXPECT_EQ(nb_format("%ld|%lu|%08lx|%Ld", -1, 4000000000U, 0xbeefU, int64_t{-5000000000}),
            "-1|4000000000|0000beef|-5000000000");
  EXPECT_EQ(nb_format("%Lx|%l;|%f|%5s|", uint64_t{0x123456789ABCDEF0}, 42, 1.5, "ab"),
            "123456789abcdef0|42;|1.500000|   ab|");
  char buffer[512];
  EXPECT_EQ(nb_sprintf(buffer, std::string(300, 'p').c_str()), 248);
  testing::internal::CaptureStdout();
  EXPECT_EQ(nb_printf("%lx:%l", 0xabcU, 9), 5);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "abc:9");
}

}  // namespace
