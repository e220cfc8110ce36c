// Conversion of the node's side-information record into the internal entry.
#include "side_info.h"
#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

std::vector<unsigned char> with_byte(std::vector<unsigned char> v, size_t at, unsigned char b) {
  v[at] = b;
  return v;
}

class NodeRecord : public ScriptedNode {
 protected:
  SCD_ENTRY convert(const NodeEntry &node) {
    const NOF_SIDE_INFO_DATA record = node_record(node);
    SCD_ENTRY e;
    std::memset(&e, 0xEE, sizeof e);  // every field must be written
    SCD_read_nof_response(&record, &e);
    return e;
  }
};

TEST_F(NodeRecord, PartnerLuNames) {
  start_library();
  struct {
    const char *name;
    uint16_t qualified, period, length;
    std::vector<unsigned char> stored;
  } const cases[] = {
      // The period is stored as X'4B' between the converted halves; the
      // blanks after the name are converted too.
      {"NET1.LU1", 1, 4, 8, ebcdic_field("NET1.LU1", 17)},
      // The last period decides; an earlier one is outside table A and
      // becomes X'00'.
      {"NET.A.B", 1, 5, 7, with_byte(ebcdic_field("NET.A.B", 17), 3, 0x00)},
      {"N.LONGLUNAMEXYZ12", 1, 1, 17, ebcdic_field("N.LONGLUNAMEXYZ12", 17)},
      // An alias is kept as given, in ASCII.
      {"LUALIAS", 0, 0, 7, bytes(reinterpret_cast<const unsigned char *>("LUALIAS          "), 17)},
      {"", 0, 0, 0, std::vector<unsigned char>(17, ' ')},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    NodeEntry node;
    node.partner = c.name;
    const SCD_ENTRY e = convert(node);
    EXPECT_EQ(e.usPartnerLUQualified, c.qualified);
    EXPECT_EQ(e.usPartnerLUPeriodPos, c.period);
    EXPECT_EQ(e.usPartnerLULen, c.length);
    EXPECT_EQ(bytes(e.partner_LU_name, 17), c.stored);
  }
}

TEST_F(NodeRecord, TpNamesModeAndLocalLu) {
  start_library();
  NodeEntry node;
  node.tp_name = "PAYROLL";
  node.mode = "#INTER";
  node.local_lu = "BILLING";
  SCD_ENTRY e = convert(node);
  EXPECT_EQ(e.TP_name_type, 0u);
  EXPECT_EQ(bytes(e.TP_name, 64), ebcdic_field("PAYROLL", 64));
  EXPECT_EQ(e.usModeNameLen, 6);
  EXPECT_EQ(e.mode_name[0], 0x7B);  // '#' in EBCDIC
  EXPECT_EQ(bytes(e.mode_name + 1, 7), ebcdic_field("INTER", 7));
  EXPECT_EQ(std::string(reinterpret_cast<char *>(e.local_LU_alias), 8), "BILLING ");
  EXPECT_EQ(std::string(reinterpret_cast<char *>(e.sym_dest_name), 8), "NODEDEST");
  EXPECT_EQ(bytes(e.reserved, 3), std::vector<unsigned char>(3, 0));

  node.local_lu.clear();
  e = convert(node);
  EXPECT_EQ(bytes(e.local_LU_alias, 8), std::vector<unsigned char>(8, 0));

  // A service TP name is 8 hex digits giving 4 raw bytes; pairs are read as
  // strtol does, so a pair that is no number gives 0.
  struct {
    const char *tp;
    std::vector<unsigned char> first4;
  } const service[] = {
      {"06F1F0F2", {0x06, 0xF1, 0xF0, 0xF2}},
      {"06f1ZZ2x", {0x06, 0xF1, 0x00, 0x02}},
  };
  for (const auto &c : service) {
    SCOPED_TRACE(c.tp);
    node.tp_name_type = 1;
    node.tp_name = c.tp;
    e = convert(node);
    EXPECT_EQ(e.TP_name_type, 1u);
    EXPECT_EQ(bytes(e.TP_name, 4), c.first4);
    EXPECT_EQ(bytes(e.TP_name + 4, 60), std::vector<unsigned char>(60, 0x40));
  }
}

TEST_F(NodeRecord, SecurityFieldsFollowTheSecurityType) {
  start_library();
  const std::vector<unsigned char> zero(10, 0);
  struct {
    uint32_t type;
    bool user, password;
  } const cases[] = {
      {0, false, false}, {1, true, false}, {2, true, true}, {3, false, false}, {5, true, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.type);
    NodeEntry node;
    node.security = c.type;
    const SCD_ENTRY e = convert(node);
    EXPECT_EQ(e.conversation_security_type, c.type);
    EXPECT_EQ(bytes(e.security_user_ID, 10), c.user ? ebcdic_field("CLERK", 10) : zero);
    EXPECT_EQ(e.usUserIDLen, c.user ? 5 : 0);
    EXPECT_EQ(bytes(e.security_password, 10), c.password ? ebcdic_field("SECRET", 10) : zero);
  }
}

TEST_F(NodeRecord, TheConvertedEntryIsKept) {
  start_library();
  NodeEntry node;
  node.name = "KEPT";
  const SCD_ENTRY converted = convert(node);
  SCD_SLOT *slot = nullptr;
  ASSERT_EQ(SCD_match_sym_dest_name(converted.sym_dest_name, &slot), 1);
  EXPECT_EQ(slot->usInUse, 1);
  EXPECT_EQ(std::memcmp(&slot->Entry, &converted, sizeof converted), 0);
}

}  // namespace
