// The API trace: the entry that locks the trace file around each record, the
// record texts of the verbs, the unusual values, and what the calls hand the
// writer.  This program's own definitions of the node's trace services take
// the place of the node library's, so every record is captured as text.
#include <cerrno>
#include <cstdio>

#include "library/support.h"
#include "trace_writer.h"

namespace {

using namespace lib_test;
using Lines = std::vector<std::string>;

Lines g_calls;  // every call to the trace services, in order
int32_t g_handle = 7;
unsigned char *g_flags = nullptr;

std::string hex(const void *data, uint32_t length) {
  std::string out = "dump ";
  for (uint32_t i = 0; i < length; ++i) {
    char two[3];
    std::snprintf(two, sizeof two, "%02X", static_cast<const unsigned char *>(data)[i]);
    out += two;
  }
  return out;
}

}  // namespace

extern "C" {
void sepuapi_init(unsigned char *flags) {
  g_flags = flags;
  g_calls.push_back("init");
}
void trc_lock_file(TRC_API *api) {
  api->file_handle = g_handle;
  g_calls.push_back("lock");
}
void trc_unlock_file(TRC_API *api) {
  g_calls.push_back("unlock " + std::to_string(api->file_handle));
}
void com_trc_sep(int32_t handle, const char *component) {
  EXPECT_EQ(handle, g_handle);
  EXPECT_STREQ(component, "CPIC ");
  g_calls.push_back("----");
}
void com_trc_line(int32_t, const char *, const char *text) {
  g_calls.push_back(text);
}
void com_trc_dump(int32_t, const char *, const void *data, uint32_t length) {
  g_calls.push_back(hex(data, length));
}
}

namespace {

class Trace : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
    g_calls.clear();
  }
  void TearDown() override { ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT; }

  // The records written since the last call, each without its separator.
  static std::vector<Lines> records() {
    std::vector<Lines> out;
    for (const std::string &line : g_calls) {
      if (line == "----") {
        out.emplace_back();
      } else if (!out.empty() && line != "lock" && !line.starts_with("unlock")) {
        out.back().push_back(line);
      }
    }
    g_calls.clear();
    return out;
  }
  // One record written straight through the writer.
  static Lines record(uint32_t kind, uint16_t verb, const void *cccb, const void *arg4,
                      std::initializer_list<const void *> args = {}) {
    uintptr_t a[5] = {};
    std::transform(args.begin(), args.end(), a, trace_arg);
    g_calls.clear();
    seputrcp_d(kind, verb, const_cast<void *>(cccb), arg4, a[0], a[1], a[2], a[3], a[4], g_handle);
    const auto out = records();
    return out.size() == 1 ? out[0] : Lines{"<" + std::to_string(out.size()) + " records>"};
  }
  static std::string id_line(const ConvId &id) {
    char line[64];
    std::snprintf(line, sizeof line, " Conversation ID = %02X%02X%02X%02X", id[0], id[1], id[2],
                  id[3]);
    return line;
  }
};

// ---- the entry ----

TEST_F(Trace, TheEntryPreparesOnceLocksTheFileAndDropsRecordsWithoutOne) {
  ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT;
  trc_api.initialised = 0;
  const unsigned char id[8] = {0x12, 0x34, 0x56, 0x78};
  seputrcp(1, 10, nullptr, id, 0, 0, 0, 0, 0);
  seputrcp(2, 10, nullptr, id, 0, 0, 0, 0, 0);
  EXPECT_EQ(g_calls, Lines{"init"}) << "nothing written while the trace bit is clear";
  EXPECT_EQ(g_flags, ptrc);

  ptrc[SNANODE_TRACE_API_BYTE] |= SNANODE_TRACE_API_BIT;
  g_calls.clear();
  g_handle = 9;
  seputrcp(1, 10, nullptr, id, 0, 0, 0, 0, 0);
  EXPECT_EQ(g_calls,
            (Lines{"lock", "----", "CMFLUS request", " Conversation ID = 12345678", "unlock 9"}));
  // Without a trace file the record is dropped and nothing else changes.
  g_calls.clear();
  g_handle = -1;
  CM_RETURN_CODE rc = CM_PROGRAM_STATE_CHECK;
  errno = 1234;
  seputrcp(2, 10, nullptr, &rc, 0, 0, 0, 0, 0);
  EXPECT_EQ(g_calls, Lines{"lock"});
  EXPECT_EQ(std::pair(rc, errno), std::pair(CM_PROGRAM_STATE_CHECK, 1234));
  g_handle = 7;
}

// ---- record texts ----

TEST_F(Trace, EveryVerbHasItsNameInItsHeaders) {
  const std::string names =
      "CMACCP CMALLC CMCFM CMCFMD CMDEAL CMECS CMECT CMEMN CMEPLN CMESL CMFLUS CMINIT CMPTR "
      "CMRCV CMRTS CMSEND CMSERR CMSCT CMSDT CMSED CMSF CMSLD CMSMN CMSPLN CMSPTR CMSRT CMSRC "
      "CMSST CMSSL CMSTPN CMTRTS XCMDSI XCECST XCECSU XCMESI XCSCSP XCSCST XCSCSU XCMSSI CMTERM "
      "CMSPM CMINIC CMACCI CMWAIT CMCANC CMCHCK CMSCST CMSCSU CMSCSP CMESUI CMSLTP CMRLTP CMETPN "
      "CMCNVI CMCNVO CMEMBS CMECTX CMSCTX CMECSU CMECST CMELLN XCHWND CMSLLN ";
  const CCCB cccb{};
  const int32_t ok = 0;
  const unsigned char buffer[128] = {};
  uint16_t verb = 0;
  for (size_t at = 0, end; (end = names.find(' ', at)) != std::string::npos; at = end + 1, ++verb) {
    const std::string name = names.substr(at, end - at);
    EXPECT_EQ(record(1, verb, &cccb, buffer, {buffer, buffer}).at(0), name + " request");
    EXPECT_EQ(record(2, verb, &cccb, &ok, {buffer, buffer}).at(0),
              name + " response, result = CM_OK");
  }
  EXPECT_EQ(verb, 63);
  // Above 62: the header only, whatever the arguments.
  EXPECT_EQ(record(1, 63, &cccb, buffer, {buffer}), Lines{"***UNKNOWN VERB*** request"});
  EXPECT_EQ(record(2, 0xFFFF, &cccb, &ok, {buffer}),
            Lines{"***UNKNOWN VERB*** response, result = CM_OK"});
  EXPECT_EQ(record(3, 10, &cccb, &ok).at(0), "CMFLUS async response, result = CM_OK");
  const int32_t check = 24;
  EXPECT_EQ(record(0x10002, 10, &cccb, &check).at(0),
            "CMFLUS response, result = CM_PROGRAM_PARAMETER_CHECK")
      << "only the low 16 bits of the kind count";
}

TEST_F(Trace, ReturnCodesInTheResponseHeader) {
  const std::pair<int32_t, const char *> cases[] = {
      {35, "CM_OPERATION_INCOMPLETE"},
      {37, "CM_OPERATION_NOT_ACCEPTED"},
      {4, "CM_***UNKNOWN RC***"},
      {50, "CM_***UNKNOWN RC***"},
      {100, "CM_TAKE_BACKOUT"},
      {137, "CM_INCLUDE_PARTNER_REJECT_BO"},
      {138, "***UNKNOWN RC*** (rc=138)"},
      {-1, "***UNKNOWN RC*** (rc=65535)"},  // the low 16 bits, unsigned
      {0x12345, "***UNKNOWN RC*** (rc=9029)"},
  };
  for (const auto &[rc, text] : cases) {
    EXPECT_EQ(record(2, 15, nullptr, &rc).at(0), std::string("CMSEND response, result = ") + text);
  }
}

// A conversation whose every characteristic differs from its default.
CCCB sample_cccb(unsigned char *log_data) {
  CCCB c{};
  std::tie(c.ulConversationType, c.ulDeallocateType, c.ulErrorDirection, c.ulSyncLevel, c.ulFill,
           c.ulPrepareToReceiveType, c.ulReceiveType, c.ulSendType, c.ulReturnControl,
           c.SideInfo.conversation_security_type) = std::tuple(1, 3, 1, 1, 1, 2, 1, 4, 1, 2);
  c.usProcessingMode = 1;
  c.pLogData = log_data;
  c.usLogDataLength = 12;
  std::memcpy(c.SideInfo.sym_dest_name, "SIDEDEST", 8);
  std::memset(c.SideInfo.partner_LU_name, 0xC1, 17);
  std::memset(c.SideInfo.mode_name, 0xD4, 8);
  std::memset(c.SideInfo.TP_name, 0xE3, 64);
  std::memset(c.SideInfo.security_user_ID, 0xE4, 10);
  std::memcpy(c.LocalLUName, "LOCALLU1", 8);
  return c;
}

// Records of a representative verb of each shape, line by line.
TEST_F(Trace, RecordsOfEachShape) {
  unsigned char log[12] = {};
  CCCB cccb = sample_cccb(log);
  const unsigned char id[8] = {0x0A, 0x1B, 0x2C, 0x3D}, new_id[8] = {0xF0, 1, 2, 3, 9, 9, 9, 9};
  const unsigned char name[17] = "NAMEARGUMENT";
  unsigned char data[16] = {0x68, 0x65, 0x6C, 0x6C, 0x6F};
  unsigned char entry[124] = "ENTRYDST";
  entry[28] = entry[104] = 1;  // TP name type and security type
  char pointer[32];
  std::snprintf(pointer, sizeof pointer, "%p", static_cast<void *>(log));
  const std::string log_pointer = std::string(" Log data pointer = ") + pointer;
  std::snprintf(pointer, sizeof pointer, "%p", static_cast<void *>(data));
  const std::string buffer = std::string("---- Buffer at address ") + pointer + " ----";
  const int32_t ok = 0, n0 = 0, n1 = 1, n2 = 2, n4 = 4, n5 = 5, n9 = 9, n18 = 18, n124 = 124;
  const int32_t wide = 0x10006;
  const std::string chars = "Conversation characteristics", kId = " Conversation ID = 0A1B2C3D";
  const std::string lu = " Partner LU name =", lu_dump = hex(cccb.SideInfo.partner_LU_name, 17);
  const std::string mode = " Mode name =", mode_dump = hex(cccb.SideInfo.mode_name, 8);
  const std::string entry_lines[] = {" Sym dest name = ENTRYDST",
                                     " Partner LU name =",
                                     hex(entry + 8, 17),
                                     " TP name type = XC_SNA_SERVICE_TP",
                                     " Partner TP name =",
                                     hex(entry + 32, 64),
                                     " Mode name =",
                                     hex(entry + 96, 8),
                                     " Conversation security type = XC_SECURITY_SAME",
                                     " Security user ID =",
                                     hex(entry + 108, 8)};
  auto with_entry = [&](Lines l, const char *last) {
    l.insert(l.end(), std::begin(entry_lines), std::end(entry_lines));
    if (last != nullptr) l.push_back(last);
    return l;
  };
  // clang-format off
  const struct {
    uint32_t kind;
    uint16_t verb;
    const void *arg4;
    std::initializer_list<const void *> args;
    Lines expected;
  } rows[] = {
      {1, kVerbCMALLC, id, {}, {"CMALLC request", kId, chars,
          " Conversation type = CM_MAPPED_CONVERSATION", " Return control = CM_IMMEDIATE",
          " Sync level = CM_CONFIRM", " Conversation security type = XC_SECURITY_PROGRAM", lu,
          lu_dump, mode, mode_dump, " Partner TP name =", hex(cccb.SideInfo.TP_name, 64)}},
      {1, kVerbCMSEND, id, {data, &n5}, {"CMSEND request", kId, buffer, hex(data, 5),
          " Send length = 5", chars, " Send type = CM_SEND_AND_DEALLOCATE",
          " Prepare to receive type = CM_PREP_TO_RECEIVE_CONFIRM",
          " Deallocate type = CM_DEALLOCATE_ABEND"}},
      // The buffer takes the low 16 bits of the length, the length line all.
      {1, kVerbCMSLD, id, {data, &wide}, {"CMSLD request", kId, buffer, hex(data, 6),
          " Log data length = 65542", chars, log_pointer, " Log data length = 12"}},
      {1, kVerbCMRCV, id, {&n9}, {"CMRCV request", kId, " Requested length = 9", chars,
          " Conversation type = CM_MAPPED_CONVERSATION", " Fill type = CM_FILL_BUFFER",
          " Receive type = CM_RECEIVE_IMMEDIATE"}},
      {1, kVerbCMINIT, "MYDEST", {}, {"CMINIT request", " Sym dest name = MYDEST"}},
      {1, kVerbXCMSSI, nullptr, {entry, &n124}, with_entry({"XCMSSI request"}, " Entry length = 124")},
      {1, kVerbCMTERM, &n1, {}, {"CMTERM request", " End type = CM_SOFT"}},
      {1, kVerbXCHWND, reinterpret_cast<void *>(uintptr_t{0x1234}), {},
          {"XCHWND request", " Window Handle = 4660"}},
      {2, kVerbCMINIT, &ok, {new_id}, {"CMINIT response, result = CM_OK",
          " Conversation ID = F0010203", chars, " Conversation type = CM_MAPPED_CONVERSATION",
          " Deallocate type = CM_DEALLOCATE_ABEND", " Error direction = CM_SEND_ERROR",
          " Sync level = CM_CONFIRM", " Fill type = CM_FILL_BUFFER",
          " Prepare to receive type = CM_PREP_TO_RECEIVE_CONFIRM",
          " Receive type = CM_RECEIVE_IMMEDIATE", " Send type = CM_SEND_AND_DEALLOCATE",
          " Conversation security type = XC_SECURITY_PROGRAM", log_pointer,
          " Log data length = 12", " Sym dest name = SIDEDEST", lu, lu_dump, mode, mode_dump,
          " Partner TP name =", hex(cccb.SideInfo.TP_name, 64)}},
      {2, kVerbCMRCV, &ok, {data, &n2, &n9, &n4, &n0}, {"CMRCV response, result = CM_OK",
          buffer, hex(data, 9), " Data received type = CM_COMPLETE_DATA_RECEIVED",
          " Received length = 9", " Status received = CM_CONFIRM_DEALLOC_RECEIVED",
          " Request to send received = CM_REQ_TO_SEND_NOT_RECEIVED"}},
      {2, kVerbCMWAIT, &ok, {new_id, &n18}, {"CMWAIT response, result = CM_OK",
          " Conversation ID = F0010203", " Async result = CM_DEALLOCATED_NORMAL"}},
      {2, kVerbXCMESI, &ok, {entry}, with_entry({"XCMESI response, result = CM_OK"}, nullptr)},
      {2, kVerbCMSLLN, &ok, {}, {"CMSLLN response, result = CM_OK", chars, " Local LU name =",
          hex("LOCALLU1", 8)}},
      {2, kVerbCMESUI, &ok, {name, &n9}, {"CMESUI response, result = CM_OK",
          " Security user ID =", hex(name, 9), " Security user ID length = 9"}},
  };
  // clang-format on
  for (const auto &row : rows) {
    SCOPED_TRACE(row.expected[0]);
    EXPECT_EQ(record(row.kind, row.verb, &cccb, row.arg4, row.args), row.expected);
  }
}

TEST_F(Trace, UnusualValues) {
  const int32_t ok = 0, state1 = 1, state3 = 3, state19 = 19, async38 = 38, async4 = 4;
  const unsigned char id[8] = {0xDE, 0xAD, 0xBE, 0xEF, 1, 1, 1, 1};
  const std::pair<Lines, std::string> cases[] = {
      {record(2, kVerbCMECS, nullptr, &ok, {&state3}), " Conversation state = CM_SEND_STATE"},
      {record(2, kVerbCMECS, nullptr, &ok, {&state1}),
       " Conversation state = CM_***UNKNOWN CONVERSATION STATE***"},
      {record(2, kVerbCMECS, nullptr, &ok, {&state19}),
       " Conversation state = ***UNKNOWN CONVERSATION STATE***"},
      {record(2, kVerbCMWAIT, nullptr, &ok, {id, &async38}), " Async result = ***UNKNOWN RC***"},
      {record(2, kVerbCMWAIT, nullptr, &ok, {id, &async4}), " Async result = CM_***UNKNOWN RC***"},
      {record(2, kVerbCMSSL, nullptr, &ok), " Sync level = CM_NONE"},  // no conversation
      // Eight characters and no terminator: all eight and nothing beyond.
      {record(1, kVerbCMINIT, nullptr, "ABCDEFGHXYZ"), " Sym dest name = ABCDEFGH"},
  };
  for (const auto &[lines, last] : cases) EXPECT_EQ(lines.back(), last);

  // An empty receive buffer; and names dumped for the length passed, but
  // never far past the name.
  const int32_t data_type = 1, negative = -5, wild = 100000, one_past = 9;
  unsigned char name[300];
  for (size_t i = 0; i < sizeof name; ++i) name[i] = static_cast<unsigned char>(i);
  EXPECT_EQ(record(2, kVerbCMRCV, nullptr, &ok, {name, &data_type, &ok, &ok, &ok}).at(1),
            " Buffer empty");
  EXPECT_EQ(record(1, kVerbCMSMN, nullptr, id, {name, &one_past}).at(3), hex(name, 9));
  EXPECT_EQ(record(1, kVerbCMSTPN, nullptr, id, {name, &wild}).at(3), hex(name, 256));
  const Lines user = record(1, kVerbCMSCSU, nullptr, id, {name, &negative});
  EXPECT_EQ(std::pair(user.at(3), user.at(4)),
            std::pair(hex(name, 0), std::string(" Security user ID length = 4294967291")));
  EXPECT_EQ(record(1, kVerbCMSEND, nullptr, id, {name, &negative}).at(2), " Buffer empty");
}

// ---- what the calls hand the writer ----

TEST_F(Trace, CallsTraceTheirArgumentsAndTheConversationBeforeAndAfter) {
  ConvId id{};
  initialized_conversation(id);
  CM_RETURN_CODE rc = -1;
  ASSERT_EQ(set_text(cmstpn, id, "TPX"), CM_OK);
  ASSERT_EQ(set_text(cmslln, id, "LU1"), CM_OK);
  records();
  const Extracted tp = extract_text(cmetpn, id);
  // The local LU name call has no length parameter; its record shows eight.
  unsigned char lu[9];
  CM_RETURN_CODE lu_rc = -1;
  cmelln(id.data(), lu, &lu_rc);
  ConvId unknown = kUnknownId;
  CM_INT32 type = CM_MAPPED_CONVERSATION;
  cmsct(unknown.data(), &type, &rc);
  unsigned char buffer[] = {'H', 'i'};
  CM_INT32 length = 2;
  cmcnvo(buffer, &length, &rc);

  const std::string chars = "Conversation characteristics";
  const std::vector<Lines> expected = {
      {"CMETPN request", id_line(id)},
      {"CMETPN response, result = CM_OK", " Local TP name =", "dump 545058", " TP name length = 3"},
      {"CMELLN request", id_line(id)},
      {"CMELLN response, result = CM_OK", " Local LU name =", "dump 4C55312020202020",
       " Local LU name length = 8"},
      // An unknown conversation has no record: the characteristics print as zero.
      {"CMSCT request", " Conversation ID = 77665544",
       " Conversation type = CM_MAPPED_CONVERSATION", chars,
       " Conversation type = CM_BASIC_CONVERSATION"},
      {"CMSCT response, result = CM_PROGRAM_PARAMETER_CHECK", chars,
       " Conversation type = CM_BASIC_CONVERSATION"},
      {"CMCNVO request", "---- Buffer at address *", "dump 4869"},
      {"CMCNVO response, result = CM_OK", "---- Buffer at address *", "dump C889"},
  };
  auto got = records();
  for (Lines &record : got) {
    for (std::string &line : record) {
      if (line.starts_with("---- Buffer at address ")) line = "---- Buffer at address *";
    }
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(tp.rc, CM_OK);
  EXPECT_EQ(lu_rc, CM_OK);
}

TEST_F(Trace, SetCallsShowTheStoredValueAndNeverThePassword) {
  ConvId id{};
  CCCB *cccb = initialized_conversation(id);
  cccb->SideInfo.conversation_security_type = CM_SECURITY_PROGRAM;
  records();
  ASSERT_EQ(set_text(cmsmn, id, "M1"), CM_OK);
  ASSERT_EQ(set_text(xcscsu, id, "USER"), CM_OK);
  ASSERT_EQ(set_text(cmscsp, id, "SECRET"), CM_OK);
  CM_INT32 sync = CM_SYNC_POINT;
  CM_RETURN_CODE rc = -1;
  cmssl(id.data(), &sync, &rc);
  const std::string chars = "Conversation characteristics";
  const std::vector<Lines> expected = {
      {"CMSMN request", id_line(id), " Mode name =", "dump 4D31", " Mode name length = 2", chars,
       " Mode name =", "dump 4040404040404040"},
      {"CMSMN response, result = CM_OK", chars, " Mode name =", "dump D4F1404040404040"},
      {"XCSCSU request", id_line(id), " Security user ID =", "dump 55534552",
       " Security user ID length = 4", chars, " Security user ID =", "dump 4040404040404040"},
      {"XCSCSU response, result = CM_OK", chars, " Security user ID =", "dump E4E2C5D940404040"},
      {"CMSCSP request", id_line(id)},
      {"CMSCSP response, result = CM_OK"},
      {"CMSSL request", id_line(id), " Sync level = CM_SYNC_POINT", chars, " Sync level = CM_NONE"},
      {"CMSSL response, result = CM_PROGRAM_PARAMETER_CHECK", chars, " Sync level = CM_NONE"},
  };
  EXPECT_EQ(records(), expected);
}

// A non-blocking verb: the call's own response shows 35, and its completion
// writes a second response from what the call left for it.
TEST_F(Trace, ANonBlockingVerbWritesItsCompletionRecordLater) {
  ConvId id{};
  active_conversation(id, CM_MAPPED_CONVERSATION, CM_NON_BLOCKING);
  push(NAP_SEND_DATA, AP_OK, 0, 1);
  unsigned char data[2] = {'h', 'i'};
  CM_INT32 length = 2, rts = 1;
  CM_RETURN_CODE rc = -1;
  records();
  cmsend(id.data(), data, &length, &rts, &rc);
  ASSERT_EQ(rc, CM_OPERATION_INCOMPLETE);
  ASSERT_EQ(snt_complete_pending(0), 1);
  auto got = records();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].at(0), "CMSEND request");
  got.erase(got.begin());
  EXPECT_EQ(got, (std::vector<Lines>{{"CMSEND response, result = CM_OPERATION_INCOMPLETE",
                                      " Request to send received = CM_REQ_TO_SEND_RECEIVED"},
                                     {"CMSEND response, result = CM_OK",
                                      " Request to send received = CM_REQ_TO_SEND_NOT_RECEIVED"}}));
  EXPECT_EQ(rts, CM_REQ_TO_SEND_NOT_RECEIVED);
}

}  // namespace
