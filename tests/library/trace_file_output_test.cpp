// A traced call from the application's side: the records reach the trace
// file named in the environment, and tracing changes no result.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "call_frame.h"

#include "support/read_lines.h"

namespace {

namespace fs = std::filesystem;
using test_support::read_lines;

class TraceFileOutput : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = fs::temp_directory_path() /
            ("trace_file_output." + std::to_string(getpid()) + "." +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove(file_);
    setenv("SNANODE_TRACE_FILE", file_.c_str(), 1);
  }
  void TearDown() override {
    ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT;
    fs::remove(file_);
  }
  fs::path file_;
};

TEST_F(TraceFileOutput, WaitWithNothingOutstandingIsTracedAndStillAnswers25) {
  ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  unsigned char id[8] = {};
  CM_INT32 conversation_rc = 0;
  CM_RETURN_CODE rc = -1;
  cmwait(id, &conversation_rc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);

  const auto lines = read_lines(file_);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0].rfind("CPIC ==== ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "CPIC CMWAIT request");
  EXPECT_EQ(lines[2].rfind("CPIC ==== ", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3], "CPIC CMWAIT response, result = CM_PROGRAM_STATE_CHECK");
  EXPECT_EQ(lines[4], "CPIC  Conversation ID = 00000000");
  EXPECT_EQ(lines[5], "CPIC  Async result = CM_OK");
}

TEST_F(TraceFileOutput, TraceOffWritesNothing) {
  unsigned char id[8] = {};
  CM_INT32 conversation_rc = 0;
  CM_RETURN_CODE rc = -1;
  cmwait(id, &conversation_rc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_FALSE(fs::exists(file_));
}

TEST_F(TraceFileOutput, UnwritableFileChangesNoResult) {
  setenv("SNANODE_TRACE_FILE", "/proc/self/no/such/api.trc", 1);
  ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  unsigned char id[8] = {};
  CM_INT32 conversation_rc = 0;
  CM_RETURN_CODE rc = -1;
  cmchck(id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  cmwait(id, &conversation_rc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
}

}  // namespace
