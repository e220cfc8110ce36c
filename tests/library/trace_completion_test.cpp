// Records of a non-blocking verb: the call's own response shows 35, and the
// completion routine later writes a second response from the verb number and
// out-parameters it stored.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/read_lines.h"
#include "verbs_support.h"

namespace {

namespace fs = std::filesystem;
using test_support::read_lines;
using namespace verbs_test;

class TraceCompletion : public VerbsTest {
 protected:
  void SetUp() override {
    VerbsTest::SetUp();
    file_ = fs::temp_directory_path() / ("trace_completion." + std::to_string(getpid()));
    fs::remove(file_);
    setenv("SNANODE_TRACE_FILE", file_.c_str(), 1);
  }
  void TearDown() override {
    ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT;
    fs::remove(file_);
  }
  // The lines of the file without separators; checks that each record opens
  // with one.
  std::vector<std::string> record_lines() const {
    std::vector<std::string> out;
    for (const std::string &line : read_lines(file_)) {
      if (line.rfind("CPIC ==== ", 0) == 0) {
        out.push_back("<separator>");
      } else {
        out.push_back(line);
      }
    }
    return out;
  }
  fs::path file_;
};

TEST_F(TraceCompletion, NonBlockingSendWritesTheCompletionRecordLater) {
  ConvId id{};
  active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  push(script(NAP_SEND_DATA, AP_OK, 0, 1));
  ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;

  unsigned char data[5] = {'h', 'e', 'l', 'l', 'o'};
  CM_INT32 length = 5;
  CM_REQUEST_TO_SEND_RECEIVED rts = 1;
  CM_RETURN_CODE rc = -1;
  cmsend(id.data(), data, &length, &rts, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);

  char id_line[64];
  std::snprintf(id_line, sizeof id_line, "CPIC  Conversation ID = %02X%02X%02X%02X", id[0], id[1],
                id[2], id[3]);
  char buffer_line[96];
  std::snprintf(buffer_line, sizeof buffer_line, "CPIC ---- Buffer at address %p ----",
                static_cast<void *>(data));
  const auto lines = record_lines();
  const std::vector<std::string> expected = {
      "<separator>",
      "CPIC CMSEND request",
      id_line,
      buffer_line,
      lines.size() > 4 ? lines[4] : "<dump>",  // layout checked by the node's tests
      "CPIC  Send length = 5",
      "CPIC Conversation characteristics",
      "CPIC  Send type = CM_BUFFER_DATA",
      "CPIC  Prepare to receive type = CM_PREP_TO_RECEIVE_SYNC_LEVEL",
      "CPIC  Deallocate type = CM_DEALLOCATE_SYNC_LEVEL",
      "<separator>",
      "CPIC CMSEND response, result = CM_OPERATION_INCOMPLETE",
      "CPIC  Request to send received = CM_REQ_TO_SEND_RECEIVED",
      "<separator>",
      "CPIC CMSEND response, result = CM_OK",
      "CPIC  Request to send received = CM_REQ_TO_SEND_NOT_RECEIVED",
  };
  EXPECT_EQ(lines, expected);
  ASSERT_GT(lines.size(), 4u);
  EXPECT_EQ(lines[4].rfind("CPIC 00000000  68 65 6C 6C 6F ", 0), 0u) << lines[4];
  EXPECT_EQ(rts, CM_REQ_TO_SEND_NOT_RECEIVED);
}

}  // namespace
