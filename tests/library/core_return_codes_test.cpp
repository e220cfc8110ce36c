// Mapping of APPC results to CPI-C return codes: every row of the mapping,
// the problem record of an unknown result, and the set of primary codes that
// end a conversation.
#include <set>
#include <vector>

#include "library/library_support.h"

namespace {

using namespace lib_test;

struct Row {
  uint16_t primary;
  uint32_t secondary;
  CM_RETURN_CODE expected;
};

std::vector<Row> known_rows() {
  std::vector<Row> rows = {
      {0x0100, 0x31000000, CM_PROGRAM_PARAMETER_CHECK},
      {0x0100, 0xF1000000, CM_PROGRAM_PARAMETER_CHECK},
      {0x0100, 0x5B010000, CM_PROGRAM_PARAMETER_CHECK},
      {0x0100, 0x18000000, CM_PARAMETER_ERROR},
      {0x0100, 0x17000000, CM_PARAMETER_ERROR},
      {0x0300, 0x04000000, CM_ALLOCATE_FAILURE_NO_RETRY},
      {0x0300, 0x05000000, CM_ALLOCATE_FAILURE_RETRY},
      {0x0300, 0x34600810, CM_CONVERSATION_TYPE_MISMATCH},
      {0x0300, 0x51600F08, CM_SECURITY_NOT_VALID},
      {0x0300, 0x58600F08, CM_SECURITY_NOT_VALID},
      {0x0300, 0x16900000, CM_SECURITY_NOT_VALID},
      {0x0300, 0x41600810, CM_SYNC_LEVEL_NOT_SUPPORTED_PGM},
      {0x0300, 0x21600810, CM_TPN_NOT_RECOGNIZED},
      {0x0300, 0x00004C08, CM_TP_NOT_AVAILABLE_NO_RETRY},
      {0x0300, 0x31604B08, CM_TP_NOT_AVAILABLE_RETRY},
  };
  // Sense 080FFF00 to 080FFF0D.
  for (uint32_t reason = 0; reason <= 0x0D; ++reason) {
    rows.push_back({0x0300, (reason << 24) | 0x00FF0F08u, CM_SECURITY_NOT_VALID});
  }
  // Rows decided by the primary alone: two unrelated secondaries each.
  const Row by_primary[] = {
      {0x0200, 0, CM_PROGRAM_STATE_CHECK},
      {0x0500, 0, CM_DEALLOCATED_ABEND},
      {0x0600, 0, CM_DEALLOCATED_ABEND},
      {0x0700, 0, CM_DEALLOCATED_ABEND_SVC},
      {0x0800, 0, CM_DEALLOCATED_ABEND_TIMER},
      {0x0900, 0, CM_DEALLOCATED_NORMAL},
      {0x0C00, 0, CM_PROGRAM_ERROR_NO_TRUNC},
      {0x0D00, 0, CM_PROGRAM_ERROR_TRUNC},
      {0x0E00, 0, CM_PROGRAM_ERROR_PURGING},
      {0x0F00, 0, CM_RESOURCE_FAILURE_RETRY},
      {0x1000, 0, CM_RESOURCE_FAILURE_NO_RETRY},
      {0x1100, 0, CM_SVC_ERROR_NO_TRUNC},
      {0x1200, 0, CM_SVC_ERROR_TRUNC},
      {0x1300, 0, CM_SVC_ERROR_PURGING},
      {0x1400, 0, CM_UNSUCCESSFUL},
  };
  for (const Row &row : by_primary) {
    rows.push_back({row.primary, 0, row.expected});
    rows.push_back({row.primary, 0x34600810, row.expected});
  }
  return rows;
}

CM_RETURN_CODE map(uint16_t primary, uint32_t secondary, uint16_t opcode = 0x0F) {
  CM_RETURN_CODE rc = -1;
  SCC_map_return_codes(&rc, primary, secondary, opcode);
  return rc;
}

TEST(CoreReturnCodes, EveryKnownResultMapsWithoutProblemRecord) {
  snt_reset();
  for (const Row &row : known_rows()) {
    EXPECT_EQ(map(row.primary, row.secondary), row.expected)
        << std::hex << row.primary << "/" << row.secondary;
  }
  EXPECT_EQ(snt_problem_count(), 0u);
}

TEST(CoreReturnCodes, UnknownResultsGiveProductErrorWithOneProblemRecordEach) {
  snt_reset();
  const Row unknown[] = {
      {0x0100, 0x00000000, 0}, {0x0300, 0x31600810, 0}, {0x0300, 0x0EFF0F08, 0},
      {0x0300, 0x00FF0F09, 0}, {0x0300, 0x99999999, 0}, {0x0000, 0x00000000, 0},
      {0x0A00, 0x00000001, 0}, {0x0B00, 0x00000000, 0}, {0x02F0, 0x00000000, 0},
      {0x03F0, 0x00000000, 0}, {0x04F0, 0x12345678, 0}, {0x2100, 0x00000000, 0},
      {0xFFFF, 0xFFFFFFFF, 0},
  };
  uint32_t n = 0;
  for (const Row &row : unknown) {
    EXPECT_EQ(map(row.primary, row.secondary, 0x72), CM_PRODUCT_SPECIFIC_ERROR)
        << std::hex << row.primary << "/" << row.secondary;
    ASSERT_EQ(snt_problem_count(), n + 1);
    const SNT_RECORD record = problem(n++);
    EXPECT_EQ(record.code, 0x20030016u);
    EXPECT_EQ(record.probe, 1u);
    EXPECT_STREQ(record.arg_types, "x x lx");
    EXPECT_EQ(record.args[0], 0x72u);
    EXPECT_EQ(record.args[1], row.primary);
    EXPECT_EQ(record.args[2], row.secondary);
  }
}

TEST(CoreReturnCodes, OnlyTheTableCodesAreEverProduced) {
  const std::set<CM_RETURN_CODE> allowed = {1,  2,  3,  6,  8,  9,  10, 11, 17, 18, 19, 20, 21,
                                            22, 23, 24, 25, 26, 27, 28, 30, 31, 32, 33, 34};
  for (uint32_t high = 0; high < 0x100; ++high) {
    for (uint16_t primary : {uint16_t(high << 8), uint16_t((high << 8) | 0xF0)}) {
      for (uint32_t secondary : {0u, 0x04000000u, 0x31000000u, 0x05FF0F08u}) {
        EXPECT_TRUE(allowed.count(map(primary, secondary)) == 1) << std::hex << primary;
      }
    }
  }
}

TEST(CoreReturnCodes, ExactlyTheNineEndingPrimariesEndAConversation) {
  const std::set<uint32_t> ending = {0x0300, 0x0500, 0x0600, 0x0700, 0x0800,
                                     0x0900, 0x0F00, 0x1000, 0x2100};
  for (uint32_t primary = 0; primary <= 0xFFFF; ++primary) {
    ASSERT_EQ(SCC_is_ending_primary(static_cast<uint16_t>(primary)), ending.count(primary) == 1)
        << std::hex << primary;
  }
}

}  // namespace
