// The request and response records of every verb number, checked line by
// line against the texts the trace is meant to write.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "call_frame.h"
#include "trace_sink.h"
#include "trace_writer.h"

namespace {

using trace_sink::dump_text;
using trace_sink::kSeparator;
using trace_sink::pointer_text;
using Lines = std::vector<std::string>;

constexpr int32_t kHandle = 7;

class TraceRecords : public ::testing::Test {
 protected:
  void SetUp() override {
    trace_sink::events().clear();
    std::memset(&cccb_, 0, sizeof cccb_);
    cccb_.ulConversationType = 1;
    cccb_.ulDeallocateType = 3;
    cccb_.ulErrorDirection = 1;
    cccb_.ulSyncLevel = 1;
    cccb_.ulFill = 1;
    cccb_.ulPrepareToReceiveType = 2;
    cccb_.ulReceiveType = 1;
    cccb_.ulSendType = 4;
    cccb_.ulReturnControl = 1;
    cccb_.SideInfo.conversation_security_type = 2;
    cccb_.usProcessingMode = 1;
    cccb_.pLogData = log_data_;
    cccb_.usLogDataLength = 12;
    std::memcpy(cccb_.SideInfo.sym_dest_name, "SIDEDEST", 8);
    for (int i = 0; i < 17; ++i) cccb_.SideInfo.partner_LU_name[i] = 0xC1 + i;
    std::memset(cccb_.SideInfo.mode_name, 0xD4, 8);
    std::memset(cccb_.SideInfo.TP_name, 0xE3, 64);
    std::memset(cccb_.SideInfo.security_user_ID, 0xE4, 10);
    std::memcpy(cccb_.LocalLUName, "LOCALLU1", 8);
    for (int i = 0; i < 64; ++i) data_[i] = static_cast<unsigned char>(i);

    std::memset(entry_, 0, sizeof entry_);
    std::memcpy(entry_, "ENTRYDST", 8);
    const uint32_t tp_name_type = 1;
    const uint32_t security_type = 1;
    std::memcpy(entry_ + 28, &tp_name_type, 4);
    std::memcpy(entry_ + 104, &security_type, 4);
  }

  // The address of a 32-bit value that lives as long as the test.
  const int32_t *num(int32_t value) {
    numbers_.push_back(value);
    return &numbers_.back();
  }

  Lines record(uint32_t kind, uint16_t verb, const void *arg4, const void *a1 = nullptr,
               const void *a2 = nullptr, const void *a3 = nullptr, const void *a4 = nullptr,
               const void *a5 = nullptr, CCCB *cccb = nullptr) {
    trace_sink::events().clear();
    seputrcp_d(kind, verb, cccb != nullptr ? cccb : &cccb_, arg4, trace_arg(a1), trace_arg(a2),
               trace_arg(a3), trace_arg(a4), trace_arg(a5), kHandle);
    for (const auto &event : trace_sink::events()) {
      EXPECT_EQ(event.handle, kHandle);
      EXPECT_EQ(event.component, "CPIC ");
    }
    return trace_sink::texts();
  }

  // Expected-line helpers for the fixture's conversation.
  Lines chars(std::initializer_list<const char *> values) const {
    Lines out{"Conversation characteristics"};
    out.insert(out.end(), values.begin(), values.end());
    return out;
  }
  Lines log_lines() const {
    return {" Log data pointer = " + pointer_text(log_data_), " Log data length = 12"};
  }
  static Lines dump(const char *label, const void *data, uint32_t length) {
    return {label, dump_text(data, length)};
  }
  Lines partner_lu() const {
    return dump(" Partner LU name =", cccb_.SideInfo.partner_LU_name, 17);
  }
  Lines mode() const { return dump(" Mode name =", cccb_.SideInfo.mode_name, 8); }
  Lines partner_tp() const { return dump(" Partner TP name =", cccb_.SideInfo.TP_name, 64); }
  Lines user_id() const { return dump(" Security user ID =", cccb_.SideInfo.security_user_ID, 8); }
  Lines buffer(const void *data, uint32_t length) const {
    return {"---- Buffer at address " + pointer_text(data) + " ----", dump_text(data, length)};
  }
  Lines entry_lines() const {
    Lines out{" Sym dest name = ENTRYDST"};
    append(out, dump(" Partner LU name =", entry_ + 8, 17));
    out.push_back(" TP name type = XC_SNA_SERVICE_TP");
    append(out, dump(" Partner TP name =", entry_ + 32, 64));
    append(out, dump(" Mode name =", entry_ + 96, 8));
    out.push_back(" Conversation security type = XC_SECURITY_SAME");
    append(out, dump(" Security user ID =", entry_ + 108, 8));
    return out;
  }
  static void append(Lines &to, const Lines &more) {
    to.insert(to.end(), more.begin(), more.end());
  }
  static Lines join(std::initializer_list<Lines> parts) {
    Lines out;
    for (const Lines &part : parts) append(out, part);
    return out;
  }

  static constexpr const char *kId = " Conversation ID = 0A1B2C3D";
  static constexpr const char *kNewId = " Conversation ID = F0010203";
  static constexpr const char *kMapped = " Conversation type = CM_MAPPED_CONVERSATION";
  static constexpr const char *kAbend = " Deallocate type = CM_DEALLOCATE_ABEND";
  static constexpr const char *kSendError = " Error direction = CM_SEND_ERROR";
  static constexpr const char *kConfirm = " Sync level = CM_CONFIRM";
  static constexpr const char *kFillBuffer = " Fill type = CM_FILL_BUFFER";
  static constexpr const char *kPrepConfirm =
      " Prepare to receive type = CM_PREP_TO_RECEIVE_CONFIRM";
  static constexpr const char *kImmediate = " Receive type = CM_RECEIVE_IMMEDIATE";
  static constexpr const char *kSendDealloc = " Send type = CM_SEND_AND_DEALLOCATE";
  static constexpr const char *kRcImmediate = " Return control = CM_IMMEDIATE";
  static constexpr const char *kProgram = " Conversation security type = XC_SECURITY_PROGRAM";
  static constexpr const char *kRtsYes = " Request to send received = CM_REQ_TO_SEND_RECEIVED";
  static constexpr const char *kRtsNo = " Request to send received = CM_REQ_TO_SEND_NOT_RECEIVED";

  CCCB cccb_;
  unsigned char conversation_id_[8] = {0x0A, 0x1B, 0x2C, 0x3D, 0, 0, 0, 0};
  unsigned char new_id_[8] = {0xF0, 0x01, 0x02, 0x03, 0x99, 0x99, 0x99, 0x99};
  unsigned char log_data_[12] = {};
  unsigned char data_[64];
  unsigned char name_[64] = "NAMEARGUMENT";
  unsigned char entry_[124];
  std::list<int32_t> numbers_;
};

struct Row {
  uint16_t verb;
  const void *arg4;
  const void *a[5];
  Lines expected;  // after the separator
};

void check_rows(const std::vector<Row> &rows, uint32_t kind,
                const std::function<Lines(const Row &)> &run) {
  std::set<uint16_t> verbs;
  for (const Row &row : rows) {
    SCOPED_TRACE("verb " + std::to_string(row.verb));
    verbs.insert(row.verb);
    const Lines got = run(row);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got[0], kSeparator);
    const Lines body(got.begin() + 1, got.end());
    for (size_t i = 0; i < std::max(body.size(), row.expected.size()); ++i) {
      EXPECT_EQ(i < body.size() ? body[i] : "<missing>",
                i < row.expected.size() ? row.expected[i] : "<extra>")
          << "line " << i + 1 << " of kind " << kind;
    }
  }
  EXPECT_EQ(verbs.size(), 63u) << "every verb number 0 to 62 has a row";
}

TEST_F(TraceRecords, RequestRecordOfEveryVerb) {
  const void *id = conversation_id_;
  const unsigned char *nm = name_;
  const std::vector<Row> rows = {
      {0, nullptr, {}, {"CMACCP request"}},
      {1,
       id,
       {},
       join({{"CMALLC request", kId},
             chars({kMapped, kRcImmediate, kConfirm, kProgram}),
             partner_lu(),
             mode(),
             partner_tp()})},
      {2, id, {}, join({{"CMCFM request", kId}, chars({kConfirm})})},
      {3, id, {}, {"CMCFMD request", kId}},
      {4, id, {}, join({{"CMDEAL request", kId}, chars({kAbend}), log_lines()})},
      {5, id, {}, {"CMECS request", kId}},
      {6, id, {}, {"CMECT request", kId}},
      {7, id, {}, {"CMEMN request", kId}},
      {8, id, {}, {"CMEPLN request", kId}},
      {9, id, {}, {"CMESL request", kId}},
      {10, id, {}, {"CMFLUS request", kId}},
      {11, "MYDEST", {}, {"CMINIT request", " Sym dest name = MYDEST"}},
      {12, id, {}, join({{"CMPTR request", kId}, chars({kPrepConfirm})})},
      {13,
       id,
       {num(100)},
       join({{"CMRCV request", kId, " Requested length = 100"},
             chars({kMapped, kFillBuffer, kImmediate})})},
      {14, id, {}, {"CMRTS request", kId}},
      {15,
       id,
       {data_, num(5)},
       join({{"CMSEND request", kId},
             buffer(data_, 5),
             {" Send length = 5"},
             chars({kSendDealloc, kPrepConfirm, kAbend})})},
      {16, id, {}, join({{"CMSERR request", kId}, chars({kSendError}), log_lines()})},
      {17,
       id,
       {num(0)},
       join({{"CMSCT request", kId, " Conversation type = CM_BASIC_CONVERSATION"},
             chars({kMapped})})},
      {18,
       id,
       {num(1)},
       join({{"CMSDT request", kId, " Deallocate type = CM_DEALLOCATE_FLUSH"}, chars({kAbend})})},
      {19,
       id,
       {num(0)},
       join({{"CMSED request", kId, " Error direction = CM_RECEIVE_ERROR"}, chars({kSendError})})},
      {20,
       id,
       {num(0)},
       join({{"CMSF request", kId, " Fill type = CM_FILL_LL"}, chars({kFillBuffer})})},
      // The buffer takes the low 16 bits of the length, the length line all.
      {21,
       id,
       {data_, num(0x10006)},
       join({{"CMSLD request", kId},
             buffer(data_, 6),
             {" Log data length = 65542"},
             chars({}),
             log_lines()})},
      {22,
       id,
       {nm, num(6)},
       join({{"CMSMN request", kId},
             dump(" Mode name =", nm, 6),
             {" Mode name length = 6"},
             chars({}),
             mode()})},
      {23,
       id,
       {nm, num(17)},
       join({{"CMSPLN request", kId},
             dump(" Partner LU name =", nm, 17),
             {" Partner LU name length = 17"},
             chars({}),
             partner_lu()})},
      {24,
       id,
       {num(1)},
       join({{"CMSPTR request", kId, " Prepare to receive type = CM_PREP_TO_RECEIVE_FLUSH"},
             chars({kPrepConfirm})})},
      {25,
       id,
       {num(0)},
       join({{"CMSRT request", kId, " Receive type = CM_RECEIVE_AND_WAIT"}, chars({kImmediate})})},
      {26,
       id,
       {num(0)},
       join({{"CMSRC request", kId, " Return control = CM_WHEN_SESSION_ALLOCATED"},
             chars({kRcImmediate})})},
      {27,
       id,
       {num(2)},
       join({{"CMSST request", kId, " Send type = CM_SEND_AND_CONFIRM"}, chars({kSendDealloc})})},
      {28,
       id,
       {num(0)},
       join({{"CMSSL request", kId, " Sync level = CM_NONE"}, chars({kConfirm})})},
      {29,
       id,
       {nm, num(64)},
       join({{"CMSTPN request", kId},
             dump(" Partner TP name =", nm, 64),
             {" TP name length = 64"},
             chars({}),
             partner_tp()})},
      {30, id, {}, {"CMTRTS request", kId}},
      {31, nullptr, {"KEY1"}, {"XCMDSI request", " Sym dest name = KEY1"}},
      {32, id, {}, {"XCECST request", kId}},
      {33, id, {}, {"XCECSU request", kId}},
      {34,
       nullptr,
       {"KEY2", num(124)},
       {"XCMESI request", " Sym dest name = KEY2", " Entry length = 124"}},
      {35, id, {}, {"XCSCSP request", kId}},
      {36,
       id,
       {num(5)},
       join({{"XCSCST request", kId, " Conversation security type = XC_SECURITY_PROGRAM_STRONG"},
             chars({kProgram})})},
      {37,
       id,
       {nm, num(8)},
       join({{"XCSCSU request", kId},
             dump(" Security user ID =", nm, 8),
             {" Security user ID length = 8"},
             chars({}),
             user_id()})},
      {38,
       nullptr,
       {entry_, num(124)},
       join({{"XCMSSI request"}, entry_lines(), {" Entry length = 124"}})},
      {39, num(1), {}, {"CMTERM request", " End type = CM_SOFT"}},
      {40,
       id,
       {num(0)},
       {"CMSPM request", kId, " Processing mode = CM_BLOCKING", "Conversation characteristics"}},
      {41, nullptr, {}, {"CMINIC request"}},
      {42, id, {}, {"CMACCI request", kId}},
      {43, nullptr, {}, {"CMWAIT request"}},
      {44, id, {}, {"CMCANC request", kId}},
      {45, nullptr, {}, {"CMCHCK request"}},
      {46,
       id,
       {num(0)},
       join({{"CMSCST request", kId, " Conversation security type = XC_SECURITY_NONE"},
             chars({kProgram})})},
      {47,
       id,
       {nm, num(3)},
       join({{"CMSCSU request", kId},
             dump(" Security user ID =", nm, 3),
             {" Security user ID length = 3"},
             chars({}),
             user_id()})},
      {48, id, {}, {"CMSCSP request", kId}},
      {49, id, {}, {"CMESUI request", kId}},
      {50,
       nm,
       {num(10)},
       join({{"CMSLTP request"}, dump(" Local TP name =", nm, 10), {" TP name length = 10"}})},
      {51,
       nm,
       {num(10)},
       join({{"CMRLTP request"}, dump(" Local TP name =", nm, 10), {" TP name length = 10"}})},
      {52, id, {}, {"CMETPN request", kId}},
      {53, nullptr, {data_, num(0x10007)}, join({{"CMCNVI request"}, buffer(data_, 7)})},
      {54, nullptr, {data_, num(40)}, join({{"CMCNVO request"}, buffer(data_, 40)})},
      {55, nullptr, {}, {"CMEMBS request"}},
      {56, id, {}, {"CMECTX request", kId}},
      {57,
       nullptr,
       {nm, num(8)},
       join({{"CMSCTX request"}, dump(" Context ID =", nm, 8), {" Context ID length = 8"}})},
      {58, id, {}, {"CMECSU request", kId}},
      {59, id, {}, {"CMECST request", kId}},
      {60, id, {}, {"CMELLN request", kId}},
      {61,
       reinterpret_cast<const void *>(uintptr_t{0x1234}),
       {},
       {"XCHWND request", " Window Handle = 4660"}},
      {62,
       id,
       {nm, num(5)},
       join({{"CMSLLN request", kId},
             dump(" Local LU name =", nm, 5),
             {" Local LU name length = 5"}})},
  };
  check_rows(rows, 1, [&](const Row &row) {
    return record(1, row.verb, row.arg4, row.a[0], row.a[1], row.a[2], row.a[3], row.a[4]);
  });
}

TEST_F(TraceRecords, ResponseRecordOfEveryVerb) {
  const unsigned char *nm = name_;
  const unsigned char *nid = new_id_;
  auto header = [](const char *verb) { return std::string(verb) + " response, result = CM_OK"; };
  const std::vector<Row> rows = {
      {0,
       nullptr,
       {nid},
       join({{header("CMACCP"), kNewId},
             chars({kMapped, kAbend, kSendError, kConfirm, kFillBuffer, kPrepConfirm, kImmediate,
                    kSendDealloc, kProgram}),
             log_lines(),
             partner_lu(),
             mode()})},
      {1, nullptr, {}, {header("CMALLC")}},
      {2, nullptr, {num(1)}, {header("CMCFM"), kRtsYes}},
      {3, nullptr, {}, {header("CMCFMD")}},
      {4, nullptr, {}, {header("CMDEAL")}},
      {5, nullptr, {num(3)}, {header("CMECS"), " Conversation state = CM_SEND_STATE"}},
      {6, nullptr, {num(0)}, {header("CMECT"), " Conversation type = CM_BASIC_CONVERSATION"}},
      {7,
       nullptr,
       {nm, num(4)},
       join({{header("CMEMN")}, dump(" Mode name =", nm, 4), {" Mode name length = 4"}})},
      {8,
       nullptr,
       {nm, num(12)},
       join({{header("CMEPLN")},
             dump(" Partner LU name =", nm, 12),
             {" Partner LU name length = 12"}})},
      {9, nullptr, {num(2)}, {header("CMESL"), " Sync level = CM_SYNC_POINT"}},
      {10, nullptr, {}, {header("CMFLUS")}},
      {11,
       nullptr,
       {nid},
       join({{header("CMINIT"), kNewId},
             chars({kMapped, kAbend, kSendError, kConfirm, kFillBuffer, kPrepConfirm, kImmediate,
                    kSendDealloc, kProgram}),
             log_lines(),
             {" Sym dest name = SIDEDEST"},
             partner_lu(),
             mode(),
             partner_tp()})},
      {12, nullptr, {}, {header("CMPTR")}},
      {13,
       nullptr,
       {data_, num(2), num(9), num(4), num(0)},
       join({{header("CMRCV")},
             buffer(data_, 9),
             {" Data received type = CM_COMPLETE_DATA_RECEIVED", " Received length = 9",
              " Status received = CM_CONFIRM_DEALLOC_RECEIVED", kRtsNo}})},
      {14, nullptr, {}, {header("CMRTS")}},
      {15, nullptr, {num(0)}, {header("CMSEND"), kRtsNo}},
      {16, nullptr, {num(1)}, {header("CMSERR"), kRtsYes}},
      {17, nullptr, {}, join({{header("CMSCT")}, chars({kMapped})})},
      {18, nullptr, {}, join({{header("CMSDT")}, chars({kAbend})})},
      {19, nullptr, {}, join({{header("CMSED")}, chars({kSendError})})},
      {20, nullptr, {}, join({{header("CMSF")}, chars({kFillBuffer})})},
      {21, nullptr, {}, join({{header("CMSLD")}, chars({}), log_lines()})},
      {22, nullptr, {}, join({{header("CMSMN")}, chars({}), mode()})},
      {23, nullptr, {}, join({{header("CMSPLN")}, chars({}), partner_lu()})},
      {24, nullptr, {}, join({{header("CMSPTR")}, chars({kPrepConfirm})})},
      {25, nullptr, {}, join({{header("CMSRT")}, chars({kImmediate})})},
      {26, nullptr, {}, join({{header("CMSRC")}, chars({kRcImmediate})})},
      {27, nullptr, {}, join({{header("CMSST")}, chars({kSendDealloc})})},
      {28, nullptr, {}, join({{header("CMSSL")}, chars({kConfirm})})},
      {29, nullptr, {}, join({{header("CMSTPN")}, chars({}), partner_tp()})},
      {30, nullptr, {num(1)}, {header("CMTRTS"), kRtsYes}},
      {31, nullptr, {}, {header("XCMDSI")}},
      {32, nullptr, {num(1)}, {header("XCECST"), " Conversation security type = XC_SECURITY_SAME"}},
      {33,
       nullptr,
       {nm, num(7)},
       join({{header("XCECSU")},
             dump(" Security user ID =", nm, 7),
             {" Security user ID length = 7"}})},
      {34, nullptr, {entry_}, join({{header("XCMESI")}, entry_lines()})},
      {35, nullptr, {}, {header("XCSCSP")}},
      {36, nullptr, {}, join({{header("XCSCST")}, chars({kProgram})})},
      {37, nullptr, {}, join({{header("XCSCSU")}, chars({}), user_id()})},
      {38, nullptr, {}, {header("XCMSSI")}},
      {39, nullptr, {}, {header("CMTERM")}},
      {40, nullptr, {}, join({{header("CMSPM")}, chars({" Processing mode = CM_NON_BLOCKING"})})},
      {41, nullptr, {nid}, {header("CMINIC"), kNewId}},
      {42, nullptr, {}, {header("CMACCI")}},
      {43,
       nullptr,
       {nid, num(18)},
       {header("CMWAIT"), kNewId, " Async result = CM_DEALLOCATED_NORMAL"}},
      {44, nullptr, {}, {header("CMCANC")}},
      {45, nullptr, {nid}, {header("CMCHCK"), kNewId}},
      {46, nullptr, {}, join({{header("CMSCST")}, chars({kProgram})})},
      {47, nullptr, {}, join({{header("CMSCSU")}, chars({}), user_id()})},
      {48, nullptr, {}, {header("CMSCSP")}},
      {49,
       nullptr,
       {nm, num(8)},
       join({{header("CMESUI")},
             dump(" Security user ID =", nm, 8),
             {" Security user ID length = 8"}})},
      {50, nullptr, {}, {header("CMSLTP")}},
      {51, nullptr, {}, {header("CMRLTP")}},
      {52,
       nullptr,
       {nm, num(20)},
       join({{header("CMETPN")}, dump(" Local TP name =", nm, 20), {" TP name length = 20"}})},
      {53, nullptr, {data_, num(3)}, join({{header("CMCNVI")}, buffer(data_, 3)})},
      {54, nullptr, {data_, num(0x20003)}, join({{header("CMCNVO")}, buffer(data_, 3)})},
      {55, nullptr, {num(32767)}, {header("CMEMBS"), " Maximum buffer size = 32767"}},
      {56,
       nullptr,
       {nm, num(8)},
       join({{header("CMECTX")}, dump(" Context ID =", nm, 8), {" Context ID length = 8"}})},
      {57, nullptr, {}, {header("CMSCTX")}},
      {58,
       nullptr,
       {nm, num(2)},
       join({{header("CMECSU")},
             dump(" Security user ID =", nm, 2),
             {" Security user ID length = 2"}})},
      {59,
       nullptr,
       {num(5)},
       {header("CMECST"), " Conversation security type = XC_SECURITY_PROGRAM_STRONG"}},
      {60,
       nullptr,
       {nm, num(8)},
       join({{header("CMELLN")}, dump(" Local LU name =", nm, 8), {" Local LU name length = 8"}})},
      {61, nullptr, {}, {header("XCHWND")}},
      {62,
       nullptr,
       {},
       join({{header("CMSLLN")}, chars({}), dump(" Local LU name =", cccb_.LocalLUName, 8)})},
  };
  const int32_t ok = 0;
  check_rows(rows, 2, [&](const Row &row) {
    return record(2, row.verb, &ok, row.a[0], row.a[1], row.a[2], row.a[3], row.a[4]);
  });
}

}  // namespace
