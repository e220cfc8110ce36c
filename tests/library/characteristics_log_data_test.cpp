// The log data buffer that CMSLD builds for the deallocate and send-error
// verbs: its GDS header, its EBCDIC text, and its ownership.
#include "characteristics_fixture.h"

namespace {

constexpr uint32_t kKeptClass = 0x302;

CM_RETURN_CODE set_log(Conversation &c, const std::string &text, CM_INT32 length) {
  return set_text(cmsld, c, text, length);
}

Conversation basic_conversation() {
  Conversation c = CharacteristicsTest::make();
  CM_INT32 basic = CM_BASIC_CONVERSATION;
  CM_RETURN_CODE rc = -1;
  cmsct(c.id_ptr(), &basic, &rc);
  EXPECT_EQ(CM_OK, rc);
  return c;
}

TEST_F(CharacteristicsTest, LogDataIsAnErrorLogGdsVariableInEbcdic) {
  struct Row {
    std::string text;
    std::vector<unsigned char> header;
    std::vector<unsigned char> body;
  };
  const Row rows[] = {
      {std::string(512, 'a'),
       {0x02, 0x08, 0x12, 0xE1, 0x00, 0x02, 0x02, 0x02},
       std::vector<unsigned char>(512, 0x81)},
      {"x", {0x00, 0x09, 0x12, 0xE1, 0x00, 0x02, 0x00, 0x03}, {0xA7}},
      // Outside table AE: '-' and '!' become X'00'; the period and case stay.
      {"Err-1.!",
       {0x00, 0x0F, 0x12, 0xE1, 0x00, 0x02, 0x00, 0x09},
       {0xC5, 0x99, 0x99, 0x00, 0xF1, 0x4B, 0x00}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text.substr(0, 10));
    Conversation c = basic_conversation();
    ASSERT_EQ(CM_OK, set_log(c, row.text, static_cast<CM_INT32>(row.text.size())));
    ASSERT_EQ(row.text.size() + 8, c.cccb->usLogDataLength);
    ASSERT_NE(nullptr, c.cccb->pLogData);
    EXPECT_EQ(row.header, field(c.cccb->pLogData, 8));
    EXPECT_EQ(row.body, field(c.cccb->pLogData + 8, row.text.size()));
  }
}

TEST_F(CharacteristicsTest, LogDataIsReplacedFreedAndKeptOnRefusal) {
  Conversation c = basic_conversation();
  const uint32_t blocks_without_log = snt_blocks_in_use(kKeptClass);

  ASSERT_EQ(CM_OK, set_log(c, "first", 5));
  EXPECT_EQ(blocks_without_log + 1, snt_blocks_in_use(kKeptClass));

  // A new text replaces the old buffer rather than adding one.
  ASSERT_EQ(CM_OK, set_log(c, "second", 6));
  EXPECT_EQ(blocks_without_log + 1, snt_blocks_in_use(kKeptClass));
  EXPECT_EQ(14u, c.cccb->usLogDataLength);
  unsigned char *kept = c.cccb->pLogData;

  // Too long: refused, the buffer stays as it was.
  EXPECT_EQ(CM_PROGRAM_PARAMETER_CHECK, set_log(c, std::string(513, 'z'), 513));
  EXPECT_EQ(kept, c.cccb->pLogData);
  EXPECT_EQ(14u, c.cccb->usLogDataLength);

  // Length 0 frees the buffer.
  ASSERT_EQ(CM_OK, set_log(c, "", 0));
  EXPECT_EQ(nullptr, c.cccb->pLogData);
  EXPECT_EQ(0u, c.cccb->usLogDataLength);
  EXPECT_EQ(blocks_without_log, snt_blocks_in_use(kKeptClass));

  // Clearing when there is nothing to clear is harmless.
  EXPECT_EQ(CM_OK, set_log(c, "", 0));
  EXPECT_EQ(0u, snt_problem_count());
}

TEST_F(CharacteristicsTest, LogDataWithoutMemoryKeepsTheOldText) {
  Conversation c = basic_conversation();
  ASSERT_EQ(CM_OK, set_log(c, "old", 3));
  unsigned char *kept = c.cccb->pLogData;

  snt_fail_allocations(1);
  EXPECT_EQ(CM_PRODUCT_SPECIFIC_ERROR, set_log(c, "new text", 8));
  EXPECT_EQ(kept, c.cccb->pLogData);
  EXPECT_EQ(11u, c.cccb->usLogDataLength);
  EXPECT_EQ((std::vector<unsigned char>{0x96, 0x93, 0x84}), field(c.cccb->pLogData + 8, 3));

  ASSERT_EQ(1u, snt_problem_count());
  SNT_RECORD record{};
  ASSERT_EQ(1, snt_problem(0, &record));
  EXPECT_EQ(0x2003000Bu, record.code);
  EXPECT_EQ(11u, record.probe);
  EXPECT_STREQ("", record.arg_types);
}

}  // namespace
