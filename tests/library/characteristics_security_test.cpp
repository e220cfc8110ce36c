// Conversation security: the order in which type, user ID and password must
// be set, their lengths and EBCDIC form, and how much of the user ID each
// extract call hands back.
#include "characteristics_fixture.h"

namespace {

using TypeFn = void (*)(unsigned char *, CM_INT32 *, CM_RETURN_CODE *);
using TextFn = TextCall;

CM_RETURN_CODE set_type(TypeFn fn, Conversation &c, CM_INT32 type) {
  CM_RETURN_CODE rc = -1;
  fn(c.id_ptr(), &type, &rc);
  return rc;
}

TEST_F(CharacteristicsTest, SecurityValuesAreSetTypeFirstThenUserIdThenPassword) {
  struct Row {
    const char *what;
    Stage stage;
    CM_INT32 type;  // set first, directly, to reach the row's situation
    TypeFn type_fn;
    CM_INT32 new_type;  // -100: no type call
    TextFn text_fn;     // null: no user ID or password call
    std::string text;
    CM_INT32 length;
    CM_RETURN_CODE expected;
  };
  const std::string kNoText;
  const Row rows[] = {
      // settable types, under both names
      {"type none", Stage::kInitialize, 1, xcscst, 0, nullptr, kNoText, 0, CM_OK},
      {"type same", Stage::kInitialize, 0, cmscst, 1, nullptr, kNoText, 0, CM_OK},
      {"type program", Stage::kInitialize, 1, XCSCST, 2, nullptr, kNoText, 0, CM_OK},
      {"type program strong", Stage::kInitialize, 1, CMSCST, 5, nullptr, kNoText, 0, CM_OK},
      {"type distributed", Stage::kInitialize, 1, cmscst, 3, nullptr, kNoText, 0,
       CM_PROGRAM_PARAMETER_CHECK},
      {"type mutual", Stage::kInitialize, 1, xcscst, 4, nullptr, kNoText, 0,
       CM_PROGRAM_PARAMETER_CHECK},
      {"type 6", Stage::kInitialize, 1, cmscst, 6, nullptr, kNoText, 0, CM_PROGRAM_PARAMETER_CHECK},
      {"type -1", Stage::kInitialize, 1, cmscst, -1, nullptr, kNoText, 0,
       CM_PROGRAM_PARAMETER_CHECK},
      {"type when allocated, state checked first", Stage::kAllocated, 1, cmscst, 9, nullptr,
       kNoText, 0, CM_PROGRAM_STATE_CHECK},
      {"type on an incoming conversation", Stage::kIncoming, 1, xcscst, 0, nullptr, kNoText, 0,
       CM_PROGRAM_STATE_CHECK},
      // user ID
      {"user ID under none", Stage::kInitialize, 0, nullptr, -100, cmscsu, "USER", 4,
       CM_PROGRAM_STATE_CHECK},
      {"user ID under none, type checked before length", Stage::kInitialize, 0, nullptr, -100,
       xcscsu, "", 0, CM_PROGRAM_STATE_CHECK},
      {"user ID under same", Stage::kInitialize, 1, nullptr, -100, xcscsu, "USER", 4, CM_OK},
      {"user ID under program", Stage::kInitialize, 2, nullptr, -100, CMSCSU, "USER", 4, CM_OK},
      {"user ID under program strong", Stage::kInitialize, 5, nullptr, -100, XCSCSU, "USER", 4,
       CM_OK},
      {"user ID length 0", Stage::kInitialize, 1, nullptr, -100, cmscsu, "", 0,
       CM_PROGRAM_PARAMETER_CHECK},
      {"user ID length 10", Stage::kInitialize, 1, nullptr, -100, cmscsu, "ABCDEFGHIJ", 10, CM_OK},
      {"user ID length 11", Stage::kInitialize, 1, nullptr, -100, cmscsu, "ABCDEFGHIJK", 11,
       CM_PROGRAM_PARAMETER_CHECK},
      {"user ID length -1", Stage::kInitialize, 1, nullptr, -100, xcscsu, "A", -1,
       CM_PROGRAM_PARAMETER_CHECK},
      {"user ID when allocated", Stage::kAllocated, 1, nullptr, -100, cmscsu, "USER", 4,
       CM_PROGRAM_STATE_CHECK},
      // password
      {"password under same", Stage::kInitialize, 1, nullptr, -100, cmscsp, "PW", 2,
       CM_PROGRAM_STATE_CHECK},
      {"password under none", Stage::kInitialize, 0, nullptr, -100, xcscsp, "PW", 2,
       CM_PROGRAM_STATE_CHECK},
      {"password under program", Stage::kInitialize, 2, nullptr, -100, xcscsp, "PW", 2, CM_OK},
      {"password under program strong", Stage::kInitialize, 5, nullptr, -100, CMSCSP, "PW", 2,
       CM_OK},
      {"password length 10", Stage::kInitialize, 2, nullptr, -100, XCSCSP, "0123456789", 10, CM_OK},
      {"password length 11", Stage::kInitialize, 2, nullptr, -100, cmscsp, "0123456789A", 11,
       CM_PROGRAM_PARAMETER_CHECK},
      {"password length 0", Stage::kInitialize, 2, nullptr, -100, cmscsp, "", 0,
       CM_PROGRAM_PARAMETER_CHECK},
      {"password when allocated", Stage::kAllocated, 2, nullptr, -100, cmscsp, "PW", 2,
       CM_PROGRAM_STATE_CHECK},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    Conversation c = make(row.stage);
    c.cccb->SideInfo.conversation_security_type = static_cast<uint32_t>(row.type);
    const CCCB before = *c.cccb;
    const CM_RETURN_CODE rc = row.type_fn != nullptr
                                  ? set_type(row.type_fn, c, row.new_type)
                                  : set_text(row.text_fn, c, row.text, row.length);
    EXPECT_EQ(row.expected, rc);
    if (rc != CM_OK) {
      EXPECT_EQ(0, std::memcmp(&before, c.cccb, sizeof(CCCB)));
    } else if (row.type_fn != nullptr) {
      EXPECT_EQ(static_cast<uint32_t>(row.new_type), c.cccb->SideInfo.conversation_security_type);
    }
  }
  EXPECT_EQ(0u, snt_problem_count());
}

TEST_F(CharacteristicsTest, UserIdAndPasswordAreStoredInEbcdicPaddedWithBlanks) {
  Conversation c = make();
  ASSERT_EQ(CM_OK, set_type(cmscst, c, CM_SECURITY_PROGRAM));
  ASSERT_EQ(CM_OK, set_text(cmscsu, c, "user1"));
  ASSERT_EQ(CM_OK, set_text(xcscsp, c, "Pw.9"));
  EXPECT_EQ(padded({0xA4, 0xA2, 0x85, 0x99, 0xF1}, 10, 0x40),
            field(c.cccb->SideInfo.security_user_ID, 10));
  EXPECT_EQ(5u, c.cccb->SideInfo.usUserIDLen);
  EXPECT_EQ(padded({0xD7, 0xA6, 0x4B, 0xF9}, 10, 0x40),
            field(c.cccb->SideInfo.security_password, 10));

  // A shorter value replaces a longer one completely.
  ASSERT_EQ(CM_OK, set_text(cmscsu, c, "ABCDEFGHIJ"));
  ASSERT_EQ(CM_OK, set_text(cmscsu, c, "Z"));
  EXPECT_EQ(padded({0xE9}, 10, 0x40), field(c.cccb->SideInfo.security_user_ID, 10));
  EXPECT_EQ(1u, c.cccb->SideInfo.usUserIDLen);
}

Extracted extract_user_id(TextFn fn, unsigned char *id) {
  return extract_text(fn, id, 12);
}

TEST_F(CharacteristicsTest, UserIdExtractionWritesAtMostTheCallsMaximum) {
  struct Row {
    const char *what;
    std::string user_id;
    TextFn extract;
    std::string expected_bytes;
  };
  const Row rows[] = {
      {"10 bytes through cmesui", "ABCDEFGHIJ", cmesui, "ABCDEFGHIJ~~"},
      {"10 bytes through cmecsu", "ABCDEFGHIJ", cmecsu, "ABCDEFGH~~~~"},
      {"10 bytes through xcecsu", "ABCDEFGHIJ", XCECSU, "ABCDEFGH~~~~"},
      {"9 bytes through CMECSU", "ABCDEFGHI", CMECSU, "ABCDEFGH~~~~"},
      {"8 bytes through cmecsu", "user.#$@", cmecsu, "user.#$@~~~~"},
      {"3 bytes through CMESUI", "ab1", CMESUI, "ab1~~~~~~~~~"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    Conversation c = make();
    ASSERT_EQ(CM_OK, set_text(cmscsu, c, row.user_id));
    const Extracted out = extract_user_id(row.extract, c.id_ptr());
    EXPECT_EQ(CM_OK, out.rc);
    EXPECT_EQ(static_cast<CM_INT32>(row.user_id.size()), out.length);
    EXPECT_EQ(row.expected_bytes, out.text);
  }
}

// The type can be read before an incoming conversation is accepted; the
// user ID cannot.  Both can after allocation.
TEST_F(CharacteristicsTest, SecurityExtractionFollowsTheConversationsStage) {
  for (Stage stage : {Stage::kInitialize, Stage::kAllocated, Stage::kIncoming}) {
    SCOPED_TRACE(static_cast<int>(stage));
    Conversation c = make(stage);
    c.cccb->SideInfo.conversation_security_type = CM_SECURITY_PROGRAM_STRONG;
    for (TypeFn fn : {xcecst, cmecst, XCECST, CMECST}) {
      CM_INT32 type = -1;
      CM_RETURN_CODE rc = -1;
      fn(c.id_ptr(), &type, &rc);
      EXPECT_EQ(CM_OK, rc);
      EXPECT_EQ(CM_SECURITY_PROGRAM_STRONG, type);
    }
    for (TextFn fn : {xcecsu, cmecsu, cmesui}) {
      const Extracted out = extract_user_id(fn, c.id_ptr());
      if (stage == Stage::kIncoming) {
        EXPECT_EQ(CM_PROGRAM_STATE_CHECK, out.rc);
        EXPECT_EQ(-7, out.length);
        EXPECT_EQ(std::string(12, '~'), out.text);
      } else {
        EXPECT_EQ(CM_OK, out.rc);
        EXPECT_EQ(1, out.length);  // the default user ID: one EBCDIC blank
        EXPECT_EQ(" " + std::string(11, '~'), out.text);
      }
    }
  }
}

TEST_F(CharacteristicsTest, UserIdSurvivesAChangeOfType) {
  Conversation c = make();
  ASSERT_EQ(CM_OK, set_type(xcscst, c, CM_SECURITY_PROGRAM));
  ASSERT_EQ(CM_OK, set_text(xcscsu, c, "KEEPME"));
  ASSERT_EQ(CM_OK, set_type(xcscst, c, CM_SECURITY_NONE));
  const Extracted out = extract_user_id(cmesui, c.id_ptr());
  EXPECT_EQ(CM_OK, out.rc);
  EXPECT_EQ(6, out.length);
  EXPECT_EQ("KEEPME~~~~~~", out.text);
}

TEST_F(CharacteristicsTest, SecurityCallsReportAnUnknownConversationWithTheirProbe) {
  unsigned char text[12] = "ABC";
  CM_INT32 value = 1;
  CM_INT32 length = 3;
  expect_each_reports_unknown({
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { xcscst(id, &value, rc); }, 37},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { CMSCST(id, &value, rc); }, 37},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { XCSCSU(id, text, &length, rc); }, 38},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { cmscsu(id, text, &length, rc); }, 38},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { xcscsp(id, text, &length, rc); }, 36},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { CMSCSP(id, text, &length, rc); }, 36},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { XCECST(id, &value, rc); }, 34},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { cmecst(id, &value, rc); }, 39},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { xcecsu(id, text, &length, rc); }, 35},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { CMECSU(id, text, &length, rc); }, 35},
      {[&](unsigned char *id, CM_RETURN_CODE *rc) { cmesui(id, text, &length, rc); }, 35},
  });
}

}  // namespace
