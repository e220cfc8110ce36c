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
  Conv a = h.allocate(tp, {.mapped = false, .sync_level = 1});
  ASSERT_TRUE(h.completed(&accept.vcb));
  const auto &v = accept.vcb;
  EXPECT_EQ(std::tuple(v.primary_rc, v.rcv_conv_type, v.rcv_sync_level, v.rcv_user_id[0]),
            std::tuple(AP_OK, 0, 1, 0x40));  // no user
  EXPECT_EQ(ebcdic_name(v.rcv_tp_name, 64) + "/" + ebcdic_name(v.rcv_mode_name, 8) + "/" +
                ebcdic_name(v.rcv_partner_lu_name, 17) + "/" +
                std::string(reinterpret_cast<const char *>(v.rcv_lu_alias), 8),
            "SERVER/#INTER/APPN.LOCAL/LOCAL   ");
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

  const std::tuple<std::array<uint8_t, 8>, AllocateOptions, uint32_t> cases[] = {
      {tp, {.partner = "NOWHERE"}, AP_UNKNOWN_PARTNER_LU},
      {tp, {.mode = "NOMODE"}, AP_BAD_MODE_NAME},
      {{}, {}, AP_BAD_TP_ID}};
  for (const auto &[tp_id, options, secondary] : cases) {
    SCOPED_TRACE(secondary);
    vcb = h.allocate_vcb(tp_id, options);
    ASSERT_TRUE(h.submit(&vcb));
    EXPECT_EQ(vcb.hdr.primary_rc, AP_PARAMETER_CHECK);
    EXPECT_EQ(vcb.hdr.secondary_rc, secondary);
  }
}

TEST(EngineAttach, QueuedAttachIsTakenByALaterAcceptWithItsData) {
  EngineHarness h;
  ASSERT_EQ(h.local_tp(NAP_DEFINE_LOCAL_TP, "LATER"), AP_OK);
  auto tp = h.start_tp();
  Conv a = h.allocate(tp, {.tp_name = "LATER"});
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
  const struct {
    const char *label;
    std::string tp_name;
    uint8_t security;
    std::string user, password;
    bool valid;
    std::string user_seen;
  } cases[] = {
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
  for (const auto &c : cases) {
    SCOPED_TRACE(c.label);
    EngineHarness h(cfg);
    EngineHarness::Accept accept;
    Conv a = allocate_to_waiting_accept(
        h, accept,
        {.tp_name = c.tp_name, .security = c.security, .user = c.user, .password = c.password});
    ASSERT_EQ(h.completed(&accept.vcb), c.valid);
    if (c.valid) {
      EXPECT_EQ(ebcdic_name(accept.vcb.rcv_user_id, 10), c.user_seen);
    } else {
      EXPECT_EQ(error_on_flush(h, a),
                std::pair(uint16_t{AP_ALLOCATION_ERROR}, uint32_t{AP_SECURITY_NOT_VALID}));
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
  EngineHarness::Accept middle, last;
  allocate_to_waiting_accept(
      h, middle, {.tp_name = "MIDDLE", .security = 2, .user = "ALICE", .password = "SECRET"});
  ASSERT_TRUE(h.completed(&middle.vcb));
  // The attached TP allocates on with SAME under its own (verified) TP.
  EngineHarness::prepare_accept(last, {"SECURE"});
  h.submit(&last.vcb);
  h.allocate(EngineHarness::accepted(middle).tp, {.tp_name = "SECURE", .security = 1});
  ASSERT_TRUE(h.completed(&last.vcb));
  EXPECT_EQ(ebcdic_name(last.vcb.rcv_user_id, 10), "ALICE");
}

TEST(EngineAttach, TpEndedEndsItsConversations) {
  EngineHarness h;
  auto [a, b] = h.connect();
  auto confirm_free = EngineHarness::verb<NAP_CONFIRM_VCB>(NAP_FLUSH, a);
  std::vector<uint8_t> buffer(10);
  auto wait = EngineHarness::receive_vcb(b, buffer, true);
  ASSERT_FALSE(h.submit(&wait));
  EXPECT_EQ(h.tp_ended(b.tp).primary_rc, AP_OK);
  EXPECT_EQ(wait.hdr.primary_rc, AP_CANCELLED);
  ASSERT_TRUE(h.submit(&confirm_free));
  EXPECT_EQ(confirm_free.hdr.primary_rc, AP_DEALLOC_ABEND_PROG);
  const auto again = h.tp_ended(b.tp);
  EXPECT_EQ(std::pair(again.primary_rc, again.secondary_rc),
            std::pair(uint16_t{AP_PARAMETER_CHECK}, uint32_t{AP_BAD_TP_ID}));
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
  ASSERT_TRUE(h.completed(&wait) && h.completed(&accept.vcb));
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
