// Conversation sides joined by a socket link: the frames survive encoding,
// and a peer that goes away is noticed.
#include <sys/socket.h>

#include "engine/socket_link.h"
#include "node/engine_harness.h"

namespace engine_test {
namespace {

using snanode::engine::Conversation;
using snanode::engine::ConversationSetup;
using snanode::engine::ConvState;

// One lock standing for the node's, and the completions seen under it.  The
// link's threads may outlive a test's conversations by a moment, so they keep
// the node alive through a shared pointer, as the real node's lock lives as
// long as the process.
struct Node : snanode::engine::ConversationHost, std::enable_shared_from_this<Node> {
  std::mutex mutex;
  std::condition_variable_any changed;
  std::set<void *> done;
  std::vector<std::string> logs;
  void verb_completed(void *, void *token) override {
    done.insert(token);
    changed.notify_all();
  }
  void partner_log_data(uint32_t, const std::vector<uint8_t> &data) override {
    logs.push_back(bytes_of(data));
  }
  snanode::engine::RunLocked run_locked() {
    return [self = shared_from_this()](const std::function<void()> &work) {
      std::lock_guard<std::mutex> lock(self->mutex);
      work();
    };
  }
  bool wait(std::unique_lock<std::mutex> &lock, void *token) {
    return changed.wait_for(lock, std::chrono::seconds(10), [&] { return done.count(token) != 0; });
  }
};

struct Pair {
  std::shared_ptr<Node> shared = std::make_shared<Node>();
  Node &node = *shared;
  std::unique_ptr<Conversation> a, b;
  Pair(bool mapped) {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ConversationSetup setup;
    setup.id = 1;
    setup.mapped = mapped;
    setup.sync_level = 1;
    std::lock_guard<std::mutex> lock(node.mutex);
    a = std::make_unique<Conversation>(
        setup, snanode::engine::make_socket_link(fds[0], node.run_locked()), node);
    setup.starts_in_send = false;
    b = std::make_unique<Conversation>(
        setup, snanode::engine::make_socket_link(fds[1], node.run_locked()), node);
  }
  ~Pair() {
    std::lock_guard<std::mutex> lock(node.mutex);
    a.reset();
    b.reset();
  }
};

TEST(EngineSocketLink, DataStatusAndConfirmationCrossTheSocket) {
  Pair p(false);
  Conv side{{}, 1, false};
  std::vector<uint8_t> buffer(100);
  const std::string data = record("over the socket");
  auto send = EngineHarness::send_vcb(side, data, AP_SEND_CONFIRM);
  auto wait = EngineHarness::receive_vcb(side, buffer, true, 1, 1);
  std::unique_lock<std::mutex> lock(p.node.mutex);
  ASSERT_FALSE(p.b->receive(wait, true, &wait));
  ASSERT_FALSE(p.a->send_data(send, &send));
  ASSERT_TRUE(p.node.wait(lock, &wait));
  EXPECT_EQ(wait.hdr.primary_rc, AP_OK);
  EXPECT_EQ(wait.what_received, AP_WR_DATA_COMPLETE | AP_WR_CONFIRM);
  EXPECT_EQ(EngineHarness::result_of(wait, buffer).data, data);
  NAP_HDR hdr{};
  p.b->confirmed(hdr);
  ASSERT_TRUE(p.node.wait(lock, &send));
  EXPECT_EQ(send.hdr.primary_rc, AP_OK);
  EXPECT_EQ(p.a->state(), ConvState::kSend);

  // An abend with log data; the log arrives with it.
  auto abend = EngineHarness::deallocate_vcb(side, AP_DEALLOC_ABEND_LOG, "gone");
  ASSERT_TRUE(p.a->deallocate(abend, &abend));
  auto wait2 = EngineHarness::receive_vcb(side, buffer, true);
  if (!p.b->receive(wait2, true, &wait2)) {
    ASSERT_TRUE(p.node.wait(lock, &wait2));
  }
  EXPECT_EQ(wait2.hdr.primary_rc, AP_DEALLOC_ABEND_PROG);
  ASSERT_EQ(p.node.logs.size(), 1u);
  EXPECT_EQ(p.node.logs[0], "gone");
}

TEST(EngineSocketLink, APeerThatVanishesIsAConversationFailure) {
  Pair p(true);
  Conv side{{}, 1, true};
  std::vector<uint8_t> buffer(100);
  auto wait = EngineHarness::receive_vcb(side, buffer, true);
  std::unique_lock<std::mutex> lock(p.node.mutex);
  ASSERT_FALSE(p.a->receive(wait, true, &wait));  // turns to b, waits
  p.b->drop(AP_CONV_FAILURE_NO_RETRY);            // b's process dies
  ASSERT_TRUE(p.node.wait(lock, &wait));
  EXPECT_EQ(wait.hdr.primary_rc, AP_CONV_FAILURE_NO_RETRY);
}

}  // namespace
}  // namespace engine_test
