// XID format 3: what two type 2.1 nodes exchange in LLC XID frames to
// activate a link (on EE: UDP port 12000, SAP X'04').  The fixed part is 29
// bytes with the LAN form of the DLC-dependent section; control vectors in
// key-length form follow.
#pragma once

#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

inline constexpr uint8_t kLlcXidCommandPoll = 0xBF;  // XID with P/F set
inline constexpr uint8_t kLlcXid = 0xAF;
inline constexpr uint8_t kLinkSap = 0x04;
inline constexpr uint8_t kCvNetworkName = 0x0E;
inline constexpr uint8_t kCvXidNegotiationError = 0x22;
inline constexpr uint8_t kCvTgDescriptor = 0x46;
inline constexpr uint8_t kCvHprCapabilities = 0x61;
inline constexpr uint8_t kNetworkNameCp = 0xF4;

// Bytes 8-9, bits X'000C'; numbered as Wireshark's dissector names them.
enum class XidExchangeState : uint8_t {
  kNotSupported = 0,
  kNegotiationProceeding = 1,
  kPrenegotiation = 2,
  kNonactivation = 3,
};

struct ControlVector {
  uint8_t key = 0;
  Bytes data;
  bool operator==(const ControlVector &) const = default;
};

struct Xid3 {
  uint8_t node_type = 2;   // T2.1
  uint16_t id_block = 0;   // 12 bits
  uint32_t id_number = 0;  // 20 bits
  // Bytes 8-9.
  bool init_self = false;
  bool standalone_bind = true;
  bool whole_bind_generated = true;
  bool whole_bind_required = true;
  bool actpu_suppression = false;
  bool network_node = false;
  bool cp_services = true;
  bool cp_cp_sessions = false;
  XidExchangeState state = XidExchangeState::kPrenegotiation;
  bool nonactivation_exchange = false;
  bool cp_name_change = false;
  // Byte 10.
  bool adaptive_pacing_sender = true;
  bool adaptive_pacing_receiver = true;
  bool quiesce_tg = false;
  bool pu_capabilities = false;
  bool peripheral_border_node = false;
  uint8_t adaptive_pacing_qualifier = 0;  // 2 bits
  // Byte 11.
  bool tg_sharing_prohibited = false;
  bool dedicated_svc = false;
  // Byte 12.
  bool negotiation_complete_supported = true;
  bool negotiation_complete = false;
  // Byte 15.
  bool parallel_tgs = false;
  bool dlur = false;
  bool dlus = false;
  bool extended_border_node = false;
  bool generalized_odai = false;
  uint8_t branch = 0;  // 2 bits
  bool option_set_1123 = false;
  uint8_t tg_number = 0;
  uint8_t dlc_type = decision::kXidDlcTypeIp;
  // DLC-dependent section, LAN form.
  bool abm = true;
  uint8_t link_station_role = decision::kXidRoleNegotiable;  // 2 bits
  bool short_hold_status = false;
  bool short_hold_mode = false;
  uint8_t transmit_receive = 0;  // 2 bits
  bool abm_nonactivation = false;
  uint16_t max_btu = decision::kXidMaxBtu;
  bool init_mode = false;
  uint8_t max_iframes = 0;
  std::vector<ControlVector> control_vectors;

  bool operator==(const Xid3 &) const = default;
};

// The network name CV (X'0E') of `type` holding an EBCDIC name.
ControlVector network_name_cv(uint8_t type, ByteSpan name);

Status encode_xid3(const Xid3 &xid, Bytes &out);
Result<Xid3> decode_xid3(ByteSpan xid);

}  // namespace snanode::net
