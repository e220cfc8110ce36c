// What a link station says about itself in its XID3s, what it reads from the
// partner's, and how the two agree on the link's role, TG number and BTU size.
//
// Both sides run `negotiate` on the same pair of XIDs and so reach the same
// answer without another round: the role follows the fixed role of a partner
// that has one, and otherwise the higher node ID (then the higher CP name)
// becomes primary.
#pragma once

#include <optional>
#include <string>

#include "net/formats/byte_io.h"
#include "net/formats/nlp.h"
#include "net/formats/result.h"
#include "net/formats/xid3.h"

namespace snanode::net::ee {

inline constexpr uint8_t kCvTgIdentifier = 0x80;       // subfield of the TG descriptor
inline constexpr uint8_t kHprSapSubfield = 0x80;       // subfield of HPR capabilities
inline constexpr uint8_t kHprAnrLabelSubfield = 0x81;  // subfield of HPR capabilities
inline constexpr uint16_t kMinimumBtu = 768;
// A prenegotiation XID3 with no TG descriptor (or no TG identifier in it).
inline constexpr uint32_t kSenseNoTgIdentifier = 0x088C4680;

// X'8001': the ANR label a station gives its partner unless told otherwise.
Bytes default_anr_label();

struct LocalIdentity {
  uint32_t node_id = 0;  // IDBLK (12 bits), IDNUM (20 bits)
  std::string cp_name;   // NETID.CPNAME
  bool network_node = false;
  uint8_t tg_number = 0;    // 0: whatever the partner proposes (or 1)
  uint16_t max_btu = 1461;  // IPv4; the endpoint makes it 1441 on IPv6
  uint8_t hpr_sap = kHprSap;
  Bytes anr_label = default_anr_label();  // what the partner puts in NLPs to reach this node
};

struct PartnerXid {
  uint32_t node_id = 0;
  std::string cp_name;
  bool network_node = false;
  XidExchangeState state = XidExchangeState::kPrenegotiation;
  bool negotiation_complete = false;
  uint8_t role = 0;  // link station role bits as sent
  uint8_t tg_number = 0;
  uint16_t max_btu = 0;
  uint8_t hpr_sap = kHprSap;
  Bytes anr_label;
  uint32_t error_sense = 0;  // from an XID negotiation error CV; 0: none
};

struct Negotiated {
  bool primary = false;
  uint8_t tg_number = 0;
  uint16_t max_btu = 0;  // the smaller of both sides' receive sizes
};

// The XID3 this station sends.  `error_sense` non-zero adds an XID
// negotiation error CV naming what was wrong with the partner's last XID.
Bytes build_xid3(const LocalIdentity &local, XidExchangeState state, uint8_t role,
                 uint8_t tg_number, bool negotiation_complete, uint32_t error_sense = 0);

// The partner's XID3, or the sense code it is refused with.
Result<PartnerXid> read_partner_xid(ByteSpan xid);

// The outcome both sides reach; refused (with its sense) when the two cannot
// agree: both insist on the same role, or the partner is this very node.
Result<Negotiated> negotiate(const LocalIdentity &local, const PartnerXid &partner);

}  // namespace snanode::net::ee
