// Drives the conversation engine directly with verb records, the way the
// node's dispatcher does: every call under one lock, later completions
// recorded so a test can see which verb finished and when.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/ebcdic.h"
#include "engine/engine.h"
#include "engine/socket_link.h"

namespace engine_test {

using snanode::engine::Engine;
using snanode::engine::EngineHooks;
namespace config = snanode::config;

struct Conv {
  std::array<uint8_t, 8> tp{};
  uint32_t id = 0;
  bool mapped = true;
};

struct Received {
  uint16_t rc = 0xFFFF;
  uint32_t secondary = 0;
  uint16_t what = 0;
  std::string data;
  uint8_t rts = 0;
};

inline std::string bytes_of(const std::vector<uint8_t> &v) {
  return {v.begin(), v.end()};
}

// A basic conversation's logical record: LL (counting itself) and the text.
inline std::string record(const std::string &text) {
  const size_t ll = text.size() + 2;
  return std::string{static_cast<char>(ll >> 8), static_cast<char>(ll & 0xFF)} + text;
}

struct AllocateOptions {
  bool mapped = true;
  uint8_t sync_level = 0;
  std::string tp_name = "SERVER";
  std::string partner = "LOCAL";
  std::string mode = "#INTER";
  uint8_t security = 0;
  std::string user{}, password{};
  uint8_t return_control = 0;
};

class EngineHarness {
 public:
  explicit EngineHarness(const config::NodeConfig &cfg = config::NodeConfig{}) {
    EngineHooks hooks;
    hooks.complete = [this](void *token) {
      done_.insert(token);
      changed_.notify_all();
    };
    hooks.run_locked = [this](const std::function<void()> &work) {
      std::lock_guard<std::mutex> lock(mutex_);
      work();
    };
    hooks.log_data = [this](uint32_t, const std::vector<uint8_t> &data) {
      logged.push_back(bytes_of(data));
    };
    // Sockets from the daemon deliver under this harness's lock too.
    hooks.socket_link = [run_locked = hooks.run_locked](snanode::client::UniqueFd end) {
      return snanode::engine::make_socket_link(end.release(), run_locked);
    };
    engine_ = std::make_unique<Engine>(cfg, hooks);
  }
  // The engine's state goes under the lock its links deliver under (a link's
  // reader may be delivering to a conversation right then); the engine itself
  // without it, since stopping its timer waits for a callback that takes it.
  ~EngineHarness() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      engine_->end_path();
    }
    engine_.reset();
  }

  // Runs `work` on the engine under the harness's lock.
  void run(const std::function<void(Engine &)> &work) {
    std::lock_guard<std::mutex> lock(mutex_);
    work(*engine_);
  }

  // Returns true when the verb completed at once.
  bool submit(void *vcb) {
    std::lock_guard<std::mutex> lock(mutex_);
    return engine_->start(vcb, vcb);
  }
  bool completed(void *vcb) {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_.count(vcb) != 0;
  }
  bool wait_completed(void *vcb, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return done_.count(vcb) != 0; });
  }
  void end_path() {
    std::lock_guard<std::mutex> lock(mutex_);
    engine_->end_path();
  }

  // ---- TPs and names ----
  std::array<uint8_t, 8> start_tp(const std::string &lu = "") {
    NAP_START_TP_VCB vcb{};
    vcb.opcode = NAP_START_TP;
    std::memcpy(vcb.local_lu_name, lu.data(), std::min<size_t>(lu.size(), 8));
    EXPECT_TRUE(submit(&vcb));
    EXPECT_EQ(vcb.primary_rc, AP_OK);
    std::array<uint8_t, 8> tp;
    std::memcpy(tp.data(), vcb.tp_id, 8);
    return tp;
  }
  NAP_TP_ENDED_VCB tp_ended(const std::array<uint8_t, 8> &tp) {
    NAP_TP_ENDED_VCB vcb{};
    vcb.opcode = NAP_TP_ENDED;
    std::memcpy(vcb.tp_id, tp.data(), 8);
    EXPECT_TRUE(submit(&vcb));
    return vcb;
  }
  uint16_t local_tp(uint16_t opcode, const std::string &name) {
    NAP_LOCAL_TP_VCB vcb{};
    vcb.opcode = opcode;
    snanode::engine::put_ebcdic_name(name, vcb.tp_name, sizeof vcb.tp_name);
    EXPECT_TRUE(submit(&vcb));
    return vcb.primary_rc;
  }

  // ---- allocation ----
  static NAP_ALLOCATE allocate_vcb(const std::array<uint8_t, 8> &tp, const AllocateOptions &o) {
    NAP_ALLOCATE vcb{};
    vcb.hdr.opcode = NAP_B_ALLOCATE;
    vcb.hdr.opext = o.mapped ? NAP_OPEXT_MAPPED : NAP_OPEXT_BASIC;
    vcb.hdr.format = 1;
    std::memcpy(vcb.hdr.tp_id, tp.data(), 8);
    vcb.sync_level = o.sync_level;
    vcb.return_control = o.return_control;
    std::memcpy(vcb.partner_lu_alias, o.partner.data(), std::min<size_t>(o.partner.size(), 8));
    snanode::engine::put_ebcdic_name(o.mode, vcb.mode_name, sizeof vcb.mode_name);
    snanode::engine::put_ebcdic_name(o.tp_name, vcb.tp_name, sizeof vcb.tp_name);
    vcb.security_type = o.security;
    snanode::engine::put_ebcdic_name(o.user, vcb.user_id, sizeof vcb.user_id);
    snanode::engine::put_ebcdic_name(o.password, vcb.password, sizeof vcb.password);
    return vcb;
  }
  // Allocates at once; the conversation it returns may still fail at attach.
  Conv allocate(const std::array<uint8_t, 8> &tp, const AllocateOptions &o) {
    NAP_ALLOCATE vcb = allocate_vcb(tp, o);
    EXPECT_TRUE(submit(&vcb));
    EXPECT_EQ(vcb.hdr.primary_rc, AP_OK);
    return Conv{tp, vcb.hdr.conv_id, o.mapped};
  }

  struct Accept {
    NAP_RECEIVE_ALLOCATE vcb{};
    std::vector<uint8_t> names;
  };
  // Fills an accept for the given names; the caller keeps it where it is
  // until it completes.
  static void prepare_accept(Accept &accept, const std::vector<std::string> &names,
                             uint32_t handle = 77) {
    accept.names.assign(names.size() * 64, 0x40);
    for (size_t i = 0; i < names.size(); ++i) {
      snanode::engine::put_ebcdic_name(names[i], accept.names.data() + i * 64, 64);
    }
    accept.vcb = NAP_RECEIVE_ALLOCATE{};
    accept.vcb.opcode = NAP_RECEIVE_ALLOCATE_CPIC;
    accept.vcb.format = 1;
    accept.vcb.conv_id = handle;
    accept.vcb.tp_name_count = static_cast<uint32_t>(names.size());
    accept.vcb.tp_name_list = accept.names.data();
  }
  static Conv accepted(const Accept &accept) {
    Conv conv;
    std::memcpy(conv.tp.data(), accept.vcb.tp_id, 8);
    conv.id = accept.vcb.conv_id;
    conv.mapped = accept.vcb.rcv_conv_type == 1;
    return conv;
  }

  // An allocated conversation with its accepted partner side.
  std::pair<Conv, Conv> connect(const AllocateOptions &o = AllocateOptions()) {
    auto tp = start_tp();
    Accept accept;
    prepare_accept(accept, {o.tp_name});
    EXPECT_FALSE(submit(&accept.vcb));
    Conv a = allocate(tp, o);
    EXPECT_TRUE(completed(&accept.vcb));
    EXPECT_EQ(accept.vcb.primary_rc, AP_OK);
    return {a, accepted(accept)};
  }

  // ---- conversation verbs ----
  template <typename V>
  static V verb(uint16_t opcode, const Conv &c) {
    V vcb{};
    vcb.hdr.opcode = opcode;
    vcb.hdr.opext = c.mapped ? NAP_OPEXT_MAPPED : NAP_OPEXT_BASIC;
    std::memcpy(vcb.hdr.tp_id, c.tp.data(), 8);
    vcb.hdr.conv_id = c.id;
    return vcb;
  }
  static NAP_SEND_DATA_VCB send_vcb(const Conv &c, std::string_view data, uint8_t type) {
    auto vcb = verb<NAP_SEND_DATA_VCB>(NAP_SEND_DATA, c);
    vcb.data_length = static_cast<uint16_t>(data.size());
    vcb.data_pointer = reinterpret_cast<uint8_t *>(const_cast<char *>(data.data()));
    vcb.send_data_type = type;
    return vcb;
  }
  // A send that must complete at once; returns its primary return code.
  uint16_t send(const Conv &c, const std::string &data, uint8_t type = AP_SEND_BUFFER) {
    auto vcb = send_vcb(c, data, type);
    EXPECT_TRUE(submit(&vcb)) << "send type " << int(type) << " waited";
    last_secondary = vcb.hdr.secondary_rc;
    return vcb.hdr.primary_rc;
  }
  static NAP_RECEIVE_VCB receive_vcb(const Conv &c, std::vector<uint8_t> &buffer, bool wait,
                                     uint8_t fill = 1, uint8_t return_status = 0) {
    auto vcb = verb<NAP_RECEIVE_VCB>(wait ? NAP_RECEIVE_AND_WAIT : NAP_RECEIVE_IMMEDIATE, c);
    vcb.max_length = static_cast<uint16_t>(buffer.size());
    vcb.data_pointer = buffer.data();
    vcb.fill = fill;
    vcb.return_status = return_status;
    return vcb;
  }
  static Received result_of(const NAP_RECEIVE_VCB &vcb, const std::vector<uint8_t> &buffer) {
    return Received{vcb.hdr.primary_rc, vcb.hdr.secondary_rc, vcb.what_received,
                    std::string(buffer.begin(), buffer.begin() + vcb.data_length),
                    vcb.rts_received};
  }
  // A receive-and-wait that must complete at once.
  Received receive(const Conv &c, uint16_t max = 1000, uint8_t fill = 1, uint8_t return_status = 0,
                   bool wait = true) {
    std::vector<uint8_t> buffer(max);
    auto vcb = receive_vcb(c, buffer, wait, fill, return_status);
    EXPECT_TRUE(submit(&vcb)) << "receive waited";
    return result_of(vcb, buffer);
  }
  uint16_t simple(uint16_t opcode, const Conv &c) {
    auto vcb = verb<NAP_CONFIRM_VCB>(opcode, c);
    EXPECT_TRUE(submit(&vcb));
    return vcb.hdr.primary_rc;
  }
  uint8_t state(const Conv &c) {
    auto vcb = verb<NAP_GET_STATE_VCB>(NAP_GET_STATE, c);
    EXPECT_TRUE(submit(&vcb));
    EXPECT_EQ(vcb.hdr.primary_rc, AP_OK);
    return vcb.conv_state;
  }
  static NAP_DEALLOCATE_VCB deallocate_vcb(const Conv &c, uint8_t type, std::string_view log) {
    auto vcb = verb<NAP_DEALLOCATE_VCB>(NAP_DEALLOCATE, c);
    vcb.dealloc_type = type;
    vcb.log_data_length = static_cast<uint16_t>(log.size());
    vcb.log_data_pointer = reinterpret_cast<uint8_t *>(const_cast<char *>(log.data()));
    return vcb;
  }
  uint16_t deallocate(const Conv &c, uint8_t type, const std::string &log = "") {
    auto vcb = deallocate_vcb(c, type, log);
    EXPECT_TRUE(submit(&vcb));
    return vcb.hdr.primary_rc;
  }
  uint16_t send_error(const Conv &c, uint8_t direction = 0, const std::string &log = "") {
    auto vcb = verb<NAP_SEND_ERROR_VCB>(NAP_SEND_ERROR, c);
    vcb.error_direction = direction;
    vcb.log_data_length = static_cast<uint16_t>(log.size());
    vcb.log_data_pointer = reinterpret_cast<uint8_t *>(const_cast<char *>(log.data()));
    EXPECT_TRUE(submit(&vcb));
    return vcb.hdr.primary_rc;
  }
  uint16_t prepare_to_receive(const Conv &c, uint8_t type) {
    auto vcb = verb<NAP_PREPARE_TO_RECEIVE_VCB>(NAP_PREPARE_TO_RECEIVE, c);
    vcb.ptr_type = type;
    EXPECT_TRUE(submit(&vcb));
    return vcb.hdr.primary_rc;
  }

  std::vector<std::string> logged;
  uint32_t last_secondary = 0;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<void *> done_;
  std::unique_ptr<Engine> engine_;  // last: its timer stops before the rest goes
};

}  // namespace engine_test
