#include "engine/security.h"

#include <algorithm>

namespace snanode::engine {
namespace {

// Compares all of both values whatever they hold, so the time taken does not
// tell how much of a guessed password was right.
bool same_secret(const std::string &a, const std::string &b) {
  const size_t n = std::max(a.size(), b.size());
  unsigned diff = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < n; ++i) {
    const auto x = static_cast<unsigned char>(i < a.size() ? a[i] : 0);
    const auto y = static_cast<unsigned char>(i < b.size() ? b[i] : 0);
    diff |= static_cast<unsigned>(x ^ y);
  }
  return diff == 0;
}

}  // namespace

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
               same_secret(user.password, request.password);
      });
      if (!known || request.user_id.empty()) return {false, std::nullopt};
      return {true, request.user_id};
    }
    default:
      return {false, std::nullopt};
  }
}

}  // namespace snanode::engine
