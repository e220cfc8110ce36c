// The set calls, one table: each row puts a fresh conversation in a stage,
// adjusts other characteristics, makes one call, and checks the return code
// and either the stored value or that the conversation did not change at all.
#include <functional>

#include "characteristics_fixture.h"

namespace {

using SetValueFn = void (*)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *);
using SetNameFn = void (*)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *);

// One call with its arguments, ready to be made on any conversation.
struct Invocation {
  SetValueFn value_fn = nullptr;
  CM_INT32 value = 0;
  SetNameFn name_fn = nullptr;
  std::string text;
  CM_INT32 length = 0;

  CM_RETURN_CODE run(unsigned char *id) const {
    CM_RETURN_CODE rc = -1;
    if (value_fn != nullptr) {
      CM_INT32 argument = value;
      value_fn(id, &argument, &rc);
    } else {
      std::string argument = text;
      CM_INT32 argument_length = length;
      name_fn(id, reinterpret_cast<unsigned char *>(argument.data()), &argument_length, &rc);
    }
    return rc;
  }
};

Invocation with_value(SetValueFn fn, CM_INT32 value) {
  return {.value_fn = fn, .value = value, .name_fn = nullptr, .text = {}, .length = 0};
}
Invocation with_name(SetNameFn fn, std::string text) {
  const auto length = static_cast<CM_INT32>(text.size());
  return {
      .value_fn = nullptr, .value = 0, .name_fn = fn, .text = std::move(text), .length = length};
}
Invocation with_name(SetNameFn fn, std::string text, CM_INT32 length) {
  return {
      .value_fn = nullptr, .value = 0, .name_fn = fn, .text = std::move(text), .length = length};
}

using Adjust = std::function<void(Conversation &)>;
using Effect = std::function<void(const CCCB &)>;

struct SetCase {
  const char *what;
  Stage stage;
  Adjust before;  // may be empty
  Invocation call;
  CM_RETURN_CODE expected;
  Effect effect;  // checked when the call succeeds
};

void basic(Conversation &c) {
  c.cccb->ulConversationType = CM_BASIC_CONVERSATION;
}
void confirm_sync(Conversation &c) {
  c.cccb->ulSyncLevel = CM_CONFIRM;
}
void busy(Conversation &c) {
  c.cccb->usVerbsOutstanding = 1;
}

void set_log_data(Conversation &c) {
  basic(c);
  CM_RETURN_CODE rc = -1;
  CM_INT32 length = 4;
  unsigned char text[] = "note";
  cmsld(c.id_ptr(), text, &length, &rc);
  ASSERT_EQ(CM_OK, rc);
}

const std::vector<unsigned char> kEbcdicBlank8(8, 0x40);

std::vector<SetCase> set_cases() {
  const auto I = Stage::kInitialize;
  const auto A = Stage::kAllocated;
  const auto N = Stage::kIncoming;
  return {
      // conversation type
      {"cmsct basic",
       I,
       {},
       with_value(cmsct, 0),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(0u, c.ulConversationType); }},
      {"CMSCT mapped from basic", I, basic, with_value(CMSCT, 1), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulConversationType); }},
      {"cmsct mapped with fill buffer",
       I,
       [](Conversation &c) {
         basic(c);
         c.cccb->ulFill = CM_FILL_BUFFER;
       },
       with_value(cmsct, 1),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmsct mapped with log data",
       I,
       set_log_data,
       with_value(cmsct, 1),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmsct basic with log data", I, set_log_data, with_value(cmsct, 0), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(0u, c.ulConversationType); }},
      {"cmsct 2", I, {}, with_value(cmsct, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsct -1", I, {}, with_value(cmsct, -1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsct allocated", A, {}, with_value(cmsct, 0), CM_PROGRAM_STATE_CHECK, {}},
      {"cmsct incoming", N, {}, with_value(cmsct, 0), CM_PROGRAM_STATE_CHECK, {}},
      {"cmsct state checked before value", A, {}, with_value(cmsct, 7), CM_PROGRAM_STATE_CHECK, {}},

      // deallocate type
      {"cmsdt abend",
       I,
       {},
       with_value(cmsdt, 3),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(3u, c.ulDeallocateType); }},
      {"cmsdt 4", I, {}, with_value(cmsdt, 4), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsdt -1", I, {}, with_value(cmsdt, -1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsdt confirm, sync none", I, {}, with_value(cmsdt, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSDT confirm, sync confirm", I, confirm_sync, with_value(CMSDT, 2), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(2u, c.ulDeallocateType); }},
      {"cmsdt allocated",
       A,
       {},
       with_value(cmsdt, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulDeallocateType); }},

      // error direction
      {"cmsed send error",
       I,
       {},
       with_value(cmsed, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulErrorDirection); }},
      {"cmsed 2", I, {}, with_value(cmsed, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSED allocated",
       A,
       {},
       with_value(CMSED, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulErrorDirection); }},

      // fill
      {"cmsf on mapped", I, {}, with_value(cmsf, 1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsf buffer on basic", I, basic, with_value(cmsf, 1), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulFill); }},
      {"cmsf 2 on basic", I, basic, with_value(cmsf, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSF allocated basic", A, basic, with_value(CMSF, 1), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulFill); }},

      // log data (its buffer has a test of its own)
      {"cmsld on mapped", I, {}, with_name(cmsld, "x"), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsld clear on mapped", I, {}, with_name(cmsld, "", 0), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsld 512", I, basic, with_name(cmsld, std::string(512, 'a')), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(520u, c.usLogDataLength); }},
      {"cmsld 513",
       I,
       basic,
       with_name(cmsld, std::string(513, 'a')),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmsld -1", I, basic, with_name(cmsld, "a", -1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSLD allocated", A, basic, with_name(CMSLD, "ab"), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(10u, c.usLogDataLength); }},

      // mode name
      {"cmsmn length 0",
       I,
       {},
       with_name(cmsmn, "", 0),
       CM_OK,
       [](const CCCB &c) {
         EXPECT_EQ(kEbcdicBlank8, field(c.SideInfo.mode_name, 8));
         EXPECT_EQ(0u, c.SideInfo.usModeNameLen);
       }},
      {"cmsmn 8 folded to upper case",
       I,
       {},
       with_name(CMSMN, "#inter$@"),
       CM_OK,
       [](const CCCB &c) {
         const std::vector<unsigned char> expected{0x7B, 0xC9, 0xD5, 0xE3, 0xC5, 0xD9, 0x5B, 0x7C};
         EXPECT_EQ(expected, field(c.SideInfo.mode_name, 8));
         EXPECT_EQ(8u, c.SideInfo.usModeNameLen);
       }},
      {"cmsmn short name padded",
       I,
       {},
       with_name(cmsmn, "M1"),
       CM_OK,
       [](const CCCB &c) {
         EXPECT_EQ(padded({0xD4, 0xF1}, 8, 0x40), field(c.SideInfo.mode_name, 8));
         EXPECT_EQ(2u, c.SideInfo.usModeNameLen);
       }},
      {"cmsmn 9", I, {}, with_name(cmsmn, "ABCDEFGHI"), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsmn -1", I, {}, with_name(cmsmn, "A", -1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsmn allocated", A, {}, with_name(cmsmn, "M1"), CM_PROGRAM_STATE_CHECK, {}},

      // partner LU name
      {"cmspln NET.LU",
       I,
       {},
       with_name(cmspln, "NET.LU"),
       CM_OK,
       [](const CCCB &c) {
         const std::vector<unsigned char> prefix{0xD5, 0xC5, 0xE3, 0x4B, 0xD3, 0xE4};
         EXPECT_EQ(padded(prefix, 17, 0x40), field(c.SideInfo.partner_LU_name, 17));
         EXPECT_EQ(1u, c.SideInfo.usPartnerLUQualified);
         EXPECT_EQ(3u, c.SideInfo.usPartnerLUPeriodPos);
         EXPECT_EQ(6u, c.SideInfo.usPartnerLULen);
       }},
      {"cmspln A.B.C splits at the first period",
       I,
       {},
       with_name(CMSPLN, "A.B.C"),
       CM_OK,
       [](const CCCB &c) {
         const std::vector<unsigned char> prefix{0xC1, 0x4B, 0xC2, 0x00, 0xC3};
         EXPECT_EQ(padded(prefix, 17, 0x40), field(c.SideInfo.partner_LU_name, 17));
         EXPECT_EQ(1u, c.SideInfo.usPartnerLUPeriodPos);
         EXPECT_EQ(5u, c.SideInfo.usPartnerLULen);
       }},
      {"cmspln alias kept in ASCII", I,
       [](Conversation &c) {
         c.cccb->SideInfo.usPartnerLUQualified = 1;
         c.cccb->SideInfo.usPartnerLUPeriodPos = 4;
       },
       with_name(cmspln, "alias1"), CM_OK,
       [](const CCCB &c) {
         EXPECT_EQ(padded(bytes_of("alias1"), 8, ' '), field(c.SideInfo.partner_LU_name, 8));
         EXPECT_EQ(0u, c.SideInfo.usPartnerLUQualified);
         EXPECT_EQ(4u, c.SideInfo.usPartnerLUPeriodPos);  // left as it was
         EXPECT_EQ(6u, c.SideInfo.usPartnerLULen);
       }},
      {"cmspln 17",
       I,
       {},
       with_name(cmspln, "NETWORK1.LUNAME12"),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(17u, c.SideInfo.usPartnerLULen); }},
      {"cmspln 0", I, {}, with_name(cmspln, "", 0), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmspln 18", I, {}, with_name(cmspln, "NETWORK1.LUNAME123"), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmspln length taken from its low 16 bits",
       I,
       {},
       with_name(cmspln, "LUNAM", 0x10005),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(5u, c.SideInfo.usPartnerLULen); }},
      {"cmspln 0x10000 is length 0",
       I,
       {},
       with_name(cmspln, "LUNAM", 0x10000),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmspln incoming", N, {}, with_name(cmspln, "LU"), CM_PROGRAM_STATE_CHECK, {}},

      // prepare-to-receive type
      {"cmsptr flush",
       I,
       {},
       with_value(cmsptr, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulPrepareToReceiveType); }},
      {"cmsptr confirm, sync none", I, {}, with_value(cmsptr, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSPTR confirm, sync confirm", I, confirm_sync, with_value(CMSPTR, 2), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(2u, c.ulPrepareToReceiveType); }},
      {"cmsptr 3", I, confirm_sync, with_value(cmsptr, 3), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsptr allocated",
       A,
       {},
       with_value(cmsptr, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulPrepareToReceiveType); }},

      // receive type
      {"cmsrt immediate",
       I,
       {},
       with_value(cmsrt, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulReceiveType); }},
      {"cmsrt 2", I, {}, with_value(cmsrt, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSRT allocated",
       A,
       {},
       with_value(CMSRT, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulReceiveType); }},

      // return control
      {"cmsrc immediate",
       I,
       {},
       with_value(cmsrc, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulReturnControl); }},
      {"cmsrc 2", I, {}, with_value(cmsrc, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSRC allocated", A, {}, with_value(CMSRC, 1), CM_PROGRAM_STATE_CHECK, {}},

      // send type
      {"cmsst send and deallocate",
       I,
       {},
       with_value(cmsst, 4),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(4u, c.ulSendType); }},
      {"cmsst 5", I, {}, with_value(cmsst, 5), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmsst confirm, sync none", I, {}, with_value(cmsst, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"CMSST confirm, sync confirm", I, confirm_sync, with_value(CMSST, 2), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(2u, c.ulSendType); }},
      {"cmsst allocated",
       A,
       {},
       with_value(cmsst, 3),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(3u, c.ulSendType); }},

      // sync level
      {"cmssl confirm",
       I,
       {},
       with_value(cmssl, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.ulSyncLevel); }},
      {"CMSSL none from confirm", I, confirm_sync, with_value(CMSSL, 0), CM_OK,
       [](const CCCB &c) { EXPECT_EQ(0u, c.ulSyncLevel); }},
      {"cmssl none under send and confirm",
       I,
       [](Conversation &c) {
         confirm_sync(c);
         c.cccb->ulSendType = CM_SEND_AND_CONFIRM;
       },
       with_value(cmssl, 0),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmssl none under prepare-to-receive confirm",
       I,
       [](Conversation &c) {
         confirm_sync(c);
         c.cccb->ulPrepareToReceiveType = CM_PREP_TO_RECEIVE_CONFIRM;
       },
       with_value(cmssl, 0),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmssl none under deallocate confirm",
       I,
       [](Conversation &c) {
         confirm_sync(c);
         c.cccb->ulDeallocateType = CM_DEALLOCATE_CONFIRM;
       },
       with_value(cmssl, 0),
       CM_PROGRAM_PARAMETER_CHECK,
       {}},
      {"cmssl confirm under send and confirm", I,
       [](Conversation &c) {
         confirm_sync(c);
         c.cccb->ulSendType = CM_SEND_AND_CONFIRM;
       },
       with_value(cmssl, 1), CM_OK, [](const CCCB &c) { EXPECT_EQ(1u, c.ulSyncLevel); }},
      {"cmssl sync point", I, {}, with_value(cmssl, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmssl 3", I, {}, with_value(cmssl, 3), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmssl -1", I, {}, with_value(cmssl, -1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmssl allocated", A, {}, with_value(cmssl, 1), CM_PROGRAM_STATE_CHECK, {}},

      // partner TP name
      {"cmstpn 64", I, [](Conversation &c) { c.cccb->SideInfo.TP_name_type = CM_SNA_SERVICE_TP; },
       with_name(cmstpn, std::string(64, 'T')), CM_OK,
       [](const CCCB &c) {
         EXPECT_EQ(std::vector<unsigned char>(64, 0xE3), field(c.SideInfo.TP_name, 64));
         EXPECT_EQ(static_cast<uint32_t>(CM_APPLICATION_TP), c.SideInfo.TP_name_type);
       }},
      {"CMSTPN short name padded, case kept",
       I,
       {},
       with_name(CMSTPN, "Tp/1"),
       CM_OK,
       [](const CCCB &c) {
         EXPECT_EQ(padded({0xE3, 0x97, 0x61, 0xF1}, 64, 0x40), field(c.SideInfo.TP_name, 64));
       }},
      {"cmstpn 65", I, {}, with_name(cmstpn, std::string(65, 'T')), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmstpn 0", I, {}, with_name(cmstpn, "", 0), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmstpn -1", I, {}, with_name(cmstpn, "T", -1), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmstpn allocated", A, {}, with_name(cmstpn, "TP"), CM_PROGRAM_STATE_CHECK, {}},

      // processing mode
      {"cmspm non-blocking",
       I,
       {},
       with_value(cmspm, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.usProcessingMode); }},
      {"cmspm 2", I, {}, with_value(cmspm, 2), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmspm while busy", A, busy, with_value(cmspm, 1), CM_OPERATION_NOT_ACCEPTED, {}},
      {"cmspm while busy, bad value", A, busy, with_value(cmspm, 9), CM_OPERATION_NOT_ACCEPTED, {}},
      {"CMSPM allocated",
       A,
       {},
       with_value(CMSPM, 1),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(1u, c.usProcessingMode); }},

      // local LU name
      {"cmslln LU1 in ASCII",
       I,
       {},
       with_name(cmslln, "lu1"),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(padded(bytes_of("lu1"), 8, ' '), field(c.LocalLUName, 8)); }},
      {"CMSLLN length 0 clears", I,
       [](Conversation &c) { std::memset(c.cccb->LocalLUName, 'X', 8); }, with_name(CMSLLN, "", 0),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(std::vector<unsigned char>(8, 0), field(c.LocalLUName, 8)); }},
      {"cmslln 8",
       I,
       {},
       with_name(cmslln, "LOCALLU8"),
       CM_OK,
       [](const CCCB &c) { EXPECT_EQ(bytes_of("LOCALLU8"), field(c.LocalLUName, 8)); }},
      {"cmslln 9", I, {}, with_name(cmslln, "LOCALLU89"), CM_PROGRAM_PARAMETER_CHECK, {}},
      {"cmslln allocated", A, {}, with_name(cmslln, "LU1"), CM_PROGRAM_STATE_CHECK, {}},
  };
}

TEST_F(CharacteristicsTest, EverySetCallChecksInOrderAndStoresOnlyOnSuccess) {
  for (const SetCase &row : set_cases()) {
    SCOPED_TRACE(row.what);
    Conversation c = make(row.stage);
    ASSERT_NE(nullptr, c.cccb);
    if (row.before) row.before(c);
    const CCCB before = *c.cccb;

    EXPECT_EQ(row.expected, row.call.run(c.id_ptr()));
    if (row.expected == CM_OK) {
      row.effect(*c.cccb);
    } else {
      EXPECT_EQ(0, std::memcmp(&before, c.cccb, sizeof(CCCB))) << "a refused call changed it";
    }
  }
  EXPECT_EQ(0u, snt_problem_count());
}

// Every set call, under both its names, reports an unknown conversation with
// its own probe and changes no conversation.
TEST_F(CharacteristicsTest, SetCallsReportAnUnknownConversationWithTheirProbe) {
  struct Row {
    Invocation lower, upper;
    uint32_t probe;
  };
  const Row rows[] = {
      {with_value(cmsct, 0), with_value(CMSCT, 0), 18},
      {with_value(cmsdt, 0), with_value(CMSDT, 0), 19},
      {with_value(cmsed, 0), with_value(CMSED, 0), 20},
      {with_value(cmsf, 0), with_value(CMSF, 0), 21},
      {with_name(cmsld, "x"), with_name(CMSLD, "x"), 22},
      {with_name(cmsmn, "M"), with_name(CMSMN, "M"), 23},
      {with_name(cmspln, "L"), with_name(CMSPLN, "L"), 24},
      {with_value(cmsptr, 0), with_value(CMSPTR, 0), 25},
      {with_value(cmsrt, 0), with_value(CMSRT, 0), 26},
      {with_value(cmsrc, 0), with_value(CMSRC, 0), 27},
      {with_value(cmsst, 0), with_value(CMSST, 0), 28},
      {with_value(cmssl, 0), with_value(CMSSL, 0), 29},
      {with_name(cmstpn, "T"), with_name(CMSTPN, "T"), 30},
      {with_value(cmspm, 0), with_value(CMSPM, 0), 32},
      {with_name(cmslln, "L"), with_name(CMSLLN, "L"), 24},
  };
  Conversation bystander = make();
  const CCCB before = *bystander.cccb;
  for (const Row &row : rows) {
    for (const Invocation *call : {&row.lower, &row.upper}) {
      SCOPED_TRACE(testing::Message() << "probe " << row.probe);
      snt_reset();
      auto id = unknown_id();
      EXPECT_EQ(CM_PROGRAM_PARAMETER_CHECK, call->run(id.data()));
      expect_unknown_reported(id, row.probe);
    }
  }
  EXPECT_EQ(0, std::memcmp(&before, bystander.cccb, sizeof(CCCB)));
}

// Bytes 4 to 7 of a conversation ID are not part of the lookup.
TEST_F(CharacteristicsTest, SetCallsIgnoreTheHighHalfOfTheConversationId) {
  Conversation c = make();
  auto id = c.id;
  id[4] = 0xAA;
  id[7] = 0x55;
  EXPECT_EQ(CM_OK, with_value(cmsrt, 1).run(id.data()));
  EXPECT_EQ(1u, c.cccb->ulReceiveType);
}

}  // namespace
