// Character conversion: every byte of every table in both directions against
// the C library's own code page 037 converter, case folding of the upper-case
// set, in-place conversion, lengths, and the internal-error paths.
#include <iconv.h>

#include <array>
#include <cctype>
#include <string>

#include "library/library_support.h"

namespace {

using namespace lib_test;

// Code page 037 from iconv: an oracle that shares nothing with our tables.
class Cp037 {
 public:
  Cp037() {
    std::array<unsigned char, 256> latin1{};
    for (int i = 0; i < 256; ++i) latin1[i] = static_cast<unsigned char>(i);
    convert("IBM037", "ISO-8859-1", latin1.data(), to_ebcdic_.data());
    convert("ISO-8859-1", "IBM037", latin1.data(), to_ascii_.data());
  }
  unsigned char ebcdic(unsigned char ascii) const { return to_ebcdic_[ascii]; }
  unsigned char ascii(unsigned char ebcdic) const { return to_ascii_[ebcdic]; }

 private:
  static void convert(const char *to, const char *from, unsigned char *in, unsigned char *out) {
    iconv_t cd = iconv_open(to, from);
    ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1)) << to;
    char *src = reinterpret_cast<char *>(in);
    char *dst = reinterpret_cast<char *>(out);
    size_t in_left = 256, out_left = 256;
    ASSERT_EQ(iconv(cd, &src, &in_left, &dst, &out_left), size_t{0});
    iconv_close(cd);
  }
  std::array<unsigned char, 256> to_ebcdic_{};
  std::array<unsigned char, 256> to_ascii_{};
};

const std::string kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
const std::string kLower = "abcdefghijklmnopqrstuvwxyz";
const std::string kDigits = "0123456789";
const std::string kSetA = " " + kUpper + kDigits + "#$@";
const std::string kSetAE = " " + kUpper + kLower + kDigits + ".#$@";
const std::string kSet640 = kSetAE + "\"%&'()*+,-/:;<=>?_";
const std::string kSetEx = kSet640 + "!\\`{|}~\xA2\xA6\xAC";

struct CharsetCase {
  uint16_t selector;
  const std::string *members;
  bool folds;
  size_t accepted;
};

bool member(const std::string &set, unsigned char c) {
  return set.find(static_cast<char>(c)) != std::string::npos;
}

unsigned char convert_one(uint8_t direction, uint16_t selector, unsigned char c) {
  unsigned char out = 0xEE;
  SCC_convert_string(direction, selector, 1, &out, &c);
  return out;
}

TEST(CoreConversion, EveryByteOfEveryTableInBothDirections) {
  const Cp037 cp037;
  const CharsetCase cases[] = {
      {SCC_CHARSET_AE, &kSetAE, false, 67},
      {SCC_CHARSET_A, &kSetA, true, 66},
      {SCC_CHARSET_AE640, &kSet640, false, 85},
      {SCC_CHARSET_AE640_EX, &kSetEx, false, 95},
  };
  for (const CharsetCase &c : cases) {
    SCOPED_TRACE("selector " + std::to_string(c.selector));
    size_t accepted = 0;
    for (int b = 0; b < 256; ++b) {
      const auto ascii = static_cast<unsigned char>(b);
      const bool folded = c.folds && std::islower(b);
      unsigned char expected_out = 0;
      if (member(*c.members, ascii)) expected_out = cp037.ebcdic(ascii);
      if (folded) expected_out = cp037.ebcdic(static_cast<unsigned char>(std::toupper(b)));
      if (expected_out != 0) ++accepted;
      EXPECT_EQ(convert_one(SCC_CNV_OUT, c.selector, ascii), expected_out) << "ascii " << b;

      const auto ebcdic = static_cast<unsigned char>(b);
      const unsigned char back = cp037.ascii(ebcdic);
      unsigned char expected_in = member(*c.members, back) ? back : 0;
      if (c.folds && std::islower(back)) {
        expected_in = static_cast<unsigned char>(std::toupper(back));
      }
      EXPECT_EQ(convert_one(SCC_CNV_IN, c.selector, ebcdic), expected_in) << "ebcdic " << b;
    }
    EXPECT_EQ(accepted, c.accepted);
  }
}

TEST(CoreConversion, NamesKeepOrFoldCaseAsTheirSetSays) {
  unsigned char out[6] = {};
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, 3, out,
                     reinterpret_cast<const unsigned char *>("lu1"));
  EXPECT_EQ(text_of(out, 3), "\xD3\xE4\xF1");
  const unsigned char lower_ebcdic[] = {0x93, 0xA4, 0xF1};
  SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_A, 3, out, lower_ebcdic);
  EXPECT_EQ(text_of(out, 3), "LU1");

  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE, 6, out,
                     reinterpret_cast<const unsigned char *>("net.lu"));
  EXPECT_EQ(text_of(out, 6), "\x95\x85\xA3\x4B\x93\xA4");
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, 6, out,
                     reinterpret_cast<const unsigned char *>("net.lu"));
  EXPECT_EQ(text_of(out, 6), std::string("\xD5\xC5\xE3\x00\xD3\xE4", 6));
}

TEST(CoreConversion, InPlaceLengthsAndPatchedTables) {
  unsigned char buffer[] = "Hello, World";
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640_EX, 12, buffer, buffer);
  SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE640_EX, 12, buffer, buffer);
  EXPECT_STREQ(reinterpret_cast<char *>(buffer), "Hello, World");

  unsigned char untouched[4] = {1, 2, 3, 4};
  for (int16_t length : {int16_t{0}, int16_t{-1}, int16_t{-32768}}) {
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE, length, untouched,
                       reinterpret_cast<const unsigned char *>("ABCD"));
    EXPECT_EQ(untouched[0], 1) << length;
  }

  // The exported table is read at every call.
  const unsigned char saved = cpic_ae['A'];
  cpic_ae['A'] = 0x77;
  EXPECT_EQ(convert_one(SCC_CNV_OUT, SCC_CHARSET_AE, 'A'), 0x77);
  cpic_ae['A'] = saved;
  EXPECT_EQ(convert_one(SCC_CNV_OUT, SCC_CHARSET_AE, 'A'), 0xC1);
}

TEST(CoreConversion, BadSelectorAndDirectionAreReportedAsInternalErrors) {
  snt_reset();
  unsigned char out[2] = {0x11, 0x22};
  SCC_convert_string(SCC_CNV_OUT, 4, 2, out, reinterpret_cast<const unsigned char *>("AB"));
  EXPECT_EQ(out[0], 0x11);  // nothing converted
  ASSERT_EQ(snt_assert_count(), 1u);
  EXPECT_EQ(assertion(0), "vcpic/cpicutil: FALSE");

  // An unknown direction converts towards EBCDIC after the report.
  SCC_convert_string(7, SCC_CHARSET_AE, 2, out, reinterpret_cast<const unsigned char *>("AB"));
  EXPECT_EQ(out[0], 0xC1);
  EXPECT_EQ(out[1], 0xC2);
  ASSERT_EQ(snt_assert_count(), 2u);
  EXPECT_EQ(assertion(1), "vcpic/cpicutil: FALSE");
}

}  // namespace
