// BIND for LU 6.2 sessions (FM profile 19, TS profile 7) and the BIND image a
// +RSP(BIND) returns.  The fixed part is 27 bytes; names, user data (mode name
// and other structured subfields), the user request correlation field and
// control vectors follow.
#pragma once

#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr uint8_t kRequestBind = 0x31;
inline constexpr size_t kBindFixedSize = 27;
inline constexpr size_t kMaxNetworkQualifiedName = 17;  // NETID.NAME
inline constexpr size_t kMaxModeName = 8;

// Bytes 4 and 5: how each half-session uses function management data.
struct FmUsage {
  bool multiple_ru_chains = true;
  bool delayed_request_mode = false;
  uint8_t chain_response_protocol = 3;  // 2 bits: 0 none, 1 exception, 2 definite, 3 either
  bool compression = false;
  bool may_send_end_bracket = false;
  uint8_t reserved = 0;  // bits X'0C', kept as received

  bool operator==(const FmUsage &) const = default;
};

// Bytes 8-9 and 12-13: session-level pacing.
struct Pacing {
  bool secondary_staging = false;
  uint8_t secondary_send_window = 7;  // 6 bits
  bool adaptive = true;
  uint8_t secondary_receive_window = 7;
  bool primary_staging = true;
  uint8_t primary_send_window = 7;
  uint8_t primary_receive_window = 7;

  bool operator==(const Pacing &) const = default;
};

enum class BindSyncLevel : uint8_t { kNone = 0, kConfirm = 1, kSyncPoint = 2 };

struct BindUserSubfield {
  uint8_t key = 0;
  Bytes data;
  bool operator==(const BindUserSubfield &) const = default;
};

inline constexpr uint8_t kUserDataModeName = 0x02;
inline constexpr uint8_t kUserDataSessionInstance = 0x03;
inline constexpr uint8_t kUserDataPluNetworkName = 0x04;
inline constexpr uint8_t kUserDataSluNetworkName = 0x05;
inline constexpr uint8_t kUserDataRandomData = 0x11;

struct Bind {
  bool nonnegotiable = false;  // byte 1 type
  FmUsage primary;
  FmUsage secondary;
  // Byte 6.
  bool whole_biu = false;
  bool fm_headers = true;
  bool brackets = false;
  bool bracket_termination_rule1 = true;
  bool alternate_code_set = false;
  bool bind_queuing = false;
  // Byte 7.
  uint8_t send_receive_mode = 2;  // 2 bits: 2 half-duplex flip-flop
  bool symmetric_error_recovery = true;
  bool primary_contention_winner = false;
  uint8_t alternate_code_processing = 0;  // 2 bits
  bool primary_sends_first = true;        // HDX-FF reset state
  Pacing pacing;
  // Maximum RU sizes in bytes as the encoded X'ab' values give them
  // (decision::kNoMaximumRuSize for X'00').
  uint32_t max_ru_secondary_sends = 256;
  uint32_t max_ru_primary_sends = 256;
  bool ps_usage_format = false;
  uint8_t lu6_level = 2;
  uint8_t byte22 = 0;
  // Byte 23: conversation-level security.
  bool access_security_accepted = true;
  bool lu_lu_verification = false;
  bool password_substitution = true;
  bool already_verified_accepted = true;
  bool persistent_verification = false;
  // Byte 24.
  BindSyncLevel sync_level = BindSyncLevel::kConfirm;
  uint8_t session_reinitiation = 0;  // 2 bits
  bool parallel_sessions = false;
  bool cnos_supported = false;
  // Byte 25.
  bool limited_resource = false;
  uint8_t length_checked_compression = 0;  // 2 bits
  // Byte 26 and the cryptography options it counts (X'0F').
  uint8_t cryptography = 0;
  Bytes cryptography_options;

  Bytes plu_name;                                 // EBCDIC, network-qualified
  Bytes mode_name;                                // EBCDIC; empty = no user data at all
  std::vector<BindUserSubfield> other_user_data;  // after the mode name
  Bytes user_request_correlation;
  Bytes slu_name;
  Bytes control_vectors;  // key-length form; non-empty sets byte 7 X'02'

  bool operator==(const Bind &) const = default;
};

// Maximum RU size to and from its X'ab' = a·2^b byte.  Sizes not representable
// round down, so the encoded limit never exceeds what was asked for.
uint8_t encode_ru_size(uint32_t bytes);
uint32_t decode_ru_size(uint8_t code);

Status encode_bind(const Bind &bind, Bytes &out);
// Refuses with X'0835xxxx' (xxxx = offset of the field at fault), or X'0821xxxx'
// for a name field too long for the session.
Result<Bind> decode_bind(ByteSpan ru);

}  // namespace snanode::net
