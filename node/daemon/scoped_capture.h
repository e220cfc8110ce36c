// Captures of one TP or one process (snanodectl `capture on --tp NAME` or
// `--pid PID`): the units of the network conversations whose local TP has
// that name, or whose process has that pid, each in its own pcap file.
//
// The operator names no path (the daemon would write wherever its user may):
// the file is capture-tp-NAME.pcap or capture-pid-PID.pcap in a directory the
// node chooses, NAME reduced to characters safe in a file name.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/broker.h"
#include "net/capture/pcap_writer.h"

namespace snanode::daemon {

// Whose units a session carries: the local TP of its current conversation.
struct UnitOwner {
  // The allocating side: the process that allocated (its pid and TP names
  // are the broker's).  Unset on the attached side.
  std::optional<ClientId> allocator;
  // The attached side: the TP the Attach names (empty until it is read).
  std::string tp_name;
};

class ScopedCaptures {
 public:
  explicit ScopedCaptures(const Broker &broker) : broker_(broker) {}

  // `capture on|off` for `option` (--tp or --pid) and its value: whether it
  // was done, and what to tell the operator.  On opens (or starts anew) the
  // file in `directory`; off closes it.
  std::pair<bool, std::string> control(bool on, const std::string &option, const std::string &value,
                                       const std::string &directory,
                                       const net::CaptureEndpoints &endpoints);
  bool empty() const { return by_tp_.empty() && by_pid_.empty(); }
  // The scopes on now, for the status: "tp" or "pid", the name, the file.
  struct Listed {
    std::string scope, name, path;
  };
  std::vector<Listed> list() const;
  // Writes the unit to every scope its owner falls in.
  void write(const UnitOwner &owner, bool sent, net::ByteSpan biu);

  // The file name of a scope: capture-tp-NAME.pcap or capture-pid-PID.pcap.
  static std::string file_name(const std::string &option, const std::string &value);

 private:
  struct Scope {
    std::string path;
    std::unique_ptr<net::CaptureWriter> writer;
  };

  const Broker &broker_;
  std::map<std::string, Scope> by_tp_;
  std::map<pid_t, Scope> by_pid_;
};

}  // namespace snanode::daemon
