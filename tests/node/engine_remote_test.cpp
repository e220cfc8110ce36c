// The engine with a node daemon behind it: what goes to the daemon, what
// stays in the process, and how its answers and attaches come back.
#include <sys/socket.h>

#include <poll.h>

#include "engine/frame.h"
#include "node/engine_harness.h"

namespace engine_test {
namespace {

using snanode::client::AllocateRequest;
using snanode::client::AttachDelivery;
using snanode::client::UniqueFd;
using snanode::engine::Frame;
using snanode::engine::FrameType;

// Records what the engine tells the daemon.
struct FakeDaemon : snanode::engine::RemoteNode {
  std::vector<std::string> events;
  std::vector<AllocateRequest> allocations;
  uint32_t last_accept = 0;
  void tp_name_added(const std::string &name) override { events.push_back("+" + name); }
  void tp_name_removed(const std::string &name) override { events.push_back("-" + name); }
  void accept_waiting(uint32_t id, const std::vector<std::string> &names) override {
    last_accept = id;
    events.push_back("accept " + names.front());
  }
  void accept_ended(uint32_t) override { events.push_back("accept ended"); }
  uint32_t allocate(const AllocateRequest &request) override {
    allocations.push_back(request);
    return static_cast<uint32_t>(allocations.size());
  }
};

// The far end of a conversation socket, spoken to in frames.
struct FarEnd {
  int fds[2];
  FarEnd() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~FarEnd() { ::close(fds[1]); }
  UniqueFd near() { return UniqueFd(fds[0]); }
  void send(FrameType type, const std::string &payload = "", uint8_t flags = 0) {
    Frame frame;
    frame.type = type;
    frame.flags = flags;
    frame.payload.assign(payload.begin(), payload.end());
    std::vector<uint8_t> bytes;
    snanode::engine::encode_frame(frame, bytes);
    ASSERT_EQ(::write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  Frame receive() {
    std::vector<uint8_t> bytes;
    for (;;) {
      size_t used = 0;
      if (auto frame = snanode::engine::decode_frame(bytes.data(), bytes.size(), used))
        return *frame;
      pollfd p{fds[1], POLLIN, 0};
      EXPECT_EQ(::poll(&p, 1, 5000), 1);
      uint8_t byte;
      if (::read(fds[1], &byte, 1) != 1) return Frame{};
      bytes.push_back(byte);
    }
  }
};

TEST(EngineRemote, AllocationsNobodyHereServesGoToTheDaemonWithTheirSecurity) {
  EngineHarness h;
  FakeDaemon daemon;
  h.run([&](Engine &e) { e.set_remote(&daemon); });
  EXPECT_EQ(h.local_tp(NAP_DEFINE_LOCAL_TP, "HERE"), AP_OK);
  EXPECT_EQ(h.local_tp(NAP_DEFINE_LOCAL_TP, "HERE"), AP_OK);  // the daemon hears a name once
  EXPECT_EQ(h.local_tp(NAP_DELETE_LOCAL_TP, "HERE"), AP_OK);  // and until its last definition goes
  EXPECT_EQ((std::vector<std::string>{"+HERE"}), daemon.events);

  // A name this process serves stays in the process.
  auto tp = h.start_tp();
  h.allocate(tp, {.tp_name = "HERE"});
  EXPECT_TRUE(daemon.allocations.empty());

  NAP_ALLOCATE vcb = EngineHarness::allocate_vcb(tp, {.mapped = false,
                                                      .sync_level = 1,
                                                      .tp_name = "ELSEWHERE",
                                                      .security = 2,
                                                      .user = "CLERK",
                                                      .password = "SECRET"});
  ASSERT_FALSE(h.submit(&vcb));  // waits for the daemon's answer
  ASSERT_EQ(daemon.allocations.size(), 1u);
  const AllocateRequest &s = daemon.allocations[0];
  EXPECT_EQ(std::tuple(s.tp_name, s.mapped, s.sync_level, s.security_type, s.user_id, s.password,
                       s.mode, s.allocator_lu),
            std::tuple("ELSEWHERE", false, 1, 2, "CLERK", "SECRET", "#INTER", "APPN.LOCAL"));

  FarEnd far;
  h.run([&](Engine &e) { e.remote_allocated({1, AP_OK, 0}, far.near()); });
  ASSERT_TRUE(h.completed(&vcb));
  ASSERT_EQ(vcb.hdr.primary_rc, AP_OK);
  const Conv a{tp, vcb.hdr.conv_id, false};
  EXPECT_EQ(h.send(a, record("hi"), AP_SEND_FLUSH), AP_OK);
  const Frame data = far.receive();
  EXPECT_EQ(data.type, FrameType::kData);
  EXPECT_EQ(bytes_of(data.payload), record("hi"));

  EXPECT_EQ(h.local_tp(NAP_DELETE_LOCAL_TP, "HERE"), AP_OK);
  EXPECT_EQ((std::vector<std::string>{"+HERE", "-HERE"}), daemon.events);
}

TEST(EngineRemote, ARefusalShowsOnTheNextVerbAndAGivenUpAllocationIsAbended) {
  EngineHarness h;
  FakeDaemon daemon;
  h.run([&](Engine &e) { e.set_remote(&daemon); });
  auto tp = h.start_tp();
  NAP_ALLOCATE refused = EngineHarness::allocate_vcb(tp, AllocateOptions{});
  ASSERT_FALSE(h.submit(&refused));
  h.run([&](Engine &e) {
    e.remote_allocated({1, AP_ALLOCATION_ERROR, AP_TP_NAME_NOT_RECOGNIZED}, {});
  });
  ASSERT_TRUE(h.completed(&refused));
  ASSERT_EQ(refused.hdr.primary_rc, AP_OK);
  const Conv a{tp, refused.hdr.conv_id, true};
  EXPECT_EQ(h.send(a, "x", AP_SEND_FLUSH), AP_ALLOCATION_ERROR);
  EXPECT_EQ(h.last_secondary, AP_TP_NAME_NOT_RECOGNIZED);

  // The TP ends while the daemon still answers: the verb ends at once, and
  // the partner that the late answer reaches sees an abnormal end.
  NAP_ALLOCATE abandoned = EngineHarness::allocate_vcb(tp, AllocateOptions{});
  ASSERT_FALSE(h.submit(&abandoned));
  h.tp_ended(tp);
  ASSERT_TRUE(h.completed(&abandoned));
  EXPECT_EQ(abandoned.hdr.primary_rc, AP_CANCELLED);
  FarEnd far;
  h.run([&](Engine &e) { e.remote_allocated({2, AP_OK, 0}, far.near()); });
  const Frame abend = far.receive();
  EXPECT_EQ(abend.type, FrameType::kDeallocate);
  EXPECT_EQ(abend.flags, static_cast<uint8_t>(snanode::engine::DeallocKind::kAbend));
}

TEST(EngineRemote, AttachesFromTheDaemonReachTheirAcceptOrWaitForTheNext) {
  EngineHarness h;
  FakeDaemon daemon;
  h.run([&](Engine &e) { e.set_remote(&daemon); });
  EngineHarness::Accept accept;
  EngineHarness::prepare_accept(accept, {"SERVER"});
  ASSERT_FALSE(h.submit(&accept.vcb));
  EXPECT_EQ(daemon.events.back(), "accept SERVER");

  AttachDelivery attach{.accept_id = daemon.last_accept,
                        .tp_name = "SERVER",
                        .mapped = true,
                        .user = "CLERK",
                        .mode = "#INTER",
                        .partner_lu_name = "APPN.OTHER",
                        .local_lu_alias = "LOCAL"};
  // An attach whose socket this process could not receive is dropped; its
  // accept waits on, and the daemon hears of it again.
  daemon.events.clear();
  h.run([&](Engine &e) { e.remote_attached(attach, UniqueFd()); });
  EXPECT_FALSE(h.completed(&accept.vcb));
  EXPECT_EQ(daemon.events, std::vector<std::string>{"accept SERVER"});

  FarEnd far;
  h.run([&](Engine &e) { e.remote_attached(attach, far.near()); });
  ASSERT_TRUE(h.completed(&accept.vcb));
  EXPECT_EQ(accept.vcb.primary_rc, AP_OK);
  EXPECT_EQ(snanode::engine::ebcdic_name(accept.vcb.rcv_user_id, 10), "CLERK");
  EXPECT_EQ(snanode::engine::ebcdic_name(accept.vcb.rcv_partner_lu_name, 17), "APPN.OTHER");
  const Conv b = EngineHarness::accepted(accept);
  far.send(FrameType::kData, "ping", snanode::engine::kDataMoreFollows);
  far.send(FrameType::kChangeDirection);
  std::vector<uint8_t> buffer(100);
  auto receive = EngineHarness::receive_vcb(b, buffer, true, 1, 1);
  if (!h.submit(&receive)) {
    ASSERT_TRUE(h.wait_completed(&receive, std::chrono::seconds(5)));
  }
  const Received got = EngineHarness::result_of(receive, buffer);
  EXPECT_EQ(got.data, "ping");
  EXPECT_EQ(got.what, AP_WR_DATA_COMPLETE | AP_WR_SEND);

  // An attach whose accept is no longer there waits for the next accept.
  attach.accept_id = 999;
  FarEnd second;
  h.run([&](Engine &e) { e.remote_attached(attach, second.near()); });
  EngineHarness::Accept later;
  EngineHarness::prepare_accept(later, {"SERVER"});
  EXPECT_TRUE(h.submit(&later.vcb));
  EXPECT_EQ(later.vcb.primary_rc, AP_OK);
}

}  // namespace
}  // namespace engine_test
