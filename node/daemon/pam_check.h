// Password verification by the system's PAM stack, for configured users
// that carry no password of their own.
#pragma once

#include <string>

namespace snanode::daemon {

// True when PAM service `service` authenticates `user` with `password` and
// its account checks pass.
bool pam_verify(const std::string &service, const std::string &user, const std::string &password);

}  // namespace snanode::daemon
