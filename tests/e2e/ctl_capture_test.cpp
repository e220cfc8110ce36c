// snanodectl's capture for one TP or one process across two hosts (127.0.0.2
// and 127.0.0.3): two TPs converse at once, and each scoped file holds the
// units of its own conversation only, decoded by tshark without a fault.
#include <gtest/gtest.h>

#include "e2e/two_nodes.h"
#include "net/tshark_run.h"

namespace e2e {
namespace {

pid_t start_ping(const fs::path &dir, const char *tp, const std::string &marker, int go = -1) {
  return start_aping(dir, tp, "#INTER", marker + std::string(200, '.') + marker, go);
}

TEST(CtlCapture, ScopedFilesHoldTheirTpsUnitsOnlyAndOffClosesThem) {
  TwoNodes nodes(false, apingd_tp("PINGONE") + apingd_tp("PINGTWO"), true);
  if (nodes.port_base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  ASSERT_TRUE(nodes.up) << "no daemons or no link: see " << nodes.base;

  // Node B captures the attached TP PINGONE; node A the process that
  // allocates to PINGONE (its pid).  PINGTWO's conversation runs alongside.
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  const pid_t one = start_ping(nodes.dirs[0], "PINGONE", "MARKONE", go[0]);
  const pid_t two = start_ping(nodes.dirs[0], "PINGTWO", "MARKTWO", go[0]);
  ::close(go[0]);
  const fs::path by_tp = nodes.dirs[1] / "capture-tp-PINGONE.pcap";
  const fs::path by_pid = nodes.dirs[0] / ("capture-pid-" + std::to_string(one) + ".pcap");
  auto [status, out] = ctl(nodes.dirs[1], "capture on --tp PINGONE");
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find(by_tp.string()), std::string::npos) << out;
  std::tie(status, out) = ctl(nodes.dirs[0], "capture on --pid " + std::to_string(one));
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find(by_pid.string()), std::string::npos) << out;
  // The status lists each scope with its file.
  std::set<std::string> captures;
  const ctl_test::Json status_a = ctl_json(nodes.dirs[0], "status");
  for (const auto &row : status_a["captures"].items) {
    captures.insert(row["scope"].text + " " + row["name"].text + " " + row["path"].text);
  }
  EXPECT_EQ(captures,
            (std::set<std::string>{"node  " + (nodes.dirs[0] / "units.pcap").string(),
                                   "pid " + std::to_string(one) + " " + by_pid.string()}));
  EXPECT_EQ(::write(go[1], "++", 2), 2);
  ::close(go[1]);
  EXPECT_EQ(exit_status(one), 0);
  EXPECT_EQ(exit_status(two), 0);

  std::tie(status, out) = ctl(nodes.dirs[1], "capture off --tp PINGONE");
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("closed"), std::string::npos) << out;
  std::tie(status, out) = ctl(nodes.dirs[0], "capture off --pid " + std::to_string(one));
  EXPECT_EQ(status, 0) << out;
  // Off closes the file: PINGONE's next conversation is not in it.
  const auto size = fs::file_size(by_tp);
  EXPECT_EQ(exit_status(start_ping(nodes.dirs[0], "PINGONE", "MARKONE")), 0);
  EXPECT_EQ(fs::file_size(by_tp), size);

  namespace ts = snanode::net::tshark_check;
  if (!ts::have_tshark()) GTEST_SKIP() << "no tshark to read the captures";
  const std::string decode = ee_ports_for_tshark(nodes.port_base);
  const auto frames = [&](const fs::path &file, const std::string &filter) {
    return ts::split(ts::run("tshark -r " + file.string() + decode + " -Y '" + filter +
                             "' -T fields -e frame.number 2>/dev/null"))
        .size();
  };
  for (const fs::path &file : {by_tp, by_pid}) {
    SCOPED_TRACE(file.string());
    EXPECT_GE(frames(file, "sna"), 4u);
    EXPECT_EQ(frames(file, "_ws.malformed || _ws.expert.severity >= 8388608"), 0u);
    // The marker travels both ways: the record and its echo.
    EXPECT_GE(frames(file, "sna && frame contains \"MARKONE\""), 2u);
    EXPECT_EQ(frames(file, "frame contains \"MARKTWO\""), 0u);
  }
}

}  // namespace
}  // namespace e2e
