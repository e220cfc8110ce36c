#include "net/capture/pcap_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/ee/ip_precedence.h"
#include "net/formats/biu.h"
#include "net/formats/fmh5.h"
#include "net/formats/wire_decisions.h"

namespace snanode::net {
namespace {

constexpr uint32_t kLinkTypeRawIp = 101;
constexpr size_t kIpv4HeaderSize = 20;
constexpr size_t kUdpHeaderSize = 8;
constexpr uint8_t kProtocolUdp = 17;
constexpr uint8_t kTtl = 64;
constexpr size_t kMaxPayload = 0xFFFF - kIpv4HeaderSize - kUdpHeaderSize;

void put_le32(Bytes &out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void put_le16(Bytes &out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}

uint32_t ones_sum(ByteSpan bytes, uint32_t sum = 0) {
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) sum += load_u16(&bytes[i]);
  if (bytes.size() % 2) sum += static_cast<uint32_t>(bytes.back()) << 8;
  return sum;
}
uint16_t fold(uint32_t sum) {
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

uint16_t ee_port(Priority priority) {
  return static_cast<uint16_t>(12004 - static_cast<uint8_t>(priority));
}

std::unique_ptr<CaptureWriter> CaptureWriter::open(const std::string &path,
                                                   const CaptureEndpoints &endpoints,
                                                   std::string *error) {
  std::FILE *file = std::fopen(path.c_str(), "wb");
  if (!file) {
    if (error) *error = path + ": " + std::strerror(errno);
    return nullptr;
  }
  Bytes header;
  put_le32(header, 0xA1B2C3D4);  // microsecond timestamps
  put_le16(header, 2);
  put_le16(header, 4);
  put_le32(header, 0);  // GMT offset
  put_le32(header, 0);  // accuracy
  put_le32(header, 0xFFFF);
  put_le32(header, kLinkTypeRawIp);
  if (std::fwrite(header.data(), 1, header.size(), file) != header.size() || std::fflush(file)) {
    if (error) *error = path + ": " + std::strerror(errno);
    std::fclose(file);
    return nullptr;
  }
  return std::unique_ptr<CaptureWriter>(new CaptureWriter(file, endpoints));
}

CaptureWriter::CaptureWriter(std::FILE *file, const CaptureEndpoints &endpoints)
    : file_(file), endpoints_(endpoints) {}

CaptureWriter::~CaptureWriter() {
  std::fclose(file_);
}

void CaptureWriter::blank_secrets(Bytes &payload) {
  ByteReader in(payload);
  Result<LlcHeader> llc = decode_llc(in);
  if (!llc || llc->control != kLlcUi) return;
  Result<NlpView> nlp = decode_nlp(in.rest());
  if (!nlp || nlp->nhdr.mode != SwitchingMode::kAnr || nlp->data.empty()) return;
  const Thdr &thdr = nlp->thdr;
  // The data span points into `payload`; blank through a writable view of it.
  const auto data_at = static_cast<size_t>(nlp->data.data() - payload.data());
  std::span<uint8_t> data(payload.data() + data_at, nlp->data.size());
  auto pending = std::find(blank_until_end_.begin(), blank_until_end_.end(), thdr.tcid);
  if (!thdr.start_of_message) {
    if (pending == blank_until_end_.end()) return;
    std::fill(data.begin(), data.end(), decision::kCaptureBlank);
    if (thdr.end_of_message) blank_until_end_.erase(pending);
    return;
  }
  if (pending != blank_until_end_.end()) blank_until_end_.erase(pending);
  Result<BiuView> biu = decode_biu(nlp->data);
  if (!biu) {
    // Not even the TH and RH fit: whatever follows may hold an Attach.
    if (!thdr.end_of_message) blank_until_end_.push_back(thdr.tcid);
    return;
  }
  // An FM header cut before its type byte may be an Attach: blank what follows.
  const Rh &rh = biu->rh;
  if (!rh.response && rh.category == RuCategory::kFmd && rh.fi && biu->ru.size() < 2) {
    if (!thdr.end_of_message) blank_until_end_.push_back(thdr.tcid);
    return;
  }
  if (classify(biu.value()) != RuKind::kAttach) return;
  const auto ru_at = static_cast<size_t>(biu->ru.data() - payload.data());
  const Blanking done = blank_attach_password(
      std::span<uint8_t>(payload.data() + ru_at, biu->ru.size()), decision::kCaptureBlank);
  if (done == Blanking::kBlankedRemainder && !thdr.end_of_message) {
    blank_until_end_.push_back(thdr.tcid);
  }
}

bool CaptureWriter::write_datagram(CaptureDirection direction, uint16_t port, ByteSpan payload,
                                   Clock::time_point when) {
  if (payload.size() > kMaxPayload) return false;
  Bytes udp_payload(payload.begin(), payload.end());
  blank_secrets(udp_payload);

  const bool sent = direction == CaptureDirection::kSent;
  const auto &src = sent ? endpoints_.local_address : endpoints_.remote_address;
  const auto &dst = sent ? endpoints_.remote_address : endpoints_.local_address;
  const auto total = static_cast<uint16_t>(kIpv4HeaderSize + kUdpHeaderSize + payload.size());

  Bytes packet;
  packet.reserve(total);
  ByteWriter w(packet);
  w.u8(0x45);
  // What the endpoint's socket for that port is set to send.
  w.u8(ee::traffic_class_of(static_cast<unsigned>(port - endpoints_.port_base)));
  w.u16(total);
  w.u16(++ip_id_);
  w.u16(0);  // fragmentation allowed, as EE asks
  w.u8(kTtl);
  w.u8(kProtocolUdp);
  w.u16(0);
  w.bytes(src);
  w.bytes(dst);
  w.patch_u16(10, fold(ones_sum(ByteSpan(packet).first(kIpv4HeaderSize))));
  const auto udp_length = static_cast<uint16_t>(kUdpHeaderSize + payload.size());
  w.u16(port);
  w.u16(port);
  w.u16(udp_length);
  w.u16(0);
  w.bytes(udp_payload);
  // UDP checksum over the pseudo header (addresses, protocol, length) and the datagram.
  uint32_t sum = ones_sum(src) + ones_sum(dst) + kProtocolUdp + udp_length;
  sum = ones_sum(ByteSpan(packet).subspan(kIpv4HeaderSize), sum);
  const uint16_t checksum = fold(sum);
  w.patch_u16(kIpv4HeaderSize + 6, checksum == 0 ? 0xFFFF : checksum);

  const auto since_epoch =
      std::chrono::duration_cast<std::chrono::microseconds>(when.time_since_epoch()).count();
  Bytes record;
  put_le32(record, static_cast<uint32_t>(since_epoch / 1000000));
  put_le32(record, static_cast<uint32_t>(since_epoch % 1000000));
  put_le32(record, total);
  put_le32(record, total);
  record.insert(record.end(), packet.begin(), packet.end());
  return std::fwrite(record.data(), 1, record.size(), file_) == record.size() &&
         std::fflush(file_) == 0;
}

bool CaptureWriter::write_biu(CaptureDirection direction, ByteSpan biu, const BiuFraming &framing,
                              Clock::time_point when) {
  const bool sent = direction == CaptureDirection::kSent;
  uint32_t &bsn = next_bsn_[sent ? 0 : 1];
  Nhdr nhdr;
  nhdr.priority = framing.priority;
  nhdr.labels = framing.anr_labels;
  Thdr thdr;
  thdr.tcid = sent ? framing.sent_tcid : framing.received_tcid;
  thdr.bsn = bsn;
  Bytes payload;
  ByteWriter w(payload);
  encode_llc(framing.llc, w);
  if (!encode_nlp(nhdr, thdr, biu, payload)) return false;
  bsn += static_cast<uint32_t>(biu.size());
  return write_datagram(direction, ee_port(framing.priority), payload, when);
}

}  // namespace snanode::net
