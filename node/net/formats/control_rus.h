// The short SC and DFC requests of an LU 6.2 session (UNBIND, SIG, LUSTAT and
// the one-byte RTR and BIS), isolated pacing messages, and the RUs of
// responses.
#pragma once

#include <optional>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {

inline constexpr uint8_t kRequestUnbind = 0x32;
inline constexpr uint8_t kRequestLustat = 0x04;
inline constexpr uint8_t kRequestRtr = 0x05;
inline constexpr uint8_t kRequestBis = 0x70;
inline constexpr uint8_t kRequestSbi = 0x71;
inline constexpr uint8_t kRequestBid = 0xC8;
inline constexpr uint8_t kRequestSig = 0xC9;

struct Unbind {
  uint8_t type = decision::kUnbindNormal;
  uint32_t sense = 0;
  Bytes control_vectors;  // key-length form, e.g. Extended Sense Data X'35'
  bool operator==(const Unbind &) const = default;
};

// Request_To_Send is the only signal LU 6.2 sends: code X'0001', extension X'0001'.
inline constexpr uint16_t kSignalRequestToSend = 0x0001;
struct Signal {
  uint16_t code = kSignalRequestToSend;
  uint16_t extension = 0x0001;
  bool operator==(const Signal &) const = default;
};

struct Lustat {
  uint32_t status = 0;
  bool operator==(const Lustat &) const = default;
};

// Isolated pacing message: the RU of an expedited FMD response with PI set.
enum class IpmType : uint8_t { kSolicited = 0, kUnsolicited = 1, kResetAcknowledgement = 2 };
inline constexpr size_t kIpmSize = 3;
struct Ipm {
  IpmType type = IpmType::kSolicited;
  bool reset_window = false;
  uint16_t next_window_size = 0;
  bool operator==(const Ipm &) const = default;
};

// A negative response RU: sense data, then (SC and DFC requests) the request code.
struct NegativeResponse {
  uint32_t sense = 0;
  std::optional<uint8_t> request_code;
  bool operator==(const NegativeResponse &) const = default;
};

void encode_unbind(const Unbind &unbind, Bytes &out);
Result<Unbind> decode_unbind(ByteSpan ru);
void encode_signal(const Signal &signal, Bytes &out);
// Refuses any signal but Request_To_Send with X'10050000'.
Result<Signal> decode_signal(ByteSpan ru);
void encode_lustat(const Lustat &lustat, Bytes &out);
Result<Lustat> decode_lustat(ByteSpan ru);
void encode_ipm(const Ipm &ipm, Bytes &out);
Result<Ipm> decode_ipm(ByteSpan ru);
void encode_negative_response(const NegativeResponse &rsp, Bytes &out);
Result<NegativeResponse> decode_negative_response(ByteSpan ru);

}  // namespace snanode::net
