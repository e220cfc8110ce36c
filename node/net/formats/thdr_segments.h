// The optional segments of an RTP transport header.  Each starts with its
// length in 4-byte words (header included) and its type; the THDR's OSI bit
// says they are present and its data offset counts them.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/nlp.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr uint8_t kSegmentConnectionSetup = 0x0D;
inline constexpr uint8_t kSegmentStatus = 0x0E;
inline constexpr uint8_t kSegmentClientBits = 0x0F;
inline constexpr uint8_t kSegmentConnectionId = 0x10;
inline constexpr uint8_t kSegmentConnectionFault = 0x12;
inline constexpr uint8_t kSegmentSwitchingInformation = 0x14;
inline constexpr uint8_t kSegmentArb = 0x22;

struct OptionalSegment {
  uint8_t type = 0;
  Bytes body;  // after the 2-byte header, padding included
  bool operator==(const OptionalSegment &) const = default;
};

// Appends one segment, padding its body to whole words.
void append_segment(uint8_t type, ByteSpan body, Bytes &options);
// Splits the option bytes of a THDR into its segments.
Result<std::vector<OptionalSegment>> split_segments(ByteSpan options);

struct ConnectionSetup {
  uint16_t version = 0x0101;
  bool target_resource_id = false;
  bool arb_flow_control = true;
  bool reliable = true;
  bool dedicated = false;
  Bytes control_vectors;  // length-key form, each padded to a word
  bool operator==(const ConnectionSetup &) const = default;
};

struct StatusReport {
  bool gap_detected = false;
  bool idle = false;
  uint16_t report_number = 0;
  uint16_t acknowledged_report = 0;
  uint32_t received_sequence = 0;
  std::vector<std::pair<uint32_t, uint32_t>> gaps;  // byte ranges still missing
  bool operator==(const StatusReport &) const = default;
};

// Adaptive rate-based flow control.  Setup messages carry four fields, the
// others two; their units are decision D5 of the HPR layer.
enum class ArbMessage : uint8_t { kSetup = 0, kRateReply = 1, kRateRequest = 2, kBoth = 3 };
struct Arb {
  ArbMessage message = ArbMessage::kSetup;
  uint8_t rate_action = 0;  // 3 bits
  bool parity = false;
  uint8_t mode = 0;                // 2 bits: 0 base, 1 responsive
  uint8_t request_correlator = 0;  // 4 bits
  uint8_t reply_correlator = 0;    // 4 bits
  uint32_t field1 = 0, field2 = 0, field3 = 0, field4 = 0;
  bool operator==(const Arb &) const = default;
};

// The Switching Information CV (key X'83') with the CVs nested in it, then,
// after padding to a word, the Return Route TG Descriptor CV (key X'85'), kept
// as its bytes until the HPR layer needs its TG descriptors.
struct SwitchingInformation {
  uint8_t flags = 0x80;  // X'80' resequencing, X'40' mobility, ... X'04' MNPS
  uint32_t max_packet_size = 0;
  uint32_t path_switch_time = 0;
  uint32_t alive_timer = 0;
  Bytes nested_cvs;    // length-key CVs inside the X'83' CV: at least one
  Bytes return_route;  // from the X'85' CV to the end of the segment
  bool operator==(const SwitchingInformation &) const = default;
};

void append_connection_setup(const ConnectionSetup &s, Bytes &options);
void append_status(const StatusReport &s, Bytes &options);
void append_arb(const Arb &a, Bytes &options);
void append_connection_id(const Tcid &tcid, Bytes &options);
void append_connection_fault(uint32_t sense, Bytes &options);
void append_client_bits(uint16_t bits, Bytes &options);
// Refuses a CV with nothing nested: the CV is only complete when its length
// exceeds its 16 fixed bytes (Wireshark shows a shorter one as bare data).
Status append_switching_information(const SwitchingInformation &s, Bytes &options);

Result<ConnectionSetup> decode_connection_setup(const OptionalSegment &segment);
Result<StatusReport> decode_status(const OptionalSegment &segment);
Result<Arb> decode_arb(const OptionalSegment &segment);
Result<Tcid> decode_connection_id(const OptionalSegment &segment);
Result<uint32_t> decode_connection_fault(const OptionalSegment &segment);
Result<uint16_t> decode_client_bits(const OptionalSegment &segment);
Result<SwitchingInformation> decode_switching_information(const OptionalSegment &segment);

}  // namespace snanode::net
