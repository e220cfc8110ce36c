// Units written out byte by byte from the published layouts, shared by the
// format, capture and fuzz tests.  Names: NETA.LUA = D5 C5 E3 C1 4B D3 E4 C1,
// NETB.LUB = D5 C5 E3 C2 4B D3 E4 C2, "#INTER" = 7B C9 D5 E3 C5 D9,
// "HELLO" = C8 C5 D3 D3 D6.
#pragma once

#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace golden {

using Bytes = std::vector<uint8_t>;

// Hex digits to bytes; spaces and other separators are skipped.
inline Bytes from_hex(std::string_view text) {
  std::string digits;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
  }
  Bytes out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// BIND: the fixed part a working LU 6.2 node sends, PLU NETA.LUA, user data
// with mode #INTER, no correlation, SLU NETB.LUB.
inline const Bytes kBind = from_hex(
    "31 00 13 07 B0 B0 50 A1 07 87 85 85 87 07 06 02 00 00 00 00 00 00 00 16 20 00 00"  // fixed
    " 08 D5C5E3C1 4BD3E4C1"                                                             // PLU
    " 09 00 07 02 7BC9D5E3C5D9"                                                         // user data
    " 00"                                                                               // URC
    " 08 D5C5E3C2 4BD3E4C2");                                                           // SLU

// Attach for TP HELLO, mapped half-duplex, no security, LUW NETA.LUA
// 000000000001/0001, followed in the same RU by the mapped record "HELLO".
inline const Bytes kAttachWithData = from_hex(
    "23 05 02 FF 00 03 D1 00 00 05 C8C5D3D3D6 00 11 08 D5C5E3C14BD3E4C1 000000000001 0001"
    " 00"  // FMH-5, 35 bytes
    " 0009 12FF C8C5D3D3D6");

// Attach for TP HELLO, basic half-duplex, confirm, user ID USER1 with password
// SECRET (E2 C5 C3 D9 C5 E3), no LUW, no correlator.
inline const Bytes kAttachWithPassword = from_hex(
    "21 05 02 FF 00 03 D0 00 40 05 C8C5D3D3D6"
    " 0F"                  // access security: 15 bytes
    " 06 02 E4E2C5D9F1"    // user ID
    " 07 01 E2C5C3D9C5E3"  // password
    " 00 00");             // no LUW, no correlator

// FMH-7 of Deallocate(abend): sense X'08640000', no log data.
inline const Bytes kFmh7Abend = from_hex("07 07 08640000 00");
// FMH-7 with log data, then the error-log GDS holding "HELLO".
inline const Bytes kFmh7WithLog = from_hex("07 07 08890000 80 0009 12E1 C8C5D3D3D6");

inline const Bytes kUnbindNormal = from_hex("32 01 00000000");
inline const Bytes kSignalRequestToSend = from_hex("C9 0001 0001");
inline const Bytes kLustatNull = from_hex("04 00 06 0001");
inline const Bytes kIpmSolicited = from_hex("00 0007");

// CNOS request: set, max 8 sessions, 4 + 4 winners, one mode #INTER.
inline const Bytes kCnos =
    from_hex("00 17 12 10 00 00 01 00 00 00 08 00 04 00 04 00 06 7BC9D5E3C5D9");

// A whole EE datagram: LLC, NHDR (ANR, high priority, label 8001), THDR (TCID
// 0102..08, whole message, BSN X'1000'), FID5 TH (SNF 2), RH 03 90 00 and one
// mapped record "HELLO".
inline const Bytes kDataDatagram = from_hex(
    "C8 C8 03  C4 00 8001 FF  00 0102030405060708 30 00 00 05 00 00 00 18 00 00 10 00"
    "  5C 00 0002 8000000000000001  03 90 00  0009 12FF C8C5D3D3D6");

// A mapped record of 20 bytes ("ABCDEFGHIJKLMNOP" after LL/ID) cut over a
// chain of three RUs: first (RH 02 90 00), middle (00 90 00), last (01 90 00).
inline const Bytes kChainFirst = from_hex("0014 12FF C1C2C3");
inline const Bytes kChainMiddle = from_hex("C4C5C6C7C8C9");
inline const Bytes kChainLast = from_hex("D1D2D3D4D5D6D7");

// PIP with three parameters "ONE", "" and "THREE" (D6 D5 C5, E3 C8 D9 C5 C5).
inline const Bytes kPip = from_hex("0018 12F5  0007 12E2 D6D5C5  0004 12E2  0009 12E2 E3C8D9C5C5");

// THDR optional segments: status (gap detected, report 3, acknowledging 2,
// received up to X'1000', one gap X'1100'-X'11FF'), ARB rate request (rate
// action 0, parity, responsive mode, request correlator 3, fields 1000 and
// 2000), connection fault with sense X'80020000'.
inline const Bytes kSegments = from_hex(
    "07 0E 80 01 0003 0002 00001000 00000000 00000000 00001100 000011FF"
    " 03 22 85 30 000003E8 000007D0"
    " 02 12 0000 80020000");

// A prenegotiation XID3 of an end node: node ID 05D/12345, stand-alone BIND
// and whole BIND PIUs, CP services, CP-CP sessions, adaptive pacing both ways,
// negotiation complete supported, LAN-form DLC section (ABM, role
// negotiable, BTU 1461), CP name NETA.CPA (C3 D7 C1 = CPA).
inline const Bytes kXid3 = from_hex(
    "32 28 05D12345 0000 7038 C000 80 00 00 00 00 01 0B 70 00 05B5 00 00 00 00 00 00"
    " 0E 09 F4 D5C5E3C14BC3D7C1");

}  // namespace golden
