// Record headers, name-table boundaries and the unusual values of the trace:
// unknown return codes and verbs, empty buffers, unterminated names, a
// missing conversation, and caller lengths longer than any name.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "call_frame.h"
#include "trace_names.h"
#include "trace_sink.h"
#include "trace_writer.h"

namespace {

using trace_sink::dump_text;
using trace_sink::kSeparator;
using Lines = std::vector<std::string>;

Lines record(uint32_t kind, uint16_t verb, void *cccb, const void *arg4, const void *a1 = nullptr,
             const void *a2 = nullptr, const void *a3 = nullptr, const void *a4 = nullptr,
             const void *a5 = nullptr) {
  trace_sink::events().clear();
  seputrcp_d(kind, verb, cccb, arg4, trace_arg(a1), trace_arg(a2), trace_arg(a3), trace_arg(a4),
             trace_arg(a5), 3);
  return trace_sink::texts();
}

std::string header(uint32_t kind, uint16_t verb, int32_t rc) {
  const Lines lines = record(kind, verb, nullptr, &rc);
  return lines.size() > 1 ? lines[1] : "<none>";
}

TEST(TraceHeaders, ReturnCodesInTheResponseHeader) {
  struct Case {
    int32_t rc;
    const char *expected;
  } const cases[] = {
      {0, "CMSEND response, result = CM_OK"},
      {4, "CMSEND response, result = CM_***UNKNOWN RC***"},
      {35, "CMSEND response, result = CM_OPERATION_INCOMPLETE"},
      {37, "CMSEND response, result = CM_OPERATION_NOT_ACCEPTED"},
      {38, "CMSEND response, result = CM_CONVERSATION_ENDING"},
      {50, "CMSEND response, result = CM_***UNKNOWN RC***"},
      {100, "CMSEND response, result = CM_TAKE_BACKOUT"},
      {137, "CMSEND response, result = CM_INCLUDE_PARTNER_REJECT_BO"},
      {138, "CMSEND response, result = ***UNKNOWN RC*** (rc=138)"},
      {200, "CMSEND response, result = ***UNKNOWN RC*** (rc=200)"},
      // Negative codes and large ones show their low 16 bits, unsigned.
      {-1, "CMSEND response, result = ***UNKNOWN RC*** (rc=65535)"},
      {0x12345, "CMSEND response, result = ***UNKNOWN RC*** (rc=9029)"},
  };
  for (const Case &c : cases) EXPECT_EQ(header(2, 15, c.rc), c.expected) << c.rc;

  EXPECT_EQ(header(3, 10, 0), "CMFLUS async response, result = CM_OK");
  EXPECT_EQ(header(0x10002, 10, 24), "CMFLUS response, result = CM_PROGRAM_PARAMETER_CHECK")
      << "only the low 16 bits of the kind count";
}

TEST(TraceHeaders, VerbNumbersAtTheEndsOfTheTable) {
  const int32_t ok = 0;
  EXPECT_EQ(record(1, 0, nullptr, nullptr), (Lines{kSeparator, "CMACCP request"}));
  EXPECT_EQ(record(1, 61, nullptr, reinterpret_cast<void *>(uintptr_t{7})),
            (Lines{kSeparator, "XCHWND request", " Window Handle = 7"}));
  EXPECT_EQ(record(2, 61, nullptr, &ok), (Lines{kSeparator, "XCHWND response, result = CM_OK"}));
  // Above 62: the header only, whatever the arguments.
  unsigned char id[8] = {1, 2, 3, 4};
  EXPECT_EQ(record(1, 63, nullptr, id, id, id), (Lines{kSeparator, "***UNKNOWN VERB*** request"}));
  EXPECT_EQ(record(2, 63, nullptr, &ok, id),
            (Lines{kSeparator, "***UNKNOWN VERB*** response, result = CM_OK"}));
  EXPECT_EQ(record(1, 0xFFFF, nullptr, id), (Lines{kSeparator, "***UNKNOWN VERB*** request"}));
  EXPECT_STREQ(trace_verb_name(62), "CMSLLN");
}

TEST(TraceNames, FirstLastAndOnePastOfEveryTable) {
  struct Case {
    const TraceNameTable *table;
    const char *first;
    uint32_t last;
    const char *last_name;
    const char *unknown;
  } const cases[] = {
      {&kConversationTypeNames, "CM_BASIC_CONVERSATION", 1, "CM_MAPPED_CONVERSATION",
       "***UNKNOWN CONVERSATION TYPE***"},
      {&kDeallocateTypeNames, "CM_DEALLOCATE_SYNC_LEVEL", 3, "CM_DEALLOCATE_ABEND",
       "***UNKNOWN DEALLOCATE TYPE***"},
      {&kErrorDirectionNames, "CM_RECEIVE_ERROR", 1, "CM_SEND_ERROR",
       "***UNKNOWN ERROR DIRECTION***"},
      {&kSyncLevelNames, "CM_NONE", 3, "CM_SYNC_POINT_NO_CONFIRM", "***UNKNOWN SYNC_LEVEL***"},
      {&kFillNames, "CM_FILL_LL", 1, "CM_FILL_BUFFER", "***UNKNOWN FILL TYPE***"},
      {&kPrepareToReceiveTypeNames, "CM_PREP_TO_RECEIVE_SYNC_LEVEL", 2,
       "CM_PREP_TO_RECEIVE_CONFIRM", "***UNKNOWN PREP_TO_RECEIVE TYPE***"},
      {&kReceiveTypeNames, "CM_RECEIVE_AND_WAIT", 1, "CM_RECEIVE_IMMEDIATE",
       "***UNKNOWN RECEIVE TYPE***"},
      {&kSendTypeNames, "CM_BUFFER_DATA", 4, "CM_SEND_AND_DEALLOCATE", "***UNKNOWN SEND TYPE***"},
      {&kReturnControlNames, "CM_WHEN_SESSION_ALLOCATED", 1, "CM_IMMEDIATE",
       "***UNKNOWN RETURN_CONTROL***"},
      {&kSecurityTypeNames, "XC_SECURITY_NONE", 5, "XC_SECURITY_PROGRAM_STRONG",
       "***UNKNOWN CONVERSATION_SECURITY_TYPE***"},
      {&kTpNameTypeNames, "XC_APPLICATION_TP", 1, "XC_SNA_SERVICE_TP",
       "***UNKNOWN TP_NAME_TYPE***"},
      {&kProcessingModeNames, "CM_BLOCKING", 1, "CM_NON_BLOCKING", "***UNKNOWN PROCESSING MODE***"},
      {&kRequestToSendNames, "CM_REQ_TO_SEND_NOT_RECEIVED", 1, "CM_REQ_TO_SEND_RECEIVED",
       "***UNKNOWN REQ_TO_SEND TYPE***"},
      {&kDataReceivedNames, "CM_NO_DATA_RECEIVED", 3, "CM_INCOMPLETE_DATA_RECEIVED",
       "***UNKNOWN DATA RECEIVED TYPE***"},
      {&kStatusReceivedNames, "CM_NO_STATUS_RECEIVED", 12, "CM_JOINT_TRANSACTION",
       "***UNKNOWN STATUS_RECEIVED***"},
      {&kConversationStateNames, "CM_***UNKNOWN CONVERSATION STATE***", 18, "CM_PREPARED_STATE",
       "***UNKNOWN CONVERSATION STATE***"},
      {&kEndTypeNames, "CM_HARD", 1, "CM_SOFT", "***UNKNOWN END TYPE***"},
      {&kReturnCodeNames, "CM_OK", 137, "CM_INCLUDE_PARTNER_REJECT_BO", "***UNKNOWN RC***"},
      {&kAsyncResultNames, "CM_OK", 37, "CM_OPERATION_NOT_ACCEPTED", "***UNKNOWN RC***"},
  };
  char name[64];
  for (const Case &c : cases) {
    SCOPED_TRACE(c.last_name);
    EXPECT_STREQ(trace_value_name(*c.table, 0, name, sizeof name), c.first);
    EXPECT_STREQ(trace_value_name(*c.table, c.last, name, sizeof name), c.last_name);
    EXPECT_STREQ(trace_value_name(*c.table, c.last + 1, name, sizeof name), c.unknown);
    EXPECT_STREQ(trace_value_name(*c.table, 0xFFFFFFFFu, name, sizeof name), c.unknown);
  }
  EXPECT_STREQ(trace_value_name(kConversationStateNames, 1, name, sizeof name),
               "CM_***UNKNOWN CONVERSATION STATE***");
  EXPECT_STREQ(trace_value_name(kConversationStateNames, 2, name, sizeof name),
               "CM_INITIALIZE_STATE");
}

TEST(TraceNames, ReturnCodeRowsWithoutANameHoldTheUnknownText) {
  const std::vector<uint32_t> unnamed = [] {
    std::vector<uint32_t> rows = {4, 12, 13, 14, 15, 16, 29};
    for (uint32_t rc = 50; rc <= 99; ++rc) rows.push_back(rc);
    for (uint32_t rc = 101; rc <= 129; ++rc) rows.push_back(rc);
    return rows;
  }();
  for (uint32_t rc = 0; rc < kTraceReturnCodeCount; ++rc) {
    ASSERT_NE(cpicrc[rc], nullptr) << rc;
    const bool is_unnamed = std::find(unnamed.begin(), unnamed.end(), rc) != unnamed.end();
    EXPECT_EQ(std::string(cpicrc[rc]) == "***UNKNOWN RC***", is_unnamed) << rc;
  }
  EXPECT_STREQ(cpicrc[9], "TPN_NOT_RECOGNISED");
  EXPECT_STREQ(cpicrc[36], "SYSTEM_EVENT");
  EXPECT_STREQ(cpicrc[130], "DEALLOCATED_ABEND_BO");
  // The status table's fourteenth row exists but is never reached.
  EXPECT_STREQ(cpicsr[13], "***UNKNOWN STATUS_RECEIVED***");
}

TEST(TraceValues, ValuesReadThroughArgumentsPrintTheirUnknownTexts) {
  CCCB cccb{};
  const int32_t ok = 0;
  const int32_t state1 = 1, state3 = 3, state19 = 19, async38 = 38, async4 = 4, async37 = 37;
  const int32_t type2 = 2;
  unsigned char id[8] = {0xDE, 0xAD, 0xBE, 0xEF, 1, 1, 1, 1};
  EXPECT_EQ(record(2, 5, &cccb, &ok, &state3).back(), " Conversation state = CM_SEND_STATE");
  EXPECT_EQ(record(2, 5, &cccb, &ok, &state1).back(),
            " Conversation state = CM_***UNKNOWN CONVERSATION STATE***");
  EXPECT_EQ(record(2, 5, &cccb, &ok, &state19).back(),
            " Conversation state = ***UNKNOWN CONVERSATION STATE***");
  EXPECT_EQ(record(2, 32, &cccb, &ok, &type2).back(),
            " Conversation security type = XC_SECURITY_PROGRAM");
  EXPECT_EQ(record(2, 43, nullptr, &ok, id, &async38),
            (Lines{kSeparator, "CMWAIT response, result = CM_OK", " Conversation ID = DEADBEEF",
                   " Async result = ***UNKNOWN RC***"}));
  EXPECT_EQ(record(2, 43, nullptr, &ok, id, &async37).back(),
            " Async result = CM_OPERATION_NOT_ACCEPTED");
  EXPECT_EQ(record(2, 43, nullptr, &ok, id, &async4).back(), " Async result = CM_***UNKNOWN RC***");

  // A TP name type of 2 in a side information entry.
  unsigned char entry[124] = {};
  const uint32_t tp_name_type = 2;
  std::memcpy(entry + 28, &tp_name_type, 4);
  const Lines lines = record(2, 34, nullptr, &ok, entry);
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines[5], " TP name type = ***UNKNOWN TP_NAME_TYPE***");
}

TEST(TraceValues, EmptyReceiveBufferAndUnterminatedNames) {
  const int32_t ok = 0, zero = 0, data_type = 1, status = 0, rts = 0;
  unsigned char buffer[4] = {9, 9, 9, 9};
  EXPECT_EQ(record(2, 13, nullptr, &ok, buffer, &data_type, &zero, &status, &rts),
            (Lines{kSeparator, "CMRCV response, result = CM_OK", " Buffer empty",
                   " Data received type = CM_DATA_RECEIVED", " Received length = 0",
                   " Status received = CM_NO_STATUS_RECEIVED",
                   " Request to send received = CM_REQ_TO_SEND_NOT_RECEIVED"}));

  // Eight characters and no terminator: all eight and nothing beyond.
  const char name[12] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'X', 'Y', 'Z', '\0'};
  EXPECT_EQ(record(1, 11, nullptr, name).back(), " Sym dest name = ABCDEFGH");
  CCCB cccb{};
  std::memcpy(cccb.SideInfo.sym_dest_name, "12345678", 8);
  std::memset(cccb.SideInfo.partner_LU_name, 'Q', sizeof cccb.SideInfo.partner_LU_name);
  const Lines init = record(2, 11, &cccb, &ok, buffer);
  EXPECT_NE(std::find(init.begin(), init.end(), " Sym dest name = 12345678"), init.end());
}

TEST(TraceValues, NoConversationReadsTheBlankBlock) {
  const int32_t new_type = 1;
  unsigned char id[8] = {};
  EXPECT_EQ(record(1, 17, nullptr, id, &new_type),
            (Lines{kSeparator, "CMSCT request", " Conversation ID = 00000000",
                   " Conversation type = CM_MAPPED_CONVERSATION", "Conversation characteristics",
                   " Conversation type = CM_BASIC_CONVERSATION"}));
  const Lines deal = record(1, 4, nullptr, id);
  ASSERT_EQ(deal.size(), 7u);
  EXPECT_EQ(deal[4], " Deallocate type = CM_DEALLOCATE_SYNC_LEVEL");
  EXPECT_EQ(deal[5], " Log data pointer = " + trace_sink::pointer_text(nullptr));
  EXPECT_EQ(deal[6], " Log data length = 0");
}

TEST(TraceValues, CallerLengthsNeverReadPastAName) {
  CCCB cccb{};
  unsigned char id[8] = {};
  unsigned char name[64] = {};
  const int32_t too_long = 100, negative = -5;
  const Lines mode = record(1, 22, &cccb, id, name, &too_long);
  ASSERT_GE(mode.size(), 5u);
  EXPECT_EQ(mode[3], " Mode name =");
  EXPECT_EQ(mode[4], dump_text(name, 8));
  EXPECT_EQ(mode[5], " Mode name length = 100");
  const Lines user = record(1, 47, &cccb, id, name, &negative);
  EXPECT_EQ(user[4], dump_text(name, 0));
  EXPECT_EQ(user[5], " Security user ID length = 4294967291");
  // A negative send length dumps nothing.
  const Lines send = record(1, 15, &cccb, id, name, &negative);
  EXPECT_EQ(send[3], " Buffer empty");
}

}  // namespace
