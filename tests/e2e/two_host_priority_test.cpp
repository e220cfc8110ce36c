// Two hosts (127.0.0.2 and 127.0.0.3) whose modes travel at different classes
// of service: each class its own RTP connection, its datagrams on the UDP
// port and with the IP precedence of its priority, its setup naming the
// class; the operator sees each connection's class; connections left idle
// close and come back with the next conversation.
#include <gtest/gtest.h>

#include "e2e/ctl_json.h"
#include "e2e/scenario_runner.h"
#include "e2e/snanodectl_run.h"
#include "e2e/two_hosts.h"
#include "net/tshark_run.h"

namespace e2e {
namespace {

constexpr int kIdleSeconds = 2;

std::string host_config(const fs::path &dir, int host, uint16_t base) {
  const char *self = host == 0 ? "NODEA" : "NODEB";
  const char *lu = host == 0 ? "LUA" : "LUB";
  const char *partner = host == 0 ? "LUB" : "LUA";
  const char *partner_cp = host == 0 ? "NODEB" : "NODEA";
  std::ostringstream text;
  text << "[node]\nname = \"" << self << "\"\nnetwork_id = \"NETA\"\nsocket_path = \""
       << (dir / "node.sock").string() << "\"\n[log]\ndir = \"" << dir.string() << "\"\n"
       << "[network]\nenabled = true\ncp_name = \"NETA." << self << "\"\n"
       << host_network_keys(host, base) << "capture = \"" << (dir / "units.pcap").string()
       << "\"\nidle_connection_seconds = " << kIdleSeconds << "\n"
       << "[[local_lu]]\nalias = \"" << lu << "\"\nlu_name = \"NETA." << lu << "\"\n"
       << "[[partner_lu]]\nalias = \"" << partner << "\"\nlu_name = \"NETA." << partner
       << "\"\nowning_cp = \"NETA." << partner_cp << "\"\n"
       << "[[mode]]\nname = \"#INTER\"\n[[mode]]\nname = \"#BATCH\"\n"
       << apingd_tp("APINGD") << host_link(host, std::string("NETA.") + partner_cp);
  return text.str();
}

// Node A's TP: one aping exchange with APINGD at node B on `mode`.  With
// `hold`, it writes a byte to hold[0] once the first record came back and
// goes on when one arrives on hold[1].  Exits with the step that failed.
[[noreturn]] void aping_on(const fs::path &dir, const char *mode, const int *hold = nullptr) {
  ::alarm(60);  // whatever happens, the test is not left waiting
  Side side{"client", dir / "client"};
  fs::create_directories(side.log_dir);
  enter_node(dir, side, Deploy::kProcesses);
  t_side = &side;
  Conv c;
  unsigned char blank[9] = "        ";
  CM_RETURN_CODE rc = -1;
  cminit(c.id, blank, &rc);
  if (rc != CM_OK || c.name(cmspln, "LUB") != CM_OK || c.name(cmsmn, mode) != CM_OK ||
      c.name(cmstpn, "APINGD") != CM_OK) {
    std::_Exit(1);
  }
  if (c.call(cmallc) != CM_OK) std::_Exit(2);
  if (c.send(std::string("\x01\x00", 2), CM_SEND_AND_PREP_TO_RECEIVE) != CM_OK) std::_Exit(3);
  if (const Received r = c.receive_and(CM_SEND_RECEIVED); r.rc != CM_OK || r.text.size() != 2) {
    std::_Exit(4);
  }
  char byte = 0;
  if (hold != nullptr && (::write(hold[0], "+", 1) != 1 || ::read(hold[1], &byte, 1) != 1)) {
    std::_Exit(5);
  }
  const std::string block(3000, 'B');
  if (c.send(block, CM_SEND_AND_PREP_TO_RECEIVE) != CM_OK) std::_Exit(6);
  if (const Received r = c.receive_and(CM_SEND_RECEIVED, 4000); r.rc != CM_OK || r.text != block) {
    std::_Exit(7);
  }
  std::_Exit(c.deallocate() == CM_OK ? 0 : 8);
}

struct PriorityHosts {
  fs::path base;
  std::array<fs::path, 2> dirs;
  Children children;
  uint16_t port_base = 0;
  bool up = false;

  PriorityHosts() {
    char pattern[] = "/tmp/cpic-prio-XXXXXX";
    if (::mkdtemp(pattern) == nullptr || (port_base = free_port_base()) == 0) return;
    base = pattern;
    dirs = {base / "a", base / "b"};
    for (int host = 0; host < 2; ++host) {
      fs::create_directories(dirs[host]);
      std::ofstream(dirs[host] / "node.toml") << host_config(dirs[host], host, port_base);
    }
    up = start_daemon(dirs[0], children) && start_daemon(dirs[1], children) &&
         link_up(dirs[0] / "snanoded.log");
  }
  ~PriorityHosts() {
    for (auto &child : children.list) ::kill(-child.pid, SIGKILL), children.reap(child, 0);
    std::error_code ignored;
    if (::testing::Test::HasFailure()) {
      std::cerr << "two-host files in " << base << "\n";
    } else if (!base.empty()) {
      fs::remove_all(base, ignored);
    }
  }

  // Runs aping_on() in a child of the test; its exit status.
  int aping(const char *mode, const int *hold = nullptr) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) aping_on(dirs[0], mode, hold);
    return exit_status(pid);
  }

  ctl_test::Json ctl_json(int host, const std::string &args) {
    const auto [status, out] = ctl_test::run_snanodectl((dirs[host] / "node.sock").string(), args);
    auto parsed = ctl_test::JsonParser(out).parse();
    EXPECT_TRUE(status == 0 && parsed) << out;
    return parsed ? *parsed : ctl_test::Json{};
  }
};

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
  PriorityHosts hosts;
  if (hosts.port_base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  ASSERT_TRUE(hosts.up) << "no daemons or no link: see " << hosts.base;

  // An #INTER conversation, held after its first exchange: both sides list
  // it, the attached one with its partner TP unknown.
  int to_test[2], to_tp[2];
  ASSERT_EQ(::pipe(to_test) | ::pipe(to_tp), 0);
  const int hold[2] = {to_test[1], to_tp[0]};
  std::thread held([&] { EXPECT_EQ(hosts.aping("#INTER", hold), 0); });
  pollfd ready{to_test[0], POLLIN, 0};
  char byte = 0;
  EXPECT_TRUE(::poll(&ready, 1, 30'000) == 1 && ::read(to_test[0], &byte, 1) == 1);
  const ctl_test::Json allocating = hosts.ctl_json(0, "--json conversation list");
  const ctl_test::Json attached = hosts.ctl_json(1, "--json conversation list");
  EXPECT_EQ(::write(to_tp[1], "+", 1), 1);
  held.join();
  for (int fd : {to_test[0], to_test[1], to_tp[0], to_tp[1]}) ::close(fd);
  ASSERT_EQ(allocating["conversations"].items.size(), 1u);
  EXPECT_EQ(allocating["conversations"].items[0]["partner_tp"].text, "APINGD");
  ASSERT_EQ(attached["conversations"].items.size(), 1u);
  EXPECT_EQ(attached["conversations"].items[0]["local_tp"].text, "APINGD");
  EXPECT_EQ(attached["conversations"].items[0].members.count("partner_tp"), 1u);
  EXPECT_EQ(attached["conversations"].items[0]["partner_tp"].kind, ctl_test::Json::Kind::kNull);

  EXPECT_EQ(hosts.aping("#BATCH"), 0);
  const ctl_test::Json status = hosts.ctl_json(0, "--json status");
  const std::map<std::string, std::string> expected = {{"#BATCH", "0 low connected"},
                                                       {"#INTER", "2 high connected"}};
  std::map<std::string, std::string> found = connections_of(status);
  found.erase("SNASVCMG");  // the session limits' (CNOS) connection, if still up
  EXPECT_EQ(found, expected);
  std::set<std::string> session_classes;
  for (const auto &row : status["network_sessions"].items) {
    session_classes.insert(row["mode"].text + "=" + row["cos"].text);
  }
  EXPECT_EQ(session_classes, (std::set<std::string>{"#BATCH=#BATCH", "#INTER=#INTER"}));

  // Left alone, every connection closes; the next conversation sets one up.
  bool closed = false;
  for (const auto until = Clock::now() + std::chrono::seconds(3 * kIdleSeconds + 2);
       !closed && Clock::now() < until; std::this_thread::sleep_for(200ms)) {
    closed = hosts.ctl_json(0, "--json status")["rtp_connections"].items.empty();
  }
  EXPECT_TRUE(closed) << "idle connections stayed up";
  EXPECT_GE(occurrences(hosts.dirs[0] / "snanoded.log", " ended (closed)"), 2);
  EXPECT_EQ(hosts.aping("#INTER"), 0);
  EXPECT_EQ(connections_of(hosts.ctl_json(0, "--json status")).count("#INTER"), 1u);

  // What node A sent, as tshark reads it: each priority's datagrams on its
  // port with its precedence, each class's setups naming it.
  namespace ts = snanode::net::tshark_check;
  if (!ts::have_tshark()) return;
  std::string read = "tshark -r " + (hosts.dirs[0] / "units.pcap").string();
  read += ee_ports_for_tshark(hosts.port_base);
  const std::string sent = " -Y 'ip.src == 127.0.0.2 && sna.nlp.thdr.tcid";
  std::map<std::string, int> by_port;  // "port tos tpf" -> NLPs
  for (const std::string &line : ts::split(
           ts::run(read + sent +
                   "' -T fields -e udp.dstport -e ip.dsfield -e sna.nlp.nhdr.tpf 2>/dev/null"))) {
    ++by_port[line];
  }
  const auto port = [&](int i) { return std::to_string(hosts.port_base + i) + "\t"; };
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
    return ts::split(ts::run(read + sent + " && sna.nlp.thdr.setupi == 1 && frame contains " +
                             vector + "' -T fields -e udp.dstport 2>/dev/null"));
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
