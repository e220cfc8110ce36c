// The daemon against clients that do not play by the rules, piece by piece:
// descriptors passed where the protocol passes none, names that would forge
// log lines, clients that grab without limit, a password verification that
// takes its time.  The daemon as a whole under abuse is daemon_abuse_test.
#include <gmock/gmock.h>
#include <condition_variable>
#include <mutex>

#include "client/daemon_protocol.h"
#include "daemon/limits.h"
#include "daemon/log_rate_limit.h"
#include "daemon/server.h"
#include "engine/security.h"
#include "node/broker_test_support.h"
#include "node/daemon_test_support.h"
#include "snanode/verbs.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using namespace snanode;
using namespace snanode::daemon;
using namespace daemon_test;

size_t open_descriptors() {
  return static_cast<size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// The daemon's end takes no descriptor at all; a process's end takes one
// only with a message that passes one.  Refused descriptors are closed at
// once, and the sender is in breach of the protocol.
TEST(DaemonHardening, DescriptorsAreTakenOnlyWithTheMessagesThatPassThem) {
  const size_t before = open_descriptors();
  struct Case {
    client::DescriptorPolicy policy;
    client::Message message;
    bool announced;
    size_t passed;
    bool taken;
  };
  const client::Message hello = client::Hello{client::kProtocolVersion, 1, 2};
  const client::Message attach = client::AttachDelivery{};
  const Case cases[] = {
      {client::DescriptorPolicy::kNone, hello, true, 1, false},    // announced, not allowed
      {client::DescriptorPolicy::kNone, hello, false, 16, false},  // slipped in unannounced
      {client::DescriptorPolicy::kNone, attach, true, 1, false},   // the daemon takes none
      {client::DescriptorPolicy::kWithTheirMessages, client::Welcome{}, true, 1, false},
      {client::DescriptorPolicy::kWithTheirMessages, attach, false, 40, false},
      {client::DescriptorPolicy::kWithTheirMessages, attach, true, 1, true},
  };
  for (const Case &c : cases) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client::UniqueFd sender(ends[0]);
    client::MessageChannel channel(client::UniqueFd(ends[1]), c.policy);
    send_raw(sender.get(), encoded(c.message, c.announced), c.passed);
    ASSERT_TRUE(channel.read_some());
    if (c.taken) {
      auto received = channel.next();
      ASSERT_TRUE(received);
      EXPECT_TRUE(received->descriptor.valid());
    } else {
      EXPECT_THROW(channel.next(), client::ProtocolError)
          << client::message_name(c.message) << " passing " << c.passed;
      // Closed on arrival, not held until the channel goes.
      EXPECT_EQ(open_descriptors(), before + 2) << client::message_name(c.message);
    }
  }
  EXPECT_EQ(open_descriptors(), before);
}

// A name with a line feed in it would write a line of its own choosing;
// every byte outside printable ASCII reaches the log escaped.  And what one
// client may hold in names and waiting accepts is capped.
TEST(DaemonHardening, NamesAreEscapedInTheLogAndEveryClientIsCapped) {
  config::NodeConfig config;
  config.node_name = "TESTNODE";
  broker_test::RecordingOutput out;
  Broker broker(config, out, nullptr);
  const auto handle = [&](ClientId id, client::Message message) {
    return broker_test::handle(broker, id, std::move(message));
  };
  for (ClientId id : {1, 2}) broker_test::join(broker, id, ::getuid());

  client::AllocateRequest forged = request_for("X\n2026-01-01 00:00:00 TP EVIL started (/bin/sh)");
  forged.mode = "#INTER\x1b[2J\xff\\";
  ASSERT_TRUE(handle(1, forged));
  ASSERT_FALSE(out.logs.empty());
  const std::string &line = out.logs.back();
  EXPECT_THAT(line, Not(HasSubstr("\n")));
  EXPECT_THAT(line, HasSubstr("TP X\\x0A2026-01-01"));
  EXPECT_THAT(line, HasSubstr("mode #INTER\\x1B[2J\\xFF\\x5C "));

  for (size_t i = 0; i < limits::kTpNamesPerClient; ++i) {
    ASSERT_TRUE(handle(1, client::RegisterTp{"TP" + std::to_string(i)})) << i;
  }
  EXPECT_FALSE(handle(1, client::RegisterTp{"ONEMORE"}));
  for (uint32_t i = 0; i < limits::kAcceptWaitsPerClient; ++i) {
    ASSERT_TRUE(handle(2, client::AcceptWait{i, {"SOMETP"}})) << i;
  }
  EXPECT_FALSE(handle(2, client::AcceptWait{9999, {"SOMETP"}}));
  EXPECT_THAT(out.logs.back(), HasSubstr("dropped: too many waiting accepts"));
}

// Lines of one kind past the budget of a window are counted, and the count
// is written once the window is over.
TEST(DaemonHardening, LogLinesOfOneKindAreRateLimited) {
  std::vector<std::string> written;
  LogRateLimit limit(3, std::chrono::seconds(10),
                     [&](const std::string &line) { written.push_back(line); });
  const auto start = LogRateLimit::Clock::now();
  for (int i = 0; i < 100; ++i) limit.log("connection", "connect " + std::to_string(i), start);
  limit.log("protocol", "dropped", start);  // another kind has its own budget
  EXPECT_EQ(written, (std::vector<std::string>{"connect 0", "connect 1", "connect 2", "dropped"}));
  ASSERT_TRUE(limit.next_flush());
  limit.flush(start + std::chrono::seconds(11));
  EXPECT_EQ(written.back(), "97 more connection lines suppressed");
  EXPECT_FALSE(limit.next_flush());
}

// A password the system takes its time to verify holds up only the
// allocation it belongs to: another client is greeted and served meanwhile,
// and the answer goes out once the verdict is in.
TEST(DaemonHardening, OtherClientsAreServedWhileAPasswordIsVerified) {
  TempDir dir;
  ::setenv("SNANODE_LOG_DIR", dir.path.c_str(), 1);
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGTERM);
  sigaddset(&handled, SIGINT);
  sigaddset(&handled, SIGCHLD);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &handled, nullptr), 0);

  std::mutex mutex;
  std::condition_variable changed;
  int verifying = 0;
  bool released = false;
  PasswordCheck slow_check = [&](const std::string &, const std::string &password) {
    std::unique_lock<std::mutex> hold(mutex);
    ++verifying;
    changed.notify_all();
    changed.wait(hold, [&] { return released; });
    return password == "right";
  };
  const auto release = [&] {
    std::lock_guard<std::mutex> hold(mutex);
    released = true;
    changed.notify_all();
  };

  config::NodeConfig config;
  config.node_name = "TESTNODE";
  config.use_pam = true;
  config.users = {{"SYSUSER", ""}};
  const std::string socket = (dir.path / "node.sock").string();
  Server server(config, socket, false, slow_check);
  std::string error;
  ASSERT_TRUE(server.listen(error)) << error;
  std::thread loop([&] { server.run(); });

  auto slow = greet(socket);
  ASSERT_TRUE(slow);
  ASSERT_TRUE(slow->send(client::RegisterTp{"SECURETP"}));
  client::AllocateRequest secured = request_for("SECURETP");
  secured.request_id = 7;
  secured.security_type = engine::kSecurityProgram;
  secured.user_id = "SYSUSER";
  secured.password = "wrong";
  ASSERT_TRUE(slow->send(secured));
  {
    std::unique_lock<std::mutex> hold(mutex);
    ASSERT_TRUE(changed.wait_for(hold, 5s, [&] { return verifying == 1; }));
  }

  // With the verification still running: a hello and an allocation answered.
  const timeval limit{5, 0};
  auto other = std::make_unique<client::MessageChannel>(client::connect_unix_socket(socket));
  ::setsockopt(other->fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ASSERT_TRUE(other->send(hello()));
  auto welcome = other->receive();
  EXPECT_TRUE(welcome && std::holds_alternative<client::Welcome>(welcome->message));
  ASSERT_TRUE(other->send(client::RegisterTp{"OTHERTP"}));
  ASSERT_TRUE(other->send(request_for("OTHERTP")));
  auto answered = other->receive();
  release();
  ASSERT_TRUE(answered);
  EXPECT_EQ(std::get<client::AllocateResult>(answered->message).primary, AP_OK);

  auto verdict = slow->receive();
  ASSERT_TRUE(verdict);
  const auto &result = std::get<client::AllocateResult>(verdict->message);
  EXPECT_EQ(result.request_id, 7u);
  EXPECT_EQ(result.primary, AP_ALLOCATION_ERROR);
  EXPECT_EQ(result.secondary, AP_SECURITY_NOT_VALID);
  secured.password = "right";
  ASSERT_TRUE(slow->send(secured));
  verdict = slow->receive();
  ASSERT_TRUE(verdict);
  EXPECT_EQ(std::get<client::AllocateResult>(verdict->message).primary, AP_OK);

  ::kill(::getpid(), SIGTERM);
  loop.join();
}

}  // namespace
