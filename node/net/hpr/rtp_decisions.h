// The RTP layer's wire choices where no public layout settled them, in one
// place.  Each has a row in docs/network.md ("RTP connections").
#pragma once

#include <cstdint>
#include <string_view>

#include "net/formats/nlp.h"

namespace snanode::net::hpr::decision {

// R1: the connection setup segment carries one control vector, COS/TPF
// (key X'2C'): byte 2 the transmission priority, then the class-of-service
// name in EBCDIC.
inline constexpr uint8_t kCvCosTpf = 0x2C;
// R2: the class of service each transmission priority stands for.
constexpr std::string_view cos_name(Priority priority) {
  switch (priority) {
    case Priority::kNetwork:
      return "CPSVCMG";
    case Priority::kHigh:
      return "#INTER";
    case Priority::kMedium:
      return "#CONNECT";
    case Priority::kLow:
      break;
  }
  return "#BATCH";
}
// R3: the switching information's flags: resequencing, since packets over IP
// may arrive out of order.
inline constexpr uint8_t kSwitchingFlags = 0x80;
// R4: the return route of a one-hop connection: a Return Route TG Descriptor
// CV listing no TG (the partner answers over the link the setup came on).
inline constexpr uint8_t kEmptyReturnRoute[] = {0x04, 0x85, 0x00, 0x00};
// R5: the network name CV (X'0E', type X'F4' control point) nested in the
// switching information names the node that set the connection up.
inline constexpr uint8_t kCvNetworkName = 0x0E;
inline constexpr uint8_t kNetworkNameCp = 0xF4;
// R6: units: ARB rates in bytes per second, windows in bytes; the path
// switch time and ALIVE timer of the switching information in seconds
// (rounded up).  No path switch on a one-hop connection: sent as 0.
inline constexpr uint32_t kPathSwitchSeconds = 0;
// R7: sense reported when a connection fails: the partner stopped answering
// or the link under it went down (a path failure: a new connection may work).
inline constexpr uint32_t kSensePathFailure = 0x80020000;
// A partner that breaks the protocol (a message beyond the limit).
inline constexpr uint32_t kSenseProtocol = 0x800B0000;

}  // namespace snanode::net::hpr::decision
