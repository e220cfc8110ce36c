// Allocation and attach: TP names, queueing, security, conversation type and
// sync level checks, sessions, cancel and the end of a TP.
#include "node/engine_harness.h"

namespace engine_test {
namespace {

using snanode::engine::ebcdic_name;

config::InvokableTp invokable(const std::string &name) {
  config::InvokableTp tp;
  tp.tp_name = name;
  tp.program = "/bin/true";
  return tp;
}

// The allocation error a refused attach leaves for the allocating side's
// next verb that sends.
std::pair<uint16_t, uint32_t> error_on_flush(EngineHarness &h, const Conv &a) {
  auto flush = EngineHarness::verb<NAP_CONFIRM_VCB>(NAP_FLUSH, a);
  EXPECT_TRUE(h.submit(&flush));
  return {flush.hdr.primary_rc, flush.hdr.secondary_rc};
}

// A fresh TP allocates with `o` while an accept for the same name waits.
Conv allocate_to_waiting_accept(EngineHarness &h, EngineHarness::Accept &accept,
                                const AllocateOptions &o) {
  auto tp = h.start_tp();
  EngineHarness::prepare_accept(accept, {o.tp_name});
  EXPECT_FALSE(h.submit(&accept.vcb));
  return h.allocate(tp, o);
}

TEST(EngineAttach, AcceptReceivesTheAllocationsCharacteristics) {
  EngineHarness h;
  auto tp = h.start_tp();
  EngineHarness::Accept accept;
  EngineHarness::prepare_accept(accept, {"OTHER", "SERVER"});
  ASSERT_FALSE(h.submit(&accept.vcb));
  AllocateOptions o;
  o.mapped = false;
  o.sync_level = 1;
  Conv a = h.allocate(tp, o);
  ASSERT_TRUE(h.completed(&accept.vcb));
  EXPECT_EQ(accept.vcb.primary_rc, AP_OK);
  EXPECT_EQ(ebcdic_name(accept.vcb.rcv_tp_name, 64), "SERVER");
  EXPECT_EQ(accept.vcb.rcv_conv_type, 0);
  EXPECT_EQ(accept.vcb.rcv_sync_level, 1);
  EXPECT_EQ(ebcdic_name(accept.vcb.rcv_mode_name, 8), "#INTER");
  EXPECT_EQ(ebcdic_name(accept.vcb.rcv_partner_lu_name, 17), "APPN.LOCAL");
  EXPECT_EQ(std::string(reinterpret_cast<char *>(accept.vcb.rcv_lu_alias), 8), "LOCAL   ");
  EXPECT_EQ(accept.vcb.rcv_user_id[0], 0x40);  // no user
  EXPECT_NE(accept.vcb.conv_id, a.id);
  EXPECT_NE(std::memcmp(accept.vcb.tp_id, tp.data(), 8), 0);  // a TP of its own
}

TEST(EngineAttach, PartnerByQualifiedNameAndUnknownPartnerOrMode) {
  EngineHarness h;
  auto tp = h.start_tp();
  NAP_ALLOCATE vcb = h.allocate_vcb(tp, AllocateOptions{});
  std::memset(vcb.partner_lu_alias, 0, 8);
  snanode::engine::put_ebcdic_name("APPN.LOCAL", vcb.partner_lu_name, 17);
  ASSERT_TRUE(h.submit(&vcb));
  EXPECT_EQ(vcb.hdr.primary_rc, AP_OK);

  AllocateOptions unknown_partner, unknown_mode;
  unknown_partner.partner = "NOWHERE";
  unknown_mode.mode = "NOMODE";
  const std::array<uint8_t, 8> no_tp{};
  struct Case {
    const char *label;
    std::array<uint8_t, 8> tp;
    AllocateOptions options;
    uint32_t secondary;
  };
  for (const Case &c : {Case{"partner", tp, unknown_partner, AP_UNKNOWN_PARTNER_LU},
                        Case{"mode", tp, unknown_mode, AP_BAD_MODE_NAME},
                        Case{"tp", no_tp, AllocateOptions{}, AP_BAD_TP_ID}}) {
    SCOPED_TRACE(c.label);
    vcb = h.allocate_vcb(c.tp, c.options);
    ASSERT_TRUE(h.submit(&vcb));
    EXPECT_EQ(vcb.hdr.primary_rc, AP_PARAMETER_CHECK);
    EXPECT_EQ(vcb.hdr.secondary_rc, c.secondary);
  }
}

TEST(EngineAttach, QueuedAttachIsTakenByALaterAcceptWithItsData) {
  EngineHarness h;
  ASSERT_EQ(h.local_tp(NAP_DEFINE_LOCAL_TP, "LATER"), AP_OK);
  auto tp = h.start_tp();
  AllocateOptions o;
  o.tp_name = "LATER";
  Conv a = h.allocate(tp, o);
  ASSERT_EQ(h.send(a, "early", AP_SEND_FLUSH), AP_OK);
  EngineHarness::Accept accept;
  EngineHarness::prepare_accept(accept, {"LATER"});
  ASSERT_TRUE(h.submit(&accept.vcb));  // waiting already: taken at once
  EXPECT_EQ(h.receive(EngineHarness::accepted(accept)).data, "early");
  ASSERT_EQ(h.local_tp(NAP_DELETE_LOCAL_TP, "LATER"), AP_OK);
  EXPECT_EQ(h.local_tp(NAP_DELETE_LOCAL_TP, "LATER"), AP_PARAMETER_CHECK);
}

TEST(EngineAttach, ConversationSecurity) {
  config::NodeConfig cfg;
  cfg.users = {{"ALICE", "SECRET"}, {"PAMUSER", ""}};
  auto secure = invokable("SECURE");
  secure.security_required = true;
  cfg.tps = {secure, invokable("OPEN")};
  struct Case {
    const char *label;
    std::string tp_name;
    uint8_t security;
    std::string user, password;
    bool valid;
    std::string user_seen;
  };
  const Case cases[] = {
      {"program", "SECURE", 2, "ALICE", "SECRET", true, "ALICE"},
      {"program strong", "SECURE", 5, "ALICE", "SECRET", true, "ALICE"},
      {"wrong password", "OPEN", 2, "ALICE", "WRONG", false, ""},
      // The library sends a character it cannot convert as X'00': the bytes
      // after it are part of the password all the same.
      {"right password, then more", "OPEN", 2, "ALICE", std::string("SECRET\0BAD", 10), false, ""},
      {"unknown user", "OPEN", 2, "BOB", "SECRET", false, ""},
      {"no password to check", "OPEN", 2, "PAMUSER", "", false, ""},
      {"none to a secure TP", "SECURE", 0, "", "", false, ""},
      {"same from an unverified TP", "SECURE", 1, "ALICE", "", false, ""},
      {"same from an unverified TP, open TP", "OPEN", 1, "ALICE", "", true, ""},
      {"unknown security type", "OPEN", 3, "", "", false, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.label);
    EngineHarness h(cfg);
    AllocateOptions o;
    o.tp_name = c.tp_name;
    o.security = c.security;
    o.user = c.user;
    o.password = c.password;
    EngineHarness::Accept accept;
    Conv a = allocate_to_waiting_accept(h, accept, o);
    ASSERT_EQ(h.completed(&accept.vcb), c.valid);
    if (c.valid) {
      EXPECT_EQ(ebcdic_name(accept.vcb.rcv_user_id, 10), c.user_seen);
    } else {
      auto [primary, secondary] = error_on_flush(h, a);
      EXPECT_EQ(primary, AP_ALLOCATION_ERROR);
      EXPECT_EQ(secondary, AP_SECURITY_NOT_VALID);
    }
  }
}

TEST(EngineAttach, SameSecurityFromAVerifiedTpPassesItsUserOn) {
  config::NodeConfig cfg;
  cfg.users = {{"ALICE", "SECRET"}};
  auto secure = invokable("SECURE");
  secure.security_required = true;
  cfg.tps = {secure, invokable("MIDDLE")};
  EngineHarness h(cfg);
  auto tp = h.start_tp();
  EngineHarness::Accept middle;
  EngineHarness::prepare_accept(middle, {"MIDDLE"});
  h.submit(&middle.vcb);
  AllocateOptions o;
  o.tp_name = "MIDDLE";
  o.security = 2;
  o.user = "ALICE";
  o.password = "SECRET";
  h.allocate(tp, o);
  ASSERT_TRUE(h.completed(&middle.vcb));
  // The attached TP allocates on with SAME under its own (verified) TP.
  std::array<uint8_t, 8> middle_tp;
  std::memcpy(middle_tp.data(), middle.vcb.tp_id, 8);
  EngineHarness::Accept last;
  EngineHarness::prepare_accept(last, {"SECURE"});
  h.submit(&last.vcb);
  AllocateOptions same;
  same.tp_name = "SECURE";
  same.security = 1;
  h.allocate(middle_tp, same);
  ASSERT_TRUE(h.completed(&last.vcb));
  EXPECT_EQ(ebcdic_name(last.vcb.rcv_user_id, 10), "ALICE");
}

TEST(EngineAttach, TpEndedEndsItsConversations) {
  EngineHarness h;
  auto [a, b] = h.connect();
  auto confirm_free = EngineHarness::verb<NAP_CONFIRM_VCB>(NAP_FLUSH, a);
  NAP_TP_ENDED_VCB ended{};
  ended.opcode = NAP_TP_ENDED;
  std::memcpy(ended.tp_id, b.tp.data(), 8);
  std::vector<uint8_t> buffer(10);
  auto wait = EngineHarness::receive_vcb(b, buffer, true);
  ASSERT_FALSE(h.submit(&wait));
  ASSERT_TRUE(h.submit(&ended));
  EXPECT_EQ(ended.primary_rc, AP_OK);
  EXPECT_EQ(wait.hdr.primary_rc, AP_CANCELLED);
  ASSERT_TRUE(h.submit(&confirm_free));
  EXPECT_EQ(confirm_free.hdr.primary_rc, AP_DEALLOC_ABEND_PROG);
  ASSERT_TRUE(h.submit(&ended));
  EXPECT_EQ(ended.primary_rc, AP_PARAMETER_CHECK);
  EXPECT_EQ(ended.secondary_rc, AP_BAD_TP_ID);
}

TEST(EngineAttach, EndOfPathCompletesEveryWaitingVerb) {
  EngineHarness h;
  auto [a, b] = h.connect();
  std::vector<uint8_t> buffer(10);
  auto wait = EngineHarness::receive_vcb(b, buffer, true);
  ASSERT_FALSE(h.submit(&wait));
  EngineHarness::Accept accept;
  EngineHarness::prepare_accept(accept, {"ELSE"});
  ASSERT_FALSE(h.submit(&accept.vcb));
  h.end_path();
  ASSERT_TRUE(h.completed(&wait));
  ASSERT_TRUE(h.completed(&accept.vcb));
  EXPECT_EQ(wait.hdr.primary_rc, AP_CONV_FAILURE_NO_RETRY);
  EXPECT_EQ(accept.vcb.primary_rc, AP_CONV_FAILURE_NO_RETRY);
  EXPECT_EQ(h.simple(NAP_FLUSH, a), AP_PARAMETER_CHECK);
}

TEST(EngineAttach, GetStateAfterTheEndIsReset) {
  EngineHarness h;
  auto [a, b] = h.connect();
  ASSERT_EQ(h.deallocate(a, AP_DEALLOC_FLUSH), AP_OK);
  auto state = EngineHarness::verb<NAP_GET_STATE_VCB>(NAP_GET_STATE, a);
  state.conv_state = 0xFF;
  ASSERT_TRUE(h.submit(&state));
  EXPECT_EQ(state.hdr.primary_rc, AP_OK);
  EXPECT_EQ(state.conv_state, AP_STATE_RESET);
  EXPECT_EQ(h.state(b), AP_STATE_RECEIVE);  // until it has read the deallocation
}

}  // namespace
}  // namespace engine_test
