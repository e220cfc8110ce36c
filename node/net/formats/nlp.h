// The layers under a BIU on Enterprise Extender: the 3-byte IEEE 802.2 LLC
// header, and the HPR network layer packet (NLP): network layer header (NHDR)
// and RTP transport header (THDR), then the data.
//
//   NHDR  byte 0: switching mode (X'E0'), transmission priority (X'06')
//         byte 1: function type (X'F0'), time-sensitive, slowdown 1 and 2
//         ANR labels (or the FR address) up to X'FF', one reserved byte,
//         then for function routing one FR header byte
//   THDR  8-byte TCID, 2 indicator bytes, data offset in words, DLF, BSN,
//         then a connection qualifier and optional segments (4-byte units)
#pragma once

#include <array>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr size_t kLlcSize = 3;
inline constexpr uint8_t kLlcUi = 0x03;
inline constexpr uint8_t kHprSap = 0xC8;
inline constexpr size_t kThdrFixedSize = 20;

struct LlcHeader {
  uint8_t dsap = kHprSap;
  uint8_t ssap = kHprSap;
  uint8_t control = kLlcUi;
  bool operator==(const LlcHeader &) const = default;
};

enum class SwitchingMode : uint8_t { kFunctionRouting = 5, kAnr = 6 };
// Transmission priority: 0 low, 1 medium, 2 high, 3 network.
enum class Priority : uint8_t { kLow = 0, kMedium = 1, kHigh = 2, kNetwork = 3 };

struct Nhdr {
  SwitchingMode mode = SwitchingMode::kAnr;
  Priority priority = Priority::kHigh;
  uint8_t function_type = 0;  // function routing: 1 = LDLC
  bool time_sensitive = false;
  bool slowdown1 = false;
  bool slowdown2 = false;
  Bytes labels;           // ANR labels or FR address, without the X'FF'
  uint8_t fr_header = 0;  // function routing only
  bool operator==(const Nhdr &) const = default;
};

using Tcid = std::array<uint8_t, 8>;

struct Thdr {
  Tcid tcid{};
  bool setup = false;  // SETUPI
  bool start_of_message = true;
  bool end_of_message = true;
  bool status_requested = false;
  bool reply_asap = false;
  bool retry = false;
  bool last_message = false;
  bool connection_qualifier = false;  // CQFI
  bool optional_segments = false;     // OSI
  uint32_t bsn = 0;
  Bytes options;  // connection qualifier and optional segments, whole words
  bool operator==(const Thdr &) const = default;
};

struct NlpView {
  Nhdr nhdr;
  Thdr thdr;  // ANR packets only
  ByteSpan data;
};

void encode_llc(const LlcHeader &llc, ByteWriter &out);
Result<LlcHeader> decode_llc(ByteReader &in);

// Appends NHDR, THDR (ANR mode; DLF is data.size()) and data.  Refuses labels
// holding X'FF' and options that are not whole 4-byte words.
Status encode_nlp(const Nhdr &nhdr, const Thdr &thdr, ByteSpan data, Bytes &out);
// The same NLP's headers alone, for `data_size` bytes of data that follow
// them on the wire but are not copied here.
Status encode_nlp_headers(const Nhdr &nhdr, const Thdr &thdr, size_t data_size, Bytes &out);
Result<NlpView> decode_nlp(ByteSpan nlp);

}  // namespace snanode::net
