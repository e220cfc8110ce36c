#include "net/formats/xid3.h"

#include <algorithm>

#include "net/formats/wire_decisions.h"

namespace snanode::net {
namespace {

constexpr uint8_t kFormat3 = 0x30;
constexpr size_t kXid3FixedSize = 19;       // up to the DLC section's length byte
constexpr uint8_t kLanDlcSectionSize = 11;  // counting its length byte

uint8_t bit(bool on, uint8_t mask) {
  return on ? mask : 0;
}

}  // namespace

ControlVector network_name_cv(uint8_t type, ByteSpan name) {
  // Built in one go: GCC 12 at -O3 takes an insert after a one-byte vector
  // for an overrun (a false array-bounds warning).
  Bytes data(1 + name.size());
  data[0] = type;
  std::copy(name.begin(), name.end(), data.begin() + 1);
  return ControlVector{kCvNetworkName, std::move(data)};
}

Status encode_xid3(const Xid3 &x, Bytes &out) {
  if (x.id_block > 0xFFF || x.id_number > 0xFFFFF) return {decision::kSenseXidFormat | 2};
  Bytes xid;
  ByteWriter w(xid);
  w.u8(static_cast<uint8_t>(kFormat3 | (x.node_type & 0x0F)));
  w.u8(0);  // length, patched below
  w.u32(static_cast<uint32_t>(x.id_block) << 20 | x.id_number);
  w.u16(0);
  w.u16(static_cast<uint16_t>(
      (x.init_self ? 0x8000 : 0) | (x.standalone_bind ? 0x4000 : 0) |
      (x.whole_bind_generated ? 0x2000 : 0) | (x.whole_bind_required ? 0x1000 : 0) |
      (x.actpu_suppression ? 0x0080 : 0) | (x.network_node ? 0x0040 : 0) |
      (x.cp_services ? 0x0020 : 0) | (x.cp_cp_sessions ? 0x0010 : 0) |
      (static_cast<uint8_t>(x.state) & 0x3) << 2 | (x.nonactivation_exchange ? 0x0002 : 0) |
      (x.cp_name_change ? 0x0001 : 0)));
  w.u8(static_cast<uint8_t>(bit(x.adaptive_pacing_sender, 0x80) |
                            bit(x.adaptive_pacing_receiver, 0x40) | bit(x.quiesce_tg, 0x20) |
                            bit(x.pu_capabilities, 0x10) | bit(x.peripheral_border_node, 0x08) |
                            (x.adaptive_pacing_qualifier & 0x3)));
  w.u8(static_cast<uint8_t>(bit(x.tg_sharing_prohibited, 0x40) | bit(x.dedicated_svc, 0x20)));
  w.u8(static_cast<uint8_t>(bit(x.negotiation_complete_supported, 0x80) |
                            bit(x.negotiation_complete, 0x40)));
  w.u16(0);
  w.u8(static_cast<uint8_t>(bit(x.parallel_tgs, 0x80) | bit(x.dlur, 0x40) | bit(x.dlus, 0x20) |
                            bit(x.extended_border_node, 0x10) | bit(x.generalized_odai, 0x08) |
                            (x.branch & 0x3) << 1 | bit(x.option_set_1123, 0x01)));
  w.u8(x.tg_number);
  w.u8(x.dlc_type);
  w.u8(kLanDlcSectionSize);
  w.u8(static_cast<uint8_t>(bit(x.abm, 0x40) | (x.link_station_role & 0x3) << 4 |
                            bit(x.short_hold_status, 0x08) | bit(x.short_hold_mode, 0x04) |
                            (x.transmit_receive & 0x3)));
  w.u8(bit(x.abm_nonactivation, 0x80));
  w.u16(x.max_btu);
  w.u8(0);
  w.u8(bit(x.init_mode, 0x20));
  w.u16(0);
  w.u8(x.max_iframes);
  w.u8(0);
  for (const ControlVector &cv : x.control_vectors) {
    if (cv.data.size() > 0xFF)
      return {decision::kSenseXidFormat | static_cast<uint32_t>(w.size() & 0xFFFF)};
    w.u8(cv.key);
    w.u8(static_cast<uint8_t>(cv.data.size()));
    w.bytes(cv.data);
  }
  if (xid.size() > 0xFF) return {decision::kSenseXidFormat | 1};
  w.patch_u8(1, static_cast<uint8_t>(xid.size()));
  out.insert(out.end(), xid.begin(), xid.end());
  return {};
}

Result<Xid3> decode_xid3(ByteSpan bytes) {
  using R = Result<Xid3>;
  auto refuse_at = [](size_t offset) {
    return R::refused(decision::kSenseXidFormat | static_cast<uint32_t>(offset & 0xFFFF));
  };
  if (bytes.size() < kXid3FixedSize) return refuse_at(bytes.size());
  ByteReader in(bytes);
  const uint8_t b0 = in.u8();
  if ((b0 & 0xF0) != kFormat3) return refuse_at(0);
  const uint8_t length = in.u8();
  if (length < kXid3FixedSize || length > bytes.size()) return refuse_at(1);
  in = ByteReader(bytes.first(length));
  in.take(2);
  Xid3 x;
  x.node_type = b0 & 0x0F;
  const uint32_t id = in.u32();
  x.id_block = static_cast<uint16_t>(id >> 20);
  x.id_number = id & 0xFFFFF;
  in.take(2);
  const uint16_t b8 = in.u16();
  x.init_self = b8 & 0x8000;
  x.standalone_bind = b8 & 0x4000;
  x.whole_bind_generated = b8 & 0x2000;
  x.whole_bind_required = b8 & 0x1000;
  x.actpu_suppression = b8 & 0x0080;
  x.network_node = b8 & 0x0040;
  x.cp_services = b8 & 0x0020;
  x.cp_cp_sessions = b8 & 0x0010;
  x.state = static_cast<XidExchangeState>((b8 >> 2) & 0x3);
  x.nonactivation_exchange = b8 & 0x0002;
  x.cp_name_change = b8 & 0x0001;
  const uint8_t b10 = in.u8();
  x.adaptive_pacing_sender = b10 & 0x80;
  x.adaptive_pacing_receiver = b10 & 0x40;
  x.quiesce_tg = b10 & 0x20;
  x.pu_capabilities = b10 & 0x10;
  x.peripheral_border_node = b10 & 0x08;
  x.adaptive_pacing_qualifier = b10 & 0x3;
  const uint8_t b11 = in.u8();
  x.tg_sharing_prohibited = b11 & 0x40;
  x.dedicated_svc = b11 & 0x20;
  const uint8_t b12 = in.u8();
  x.negotiation_complete_supported = b12 & 0x80;
  x.negotiation_complete = b12 & 0x40;
  in.take(2);
  const uint8_t b15 = in.u8();
  x.parallel_tgs = b15 & 0x80;
  x.dlur = b15 & 0x40;
  x.dlus = b15 & 0x20;
  x.extended_border_node = b15 & 0x10;
  x.generalized_odai = b15 & 0x08;
  x.branch = (b15 >> 1) & 0x3;
  x.option_set_1123 = b15 & 0x01;
  x.tg_number = in.u8();
  x.dlc_type = in.u8();
  const size_t dlc_at = in.offset();
  const uint8_t dlc_size = in.u8();
  const ByteSpan dlc = in.take(dlc_size > 0 ? dlc_size - 1u : 0u);
  if (!in.ok() || dlc_size != kLanDlcSectionSize) return refuse_at(dlc_at);
  x.abm = dlc[0] & 0x40;
  x.link_station_role = (dlc[0] >> 4) & 0x3;
  x.short_hold_status = dlc[0] & 0x08;
  x.short_hold_mode = dlc[0] & 0x04;
  x.transmit_receive = dlc[0] & 0x3;
  x.abm_nonactivation = dlc[1] & 0x80;
  x.max_btu = load_u16(&dlc[2]);
  x.init_mode = dlc[5] & 0x20;
  x.max_iframes = dlc[8];
  while (!in.at_end()) {
    const size_t at = in.offset();
    ControlVector cv;
    cv.key = in.u8();
    if (!in.copy(in.u8(), cv.data)) return refuse_at(at);
    x.control_vectors.push_back(std::move(cv));
  }
  return x;
}

}  // namespace snanode::net
