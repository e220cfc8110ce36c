#include "net/formats/thdr_segments.h"

#include <algorithm>

#include "net/formats/wire_decisions.h"

namespace snanode::net {
namespace {

constexpr size_t kSegmentHeader = 2;
constexpr uint8_t kCvSwitchingInformation = 0x83;
constexpr size_t kSwitchingInformationFixed = 16;
constexpr size_t kStatusFixedBody = 18;
constexpr size_t kArbBody = 10;
constexpr size_t kArbSetupBody = 18;

size_t padded(size_t size) {
  return (size + 3) & ~size_t{3};
}

template <class T>
Result<T> refuse() {
  return Result<T>::refused(decision::kSenseNlpHeader);
}

}  // namespace

void append_segment(uint8_t type, ByteSpan body, Bytes &options) {
  const size_t size = padded(kSegmentHeader + body.size());
  ByteWriter w(options);
  w.u8(static_cast<uint8_t>(size / 4));
  w.u8(type);
  w.bytes(body);
  for (size_t i = kSegmentHeader + body.size(); i < size; ++i) w.u8(0);
}

Result<std::vector<OptionalSegment>> split_segments(ByteSpan options) {
  std::vector<OptionalSegment> segments;
  ByteReader in(options);
  while (!in.at_end()) {
    const uint8_t words = in.u8();
    OptionalSegment segment;
    segment.type = in.u8();
    if (words == 0 || !in.copy(words * 4u - kSegmentHeader, segment.body)) {
      return refuse<std::vector<OptionalSegment>>();
    }
    segments.push_back(std::move(segment));
  }
  return segments;
}

void append_connection_setup(const ConnectionSetup &s, Bytes &options) {
  Bytes body;
  ByteWriter w(body);
  w.u16(s.version);
  w.u8(static_cast<uint8_t>((s.target_resource_id ? 0x80 : 0) | (s.arb_flow_control ? 0x10 : 0) |
                            (s.reliable ? 0x08 : 0) | (s.dedicated ? 0x04 : 0)));
  w.u8(0);
  w.u16(0);
  w.bytes(s.control_vectors);
  append_segment(kSegmentConnectionSetup, body, options);
}

Result<ConnectionSetup> decode_connection_setup(const OptionalSegment &segment) {
  ByteReader in(segment.body);
  ConnectionSetup s;
  s.version = in.u16();
  const uint8_t flags = in.u8();
  in.take(3);
  if (segment.type != kSegmentConnectionSetup || !in.ok()) return refuse<ConnectionSetup>();
  s.target_resource_id = flags & 0x80;
  s.arb_flow_control = flags & 0x10;
  s.reliable = flags & 0x08;
  s.dedicated = flags & 0x04;
  const ByteSpan cvs = in.rest();
  s.control_vectors.assign(cvs.begin(), cvs.end());
  return s;
}

void append_status(const StatusReport &s, Bytes &options) {
  Bytes body;
  ByteWriter w(body);
  w.u8(static_cast<uint8_t>((s.gap_detected ? 0x80 : 0) | (s.idle ? 0x40 : 0)));
  w.u8(static_cast<uint8_t>(s.gaps.size()));
  w.u16(s.report_number);
  w.u16(s.acknowledged_report);
  w.u32(s.received_sequence);
  for (int i = 0; i < 8; ++i) w.u8(0);
  for (size_t i = 0; i < s.gaps.size() && i < 0xFF; ++i) {
    w.u32(s.gaps[i].first);
    w.u32(s.gaps[i].second);
  }
  append_segment(kSegmentStatus, body, options);
}

Result<StatusReport> decode_status(const OptionalSegment &segment) {
  if (segment.type != kSegmentStatus || segment.body.size() < kStatusFixedBody) {
    return refuse<StatusReport>();
  }
  ByteReader in(segment.body);
  StatusReport s;
  const uint8_t flags = in.u8();
  const uint8_t gaps = in.u8();
  s.report_number = in.u16();
  s.acknowledged_report = in.u16();
  s.received_sequence = in.u32();
  in.take(8);
  if (in.remaining() < gaps * 8u) {
    return refuse<StatusReport>();
  }
  s.gap_detected = flags & 0x80;
  s.idle = flags & 0x40;
  for (int i = 0; i < gaps; ++i) {
    const uint32_t begin = in.u32();
    s.gaps.emplace_back(begin, in.u32());
  }
  return s;
}

void append_arb(const Arb &a, Bytes &options) {
  Bytes body;
  ByteWriter w(body);
  w.u8(static_cast<uint8_t>(static_cast<uint8_t>(a.message) << 6 | (a.rate_action & 0x7) << 3 |
                            (a.parity ? 0x04 : 0) | (a.mode & 0x3)));
  w.u8(static_cast<uint8_t>((a.request_correlator & 0xF) << 4 | (a.reply_correlator & 0xF)));
  w.u32(a.field1);
  w.u32(a.field2);
  if (a.message == ArbMessage::kSetup) {
    w.u32(a.field3);
    w.u32(a.field4);
  }
  append_segment(kSegmentArb, body, options);
}

Result<Arb> decode_arb(const OptionalSegment &segment) {
  ByteReader in(segment.body);
  Arb a;
  const uint8_t flags = in.u8(), correlators = in.u8();
  a.message = static_cast<ArbMessage>(flags >> 6);
  const size_t needed = a.message == ArbMessage::kSetup ? kArbSetupBody : kArbBody;
  if (segment.type != kSegmentArb || segment.body.size() < needed) return refuse<Arb>();
  a.rate_action = (flags >> 3) & 0x7;
  a.parity = flags & 0x04;
  a.mode = flags & 0x3;
  a.request_correlator = correlators >> 4;
  a.reply_correlator = correlators & 0xF;
  a.field1 = in.u32();
  a.field2 = in.u32();
  if (a.message == ArbMessage::kSetup) {
    a.field3 = in.u32();
    a.field4 = in.u32();
  }
  return a;
}

void append_connection_id(const Tcid &tcid, Bytes &options) {
  Bytes body = {0, 0};
  body.insert(body.end(), tcid.begin(), tcid.end());
  append_segment(kSegmentConnectionId, body, options);
}

Result<Tcid> decode_connection_id(const OptionalSegment &segment) {
  if (segment.type != kSegmentConnectionId || segment.body.size() < 10) return refuse<Tcid>();
  Tcid tcid;
  std::copy(segment.body.begin() + 2, segment.body.begin() + 10, tcid.begin());
  return tcid;
}

void append_connection_fault(uint32_t sense, Bytes &options) {
  Bytes body = {0, 0};
  ByteWriter(body).u32(sense);
  append_segment(kSegmentConnectionFault, body, options);
}

Result<uint32_t> decode_connection_fault(const OptionalSegment &segment) {
  if (segment.type != kSegmentConnectionFault || segment.body.size() < 6) {
    return refuse<uint32_t>();
  }
  return load_u32(&segment.body[2]);
}

void append_client_bits(uint16_t bits, Bytes &options) {
  Bytes body;
  ByteWriter(body).u16(bits);
  append_segment(kSegmentClientBits, body, options);
}

Result<uint16_t> decode_client_bits(const OptionalSegment &segment) {
  if (segment.type != kSegmentClientBits || segment.body.size() < 2) return refuse<uint16_t>();
  return load_u16(segment.body.data());
}

Status append_switching_information(const SwitchingInformation &s, Bytes &options) {
  const size_t cv_size = kSwitchingInformationFixed + s.nested_cvs.size();
  if (s.nested_cvs.size() < decision::kSwitchingInformationMinNested || cv_size > 0xFF)
    return {decision::kSenseNlpHeader};
  Bytes body = {0, 0};
  ByteWriter w(body);
  w.u8(static_cast<uint8_t>(cv_size));
  w.u8(kCvSwitchingInformation);
  w.u8(s.flags);
  w.u8(0);
  w.u32(s.max_packet_size);
  w.u32(s.path_switch_time);
  w.u32(s.alive_timer);
  w.bytes(s.nested_cvs);
  // The return route starts on a word boundary of the segment.
  while ((kSegmentHeader + body.size()) % 4) w.u8(0);
  w.bytes(s.return_route);
  append_segment(kSegmentSwitchingInformation, body, options);
  return {};
}

Result<SwitchingInformation> decode_switching_information(const OptionalSegment &segment) {
  ByteReader in(segment.body);
  in.take(2);
  const uint8_t cv_size = in.u8();
  const uint8_t key = in.u8();
  SwitchingInformation s;
  s.flags = in.u8();
  in.u8();
  s.max_packet_size = in.u32();
  s.path_switch_time = in.u32();
  s.alive_timer = in.u32();
  if (segment.type != kSegmentSwitchingInformation || !in.ok() || key != kCvSwitchingInformation ||
      cv_size < kSwitchingInformationFixed + decision::kSwitchingInformationMinNested ||
      !in.copy(cv_size - kSwitchingInformationFixed, s.nested_cvs)) {
    return refuse<SwitchingInformation>();
  }
  const size_t route_at = padded(kSegmentHeader + in.offset()) - kSegmentHeader;
  if (route_at > segment.body.size()) return refuse<SwitchingInformation>();
  s.return_route.assign(segment.body.begin() + static_cast<std::ptrdiff_t>(route_at),
                        segment.body.end());
  return s;
}

}  // namespace snanode::net
