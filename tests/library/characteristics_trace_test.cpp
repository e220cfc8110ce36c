// The API trace records of the characteristic calls: each call must hand the
// trace writer exactly its own arguments (and the CCCB where its records show
// characteristics), so the records read as the application's call.  The
// node's trace file services are replaced here (an executable's definitions
// take precedence over the shared node library's) to collect the lines.
#include <cstdio>

#include "characteristics_fixture.h"

namespace {

using Record = std::vector<std::string>;
std::vector<Record> g_records;

std::string hex(const void *data, uint32_t length) {
  std::string out = "dump ";
  const auto *bytes = static_cast<const unsigned char *>(data);
  for (uint32_t i = 0; i < length; ++i) {
    char two[3];
    std::snprintf(two, sizeof two, "%02X", bytes[i]);
    out += two;
  }
  return out;
}

}  // namespace

extern "C" {
void sepuapi_init(unsigned char *) {}
void trc_lock_file(TRC_API *api) {
  api->file_handle = 9;
}
void trc_unlock_file(TRC_API *) {}
void com_trc_sep(int32_t, const char *) {
  g_records.emplace_back();
}
void com_trc_line(int32_t, const char *, const char *text) {
  if (!g_records.empty()) g_records.back().emplace_back(text);
}
void com_trc_dump(int32_t, const char *, const void *data, uint32_t length) {
  if (!g_records.empty()) g_records.back().push_back(hex(data, length));
}
}

namespace {

class CharacteristicsTraceTest : public CharacteristicsTest {
 protected:
  void SetUp() override {
    CharacteristicsTest::SetUp();
    ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
    g_records.clear();
    // A library built without the trace writer drops every record; there is
    // then nothing to check here.
    CM_INT32 size = 0;
    CM_RETURN_CODE rc = -1;
    cmembs(&size, &rc);
    if (g_records.empty()) GTEST_SKIP() << "the API trace writer is not part of this build";
    g_records.clear();
  }
  void TearDown() override { ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT; }

  // The request and the response record of the one call made since `start`.
  static void expect_records(const Record &request, const Record &response) {
    ASSERT_EQ(2u, g_records.size());
    expect_lines(request, g_records[0]);
    expect_lines(response, g_records[1]);
    g_records.clear();
  }

  // A line ending in '*' only has to start with what comes before it (for
  // addresses, which differ from run to run).
  static void expect_lines(const Record &expected, const Record &actual) {
    ASSERT_EQ(expected.size(), actual.size()) << testing::PrintToString(actual);
    for (size_t i = 0; i < expected.size(); ++i) {
      const std::string &want = expected[i];
      if (!want.empty() && want.back() == '*') {
        EXPECT_EQ(want.substr(0, want.size() - 1), actual[i].substr(0, want.size() - 1));
      } else {
        EXPECT_EQ(want, actual[i]);
      }
    }
  }

  static std::string id_line(const Conversation &c) {
    char line[64];
    std::snprintf(line, sizeof line, " Conversation ID = %02X%02X%02X%02X", c.id[0], c.id[1],
                  c.id[2], c.id[3]);
    return line;
  }
};

TEST_F(CharacteristicsTraceTest, SetCallsShowTheirArgumentAndTheConversationBeforeAndAfter) {
  Conversation c = make();
  g_records.clear();
  ASSERT_EQ(CM_OK, set_text(cmsmn, c, "M1"));
  expect_records({"CMSMN request", id_line(c), " Mode name =", "dump 4D31", " Mode name length = 2",
                  "Conversation characteristics", " Mode name =", "dump 4040404040404040"},
                 {"CMSMN response, result = CM_OK", "Conversation characteristics",
                  " Mode name =", "dump D4F1404040404040"});

  CM_INT32 mode = CM_NON_BLOCKING;
  CM_RETURN_CODE rc = -1;
  cmspm(c.id_ptr(), &mode, &rc);
  expect_records({"CMSPM request", id_line(c), " Processing mode = CM_NON_BLOCKING",
                  "Conversation characteristics"},
                 {"CMSPM response, result = CM_OK", "Conversation characteristics",
                  " Processing mode = CM_NON_BLOCKING"});

  CM_INT32 sync = CM_SYNC_POINT;
  cmssl(c.id_ptr(), &sync, &rc);
  expect_records({"CMSSL request", id_line(c), " Sync level = CM_SYNC_POINT",
                  "Conversation characteristics", " Sync level = CM_NONE"},
                 {"CMSSL response, result = CM_PROGRAM_PARAMETER_CHECK",
                  "Conversation characteristics", " Sync level = CM_NONE"});
}

TEST_F(CharacteristicsTraceTest, LogDataShowsTheTextAsPassedAndTheStoredLength) {
  Conversation c = make();
  c.cccb->ulConversationType = CM_BASIC_CONVERSATION;
  g_records.clear();
  ASSERT_EQ(CM_OK, set_text(cmsld, c, "ab"));
  expect_records(
      {"CMSLD request", id_line(c), "---- Buffer at address *", "dump 6162", " Log data length = 2",
       "Conversation characteristics", " Log data pointer = *", " Log data length = 0"},
      {"CMSLD response, result = CM_OK", "Conversation characteristics", " Log data pointer = *",
       " Log data length = 10"});
}

// An unknown conversation has no CCCB: the characteristics print as zero.
TEST_F(CharacteristicsTraceTest, AnUnknownConversationTracesBlankCharacteristics) {
  auto id = unknown_id();
  CM_INT32 type = CM_MAPPED_CONVERSATION;
  CM_RETURN_CODE rc = -1;
  cmsct(id.data(), &type, &rc);
  expect_records({"CMSCT request", " Conversation ID = 77665544",
                  " Conversation type = CM_MAPPED_CONVERSATION", "Conversation characteristics",
                  " Conversation type = CM_BASIC_CONVERSATION"},
                 {"CMSCT response, result = CM_PROGRAM_PARAMETER_CHECK",
                  "Conversation characteristics", " Conversation type = CM_BASIC_CONVERSATION"});
}

TEST_F(CharacteristicsTraceTest, SecurityTracesTheUserIdButNeverThePassword) {
  Conversation c = make();
  c.cccb->SideInfo.conversation_security_type = CM_SECURITY_PROGRAM;
  g_records.clear();
  ASSERT_EQ(CM_OK, set_text(xcscsu, c, "USER"));
  expect_records({"XCSCSU request", id_line(c), " Security user ID =", "dump 55534552",
                  " Security user ID length = 4", "Conversation characteristics",
                  " Security user ID =", "dump 4040404040404040"},
                 {"XCSCSU response, result = CM_OK", "Conversation characteristics",
                  " Security user ID =", "dump E4E2C5D940404040"});

  ASSERT_EQ(CM_OK, set_text(cmscsp, c, "SECRET"));
  expect_records({"CMSCSP request", id_line(c)}, {"CMSCSP response, result = CM_OK"});

  Extracted user = extract_text(cmecsu, c.id_ptr());
  ASSERT_EQ(CM_OK, user.rc);
  expect_records({"CMECSU request", id_line(c)},
                 {"CMECSU response, result = CM_OK", " Security user ID =", "dump 55534552",
                  " Security user ID length = 4"});
}

TEST_F(CharacteristicsTraceTest, ExtractCallsShowTheirOutParameters) {
  Conversation c = make();
  ASSERT_EQ(CM_OK, set_text(cmslln, c, "LU1"));
  ASSERT_EQ(CM_OK, set_text(cmstpn, c, "TPX"));
  g_records.clear();

  Extracted lu = extract_text(cmelln, c.id_ptr());
  ASSERT_EQ(CM_OK, lu.rc);
  expect_records({"CMELLN request", id_line(c)},
                 {"CMELLN response, result = CM_OK", " Local LU name =", "dump 4C55312020202020",
                  " Local LU name length = 8"});

  Extracted tp = extract_text(cmetpn, c.id_ptr());
  ASSERT_EQ(CM_OK, tp.rc);
  expect_records({"CMETPN request", id_line(c)},
                 {"CMETPN response, result = CM_OK", " Local TP name =", "dump 545058",
                  " TP name length = 3"});

  CM_INT32 type = -1;
  CM_RETURN_CODE rc = -1;
  cmect(c.id_ptr(), &type, &rc);
  expect_records({"CMECT request", id_line(c)},
                 {"CMECT response, result = CM_OK", " Conversation type = CM_MAPPED_CONVERSATION"});

  CM_INT32 size = 0;
  cmembs(&size, &rc);
  expect_records({"CMEMBS request"},
                 {"CMEMBS response, result = CM_OK", " Maximum buffer size = 32767"});
}

TEST_F(CharacteristicsTraceTest, ConversionShowsTheBufferBeforeAndAfter) {
  unsigned char buffer[] = {'H', 'i'};
  CM_INT32 length = 2;
  CM_RETURN_CODE rc = -1;
  cmcnvo(buffer, &length, &rc);
  ASSERT_EQ(CM_OK, rc);
  expect_records({"CMCNVO request", "---- Buffer at address *", "dump 4869"},
                 {"CMCNVO response, result = CM_OK", "---- Buffer at address *", "dump C889"});

  length = 0;
  cmcnvi(buffer, &length, &rc);
  expect_records({"CMCNVI request", " Buffer empty"},
                 {"CMCNVI response, result = CM_OK", " Buffer empty"});
}

}  // namespace
