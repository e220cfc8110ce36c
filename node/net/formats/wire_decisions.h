// Every wire choice this node makes where no public layout settled the
// question, in one place so that changing one is a one-line edit.  Each entry
// has a row in docs/network.md (the "decisions" table) giving the reasoning.
#pragma once

#include <cstddef>
#include <cstdint>

namespace snanode::net::decision {

// D1: the byte after the X'FF' that ends the ANR labels is reserved; sent as 0
// and skipped on receipt (Wireshark's dissector skips it too).
inline constexpr uint8_t kNhdrReservedAfterAnr = 0x00;

// D3: one 8-byte FID5 session address, chosen by the BIND sender and used in
// both directions of the session.  (No constant: the session layer holds it.)

// D7: XID3 uses the LAN form of the DLC-dependent section on EE: DLC type
// X'01', section of 11 bytes, maximum BTU 1461.  Link station role in byte 19
// bits X'30': 00 secondary, 01 primary, 11 negotiable.
inline constexpr uint8_t kXidDlcTypeIp = 0x01;
inline constexpr uint16_t kXidMaxBtu = 1461;
inline constexpr uint8_t kXidRoleSecondary = 0;
inline constexpr uint8_t kXidRolePrimary = 1;
inline constexpr uint8_t kXidRoleNegotiable = 3;

// D8: XID exchange states numbered as Wireshark's dissector names them (see
// XidExchangeState).

// D10: the response form asked for by Confirm and Deallocate(confirm), as RH
// byte 1: DR1 and DR2 (RQD3).  Receivers accept RQD2 (X'20') as well.
inline constexpr uint8_t kConfirmResponseForm = 0xA0;

// D11: the BIND this node sends starts from the default `Bind` of bind.h:
// byte 6 X'50' (FM headers, bracket termination rule 1), byte 7 X'A1'
// (half-duplex flip-flop, symmetric recovery, secondary contention winner,
// primary sends first), byte 22 X'00'.

// D12: a maximum RU size is always sent encoded (never X'00'); a received X'00'
// ("no maximum") is read as the largest encodable size, X'FF' = 15 * 2^15.
inline constexpr uint32_t kNoMaximumRuSize = 15u << 15;

// D13: −RSP RUs to SC and DFC requests carry the request code after the sense
// data; −RSP to FMD requests carry only the sense data.
inline constexpr bool kNegativeResponseEchoesRequestCode = true;

// D14: UNBIND always carries its four sense bytes (zero for a normal end);
// +RSP(UNBIND) is the request code alone.
inline constexpr uint8_t kUnbindNormal = 0x01;
inline constexpr uint8_t kUnbindBindForthcoming = 0x02;
inline constexpr uint8_t kUnbindInvalidSessionParameters = 0xFE;

// D15: the LUSTAT status used when only RH indicators need carrying.
inline constexpr uint32_t kLustatNullStatus = 0x00060001;

// D17: FMH-5 byte 4 bit X'04' and the persistent-verification bits are sent
// as 0; received values are kept but not acted on.  Bytes after the
// conversation correlator are kept as received and never sent by this node.

// D18: the error-log GDS X'12E1' holds the program's log data as it is.
inline constexpr uint16_t kGdsIdErrorLog = 0x12E1;
inline constexpr uint16_t kGdsIdPipVariable = 0x12F5;
inline constexpr uint16_t kGdsIdPipSubfield = 0x12E2;

// D19: CNOS field encodings (only the field order is public).
inline constexpr uint8_t kCnosRequest = 0x00;
inline constexpr uint8_t kCnosReply = 0x80;
inline constexpr uint8_t kCnosDrainSource = 0x80;
inline constexpr uint8_t kCnosDrainTarget = 0x40;
inline constexpr uint8_t kCnosActionSet = 0x01;    // initialize or change limits
inline constexpr uint8_t kCnosActionClose = 0x02;  // reset limits to zero
inline constexpr uint8_t kCnosReplyAsRequested = 0x00;
inline constexpr uint8_t kCnosReplyNegotiated = 0x01;
inline constexpr uint8_t kCnosReplyModeNotRecognized = 0x02;
inline constexpr uint8_t kCnosOneMode = 0x00;
inline constexpr uint8_t kCnosAllModes = 0x01;
inline constexpr uint8_t kCnosTpName[] = {0x06, 0xF1};

// D20: BIND, UNBIND, SIG and other expedited requests are numbered by a
// per-direction counter of their own, starting at 1; normal-flow SNFs are not
// touched by them.  (The session layer keeps the counters.)

// D21: FID5 segmentation is never used inside HPR: MPF is always "whole BIU".
inline constexpr uint8_t kMpfWholeBiu = 0x3;

// D24: GDS segments after the first (LL with X'8000' set in the one before)
// carry only their LL, no ID; at most 32767 bytes each, LL included.
inline constexpr uint16_t kGdsMaxSegment = 0x7FFF;

// D25: sense codes for malformed units where the public tables name none.
inline constexpr uint32_t kSenseTooShortTh = 0x800B0000;     // incomplete TH
inline constexpr uint32_t kSenseInvalidFid = 0x80060000;     // FID not 5
inline constexpr uint32_t kSenseTooShortRh = 0x40050000;     // incomplete RH
inline constexpr uint32_t kSenseRuLength = 0x10020000;       // RU length error
inline constexpr uint32_t kSenseRecordFraming = 0x10010000;  // bad LL in a record stream
// A malformed XID3: the low half is the offset of the field at fault, as the
// XID negotiation error CV (X'22') reports it.
inline constexpr uint32_t kSenseXidFormat = 0x10160000;
// HPR drops a malformed NLP; the code only names the refusal in traces.
inline constexpr uint32_t kSenseNlpHeader = 0x800B0000;

// D28: a Switching Information CV (X'83') carries at least this many bytes of
// nested CVs after its 16 fixed bytes; one that does not is refused both ways.
inline constexpr size_t kSwitchingInformationMinNested = 1;

// D26: the capture writer replaces passwords and password substitutes in an
// Attach with the same number of EBCDIC blanks, so every length field and byte
// sequence number in the capture stays as it was on the wire.
inline constexpr uint8_t kCaptureBlank = 0x40;

// D29: every request of a conversation's chains asks for an exception
// response only (RQE1), but for the last RU of a chain that asks for a
// confirmation (kConfirmResponseForm).
inline constexpr uint8_t kChainResponseForm = 0x90;

// D30: SIG (Request_To_Send) asks for a definite response, RQD1; the partner
// answers +RSP(SIG) at once.
inline constexpr uint8_t kSignalResponseForm = 0x80;

}  // namespace snanode::net::decision

namespace snanode::net::decision {
// S4 (docs/network.md, Sessions): a partner that overruns its pacing window, or sends a pacing response
// nobody asked for, ends the session with this sense (state-error family).
inline constexpr uint32_t kSensePacingError = 0x20110000;
// S5: a BIND naming a session address already in use is refused with the
// "invalid session parameters" sense; the address is the session's key (D3).
inline constexpr uint32_t kSenseSessionAddressInUse = 0x08210000;
// S8: when two CNOS exchanges for one mode cross, the target whose own
// exchange is running and whose LU name is the lower answers with this reply
// modifier and no change; both LUs keep the other exchange's result.
inline constexpr uint8_t kCnosReplyRaceRejected = 0x03;
}  // namespace snanode::net::decision
