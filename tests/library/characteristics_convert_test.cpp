// CMCNVO and CMCNVI: in-place conversion of application data through the
// widest character set, and the lengths they accept.
#include "characteristics_fixture.h"

namespace {

using ConvertFn = void (*)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *);

CM_RETURN_CODE convert(ConvertFn fn, std::vector<unsigned char> &buffer, CM_INT32 length) {
  CM_RETURN_CODE rc = -1;
  fn(buffer.data(), &length, &rc);
  return rc;
}

const std::vector<unsigned char> kGreetingEbcdic{0xC8, 0x85, 0x93, 0x93, 0x96, 0x6B, 0x40,
                                                 0xE6, 0x96, 0x99, 0x93, 0x84, 0x5A};

TEST(CharacteristicsConvert, TranslatesInPlaceThroughTheExtendedSet) {
  struct Row {
    const char *what;
    ConvertFn fn;
    std::vector<unsigned char> input;
    std::vector<unsigned char> output;
  };
  const Row rows[] = {
      {"greeting out", cmcnvo, bytes_of("Hello, World!"), kGreetingEbcdic},
      {"greeting in", cmcnvi, kGreetingEbcdic, bytes_of("Hello, World!")},
      {"greeting out, upper-case name", CMCNVO, bytes_of("Hello, World!"), kGreetingEbcdic},
      {"greeting in, upper-case name", CMCNVI, kGreetingEbcdic, bytes_of("Hello, World!")},
      {"characters outside the set",
       cmcnvo,
       bytes_of("a[b]c^\x01"),
       {0x81, 0x00, 0x82, 0x00, 0x83, 0x00, 0x00}},
      {"X'00' stays X'00'", cmcnvi, {0x00, 0xC1, 0x00}, {0x00, 'A', 0x00}},
      {"extended specials",
       cmcnvo,
       {'{', '|', '}', '~', 0xA2, 0xA6, 0xAC, '\\'},
       {0xC0, 0x4F, 0xD0, 0xA1, 0x4A, 0x6A, 0x5F, 0xE0}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<unsigned char> buffer = row.input;
    EXPECT_EQ(CM_OK, convert(row.fn, buffer, static_cast<CM_INT32>(buffer.size())));
    EXPECT_EQ(row.output, buffer);
  }
}

TEST(CharacteristicsConvert, LengthsDecideHowMuchIsConverted) {
  struct Row {
    const char *what;
    CM_INT32 length;
    CM_RETURN_CODE expected;
    size_t converted;  // leading bytes that change from 'A' to X'C1'
  };
  const Row rows[] = {
      {"0", 0, CM_OK, 0},
      {"-1", -1, CM_OK, 0},
      {"-40000, which as 16 bits would be positive", -40000, CM_OK, 0},
      {"5", 5, CM_OK, 5},
      {"32767", 32767, CM_OK, 32767},
      {"32768", 32768, CM_PROGRAM_PARAMETER_CHECK, 0},
      {"65541, which as 16 bits would be 5", 65541, CM_PROGRAM_PARAMETER_CHECK, 0},
  };
  for (ConvertFn fn : {cmcnvo, cmcnvi}) {
    for (const Row &row : rows) {
      SCOPED_TRACE(row.what);
      // cmcnvi turns X'C1' into 'A', cmcnvo 'A' into X'C1'.
      const unsigned char from = fn == cmcnvo ? 'A' : 0xC1;
      const unsigned char to = fn == cmcnvo ? 0xC1 : 'A';
      std::vector<unsigned char> buffer(32768 + 8, from);
      EXPECT_EQ(row.expected, convert(fn, buffer, row.length));
      std::vector<unsigned char> expected(buffer.size(), from);
      std::fill(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(row.converted),
                to);
      EXPECT_EQ(expected, buffer);
    }
  }
}

}  // namespace
