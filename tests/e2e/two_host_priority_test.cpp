// Two hosts (127.0.0.2 and 127.0.0.3) whose modes travel at different classes
// of service: each class its own RTP connection, its datagrams on the UDP
// port and with the IP precedence of its priority, its setup naming the
// class; the operator sees each connection's class; connections left idle
// close and come back with the next conversation.
#include <gtest/gtest.h>

#include "e2e/two_nodes.h"
#include "net/tshark_run.h"

namespace e2e {
namespace {

constexpr int kIdleSeconds = 2;
const std::string kBlock(3000, 'B');

// cos -> "priority priority_name state" of node A's RTP connections.
std::map<std::string, std::string> connections_of(const ctl_test::Json &status) {
  std::map<std::string, std::string> found;
  for (const auto &row : status["rtp_connections"].items) {
    found[row["cos"].text] = std::to_string(row["priority"].number) + " " +
                             row["priority_name"].text + " " + row["state"].text;
  }
  return found;
}

TEST(TwoHostPriority, EachClassItsConnectionPortAndPrecedenceAndIdleOnesClose) {
  TwoNodes nodes(false, apingd_tp("APINGD"), true, "",
                 "idle_connection_seconds = " + std::to_string(kIdleSeconds) + "\n",
                 "[[mode]]\nname = \"#BATCH\"\n");
  if (nodes.port_base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  ASSERT_TRUE(nodes.up) << "no daemons or no link: see " << nodes.base;
  const fs::path &a = nodes.dirs[0];

  // An #INTER conversation, held after its first exchange: both sides list
  // it, the attached one with its partner TP unknown.
  int to_test[2], to_tp[2];
  ASSERT_EQ(::pipe(to_test) | ::pipe(to_tp), 0);
  const int hold[2] = {to_test[1], to_tp[0]};
  const pid_t held = start_aping(a, "APINGD", "#INTER", kBlock, -1, hold);
  pollfd ready{to_test[0], POLLIN, 0};
  char byte = 0;
  EXPECT_TRUE(::poll(&ready, 1, 30'000) == 1 && ::read(to_test[0], &byte, 1) == 1);
  const ctl_test::Json allocating = ctl_json(a, "conversation list");
  const ctl_test::Json attached = ctl_json(nodes.dirs[1], "conversation list");
  EXPECT_EQ(::write(to_tp[1], "+", 1), 1);
  EXPECT_EQ(exit_status(held), 0);
  for (int fd : {to_test[0], to_test[1], to_tp[0], to_tp[1]}) ::close(fd);
  ASSERT_EQ(allocating["conversations"].items.size(), 1u);
  EXPECT_EQ(allocating["conversations"].items[0]["partner_tp"].text, "APINGD");
  ASSERT_EQ(attached["conversations"].items.size(), 1u);
  EXPECT_EQ(attached["conversations"].items[0]["local_tp"].text, "APINGD");
  EXPECT_EQ(attached["conversations"].items[0].members.count("partner_tp"), 1u);
  EXPECT_EQ(attached["conversations"].items[0]["partner_tp"].kind, ctl_test::Json::Kind::kNull);

  EXPECT_EQ(exit_status(start_aping(a, "APINGD", "#BATCH", kBlock)), 0);
  const ctl_test::Json status = ctl_json(a, "status");
  std::map<std::string, std::string> found = connections_of(status);
  found.erase("SNASVCMG");  // the session limits' (CNOS) connection, if still up
  EXPECT_EQ(found, (std::map<std::string, std::string>{{"#BATCH", "0 low connected"},
                                                       {"#INTER", "2 high connected"}}));
  std::set<std::string> session_classes;
  for (const auto &row : status["network_sessions"].items) {
    session_classes.insert(row["mode"].text + "=" + row["cos"].text);
  }
  EXPECT_EQ(session_classes, (std::set<std::string>{"#BATCH=#BATCH", "#INTER=#INTER"}));

  // Left alone, every connection closes; the next conversation sets one up.
  bool closed = false;
  for (const auto until = Clock::now() + std::chrono::seconds(3 * kIdleSeconds + 2);
       !closed && Clock::now() < until; std::this_thread::sleep_for(200ms)) {
    closed = ctl_json(a, "status")["rtp_connections"].items.empty();
  }
  EXPECT_TRUE(closed) << "idle connections stayed up";
  EXPECT_GE(occurrences(a / "snanoded.log", " ended (closed)"), 2);
  EXPECT_EQ(exit_status(start_aping(a, "APINGD", "#INTER", kBlock)), 0);
  EXPECT_EQ(connections_of(ctl_json(a, "status")).count("#INTER"), 1u);

  // What node A sent, as tshark reads it: each priority's datagrams on its
  // port with its precedence, each class's setups naming it.
  namespace ts = snanode::net::tshark_check;
  if (!ts::have_tshark()) return;
  const std::string read = "tshark -r " + (a / "units.pcap").string() +
                           ee_ports_for_tshark(nodes.port_base) +
                           " -Y 'ip.src == 127.0.0.2 && sna.nlp.thdr.tcid";
  std::map<std::string, int> by_port;  // "port tos tpf" -> NLPs
  for (const std::string &line : ts::split(ts::run(
           read + "' -T fields -e udp.dstport -e ip.dsfield -e sna.nlp.nhdr.tpf 2>/dev/null"))) {
    ++by_port[line];
  }
  const auto port = [&](int i) { return std::to_string(nodes.port_base + i) + "\t"; };
  for (const auto &[key, count] : by_port) {
    EXPECT_TRUE(key == port(1) + "0xc0\t0x03" || key == port(2) + "0x80\t0x02" ||
                key == port(4) + "0x20\t0x00")
        << key << " (" << count << " NLPs)";
  }
  EXPECT_GT(by_port[port(1) + "0xc0\t0x03"], 0);  // CNOS, on SNASVCMG
  EXPECT_GT(by_port[port(2) + "0x80\t0x02"], 3);
  EXPECT_GT(by_port[port(4) + "0x20\t0x00"], 3);
  // The COS/TPF vector: length, key X'2C', priority, the class in EBCDIC.
  const auto setups_at = [&](const std::string &vector) {
    return ts::split(ts::run(read + " && sna.nlp.thdr.setupi == 1 && frame contains " + vector +
                             "' -T fields -e udp.dstport 2>/dev/null"));
  };
  const std::vector<std::string> batch = setups_at("09:2c:00:7b:c2:c1:e3:c3:c8");
  const std::vector<std::string> inter = setups_at("09:2c:02:7b:c9:d5:e3:c5:d9");
  ASSERT_FALSE(batch.empty());
  ASSERT_GE(inter.size(), 2u);  // the first connection and the one after the idle close
  for (const std::string &p : batch) EXPECT_EQ(p + "\t", port(4));
  for (const std::string &p : inter) EXPECT_EQ(p + "\t", port(2));
}

}  // namespace
}  // namespace e2e
