// Start-up from the environment, each failing step of start-up leaving
// nothing behind, and the end of the path taking everything down.
#include <string>
#include <vector>

#include "library/core_interpose.h"
#include "library/library_support.h"

namespace {

using namespace lib_test;

std::string padded_tp_name(const std::string &start) {
  return start + std::string(64 - start.size(), '\x40');
}

const std::string kDefaultTpName =
    "\xC3\xD7\xC9\xC3\x6D\xC4\xC5\xC6\xC1\xE4\xD3\xE3\x6D\xE3\xD7\xD5\xC1\xD4\xC5";

struct EnvCase {
  const char *name;
  const char *lu;   // null: unset
  const char *tpn;  // null: unset
  std::string alias;
  std::string tp_name;  // all 64 bytes
  uint16_t length;
  uint16_t from_env;
  const char *env_left;  // what pEnv shows afterwards; null for null
};

std::vector<EnvCase> env_cases() {
  const std::string hex = "SNA_SERVICE_TP_0x";
  static const std::string long_hex = hex + std::string(130, 'A');
  static const std::string long_name(70, 'A');
  return {
      {"unset", nullptr, nullptr, std::string(8, '\0'), padded_tp_name(kDefaultTpName), 19, 0,
       nullptr},
      {"empty", "", "", std::string(8, '\0'), padded_tp_name(kDefaultTpName), 19, 0, nullptr},
      {"short alias", "LU1", nullptr, "LU1     ", padded_tp_name(kDefaultTpName), 19, 0, nullptr},
      {"long alias", "LOCALLUNAME", nullptr, "LOCALLUN", padded_tp_name(kDefaultTpName), 19, 0,
       nullptr},
      {"alias kept as typed", "lu.x", nullptr, "lu.x    ", padded_tp_name(kDefaultTpName), 19, 0,
       nullptr},
      {"plain name", nullptr, "PAYROLL", std::string(8, '\0'),
       padded_tp_name("\xD7\xC1\xE8\xD9\xD6\xD3\xD3"), 7, 1, "PAYROLL"},
      {"plain name keeps case", nullptr, "pay_1", std::string(8, '\0'),
       padded_tp_name("\x97\x81\xA8\x6D\xF1"), 5, 1, "pay_1"},
      {"plain name cut at 64", nullptr, long_name.c_str(), std::string(8, '\0'),
       std::string(64, '\xC1'), 64, 1, long_name.c_str()},
      {"hex even", nullptr, "SNA_SERVICE_TP_0x06F1", std::string(8, '\0'),
       padded_tp_name("\x06\xF1"), 2, 0, "06F1"},
      {"hex odd, lower case", nullptr, "SNA_SERVICE_TP_0x6f1", std::string(8, '\0'),
       padded_tp_name("\x6F\x10"), 2, 0, "6f1"},
      {"hex one byte", nullptr, "SNA_SERVICE_TP_0x0a", std::string(8, '\0'), padded_tp_name("\x0A"),
       1, 0, "0a"},
      {"hex nothing", nullptr, "SNA_SERVICE_TP_0x", std::string(8, '\0'), padded_tp_name(""), 0, 0,
       ""},
      {"hex non-digits", nullptr, "SNA_SERVICE_TP_0xzzG0", std::string(8, '\0'),
       padded_tp_name(std::string("\x73\x00", 2)), 2, 0, "zzG0"},
      {"hex cut at 64 bytes", nullptr, long_hex.c_str(), std::string(8, '\0'),
       std::string(64, '\xAA'), 64, 0, long_hex.c_str() + hex.size()},
      {"prefix only in part", nullptr, "SNA_SERVICE_TP_", std::string(8, '\0'),
       padded_tp_name("\xE2\xD5\xC1\x6D\xE2\xC5\xD9\xE5\xC9\xC3\xC5\x6D\xE3\xD7\x6D"), 15, 1,
       "SNA_SERVICE_TP_"},
  };
}

void set_or_unset(const char *variable, const char *value) {
  if (value == nullptr) {
    unsetenv(variable);
  } else {
    setenv(variable, value, 1);
  }
}

TEST_F(CoreTest, StartUpReadsEveryFormOfTheEnvironment) {
  for (const EnvCase &c : env_cases()) {
    SCOPED_TRACE(c.name);
    set_or_unset("APPCLLU", c.lu);
    set_or_unset("APPCTPN", c.tpn);
    std::memset(pGCB->TpName, 0x55, sizeof pGCB->TpName);
    pGCB->usTpNameLen = 999;
    SCC_get_lu_alias(pGCB->EnvLUAlias);
    SCC_set_tp_name(pGCB->TpName);
    EXPECT_EQ(text_of(pGCB->EnvLUAlias, 8), c.alias);
    EXPECT_EQ(text_of(pGCB->TpName, 64), c.tp_name);
    EXPECT_EQ(pGCB->usTpNameLen, c.length);
    EXPECT_EQ(pGCB->fTpNameFromEnv, c.from_env);
    if (c.env_left == nullptr) {
      EXPECT_EQ(pEnv, nullptr);
    } else {
      ASSERT_NE(pEnv, nullptr);
      EXPECT_STREQ(pEnv, c.env_left);
    }
  }
}

TEST_F(CoreTest, StartUpSetsTheStartedState) {
  setenv("APPCLLU", "LU1", 1);
  setenv("APPCTPN", "PAYROLL", 1);
  pGCB->NumVerbsWaiting = 3;
  pGCB->NumVerbsOutstanding = 4;
  pGCB->CurrentContext[0] = 9;
  start();
  EXPECT_EQ(text_of(pGCB->EnvLUAlias, 8), "LU1     ");
  EXPECT_EQ(pGCB->usTpNameLen, 7);
  EXPECT_EQ(pGCB->NumVerbsWaiting, 0u);
  EXPECT_EQ(pGCB->NumVerbsOutstanding, 0u);
  EXPECT_EQ(pGCB->CurrentContext[0], 0);
  EXPECT_NE(pGCB->CCCBTable, nullptr);
  EXPECT_NE(pGCB->SideInfoTable, nullptr);
  EXPECT_NE(pGCB->LocTPNameTable, nullptr);
  EXPECT_NE(pGCB->ulPathUserId, 0u);
  EXPECT_NE(pGCB->hWaitObject, nullptr);
  EXPECT_EQ(snt_path_users(), 1u);
  EXPECT_EQ(snt_problem_count(), 0u);
}

TEST(CoreFarLen, CountsUpToTheMaximum) {
  struct {
    const char *text;
    uint16_t maximum;
    uint16_t expected;
  } cases[] = {{"", 5, 0}, {"abc", 0, 0}, {"abc", 2, 2}, {"abc", 3, 3}, {"abc", 64, 3}};
  for (const auto &c : cases) EXPECT_EQ(SCC_far_len(c.text, c.maximum), c.expected) << c.text;
}

TEST_F(CoreTest, EveryFailedStartUpStepLeavesNothingAndTheNextCallRetries) {
  // The step made to fail: the n-th table creation, the path registration or
  // the wait object.
  const struct {
    int failing_table;
    bool failing_path;
    bool failing_wait_object;
    uint32_t code;
    uint32_t probe;
  } cases[] = {
      {1, false, false, 0x2003000A, 1}, {2, false, false, 0x2003000A, 2},
      {3, false, false, 0x2003000A, 3}, {0, true, false, 0x2003000A, 0},
      {0, false, true, 0x2003000B, 12},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.probe);
    snt_reset();
    g_books.table_inits = 0;
    g_books.fail_table_init = c.failing_table;
    if (c.failing_path) snt_fail_path_registrations(1);
    if (c.failing_wait_object) snt_refuse_wait_objects(1);
    {
      Locked lock;
      SCC_init();
    }
    EXPECT_EQ(fInitCPIC, 0);
    EXPECT_EQ(pGCB->CCCBTable, nullptr);
    EXPECT_EQ(pGCB->SideInfoTable, nullptr);
    EXPECT_EQ(pGCB->LocTPNameTable, nullptr);
    EXPECT_TRUE(g_books.live_tables.empty());
    EXPECT_EQ(pGCB->ulPathUserId, 0u);
    EXPECT_EQ(snt_path_users(), 0u);
    EXPECT_TRUE(g_books.live_wait_objects.empty());
    ASSERT_EQ(snt_problem_count(), 1u);
    const SNT_RECORD record = problem(0);
    EXPECT_EQ(record.code, c.code);
    EXPECT_EQ(record.probe, c.probe);
    EXPECT_STREQ(record.arg_types, "");

    // The next creating call starts from the beginning and succeeds.
    g_books.fail_table_init = 0;
    g_books.table_inits = 0;
    start();
    EXPECT_EQ(g_books.table_inits, 3);
    EXPECT_EQ(g_books.live_tables.size(), 3u);
    EXPECT_EQ(g_books.live_wait_objects.size(), 1u);
    EXPECT_EQ(snt_path_users(), 1u);
    // Back to "not started" for the next case.
    snt_end_path();
    ASSERT_EQ(fInitCPIC, 0);
  }
}

TEST_F(CoreTest, PathEndDropsEverythingAndStartUpBeginsAfresh) {
  start();
  const uint32_t blocks_before = snt_blocks_in_use(kMemKept);
  Conversation a = make_conversation();
  Conversation b = make_conversation();
  {
    // A side-information slot and a local TP name record, as their owners
    // would store them.
    Locked lock;
    void *slot = kept_block(sizeof(SCD_SLOT));
    void *tp = kept_block(sizeof(LOCAL_TP_RECORD));
    ASSERT_NE(vtm_get_free_entry(pGCB->SideInfoTable, slot), 0u);
    ASSERT_NE(vtm_get_free_entry(pGCB->LocTPNameTable, tp), 0u);
  }
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks_before + 4);

  snt_end_path();
  EXPECT_EQ(fInitCPIC, 0);
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks_before);
  EXPECT_TRUE(g_books.live_tables.empty());
  EXPECT_TRUE(g_books.live_wait_objects.empty());
  EXPECT_EQ(pGCB->ulPathUserId, 0u);
  EXPECT_EQ(pGCB->hWaitObject, nullptr);
  EXPECT_EQ(snt_path_users(), 0u);

  // Every conversation ID is unknown now.
  snt_reset();
  for (Conversation *c : {&a, &b}) {
    EXPECT_FALSE(known(c->id));
    CM_RETURN_CODE rc = -1;
    cmcanc(c->id, &rc);
    EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  }
  ASSERT_EQ(snt_problem_count(), 2u);
  const SNT_RECORD record = problem(1);
  EXPECT_EQ(record.code, 0x20030005u);
  EXPECT_EQ(record.probe, 2u);
  EXPECT_STREQ(record.arg_types, "ba");
  EXPECT_EQ(record.args[0], 8u);
  EXPECT_EQ(std::memcmp(record.bytes[0], b.id, 8), 0);

  // The next creating call starts the library again with fresh tables.
  start();
  EXPECT_EQ(g_books.live_tables.size(), 3u);
  Conversation fresh = make_conversation();
  EXPECT_TRUE(known(fresh.id));
}

TEST_F(CoreTest, OtherPathEventsAreIgnored) {
  start();
  VPM_PATH_EVENT event{0x0001, 0xFFFF};
  EXPECT_EQ(SCC_path_callback(nullptr, &event), 0);
  EXPECT_EQ(event.result, 0);
  EXPECT_EQ(fInitCPIC, 1);
  EXPECT_EQ(g_books.live_tables.size(), 3u);
}

}  // namespace
