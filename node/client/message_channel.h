// One end of a daemon connection: whole protocol messages out and in, with
// the descriptors they pass.
#pragma once

#include <sys/socket.h>

#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "client/daemon_protocol.h"
#include "client/unique_fd.h"

namespace snanode::client {

struct ReceivedMessage {
  Message message;
  UniqueFd descriptor;  // the one passed with the message, if any
  // The message passed a descriptor that this process could not take in (it
  // had no descriptor left): `descriptor` is invalid, the rest is intact.
  bool descriptor_lost = false;
};

// Which descriptors an end takes.  The daemon takes none: every descriptor a
// client passes is closed as it arrives and the client is in breach of the
// protocol.  A process takes one with each message whose type passes one.
enum class DescriptorPolicy { kWithTheirMessages, kNone };

class MessageChannel {
 public:
  explicit MessageChannel(UniqueFd socket,
                          DescriptorPolicy policy = DescriptorPolicy::kWithTheirMessages);

  int fd() const { return socket_.get(); }

  // Sends one message whole, passing `descriptor` when it is >= 0 (the
  // caller keeps its own copy).  False when the peer is gone.  Safe to call
  // from several threads.
  bool send(const Message &message, int descriptor = -1);

  // Waits for and reads what the socket holds.  False at end of stream or on
  // an error: the connection is over.
  bool read_some();

  // The next whole message read so far.  Throws ProtocolError for bytes that
  // are not one, when a message announces a descriptor that was never sent
  // or that its type never passes, or when descriptors came that the policy
  // refuses (they are closed already).  One that was sent but this process
  // could not take in (it had no descriptor left) is `descriptor_lost`.
  std::optional<ReceivedMessage> next();

  // Waits for the next whole message: next() and read_some() until one has
  // come; nothing once the connection is over.  Throws ProtocolError.
  std::optional<ReceivedMessage> receive();

 private:
  // Keeps or closes the descriptors of one read, as the policy says, in
  // order, with a placeholder for one the kernel could not install.
  void take_descriptors(msghdr &msg);
  // Throws for descriptors refused on arrival, or announced by a message
  // type that never passes one (closing the ones held).
  void check_descriptors(const DecodedMessage *decoded);

  UniqueFd socket_;
  DescriptorPolicy policy_;
  size_t refused_descriptors_ = 0;
  std::mutex send_mutex_;
  std::vector<uint8_t> inbound_;
  std::deque<UniqueFd> descriptors_;
};

// One sendmsg(2) of `size` bytes, passing `descriptor` with them when >= 0.
ssize_t send_passing(int socket, const uint8_t *data, size_t size, int descriptor, int flags);

// Connects to the daemon's socket; an invalid descriptor on failure.
UniqueFd connect_unix_socket(const std::string &path);

}  // namespace snanode::client
