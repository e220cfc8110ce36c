#include "net/formats/nlp.h"

#include <algorithm>

#include "net/formats/wire_decisions.h"

namespace snanode::net {
namespace {

constexpr uint8_t kAnrEnd = 0xFF;
constexpr size_t kMaxLabelBytes = 64;

void encode_nhdr(const Nhdr &h, ByteWriter &w) {
  w.u8(static_cast<uint8_t>(static_cast<uint8_t>(h.mode) << 5 |
                            (static_cast<uint8_t>(h.priority) & 0x3) << 1));
  w.u8(static_cast<uint8_t>((h.function_type & 0x0F) << 4 | (h.time_sensitive ? 0x08 : 0) |
                            (h.slowdown1 ? 0x04 : 0) | (h.slowdown2 ? 0x02 : 0)));
  w.bytes(h.labels);
  w.u8(kAnrEnd);
  w.u8(decision::kNhdrReservedAfterAnr);
  if (h.mode == SwitchingMode::kFunctionRouting) w.u8(h.fr_header);
}

}  // namespace

void encode_llc(const LlcHeader &llc, ByteWriter &out) {
  out.u8(llc.dsap);
  out.u8(llc.ssap);
  out.u8(llc.control);
}

Result<LlcHeader> decode_llc(ByteReader &in) {
  if (in.remaining() < kLlcSize) return Result<LlcHeader>::refused(decision::kSenseNlpHeader);
  LlcHeader llc;
  llc.dsap = in.u8();
  llc.ssap = in.u8();
  llc.control = in.u8();
  return llc;
}

Status encode_nlp(const Nhdr &nhdr, const Thdr &t, ByteSpan data, Bytes &out) {
  const Status status = encode_nlp_headers(nhdr, t, data.size(), out);
  if (status) ByteWriter(out).bytes(data);
  return status;
}

Status encode_nlp_headers(const Nhdr &nhdr, const Thdr &t, size_t data_size, Bytes &out) {
  if (std::find(nhdr.labels.begin(), nhdr.labels.end(), kAnrEnd) != nhdr.labels.end() ||
      nhdr.labels.size() > kMaxLabelBytes || t.options.size() % 4 != 0 ||
      (kThdrFixedSize + t.options.size()) / 4 > 0xFFFF) {
    return {decision::kSenseNlpHeader};
  }
  ByteWriter w(out);
  encode_nhdr(nhdr, w);
  if (nhdr.mode == SwitchingMode::kFunctionRouting) return {};
  w.bytes(t.tcid);
  w.u8(static_cast<uint8_t>((t.setup ? 0x40 : 0) | (t.start_of_message ? 0x20 : 0) |
                            (t.end_of_message ? 0x10 : 0) | (t.status_requested ? 0x08 : 0) |
                            (t.reply_asap ? 0x04 : 0) | (t.retry ? 0x02 : 0)));
  w.u8(static_cast<uint8_t>((t.last_message ? 0x80 : 0) | (t.connection_qualifier ? 0x08 : 0) |
                            (t.optional_segments ? 0x04 : 0)));
  w.u16(static_cast<uint16_t>((kThdrFixedSize + t.options.size()) / 4));
  w.u32(static_cast<uint32_t>(data_size));
  w.u32(t.bsn);
  w.bytes(t.options);
  return {};
}

Result<NlpView> decode_nlp(ByteSpan nlp) {
  using R = Result<NlpView>;
  ByteReader in(nlp);
  NlpView v;
  const uint8_t b0 = in.u8(), b1 = in.u8();
  const uint8_t mode = b0 >> 5;
  if (!in.ok() || (mode != 5 && mode != 6)) return R::refused(decision::kSenseNlpHeader);
  v.nhdr.mode = static_cast<SwitchingMode>(mode);
  v.nhdr.priority = static_cast<Priority>((b0 >> 1) & 0x3);
  v.nhdr.function_type = b1 >> 4;
  v.nhdr.time_sensitive = b1 & 0x08;
  v.nhdr.slowdown1 = b1 & 0x04;
  v.nhdr.slowdown2 = b1 & 0x02;
  // The labels run to the X'FF': taken in one piece (an NLP is decoded for
  // every datagram).
  const ByteSpan rest = nlp.subspan(in.offset());
  const auto end =
      std::find(rest.begin(), rest.begin() + std::min(rest.size(), kMaxLabelBytes + 1), kAnrEnd);
  const auto labels = static_cast<size_t>(end - rest.begin());
  if (labels > kMaxLabelBytes || end == rest.end()) return R::refused(decision::kSenseNlpHeader);
  v.nhdr.labels.assign(rest.begin(), end);
  in.take(labels);
  in.u8();  // X'FF'
  in.u8();  // reserved
  if (!in.ok()) return R::refused(decision::kSenseNlpHeader);
  if (v.nhdr.mode == SwitchingMode::kFunctionRouting) {
    v.nhdr.fr_header = in.u8();
    v.data = in.rest();
    if (!in.ok()) return R::refused(decision::kSenseNlpHeader);
    return v;
  }
  const size_t thdr_at = in.offset();
  Thdr &t = v.thdr;
  const ByteSpan tcid = in.take(t.tcid.size());
  const uint8_t b8 = in.u8(), b9 = in.u8();
  const size_t header_size = size_t{in.u16()} * 4;
  const uint32_t dlf = in.u32();
  t.bsn = in.u32();
  if (!in.ok() || header_size < kThdrFixedSize || nlp.size() - thdr_at < header_size) {
    return R::refused(decision::kSenseNlpHeader);
  }
  std::copy(tcid.begin(), tcid.end(), t.tcid.begin());
  t.setup = b8 & 0x40;
  t.start_of_message = b8 & 0x20;
  t.end_of_message = b8 & 0x10;
  t.status_requested = b8 & 0x08;
  t.reply_asap = b8 & 0x04;
  t.retry = b8 & 0x02;
  t.last_message = b9 & 0x80;
  t.connection_qualifier = b9 & 0x08;
  t.optional_segments = b9 & 0x04;
  in.copy(header_size - kThdrFixedSize, t.options);
  if (in.remaining() != dlf) return R::refused(decision::kSenseNlpHeader);
  v.data = in.rest();
  return v;
}

}  // namespace snanode::net
