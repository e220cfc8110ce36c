// The configuration's bytes checked before the TOML parser: text it cannot
// be trusted with is refused with the file, line and column.
#include <gtest/gtest.h>

#include <string>

#include "config/node_config.h"

namespace {

using snanode::config::ConfigError;
using snanode::config::parse_config;

std::string refusal(const std::string &text) {
  try {
    parse_config(text, "node.toml");
  } catch (const ConfigError &e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(ConfigText, BytesTheParserMustNotSeeAreRefusedWithTheirPlace) {
  // Two inputs that reach an assertion of the parser when built with its
  // checks on.
  EXPECT_EQ(refusal("\xD2\x8C"),
            "node.toml:1:1: a character outside ASCII outside a string or comment");
  EXPECT_EQ(refusal("["
                    "\x03"),
            "node.toml:1:2: control character 0x03");
  EXPECT_EQ(refusal("[node]\nname = \"N\xFF\"\n"), "node.toml:2:10: bytes that are not UTF-8");
  EXPECT_EQ(refusal("x = \xED\xA0\x80\n"), "node.toml:1:5: bytes that are not UTF-8");
  EXPECT_EQ(refusal("a = \"\"\"x\"\"\"\"\xD2\x8C\n"),
            "node.toml:1:13: a character outside ASCII outside a string or comment");
  EXPECT_EQ(refusal("[node]\x7F\n"), "node.toml:1:7: control character 0x7F");

  // Outside ASCII is fine in strings and comments, after a byte order mark.
  const auto config = parse_config(
      "\xEF\xBB\xBF# caf\xC3\xA9\n[node]\nname = \"NODE1\"\n[[tp]]\ntp_name = \"ECHO\"\n"
      "program = \"/opt/caf\xC3\xA9\"\narguments = [\"\"\"two\n\"lines\"\"\"\", '\\\xC3\xA9']\n",
      "node.toml");
  ASSERT_EQ(config.tps.size(), 1u);
  EXPECT_EQ(config.tps[0].program, "/opt/caf\xC3\xA9");
  EXPECT_EQ(config.tps[0].arguments.at(0), "two\n\"lines\"");
}

}  // namespace
