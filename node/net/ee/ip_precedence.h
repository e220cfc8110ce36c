// The IP precedence of each of the node's five UDP ports, in one place for
// the endpoint (what its sockets are set to send) and the capture writer
// (what the IP headers it writes show), so a capture shows what was sent.
#pragma once

#include <cstdint>
#include <iterator>

namespace snanode::net::ee {

// The IPv4 TOS byte or IPv6 traffic class of the port `port_index` places
// from the node's base: X'C0' for LLC commands and network priority, X'80'
// high, X'40' medium, X'20' low; 0 for an index past the five.
constexpr uint8_t traffic_class_of(unsigned port_index) {
  constexpr uint8_t kClasses[] = {0xC0, 0xC0, 0x80, 0x40, 0x20};
  return port_index < std::size(kClasses) ? kClasses[port_index] : 0;
}

}  // namespace snanode::net::ee
