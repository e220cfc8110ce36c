// Where the logical records of a basic conversation begin and end.
//
// Basic conversation data is a stream of logical records, each led by a
// two-byte big-endian LL that counts itself.  The high bit of LL marks a record
// continued in the next segment; the engine keeps segments as records of their
// own, so only the low 15 bits give the length, and a length below 2 (LL 0x0000,
// 0x0001, 0x8000, 0x8001) can never be valid.  Both halves walk the stream with
// this cursor: the sender to refuse bad LLs and to know whether it stopped
// inside a record, the receiver to cut the stream into records again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace snanode::engine {

class RecordCursor {
 public:
  // Walks `size` bytes that follow the current position.  Returns false, and
  // stays where it was, when they contain an invalid LL.
  bool advance(const uint8_t *data, size_t size);

  // True between two records.
  bool at_boundary() const { return header_seen_ == 0 && left_ == 0; }

  // Bytes left in the current record (its LL included when it has not begun),
  // judged from the `size` bytes that follow; nothing when the LL is not there.
  std::optional<size_t> left_in_record(const uint8_t *data, size_t size) const;

  // Offset within the `size` following bytes of the last record boundary, or
  // nothing when the current record does not end in them.
  std::optional<size_t> last_boundary(const uint8_t *data, size_t size) const;

  void reset() { *this = RecordCursor(); }

 private:
  uint8_t header_seen_ = 0;  // 0 or 1 LL bytes of the next record already passed
  uint8_t first_ll_byte_ = 0;
  size_t left_ = 0;  // bytes of the current record still to come after its LL
};

}  // namespace snanode::engine
