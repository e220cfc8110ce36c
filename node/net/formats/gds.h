// Logical records as they travel in FMD chains.
//
// Mapped conversations send each record as a GDS variable: LL (2 bytes,
// counting itself and the ID), ID (2 bytes), data; X'12FF' is application
// data.  A variable longer than 32767 bytes is cut into segments: the high bit
// of a segment's LL says another segment follows, and only the first segment
// carries the ID.  Basic conversations send LL + data records with the same
// continuation bit.  Records may span RUs and chains, so a RecordAssembler
// takes the bytes of a chain as they arrive and hands back whole records.
#pragma once

#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/result.h"

namespace snanode::net {

inline constexpr uint16_t kGdsApplicationData = 0x12FF;
inline constexpr uint16_t kGdsNullData = 0x12F1;
inline constexpr uint16_t kGdsUserControlData = 0x12F2;
inline constexpr uint16_t kGdsMapName = 0x12F3;
inline constexpr uint16_t kGdsErrorData = 0x12F4;
inline constexpr uint16_t kGdsChangeNumberOfSessions = 0x1210;

inline constexpr uint16_t kLlContinued = 0x8000;

enum class RecordFraming : uint8_t { kMapped, kBasic };

struct Record {
  uint16_t id = 0;  // 0 for basic records
  Bytes data;
  bool operator==(const Record &) const = default;
};

// Appends `data` as one GDS variable of `id`, segmented as needed.
void append_gds(uint16_t id, ByteSpan data, Bytes &out);
// Appends `data` as one basic logical record, segmented as needed.
void append_basic_record(ByteSpan data, Bytes &out);

// Reads one whole GDS variable (all its segments) from `in`.
Result<Record> read_gds(ByteReader &in);

class RecordAssembler {
 public:
  explicit RecordAssembler(RecordFraming framing) : framing_(framing) {}

  // Takes the next bytes of the record stream; whole records are appended to
  // `records`.  Returns 0, or the sense code when an LL is invalid (the
  // assembler then refuses everything until reset()).
  uint32_t feed(ByteSpan bytes, std::vector<Record> &records);
  // True when no part of a record is held: a chain may end here.
  bool at_record_boundary() const;
  void reset();

 private:
  enum class State : uint8_t { kLength, kId, kData, kBroken };
  uint32_t start_segment(uint16_t ll);

  RecordFraming framing_;
  State state_ = State::kLength;
  bool first_segment_ = true;
  bool more_segments_ = false;
  uint8_t header_[2] = {};
  size_t header_have_ = 0;
  size_t data_left_ = 0;
  Record current_;
};

}  // namespace snanode::net
