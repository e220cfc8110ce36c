#include "net/formats/gds.h"

#include <algorithm>

#include "net/formats/wire_decisions.h"

namespace snanode::net {
namespace {

constexpr size_t kLlSize = 2;
constexpr size_t kGdsHeaderSize = 4;

// Segments after the first carry only an LL.
void append_segments(ByteSpan data, size_t first_header, uint16_t id, Bytes &out) {
  ByteWriter w(out);
  size_t header = first_header;
  bool first = true;
  do {
    const size_t chunk = std::min<size_t>(data.size(), decision::kGdsMaxSegment - header);
    const bool more = chunk < data.size();
    w.u16(static_cast<uint16_t>((header + chunk) | (more ? kLlContinued : 0)));
    if (first && header == kGdsHeaderSize) w.u16(id);
    w.bytes(data.first(chunk));
    data = data.subspan(chunk);
    header = kLlSize;
    first = false;
  } while (!data.empty());
}

}  // namespace

void append_gds(uint16_t id, ByteSpan data, Bytes &out) {
  append_segments(data, kGdsHeaderSize, id, out);
}

void append_basic_record(ByteSpan data, Bytes &out) {
  append_segments(data, kLlSize, 0, out);
}

Result<Record> read_gds(ByteReader &in) {
  Record record;
  uint16_t ll = in.u16();
  if (!in.ok() || (ll & 0x7FFF) < kGdsHeaderSize) {
    return Result<Record>::refused(decision::kSenseRecordFraming);
  }
  record.id = in.u16();
  size_t length = (ll & 0x7FFF) - kGdsHeaderSize;
  for (;;) {
    const ByteSpan part = in.take(length);
    if (!in.ok()) return Result<Record>::refused(decision::kSenseRecordFraming);
    record.data.insert(record.data.end(), part.begin(), part.end());
    if (!(ll & kLlContinued)) return record;
    ll = in.u16();
    if (!in.ok() || (ll & 0x7FFF) < kLlSize) {
      return Result<Record>::refused(decision::kSenseRecordFraming);
    }
    length = (ll & 0x7FFF) - kLlSize;
  }
}

uint32_t RecordAssembler::start_segment(uint16_t ll) {
  const size_t length = ll & 0x7FFF;
  const bool wants_id = framing_ == RecordFraming::kMapped && first_segment_;
  const size_t header = wants_id ? kGdsHeaderSize : kLlSize;
  if (length < header) {
    state_ = State::kBroken;
    return decision::kSenseRecordFraming;
  }
  more_segments_ = ll & kLlContinued;
  data_left_ = length - header;
  // Room for the whole segment at once, growing by at least half: records
  // arrive in pieces of an RU or less, and growing by each would copy the
  // record several times.
  const size_t need = current_.data.size() + data_left_;
  if (current_.data.capacity() < need) {
    current_.data.reserve(std::max(need, current_.data.capacity() * 3 / 2));
  }
  header_have_ = 0;
  state_ = wants_id ? State::kId : State::kData;
  return 0;
}

uint32_t RecordAssembler::feed(ByteSpan bytes, std::vector<Record> &records) {
  if (state_ == State::kBroken) return decision::kSenseRecordFraming;
  for (;;) {
    switch (state_) {
      case State::kLength:
      case State::kId: {
        while (header_have_ < 2 && !bytes.empty()) {
          header_[header_have_++] = bytes[0];
          bytes = bytes.subspan(1);
        }
        if (header_have_ < 2) return 0;
        const uint16_t value = load_u16(header_);
        header_have_ = 0;
        if (state_ == State::kId) {
          current_.id = value;
          state_ = State::kData;
        } else if (uint32_t sense = start_segment(value)) {
          return sense;
        }
        break;
      }
      case State::kData: {
        const size_t take = std::min(data_left_, bytes.size());
        current_.data.insert(current_.data.end(), bytes.begin(), bytes.begin() + take);
        bytes = bytes.subspan(take);
        data_left_ -= take;
        if (data_left_ > 0) return 0;
        state_ = State::kLength;
        if (more_segments_) {
          first_segment_ = false;
        } else {
          records.push_back(std::move(current_));
          current_ = Record{};
          first_segment_ = true;
        }
        if (bytes.empty()) return 0;
        break;
      }
      case State::kBroken:
        return decision::kSenseRecordFraming;
    }
  }
}

bool RecordAssembler::at_record_boundary() const {
  return state_ == State::kLength && first_segment_ && header_have_ == 0;
}

void RecordAssembler::reset() {
  state_ = State::kLength;
  first_segment_ = true;
  more_segments_ = false;
  header_have_ = 0;
  data_left_ = 0;
  current_ = Record{};
}

}  // namespace snanode::net
