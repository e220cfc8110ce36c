// Whether a node takes an incoming allocation for one of its TPs, and if not,
// which allocation error the allocating side gets.
#pragma once

#include <cstdint>
#include <string>

#include "config/node_config.h"

namespace snanode::client {

// The highest sync level offered: confirm (sync point is not).
inline constexpr uint8_t kHighestSyncLevel = 1;

struct AttachCheck {
  bool served = false;  // some process accepts the name, or it is invokable
  const config::InvokableTp *invokable = nullptr;
  bool mapped = true;
  uint8_t sync_level = 0;
  bool security_valid = true;  // the allocation's security was verified
  bool has_user = false;       // it carries a verified user
};

// 0 when the attach may go ahead; otherwise the allocation error's secondary
// return code.  The checks run in the order a TP name is resolved: name,
// conversation type, sync level, then security.
uint32_t attach_refusal(const AttachCheck &check);

// A sentence for the log saying why, for a code attach_refusal returns.
const char *refusal_reason(uint32_t secondary);

}  // namespace snanode::client
