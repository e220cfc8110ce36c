// The daemon's broker driven directly: attaches, queues, time-outs,
// refusals, security, started TPs and clients that go away.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <map>

#include "node/broker_test_support.h"
#include "engine/frame.h"
#include "snanode/verbs.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using namespace snanode;
using namespace snanode::daemon;
using broker_test::RecordingOutput;
using client::AcceptWait;
using client::AllocateRequest;
using client::AllocateResult;
using client::AttachDelivery;

config::InvokableTp invokable_tp(const std::string &name) {
  config::InvokableTp tp;
  tp.tp_name = name;
  tp.program = "/bin/true";
  tp.local_lu_alias = "LOCAL";
  tp.queue_timeout_ms = 500;
  return tp;
}

config::NodeConfig test_config() {
  config::NodeConfig config;
  config.node_name = "TESTNODE";
  config.attach_timeout_ms = 1000;
  auto basic_only = invokable_tp("BASICONLY");
  basic_only.accept_mapped = false;
  auto no_confirm = invokable_tp("NOCONFIRM");
  no_confirm.accept_sync_confirm = false;
  auto secure = invokable_tp("SECURE");
  secure.security_required = true;
  auto single = invokable_tp("SINGLE");
  single.max_instances = 1;
  config.tps = {basic_only, no_confirm, secure, single};
  config.users = {{"alice", "secret"}, {"sysuser", ""}};
  config.use_pam = true;  // sysuser has no password of its own
  return config;
}

class BrokerTest : public broker_test::BrokerFixture {
 protected:
  BrokerTest()
      : BrokerFixture(test_config(), [this](const std::string &user, const std::string &password) {
          auto it = system_passwords_.find(user);
          return it != system_passwords_.end() && it->second == password;
        }) {}
  std::map<std::string, std::string> system_passwords_ = {{"sysuser", "pam-pass"}};
};

// Writes on one descriptor and reads on the other: the two ends are joined.
void expect_joined(int a, int b) {
  ASSERT_EQ(::write(a, "ping", 4), 4);
  char got[4] = {};
  ASSERT_EQ(::read(b, got, 4), 4);
  EXPECT_EQ(std::string(got, 4), "ping");
}

TEST_F(BrokerTest, AllocationReachesAWaitingAcceptWithJoinedEnds) {
  const ClientId server = join();
  const ClientId allocator = join();
  EXPECT_EQ(std::get<client::Welcome>(out_.to<client::Welcome>(server)[0]->message).node_name,
            "TESTNODE");
  ASSERT_TRUE(handle(server, client::RegisterTp{"ECHO"}));
  ASSERT_TRUE(handle(server, AcceptWait{41, {"OTHER", "ECHO"}}));
  auto r = request("ECHO");
  r.mapped = false;
  r.sync_level = 1;
  ASSERT_TRUE(handle(allocator, r));

  const auto results = out_.to<AllocateResult>(allocator);
  ASSERT_EQ(results.size(), 1u);
  const auto &result = std::get<AllocateResult>(results[0]->message);
  EXPECT_EQ(result.request_id, r.request_id);
  EXPECT_EQ(result.primary, AP_OK);
  const auto delivered = out_.to<AttachDelivery>(server);
  ASSERT_EQ(delivered.size(), 1u);
  const auto &attach = std::get<AttachDelivery>(delivered[0]->message);
  EXPECT_EQ(std::tuple(attach.accept_id, attach.tp_name, attach.mapped, int{attach.sync_level},
                       attach.partner_lu_name, attach.user.has_value()),
            std::tuple(41u, "ECHO", false, 1, "APPN.LOCAL", false));
  expect_joined(results[0]->descriptor.get(), delivered[0]->descriptor.get());
  expect_joined(delivered[0]->descriptor.get(), results[0]->descriptor.get());
  // Both ends joined here; only an attach from the network has the daemon
  // at the other side of its end.
  EXPECT_FALSE(result.via_node || attach.via_node);
  ASSERT_TRUE(handle(server, AcceptWait{42, {"ECHO"}}));
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  ::close(ends[1]);
  EXPECT_EQ(broker_.attach_from_network(request("ECHO"), client::UniqueFd(ends[0]), true), 0u);
  const auto networked = out_.to<AttachDelivery>(server);
  ASSERT_EQ(networked.size(), 2u);
  EXPECT_TRUE(std::get<AttachDelivery>(networked[1]->message).via_node);
}

TEST_F(BrokerTest, QueuedAttachesGoOldestFirstAndACancelledAcceptGetsNone) {
  const ClientId server = join();
  const ClientId allocator = join();
  ASSERT_TRUE(handle(server, client::RegisterTp{"Q"}));
  ASSERT_TRUE(handle(server, AcceptWait{1, {"NOTQ"}}));
  ASSERT_TRUE(handle(server, client::AcceptCancel{1}));
  ASSERT_TRUE(handle(allocator, request("Q")));
  ASSERT_TRUE(handle(allocator, request("Q")));
  EXPECT_TRUE(attaches(server).empty());
  const auto results = out_.to<AllocateResult>(allocator);
  ASSERT_EQ(results.size(), 2u);

  ASSERT_TRUE(handle(server, AcceptWait{2, {"Q"}}));
  ASSERT_TRUE(handle(server, AcceptWait{3, {"Q"}}));
  const auto delivered = out_.to<AttachDelivery>(server);
  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_EQ(std::pair(attaches(server)[0].accept_id, attaches(server)[1].accept_id),
            std::pair(2u, 3u));
  expect_joined(results[0]->descriptor.get(), delivered[0]->descriptor.get());
  expect_joined(results[1]->descriptor.get(), delivered[1]->descriptor.get());
  // Nothing is left to expire.
  EXPECT_FALSE(broker_.next_deadline().has_value());
}

TEST_F(BrokerTest, QueueTimeOutReachesTheAllocatingSideAsAnAttachFailure) {
  const ClientId server = join();
  const ClientId allocator = join();
  ASSERT_TRUE(handle(server, client::RegisterTp{"SLOW"}));
  ASSERT_TRUE(handle(allocator, request("SLOW")));
  ASSERT_EQ(last_result(allocator).primary, AP_OK);
  const auto deadline = broker_.next_deadline();
  ASSERT_TRUE(deadline.has_value());
  broker_.expire(*deadline - std::chrono::milliseconds(1));
  ASSERT_TRUE(broker_.next_deadline().has_value());  // not yet
  broker_.expire(*deadline);
  EXPECT_FALSE(broker_.next_deadline().has_value());

  const int end = out_.to<AllocateResult>(allocator)[0]->descriptor.get();
  std::vector<uint8_t> bytes(64);
  const ssize_t n = ::read(end, bytes.data(), bytes.size());
  ASSERT_GT(n, 0);
  bytes.resize(static_cast<size_t>(n));
  size_t used = 0;
  const auto frame = engine::decode_frame(bytes.data(), bytes.size(), used);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->type, engine::FrameType::kAttachFailed);
  EXPECT_EQ(frame->code, AP_TP_NOT_AVAILABLE_RETRY);
  // Then the orderly end, then end of stream: the link reports no loss.
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + static_cast<long>(used), bytes.end()),
            std::vector<uint8_t>(4, 0));
  EXPECT_THAT(out_.all_logs(), HasSubstr("SLOW"));
  // An accept that comes too late waits instead of getting the dead attach.
  ASSERT_TRUE(handle(server, AcceptWait{9, {"SLOW"}}));
  EXPECT_TRUE(attaches(server).empty());
}

TEST_F(BrokerTest, RefusalsCarryTheAllocationErrorAndAreLoggedWithoutPasswords) {
  const ClientId server = join();
  const ClientId allocator = join();
  ASSERT_TRUE(handle(server, client::RegisterTp{"PLAIN"}));
  struct Case {
    const char *what;
    std::string tp_name;
    bool mapped;
    uint8_t sync_level;
    uint8_t security;
    std::string user, password;
    uint32_t secondary;  // 0: accepted
  };
  const std::vector<Case> cases = {
      {"unknown name", "NOBODY", true, 0, 0, "", "", AP_TP_NAME_NOT_RECOGNIZED},
      {"mapped to a basic-only TP", "BASICONLY", true, 0, 0, "", "", AP_CONV_TYPE_MISMATCH},
      {"basic to a basic-only TP", "BASICONLY", false, 0, 0, "", "", 0},
      {"confirm to a TP without it", "NOCONFIRM", true, 1, 0, "", "", AP_SYNC_LEVEL_NOT_SUPPORTED},
      {"sync point", "PLAIN", true, 2, 0, "", "", AP_SYNC_LEVEL_NOT_SUPPORTED},
      {"wrong password", "PLAIN", true, 0, 2, "alice", "wrong-pw", AP_SECURITY_NOT_VALID},
      {"unknown user", "PLAIN", true, 0, 5, "mallory", "wrong-pw", AP_SECURITY_NOT_VALID},
      {"no security to a secure TP", "SECURE", true, 0, 0, "", "", AP_SECURITY_NOT_VALID},
      {"right password to a secure TP", "SECURE", true, 0, 2, "alice", "secret", 0},
      {"system user, system password", "SECURE", true, 0, 5, "sysuser", "pam-pass", 0},
      {"system user, wrong password", "SECURE", true, 0, 2, "sysuser", "wrong-pw",
       AP_SECURITY_NOT_VALID},
      {"unknown security type", "PLAIN", true, 0, 9, "", "", AP_SECURITY_NOT_VALID},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    auto r = request(c.tp_name);
    r.mapped = c.mapped;
    r.sync_level = c.sync_level;
    r.security_type = c.security;
    r.user_id = c.user;
    r.password = c.password;
    ASSERT_TRUE(handle(allocator, r));
    const AllocateResult result = last_result(allocator);
    EXPECT_EQ(
        std::tuple(result.request_id, result.primary, result.secondary),
        std::tuple(r.request_id, c.secondary == 0 ? AP_OK : AP_ALLOCATION_ERROR, c.secondary));
    EXPECT_EQ(out_.to<AllocateResult>(allocator).back()->descriptor.valid(), c.secondary == 0);
  }
  const std::string logs = out_.all_logs();
  EXPECT_THAT(logs, HasSubstr("NOBODY"));
  EXPECT_THAT(logs, HasSubstr("21600810"));
  EXPECT_THAT(logs, Not(HasSubstr("wrong-pw")));
  EXPECT_THAT(logs, Not(HasSubstr("pam-pass")));
  EXPECT_THAT(logs, Not(HasSubstr("secret")));
}

TEST_F(BrokerTest, SamePassesOnlyAUserThisDaemonVerifiedForTheProcess) {
  const ClientId middle = join();
  const ClientId front = join();
  const ClientId back = join();
  ASSERT_TRUE(handle(middle, AcceptWait{1, {"MIDDLE"}}));
  // front allocates to the middle TP as alice; middle then sees alice.
  auto r = request("MIDDLE");
  r.security_type = 2;
  r.user_id = "alice";
  r.password = "secret";
  ASSERT_TRUE(handle(front, r));
  ASSERT_EQ(attaches(middle).size(), 1u);
  EXPECT_EQ(attaches(middle)[0].user, std::optional<std::string>("alice"));

  // middle allocates on to SECURE with SAME: alice passes on.
  ASSERT_TRUE(handle(back, AcceptWait{2, {"SECURE"}}));
  auto same = request("SECURE");
  same.security_type = 1;
  same.allocator_user = "alice";
  ASSERT_TRUE(handle(middle, same));
  EXPECT_EQ(last_result(middle).primary, AP_OK);
  EXPECT_EQ(attaches(back).at(0).user, std::optional<std::string>("alice"));
  // front claims alice with SAME, but nobody verified alice for front.
  auto claim = request("SECURE");
  claim.security_type = 1;
  claim.allocator_user = "alice";
  ASSERT_TRUE(handle(front, claim));
  EXPECT_EQ(last_result(front).secondary, AP_SECURITY_NOT_VALID);
}

TEST_F(BrokerTest, InvokableTpIsStartedAndTakesItsAttachWhenItAccepts) {
  const ClientId allocator = join();
  ASSERT_TRUE(handle(allocator, request("SINGLE")));
  ASSERT_TRUE(handle(allocator, request("SINGLE")));
  // One instance at most, and it was started once.
  EXPECT_EQ(out_.launches, std::vector<std::string>{"SINGLE@LOCAL"});
  const ClientId started = join();
  ASSERT_TRUE(handle(started, AcceptWait{7, {"SINGLE"}}));
  ASSERT_EQ(attaches(started).size(), 1u);
  EXPECT_EQ(attaches(started)[0].local_lu_alias, "LOCAL");
  // When the instance exits, the attach still queued starts another.
  broker_.instance_exited("SINGLE");
  ASSERT_TRUE(handle(allocator, request("SINGLE")));
  EXPECT_EQ(out_.launches.size(), 2u);
}

TEST_F(BrokerTest, AClientThatGoesAwayTakesItsNamesAndAcceptsWithIt) {
  const ClientId server = join();
  const ClientId allocator = join();
  ASSERT_TRUE(handle(server, client::RegisterTp{"GONE"}));
  ASSERT_TRUE(handle(server, AcceptWait{1, {"GONE2"}}));
  broker_.disconnected(server);
  ASSERT_TRUE(handle(allocator, request("GONE")));
  EXPECT_EQ(last_result(allocator).secondary, AP_TP_NAME_NOT_RECOGNIZED);
  ASSERT_TRUE(handle(allocator, request("GONE2")));
  EXPECT_EQ(last_result(allocator).secondary, AP_TP_NAME_NOT_RECOGNIZED);
  // Withdrawing a name works the same way for a client that stays.
  const ClientId other = join();
  ASSERT_TRUE(handle(other, client::RegisterTp{"W"}));
  ASSERT_TRUE(handle(other, client::WithdrawTp{"W"}));
  ASSERT_TRUE(handle(allocator, request("W")));
  EXPECT_EQ(last_result(allocator).secondary, AP_TP_NAME_NOT_RECOGNIZED);
}

TEST_F(BrokerTest, HelloMustComeFirstAndMatchTheConnection) {
  broker_.connected(50, {::getpid(), ::getuid()});
  EXPECT_FALSE(handle(50, client::RegisterTp{"EARLY"}));
  broker_.connected(51, {::getpid(), ::getuid()});
  EXPECT_FALSE(handle(51, client::Hello{client::kProtocolVersion, 1, ::getuid()}));
  broker_.connected(52, {::getpid(), ::getuid()});
  EXPECT_FALSE(handle(52, client::Hello{client::kProtocolVersion + 1,
                                        static_cast<uint32_t>(::getpid()), ::getuid()}));
  EXPECT_TRUE(out_.to<client::Welcome>(51).empty());
  const ClientId fine = join();
  // A daemon-to-client message from a client is a protocol breach.
  EXPECT_FALSE(handle(fine, AllocateResult{}));
}

}  // namespace
