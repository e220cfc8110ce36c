// lp64conv and the nb_ front ends: the format rewrite, the 248-character cut
// and the bound that keeps every specification inside the 256-byte buffer.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "print_test_support.h"

using print_test::nb_format;

namespace {

// Rewrites into a heap block of exactly the documented size, so the address
// sanitizer reports any write past it.
std::string rewrite(const std::string &format) {
  auto buffer = std::make_unique<char[]>(LP64CONV_BUFFER_SIZE);
  lp64conv(format.c_str(), buffer.get());
  const size_t length = strnlen(buffer.get(), LP64CONV_BUFFER_SIZE);
  EXPECT_LT(length, size_t{LP64CONV_BUFFER_SIZE}) << "unterminated rewrite";
  return std::string(buffer.get(), length);
}

TEST(Lp64Conv, RewritesSizeModifiers) {
  struct Case {
    const char *format;
    const char *expected;
  } const cases[] = {
      {"%ld", "%d"},
      {"%lu", "%u"},
      {"%08lx", "%08x"},
      {"%lld", "%d"},
      {"%Ld", "%ld"},
      {"%Lx", "%lx"},
      {"%l,", "%d,"},
      {"x=%l", "x=%d"},
      {"%-5.3ls|", "%-5.3s|"},
      {"%%", "%%"},
      {"%hd", "%hd"},
      {"%5.2f", "%5.2f"},
      {"%lf", "%f"},
      {"%+ #*d", "%+ #*d"},
      {"%lq", "%dq"},
      {"%q", "%q"},
      {"a%lXb%Lsc", "a%Xb%lsc"},
      {"plain", "plain"},
      {"", ""},
  };
  for (const auto &c : cases) EXPECT_EQ(rewrite(c.format), c.expected) << c.format;
}

TEST(Lp64Conv, CutsOrdinaryTextAt248) {
  EXPECT_EQ(rewrite(std::string(300, 'a')), std::string(248, 'a'));
  EXPECT_EQ(rewrite(std::string(248, 'a')), std::string(248, 'a'));
  EXPECT_EQ(rewrite(std::string(247, 'a')), std::string(247, 'a'));
  // A specification starting just before the cut is kept whole.
  EXPECT_EQ(rewrite(std::string(247, 'a') + "%ldtail"), std::string(247, 'a') + "%d");
}

TEST(Lp64Conv, SpecificationsThatWouldOverrunAreDroppedWhole) {
  const std::string head240(240, 'a');
  // 13 flags end the conversion specification in the last byte before the terminator.
  EXPECT_EQ(rewrite(head240 + "%" + std::string(13, '-') + "d"),
            head240 + "%" + std::string(13, '-') + "d");
  // One more would need byte 256: the whole specification goes.
  EXPECT_EQ(rewrite(head240 + "%" + std::string(14, '-') + "d"), head240);
  // The same boundary when the rewrite inserts a 'd' itself.
  EXPECT_EQ(rewrite(head240 + "%" + std::string(13, '0') + "l"),
            head240 + "%" + std::string(13, '0') + "d");
  EXPECT_EQ(rewrite(head240 + "%" + std::string(14, '0') + "l;"), head240);

  // Formats built to overrun: long flag runs, long widths, long precisions
  // and many L modifiers starting at every position near the cut.
  const std::string tails[] = {
      "%" + std::string(100, '-') + "d",  "%0" + std::string(200, '9') + "ld",
      "%." + std::string(300, '7') + "s", "%" + std::string(50, 'L') + "x",
      "%" + std::string(40, '#') + "l",   "%" + std::string(30, ' ') + "l;" + std::string(30, 'z'),
  };
  for (size_t head = 230; head < 256; ++head) {
    for (const std::string &tail : tails) {
      const std::string out = rewrite(std::string(head, 'h') + tail);
      EXPECT_LE(out.size(), size_t{LP64CONV_BUFFER_SIZE - 1});
      EXPECT_EQ(out.substr(0, std::min<size_t>(head, 248)),
                std::string(std::min<size_t>(head, 248), 'h'));
    }
  }
}

TEST(NbPrint, RewrittenFormatsReachTheStandardLibrary) {
  EXPECT_EQ(nb_format("%ld|%ld", -1, 5), "-1|5");
  EXPECT_EQ(nb_format("%lu", 4000000000U), "4000000000");
  EXPECT_EQ(nb_format("%08lx", 0xbeefU), "0000beef");
  EXPECT_EQ(nb_format("%Ld", int64_t{-5000000000}), "-5000000000");
  EXPECT_EQ(nb_format("%Lx", uint64_t{0x123456789ABCDEF0ULL}), "123456789abcdef0");
  EXPECT_EQ(nb_format("%l;", 42), "42;");
  EXPECT_EQ(nb_format("%f", 1.5), "1.500000");
  EXPECT_EQ(nb_format("%5s|%-3d|", "ab", 7), "   ab|7  |");

  char buffer[512];
  EXPECT_EQ(nb_sprintf(buffer, std::string(300, 'p').c_str()), 248);
  EXPECT_EQ(std::string(buffer), std::string(248, 'p'));
}

TEST(NbPrint, StreamsAndStandardOutput) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(nb_fprintf(stream, "%ld-%Lu", -3, uint64_t{1} << 35), 14);
  std::fclose(stream);
  EXPECT_EQ(std::string(text, size), "-3-34359738368");
  std::free(text);

  testing::internal::CaptureStdout();
  const int written = nb_printf("%lx:%l", 0xabcU, 9);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "abc:9");
  EXPECT_EQ(written, 5);
}

}  // namespace
