#include "net/ee/xid_negotiation.h"

#include <algorithm>

#include "net/formats/ebcdic_names.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net::ee {
namespace {

// HPR capabilities, first byte: RTP supported, control flows over RTP, LDLC
// supported.  The second byte is reserved.
constexpr uint8_t kHprCapabilityFlags = 0x80 | 0x40 | 0x20;
constexpr uint8_t kHprCapabilityRtp = 0x80;
// Offsets of fields in the XID3 named in refusals (the XID negotiation error
// CV reports offsets).
constexpr uint32_t kOffsetMaxBtu = 21;
constexpr uint32_t kOffsetControlVectors = 29;
constexpr uint32_t kSenseCpNameMissing = decision::kSenseXidFormat | kOffsetControlVectors;
constexpr uint32_t kSenseNoHpr = decision::kSenseXidFormat | kOffsetControlVectors;
constexpr uint32_t kSenseRoleConflict = decision::kSenseXidFormat | 19;
constexpr uint32_t kSenseSameNode = decision::kSenseXidFormat | 2;

// Subfields inside a CV: length (counting itself and the key), key, data.
void put_subfield(Bytes &out, uint8_t key, ByteSpan data) {
  out.push_back(static_cast<uint8_t>(data.size() + 2));
  out.push_back(key);
  out.insert(out.end(), data.begin(), data.end());
}

std::optional<ByteSpan> find_subfield(ByteSpan cv, size_t skip, uint8_t key) {
  ByteReader in(cv);
  in.take(skip);
  while (in.ok() && !in.at_end()) {
    const uint8_t length = in.u8();
    const uint8_t found = in.u8();
    const ByteSpan data = in.take(length >= 2 ? length - 2u : 0u);
    if (!in.ok() || length < 2) return std::nullopt;
    if (found == key) return data;
  }
  return std::nullopt;
}

}  // namespace

Bytes default_anr_label() {
  // Built byte by byte: GCC 12 takes an initializer list here for a read of
  // uninitialized memory once inlined into a caller (a false warning).
  Bytes label(2);
  label[0] = 0x80;
  label[1] = 0x01;
  return label;
}

Bytes build_xid3(const LocalIdentity &local, XidExchangeState state, uint8_t role,
                 uint8_t tg_number, bool negotiation_complete, uint32_t error_sense) {
  Xid3 x;
  x.id_block = static_cast<uint16_t>(local.node_id >> 20);
  x.id_number = local.node_id & 0xFFFFF;
  x.network_node = local.network_node;
  x.cp_cp_sessions = false;  // not yet: no CP-CP sessions on these links
  x.state = state;
  x.negotiation_complete_supported = true;
  x.negotiation_complete = negotiation_complete;
  x.tg_number = tg_number;
  x.link_station_role = role;
  x.max_btu = local.max_btu;
  const Bytes cp = ebcdic_from_name(local.cp_name).value_or(Bytes{});
  x.control_vectors.push_back(network_name_cv(kNetworkNameCp, cp));

  Bytes tg_id{tg_number};
  tg_id.insert(tg_id.end(), cp.begin(), cp.end());
  ControlVector tg_descriptor{kCvTgDescriptor, {}};
  put_subfield(tg_descriptor.data, kCvTgIdentifier, tg_id);
  x.control_vectors.push_back(std::move(tg_descriptor));

  ControlVector hpr{kCvHprCapabilities, {kHprCapabilityFlags, 0x00}};
  put_subfield(hpr.data, kHprSapSubfield, Bytes{local.hpr_sap});
  put_subfield(hpr.data, kHprAnrLabelSubfield, local.anr_label);
  x.control_vectors.push_back(std::move(hpr));

  if (error_sense != 0) {
    // Byte offset and bit offset of the field at fault are not tracked past
    // the sense code, which already carries the offset in its low half.
    Bytes error{0, 0, 0};
    ByteWriter w(error);
    w.u32(error_sense);
    x.control_vectors.push_back({kCvXidNegotiationError, std::move(error)});
  }
  Bytes out;
  (void)encode_xid3(x, out);  // every field is within its range by construction
  return out;
}

Result<PartnerXid> read_partner_xid(ByteSpan bytes) {
  using R = Result<PartnerXid>;
  const Result<Xid3> xid = decode_xid3(bytes);
  if (!xid) return R::refused(xid.sense());
  PartnerXid p;
  p.node_id = static_cast<uint32_t>(xid->id_block) << 20 | xid->id_number;
  p.network_node = xid->network_node;
  p.state = xid->state;
  p.negotiation_complete = xid->negotiation_complete;
  p.role = xid->link_station_role;
  p.tg_number = xid->tg_number;
  p.max_btu = xid->max_btu;
  bool tg_identifier = false, hpr = false;
  for (const ControlVector &cv : xid->control_vectors) {
    if (cv.key == kCvNetworkName && !cv.data.empty() && cv.data[0] == kNetworkNameCp) {
      p.cp_name = name_from_ebcdic(ByteSpan(cv.data).subspan(1)).value_or("");
    } else if (cv.key == kCvTgDescriptor) {
      tg_identifier = find_subfield(cv.data, 0, kCvTgIdentifier).has_value();
    } else if (cv.key == kCvHprCapabilities && cv.data.size() >= 2) {
      hpr = (cv.data[0] & kHprCapabilityRtp) != 0;
      if (auto sap = find_subfield(cv.data, 2, kHprSapSubfield); sap && sap->size() == 1) {
        p.hpr_sap = (*sap)[0];
      }
      if (auto label = find_subfield(cv.data, 2, kHprAnrLabelSubfield)) {
        p.anr_label.assign(label->begin(), label->end());
      }
    } else if (cv.key == kCvXidNegotiationError && cv.data.size() >= 7) {
      p.error_sense = load_u32(&cv.data[3]);
    }
  }
  if (p.error_sense != 0) return p;  // the partner refused ours; the rest may be missing
  if (p.cp_name.empty()) return R::refused(kSenseCpNameMissing);
  if (p.state == XidExchangeState::kPrenegotiation && !tg_identifier) {
    return R::refused(kSenseNoTgIdentifier);
  }
  if (!hpr) return R::refused(kSenseNoHpr);
  if (p.max_btu < kMinimumBtu) return R::refused(decision::kSenseXidFormat | kOffsetMaxBtu);
  return p;
}

Result<Negotiated> negotiate(const LocalIdentity &local, const PartnerXid &partner) {
  using R = Result<Negotiated>;
  if (partner.role == 2) return R::refused(kSenseRoleConflict);  // 10 names no role
  Negotiated n;
  switch (partner.role) {
    case decision::kXidRolePrimary:
      n.primary = false;
      break;
    case decision::kXidRoleSecondary:
      n.primary = true;
      break;
    default:
      if (partner.node_id == local.node_id && partner.cp_name == local.cp_name) {
        return R::refused(kSenseSameNode);
      }
      n.primary = local.node_id != partner.node_id ? local.node_id > partner.node_id
                                                   : local.cp_name > partner.cp_name;
      break;
  }
  if (local.tg_number != 0 && partner.tg_number != 0 && local.tg_number != partner.tg_number) {
    n.tg_number = n.primary ? local.tg_number : partner.tg_number;
  } else {
    n.tg_number = std::max(local.tg_number, partner.tg_number);
    if (n.tg_number == 0) n.tg_number = 1;
  }
  n.max_btu = std::min(local.max_btu, partner.max_btu);
  return n;
}

}  // namespace snanode::net::ee
