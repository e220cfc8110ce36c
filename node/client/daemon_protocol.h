// The messages between a process's node library and the node daemon.
//
// Every message travels over the daemon's Unix stream socket as
//
//   u32 length of the rest (big-endian) | u8 type | u8 descriptors passed (0 or 1) | body
//
// with integers big-endian and text as u16 length + bytes.  A message that
// passes a descriptor (an allocation's or an attach's end of a socketpair)
// carries it as SCM_RIGHTS ancillary data sent with its first byte; since
// descriptors arrive in stream order, the receiver pairs them with messages
// first in, first out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace snanode::client {

// 2: the conversation links carry the FAILURE frame (engine/frame.h), and
// the daemon asks processes for their conversations (stats-query) and
// switches their trace (trace-control); control connections (snanodectl).
// A library of version 1 would misread both, so it is refused at the hello.
// 3: allocate-result and attach say "via node".  4: a TP's end the daemon
// holds takes large records through a ring (engine/record_ring.h).
inline constexpr uint32_t kProtocolVersion = 4;
// The version of the words of a control request (see ControlRequest).
inline constexpr uint32_t kControlVersion = 1;
inline constexpr size_t kMessageHeaderSize = 6;
inline constexpr uint32_t kMaxMessageSize = 64 * 1024;

// Client to daemon, first message: who is connecting.  The daemon also asks
// the kernel (SO_PEERCRED) and refuses a hello that does not match.
struct Hello {
  uint32_t version = kProtocolVersion;
  uint32_t pid = 0;
  uint32_t uid = 0;
};

// Daemon to client: the hello was accepted.
struct Welcome {
  uint32_t version = kProtocolVersion;
  std::string node_name;
};

// Client to daemon: the process accepts conversations under a local TP name,
// or no longer does.
struct RegisterTp {
  std::string tp_name;
};
struct WithdrawTp {
  std::string tp_name;
};

// Client to daemon: a receive-allocate waits for an attach to one of the
// names; cancelled when the verb ends otherwise.
struct AcceptWait {
  uint32_t accept_id = 0;
  std::vector<std::string> tp_names;
};
struct AcceptCancel {
  uint32_t accept_id = 0;
};

// Client to daemon: a TP of the process allocates a conversation to a TP of
// another process.  `allocator_user` is the verified user of the allocating
// TP, which security SAME passes on.  The password is never logged.
struct AllocateRequest {
  uint32_t request_id = 0;
  std::string partner_lu;      // as the allocating TP named it
  std::string local_lu_alias;  // the LU the attach arrives at; empty: default
  std::string allocator_lu;    // the allocating TP's LU name (NETID.LUNAME)
  std::string mode;
  std::string tp_name;
  bool mapped = true;
  uint8_t sync_level = 0;
  uint8_t security_type = 0;
  std::string user_id;
  std::string password;
  std::optional<std::string> allocator_user;
};

// Daemon to client: primary 0 passes the allocating side's end of the
// conversation; otherwise the allocation error (primary, secondary).
struct AllocateResult {
  uint32_t request_id = 0;
  uint16_t primary = 0;
  uint32_t secondary = 0;
  // The partner is on another node: the other side of the passed end is the
  // daemon's, not the partner TP's.
  bool via_node = false;
};

// Daemon to client: an attach for a waiting accept, with the attached side's
// end of the conversation.
struct AttachDelivery {
  uint32_t accept_id = 0;
  std::string tp_name;
  bool mapped = true;
  uint8_t sync_level = 0;
  std::optional<std::string> user;  // verified user, if any
  std::string mode;
  std::string partner_lu_name;  // the allocating side's LU
  std::string local_lu_alias;   // the LU the attach arrives at
  bool via_node = false;        // as in AllocateResult
};

// Control tool to daemon, the first and only message of a control connection
// (no hello).  The envelope never changes: whatever a later version needs
// travels in `words`, and `version` says how to read them, so a daemon of any
// version can decode a request and answer one it does not speak with a
// message saying so.
struct ControlRequest {
  uint32_t version = kControlVersion;
  uint32_t request_id = 0;
  std::vector<std::string> words;  // the command line, e.g. {"status", "--json"}
};

// Daemon to control tool: the answer in pieces of at most kControlChunk
// bytes, the last with `more` false.  `status` 0: done; otherwise `text`
// says why not (refused, unknown command, other version).
struct ControlReply {
  uint32_t request_id = 0;
  uint8_t status = 0;
  bool more = false;
  std::string text;
};
inline constexpr size_t kControlChunk = 60000;

// Daemon to process: report your TPs and conversations.
struct StatsQuery {
  uint32_t query_id = 0;
};

struct TpReport {
  std::string name;  // empty: started without a name
  std::string local_lu;
};
struct ConversationReport {
  uint32_t id = 0;
  std::string local_tp;
  std::string partner_tp;  // known on the allocating side only
  std::string local_lu;
  std::string partner_lu;
  std::string mode;
  std::string state;  // reset, send, receive, confirm, ...
  uint64_t bytes_sent = 0;
  uint64_t bytes_received = 0;
  uint32_t age_ms = 0;
};
struct SessionUse {
  std::string partner_lu;
  std::string mode;
  uint32_t in_use = 0;
};

// Process to daemon: the answer to a stats query, from its engine.
struct StatsReport {
  uint32_t query_id = 0;
  bool trace_on = false;
  std::vector<TpReport> tps;
  std::vector<ConversationReport> conversations;
  std::vector<SessionUse> sessions;
};

// Daemon to process: turn the API trace on or off; `file` non-empty: trace
// into that file from now on.
struct TraceControl {
  bool on = false;
  std::string file;
};

using Message = std::variant<Hello, Welcome, RegisterTp, WithdrawTp, AcceptWait, AcceptCancel,
                             AllocateRequest, AllocateResult, AttachDelivery, ControlRequest,
                             ControlReply, StatsQuery, StatsReport, TraceControl>;

// Bytes that cannot be a message of this protocol.
class ProtocolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Appends the encoded message; `passes_descriptor` is recorded in the header.
void encode_message(const Message &message, bool passes_descriptor, std::vector<uint8_t> &out);

struct DecodedMessage {
  Message message;
  bool passes_descriptor = false;
};

// Decodes one message from the front of `in`: nothing while `in` holds only a
// part of one; `consumed` is set to the bytes used.  Throws ProtocolError.
std::optional<DecodedMessage> decode_message(const uint8_t *in, size_t size, size_t &consumed);

// Whether a message of this type may pass a descriptor: only the daemon's
// allocate-result and attach do (an end of a conversation's socketpair); no
// message a client sends to the daemon ever does.
bool may_pass_descriptor(const Message &message);

// A short name of the message type, for logs.
const char *message_name(const Message &message);

}  // namespace snanode::client
