// The frames an Enterprise Extender link station exchanges with its partner:
// the LLC commands and responses (XID, TEST, DISC, DM) on the link SAP, UI
// frames carrying one NLP on the HPR SAP, and the two function-routed NLPs
// (XID_DONE request and response) that end a link activation.
//
// Every datagram is an LLC header followed by its information field; the UDP
// port a datagram travels on is chosen by the endpoint, not here.
#pragma once

#include <optional>

#include "net/formats/byte_io.h"
#include "net/formats/nlp.h"

namespace snanode::net::ee {

enum class LdlcKind : uint8_t { kXid, kTest, kDisc, kDm, kUi };

struct LdlcFrame {
  LdlcKind kind = LdlcKind::kUi;
  bool response = false;    // the C/R bit of the SSAP
  bool poll_final = false;  // the P/F bit of the control byte
  uint8_t dsap = 0;
  ByteSpan info;  // XID3, TEST data, an NLP, or empty
};

// The datagram of one frame.  Commands and responses go on `link_sap`; UI
// frames from `own_sap` to the partner's `partner_sap` (the C/R bit is never
// set on them).
Bytes encode_ldlc_command(LdlcKind kind, bool response, uint8_t link_sap, ByteSpan info);
Bytes encode_ui(uint8_t partner_sap, uint8_t own_sap, ByteSpan nlp);
// The same frame into `out` (cleared first), so that a buffer can be reused.
void encode_ui(uint8_t partner_sap, uint8_t own_sap, ByteSpan nlp, Bytes &out);
// A UI frame's header alone, into the kLlcSize bytes at `at`.
void put_ui_header(uint8_t partner_sap, uint8_t own_sap, uint8_t *at);

// The frame a datagram holds; nothing for a datagram shorter than an LLC
// header or with a control byte LDLC does not use.
std::optional<LdlcFrame> decode_ldlc(ByteSpan datagram);

// XID_DONE_RQ (`request`) or XID_DONE_RSP: a function-routed NLP (function
// type LDLC) with an empty routing address, as a UI frame.
Bytes encode_xid_done(bool request, uint8_t partner_sap, uint8_t own_sap);
// Whether `nlp` is XID_DONE_RQ (true) or XID_DONE_RSP (false); nothing when it
// is another NLP.
std::optional<bool> xid_done_kind(ByteSpan nlp);

}  // namespace snanode::net::ee
