// seputrcp: lazy preparation of the node's trace services, the trace bit,
// the file lock around every record, and records dropped without a file.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "call_frame.h"

namespace {

// Every call seputrcp makes to the node's trace services, in order.
std::vector<std::string> &calls() {
  static std::vector<std::string> all;
  return all;
}
int32_t handle_to_give = -1;
unsigned char *flags_seen = nullptr;

class TraceEntry : public ::testing::Test {
 protected:
  void SetUp() override {
    calls().clear();
    trc_api.initialised = 0;
    trc_api.file_handle = -1;
    ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT;
  }
  void TearDown() override { ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT; }
  static void trace_on() { ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT; }
};

const unsigned char kId[8] = {0x12, 0x34, 0x56, 0x78};

TEST_F(TraceEntry, PreparesOnceAndWritesNothingWhileTheBitIsClear) {
  seputrcp(1, 10, nullptr, kId, 0, 0, 0, 0, 0);
  seputrcp(2, 10, nullptr, kId, 0, 0, 0, 0, 0);
  EXPECT_EQ(calls(), std::vector<std::string>{"init"});
  EXPECT_EQ(flags_seen, ptrc);
  EXPECT_EQ(trc_api.initialised, 1);
}

TEST_F(TraceEntry, WritesTheRecordUnderTheFileLock) {
  trace_on();
  handle_to_give = 9;
  seputrcp(1, 10, nullptr, kId, 0, 0, 0, 0, 0);
  const std::vector<std::string> expected = {"init",
                                             "lock",
                                             "sep 9",
                                             "line 9 CPIC CMFLUS request",
                                             "line 9 CPIC  Conversation ID = 12345678",
                                             "unlock 9"};
  EXPECT_EQ(calls(), expected);
}

TEST_F(TraceEntry, NoTraceFileDropsTheRecordWithoutUnlocking) {
  trace_on();
  handle_to_give = -1;
  CM_RETURN_CODE rc = CM_PROGRAM_STATE_CHECK;
  errno = 1234;
  seputrcp(2, 10, nullptr, &rc, 0, 0, 0, 0, 0);
  EXPECT_EQ(calls(), (std::vector<std::string>{"init", "lock"}));
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(errno, 1234);
}

TEST_F(TraceEntry, FrameHelpersPassTheReturnCodeAndArguments) {
  trace_on();
  handle_to_give = 4;
  CM_RETURN_CODE rc = 0;
  {
    CallFrame frame(kVerbCMEMBS, &rc);
    frame.set(CM_PROGRAM_STATE_CHECK);
    const CM_INT32 maximum = 32767;
    if (frame.tracing()) frame.response(nullptr, &maximum);
  }
  const std::vector<std::string> expected = {
      "init",
      "lock",
      "sep 4",
      "line 4 CPIC CMEMBS response, result = CM_PROGRAM_STATE_CHECK",
      "line 4 CPIC  Maximum buffer size = 32767",
      "unlock 4"};
  EXPECT_EQ(calls(), expected);
}

}  // namespace

// The node's trace services as this test sees them.
extern "C" {
void sepuapi_init(unsigned char *flags) {
  flags_seen = flags;
  calls().push_back("init");
}
void trc_lock_file(TRC_API *api) {
  api->file_handle = handle_to_give;
  calls().push_back("lock");
}
void trc_unlock_file(TRC_API *api) {
  calls().push_back("unlock " + std::to_string(api->file_handle));
}
void com_trc_sep(int32_t handle, const char *) {
  calls().push_back("sep " + std::to_string(handle));
}
void com_trc_line(int32_t handle, const char *component, const char *text) {
  calls().push_back("line " + std::to_string(handle) + " " + component + text);
}
void com_trc_dump(int32_t handle, const char *, const void *, uint32_t length) {
  calls().push_back("dump " + std::to_string(handle) + " " + std::to_string(length));
}
}
