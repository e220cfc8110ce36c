// Two hosts on an Enterprise Extender link losing their path while
// conversations run both ways: the link silenced (node B's impairment raised
// to 100 % loss by a reload), node B's address removed from the host, the
// link stopped by the operator.  Every TP's next verb gets a conversation
// failure with retry within the link's liveness (2 s) and a margin, none
// hangs, and once the path is back new allocations succeed both ways.
#include <gtest/gtest.h>

#include "e2e/two_nodes.h"

namespace e2e {
namespace {

// The liveness of the test links (two_hosts.h) and room for the sweep, the
// daemons' loops and a loaded machine.
constexpr auto kFailureBound = 2s + 2s;

// What cuts the path, run by node B's TP once conversations are up both ways;
// set by each test before its run (the TPs are forked from it).
void (*g_cut_path)(const Side &) = nullptr;

// A conversation allocated to `tp_name` at `partner_lu` (node A's TP to
// node B's E2E, node B's back to node A's BACK), with `text` sent on it.
Conv allocated(const char *tp_name, const char *partner_lu, const char *text, CM_SEND_TYPE how) {
  Conv c = initialize(tp_name, CM_MAPPED_CONVERSATION, CM_NONE, partner_lu);
  REQUIRE_EQ(c.set(cmscst, CM_SECURITY_NONE), CM_OK);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  CHECK_EQ(c.send(text, how), CM_OK);
  return c;
}

// Node A's TP: a conversation to node B, and one node B allocates back.
void cut_client(Side &side) {
  REQUIRE_EQ(local_tp(cmsltp, "BACK"), CM_OK);
  Conv out = allocated("E2E", "LUB", "a to b", CM_SEND_AND_FLUSH);
  Conv in = accept();
  CHECK_DATA(in.receive(), CM_COMPLETE_DATA_RECEIVED, "b to a", CM_NO_STATUS_RECEIVED);
  side.post();
  REQUIRE_PARTNER();  // the path is cut
  const auto cut = Clock::now();
  CHECK_EQ(in.receive().rc, CM_RESOURCE_FAILURE_RETRY);
  CHECK_EQ(out.receive().rc, CM_RESOURCE_FAILURE_RETRY);
  CHECK_EQ(Clock::now() - cut < kFailureBound, true);
}

void cut_server(Side &side) {
  Conv in = accept();
  CHECK_DATA(in.receive(), CM_COMPLETE_DATA_RECEIVED, "a to b", CM_NO_STATUS_RECEIVED);
  Conv out = allocated("BACK", "LUA", "b to a", CM_SEND_AND_FLUSH);
  REQUIRE_PARTNER();  // both conversations carry data
  g_cut_path(side);
  const auto cut = Clock::now();
  side.post();
  CHECK_EQ(in.receive().rc, CM_RESOURCE_FAILURE_RETRY);
  CHECK_EQ(out.receive().rc, CM_RESOURCE_FAILURE_RETRY);
  CHECK_EQ(Clock::now() - cut < kFailureBound, true);
}

// New allocations both ways: node A's to node B, and node B's back to A.
void exchange_client(Side &) {
  REQUIRE_EQ(local_tp(cmsltp, "BACK"), CM_OK);
  allocated("E2E", "LUB", "ping", CM_SEND_AND_DEALLOCATE);
  Conv in = accept();
  CHECK_DATA(in.receive(), CM_COMPLETE_DATA_RECEIVED, "pong", CM_NO_STATUS_RECEIVED);
  CHECK_EQ(in.receive().rc, CM_DEALLOCATED_NORMAL);
}

void exchange_server(Side &) {
  Conv in = accept();
  CHECK_DATA(in.receive(), CM_COMPLETE_DATA_RECEIVED, "ping", CM_NO_STATUS_RECEIVED);
  CHECK_EQ(in.receive().rc, CM_DEALLOCATED_NORMAL);
  allocated("BACK", "LUA", "pong", CM_SEND_AND_DEALLOCATE);
}

// Writes `impair` into [network] of the node's file in `dir` and has its
// daemon read it again.
void reload_impairment(const fs::path &dir, pid_t daemon, const std::string &impair) {
  std::ifstream in(dir / "node.toml");
  std::string text((std::istreambuf_iterator<char>(in)), {});
  if (const size_t at = text.find("impair = "); at != std::string::npos) {
    text.erase(at, text.find('\n', at) + 1 - at);
  }
  text.insert(text.find("[network]\n") + 10, "impair = \"" + impair + "\"\n");
  std::ofstream(dir / "node.toml") << text;
  ::kill(daemon, SIGHUP);
}

TEST(TwoHostFailures, SilencedLinkEndsConversationsBothWaysUntilHeardAgain) {
  TwoNodes nodes(false, "", true);
  if (nodes.port_base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  ASSERT_TRUE(nodes.up) << "no daemons or no link: see " << nodes.base;
  g_cut_path = [](const Side &b) {
    reload_impairment(b.log_dir.parent_path(), b.daemon, "loss=1");
  };
  nodes.run(cut_client, cut_server);
  EXPECT_GE(occurrences(nodes.dirs[1] / "snanoded.log", "impairment now loss 1,"), 1);
  reload_impairment(nodes.dirs[1], nodes.children.list[1].pid, "loss=0");
  ASSERT_TRUE(link_up(nodes.dirs[0] / "snanoded.log", 2, 15s)) << "see " << nodes.base;
  nodes.run(exchange_client, exchange_server);
}

// An address of this host for node B, removed while it runs and put back;
// always removed at the end.
struct TestAddress {
  static constexpr const char *kAddress = "198.51.100.77";  // TEST-NET-2
  bool added = false;
  TestAddress() {
    remove();  // left by an earlier run that was killed
    added = ::system("ip addr add 198.51.100.77/32 dev lo >/dev/null 2>&1") == 0;
  }
  ~TestAddress() { remove(); }
  static void remove() { (void)!::system("ip addr del 198.51.100.77/32 dev lo >/dev/null 2>&1"); }
};

TEST(TwoHostFailures, PartnerAddressGoneAndBack) {
  if (::geteuid() != 0 || ::system("command -v ip >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "needs root and ip(8) to add and remove an address of the host";
  }
  TestAddress address;
  // Root in a container may still lack the right to change addresses.
  if (!address.added) GTEST_SKIP() << "ip addr add " << TestAddress::kAddress << " failed";
  TwoNodes nodes(false, "", true, TestAddress::kAddress);
  if (nodes.port_base == 0) GTEST_SKIP() << "127.0.0.2 cannot be bound here";
  ASSERT_TRUE(nodes.up) << "no daemons or no link: see " << nodes.base;
  g_cut_path = [](const Side &) { TestAddress::remove(); };
  nodes.run(cut_client, cut_server);
  ASSERT_EQ(::system("ip addr add 198.51.100.77/32 dev lo"), 0);
  ASSERT_TRUE(link_up(nodes.dirs[0] / "snanoded.log", 2, 15s)) << "see " << nodes.base;
  nodes.run(exchange_client, exchange_server);
}

// The operator stops the link at node A while conversations run: both nodes
// end them, and the link stays down until started.  Node B's path is delayed
// (100 ms each way) so that allocations right after a start find the link
// still activating, and a start right after a stop comes while DISC is still
// unanswered: both must succeed, both ways.  snanodectl's answers for an
// unknown link and a repeated command.
TEST(TwoHostFailures, LinkStoppedAndStartedBySnanodectl) {
  TwoNodes nodes(false, "", true);
  if (nodes.port_base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  ASSERT_TRUE(nodes.up) << "no daemons or no link: see " << nodes.base;
  static fs::path a;
  a = nodes.dirs[0];
  const fs::path b_log = nodes.dirs[1] / "snanoded.log";
  reload_impairment(nodes.dirs[1], nodes.children.list[1].pid, "delay_ms=100");
  for (const auto until = Clock::now() + 5s;
       occurrences(b_log, "delay 100 ms") == 0 && Clock::now() < until;) {
    std::this_thread::sleep_for(10ms);
  }
  g_cut_path = [](const Side &) {
    const auto [status, out] = ctl(a, "link stop NETA.NODEB");
    CHECK_EQ(status, 0);
    CHECK_EQ(out.find("DISC sent") != std::string::npos, true);
  };
  nodes.run(cut_client, cut_server);
  EXPECT_EQ(occurrences(b_log, "is down: the partner disconnected the link"), 1);
  const auto [unknown, unknown_out] = ctl(a, "link start NETA.NODEX");
  EXPECT_EQ(unknown, 3);
  EXPECT_NE(unknown_out.find("no link NETA.NODEX; the links are: NETA.NODEB"), std::string::npos)
      << unknown_out;
  // Stopped once node B's DM is in (the sessions ended when DISC went).
  const auto link_state = [&] { return ctl_json(a)["links"].items[0]["state"].text; };
  for (const auto until = Clock::now() + 3s; link_state() != "stopped" && Clock::now() < until;) {
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(link_state(), "stopped");
  EXPECT_EQ(ctl(a, "link stop NETA.NODEB").second, "link NETA.NODEB is already stopped\n");
  EXPECT_EQ(ctl(a, "link start NETA.NODEB").first, 0);
  nodes.run(exchange_client, exchange_server);
  EXPECT_EQ(ctl(a, "link stop NETA.NODEB").first, 0);
  EXPECT_EQ(ctl(a, "link start 127.0.0.3").second,
            "link NETA.NODEB starting once the partner has answered DISC\n");
  nodes.run(exchange_client, exchange_server);
  EXPECT_EQ(ctl(a, "link start NETA.NODEB").second, "link NETA.NODEB is already active\n");
  EXPECT_EQ(occurrences(b_log, "is down: the partner disconnected the link"), 2);
}

// A node configured for the network whose ports cannot be bound (one is
// taken here) does not start without them, and says why.
TEST(TwoHostFailures, DaemonWithoutItsPortsRefusesToStart) {
  const uint16_t base = free_port_base();
  if (base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  char pattern[] = "/tmp/cpic-2node-ports-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  std::ofstream(dir / "node.toml")
      << node_config(dir, "NODEA", "LUA", "LUB", "NODEB", false, 0, base);
  const int taken = bind_udp(kHostAddress[0], static_cast<uint16_t>(base + 2));
  ASSERT_GE(taken, 0);
  const auto [status, said] =
      ctl_test::run_command("SNANODE_LOG_DIR=" + dir.string() + " timeout 10 " + SNANODED_PATH +
                            " --foreground --config " + (dir / "node.toml").string() + " 2>&1");
  ::close(taken);
  EXPECT_EQ(status, 1) << said;
  EXPECT_NE(said.find("no Enterprise Extender endpoint on 127.0.0.2 port " + std::to_string(base)),
            std::string::npos)
      << said;
  EXPECT_NE(said.find("refusing to start"), std::string::npos) << said;
  EXPECT_FALSE(fs::exists(dir / "node.sock"));  // removed on the way out
  fs::remove_all(dir);
}

}  // namespace
}  // namespace e2e
