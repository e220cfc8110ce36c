#include "net/ee/udp_endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace snanode::net::ee {
namespace {

// Datagrams read by one recvmmsg.
constexpr size_t kBatch = 32;
// Datagrams sent by one sendmmsg: a pass of the loop queues up to a quarter
// of a megabyte from a streaming TP (some 180 frames of the default BTU), and
// a smaller batch would also cut offloaded runs short at its end.
constexpr size_t kSendBatch = 256;

// The receiving direction draws from its own sequence, so that loss in one
// direction does not mirror the other's.
Impairment receiving_side(Impairment impairment) {
  ++impairment.seed;
  return impairment;
}

// A run of datagrams sent with segmentation offload: at most this many, and
// this many bytes, so that the run stays within one 64 KiB IP packet.
constexpr size_t kMaxSegments = 64;
constexpr size_t kMaxOffloadBytes = 65000;
constexpr uint16_t kDefaultMaxBtu = 1461;
constexpr uint16_t kDefaultMaxBtuIpv6 = 1441;
constexpr size_t kReceiveBufferSize = 65536;
constexpr int kSocketBufferBytes = 4 << 20;

sockaddr_storage socket_address(int family, ByteSpan address, uint16_t port) {
  sockaddr_storage storage{};
  if (family == AF_INET) {
    auto *in = reinterpret_cast<sockaddr_in *>(&storage);
    in->sin_family = AF_INET;
    in->sin_port = htons(port);
    std::memcpy(&in->sin_addr, address.data(), 4);
  } else {
    auto *in6 = reinterpret_cast<sockaddr_in6 *>(&storage);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
    std::memcpy(&in6->sin6_addr, address.data(), 16);
  }
  return storage;
}

socklen_t socket_address_size(int family) {
  return family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

// Into `out`, whose room is reused.
void read_address(const sockaddr_storage &storage, Bytes &out) {
  if (storage.ss_family == AF_INET) {
    const auto *in = reinterpret_cast<const sockaddr_in *>(&storage);
    const auto *p = reinterpret_cast<const uint8_t *>(&in->sin_addr);
    out.assign(p, p + 4);
    return;
  }
  const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(&storage);
  const auto *p = reinterpret_cast<const uint8_t *>(&in6->sin6_addr);
  out.assign(p, p + 16);
}

Bytes address_of(const sockaddr_storage &storage) {
  Bytes out;
  read_address(storage, out);
  return out;
}

// Buffers of sent datagrams kept for the next ones: enough for a few full
// batches.
constexpr size_t kSpareBuffers = 128;

Bytes take_from(std::vector<Bytes> &spare) {
  if (spare.empty()) return {};
  Bytes buffer = std::move(spare.back());
  spare.pop_back();
  buffer.clear();
  return buffer;
}

void keep_in(std::vector<Bytes> &spare, Bytes &buffer) {
  if (spare.size() < kSpareBuffers && buffer.capacity() != 0) spare.push_back(std::move(buffer));
}

// The size of the datagrams a received run holds (the whole, when it is one).
size_t offloaded_size(const msghdr &message, size_t whole) {
  for (const cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr;
       c = CMSG_NXTHDR(const_cast<msghdr *>(&message), const_cast<cmsghdr *>(c))) {
    if (c->cmsg_level == SOL_UDP && c->cmsg_type == UDP_GRO) {
      int size = 0;
      std::memcpy(&size, CMSG_DATA(c), sizeof size);
      if (size > 0) return static_cast<size_t>(size);
    }
  }
  return whole;
}

std::string errno_text(const std::string &what) {
  return what + ": " + std::strerror(errno);
}

}  // namespace

static_assert(traffic_class_of(kPortCount - 1) != 0 && traffic_class_of(kPortCount) == 0,
              "a precedence for each port");

std::optional<Bytes> parse_ip_address(std::string_view text) {
  const std::string copy(text);
  Bytes out(16);
  if (inet_pton(AF_INET, copy.c_str(), out.data()) == 1) {
    out.resize(4);
    return out;
  }
  if (inet_pton(AF_INET6, copy.c_str(), out.data()) == 1) return out;
  return std::nullopt;
}

std::string ip_address_text(ByteSpan address) {
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(address.size() == 4 ? AF_INET : AF_INET6, address.data(), text, sizeof text);
  return text;
}

std::optional<std::string> resolve_partner(const std::string &host,
                                           const std::string &local_address) {
  const std::optional<Bytes> local = parse_ip_address(local_address);
  if (!local) return std::nullopt;
  addrinfo hints{};
  hints.ai_family = local->size() == 4 ? AF_INET : AF_INET6;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  sockaddr_storage storage{};
  std::memcpy(&storage, found->ai_addr, std::min<size_t>(found->ai_addrlen, sizeof storage));
  ::freeaddrinfo(found);
  return ip_address_text(address_of(storage));
}

// A link station and the sink that puts its datagrams on the endpoint's queue.
struct UdpEndpoint::Link final : DatagramSink {
  Link(UdpEndpoint &endpoint, Bytes address, uint16_t port_base, const LinkStationConfig &config,
       NlpReceiver &receiver)
      : endpoint(endpoint),
        address(std::move(address)),
        port_base(port_base),
        station(config, *this, receiver) {}
  void send_datagram(unsigned port_index, Bytes datagram) override {
    send_datagram_pieces(port_index, std::move(datagram), {});
  }
  void send_datagram_pieces(unsigned port_index, Bytes head, const SharedSpan &tail) override {
    endpoint.queue(port_index, address, std::move(head), tail);
  }
  Bytes take_buffer() override { return take_from(endpoint.spare_payloads_); }

  UdpEndpoint &endpoint;
  Bytes address;
  uint16_t port_base;
  bool removed = false;
  LinkStation station;
};

struct UdpEndpoint::Buffers {
  // Room for one control message of an int (UDP_SEGMENT sends a 16-bit one).
  struct Control {
    alignas(cmsghdr) uint8_t bytes[CMSG_SPACE(sizeof(int))];
  };
  template <size_t N>
  struct Messages {
    std::array<mmsghdr, N> headers{};
    // Two for each datagram sent (its head and its tail); one received.
    std::array<iovec, 2 * N> iovecs{};
    std::array<sockaddr_storage, N> addresses{};
    std::array<Control, N> controls{};
  };
  // Separate for sending: a datagram handed up while a received batch is
  // being gone through may lead to a flush(), which must not overwrite the
  // headers of the datagrams still to come.
  Messages<kBatch> received;
  Messages<kSendBatch> sent;
  std::array<size_t, kSendBatch> segments{};  // datagrams in each message sent
  std::array<size_t, kSendBatch> firsts{};    // the index in outgoing_ of each one's first
  std::vector<uint8_t> data = std::vector<uint8_t>(kBatch * kReceiveBufferSize);
};

UdpEndpoint::UdpEndpoint(const EndpointConfig &config, int family, Bytes local)
    : config_(config),
      family_(family),
      local_(std::move(local)),
      impair_send_(config.impairment),
      impair_receive_(receiving_side(config.impairment)),
      buffers_(std::make_unique<Buffers>()) {}

void UdpEndpoint::set_impairment(const Impairment &impairment) {
  config_.impairment = impairment;
  impair_send_ = Impairer(impairment);
  impair_receive_ = Impairer(receiving_side(impairment));
}

UdpEndpoint::~UdpEndpoint() {
  for (int fd : fds_) {
    if (fd >= 0) ::close(fd);
  }
}

std::unique_ptr<UdpEndpoint> UdpEndpoint::open(const EndpointConfig &config, std::string *error) {
  const std::optional<Bytes> local = parse_ip_address(config.local_address);
  if (!local) {
    *error = "local address \"" + config.local_address + "\" is not a numeric IP address";
    return nullptr;
  }
  if (config.port_base > 65535 - (kPortCount - 1)) {
    *error = "port base " + std::to_string(config.port_base) + " leaves no room for five ports";
    return nullptr;
  }
  const int family = local->size() == 4 ? AF_INET : AF_INET6;
  std::unique_ptr<UdpEndpoint> endpoint(new UdpEndpoint(config, family, *local));
  for (unsigned i = 0; i < kPortCount; ++i) {
    const uint16_t port = static_cast<uint16_t>(config.port_base + i);
    const int fd = ::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
      *error = errno_text("socket");
      return nullptr;
    }
    endpoint->fds_[i] = fd;
    const int tclass = traffic_class_of(i);
    const int on = 1;
    const bool marked =
        family == AF_INET
            ? ::setsockopt(fd, IPPROTO_IP, IP_TOS, &tclass, sizeof tclass) == 0
            : ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0 &&
                  ::setsockopt(fd, IPPROTO_IPV6, IPV6_TCLASS, &tclass, sizeof tclass) == 0;
    if (!marked) {
      *error = errno_text("setting the IP precedence of port " + std::to_string(port));
      return nullptr;
    }
    // Larger buffers ride out bursts; what the system allows is enough.
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBufferBytes, sizeof kSocketBufferBytes);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBufferBytes, sizeof kSocketBufferBytes);
    // Runs of datagrams sent with segmentation offload may then arrive whole
    // (on loopback they do): on_readable() cuts them apart.  Without it the
    // kernel cuts them before they are queued.
    ::setsockopt(fd, SOL_UDP, UDP_GRO, &on, sizeof on);
    const sockaddr_storage address = socket_address(family, *local, port);
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), socket_address_size(family)) !=
        0) {
      *error = errno_text("binding " + config.local_address + " port " + std::to_string(port));
      return nullptr;
    }
  }
  return endpoint;
}

LinkStation *UdpEndpoint::add_link(std::string_view partner, const LinkStationConfig &config,
                                   NlpReceiver &receiver, std::string *error,
                                   uint16_t partner_port_base) {
  const std::optional<Bytes> address = parse_ip_address(partner);
  if (!address || address->size() != local_.size()) {
    *error = "partner address \"" + std::string(partner) + "\" is not a numeric " +
             (family_ == AF_INET ? "IPv4" : "IPv6") + " address";
    return nullptr;
  }
  auto found = links_.find(*address);
  if (found != links_.end() && !found->second->removed) {
    *error = "a link to " + std::string(partner) + " exists already";
    return nullptr;
  }
  LinkStationConfig station_config = config;
  if (station_config.local.max_btu == kDefaultMaxBtu) {
    // The IPv6 header is 20 bytes longer: the same frame holds less.
    station_config.local.max_btu = config_.max_btu != 0  ? config_.max_btu
                                   : family_ == AF_INET6 ? kDefaultMaxBtuIpv6
                                                         : kDefaultMaxBtu;
  }
  auto link = std::make_unique<Link>(*this, *address,
                                     partner_port_base != 0 ? partner_port_base : config_.port_base,
                                     station_config, receiver);
  LinkStation *station = &link->station;
  if (found != links_.end()) {
    // Removed earlier in this dispatch: the old station may still be on the
    // stack (its callback removed it), so it dies after the dispatch.
    graveyard_.push_back(std::move(found->second));
    found->second = std::move(link);
  } else {
    links_.emplace(*address, std::move(link));
  }
  return station;
}

LinkStation *UdpEndpoint::find_link(std::string_view partner) {
  const std::optional<Bytes> address = parse_ip_address(partner);
  if (!address) return nullptr;
  auto found = links_.find(*address);
  return found == links_.end() || found->second->removed ? nullptr : &found->second->station;
}

void UdpEndpoint::remove_link(LinkStation *station) {
  for (auto &[address, link] : links_) {
    if (&link->station == station) link->removed = true;
  }
  removed_ = true;
  if (dispatching_ == 0) collect_removed();
}

void UdpEndpoint::collect_removed() {
  graveyard_.clear();
  if (!removed_) return;
  std::erase_if(links_, [](const auto &entry) { return entry.second->removed; });
  removed_ = false;
}

void UdpEndpoint::queue(unsigned port_index, const Bytes &address, Bytes datagram,
                        const SharedSpan &tail) {
  HeldDatagram held{port_index, take_from(spare_addresses_), std::move(datagram), tail};
  held.address.assign(address.begin(), address.end());
  if (!impair_send_.settings().any()) {
    outgoing_.push_back(std::move(held));
    return;
  }
  // Only the impairer's delays need the time: a stream's datagrams do not
  // read the clock one by one.
  const TimePoint now = dispatching_ > 0 ? last_now_ : std::chrono::steady_clock::now();
  impair_send_.push(std::move(held), now, outgoing_);
}

void UdpEndpoint::flush() {
  // Consecutive datagrams for one port go out in one sendmmsg; the order on
  // each port is kept.
  size_t first = 0;
  while (first < outgoing_.size()) {
    size_t count = 1;
    while (first + count < outgoing_.size() && count < kSendBatch &&
           outgoing_[first + count].port_index == outgoing_[first].port_index) {
      ++count;
    }
    send_batch(first, count);
    first += count;
  }
  for (HeldDatagram &d : outgoing_) {
    keep_in(spare_payloads_, d.payload);
    keep_in(spare_addresses_, d.address);
  }
  outgoing_.clear();  // lets go of the tails: the kernel has copied them
}

// How many datagrams from outgoing_[at] on (at most `limit`) can go as one
// send with segmentation offload: the same partner, the same size, the last
// perhaps shorter, within the limits of one IP packet.
size_t UdpEndpoint::offload_run(size_t at, size_t limit) const {
  if (!offload_) return 1;
  const HeldDatagram &d = outgoing_[at];
  const size_t size = d.size();
  size_t run = 1, bytes = size;
  while (run < limit && run < kMaxSegments) {
    const HeldDatagram &next = outgoing_[at + run];
    if (next.address != d.address || next.size() > size || bytes + next.size() > kMaxOffloadBytes) {
      break;
    }
    bytes += next.size();
    ++run;
    if (next.size() < size) break;  // only the last may be shorter
  }
  return run;
}

// The iovecs of one datagram at `out`: its head, and its tail when it has
// one.  Returns how many.
size_t UdpEndpoint::gather(HeldDatagram &d, iovec *out) {
  out[0] = {d.payload.data(), d.payload.size()};
  if (d.tail.empty()) return 1;
  const ByteSpan tail = d.tail.bytes();
  out[1] = {const_cast<uint8_t *>(tail.data()), tail.size()};
  return 2;
}

ByteSpan UdpEndpoint::whole(const HeldDatagram &d) {
  if (d.tail.empty()) return d.payload;
  observed_.assign(d.payload.begin(), d.payload.end());
  const ByteSpan tail = d.tail.bytes();
  observed_.insert(observed_.end(), tail.begin(), tail.end());
  return observed_;
}

void UdpEndpoint::send_batch(size_t first, size_t count) {
  Buffers &all = *buffers_;
  auto &b = all.sent;
  const unsigned port_index = outgoing_[first].port_index;
  // Each message is one datagram or a run sent with segmentation offload:
  // the kernel cuts the run into the same datagrams, so what the partner
  // receives does not change; it is one send instead of many.  The kernel
  // cuts at the segment size whatever the iovecs, so a datagram's head and
  // tail may be iovecs of their own.
  size_t messages = 0, iovecs = 0;
  for (size_t i = 0; i < count; ++messages) {
    const HeldDatagram &d = outgoing_[first + i];
    const size_t run = offload_run(first + i, count - i);
    auto found = links_.find(d.address);
    const uint16_t base = found != links_.end() ? found->second->port_base : config_.port_base;
    b.addresses[messages] =
        socket_address(family_, d.address, static_cast<uint16_t>(base + port_index));
    const size_t first_iovec = iovecs;
    for (size_t k = i; k < i + run; ++k) {
      HeldDatagram &x = outgoing_[first + k];
      iovecs += gather(x, &b.iovecs[iovecs]);
      if (observer_) observer_(true, x.address, port_index, whole(x));
    }
    mmsghdr &h = b.headers[messages];
    h = {};
    h.msg_hdr.msg_name = &b.addresses[messages];
    h.msg_hdr.msg_namelen = socket_address_size(family_);
    h.msg_hdr.msg_iov = &b.iovecs[first_iovec];
    h.msg_hdr.msg_iovlen = iovecs - first_iovec;
    if (run > 1) {
      h.msg_hdr.msg_control = b.controls[messages].bytes;
      h.msg_hdr.msg_controllen = CMSG_SPACE(sizeof(uint16_t));
      cmsghdr *c = CMSG_FIRSTHDR(&h.msg_hdr);
      c->cmsg_level = SOL_UDP;
      c->cmsg_type = UDP_SEGMENT;
      c->cmsg_len = CMSG_LEN(sizeof(uint16_t));
      const auto size = static_cast<uint16_t>(d.size());
      std::memcpy(CMSG_DATA(c), &size, sizeof size);
      counters_.offloaded += run;
    }
    all.segments[messages] = run;
    all.firsts[messages] = first + i;
    i += run;
  }
  size_t done = 0;
  while (done < messages) {
    const int sent = ::sendmmsg(fds_[port_index], b.headers.data() + done,
                                static_cast<unsigned>(messages - done), 0);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (all.segments[done] > 1 && errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS) {
        // The path cannot offload (no checksum offload, an older kernel):
        // these datagrams one by one, and all from now on.
        offload_ = false;
        msghdr one = b.headers[done].msg_hdr;
        one.msg_control = nullptr;
        one.msg_controllen = 0;
        for (size_t k = 0; k < all.segments[done]; ++k) {
          iovec pieces[2];
          one.msg_iov = pieces;
          one.msg_iovlen = gather(outgoing_[all.firsts[done] + k], pieces);
          const bool ok = ::sendmsg(fds_[port_index], &one, 0) >= 0;
          ++(ok ? counters_.sent : counters_.send_failed);
        }
        ++done;
        continue;
      }
      // Full buffers or an unreachable partner: the datagrams are lost, as
      // the network may lose them; RTP and LDLC recover.  Skip them and go on.
      counters_.send_failed += all.segments[done];
      ++done;
      continue;
    }
    for (size_t k = done; k < done + static_cast<size_t>(sent); ++k)
      counters_.sent += all.segments[k];
    done += static_cast<size_t>(sent);
  }
}

void UdpEndpoint::on_readable(int fd, TimePoint now) {
  const auto slot = std::find(fds_.begin(), fds_.end(), fd);
  if (slot == fds_.end()) return;
  const unsigned port_index = static_cast<unsigned>(slot - fds_.begin());
  ++dispatching_;
  last_now_ = now;
  Buffers &all = *buffers_;
  auto &b = all.received;
  Bytes address;  // each sender's, in the same room
  for (;;) {
    for (size_t i = 0; i < kBatch; ++i) {
      b.iovecs[i] = {all.data.data() + i * kReceiveBufferSize, kReceiveBufferSize};
      b.headers[i] = {};
      b.headers[i].msg_hdr.msg_name = &b.addresses[i];
      b.headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_storage);
      b.headers[i].msg_hdr.msg_iov = &b.iovecs[i];
      b.headers[i].msg_hdr.msg_iovlen = 1;
      b.headers[i].msg_hdr.msg_control = b.controls[i].bytes;
      b.headers[i].msg_hdr.msg_controllen = sizeof b.controls[i].bytes;
    }
    const int got = ::recvmmsg(fd, b.headers.data(), kBatch, MSG_DONTWAIT, nullptr);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    for (int i = 0; i < got; ++i) {
      if (b.headers[i].msg_hdr.msg_flags & MSG_TRUNC) {
        ++counters_.truncated;
        continue;
      }
      const ByteSpan whole(all.data.data() + static_cast<size_t>(i) * kReceiveBufferSize,
                           b.headers[i].msg_len);
      read_address(b.addresses[i], address);
      // A run that arrived whole holds datagrams of the size given, the last
      // perhaps shorter.
      const size_t size = std::max<size_t>(1, offloaded_size(b.headers[i].msg_hdr, whole.size()));
      for (size_t at = 0; at < whole.size(); at += size) {
        const ByteSpan payload = whole.subspan(at, std::min(size, whole.size() - at));
        ++counters_.received;
        if (!impair_receive_.settings().any()) {
          // Handled straight from the receive buffer: nothing keeps it.
          deliver(port_index, address, payload, now);
          continue;
        }
        ready_.clear();
        impair_receive_.push(
            HeldDatagram{port_index, address, Bytes(payload.begin(), payload.end())}, now, ready_);
        std::vector<HeldDatagram> ready = std::move(ready_);
        for (HeldDatagram &r : ready) deliver(r.port_index, r.address, r.payload, now);
      }
    }
    if (static_cast<size_t>(got) < kBatch) break;
  }
  --dispatching_;
  collect_removed();
  flush();
}

void UdpEndpoint::deliver(unsigned port_index, const Bytes &address, ByteSpan payload,
                          TimePoint now) {
  if (observer_) observer_(false, address, port_index, payload);
  auto found = links_.find(address);
  if ((found == links_.end() || found->second->removed) && unknown_sender_) {
    unknown_sender_(ip_address_text(address), payload, now);
    found = links_.find(address);
  }
  if (found == links_.end() || found->second->removed) {
    ++counters_.unknown_sender;
    return;
  }
  found->second->station.on_datagram(payload, now);
}

void UdpEndpoint::on_timer(TimePoint now) {
  ++dispatching_;
  last_now_ = now;
  std::vector<HeldDatagram> ready;
  impair_receive_.release(now, ready);
  for (HeldDatagram &d : ready) deliver(d.port_index, d.address, d.payload, now);
  impair_send_.release(now, outgoing_);
  for (auto &[address, link] : links_) {
    const std::optional<TimePoint> due = link->station.next_deadline();
    if (!link->removed && due && *due <= now) link->station.on_timer(now);
  }
  --dispatching_;
  collect_removed();
  flush();
}

std::optional<TimePoint> UdpEndpoint::next_deadline() const {
  if (!outgoing_.empty()) return TimePoint::min();
  std::optional<TimePoint> due = impair_send_.next_deadline();
  const auto consider = [&due](std::optional<TimePoint> t) {
    if (t && (!due || *t < *due)) due = t;
  };
  consider(impair_receive_.next_deadline());
  for (const auto &[address, link] : links_) {
    if (!link->removed) consider(link->station.next_deadline());
  }
  return due;
}

}  // namespace snanode::net::ee
