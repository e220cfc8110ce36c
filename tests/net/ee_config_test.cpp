// The Enterprise Extender keys of the configuration: [network] local_address,
// port_base and node_id, [[link]] tables, what the parser refuses (with the
// position and the reason) and what `snanoded --check` adds about addresses.
#include <gtest/gtest.h>

#include "config/node_config.h"
#include "daemon/config_check.h"

namespace snanode {
namespace {

const std::string kNetwork = R"(
[network]
enabled = true
cp_name = "APPN.NODEA"
local_address = "127.0.0.2"
)";

std::string parse_error(const std::string &text) {
  try {
    config::parse_config(text, "n.toml");
  } catch (const config::ConfigError &e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(EeConfig, NetworkAndLinkKeys) {
  const config::NodeConfig c = config::parse_config(kNetwork + R"(port_base = 13000
node_id = "05d0000A"
impair = "loss=0.1,delay_ms=5"
max_btu = 65504
[[link]]
partner = "127.0.0.3"
cp_name = "APPN.NODEB"
[[link]]
partner = "nodec.example"
cp_name = "APPN.NODEC"
activate = "demand"
liveness_seconds = 3
)",
                                                    "n.toml");
  EXPECT_EQ(c.network.local_address, "127.0.0.2");
  EXPECT_EQ(c.network.port_base, 13000u);
  EXPECT_EQ(c.network.node_id, 0x05D0000Au);
  EXPECT_EQ(c.network.impair, "loss=0.1,delay_ms=5");
  EXPECT_EQ(c.network.max_btu, 65504u);
  ASSERT_EQ(c.network.links.size(), 2u);
  EXPECT_EQ(c.network.links[0].partner, "127.0.0.3");
  EXPECT_EQ(c.network.links[0].cp_name, "APPN.NODEB");
  EXPECT_TRUE(c.network.links[0].activate_at_start);
  EXPECT_EQ(c.network.links[0].liveness_seconds, 10u);
  EXPECT_FALSE(c.network.links[1].activate_at_start);
  EXPECT_EQ(c.network.links[1].liveness_seconds, 3u);
  const config::NodeConfig defaults = config::parse_config(kNetwork, "n.toml");
  EXPECT_EQ(defaults.network.port_base, 12000u);
  EXPECT_EQ(defaults.network.node_id, 0x05D00001u);
  EXPECT_EQ(defaults.network.max_btu, 0u);  // the endpoint's per-IP-version default

  const std::string link = "[[link]]\npartner = \"127.0.0.3\"\ncp_name = \"APPN.NODEB\"\n";
  const std::pair<std::string, std::string> refused[] = {
      {"[network]\nlocal_address = \"10.0.0.300\"\n",
       "n.toml:2:17: [network] local_address: \"10.0.0.300\" is not a numeric IPv4 or IPv6 "
       "address (the node binds its UDP ports to it)"},
      {kNetwork + "node_id = \"5D00001\"\n",
       "n.toml:6:11: [network] node_id: \"5D00001\" is not 8 hexadecimal digits (IDBLK and "
       "IDNUM)"},
      {kNetwork + "max_btu = 767\n",
       "n.toml:6:11: [network] max_btu: must be between 768 and 65504, not 767"},
      {kNetwork + "max_btu = 65505\n",
       "n.toml:6:11: [network] max_btu: must be between 768 and 65504, not 65505"},
      {link, "n.toml:2:11: [[link]] partner: names a partner node, but [network] is not enabled"},
      {"[network]\nenabled = true\ncp_name = \"APPN.A\"\n" + link,
       "n.toml:5:11: [[link]] partner: needs [network] local_address, the address the node's "
       "ports are on"},
      {kNetwork + "[[link]]\npartner = \"::1\"\ncp_name = \"APPN.NODEB\"\n",
       "n.toml:7:11: [[link]] partner: \"::1\" is not of the IP version of local_address "
       "127.0.0.2"},
      {kNetwork + "[[link]]\npartner = \"bad host\"\ncp_name = \"APPN.NODEB\"\n",
       "n.toml:7:11: [[link]] partner: \"bad host\" is neither an IP address nor a host name"},
      {kNetwork + link + link, "n.toml:10:11: [[link]] partner: \"127.0.0.3\" is defined twice"},
      {kNetwork + "[[link]]\npartner = \"127.0.0.3\"\ncp_name = \"APPN.NODEA\"\n",
       "n.toml:8:11: [[link]] cp_name: \"APPN.NODEA\" is this node's own control point"},
      {kNetwork + link + "activate = \"later\"\n",
       "n.toml:9:12: [[link]] activate: must be \"start\" or \"demand\", not \"later\""},
  };
  for (const auto &[text, message] : refused) {
    const std::string error = parse_error(text);
    EXPECT_EQ(error, message) << text;
  }
}

TEST(EeConfig, CheckNamesAnAddressThatIsNotThisHostsAndAPartnerThatDoesNotResolve) {
  config::NodeConfig c = config::parse_config(kNetwork + R"(
[[link]]
partner = "no-such-partner.invalid"
cp_name = "APPN.NODEB"
)",
                                              "n.toml");
  daemon::CheckReport report = daemon::check_deployment(c);
  for (const auto &p : report.problems) EXPECT_EQ(p.find("local_address"), std::string::npos) << p;
  ASSERT_EQ(report.warnings.size(), 1u);
  EXPECT_EQ(report.warnings[0],
            "link to APPN.NODEB: \"no-such-partner.invalid\" does not resolve to an IPv4 address "
            "here; the link cannot be activated until it does");

  c.network.local_address = "192.0.2.1";  // a documentation address no host has
  report = daemon::check_deployment(c);
  bool named = false;
  for (const auto &p : report.problems) {
    named |= p ==
             "[network] local_address 192.0.2.1 is not an address of this host: the node "
             "cannot bind its UDP ports 12000-12004 to it";
  }
  EXPECT_TRUE(named);
}

}  // namespace
}  // namespace snanode
