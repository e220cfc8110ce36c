// snanoded as a process: --check, and a daemon in a temporary directory
// brokering conversations between forked client processes whose data then
// flows over socket links.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "client/daemon_protocol.h"
#include "client/message_channel.h"
#include "core/process_lock.h"
#include "engine/conversation.h"
#include "engine/socket_link.h"
#include "node/daemon_test_support.h"
#include "snanode/verbs.h"

namespace {

using namespace snanode;
using namespace daemon_test;

struct CommandResult {
  int status = -1;
  std::string output;
};

CommandResult run(const std::string &command) {
  CommandResult result;
  FILE *pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[512];
  while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) result.output.append(buffer, n);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

TEST(DaemonProcess, CheckAcceptsAGoodFileAndExplainsEveryProblemOfABadOne) {
  TempDir dir;
  const fs::path good = dir.path / "good.toml";
  write_file(good, "[node]\nname = \"NODE1\"\nsocket_path = \"" + (dir.path / "s.sock").string() +
                       "\"\n[[tp]]\ntp_name = \"ECHOTP\"\nprogram = \"/bin/true\"\n"
                       "[[user]]\nuser_id = \"CLERK\"\npassword = \"SECRET\"\n");
  const auto ok = run(std::string(SNANODED_PATH) + " --check " + good.string());
  EXPECT_EQ(ok.status, 0) << ok.output;
  EXPECT_NE(ok.output.find("configuration is valid"), std::string::npos) << ok.output;

  const fs::path unparsable = dir.path / "unparsable.toml";
  write_file(unparsable, "[node]\nname = 5\n");
  const auto parse = run(std::string(SNANODED_PATH) + " --check " + unparsable.string());
  EXPECT_EQ(parse.status, 1) << parse.output;
  EXPECT_NE(parse.output.find("unparsable.toml:2"), std::string::npos) << parse.output;
  EXPECT_NE(parse.output.find("1 problem"), std::string::npos) << parse.output;

  // Parses, but the daemon could not work with it: three problems, all named.
  const fs::path unusable = dir.path / "unusable.toml";
  write_file(unusable, "[node]\nsocket_path = \"" + (dir.path / "missing" / "s.sock").string() +
                           "\"\n[[tp]]\ntp_name = \"ECHOTP\"\nprogram = \"" +
                           (dir.path / "no-such-program").string() +
                           "\"\n[[tp]]\ntp_name = \"DIRTP\"\nprogram = \"" + dir.path.string() +
                           "\"\n");
  const auto bad = run(std::string(SNANODED_PATH) + " --check " + unusable.string());
  EXPECT_EQ(bad.status, 1) << bad.output;
  EXPECT_NE(bad.output.find("TP ECHOTP: program"), std::string::npos) << bad.output;
  EXPECT_NE(bad.output.find("TP DIRTP: program"), std::string::npos) << bad.output;
  EXPECT_NE(bad.output.find("does not exist"), std::string::npos) << bad.output;
  EXPECT_NE(bad.output.find("3 problems"), std::string::npos) << bad.output;
}

using DaemonProcessTest = DaemonFixture;

// Connects and greets the daemon; an empty channel pointer on failure.
std::unique_ptr<client::MessageChannel> greet(const std::string &socket) {
  auto channel = std::make_unique<client::MessageChannel>(client::connect_unix_socket(socket));
  if (!channel->send(client::Hello{client::kProtocolVersion, static_cast<uint32_t>(::getpid()),
                                   static_cast<uint32_t>(::getuid())})) {
    return nullptr;
  }
  auto welcome = channel->receive();
  if (!welcome || !std::holds_alternative<client::Welcome>(welcome->message)) return nullptr;
  return channel;
}

// Receives frames into a queue the test thread waits on.
class FrameQueue : public engine::FrameSink {
 public:
  void on_frame(engine::Frame &&frame) override {
    std::lock_guard<std::mutex> hold(mutex_);
    frames_.push_back(std::move(frame));
    changed_.notify_all();
  }
  void link_lost() override {
    std::lock_guard<std::mutex> hold(mutex_);
    lost_ = true;
    changed_.notify_all();
  }
  std::optional<engine::Frame> take(std::chrono::milliseconds limit = 5s) {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!changed_.wait_for(hold, limit, [&] { return !frames_.empty(); })) return std::nullopt;
    engine::Frame frame = std::move(frames_.front());
    frames_.erase(frames_.begin());
    return frame;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<engine::Frame> frames_;
  bool lost_ = false;
};

engine::Frame data_frame(const std::string &text) {
  engine::Frame frame;
  frame.payload.assign(text.begin(), text.end());
  return frame;
}

// The accepting process: registers ECHO, takes one attach, then either echoes
// the first record reversed and ends, or (`hang`) waits to be killed.
// Returns the child's exit status, 0 when all went as expected.
int accepting_process(const std::string &socket, bool hang) {
  auto channel = greet(socket);
  if (!channel) return 2;
  channel->send(client::RegisterTp{"ECHO"});
  channel->send(client::AcceptWait{1, {"ECHO"}});
  auto attach = channel->receive();
  if (!attach || !std::holds_alternative<client::AttachDelivery>(attach->message)) return 3;
  if (std::get<client::AttachDelivery>(attach->message).accept_id != 1) return 4;
  auto link = engine::make_socket_link(attach->descriptor.release());
  FrameQueue frames;
  {
    ProcessLockGuard lock;
    link->attach(&frames);
  }
  auto first = frames.take();
  if (!first) return 5;
  if (hang) {
    for (;;) ::pause();
  }
  std::string text(first->payload.begin(), first->payload.end());
  ProcessLockGuard lock;
  link->send(data_frame(std::string(text.rbegin(), text.rend())));
  engine::Frame end;
  end.type = engine::FrameType::kDeallocate;
  link->send(std::move(end));
  link->close(true);
  return 0;
}

// Forks the accepting process and waits until the daemon knows its name.
pid_t start_acceptor(const std::string &socket, bool hang) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(accepting_process(socket, hang));
  return pid;
}

// Allocates ECHO until the acceptor has registered (it races the allocation).
std::optional<client::ReceivedMessage> allocate_echo(client::MessageChannel &channel) {
  for (uint32_t id = 1; id < 500; ++id) {
    client::AllocateRequest request = request_for("ECHO");
    request.request_id = id;
    if (!channel.send(request)) return std::nullopt;
    auto result = channel.receive();
    if (!result) return std::nullopt;
    const auto &r = std::get<client::AllocateResult>(result->message);
    if (r.secondary != AP_TP_NAME_NOT_RECOGNIZED) return result;
    std::this_thread::sleep_for(10ms);
  }
  return std::nullopt;
}

TEST_F(DaemonProcessTest, TwoProcessesConverseDirectly) {
  const pid_t acceptor = start_acceptor(socket_, false);
  ASSERT_GT(acceptor, 0);
  auto channel = greet(socket_);
  ASSERT_TRUE(channel);
  auto result = allocate_echo(*channel);
  ASSERT_TRUE(result);
  ASSERT_EQ(std::get<client::AllocateResult>(result->message).primary, AP_OK);
  ASSERT_TRUE(result->descriptor.valid());

  auto link = engine::make_socket_link(result->descriptor.release());
  FrameQueue frames;
  {
    ProcessLockGuard lock;
    link->attach(&frames);
    link->send(data_frame("hello, partner"));
  }
  auto reply = frames.take();
  ASSERT_TRUE(reply);
  EXPECT_EQ(std::string(reply->payload.begin(), reply->payload.end()), "rentrap ,olleh");
  auto end = frames.take();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->type, engine::FrameType::kDeallocate);
  int status = 0;
  ASSERT_EQ(::waitpid(acceptor, &status, 0), acceptor);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ProcessLockGuard lock;
  link->close(true);
}

// Completes a verb the test waits for.
class WaitingHost : public engine::ConversationHost {
 public:
  void verb_completed(void *, void *) override {
    std::lock_guard<std::mutex> hold(mutex_);
    done_ = true;
    changed_.notify_all();
  }
  void partner_log_data(uint32_t, const std::vector<uint8_t> &) override {}
  bool wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> hold(mutex_);
    return changed_.wait_for(hold, limit, [&] { return done_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
};

TEST_F(DaemonProcessTest, PartnerKilledMidReceiveFailsTheConversationAndDropsItsName) {
  const pid_t acceptor = start_acceptor(socket_, true);
  ASSERT_GT(acceptor, 0);
  auto channel = greet(socket_);
  ASSERT_TRUE(channel);
  auto result = allocate_echo(*channel);
  ASSERT_TRUE(result && result->descriptor.valid());

  WaitingHost host;
  engine::ConversationSetup setup;
  setup.id = 1;
  auto conversation = std::make_unique<engine::Conversation>(
      setup, engine::make_socket_link(result->descriptor.release()), host);
  NAP_RECEIVE_VCB receive{};
  uint8_t buffer[64];
  receive.hdr.opcode = NAP_RECEIVE_AND_WAIT;
  receive.hdr.opext = NAP_OPEXT_MAPPED;
  receive.hdr.conv_id = 1;
  receive.max_length = sizeof buffer;
  receive.data_pointer = buffer;
  {
    ProcessLockGuard lock;
    NAP_SEND_DATA_VCB send{};
    const char text[] = "are you there?";
    send.hdr.opcode = NAP_SEND_DATA;
    send.hdr.opext = NAP_OPEXT_MAPPED;
    send.hdr.conv_id = 1;
    send.data_length = sizeof text;
    send.data_pointer = reinterpret_cast<uint8_t *>(const_cast<char *>(text));
    send.send_data_type = 1;  // flush: the partner gets it and hangs
    ASSERT_TRUE(conversation->send_data(send, nullptr));
    ASSERT_EQ(send.hdr.primary_rc, AP_OK);
    ASSERT_FALSE(conversation->receive(receive, true, &receive));  // waits for the partner
  }
  const auto killed = std::chrono::steady_clock::now();
  ::kill(acceptor, SIGKILL);
  ASSERT_TRUE(host.wait(1s)) << "the receive was not ended within a second";
  EXPECT_LT(std::chrono::steady_clock::now() - killed, 1s);
  {
    ProcessLockGuard lock;
    EXPECT_EQ(receive.hdr.primary_rc, AP_CONV_FAILURE_NO_RETRY);
    conversation.reset();
  }
  ::waitpid(acceptor, nullptr, 0);

  // The dead process's name is gone from the node.
  std::optional<client::ReceivedMessage> refused;
  for (int tries = 0; tries < 100; ++tries) {
    client::AllocateRequest request = request_for("ECHO");
    ASSERT_TRUE(channel->send(request));
    refused = channel->receive();
    ASSERT_TRUE(refused);
    if (std::get<client::AllocateResult>(refused->message).primary != AP_OK) break;
    std::this_thread::sleep_for(10ms);  // the daemon may not have seen the hang-up yet
  }
  EXPECT_EQ(std::get<client::AllocateResult>(refused->message).secondary,
            AP_TP_NAME_NOT_RECOGNIZED);
}

// The daemon starts an invokable TP with its name, LU and the daemon's socket
// in the environment; when it never accepts, the attach times out and the
// allocating side reads the refusal from its end.
class InvokableTpTest : public DaemonFixture {
 protected:
  std::string more_config() const override {
    return "[[tp]]\ntp_name = \"STARTME\"\nprogram = \"/bin/sh\"\narguments = [\"-c\", "
           "\"echo $APPCTPN $APPCLLU $SNANODE_SOCKET > " +
           (dir_.path / "started").string() + "\"]\nqueue_timeout_ms = 300\n";
  }
};

TEST_F(InvokableTpTest, StartedWithItsEnvironmentAndTimedOutWhenItNeverAccepts) {
  auto channel = greet(socket_);
  ASSERT_TRUE(channel);
  ASSERT_TRUE(channel->send(request_for("STARTME")));
  auto result = channel->receive();
  ASSERT_TRUE(result);
  ASSERT_EQ(std::get<client::AllocateResult>(result->message).primary, AP_OK);

  // The attach-failed frame arrives once the queue time-out has passed.
  auto link = engine::make_socket_link(result->descriptor.release());
  FrameQueue frames;
  {
    ProcessLockGuard lock;
    link->attach(&frames);
  }
  auto refusal = frames.take();
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->type, engine::FrameType::kAttachFailed);
  EXPECT_EQ(refusal->code, AP_TP_NOT_AVAILABLE_RETRY);

  std::string line;
  for (int tries = 0; tries < 300 && line.empty(); ++tries) {
    std::getline(std::ifstream(dir_.path / "started"), line);
    if (line.empty()) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(line, "STARTME LOCAL " + socket_);
  ProcessLockGuard lock;
  link->close(true);
}

}  // namespace
