#include "client/daemon_protocol.h"

#include <limits>

namespace snanode::client {
namespace {

// Each message lists its fields once; the same list drives encoding and
// decoding, so the two cannot disagree.
template <class Io>
void fields(Io &io, Hello &m) {
  io(m.version), io(m.pid), io(m.uid);
}
template <class Io>
void fields(Io &io, Welcome &m) {
  io(m.version), io(m.node_name);
}
template <class Io>
void fields(Io &io, RegisterTp &m) {
  io(m.tp_name);
}
template <class Io>
void fields(Io &io, WithdrawTp &m) {
  io(m.tp_name);
}
template <class Io>
void fields(Io &io, AcceptWait &m) {
  io(m.accept_id), io(m.tp_names);
}
template <class Io>
void fields(Io &io, AcceptCancel &m) {
  io(m.accept_id);
}
template <class Io>
void fields(Io &io, AllocateRequest &m) {
  io(m.request_id), io(m.partner_lu), io(m.local_lu_alias), io(m.allocator_lu), io(m.mode);
  io(m.tp_name), io(m.mapped), io(m.sync_level), io(m.security_type), io(m.user_id);
  io(m.password), io(m.allocator_user);
}
template <class Io>
void fields(Io &io, AllocateResult &m) {
  io(m.request_id), io(m.primary), io(m.secondary), io(m.via_node);
}
template <class Io>
void fields(Io &io, AttachDelivery &m) {
  io(m.accept_id), io(m.tp_name), io(m.mapped), io(m.sync_level), io(m.user), io(m.mode);
  io(m.partner_lu_name), io(m.local_lu_alias), io(m.via_node);
}

template <class Io>
void fields(Io &io, ControlRequest &m) {
  io(m.version), io(m.request_id), io(m.words);
}
template <class Io>
void fields(Io &io, ControlReply &m) {
  io(m.request_id), io(m.status), io(m.more), io(m.text);
}
template <class Io>
void fields(Io &io, StatsQuery &m) {
  io(m.query_id);
}
template <class Io>
void fields(Io &io, TpReport &m) {
  io(m.name), io(m.local_lu);
}
template <class Io>
void fields(Io &io, ConversationReport &m) {
  io(m.id), io(m.local_tp), io(m.partner_tp), io(m.local_lu), io(m.partner_lu), io(m.mode);
  io(m.state), io(m.bytes_sent), io(m.bytes_received), io(m.age_ms);
}
template <class Io>
void fields(Io &io, SessionUse &m) {
  io(m.partner_lu), io(m.mode), io(m.in_use);
}
template <class Io>
void fields(Io &io, StatsReport &m) {
  io(m.query_id), io(m.trace_on), io(m.tps), io(m.conversations), io(m.sessions);
}
template <class Io>
void fields(Io &io, TraceControl &m) {
  io(m.on), io(m.file);
}

class Writer {
 public:
  explicit Writer(std::vector<uint8_t> &out) : out_(out) {}
  void operator()(uint8_t &v) { out_.push_back(v); }
  void operator()(bool &v) { out_.push_back(v ? 1 : 0); }
  void operator()(uint16_t &v) { put(v, 2); }
  void operator()(uint32_t &v) { put(v, 4); }
  void operator()(uint64_t &v) {
    put(static_cast<uint32_t>(v >> 32), 4);
    put(static_cast<uint32_t>(v), 4);
  }
  void operator()(std::string &v) {
    if (v.size() > std::numeric_limits<uint16_t>::max()) throw ProtocolError("text too long");
    put(static_cast<uint32_t>(v.size()), 2);
    out_.insert(out_.end(), v.begin(), v.end());
  }
  void operator()(std::optional<std::string> &v) {
    bool present = v.has_value();
    (*this)(present);
    if (present) (*this)(*v);
  }
  void operator()(std::vector<std::string> &v) {
    if (v.size() > std::numeric_limits<uint16_t>::max()) throw ProtocolError("too many names");
    put(static_cast<uint32_t>(v.size()), 2);
    for (auto &s : v) (*this)(s);
  }
  // Lists of records: a u16 count, then each record's fields.
  template <class Record>
  void operator()(std::vector<Record> &v) {
    if (v.size() > std::numeric_limits<uint16_t>::max()) throw ProtocolError("too many records");
    put(static_cast<uint32_t>(v.size()), 2);
    for (auto &record : v) fields(*this, record);
  }

 private:
  void put(uint32_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
      out_.push_back(static_cast<uint8_t>(value >> shift));
    }
  }
  std::vector<uint8_t> &out_;
};

class Reader {
 public:
  Reader(const uint8_t *in, size_t size) : in_(in), left_(size) {}
  void operator()(uint8_t &v) { v = static_cast<uint8_t>(get(1)); }
  void operator()(bool &v) {
    const uint32_t raw = get(1);
    if (raw > 1) throw ProtocolError("bad flag");
    v = raw == 1;
  }
  void operator()(uint16_t &v) { v = static_cast<uint16_t>(get(2)); }
  void operator()(uint32_t &v) { v = get(4); }
  void operator()(uint64_t &v) {
    const uint64_t high = get(4);
    v = (high << 32) | get(4);
  }
  void operator()(std::string &v) {
    const uint32_t size = get(2);
    need(size);
    v.assign(reinterpret_cast<const char *>(in_), size);
    in_ += size;
    left_ -= size;
  }
  void operator()(std::optional<std::string> &v) {
    bool present = false;
    (*this)(present);
    v.reset();
    if (present) (*this)(v.emplace());
  }
  void operator()(std::vector<std::string> &v) {
    const uint32_t count = get(2);
    v.assign(count, std::string());
    for (auto &s : v) (*this)(s);
  }
  template <class Record>
  void operator()(std::vector<Record> &v) {
    const uint32_t count = get(2);
    // Every record takes at least a byte: a count past what is left is a lie
    // that must not make a huge allocation.
    need(count);
    v.assign(count, Record{});
    for (auto &record : v) fields(*this, record);
  }
  bool at_end() const { return left_ == 0; }

 private:
  void need(size_t size) const {
    if (size > left_) throw ProtocolError("message shorter than its fields");
  }
  uint32_t get(int bytes) {
    need(static_cast<size_t>(bytes));
    uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) value = (value << 8) | in_[i];
    in_ += bytes;
    left_ -= static_cast<size_t>(bytes);
    return value;
  }
  const uint8_t *in_;
  size_t left_;
};

uint32_t get_u32(const uint8_t *in) {
  return (uint32_t{in[0]} << 24) | (uint32_t{in[1]} << 16) | (uint32_t{in[2]} << 8) | in[3];
}

// Makes the alternative with the given index, default-initialised.
template <size_t I = 0>
Message make_alternative(size_t index) {
  if constexpr (I < std::variant_size_v<Message>) {
    if (index == I) return Message(std::in_place_index<I>);
    return make_alternative<I + 1>(index);
  } else {
    throw ProtocolError("unknown message type");
  }
}

}  // namespace

// GCC 12 warns, wrongly, that strings inside the message variant may be used
// uninitialised once std::visit is inlined into these two functions at -O2;
// every alternative is constructed with its members initialised.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

void encode_message(const Message &message, bool passes_descriptor, std::vector<uint8_t> &out) {
  const size_t start = out.size();
  out.resize(start + 4);
  out.push_back(static_cast<uint8_t>(message.index() + 1));
  out.push_back(passes_descriptor ? 1 : 0);
  Message copy = message;
  Writer writer(out);
  std::visit([&](auto &m) { fields(writer, m); }, copy);
  const size_t rest = out.size() - start - 4;
  if (rest + 4 > kMaxMessageSize) {
    out.resize(start);
    throw ProtocolError("message too large");
  }
  for (int i = 0; i < 4; ++i) out[start + i] = static_cast<uint8_t>(rest >> (24 - 8 * i));
}

std::optional<DecodedMessage> decode_message(const uint8_t *in, size_t size, size_t &consumed) {
  consumed = 0;
  if (size < 4) return std::nullopt;
  const uint32_t rest = get_u32(in);
  if (rest < kMessageHeaderSize - 4 || rest > kMaxMessageSize - 4) {  // no wrap-around
    throw ProtocolError("bad message length");
  }
  if (size - 4 < rest) return std::nullopt;
  const uint8_t type = in[4];
  const uint8_t descriptors = in[5];
  if (type == 0) throw ProtocolError("unknown message type");
  if (descriptors > 1) throw ProtocolError("bad descriptor count");
  DecodedMessage decoded{make_alternative(type - 1u), descriptors == 1};
  Reader reader(in + kMessageHeaderSize, rest - (kMessageHeaderSize - 4));
  std::visit([&](auto &m) { fields(reader, m); }, decoded.message);
  if (!reader.at_end()) throw ProtocolError("message longer than its fields");
  consumed = 4 + rest;
  return decoded;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

bool may_pass_descriptor(const Message &message) {
  return std::holds_alternative<AllocateResult>(message) ||
         std::holds_alternative<AttachDelivery>(message);
}

const char *message_name(const Message &message) {
  static constexpr const char *kNames[] = {
      "hello",         "welcome",     "register",        "withdraw",     "accept-wait",
      "accept-cancel", "allocate",    "allocate-result", "attach",       "control-request",
      "control-reply", "stats-query", "stats-report",    "trace-control"};
  static_assert(std::size(kNames) == std::variant_size_v<Message>);
  return kNames[message.index()];
}

}  // namespace snanode::client
