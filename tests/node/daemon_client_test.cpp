// The node library's side of the daemon connection: requests out, results
// and attaches in under the process lock, and the end of the path when the
// daemon dies.
#include <sys/un.h>

#include <condition_variable>
#include <deque>
#include <mutex>

#include "client/daemon_client.h"
#include "core/node_monitor.h"
#include "core/path.h"
#include "core/process_lock.h"
#include "engine/socket_link.h"
#include "node/daemon_test_support.h"
#include "snanode/snanode.h"
#include "snanode/verbs.h"

namespace {

using namespace daemon_test;
using client::UniqueFd;

struct Event {
  bool is_attach = false;
  uint32_t id = 0;  // request id or accept id
  uint16_t primary = 0;
  uint32_t secondary = 0;
  std::string tp_name;
  UniqueFd end;
};

class RecordingEvents : public client::DaemonEvents {
 public:
  void allocated(const client::AllocateResult &r, UniqueFd end) override {
    EXPECT_TRUE(process_lock_held());
    push({false, r.request_id, r.primary, r.secondary, "", std::move(end)});
  }
  void attached(client::AttachDelivery attach, UniqueFd end) override {
    EXPECT_TRUE(process_lock_held());
    push({true, attach.accept_id, 0, 0, attach.tp_name, std::move(end)});
  }
  std::optional<Event> take(std::chrono::milliseconds limit = 5s) {
    std::unique_lock<std::mutex> hold(mutex_);
    if (!changed_.wait_for(hold, limit, [&] { return !events_.empty(); })) return std::nullopt;
    Event event = std::move(events_.front());
    events_.pop_front();
    return event;
  }

 private:
  void push(Event event) {
    std::lock_guard<std::mutex> hold(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
};

using DaemonClientTest = DaemonFixture;

TEST_F(DaemonClientTest, AllocationAndAttachArriveWithJoinedEnds) {
  RecordingEvents server_events, allocator_events;
  auto server = client::DaemonClient::connect(socket_, server_events, nullptr);
  auto allocator = client::DaemonClient::connect(socket_, allocator_events, nullptr);
  ASSERT_TRUE(server && allocator);
  EXPECT_EQ(server->node_name(), "TESTNODE");
  // The daemon takes each connection's messages in order, but not the two
  // connections' in the order they were sent: an answer on the server's own
  // connection shows the messages before it have been taken.
  const auto settled = [&] {
    const uint32_t probe = server->allocate(request_for("NOBODY"));
    auto answer = server_events.take();
    return answer && answer->id == probe;
  };
  ASSERT_TRUE(server->register_tp("ECHO"));
  ASSERT_TRUE(server->accept_wait(5, {"ECHO"}));
  ASSERT_TRUE(settled());

  // A name nobody serves is refused with its sense code, and no end.
  const uint32_t refused = allocator->allocate(request_for("NOBODY"));
  auto refusal = allocator_events.take();
  ASSERT_TRUE(refusal);
  EXPECT_EQ(std::tuple(refusal->id, refusal->primary, refusal->secondary, refusal->end.valid()),
            std::tuple(refused, AP_ALLOCATION_ERROR, AP_TP_NAME_NOT_RECOGNIZED, false));

  const uint32_t id = allocator->allocate(request_for("ECHO"));
  EXPECT_NE(id, refused);
  auto result = allocator_events.take();
  auto attach = server_events.take();
  ASSERT_TRUE(result && attach);
  EXPECT_EQ(std::pair(result->id, result->primary), std::pair(id, uint16_t{AP_OK}));
  EXPECT_EQ(std::tuple(attach->is_attach, attach->id, attach->tp_name),
            std::tuple(true, 5u, "ECHO"));
  ASSERT_EQ(::write(result->end.get(), "abc", 3), 3);
  char got[3] = {};
  ASSERT_EQ(::read(attach->end.get(), got, 3), 3);
  EXPECT_EQ(std::string(got, 3), "abc");

  // A cancelled accept takes nothing; leaving drops the name.
  ASSERT_TRUE(server->accept_wait(6, {"ECHO"}));
  ASSERT_TRUE(server->accept_cancel(6));
  ASSERT_TRUE(server->withdraw_tp("ECHO"));
  ASSERT_TRUE(settled());
  allocator->allocate(request_for("ECHO"));
  auto after = allocator_events.take();
  ASSERT_TRUE(after);
  EXPECT_EQ(after->secondary, AP_TP_NAME_NOT_RECOGNIZED);
  EXPECT_FALSE(server_events.take(100ms).has_value());
  ProcessLockGuard lock;
  server.reset();
  allocator.reset();
}

TEST(DaemonClientAbsent, NoDaemonMeansNoClient) {
  TempDir dir;
  RecordingEvents events;
  EXPECT_EQ(client::DaemonClient::connect((dir.path / "none.sock").string(), events, nullptr),
            nullptr);
}

// Something listens but never answers the hello: the client gives up rather
// than hold the process (and its lock) forever.
TEST(DaemonClientAbsent, SilentListenerIsGivenUp) {
  TempDir dir;
  const std::string path = (dir.path / "silent.sock").string();
  client::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener.get(), 4), 0);
  RecordingEvents events;
  EXPECT_EQ(client::DaemonClient::connect(path, events, nullptr), nullptr);
}

std::mutex g_path_mutex;
std::condition_variable g_path_changed;
int g_path_events = 0;
uint16_t g_path_type = 0;

int record_path_event(void *, VPM_PATH_EVENT *event) {
  std::lock_guard<std::mutex> hold(g_path_mutex);
  ++g_path_events;
  g_path_type = event->type;
  g_path_changed.notify_all();
  return 0;
}

TEST_F(DaemonClientTest, DaemonKilledEndsThePath) {
  uint32_t path_user = 0;
  vpm_init_path_user(0, 0, record_path_event, 0, &path_user);
  ASSERT_NE(path_user, 0u);
  RecordingEvents events;
  auto client = client::DaemonClient::connect(socket_, events, [] { end_path(); });
  ASSERT_TRUE(client);
  ASSERT_TRUE(client->register_tp("ALIVE"));

  ::kill(daemon_, SIGKILL);
  ::waitpid(daemon_, nullptr, 0);
  daemon_ = -1;
  {
    std::unique_lock<std::mutex> hold(g_path_mutex);
    ASSERT_TRUE(g_path_changed.wait_for(hold, 5s, [] { return g_path_events > 0; }));
    EXPECT_EQ(g_path_events, 1);
    EXPECT_EQ(g_path_type, VPM_PATH_ENDED);
  }
  EXPECT_EQ(path_user_count(), 0u);  // the registration ended with the path
  EXPECT_FALSE(client->register_tp("AFTER"));
  EXPECT_EQ(client->allocate(request_for("ECHO")), 0u);
  ProcessLockGuard lock;
  client.reset();
}

}  // namespace
