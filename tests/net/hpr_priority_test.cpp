// Classes of service: the class a mode travels at (from its name or its `cos`
// key), the RTP connection each class gets to a partner (its setup naming the
// class, its NLPs at the class's priority), and connections closed once idle.
#include <gtest/gtest.h>

#include <map>

#include "config/class_of_service.h"
#include "net/hpr_pipe.h"

namespace snanode::net::hpr {
namespace {

using namespace std::chrono_literals;
using test::make_biu;
using test::TwoNodes;

TEST(ClassOfService, ModesTakeTheClassOfTheirNameOrOfTheirKey) {
  const config::NodeConfig c = config::parse_config(
      "[[mode]]\nname = \"#INTER\"\n[[mode]]\nname = \"#BATCHSC\"\n[[mode]]\nname = \"CPSVCMG\"\n"
      "[[mode]]\nname = \"PAYROLL\"\n[[mode]]\nname = \"BULK\"\ncos = \"#BATCH\"\n"
      "[[mode]]\nname = \"#BATCH\"\ncos = \"#INTER\"\n",
      "t.toml");
  std::vector<std::pair<std::string_view, int>> classes;
  for (const config::Mode &mode : c.modes) {
    const config::ClassOfService cos = config::class_of_service(mode);
    classes.emplace_back(cos.name, static_cast<int>(cos.priority));
  }
  const std::vector<std::pair<std::string_view, int>> expected = {{"#INTER", 2},  {"#BATCHSC", 0},
                                                                  {"CPSVCMG", 3}, {"#CONNECT", 1},
                                                                  {"#BATCH", 0},  {"#INTER", 2}};
  EXPECT_EQ(classes, expected);
  EXPECT_EQ(config::default_class_of_service("SNASVCMG").priority,
            config::TransmissionPriority::kNetwork);
  try {
    (void)config::parse_config("[[mode]]\nname = \"M\"\ncos = \"#FAST\"\n", "t.toml");
    ADD_FAILURE() << "an unknown class was taken";
  } catch (const std::exception &e) {
    EXPECT_NE(std::string(e.what()).find("t.toml:3:7: [[mode]] cos: \"#FAST\" is not a class"),
              std::string::npos)
        << e.what();
  }
}

RtpConfig test_config() {
  RtpConfig c;
  c.alive_timer = 2s;
  c.failure_timeout = 3s;
  return c;
}

// The class name of a setup NLP's COS/TPF vector, as the partner read it.
std::string setup_class(ByteSpan nlp) {
  auto decoded = decode_nlp(nlp);
  if (!decoded || !decoded->thdr.setup) return {};
  auto offer = read_setup(decoded->thdr);
  return offer ? offer->cos_name : std::string();
}

TEST(HprClasses, EachClassItsOwnConnectionAtItsPriority) {
  TwoNodes n(test_config());
  std::multimap<Priority, std::string> setups;  // NLP priority -> class its setup named
  std::set<Priority> priorities;
  n.tap = [&](int from, ByteSpan nlp) {
    auto decoded = decode_nlp(nlp);
    ASSERT_TRUE(decoded);
    if (from == 0) priorities.insert(decoded->nhdr.priority);
    if (from == 0 && decoded->thdr.setup) setups.emplace(decoded->nhdr.priority, setup_class(nlp));
  };
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", {"#BATCH", Priority::kLow}, make_biu(1, 3000)));
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", {"#INTER", Priority::kHigh}, make_biu(2, 100)));
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", {"#INTERSC", Priority::kHigh}, make_biu(3, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 3; }, 5s));
  EXPECT_EQ(n.a.connection_count(), 3u);
  EXPECT_EQ(priorities, (std::set<Priority>{Priority::kLow, Priority::kHigh}));
  EXPECT_EQ(setups.count(Priority::kLow), setups.size() - setups.count(Priority::kHigh));
  std::set<std::string> named;
  for (const auto &[priority, name] : setups) named.insert(name);
  EXPECT_EQ(named, (std::set<std::string>{"#BATCH", "#INTER", "#INTERSC"}));
  // B answers in each class on the connection A set up for it, and lists
  // them highest priority first.
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", {"#BATCH", Priority::kLow}, make_biu(4, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == 1; }, 5s));
  EXPECT_EQ(n.b.connection_count(), 3u);
  const auto listed = n.b.sending_to("NETA.CPA");
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[0].second->priority(), Priority::kHigh);
  EXPECT_EQ(listed[2].first, "#BATCH");
  EXPECT_EQ(listed[2].second->priority(), Priority::kLow);
  EXPECT_FALSE(listed[2].second->initiator());
}

TEST(HprClasses, AnIdleConnectionClosesAndTheNextUnitOpensAnother) {
  TwoNodes n(test_config(), 1, 1461, 5s);
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", {"#INTER", Priority::kHigh}, make_biu(1, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
  // Units either way keep it: B answers after 4 s, A sends again 4 s later.
  n.run_until([] { return false; }, 4s);
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", {"#INTER", Priority::kHigh}, make_biu(2, 100)));
  n.run_until([] { return false; }, 4s);
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", {"#INTER", Priority::kHigh}, make_biu(3, 100)));
  n.run_until([] { return false; }, 4s);
  EXPECT_TRUE(n.seen_a.ended.empty() && n.seen_b.ended.empty());
  const RtpTime last_unit = n.clock.now() - 4s;
  // Five seconds with none: closed normally at both ends, alive probes or not.
  ASSERT_TRUE(n.run_until([&] { return !n.seen_a.ended.empty() && !n.seen_b.ended.empty(); }, 3s));
  EXPECT_EQ(n.seen_a.ended[0].first | n.seen_b.ended[0].first, 0u);
  EXPECT_GE(n.seen_a.ended[0].second, last_unit + 5s);
  EXPECT_EQ(n.a.connection_count() + n.b.connection_count(), 0u);
  // The next unit sets up a new connection.
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", {"#INTER", Priority::kHigh}, make_biu(4, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == 2; }, 1s));
  EXPECT_EQ(n.seen_a.bius.back(), make_biu(4, 100));
  ASSERT_NE(n.b.connection("NETA.CPA", "#INTER"), nullptr);
  EXPECT_TRUE(n.b.connection("NETA.CPA", "#INTER")->initiator());
}

// A close crossing the partner's units: B's unit, lost once, and the one B
// sends after hearing of the close still reach A, in order, before both
// ends close; what comes next opens a new connection.
TEST(HprClasses, ACloseCrossingThePartnersUnitsLosesNone) {
  TwoNodes n(test_config());
  const ServiceClass inter{"#INTER", Priority::kHigh};
  ASSERT_TRUE(n.a.send_biu("NETB.CPB", inter, make_biu(1, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_b.bius.size() == 1; }, 1s));
  n.run_until([] { return false; }, 100ms);
  n.a.close("NETB.CPB", "#INTER");
  n.path(1).silent = true;
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", inter, make_biu(2, 100)));
  n.path(1).silent = false;
  n.run_until([] { return false; }, 3ms);  // A's indicator has reached B
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", inter, make_biu(3, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_a.ended.size() + n.seen_b.ended.size() == 2; }, 5s));
  EXPECT_EQ(n.seen_a.ended[0].first | n.seen_b.ended[0].first, 0u);
  EXPECT_EQ(n.seen_a.bius, (std::vector<Bytes>{make_biu(2, 100), make_biu(3, 100)}));
  ASSERT_TRUE(n.b.send_biu("NETA.CPA", inter, make_biu(4, 100)));
  ASSERT_TRUE(n.run_until([&] { return n.seen_a.bius.size() == 3; }, 1s));
  EXPECT_EQ(n.seen_a.bius.back(), make_biu(4, 100));
}

}  // namespace
}  // namespace snanode::net::hpr
