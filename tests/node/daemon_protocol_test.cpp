// The daemon protocol: message encoding, descriptor passing (also at the
// open-file limit), the socket path.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/message_channel.h"
#include "client/socket_path.h"

namespace {

using namespace snanode::client;

std::vector<uint8_t> encoded(const Message &message, bool descriptor = false) {
  std::vector<uint8_t> out;
  encode_message(message, descriptor, out);
  return out;
}
// The message of type T that `bytes` hold whole.
template <typename T>
T decoded(const std::vector<uint8_t> &bytes) {
  size_t used = 0;
  return std::get<T>(decode_message(bytes.data(), bytes.size(), used)->message);
}

// Records in lists, and byte counts past 32 bits.
StatsReport stats_report() {
  StatsReport report;
  report.query_id = 12;
  report.trace_on = true;
  report.tps = {{"PAYROLL", "APPN.LOCAL"}, {"", ""}};
  report.conversations = {
      {3, "PAYROLL", "ECHO", "APPN.LOCAL", "APPN.OTHER", "#INTER", "send", 5'000'000'001, 7, 1234}};
  report.sessions = {{"APPN.OTHER", "#INTER", 2}};
  return report;
}

std::vector<Message> one_of_each() {
  AllocateRequest allocate;
  allocate.request_id = 0x01020304;
  allocate.partner_lu = "APPN.PARTNER";
  allocate.local_lu_alias = "LOCAL2";
  allocate.allocator_lu = "APPN.LOCAL";
  allocate.mode = "#BATCH";
  allocate.tp_name = "PAYROLL";
  allocate.mapped = false;
  allocate.sync_level = 1;
  allocate.security_type = 5;
  allocate.user_id = "alice";
  allocate.password = "s3cret";
  allocate.allocator_user = "bob";
  AttachDelivery attach;
  attach.accept_id = 77;
  attach.tp_name = "PAYROLL";
  attach.mapped = false;
  attach.sync_level = 1;
  attach.user = "alice";
  attach.mode = "#BATCH";
  attach.partner_lu_name = "APPN.LOCAL";
  attach.local_lu_alias = "LOCAL2";
  attach.via_node = true;
  return {Hello{kProtocolVersion, 4242, 1000},
          Welcome{kProtocolVersion, "NODE1"},
          RegisterTp{"ECHO"},
          WithdrawTp{"ECHO"},
          AcceptWait{9, {"A", "", std::string(64, 'Z')}},
          AcceptCancel{9},
          allocate,
          AllocateResult{0x01020304, 0x0300, 0x21600810, true},
          attach,
          ControlRequest{kControlVersion, 5, {"trace", "on", "--tp", "PAYROLL"}},
          ControlReply{5, 1, true, "refused"},
          StatsQuery{12},
          stats_report(),
          TraceControl{true, "/tmp/x.trc"}};
}

TEST(DaemonProtocol, EveryMessageDecodesToWhatWasEncoded) {
  for (const Message &message : one_of_each()) {
    SCOPED_TRACE(message_name(message));
    for (const bool descriptor : {false, true}) {
      const auto bytes = encoded(message, descriptor);
      size_t used = 0;
      const auto decoded = decode_message(bytes.data(), bytes.size(), used);
      ASSERT_TRUE(decoded);
      EXPECT_EQ(used, bytes.size());
      EXPECT_EQ(decoded->message.index(), message.index());
      EXPECT_EQ(decoded->passes_descriptor, descriptor);
      // Same fields, same bytes.
      EXPECT_EQ(encoded(decoded->message, descriptor), bytes);
    }
  }
  // Field values survive, including absent optional text and empty names.
  AllocateRequest plain;
  plain.tp_name = "X";
  const auto back = decoded<AllocateRequest>(encoded(plain));
  EXPECT_EQ(std::tuple(back.allocator_user.has_value(), back.mapped, back.tp_name),
            std::tuple(false, true, "X"));
  const auto full_back = decoded<AllocateRequest>(encoded(one_of_each()[6]));
  EXPECT_EQ(std::tuple(full_back.request_id, full_back.password, full_back.allocator_user,
                       int{full_back.sync_level}, full_back.mapped),
            std::tuple(0x01020304u, "s3cret", std::optional<std::string>("bob"), 1, false));
}

TEST(DaemonProtocol, StatsReportRecordsSurviveAndALyingCountIsRefused) {
  const auto back = decoded<StatsReport>(encoded(stats_report()));
  ASSERT_EQ(back.conversations.size(), 1u);
  EXPECT_EQ(std::tuple(back.conversations[0].bytes_sent, back.conversations[0].partner_tp,
                       back.tps[0].name, back.sessions[0].in_use),
            std::tuple(uint64_t{5'000'000'001}, "ECHO", "PAYROLL", 2u));
  // A count of 65535 records in a short message: refused before any is made.
  auto lying = encoded(StatsReport{});
  lying[lying.size() - 6] = lying[lying.size() - 5] = 0xFF;  // the tps count; two empty follow
  EXPECT_THROW(decoded<StatsReport>(lying), ProtocolError);
}

TEST(DaemonProtocol, HeaderIsBigEndianLengthTypeAndDescriptorCount) {
  EXPECT_EQ(encoded(AcceptCancel{0x0A0B0C0D}, true),
            (std::vector<uint8_t>{0, 0, 0, 6, 6, 1, 0x0A, 0x0B, 0x0C, 0x0D}));
  EXPECT_EQ(encoded(RegisterTp{"AB"}), (std::vector<uint8_t>{0, 0, 0, 6, 3, 0, 0, 2, 'A', 'B'}));
}

TEST(DaemonProtocol, PartialInputWaitsAndMalformedInputIsRefused) {
  const auto bytes = encoded(one_of_each()[6]);
  size_t used = 99;
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    EXPECT_FALSE(decode_message(bytes.data(), cut, used)) << cut;
    EXPECT_EQ(used, 0u);
  }
  const std::pair<const char *, std::vector<uint8_t>> bad[] = {
      {"length below the header", {0, 0, 0, 1, 3}},
      {"length past the limit", {0, 1, 0, 0}},
      {"type zero", {0, 0, 0, 2, 0, 0}},
      {"unknown type", {0, 0, 0, 2, 99, 0}},
      {"two descriptors", {0, 0, 0, 6, 6, 2, 0, 0, 0, 1}},
      {"field past the end", {0, 0, 0, 4, 6, 0, 0, 0}},
      {"text past the end", {0, 0, 0, 5, 3, 0, 0, 9, 'A'}},
      {"bytes after the fields", {0, 0, 0, 7, 6, 0, 0, 0, 0, 1, 0}},
      {"flag neither 0 nor 1", {0, 0, 0, 14, 9, 0, 0, 0, 0, 1, 0, 0, 7, 0, 0, 0, 0, 0}},
  };
  for (const auto &[what, input] : bad) {
    EXPECT_THROW(decode_message(input.data(), input.size(), used), ProtocolError) << what;
  }
  EXPECT_THROW(encoded(RegisterTp{std::string(70000, 'x')}), ProtocolError);

  // A flag that is the only fault of an otherwise whole message: 1 reads,
  // any other value but 0 is refused.
  auto flagged = encoded(TraceControl{true, "f"});
  const size_t flag = kMessageHeaderSize;
  ASSERT_EQ(flagged[flag], 1);
  EXPECT_TRUE(decode_message(flagged.data(), flagged.size(), used));
  for (uint8_t value : {2, 7, 255}) {
    flagged[flag] = value;
    EXPECT_THROW(decode_message(flagged.data(), flagged.size(), used), ProtocolError) << +value;
  }
}

// Writes `text` into `fd` and reads it back from `reader`.
std::string through(int fd, int reader, const std::string &text) {
  EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  std::string got(text.size(), '\0');
  EXPECT_EQ(::read(reader, got.data(), got.size()), static_cast<ssize_t>(got.size()));
  return got;
}

// The same open file: the same device and inode.
bool same_file(int a, int b) {
  struct stat sa {
  }, sb{};
  return ::fstat(a, &sa) == 0 && ::fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

// The message types (variant indexes) of what arrived.
std::vector<size_t> types_of(const std::vector<ReceivedMessage> &got) {
  std::vector<size_t> out;
  for (const auto &m : got) out.push_back(m.message.index());
  return out;
}
const std::vector<size_t> kResultRegisterAttach = {Message(AllocateResult{}).index(),
                                                   Message(RegisterTp{}).index(),
                                                   Message(AttachDelivery{}).index()};

// Two ends of a connection and two pipes whose write ends travel over it.
struct Channels {
  static std::array<int, 2> connected() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    return ends;
  }
  Channels() {
    EXPECT_EQ(::pipe(first), 0);
    EXPECT_EQ(::pipe(second), 0);
  }
  ~Channels() {
    for (int fd : {first[0], first[1], second[0], second[1]}) ::close(fd);
  }
  // Up to `count` more messages, as far as the connection has them.
  std::vector<ReceivedMessage> receive(size_t count) {
    std::vector<ReceivedMessage> got;
    while (got.size() < count && receiver.read_some()) {
      while (auto m = receiver.next()) got.push_back(std::move(*m));
    }
    return got;
  }
  std::array<int, 2> ends = connected();
  MessageChannel sender{UniqueFd(ends[0])}, receiver{UniqueFd(ends[1])};
  int first[2] = {-1, -1}, second[2] = {-1, -1};
};

TEST(DaemonProtocol, ChannelPassesDescriptorsWithTheirMessages) {
  Channels c;
  ASSERT_TRUE(c.sender.send(AllocateResult{1, 0, 0}, c.first[1]));
  ASSERT_TRUE(c.sender.send(RegisterTp{"NOFD"}));
  AttachDelivery attach;
  attach.accept_id = 5;
  ASSERT_TRUE(c.sender.send(attach, c.second[1]));

  std::vector<ReceivedMessage> got = c.receive(3);
  ASSERT_EQ(types_of(got), kResultRegisterAttach);
  EXPECT_FALSE(got[1].descriptor.valid());
  // Each descriptor is the write end of the pipe sent with it.
  EXPECT_EQ(through(got[0].descriptor.get(), c.first[0], "one"), "one");
  EXPECT_EQ(through(got[2].descriptor.get(), c.second[0], "two"), "two");

  // A message that announces a descriptor nobody sent is refused.
  const auto lying = encoded(RegisterTp{"X"}, true);
  ASSERT_EQ(::write(c.sender.fd(), lying.data(), lying.size()), static_cast<ssize_t>(lying.size()));
  ASSERT_TRUE(c.receiver.read_some());
  EXPECT_THROW(c.receiver.next(), ProtocolError);
}

// In a process at its open-file limit, a descriptor the kernel cannot
// install costs only the message it came with, and the descriptors after it
// still pair with their own messages.
TEST(DaemonProtocol, ALostDescriptorFailsOnlyItsOwnMessage) {
  Channels c;
  // No descriptor can be opened: the limit is the lowest free number.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  const int lowest_free = ::dup(0);
  ASSERT_GE(lowest_free, 0);
  ::close(lowest_free);
  rlimit low = saved;
  low.rlim_cur = static_cast<rlim_t>(lowest_free);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  ASSERT_TRUE(c.sender.send(AllocateResult{1, 0, 0}, c.first[1]));
  ASSERT_TRUE(c.sender.send(RegisterTp{"NOFD"}));
  std::vector<ReceivedMessage> got = c.receive(2);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);

  AttachDelivery attach;
  attach.accept_id = 7;
  ASSERT_TRUE(c.sender.send(attach, c.second[1]));
  for (auto &m : c.receive(1)) got.push_back(std::move(m));

  ASSERT_EQ(types_of(got), kResultRegisterAttach);
  EXPECT_EQ(std::tuple(got[0].descriptor_lost, got[1].descriptor_lost, got[2].descriptor_lost),
            std::tuple(true, false, false));
  EXPECT_FALSE(got[0].descriptor.valid());
  EXPECT_EQ(std::get<AttachDelivery>(got[2].message).accept_id, 7u);
  ASSERT_TRUE(got[2].descriptor.valid());
  EXPECT_TRUE(same_file(got[2].descriptor.get(), c.second[1]));
}

TEST(DaemonProtocol, SocketPathPrecedence) {
  snanode::config::NodeConfig config;
  ::setenv("SNANODE_SOCKET", "/run/env.sock", 1);
  ::setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
  config.socket_path = "/etc/configured.sock";
  EXPECT_EQ(daemon_socket_path(config), "/etc/configured.sock");
  config.socket_path.clear();
  EXPECT_EQ(daemon_socket_path(config), "/run/env.sock");
  ::unsetenv("SNANODE_SOCKET");
  // Root's node is the system's, whatever the runtime directory says.
  EXPECT_EQ(daemon_socket_path(config),
            ::geteuid() == 0 ? "/run/snanode/snanode.sock" : "/run/user/7/snanode.sock");
  ::unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(daemon_socket_path(config), "/run/snanode/snanode.sock");
}

}  // namespace
