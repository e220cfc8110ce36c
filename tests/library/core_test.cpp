// The library's core: start-up from the environment and its failures, the
// end of the path, conversation control blocks, the end of a context at the
// node, return-code mapping, character conversion, verb submission and
// completion with CMWAIT and CMCHCK, and CMCANC.
#include <dlfcn.h>
#include <iconv.h>

#include <cctype>
#include <chrono>
#include <set>
#include <thread>

#include "library/support.h"

namespace {

using namespace lib_test;

// What the stand-ins below saw: live tables and wait objects; and a table
// creation to fail.
struct NodeBooks {
  std::set<VTM_TABLE> live_tables;
  std::set<void *> live_wait_objects;
  int table_inits = 0;
  int fail_table_init = 0;  // 1-based index of the creation to fail; 0 none
} g_books;

template <typename F>
F next_definition(const char *name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Stand-ins in front of the node's table and wait-object routines (an
// executable's definitions take precedence over the shared node library's):
// they pass every call on and keep books.
extern "C" {
void vtm_table_init(VTM_TABLE *field, uint32_t r1) {
  static auto real = next_definition<void (*)(VTM_TABLE *, uint32_t)>("vtm_table_init");
  if (++g_books.table_inits == g_books.fail_table_init) {
    *field = nullptr;
    return;
  }
  real(field, r1);
  if (*field != nullptr) g_books.live_tables.insert(*field);
}
void vtm_table_terminate(VTM_TABLE *field) {
  static auto real = next_definition<void (*)(VTM_TABLE *)>("vtm_table_terminate");
  g_books.live_tables.erase(*field);
  real(field);
}
void *vpm_allocate_wait_object(void) {
  static auto real = next_definition<void *(*)()>("vpm_allocate_wait_object");
  void *object = real();
  if (object != nullptr) g_books.live_wait_objects.insert(object);
  return object;
}
void vpm_release_wait_object(void *object) {
  static auto real = next_definition<void (*)(void *)>("vpm_release_wait_object");
  g_books.live_wait_objects.erase(object);
  real(object);
}
}

namespace {

class Core : public LibraryTest {};

// ---- start-up ----

TEST_F(Core, StartUpReadsEveryFormOfTheEnvironment) {
  const std::string dflt =
      "\xC3\xD7\xC9\xC3\x6D\xC4\xC5\xC6\xC1\xE4\xD3\xE3\x6D\xE3\xD7\xD5\xC1\xD4\xC5";
  const std::string hex = "SNA_SERVICE_TP_0x", long_hex = hex + std::string(130, 'A');
  const std::string long_name(70, 'A'), none(8, '\0');
  const struct {
    const char *lu, *tpn;  // null: unset
    std::string alias, tp_name;
    uint16_t length, from_env;
    const char *env_left;  // what pEnv shows afterwards
  } cases[] = {
      {nullptr, nullptr, none, dflt, 19, 0, nullptr},
      {"", "", none, dflt, 19, 0, nullptr},
      {"LU1", nullptr, "LU1     ", dflt, 19, 0, nullptr},
      {"LOCALLUNAME", nullptr, "LOCALLUN", dflt, 19, 0, nullptr},
      {"lu.x", nullptr, "lu.x    ", dflt, 19, 0, nullptr},
      {nullptr, "pay_1", none, "\x97\x81\xA8\x6D\xF1", 5, 1, "pay_1"},
      {nullptr, long_name.c_str(), none, std::string(64, '\xC1'), 64, 1, long_name.c_str()},
      {nullptr, "SNA_SERVICE_TP_0x06F1", none, "\x06\xF1", 2, 0, "06F1"},
      {nullptr, "SNA_SERVICE_TP_0x6f1", none, "\x6F\x10", 2, 0, "6f1"},
      {nullptr, "SNA_SERVICE_TP_0x", none, "", 0, 0, ""},
      {nullptr, "SNA_SERVICE_TP_0xzzG0", none, std::string("\x73\x00", 2), 2, 0, "zzG0"},
      {nullptr, long_hex.c_str(), none, std::string(64, '\xAA'), 64, 0, long_hex.c_str() + 17},
      {nullptr, "SNA_SERVICE_TP_", none,
       "\xE2\xD5\xC1\x6D\xE2\xC5\xD9\xE5\xC9\xC3\xC5\x6D\xE3\xD7\x6D", 15, 1, "SNA_SERVICE_TP_"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.tpn ? c.tpn : c.lu ? c.lu : "unset");
    for (auto [name, value] : {std::pair{"APPCLLU", c.lu}, std::pair{"APPCTPN", c.tpn}}) {
      value ? setenv(name, value, 1) : unsetenv(name);
    }
    std::memset(pGCB->TpName, 0x55, sizeof pGCB->TpName);
    pGCB->usTpNameLen = 999;
    SCC_get_lu_alias(pGCB->EnvLUAlias);
    SCC_set_tp_name(pGCB->TpName);
    EXPECT_EQ(std::tuple(text_of(pGCB->EnvLUAlias, 8), text_of(pGCB->TpName, 64), pGCB->usTpNameLen,
                         pGCB->fTpNameFromEnv),
              std::tuple(c.alias, padded(c.tp_name, 64, '\x40'), c.length, c.from_env));
    EXPECT_STREQ(pEnv, c.env_left);
  }
}

TEST_F(Core, EveryFailedStartUpStepLeavesNothingAndTheNextCallRetries) {
  // The step made to fail: the n-th table creation, the path registration or
  // the wait object.
  const struct {
    int failing_table;
    void (*inject)(uint32_t);
    Probes problem;
  } cases[] = {
      {1, nullptr, {{kProblemStartup, 1}}},
      {2, nullptr, {{kProblemStartup, 2}}},
      {3, nullptr, {{kProblemStartup, 3}}},
      {0, snt_fail_path_registrations, {{kProblemStartup, 0}}},
      {0, snt_refuse_wait_objects, {{kProblemNoResource, 12}}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.problem[0].second);
    snt_reset();
    g_books.table_inits = 0;
    g_books.fail_table_init = c.failing_table;
    if (c.inject != nullptr) c.inject(1);
    {
      Locked lock;
      SCC_init();
    }
    EXPECT_TRUE(fInitCPIC == 0 && pGCB->CCCBTable == nullptr && pGCB->SideInfoTable == nullptr &&
                pGCB->LocTPNameTable == nullptr && g_books.live_tables.empty() &&
                g_books.live_wait_objects.empty() && pGCB->ulPathUserId == 0 &&
                snt_path_users() == 0);
    EXPECT_EQ(problems(), c.problem);

    // The next creating call starts from the beginning and succeeds: it
    // reads the environment and starts with nothing outstanding.
    g_books.fail_table_init = 0;
    g_books.table_inits = 0;
    setenv("APPCLLU", "LU1", 1);
    pGCB->NumVerbsWaiting = pGCB->NumVerbsOutstanding = 3;
    pGCB->CurrentContext[0] = 9;
    start_library();
    EXPECT_EQ(text_of(pGCB->EnvLUAlias, 8), "LU1     ");
    EXPECT_EQ(pGCB->NumVerbsWaiting + pGCB->NumVerbsOutstanding + pGCB->CurrentContext[0], 0u);
    EXPECT_EQ(std::tuple(g_books.table_inits, g_books.live_tables.size(), snt_path_users()),
              std::tuple(3, 3u, 1u));
    EXPECT_EQ(g_books.live_wait_objects, std::set<void *>{pGCB->hWaitObject});
    snt_end_path();  // back to "not started" for the next case
    ASSERT_EQ(fInitCPIC, 0);
  }
}

TEST_F(Core, PathEndDropsEverythingAndStartUpBeginsAfresh) {
  start_library();
  const uint32_t blocks_before = snt_blocks_in_use(kMemKept);
  ConvId a{}, b{};
  new_cccb(a);
  new_cccb(b);
  {
    // A side-information slot and a local TP name record, as their owners
    // store them.
    Locked lock;
    ASSERT_NE(vtm_get_free_entry(pGCB->SideInfoTable, kept_block(sizeof(SCD_SLOT))), 0u);
    ASSERT_NE(vtm_get_free_entry(pGCB->LocTPNameTable, kept_block(sizeof(LOCAL_TP_RECORD))), 0u);
  }
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks_before + 4);

  snt_end_path();
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks_before);
  EXPECT_TRUE(fInitCPIC == 0 && g_books.live_tables.empty() && g_books.live_wait_objects.empty() &&
              pGCB->hWaitObject == nullptr && snt_path_users() == 0);

  // Every conversation ID is unknown now.
  snt_reset();
  EXPECT_EQ(rc_of(cmcanc)(b), CM_PROGRAM_PARAMETER_CHECK);
  EXPECT_EQ(problems(), (Probes{{kProblemUnknownConversation, 2}}));
  EXPECT_EQ(bytes(problem(0).bytes[0], 8), bytes(b.data(), 8));

  // The next creating call starts the library again; other path events are
  // ignored.
  start_library();
  VPM_PATH_EVENT event{0x0001, 0xFFFF};
  EXPECT_EQ(SCC_path_callback(nullptr, &event), 0);
  EXPECT_EQ(event.result, 0);
  EXPECT_EQ(g_books.live_tables.size(), 3u);
  ConvId fresh{};
  new_cccb(fresh);
  EXPECT_TRUE(known(fresh));
}

// ---- control blocks ----

TEST_F(Core, LookupUsesBytesZeroToThreeOfAnIdThatIsStillValid) {
  ConvId early{1};
  EXPECT_FALSE(known(early)) << "before start-up";
  start_library();
  ConvId id{};
  CCCB *cccb = new_cccb(id);
  uint32_t handle;
  std::memcpy(&handle, id.data(), 4);
  EXPECT_EQ(handle, cccb->CCCBhandle);
  EXPECT_EQ(text_of(id.data() + 4, 4), std::string(4, '\0'));
  ConvId noisy = id;
  std::memset(noisy.data() + 4, 0xA5, 4);
  EXPECT_EQ(cccb_of(noisy), cccb);
  ConvId other{};
  new_cccb(other);
  EXPECT_NE(std::memcmp(id.data(), other.data(), 4), 0);
  {
    Locked lock;
    SCC_free_cccb(cccb);
  }
  EXPECT_FALSE(known(id)) << "a freed ID stays unknown";
}

// Which TP_ENDED verb freeing a conversation sends, by its context.
TEST_F(Core, FreeingTheLastConversationOfAnOldContextEndsIt) {
  const unsigned char none[8] = {}, ctx_a[8] = {1, 2, 3, 4, 5, 6, 7, 8}, ctx_b[8] = {8, 7, 6};
  const struct {
    const char *name;
    const unsigned char *tp_id, *current;
    bool sibling;
    uint16_t last_verb;
    bool ends_context, waits;
  } cases[] = {
      {"no context", none, none, false, 10, false, false},
      {"last of an old context", ctx_a, ctx_b, false, 10, true, false},
      {"after CMDEAL", ctx_a, ctx_b, false, kVerbCMDEAL, true, true},
      {"context still shared", ctx_a, ctx_b, true, 10, false, false},
      {"current context", ctx_a, ctx_a, false, 10, false, false},
  };
  start_library();
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    fresh_node();
    std::memcpy(pGCB->CurrentContext, c.current, 8);
    ConvId id{}, sibling_id{};
    CCCB *cccb = new_cccb(id);
    SCC_set_tp_id(cccb, c.tp_id);
    cccb->usTraceVerb = c.last_verb;
    CCCB *sibling = c.sibling ? new_cccb(sibling_id) : nullptr;
    if (sibling != nullptr) SCC_set_tp_id(sibling, c.tp_id);
    {
      Locked lock;
      EXPECT_EQ(SCC_cccbs_using_tpid(c.tp_id), c.sibling ? 2u : 1u);
      SCC_free_cccb(cccb);
      EXPECT_EQ(SCC_cccbs_using_tpid(c.tp_id), c.sibling ? 1u : 0u);
    }
    EXPECT_FALSE(known(id));
    ASSERT_EQ(snt_submitted_count(), c.ends_context ? 1u : 0u);
    if (c.ends_context) {
      expect_record(submitted(0), {{0, u16(NAP_TP_ENDED)}, {12, raw(c.tp_id, 8)}, {20, u8(1)}},
                    "hard end");
      EXPECT_EQ(snt_submitted_with_routine(0), c.waits ? 0 : 1);
    }
    EXPECT_EQ(snt_blocks_in_use(kMemShortLived), 0u) << "verb blocks never outlive the verb";
    if (sibling != nullptr) {
      Locked lock;
      SCC_free_cccb(sibling);
    }
  }
}

TEST_F(Core, FreeingReleasesOwnedBuffersAndAnUncollectedCompletion) {
  start_library();
  const uint32_t blocks = snt_blocks_in_use(0);
  ConvId a{}, b{};
  CCCB *c = new_cccb(a), *other = new_cccb(b);
  {
    Locked lock;
    c->pLogData = kept_block(16);
    c->DeallcLogData = kept_block(16);
    c->fCompletionWaiting = other->fCompletionWaiting = 1;
    pGCB->NumVerbsWaiting = 2;
    SCC_free_cccb(c);
    EXPECT_EQ(pGCB->NumVerbsWaiting, 1u) << "the uncollected completion goes with it";
  }
  EXPECT_EQ(snt_blocks_in_use(0), blocks + 1);
  EXPECT_EQ(snt_assert_count(), 0u);
}

// ---- the end of a context at the node ----

TEST_F(Core, EndingAContextWaitedForOrForgotten) {
  const unsigned char tp[8] = {9, 8, 7, 6, 5, 4, 3, 2};
  push(NAP_TP_ENDED, 0x0100, 0xF1000000);
  uint16_t primary = 0;
  uint32_t secondary = 0;
  {
    Locked lock;
    SCC_context_ended(tp, 0, &primary, &secondary);
  }
  EXPECT_EQ(std::pair(primary, secondary), std::pair(uint16_t{0x0100}, 0xF1000000u));
  EXPECT_EQ(snt_submitted_with_routine(0), 0);
  expect_record(submitted(0), {{0, u16(NAP_TP_ENDED)}, {12, raw(tp, 8)}}, "soft end");

  // Forgotten: its block is freed by whoever finishes last, and its failure
  // is nobody's business.
  for (int later : {0, 1}) {
    fresh_node();
    push(NAP_TP_ENDED, 0x0200, 0, later);
    {
      Locked lock;
      SCC_context_ended(tp, 1);
    }
    EXPECT_EQ(snt_submitted_with_routine(0), 1);
    EXPECT_EQ(snt_blocks_in_use(kMemShortLived), later ? 1u : 0u);
    if (later) {
      ASSERT_EQ(snt_complete_pending(0), 1);
    }
    EXPECT_EQ(snt_blocks_in_use(kMemShortLived) + snt_problem_count(), 0u);
  }

  // No memory for the verb: reported, and answered as the node would.
  fresh_node();
  snt_fail_allocations(2);
  {
    Locked lock;
    SCC_context_ended(tp, 1, &primary, &secondary);
    SCC_context_ended(tp, 1);
  }
  EXPECT_EQ(std::pair(primary, secondary), std::pair(uint16_t{0x11F0}, 12u));
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_EQ(problems(), (Probes{{kProblemNoResource, 17}, {kProblemNoResource, 17}}));
}

// ---- return codes ----

CM_RETURN_CODE map(uint16_t primary, uint32_t secondary, uint16_t opcode = 0x0F) {
  CM_RETURN_CODE rc = -1;
  SCC_map_return_codes(&rc, primary, secondary, opcode);
  return rc;
}

TEST(CoreReturnCodes, EveryKnownResultMapsWithoutProblemRecord) {
  snt_reset();
  // clang-format off
  std::vector<std::tuple<uint16_t, uint32_t, CM_RETURN_CODE>> rows = {
      {0x0100, 0x31000000, CM_PROGRAM_PARAMETER_CHECK}, {0x0100, 0xF1000000, CM_PROGRAM_PARAMETER_CHECK},
      {0x0100, 0x5B010000, CM_PROGRAM_PARAMETER_CHECK}, {0x0100, 0x18000000, CM_PARAMETER_ERROR},
      {0x0100, 0x17000000, CM_PARAMETER_ERROR},         {0x0300, 0x04000000, CM_ALLOCATE_FAILURE_NO_RETRY},
      {0x0300, 0x05000000, CM_ALLOCATE_FAILURE_RETRY},  {0x0300, 0x34600810, CM_CONVERSATION_TYPE_MISMATCH},
      {0x0300, 0x51600F08, CM_SECURITY_NOT_VALID},      {0x0300, 0x58600F08, CM_SECURITY_NOT_VALID},
      {0x0300, 0x16900000, CM_SECURITY_NOT_VALID},      {0x0300, 0x41600810, CM_SYNC_LEVEL_NOT_SUPPORTED_PGM},
      {0x0300, 0x21600810, CM_TPN_NOT_RECOGNIZED},      {0x0300, 0x00004C08, CM_TP_NOT_AVAILABLE_NO_RETRY},
      {0x0300, 0x31604B08, CM_TP_NOT_AVAILABLE_RETRY},
  };
  // Decided by the primary alone, whatever the secondary.
  const std::pair<uint16_t, CM_RETURN_CODE> by_primary[] = {
      {0x0200, CM_PROGRAM_STATE_CHECK},     {0x0500, CM_DEALLOCATED_ABEND},         {0x0600, CM_DEALLOCATED_ABEND},
      {0x0700, CM_DEALLOCATED_ABEND_SVC},   {0x0800, CM_DEALLOCATED_ABEND_TIMER},   {0x0900, CM_DEALLOCATED_NORMAL},
      {0x0C00, CM_PROGRAM_ERROR_NO_TRUNC},  {0x0D00, CM_PROGRAM_ERROR_TRUNC},       {0x0E00, CM_PROGRAM_ERROR_PURGING},
      {0x0F00, CM_RESOURCE_FAILURE_RETRY},  {0x1000, CM_RESOURCE_FAILURE_NO_RETRY}, {0x1100, CM_SVC_ERROR_NO_TRUNC},
      {0x1200, CM_SVC_ERROR_TRUNC},         {0x1300, CM_SVC_ERROR_PURGING},         {0x1400, CM_UNSUCCESSFUL},
  };
  // clang-format on
  for (uint32_t reason = 0; reason <= 0x0D; ++reason) {  // sense 080FFF00 to 080FFF0D
    rows.emplace_back(0x0300, (reason << 24) | 0x00FF0F08u, CM_SECURITY_NOT_VALID);
  }
  for (const auto &[primary, expected] : by_primary) {
    rows.emplace_back(primary, 0, expected);
    rows.emplace_back(primary, 0x34600810, expected);
  }
  for (const auto &[primary, secondary, expected] : rows) {
    EXPECT_EQ(map(primary, secondary), expected) << std::hex << primary << "/" << secondary;
  }
  EXPECT_EQ(snt_problem_count(), 0u);
}

TEST(CoreReturnCodes, UnknownResultsGiveProductErrorWithOneProblemRecordEach) {
  snt_reset();
  const std::pair<uint16_t, uint32_t> unknown[] = {
      {0x0100, 0}, {0x0300, 0x31600810}, {0x0300, 0x0EFF0F08}, {0x0300, 0x00FF0F09}, {0x0000, 0},
      {0x0A00, 1}, {0x02F0, 0},          {0x2100, 0},          {0xFFFF, 0xFFFFFFFF},
  };
  uint32_t n = 0;
  for (const auto &[primary, secondary] : unknown) {
    EXPECT_EQ(map(primary, secondary, 0x72), CM_PRODUCT_SPECIFIC_ERROR) << std::hex << primary;
    ASSERT_EQ(snt_problem_count(), n + 1);
    const SNT_RECORD r = problem(n++);
    EXPECT_EQ(
        std::tuple(r.code, r.probe, std::string(r.arg_types), r.args[0], r.args[1], r.args[2]),
        std::tuple(kProblemUnmappedResult, 1u, "x x lx", 0x72u, primary, secondary));
  }
}

TEST(CoreReturnCodes, OnlyTableCodesAreProducedAndNineEndingPrimariesEnd) {
  const std::set<CM_RETURN_CODE> allowed = {1,  2,  3,  6,  8,  9,  10, 11, 17, 18, 19, 20, 21,
                                            22, 23, 24, 25, 26, 27, 28, 30, 31, 32, 33, 34};
  for (uint32_t high = 0; high < 0x100; ++high) {
    for (uint16_t primary : {uint16_t(high << 8), uint16_t((high << 8) | 0xF0)}) {
      for (uint32_t secondary : {0u, 0x04000000u, 0x31000000u, 0x05FF0F08u}) {
        EXPECT_EQ(allowed.count(map(primary, secondary)), 1u) << std::hex << primary;
      }
    }
  }
  const std::set<uint32_t> ending = {0x0300, 0x0500, 0x0600, 0x0700, 0x0800,
                                     0x0900, 0x0F00, 0x1000, 0x2100};
  for (uint32_t primary = 0; primary <= 0xFFFF; ++primary) {
    ASSERT_EQ(SCC_is_ending_primary(static_cast<uint16_t>(primary)), ending.count(primary) == 1)
        << std::hex << primary;
  }
}

// ---- character conversion ----

// Code page 037 from iconv: an oracle that shares nothing with our tables.
std::array<unsigned char, 256> cp037(const char *to, const char *from) {
  std::array<unsigned char, 256> in{}, out{};
  for (int i = 0; i < 256; ++i) in[i] = static_cast<unsigned char>(i);
  iconv_t cd = iconv_open(to, from);
  EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1)) << to;
  char *src = reinterpret_cast<char *>(in.data()), *dst = reinterpret_cast<char *>(out.data());
  size_t in_left = 256, out_left = 256;
  EXPECT_EQ(iconv(cd, &src, &in_left, &dst, &out_left), size_t{0});
  iconv_close(cd);
  return out;
}

unsigned char convert_one(uint8_t direction, uint16_t selector, unsigned char c) {
  unsigned char out = 0xEE;
  SCC_convert_string(direction, selector, 1, &out, &c);
  return out;
}

TEST(CoreConversion, EveryByteOfEveryTableInBothDirections) {
  const auto to_ebcdic = cp037("IBM037", "ISO-8859-1"), to_ascii = cp037("ISO-8859-1", "IBM037");
  const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ", digits = "0123456789";
  const std::string set_a = " " + upper + digits + "#$@";
  const std::string set_ae = " " + upper + "abcdefghijklmnopqrstuvwxyz" + digits + ".#$@";
  const std::string set_640 = set_ae + "\"%&'()*+,-/:;<=>?_";
  const std::string set_ex = set_640 + "!\\`{|}~\xA2\xA6\xAC";
  const struct {
    uint16_t selector;
    const std::string &members;
    bool folds;
    size_t accepted;
  } cases[] = {{SCC_CHARSET_AE, set_ae, false, 67},
               {SCC_CHARSET_A, set_a, true, 66},
               {SCC_CHARSET_AE640, set_640, false, 85},
               {SCC_CHARSET_AE640_EX, set_ex, false, 95}};
  for (const auto &c : cases) {
    SCOPED_TRACE("selector " + std::to_string(c.selector));
    auto expected = [&](unsigned char ascii) -> unsigned char {
      if (c.folds && std::islower(ascii)) return static_cast<unsigned char>(std::toupper(ascii));
      return c.members.find(static_cast<char>(ascii)) != std::string::npos ? ascii : 0;
    };
    size_t accepted = 0;
    for (int b = 0; b < 256; ++b) {
      const auto byte = static_cast<unsigned char>(b);
      const unsigned char out = expected(byte) == 0 ? 0 : to_ebcdic[expected(byte)];
      accepted += out != 0;
      EXPECT_EQ(convert_one(SCC_CNV_OUT, c.selector, byte), out) << "ascii " << b;
      EXPECT_EQ(convert_one(SCC_CNV_IN, c.selector, byte), expected(to_ascii[byte]))
          << "ebcdic " << b;
    }
    EXPECT_EQ(accepted, c.accepted);
  }
}

TEST(CoreConversion, InPlaceLengthsPatchedTablesAndInternalErrors) {
  snt_reset();
  unsigned char buffer[] = "Hello, World";
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640_EX, 12, buffer, buffer);
  EXPECT_EQ(buffer[0], 0xC8);
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

  // A bad selector converts nothing; an unknown direction converts towards
  // EBCDIC; both are reported.
  unsigned char out[2] = {0x11, 0x22};
  SCC_convert_string(SCC_CNV_OUT, 4, 2, out, reinterpret_cast<const unsigned char *>("AB"));
  EXPECT_EQ(out[0], 0x11);
  SCC_convert_string(7, SCC_CHARSET_AE, 2, out, reinterpret_cast<const unsigned char *>("AB"));
  EXPECT_EQ(bytes(out, 2), (std::vector<unsigned char>{0xC1, 0xC2}));
  EXPECT_EQ(assertions(), std::vector<std::string>(2, "vcpic/cpicutil: FALSE"));
}

// ---- submission and completion ----

class Submit : public LibraryTest {};

// A non-blocking flush the node answers later with `primary`.
void flush(ConvId &id, uint16_t primary) {
  push(NAP_FLUSH, primary, 0, 1);
  EXPECT_EQ(rc_of(cmflus)(id), CM_OPERATION_INCOMPLETE);
}
CCCB *flush_later(ConvId &id, uint16_t primary) {
  CCCB *cccb = active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  flush(id, primary);
  return cccb;
}

TEST_F(Submit, CmwaitSleepsUntilTheOutstandingVerbCompletes) {
  ConvId id{};
  flush_later(id, 0x0E00);
  std::thread node([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    snt_complete_pending(0);
  });
  expect_completion(id, CM_PROGRAM_ERROR_PURGING);
  node.join();
}

TEST_F(Submit, CmwaitAndCmchckPickByTablePositionNotCompletionOrder) {
  // Which of two the table walk meets first is the node's choice.
  ConvId a{}, b{};
  CCCB *ca = active_conversation(a, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  active_conversation(b, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  void *first = nullptr;
  vtm_get_next_used(pGCB->CCCBTable, 0, &first);
  ConvId &early = first == ca ? a : b, &late = first == ca ? b : a;
  flush(early, 0);
  flush(late, 0x1400);

  ConvId id{};
  CM_RETURN_CODE rc = -1;
  CMCHCK(id.data(), &rc);
  EXPECT_EQ(rc, CM_UNSUCCESSFUL) << "nothing completed yet";
  ASSERT_EQ(snt_complete_pending(1), 1);  // the later-placed one completes first
  CMCHCK(id.data(), &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(id, late);
  ASSERT_EQ(snt_complete_pending(0), 1);
  // CMCHCK only peeks: it names the earlier-placed one and collects nothing.
  CMCHCK(id.data(), &rc);
  EXPECT_EQ(id, early);
  EXPECT_EQ(pGCB->NumVerbsWaiting, 2u);
  expect_completion(early, CM_OK);
  expect_completion(late, CM_UNSUCCESSFUL);
  CMCHCK(id.data(), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
}

// ---- CMCANC ----

class Cancel : public StartedLibraryTest {
 protected:
  static CM_RETURN_CODE cancel(ConvId id) { return rc_call(CMCANC, id.data()); }
};

// The node is told what it knows: the conversation once allocated, the
// library's own handle while an accept waits, the TP while one starts or
// allocates in the verb area.
TEST_F(Cancel, CancelVerbNamesWhatTheNodeKnows) {
  const struct {
    const char *name;
    uint32_t appc_conv_id;
    uint16_t initialize_state, verbs_outstanding, opcode_in_vcb;
    bool tp_id, own_handle;
  } cases[] = {
      {"allocated", 42, 1, 0, NAP_SEND_DATA, true, false},
      {"accept waiting", 0, 0, 1, NAP_RECEIVE_ALLOCATE_CPIC, false, true},
      {"TP start in the verb area", 0, 1, 0, NAP_START_TP, false, false},
      {"allocate in the verb area", 0, 1, 0, NAP_B_ALLOCATE, true, false},
  };
  unsigned char tp[8];
  std::memcpy(tp, kTpId, 8);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    ++tp[7];  // a context of its own
    fresh_node();
    ConvId id{};
    CCCB *cccb = new_cccb(id);
    std::tie(cccb->ulAppcConvId, cccb->fInitializeState, cccb->usVerbsOutstanding,
             cccb->vcb.hdr.opcode, cccb->ulConversationType) =
        std::tuple(c.appc_conv_id, c.initialize_state, c.verbs_outstanding, c.opcode_in_vcb,
                   CM_BASIC_CONVERSATION);
    SCC_set_tp_id(cccb, tp);

    EXPECT_EQ(cancel(id), CM_OK);
    // A conversation freed by the cancel was the last of its context.
    const bool freed = c.verbs_outstanding == 0;
    EXPECT_EQ(submitted_opcodes(), (freed ? std::vector<uint16_t>{NAP_CANCEL, NAP_TP_ENDED}
                                          : std::vector<uint16_t>{NAP_CANCEL}));
    uint32_t handle;
    std::memcpy(&handle, id.data(), 4);
    const unsigned char zero[8] = {};
    expect_record(submitted(0),
                  {{0, u16(NAP_CANCEL)},
                   {2, u8(NAP_OPEXT_BASIC)},
                   {12, raw(c.tp_id ? tp : zero, 8)},
                   {20, u32(c.own_handle ? handle : c.appc_conv_id)}},
                  c.name);
    EXPECT_EQ(snt_assert_count(), 0u);
    EXPECT_EQ(known(id), !freed);
    if (!freed) {
      // The accept in progress still owns the conversation, which goes when
      // that verb completes; the cancel had a verb block of its own.
      EXPECT_EQ(
          std::tuple(cccb->usVerbsOutstanding, cccb->fConversationEnded, cccb->vcb.hdr.opcode),
          std::tuple(1, 1, NAP_RECEIVE_ALLOCATE_CPIC));
    }
    EXPECT_EQ(g_books.live_wait_objects.size(), 1u);
  }
}

TEST_F(Cancel, ConversationNotInTheNodeIsFreedOrLeftWithACancelPending) {
  ConvId id{};
  new_cccb(id)->fInitializeState = 1;
  EXPECT_EQ(cancel(id), CM_OK);
  EXPECT_EQ(snt_submitted_count(), 0u);
  EXPECT_FALSE(known(id));
  EXPECT_EQ(cancel(id), CM_PROGRAM_PARAMETER_CHECK);

  // A verb before the conversation exists that is not an allocate, and an
  // accept with an unexpected verb, are reported.
  ConvId pending{}, accepting{};
  CCCB *c = new_cccb(pending);
  c->fInitializeState = 1;
  c->usVerbsOutstanding = 1;
  c->vcb.hdr.opcode = NAP_FLUSH;
  EXPECT_EQ(cancel(pending), CM_OK);
  EXPECT_TRUE(c->fCancelPending == 1 && known(pending) && snt_submitted_count() == 0);
  CCCB *a = new_cccb(accepting);
  a->usVerbsOutstanding = 1;
  a->vcb.hdr.opcode = NAP_FLUSH;
  EXPECT_EQ(cancel(accepting), CM_OK);
  EXPECT_EQ(assertions(), (std::vector<std::string>{
                              "vcpic/cpiccal1: cccb_ptr->vcb.alloc.opcode == NAP_B_ALLOCATE",
                              "vcpic/cpiccal1: cccb_ptr->vcb.rcvallcp.rcv_alloc.opcode == "
                              "NAP_RECEIVE_ALLOCATE_CPIC"}));
}

TEST_F(Cancel, CancelWaitsForTheNodeInEveryMode) {
  for (uint16_t mode : {uint16_t{0}, uint16_t{CM_NON_BLOCKING}}) {
    SCOPED_TRACE(mode);
    fresh_node();
    ConvId id{};
    CCCB *c = new_cccb(id);
    c->ulAppcConvId = 5;
    c->usProcessingMode = mode;
    push(NAP_CANCEL, 0, 0, 1);
    std::thread node([] {
      while (snt_pending_count() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
      snt_complete_pending(0);
    });
    EXPECT_EQ(cancel(id), CM_OK);
    node.join();
    EXPECT_FALSE(known(id));
    EXPECT_EQ(std::pair(pGCB->NumVerbsOutstanding, g_books.live_wait_objects.size()),
              std::pair(0u, size_t{1}));
  }
}

TEST_F(Cancel, CancelBesideAnOutstandingVerbLeavesTheFreeToItsCompletion) {
  ConvId id{};
  CCCB *c = flush_later(id, 0x2100);
  EXPECT_EQ(cancel(id), CM_OK);
  EXPECT_EQ(c->usVerbsOutstanding, 1);
  ASSERT_EQ(snt_complete_pending(0), 1);
  EXPECT_TRUE(known(id)) << "its result waits for CMWAIT";
  expect_completion(id, CM_PRODUCT_SPECIFIC_ERROR);  // 0x2100 has no CPI-C code
  EXPECT_FALSE(known(id));
}

TEST_F(Cancel, RefusedWaitObjectAndRefusedCancel) {
  ConvId id{};
  CCCB *c = new_cccb(id);
  c->ulAppcConvId = 5;
  snt_refuse_wait_objects(1);
  EXPECT_EQ(cancel(id), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(snt_submitted_count() + c->usVerbsOutstanding, 0u);
  EXPECT_EQ(problems(), (Probes{{kProblemNoResource, 18}}));

  fresh_node();
  push(NAP_CANCEL, 0x0200);
  EXPECT_EQ(cancel(id), CM_PROGRAM_STATE_CHECK);
  EXPECT_FALSE(known(id));
  EXPECT_EQ(g_books.live_wait_objects.size(), 1u);
}

}  // namespace
