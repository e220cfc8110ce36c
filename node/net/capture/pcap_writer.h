// Writes what the node sends and receives to a pcap file that tshark decodes
// with no option: raw IPv4 packets (link type 101) holding UDP datagrams on the
// Enterprise Extender ports 12000-12004, whose payload is the LLC header and
// the HPR packet, exactly as they are (or would be) on the wire.
//
// Passwords never reach the file: an Attach's password or password substitute
// is replaced by as many EBCDIC blanks, so lengths and sequence numbers in the
// capture still agree with each other.  Pure file output: the writer never
// touches a socket.
#pragma once

#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "net/formats/byte_io.h"
#include "net/formats/nlp.h"

namespace snanode::net {

inline constexpr uint16_t kEePortLlc = 12000;  // XID, TEST, DISC, DM, FR packets

// The UDP port of the priority an ANR packet travels at (12001 network ...
// 12004 low).
uint16_t ee_port(Priority priority);

enum class CaptureDirection : uint8_t { kSent, kReceived };

struct CaptureEndpoints {
  std::array<uint8_t, 4> local_address{127, 0, 0, 2};
  std::array<uint8_t, 4> remote_address{127, 0, 0, 3};
  // The first of the node's five ports: a datagram's precedence follows its
  // port's place among them.
  uint16_t port_base = 12000;
};

// How write_biu wraps a BIU when no HPR layer built the packet around it: one
// whole-message NLP per BIU on the connection's TCIDs, byte sequence numbers
// counted per direction from 0.
struct BiuFraming {
  LlcHeader llc;
  Bytes anr_labels{0x80, 0x01};
  Tcid sent_tcid{};
  Tcid received_tcid{};
  Priority priority = Priority::kHigh;
};

class CaptureWriter {
 public:
  using Clock = std::chrono::system_clock;

  // Creates (or truncates) `path`; nullptr with `error` set when it cannot.
  static std::unique_ptr<CaptureWriter> open(const std::string &path,
                                             const CaptureEndpoints &endpoints, std::string *error);
  ~CaptureWriter();
  CaptureWriter(const CaptureWriter &) = delete;
  CaptureWriter &operator=(const CaptureWriter &) = delete;

  // One UDP payload (LLC header + what follows) sent to or received on `port`.
  bool write_datagram(CaptureDirection direction, uint16_t port, ByteSpan payload,
                      Clock::time_point when = Clock::now());
  // One BIU (TH + RH + RU), wrapped as `framing` says.
  bool write_biu(CaptureDirection direction, ByteSpan biu, const BiuFraming &framing,
                 Clock::time_point when = Clock::now());

 private:
  CaptureWriter(std::FILE *file, const CaptureEndpoints &endpoints);
  void blank_secrets(Bytes &payload);

  std::FILE *file_;
  CaptureEndpoints endpoints_;
  uint16_t ip_id_ = 0;
  std::array<uint32_t, 2> next_bsn_{};
  // Connections whose current message began with an Attach cut short: their
  // continuation packets are blanked up to the end of the message.
  std::vector<Tcid> blank_until_end_;
};

}  // namespace snanode::net
