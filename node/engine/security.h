// Conversation security of an incoming allocation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/node_config.h"

namespace snanode::engine {

// Security types as the allocating TP gives them.
inline constexpr uint8_t kSecurityNone = 0;
inline constexpr uint8_t kSecuritySame = 1;
inline constexpr uint8_t kSecurityProgram = 2;
inline constexpr uint8_t kSecurityProgramStrong = 5;

struct SecurityRequest {
  uint8_t type = kSecurityNone;
  std::string user_id;
  std::string password;
  std::optional<std::string> allocator_user;  // the allocating TP's verified user, if any
};

struct SecurityOutcome {
  bool valid = false;
  std::optional<std::string> user;  // the verified user the partner sees
};

// PROGRAM and PROGRAM_STRONG must name a configured user with its password.
// SAME passes on the allocating TP's verified user; from a TP nobody
// verified it carries no user, which only a TP that requires security refuses.
SecurityOutcome check_security(const SecurityRequest &request,
                               const std::vector<config::User> &users);

}  // namespace snanode::engine
