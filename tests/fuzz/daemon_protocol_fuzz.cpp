// Fuzz target: the daemon protocol as the daemon reads it.  The bytes are
// decoded message by message; each decoded message must encode back to
// bytes that decode to the same message, and the greeted broker takes it
// (answering, refusing or dropping the client) without failing otherwise.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "client/daemon_protocol.h"
#include "daemon/broker.h"

namespace {

using namespace snanode;

class DiscardingOutput : public daemon::BrokerOutput {
 public:
  bool send(daemon::ClientId, const client::Message &, int) override { return true; }
  bool launch(const config::InvokableTp &, const std::string &) override { return false; }
  void log(const std::string &) override {}
};

void check_round_trip(const client::DecodedMessage &decoded) {
  std::vector<uint8_t> bytes;
  try {
    client::encode_message(decoded.message, decoded.passes_descriptor, bytes);
  } catch (const client::ProtocolError &) {
    return;  // decodes, but too large to send again: the encoder says so
  }
  size_t consumed = 0;
  const auto again = client::decode_message(bytes.data(), bytes.size(), consumed);
  std::vector<uint8_t> twice;
  if (again) client::encode_message(again->message, again->passes_descriptor, twice);
  if (consumed != bytes.size() || twice != bytes) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  config::NodeConfig node;
  node.node_name = "FUZZNODE";
  DiscardingOutput output;
  daemon::Broker broker(node, output, nullptr);
  broker.connected(1, {::getpid(), ::getuid()});
  broker.handle(1, {client::Hello{client::kProtocolVersion, static_cast<uint32_t>(::getpid()),
                                  static_cast<uint32_t>(::getuid())},
                    client::UniqueFd()});
  size_t at = 0;
  try {
    while (at < size) {
      size_t consumed = 0;
      auto decoded = client::decode_message(data + at, size - at, consumed);
      if (!decoded) break;  // a part of a message: the daemon waits for more
      at += consumed;
      check_round_trip(*decoded);
      if (!broker.handle(1, {std::move(decoded->message), client::UniqueFd()})) break;
    }
  } catch (const client::ProtocolError &) {
    // the daemon drops a client that sends this
  }
  broker.disconnected(1);
  return 0;
}
