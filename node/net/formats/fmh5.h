// FM header 5, Attach: the start of a conversation, at the head of the first
// RU of a bracket.
//
//   0     length of the header          5-8  fixed part: length (3), resource
//   1     type 5                             type, reserved, sync level
//   2-3   X'02FF' Attach                9..  TP name, access security,
//   4     security indicators                LUW identifier, correlator (each
//                                            preceded by its length byte)
#pragma once

#include <array>
#include <optional>
#include <span>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr uint8_t kFmhTypeAttach = 0x05;
inline constexpr uint16_t kAttachCommand = 0x02FF;
inline constexpr size_t kMaxTpName = 64;
inline constexpr size_t kMaxConversationCorrelator = 8;

enum class ConversationResource : uint8_t {
  kBasicHalfDuplex = 0xD0,
  kMappedHalfDuplex = 0xD1,
  kBasicFullDuplex = 0xD2,
  kMappedFullDuplex = 0xD3,
};

enum class AttachSyncLevel : uint8_t { kNone = 0, kConfirm = 1, kSyncPoint = 2 };

struct LuwIdentifier {
  Bytes lu_name;  // EBCDIC, network-qualified
  std::array<uint8_t, 6> instance{};
  uint16_t sequence = 0;
  bool operator==(const LuwIdentifier &) const = default;
};

struct Attach {
  ConversationResource resource = ConversationResource::kMappedHalfDuplex;
  AttachSyncLevel sync_level = AttachSyncLevel::kNone;
  Bytes tp_name;  // raw bytes: EBCDIC, or a service TP name below X'40'
  // Byte 4.
  bool already_verified = false;
  uint8_t persistent_verification = 0;  // 2 bits, kept but not acted on
  bool password_substitute = false;
  bool pip_present = false;  // a PIP GDS follows the header
  // Access security subfields (EBCDIC); present when set.
  std::optional<Bytes> user_id;
  std::optional<Bytes> password;
  std::optional<Bytes> profile;
  std::optional<LuwIdentifier> luw;
  Bytes conversation_correlator;
  Bytes trailing;  // after the correlator: kept as received, never made up

  bool operator==(const Attach &) const = default;
};

// Fails with a sense code when a field does not fit its length byte, the TP
// name is empty or too long, or the security subfields contradict each other.
Status encode_attach(const Attach &attach, Bytes &out);

// Reads one FMH-5 (exactly its length byte's worth) from `in`; the data that
// follows in the RU stays in the reader.
Result<Attach> decode_attach(ByteReader &in);

// Overwrites the password (or password substitute) of the FMH-5 at the head of
// `fmh` with blanks, for captures and traces.  When the header is cut short
// everything after its TP name is blanked, since the password may be there.
enum class Blanking : uint8_t { kNothingToBlank, kBlanked, kBlankedRemainder };
Blanking blank_attach_password(std::span<uint8_t> fmh, uint8_t blank);

}  // namespace snanode::net
