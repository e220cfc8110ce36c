// The characteristic calls: what each set call accepts in which situation and
// stores, what the extract calls hand back, conversation security, the log
// data buffer, CMCNVO and CMCNVI, and the probe of each call's unknown-ID
// report.
#include "library/support.h"

namespace {

using namespace lib_test;

// The three situations the characteristic calls tell apart.
enum class Stage { kInitialize, kAllocated, kIncoming };
constexpr Stage I = Stage::kInitialize, A = Stage::kAllocated, N = Stage::kIncoming;
CCCB *conversation_at(Stage stage, ConvId &id) {
  return stage == I   ? initialized_conversation(id)
         : stage == A ? active_conversation(id)
                      : incoming_conversation(id);
}

using Characteristics = StartedLibraryTest;

using ValueFn = void (*)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *);

// The local LU name comes back without a length: the three-parameter call as
// a text call that leaves the length alone.
template <void (*Call)(unsigned char *, unsigned char *, CM_RETURN_CODE *)>
void local_lu_name_call(unsigned char *id, unsigned char *name, CM_INT32 *, CM_RETURN_CODE *rc) {
  Call(id, name, rc);
}
CM_RETURN_CODE set_value(ValueFn fn, ConvId &id, CM_INT32 value) {
  return rc_call(fn, id.data(), &value);
}

const auto none = +[](CCCB &) {};
const auto basic = +[](CCCB &c) { c.ulConversationType = CM_BASIC_CONVERSATION; };
const auto confirm = +[](CCCB &c) { c.ulSyncLevel = CM_CONFIRM; };
const auto type = +[](const CCCB &c) -> uint32_t { return c.ulConversationType; };
const auto dealloc = +[](const CCCB &c) -> uint32_t { return c.ulDeallocateType; };
const auto error = +[](const CCCB &c) -> uint32_t { return c.ulErrorDirection; };
const auto fill = +[](const CCCB &c) -> uint32_t { return c.ulFill; };
const auto prep = +[](const CCCB &c) -> uint32_t { return c.ulPrepareToReceiveType; };
const auto receive = +[](const CCCB &c) -> uint32_t { return c.ulReceiveType; };
const auto control = +[](const CCCB &c) -> uint32_t { return c.ulReturnControl; };
const auto send = +[](const CCCB &c) -> uint32_t { return c.ulSendType; };
const auto sync = +[](const CCCB &c) -> uint32_t { return c.ulSyncLevel; };
const auto mode = +[](const CCCB &c) -> uint32_t { return c.usProcessingMode; };
const auto security =
    +[](const CCCB &c) -> uint32_t { return c.SideInfo.conversation_security_type; };
const auto fill_buffer = +[](CCCB &c) { basic(c), c.ulFill = CM_FILL_BUFFER; };
const auto log_data = +[](CCCB &c) { basic(c), c.usLogDataLength = 8; };
const auto send_confirm = +[](CCCB &c) { confirm(c), c.ulSendType = CM_SEND_AND_CONFIRM; };
const auto prep_confirm = +[](CCCB &c) { confirm(c), c.ulPrepareToReceiveType = 2; };
const auto dealloc_confirm =
    +[](CCCB &c) { confirm(c), c.ulDeallocateType = CM_DEALLOCATE_CONFIRM; };
const auto busy = +[](CCCB &c) { c.usVerbsOutstanding = 1; };

// Each value call on a fresh conversation in a stage, after `adjust`: its
// return code, and either the stored value or a conversation not changed at
// all.
TEST_F(Characteristics, EverySetCallChecksInOrderAndStoresOnlyOnSuccess) {
  const CM_RETURN_CODE OK = CM_OK, P = CM_PROGRAM_PARAMETER_CHECK, S = CM_PROGRAM_STATE_CHECK;
  // clang-format off
  const struct {
    ValueFn fn;
    uint32_t (*stored)(const CCCB &);
    CM_INT32 value;
    Stage stage;
    void (*adjust)(CCCB &);
    CM_RETURN_CODE rc;
  } rows[] = {
      {cmsct, type, 0, I, none, OK},  {CMSCT, type, 1, I, basic, OK},
      {cmsct, type, 1, I, fill_buffer, P},  {cmsct, type, 1, I, log_data, P},
      {cmsct, type, 2, I, none, P},  {cmsct, type, 0, A, none, S},
      {cmsct, type, 0, N, none, S},  {cmsct, type, 7, A, none, S},
      {cmsdt, dealloc, 3, I, none, OK},  {cmsdt, dealloc, 4, I, none, P},
      {cmsdt, dealloc, -1, I, none, P},  {cmsdt, dealloc, 2, I, none, P},
      {CMSDT, dealloc, 2, I, confirm, OK},  {cmsdt, dealloc, 1, A, none, OK},
      {cmsed, error, 1, I, none, OK},  {cmsed, error, 2, I, none, P},
      {CMSED, error, 1, A, none, OK},  {cmsf, fill, 1, I, none, P},
      {cmsf, fill, 1, I, basic, OK},  {cmsf, fill, 2, I, basic, P},
      {CMSF, fill, 1, A, basic, OK},  {cmsptr, prep, 1, I, none, OK},
      {cmsptr, prep, 2, I, none, P},  {CMSPTR, prep, 2, I, confirm, OK},
      {cmsptr, prep, 3, I, confirm, P},  {cmsptr, prep, 1, A, none, OK},
      {cmsrt, receive, 1, I, none, OK},  {cmsrt, receive, 2, I, none, P},
      {CMSRT, receive, 1, A, none, OK},  {cmsrc, control, 1, I, none, OK},
      {cmsrc, control, 2, I, none, P},  {CMSRC, control, 1, A, none, S},
      {cmsst, send, 4, I, none, OK},  {cmsst, send, 5, I, none, P},
      {cmsst, send, 2, I, none, P},  {CMSST, send, 2, I, confirm, OK},
      {cmsst, send, 3, A, none, OK},  {cmssl, sync, 1, I, none, OK},
      {CMSSL, sync, 0, I, confirm, OK},  {cmssl, sync, 0, I, send_confirm, P},
      {cmssl, sync, 0, I, prep_confirm, P},  {cmssl, sync, 0, I, dealloc_confirm, P},
      {cmssl, sync, 1, I, send_confirm, OK},  {cmssl, sync, 2, I, none, P},
      {cmssl, sync, -1, I, none, P},  {cmssl, sync, 1, A, none, S},
      {cmspm, mode, 1, I, none, OK},  {cmspm, mode, 2, I, none, P},
      {cmspm, mode, 1, A, busy, CM_OPERATION_NOT_ACCEPTED},
      {cmspm, mode, 9, A, busy, CM_OPERATION_NOT_ACCEPTED},  {CMSPM, mode, 1, A, none, OK},
      {xcscst, security, 0, I, none, OK},  {cmscst, security, 2, I, none, OK},
      {CMSCST, security, 5, I, none, OK},  {cmscst, security, 3, I, none, P},
      {XCSCST, security, 4, I, none, P},  {cmscst, security, 6, I, none, P},
      {cmscst, security, -1, I, none, P},  {cmscst, security, 9, A, none, S},
      {xcscst, security, 0, N, none, S},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.value << " stage " << static_cast<int>(row.stage));
    ConvId id{};
    CCCB *cccb = conversation_at(row.stage, id);
    row.adjust(*cccb);
    const CCCB before = *cccb;
    EXPECT_EQ(set_value(row.fn, id, row.value), row.rc);
    if (row.rc == CM_OK) {
      EXPECT_EQ(row.stored(*cccb), static_cast<uint32_t>(row.value));
    } else {
      EXPECT_EQ(std::memcmp(&before, cccb, sizeof before), 0) << "a refused call changed it";
    }
  }
  EXPECT_EQ(snt_problem_count(), 0u);
}

// The name calls: lengths, state, and the form in which a name is stored.
TEST_F(Characteristics, NamesAreStoredConvertedAndPadded) {
  const size_t mode = offsetof(CCCB, SideInfo.mode_name), lu = offsetof(CCCB, LocalLUName);
  const size_t partner = offsetof(CCCB, SideInfo.partner_LU_name),
               tp = offsetof(CCCB, SideInfo.TP_name);
  const CM_RETURN_CODE P = CM_PROGRAM_PARAMETER_CHECK, S = CM_PROGRAM_STATE_CHECK;
  // clang-format off
  const struct {
    TextCall fn;
    std::string text;
    CM_INT32 length;
    Stage stage;
    CM_RETURN_CODE rc;
    size_t offset;       // the stored field in the CCCB
    std::string stored;  // its expected bytes
    uint16_t stored_length;
  } rows[] = {
      {cmsmn, "", 0, I, CM_OK, mode, std::string(8, '\x40'), 0},
      {CMSMN, "#inter$@", 8, I, CM_OK, mode, "\x7B\xC9\xD5\xE3\xC5\xD9\x5B\x7C", 8},
      {cmsmn, "M1", 2, I, CM_OK, mode, "\xD4\xF1\x40\x40\x40\x40\x40\x40", 2},
      {cmsmn, "ABCDEFGHI", 9, I, P, 0, "", 0},
      {cmsmn, "M1", 2, A, S, 0, "", 0},
      {cmspln, "NET.LU", 6, I, CM_OK, partner, padded("\xD5\xC5\xE3\x4B\xD3\xE4", 17, '\x40'), 6},
      // The first period splits; a second one is outside the set.
      {CMSPLN, "A.B.C", 5, I, CM_OK, partner, padded(std::string("\xC1\x4B\xC2\0\xC3", 5), 17, '\x40'), 5},
      {cmspln, "alias1", 6, I, CM_OK, partner, "alias1  ", 6},
      {cmspln, "NETWORK1.LUNAME123", 18, I, P, 0, "", 0},
      {cmspln, "", 0, I, P, 0, "", 0},
      {cmspln, "LUNAM", 0x10005, I, CM_OK, partner, "LUNAM", 5},  // the low 16 bits count
      {cmspln, "LUNAM", 0x10000, I, P, 0, "", 0},
      {cmspln, "LU", 2, N, S, 0, "", 0},
      {CMSTPN, "Tp/1", 4, I, CM_OK, tp, padded("\xE3\x97\x61\xF1", 64, '\x40'), 0},
      {cmstpn, std::string(65, 'T'), 65, I, P, 0, "", 0},
      {cmstpn, "", 0, I, P, 0, "", 0},
      {cmstpn, "TP", 2, A, S, 0, "", 0},
      {cmslln, "lu1", 3, I, CM_OK, lu, "lu1     ", 0},
      {CMSLLN, "", 0, I, CM_OK, lu, std::string(8, '\0'), 0},
      {cmslln, "LOCALLU89", 9, I, P, 0, "", 0},
      {cmslln, "LU1", 3, A, S, 0, "", 0},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text + " " + std::to_string(row.length));
    ConvId id{};
    CCCB *cccb = conversation_at(row.stage, id);
    SCD_ENTRY &s = cccb->SideInfo;
    std::memset(cccb->LocalLUName, 'X', 8);
    s.TP_name_type = CM_SNA_SERVICE_TP;
    s.usPartnerLUQualified = 1;
    s.usPartnerLUPeriodPos = 4;
    const CCCB before = *cccb;
    EXPECT_EQ(set_text(row.fn, id, row.text, row.length), row.rc);
    if (row.rc != CM_OK) {
      EXPECT_EQ(std::memcmp(&before, cccb, sizeof before), 0) << "a refused call changed it";
      continue;
    }
    EXPECT_EQ(text_of(reinterpret_cast<const char *>(cccb) + row.offset, row.stored.size()),
              row.stored);
    if (row.offset == mode) {
      EXPECT_EQ(s.usModeNameLen, row.stored_length);
    } else if (row.offset == tp) {
      EXPECT_EQ(s.TP_name_type, uint32_t{CM_APPLICATION_TP});
    }
    if (row.offset == partner) {
      EXPECT_EQ(s.usPartnerLULen, row.stored_length);
      EXPECT_EQ(s.usPartnerLUQualified, row.text.find('.') != std::string::npos);
      EXPECT_EQ(s.usPartnerLUPeriodPos, s.usPartnerLUQualified ? row.text.find('.') : 4);
    }
  }
}

// Every characteristic call, given an unknown ID, returns 24 and writes
// exactly one problem record with its own probe.
TEST_F(Characteristics, EachCallReportsAnUnknownConversationWithItsProbe) {
  unsigned char text[80] = "X";
  CM_INT32 value = 0, length = 1;
  using Id = unsigned char *;
  using Rc = CM_RETURN_CODE *;
  const std::pair<std::function<void(Id, Rc)>, uint32_t> rows[] = {
      {[&](Id id, Rc rc) { cmect(id, &value, rc); }, 8},
      {[&](Id id, Rc rc) { CMEMN(id, text, &value, rc); }, 9},
      {[&](Id id, Rc rc) { cmepln(id, text, &value, rc); }, 10},
      {[&](Id id, Rc rc) { CMESL(id, &value, rc); }, 11},
      {[&](Id id, Rc rc) { cmsct(id, &value, rc); }, 18},
      {[&](Id id, Rc rc) { CMSDT(id, &value, rc); }, 19},
      {[&](Id id, Rc rc) { cmsed(id, &value, rc); }, 20},
      {[&](Id id, Rc rc) { cmsf(id, &value, rc); }, 21},
      {[&](Id id, Rc rc) { CMSLD(id, text, &length, rc); }, 22},
      {[&](Id id, Rc rc) { cmsmn(id, text, &length, rc); }, 23},
      {[&](Id id, Rc rc) { cmspln(id, text, &length, rc); }, 24},
      {[&](Id id, Rc rc) { CMSLLN(id, text, &length, rc); }, 24},
      {[&](Id id, Rc rc) { cmsptr(id, &value, rc); }, 25},
      {[&](Id id, Rc rc) { cmsrt(id, &value, rc); }, 26},
      {[&](Id id, Rc rc) { cmsrc(id, &value, rc); }, 27},
      {[&](Id id, Rc rc) { CMSST(id, &value, rc); }, 28},
      {[&](Id id, Rc rc) { cmssl(id, &value, rc); }, 29},
      {[&](Id id, Rc rc) { cmstpn(id, text, &length, rc); }, 30},
      {[&](Id id, Rc rc) { cmspm(id, &value, rc); }, 32},
      {[&](Id id, Rc rc) { cmetpn(id, text, &value, rc); }, 33},
      {[&](Id id, Rc rc) { XCECST(id, &value, rc); }, 34},
      {[&](Id id, Rc rc) { cmecst(id, &value, rc); }, 39},
      {[&](Id id, Rc rc) { xcecsu(id, text, &value, rc); }, 35},
      {[&](Id id, Rc rc) { CMECSU(id, text, &value, rc); }, 35},
      {[&](Id id, Rc rc) { cmesui(id, text, &value, rc); }, 35},
      {[&](Id id, Rc rc) { CMSCSP(id, text, &length, rc); }, 36},
      {[&](Id id, Rc rc) { xcscst(id, &value, rc); }, 37},
      {[&](Id id, Rc rc) { cmscsu(id, text, &length, rc); }, 38},
      {[&](Id id, Rc rc) { CMELLN(id, text, rc); }, 90},
  };
  ConvId bystander{};
  CCCB *cccb = initialized_conversation(bystander);
  const CCCB before = *cccb;
  for (const auto &[call, probe] : rows) {
    SCOPED_TRACE(probe);
    snt_reset();
    ConvId id = kUnknownId;
    EXPECT_EQ(rc_call(call, id.data()), CM_PROGRAM_PARAMETER_CHECK);
    EXPECT_EQ(problems(), (Probes{{kProblemUnknownConversation, probe}}));
    EXPECT_EQ(bytes(problem(0).bytes[0], 8), bytes(kUnknownId.data(), 8));
  }
  EXPECT_EQ(std::memcmp(&before, cccb, sizeof before), 0);
}

TEST_F(Characteristics, NamesComeBackAsTheConversionTablesAllow) {
  const std::string tp64 = "TP.name-64/" + std::string(53, 'x');
  const struct {
    TextCall set, extract;
    std::string stored, expected;
  } rows[] = {
      {cmsmn, cmemn, "#batch", "#BATCH"},
      {cmsmn, CMEMN, "m.1", std::string("M\0001", 3)},
      {cmsmn, cmemn, "", ""},
      {cmspln, CMEPLN, "net1.lu1", "NET1.LU1"},
      {cmspln, cmepln, "Alias1", "Alias1"},
      {cmspln, cmepln, "NETWORK1.LUNAME12", "NETWORK1.LUNAME12"},
      {cmstpn, cmetpn, tp64, tp64},
      {cmstpn, CMETPN, "MY TP", "MY"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.stored);
    ConvId id{};
    initialized_conversation(id);
    ASSERT_EQ(set_text(row.set, id, row.stored), CM_OK);
    EXPECT_EQ(fields(extract_text(row.extract, id)),
              std::tuple(CM_OK, padded(row.expected, 80, '~'),
                         static_cast<CM_INT32>(row.expected.size())));
  }
  // The local LU name is eight bytes and a terminator, once set.
  ConvId id{};
  initialized_conversation(id);
  EXPECT_EQ(extract_text(local_lu_name_call<cmelln>, id).rc, CM_PROGRAM_STATE_CHECK);
  ASSERT_EQ(set_text(cmslln, id, "lu1"), CM_OK);
  const Extracted lu = extract_text(local_lu_name_call<CMELLN>, id);
  EXPECT_EQ(std::pair(lu.rc, lu.text),
            std::pair(CM_OK, padded(std::string("lu1     ") + '\0', 80, '~')));
}

// Before an incoming conversation is accepted nothing but the security type
// can be read from it, and a refusal writes nothing.
TEST_F(Characteristics, ExtractCallsRefuseOnlyAConversationAwaitingAccept) {
  for (Stage stage : {I, A, N}) {
    ConvId id{};
    CCCB *cccb = conversation_at(stage, id);
    std::memcpy(cccb->LocalLUName, "LU1     ", 8);
    cccb->SideInfo.conversation_security_type = CM_SECURITY_PROGRAM_STRONG;
    const CCCB before = *cccb;
    const CM_RETURN_CODE expected = stage == N ? CM_PROGRAM_STATE_CHECK : CM_OK;
    for (TextCall fn :
         {cmemn, cmepln, cmetpn, local_lu_name_call<cmelln>, xcecsu, cmecsu, cmesui}) {
      const Extracted out = extract_text(fn, id);
      EXPECT_EQ(out.rc, expected) << static_cast<int>(stage);
      if (stage == N) {
        EXPECT_EQ(std::pair(out.length, out.text), std::pair(-7, std::string(80, '~')));
      }
    }
    for (ValueFn fn : {cmect, cmesl, xcecst, CMECST}) {
      CM_INT32 value = -7;
      CM_RETURN_CODE rc = -1;
      fn(id.data(), &value, &rc);
      const bool security = fn == xcecst || fn == CMECST;
      EXPECT_EQ(rc, security ? CM_OK : expected);
      const CM_INT32 stored = security      ? CM_SECURITY_PROGRAM_STRONG
                              : fn == cmect ? CM_MAPPED_CONVERSATION
                                            : CM_NONE;
      EXPECT_EQ(value, rc == CM_OK ? stored : -7);
    }
    EXPECT_EQ(std::memcmp(&before, cccb, sizeof before), 0);
  }
  // The partner TP name is refused while a verb is outstanding, before the
  // state rule; the other calls still answer.
  ConvId busy{}, incoming{};
  active_conversation(busy)->usVerbsOutstanding = 1;
  incoming_conversation(incoming)->usVerbsOutstanding = 1;
  EXPECT_EQ(extract_text(cmetpn, busy).rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(extract_text(cmetpn, incoming).rc, CM_OPERATION_NOT_ACCEPTED);
  EXPECT_EQ(extract_text(cmemn, busy).rc, CM_OK);
}

// ---- conversation security ----

TEST_F(Characteristics, SecurityIsSetTypeFirstThenUserIdThenPassword) {
  const struct {
    uint32_t type;  // set directly first
    TextCall fn;
    std::string text;
    CM_INT32 length;
    Stage stage;
    CM_RETURN_CODE rc;
  } rows[] = {
      {0, cmscsu, "USER", 4, I, CM_PROGRAM_STATE_CHECK},
      {0, xcscsu, "", 0, I, CM_PROGRAM_STATE_CHECK},  // type before length
      {1, xcscsu, "USER", 4, I, CM_OK},
      {2, CMSCSU, "USER", 4, I, CM_OK},
      {5, XCSCSU, "USER", 4, I, CM_OK},
      {1, cmscsu, "", 0, I, CM_PROGRAM_PARAMETER_CHECK},
      {1, cmscsu, "ABCDEFGHIJ", 10, I, CM_OK},
      {1, cmscsu, "ABCDEFGHIJK", 11, I, CM_PROGRAM_PARAMETER_CHECK},
      {1, xcscsu, "A", -1, I, CM_PROGRAM_PARAMETER_CHECK},
      {1, cmscsu, "USER", 4, A, CM_PROGRAM_STATE_CHECK},
      {1, cmscsp, "PW", 2, I, CM_PROGRAM_STATE_CHECK},
      {0, xcscsp, "PW", 2, I, CM_PROGRAM_STATE_CHECK},
      {2, xcscsp, "PW", 2, I, CM_OK},
      {5, CMSCSP, "PW", 2, I, CM_OK},
      {2, XCSCSP, "0123456789", 10, I, CM_OK},
      {2, cmscsp, "0123456789A", 11, I, CM_PROGRAM_PARAMETER_CHECK},
      {2, cmscsp, "", 0, I, CM_PROGRAM_PARAMETER_CHECK},
      {2, cmscsp, "PW", 2, A, CM_PROGRAM_STATE_CHECK},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.type << " " << row.text << " " << row.length);
    ConvId id{};
    CCCB *cccb = conversation_at(row.stage, id);
    cccb->SideInfo.conversation_security_type = row.type;
    const CCCB before = *cccb;
    EXPECT_EQ(set_text(row.fn, id, row.text, row.length), row.rc);
    if (row.rc != CM_OK) {
      EXPECT_EQ(std::memcmp(&before, cccb, sizeof before), 0);
    }
  }
  EXPECT_EQ(snt_problem_count(), 0u);
}

TEST_F(Characteristics, UserIdAndPasswordAreStoredInEbcdicAndReadBackAsFarAsTheCallAllows) {
  ConvId id{};
  CCCB *cccb = initialized_conversation(id);
  ASSERT_EQ(set_value(cmscst, id, CM_SECURITY_PROGRAM), CM_OK);
  ASSERT_EQ(set_text(cmscsu, id, "user1"), CM_OK);
  ASSERT_EQ(set_text(xcscsp, id, "Pw.9"), CM_OK);
  EXPECT_EQ(
      text_of(cccb->SideInfo.security_user_ID, 10) + text_of(cccb->SideInfo.security_password, 10),
      padded("\xA4\xA2\x85\x99\xF1", 10, '\x40') + padded("\xD7\xA6\x4B\xF9", 10, '\x40'));
  EXPECT_EQ(cccb->SideInfo.usUserIDLen, 5);
  // CMESUI hands back up to ten bytes, the others up to eight.
  ASSERT_EQ(set_text(cmscsu, id, "ABCDEFGHIJ"), CM_OK);
  const std::pair<TextCall, const char *> cases[] = {
      {cmesui, "ABCDEFGHIJ~~"}, {cmecsu, "ABCDEFGH~~~~"}, {XCECSU, "ABCDEFGH~~~~"}};
  for (auto [fn, expected] : cases) {
    EXPECT_EQ(fields(extract_text(fn, id, 12)), std::tuple(CM_OK, expected, 10));
  }
  // A shorter value replaces a longer one completely, and survives a change
  // of type.
  ASSERT_EQ(set_text(cmscsu, id, "Z"), CM_OK);
  EXPECT_EQ(text_of(cccb->SideInfo.security_user_ID, 10), padded("\xE9", 10, '\x40'));
  ASSERT_EQ(set_value(xcscst, id, CM_SECURITY_NONE), CM_OK);
  EXPECT_EQ(extract_text(cmesui, id, 12).text, "Z~~~~~~~~~~~");
}

// ---- log data ----

Extracted log_data_of(const CCCB &c) {
  return {CM_OK, text_of(c.pLogData, c.usLogDataLength), c.usLogDataLength};
}

TEST_F(Characteristics, LogDataIsAnErrorLogGdsVariableInEbcdic) {
  const std::pair<std::string, std::string> rows[] = {
      {std::string(512, 'a'),
       std::string("\x02\x08\x12\xE1\x00\x02\x02\x02", 8) + std::string(512, '\x81')},
      // Outside the set: '-' and '!' become X'00'; the period and case stay.
      {"Err-1.!", std::string("\x00\x0F\x12\xE1\x00\x02\x00\x09\xC5\x99\x99\x00\xF1\x4B\x00", 15)},
  };
  for (const auto &[text, stored] : rows) {
    ConvId id{};
    basic(*initialized_conversation(id));
    ASSERT_EQ(set_text(cmsld, id, text), CM_OK);
    EXPECT_EQ(log_data_of(*cccb_of(id)).text, stored);
  }
}

TEST_F(Characteristics, LogDataIsReplacedFreedAndKeptOnRefusal) {
  ConvId id{};
  CCCB *cccb = initialized_conversation(id);
  EXPECT_EQ(set_text(cmsld, id, "x"), CM_PROGRAM_PARAMETER_CHECK) << "mapped";
  basic(*cccb);
  const uint32_t blocks = snt_blocks_in_use(kMemKept);
  ASSERT_EQ(set_text(cmsld, id, "first"), CM_OK);
  ASSERT_EQ(set_text(cmsld, id, "second"), CM_OK);
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks + 1) << "the new text replaces the old buffer";
  const unsigned char *kept = cccb->pLogData;
  for (CM_INT32 length : {513, -1}) {
    EXPECT_EQ(set_text(cmsld, id, std::string(513, 'z'), length), CM_PROGRAM_PARAMETER_CHECK);
  }
  snt_fail_allocations(1);
  EXPECT_EQ(set_text(cmsld, id, "new"), CM_PRODUCT_SPECIFIC_ERROR);
  EXPECT_EQ(problems(), (Probes{{kProblemNoResource, 11}}));
  EXPECT_EQ(cccb->pLogData, kept);
  EXPECT_EQ(log_data_of(*cccb).text.substr(8), "\xA2\x85\x83\x96\x95\x84");
  // Length 0 frees the buffer, and is harmless with nothing to free.
  ASSERT_EQ(set_text(cmsld, id, ""), CM_OK);
  ASSERT_EQ(set_text(cmsld, id, ""), CM_OK);
  EXPECT_EQ(cccb->pLogData, nullptr);
  EXPECT_EQ(cccb->usLogDataLength, 0);
  EXPECT_EQ(snt_blocks_in_use(kMemKept), blocks);
  EXPECT_EQ(set_value(cmsct, id, CM_MAPPED_CONVERSATION), CM_OK) << "no log data left";
}

// ---- CMCNVO and CMCNVI ----

TEST(CharacteristicsConvert, TranslatesInPlaceWithinTheLengthLimit) {
  using Fn = void (*)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *);
  std::string text = "Hello, {World}!\xA2";
  const std::string ebcdic = "\xC8\x85\x93\x93\x96\x6B\x40\xC0\xE6\x96\x99\x93\x84\xD0\x5A\x4A";
  CM_INT32 length = static_cast<CM_INT32>(text.size());
  CM_RETURN_CODE rc = -1;
  CMCNVO(reinterpret_cast<unsigned char *>(text.data()), &length, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(text, ebcdic);
  cmcnvi(reinterpret_cast<unsigned char *>(text.data()), &length, &rc);
  EXPECT_EQ(text, "Hello, {World}!\xA2");

  const std::tuple<CM_INT32, CM_RETURN_CODE, size_t> rows[] = {
      {-40000, CM_OK, 0},  // as 16 bits it would be positive
      {5, CM_OK, 5},
      {32767, CM_OK, 32767},
      {32768, CM_PROGRAM_PARAMETER_CHECK, 0},
      {65541, CM_PROGRAM_PARAMETER_CHECK, 0},  // as 16 bits it would be 5
  };
  for (auto [fn, from, to] : {std::tuple<Fn, char, char>{cmcnvo, 'A', '\xC1'},
                              std::tuple<Fn, char, char>{CMCNVI, '\xC1', 'A'}}) {
    for (const auto &[n, expected, converted] : rows) {
      std::string buffer(32768 + 8, from);
      length = n;
      fn(reinterpret_cast<unsigned char *>(buffer.data()), &length, &rc);
      EXPECT_EQ(rc, expected) << n;
      EXPECT_EQ(buffer, std::string(converted, to) + std::string(buffer.size() - converted, from))
          << n;
    }
  }
}

}  // namespace
