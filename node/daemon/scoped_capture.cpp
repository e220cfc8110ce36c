#include "daemon/scoped_capture.h"

#include <algorithm>
#include <cctype>

#include "daemon/log_text.h"

namespace snanode::daemon {
namespace {

// A pid as the operator typed it: digits only, no sign, within pid_t.
std::optional<pid_t> parse_pid(const std::string &text) {
  if (text.empty() || text.size() > 9 ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  const pid_t pid = static_cast<pid_t>(std::stol(text));
  return pid > 0 ? std::optional(pid) : std::nullopt;
}

}  // namespace

std::string ScopedCaptures::file_name(const std::string &option, const std::string &value) {
  // Only letters, digits, '-', '_' and '.' survive: no '/' leaves the
  // directory, and the prefix keeps ".." from being the whole name.
  std::string safe = value;
  for (char &c : safe) {
    const bool keep =
        std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '.';
    if (!keep) c = '_';
  }
  return "capture-" + std::string(option == "--pid" ? "pid" : "tp") + "-" + safe + ".pcap";
}

std::pair<bool, std::string> ScopedCaptures::control(bool on, const std::string &option,
                                                     const std::string &value,
                                                     const std::string &directory,
                                                     const net::CaptureEndpoints &endpoints) {
  std::optional<pid_t> pid;
  if (option == "--pid") {
    pid = parse_pid(value);
    if (!pid) return {false, "not a pid: " + log_safe(value)};
  } else if (value.empty()) {
    return {false, "no TP name given"};
  }
  const std::string scope = (pid ? "pid " : "TP ") + log_safe(value);
  if (!on) {
    Scope closed;
    if (pid) {
      if (auto found = by_pid_.find(*pid); found != by_pid_.end()) {
        closed = std::move(found->second);
        by_pid_.erase(found);
      }
    } else if (auto found = by_tp_.find(value); found != by_tp_.end()) {
      closed = std::move(found->second);
      by_tp_.erase(found);
    }
    if (!closed.writer) return {true, "capture off for " + scope + ": it was not on"};
    return {true, "capture off for " + scope + " (" + closed.path + " closed)"};
  }
  Scope &slot = pid ? by_pid_[*pid] : by_tp_[value];
  if (slot.writer) return {true, "capture on for " + scope + ": " + slot.path};
  const std::string path = directory + "/" + file_name(option, value);
  std::string error;
  slot.writer = net::CaptureWriter::open(path, endpoints, &error);
  if (!slot.writer) {
    if (pid) {
      by_pid_.erase(*pid);
    } else {
      by_tp_.erase(value);
    }
    return {false, "capture " + path + " cannot be written: " + error};
  }
  slot.path = path;
  return {true, "capture on for " + scope + ": " + path};
}

std::vector<ScopedCaptures::Listed> ScopedCaptures::list() const {
  std::vector<Listed> listed;
  for (const auto &[name, scope] : by_tp_) listed.push_back({"tp", name, scope.path});
  for (const auto &[pid, scope] : by_pid_)
    listed.push_back({"pid", std::to_string(pid), scope.path});
  return listed;
}

void ScopedCaptures::write(const UnitOwner &owner, bool sent, net::ByteSpan biu) {
  const auto direction = sent ? net::CaptureDirection::kSent : net::CaptureDirection::kReceived;
  if (!by_pid_.empty() && owner.allocator) {
    // The attached side's process is known only once it accepts: its units
    // are the TP name's alone.
    if (auto found = by_pid_.find(broker_.pid_of(*owner.allocator)); found != by_pid_.end()) {
      found->second.writer->write_biu(direction, biu, net::BiuFraming{});
    }
  }
  for (auto &[name, scope] : by_tp_) {
    const bool ours =
        owner.allocator ? broker_.holds_tp(*owner.allocator, name) : owner.tp_name == name;
    if (ours) scope.writer->write_biu(direction, biu, net::BiuFraming{});
  }
}

}  // namespace snanode::daemon
