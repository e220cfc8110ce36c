#include "engine/security.h"

#include <algorithm>

namespace snanode::engine {

SecurityOutcome check_security(const SecurityRequest &request,
                               const std::vector<config::User> &users) {
  switch (request.type) {
    case kSecurityNone:
      return {true, std::nullopt};
    case kSecuritySame:
      return {true, request.allocator_user};
    case kSecurityProgram:
    case kSecurityProgramStrong: {
      // A user without a password is left to PAM, which the embedded node
      // does not consult: such a user cannot be verified here.
      const bool known = std::any_of(users.begin(), users.end(), [&](const config::User &user) {
        return !user.password.empty() && user.user_id == request.user_id &&
               user.password == request.password;
      });
      if (!known || request.user_id.empty()) return {false, std::nullopt};
      return {true, request.user_id};
    }
    default:
      return {false, std::nullopt};
  }
}

}  // namespace snanode::engine
