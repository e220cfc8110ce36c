// Set-then-extract round trips through the conversion tables, and the rules
// that decide when an extract call answers.
#include "characteristics_fixture.h"

namespace {

using NameFn = TextCall;
using ValueFn = void (*)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *);

struct ExtractedValue {
  CM_RETURN_CODE rc = -1;
  CM_INT32 value = -7;
};

ExtractedValue extract_value(ValueFn fn, unsigned char *id) {
  ExtractedValue out;
  fn(id, &out.value, &out.rc);
  return out;
}

TEST_F(CharacteristicsTest, NamesComeBackAsTheConversionTablesAllow) {
  struct Row {
    const char *what;
    NameFn set, extract;
    std::string stored;
    std::string expected;  // extracted bytes, then the rest of the buffer untouched
    CM_INT32 length;
  };
  const std::string tp64 = "TP.name-64/" + std::string(53, 'x');
  const Row rows[] = {
      {"lower-case mode name", cmsmn, cmemn, "#batch", "#BATCH", 6},
      {"mode name with a character outside table A", cmsmn, CMEMN, "m.1",
       std::string("M\0"
                   "1",
                   3),
       3},
      {"empty mode name writes nothing", cmsmn, cmemn, "", "", 0},
      {"qualified partner LU", cmspln, cmepln, "NET.LU", "NET.LU", 6},
      {"qualified partner LU in lower case", cmspln, CMEPLN, "net1.lu1", "NET1.LU1", 8},
      {"unqualified alias keeps its case", cmspln, cmepln, "Alias1", "Alias1", 6},
      {"17-character qualified name", cmspln, cmepln, "NETWORK1.LUNAME12", "NETWORK1.LUNAME12", 17},
      {"64-character TP name", cmstpn, cmetpn, tp64, tp64, 64},
      {"TP name cut at an embedded blank", cmstpn, CMETPN, "MY TP", "MY", 2},
      {"10-character TP name", cmstpn, cmetpn, "Payroll_01", "Payroll_01", 10},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    Conversation c = make();
    ASSERT_EQ(CM_OK, set_text(row.set, c, row.stored));
    const Extracted out = extract_text(row.extract, c.id_ptr());
    EXPECT_EQ(CM_OK, out.rc);
    EXPECT_EQ(row.length, out.length);
    EXPECT_EQ(row.expected + std::string(80 - row.expected.size(), '~'), out.text);
  }
}

TEST_F(CharacteristicsTest, ValuesComeBackAsSet) {
  Conversation c = make();
  CM_INT32 value = CM_BASIC_CONVERSATION;
  CM_RETURN_CODE rc = -1;
  cmsct(c.id_ptr(), &value, &rc);
  ASSERT_EQ(CM_OK, rc);
  value = CM_CONFIRM;
  cmssl(c.id_ptr(), &value, &rc);
  ASSERT_EQ(CM_OK, rc);

  struct Row {
    ValueFn fn;
    CM_INT32 expected;
  };
  for (const Row &row : {Row{cmect, CM_BASIC_CONVERSATION}, Row{CMECT, CM_BASIC_CONVERSATION},
                         Row{cmesl, CM_CONFIRM}, Row{CMESL, CM_CONFIRM}}) {
    const ExtractedValue out = extract_value(row.fn, c.id_ptr());
    EXPECT_EQ(CM_OK, out.rc);
    EXPECT_EQ(row.expected, out.value);
  }
}

TEST_F(CharacteristicsTest, LocalLuNameIsEightBytesAndATerminator) {
  Conversation c = make();
  Extracted unset = extract_text(cmelln, c.id_ptr());
  EXPECT_EQ(CM_PROGRAM_STATE_CHECK, unset.rc);
  EXPECT_EQ(std::string(9, '\0') + std::string(71, '~'), unset.text);

  ASSERT_EQ(CM_OK, set_text(cmslln, c, "lu1"));
  Extracted set = extract_text(CMELLN, c.id_ptr());
  EXPECT_EQ(CM_OK, set.rc);
  EXPECT_EQ(std::string("lu1     ") + '\0' + std::string(71, '~'), set.text);
}

// Before an incoming conversation is accepted nothing can be read from it;
// in Initialize state and after allocation everything can.
TEST_F(CharacteristicsTest, ExtractCallsRefuseOnlyAConversationAwaitingAccept) {
  struct Row {
    const char *what;
    std::function<CM_RETURN_CODE(unsigned char *)> call;
  };
  const Row rows[] = {
      {"cmect", [](unsigned char *id) { return extract_value(cmect, id).rc; }},
      {"cmesl", [](unsigned char *id) { return extract_value(cmesl, id).rc; }},
      {"cmemn", [](unsigned char *id) { return extract_text(cmemn, id).rc; }},
      {"cmepln", [](unsigned char *id) { return extract_text(cmepln, id).rc; }},
      {"cmetpn", [](unsigned char *id) { return extract_text(cmetpn, id).rc; }},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    for (Stage stage : {Stage::kInitialize, Stage::kAllocated, Stage::kIncoming}) {
      Conversation c = make(stage);
      const CCCB before = *c.cccb;
      const CM_RETURN_CODE expected = stage == Stage::kIncoming ? CM_PROGRAM_STATE_CHECK : CM_OK;
      EXPECT_EQ(expected, row.call(c.id_ptr()));
      EXPECT_EQ(0, std::memcmp(&before, c.cccb, sizeof(CCCB)));
    }
  }
  // The local LU name is refused there too, before its own "not set" check.
  Conversation incoming = make(Stage::kIncoming);
  std::memcpy(incoming.cccb->LocalLUName, "LU1     ", 8);
  EXPECT_EQ(CM_PROGRAM_STATE_CHECK, extract_text(cmelln, incoming.id_ptr()).rc);
}

TEST_F(CharacteristicsTest, ExtractFailuresLeaveTheOutParametersAlone) {
  Conversation incoming = make(Stage::kIncoming);
  const Extracted refused = extract_text(cmemn, incoming.id_ptr());
  EXPECT_EQ(-7, refused.length);
  EXPECT_EQ(std::string(80, '~'), refused.text);

  const ExtractedValue type = extract_value(cmect, incoming.id_ptr());
  EXPECT_EQ(CM_PROGRAM_STATE_CHECK, type.rc);
  EXPECT_EQ(-7, type.value);
}

TEST_F(CharacteristicsTest, PartnerTpNameIsRefusedWhileAVerbIsOutstanding) {
  Conversation c = make();
  ASSERT_EQ(CM_OK, set_text(cmstpn, c, "TP1"));
  c.cccb->ulAppcConvId = 0x51;  // allocated, with a verb in progress
  c.cccb->usVerbsOutstanding = 1;
  EXPECT_EQ(CM_OPERATION_NOT_ACCEPTED, extract_text(cmetpn, c.id_ptr()).rc);
  // The other extract calls still answer.
  EXPECT_EQ(CM_OK, extract_text(cmemn, c.id_ptr()).rc);
  // Busy is checked before the state rule.
  Conversation incoming = make(Stage::kIncoming);
  incoming.cccb->usVerbsOutstanding = 1;
  EXPECT_EQ(CM_OPERATION_NOT_ACCEPTED, extract_text(cmetpn, incoming.id_ptr()).rc);

  c.cccb->usVerbsOutstanding = 0;
  const Extracted out = extract_text(cmetpn, c.id_ptr());
  EXPECT_EQ(CM_OK, out.rc);
  EXPECT_EQ(3, out.length);
}

TEST_F(CharacteristicsTest, ExtractCallsReportAnUnknownConversationWithTheirProbe) {
  unsigned char name[80];
  CM_INT32 value = 0;
  expect_each_reports_unknown({
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { cmect(id, &value, rc); }, 8},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { CMEMN(id, name, &value, rc); }, 9},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { cmepln(id, name, &value, rc); }, 10},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { CMESL(id, &value, rc); }, 11},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { cmetpn(id, name, &value, rc); }, 33},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { CMELLN(id, name, &value, rc); }, 90},
  });
}

// No SetUp start-up is needed: the maximum buffer size is a constant.
TEST(CharacteristicsMaximumBufferSize, AnswersBeforeAnyOtherCall) {
  CM_INT32 size = 0;
  CM_RETURN_CODE rc = -1;
  cmembs(&size, &rc);
  EXPECT_EQ(CM_OK, rc);
  EXPECT_EQ(32767, size);
  size = 0;
  rc = -1;
  CMEMBS(&size, &rc);
  EXPECT_EQ(CM_OK, rc);
  EXPECT_EQ(32767, size);
}

}  // namespace
