// The node's Enterprise Extender endpoint: five non-blocking UDP sockets on
// one local address (ports base..base+4), the link stations of the partners
// reached through them, and the optional impairment of the path.  No threads:
// the daemon's epoll loop watches fds(), calls on_readable() for a readable
// one and on_timer() once next_deadline() has passed.
//
// Datagrams are routed to a link station by the partner's IP address alone
// (its source port may be any).  One from an address no link knows goes to
// the unknown-sender callback, which may add a link for it (inbound
// activation on demand); the datagram is then handed to that link, and
// otherwise dropped and counted.
//
// Sending is batched: what the stations send is queued and goes out with
// sendmmsg at the end of on_readable() and on_timer(), or on flush().  A run
// of equal datagrams to one partner port goes as one message with UDP
// segmentation offload (the same datagrams leave; the kernel cuts them), and
// such a run may arrive whole, to be cut apart again on receipt.  While
// anything is queued next_deadline() is "now", so a loop that always asks it
// before waiting never leaves a datagram behind.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "net/ee/impairment.h"
#include "net/ee/ip_precedence.h"
#include "net/ee/link_station.h"

namespace snanode::net::ee {

struct EndpointConfig {
  std::string local_address;  // numeric IPv4 or IPv6 address
  uint16_t port_base = 12000;
  Impairment impairment;  // test-only; all zero: none
  // The maximum BTU stations offer in their XIDs when their config leaves
  // the default: 0 keeps what an Ethernet frame holds (1461 on IPv4, 1441 on
  // IPv6); a loopback or jumbo-frame path may take up to a whole datagram.
  uint16_t max_btu = 0;
};

// The raw bytes of a numeric IPv4 (4 bytes) or IPv6 (16 bytes) address;
// nothing when `text` is neither.
std::optional<Bytes> parse_ip_address(std::string_view text);
std::string ip_address_text(ByteSpan address);
// The numeric address of `host` (given as one, or a host name looked up,
// which may block) in the IP version of `local_address`; nothing when there
// is none.
std::optional<std::string> resolve_partner(const std::string &host,
                                           const std::string &local_address);

class UdpEndpoint {
 public:
  // Binds the five ports; nullptr with `error` set when one cannot be bound.
  static std::unique_ptr<UdpEndpoint> open(const EndpointConfig &config, std::string *error);
  ~UdpEndpoint();
  UdpEndpoint(const UdpEndpoint &) = delete;
  UdpEndpoint &operator=(const UdpEndpoint &) = delete;

  const std::array<int, kPortCount> &fds() const { return fds_; }

  // A link station to the partner at numeric address `partner`, whose ports
  // start at `partner_port_base` (0: the same base as ours).  nullptr with
  // `error` set for an address that is not numeric, of the other IP version,
  // or already linked.  The station is owned by the endpoint.
  LinkStation *add_link(std::string_view partner, const LinkStationConfig &config,
                        NlpReceiver &receiver, std::string *error, uint16_t partner_port_base = 0);
  LinkStation *find_link(std::string_view partner);
  // Forgets the link (without deactivating it: call deactivate() first and
  // wait for it to end for an orderly end).  Safe from inside a callback.
  void remove_link(LinkStation *station);

  using UnknownSender =
      std::function<void(const std::string &address, ByteSpan datagram, TimePoint now)>;
  void set_unknown_sender(UnknownSender callback) { unknown_sender_ = std::move(callback); }

  // Sees every datagram that leaves or arrives (after impairment), with the
  // partner's address: for the capture file.
  using Observer =
      std::function<void(bool sent, const Bytes &address, unsigned port_index, ByteSpan datagram)>;
  void set_observer(Observer observer) { observer_ = std::move(observer); }

  void on_readable(int fd, TimePoint now);
  void on_timer(TimePoint now);
  std::optional<TimePoint> next_deadline() const;
  void flush();

  struct Counters {
    uint64_t sent = 0;
    uint64_t received = 0;
    uint64_t unknown_sender = 0;  // dropped: no link for the address
    uint64_t send_failed = 0;     // the kernel refused or could not take it now
    uint64_t truncated = 0;       // larger than the receive buffer
    uint64_t offloaded = 0;       // sent in runs with segmentation offload
  };
  const Counters &counters() const { return counters_; }
  // Replaces the impairment (a reload); what the old one held back is dropped.
  void set_impairment(const Impairment &impairment);
  const Impairer::Counters &send_impairment() const { return impair_send_.counters(); }
  const Impairer::Counters &receive_impairment() const { return impair_receive_.counters(); }

 private:
  struct Link;
  UdpEndpoint(const EndpointConfig &config, int family, Bytes local);
  void queue(unsigned port_index, const Bytes &address, Bytes datagram, const SharedSpan &tail);
  void deliver(unsigned port_index, const Bytes &address, ByteSpan payload, TimePoint now);
  size_t offload_run(size_t at, size_t limit) const;
  static size_t gather(HeldDatagram &d, struct iovec *out);
  ByteSpan whole(const HeldDatagram &d);
  void send_batch(size_t first, size_t count);
  void collect_removed();

  EndpointConfig config_;
  int family_;
  Bytes local_;
  std::array<int, kPortCount> fds_{-1, -1, -1, -1, -1};
  std::map<Bytes, std::unique_ptr<Link>> links_;
  std::vector<std::unique_ptr<Link>> graveyard_;  // replaced during a dispatch
  UnknownSender unknown_sender_;
  Observer observer_;
  Impairer impair_send_;
  Impairer impair_receive_;
  std::vector<HeldDatagram> outgoing_;
  std::vector<HeldDatagram> ready_;  // scratch for the impairers
  // Room of datagrams already sent, for those to come.
  std::vector<Bytes> spare_payloads_;
  std::vector<Bytes> spare_addresses_;
  Bytes observed_;  // a datagram sent in pieces, whole for the observer
  Counters counters_;
  int dispatching_ = 0;
  bool removed_ = false;
  bool offload_ = true;  // until the kernel refuses a run
  TimePoint last_now_{};
  struct Buffers;
  std::unique_ptr<Buffers> buffers_;
};

}  // namespace snanode::net::ee
