#include "daemon/pam_check.h"

#include <security/pam_appl.h>

#include <cstdlib>
#include <cstring>

namespace snanode::daemon {
namespace {

// Answers every hidden prompt with the password; PAM frees the answers.
int answer_with_password(int count, const pam_message **messages, pam_response **responses,
                         void *password) {
  auto *answers =
      static_cast<pam_response *>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    if (messages[i]->msg_style == PAM_PROMPT_ECHO_OFF) {
      answers[i].resp = ::strdup(static_cast<const char *>(password));
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}

}  // namespace

bool pam_verify(const std::string &service, const std::string &user, const std::string &password) {
  std::string secret = password;
  pam_conv conversation{answer_with_password, secret.data()};
  pam_handle_t *handle = nullptr;
  if (::pam_start(service.c_str(), user.c_str(), &conversation, &handle) != PAM_SUCCESS) {
    return false;
  }
  int status = ::pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (status == PAM_SUCCESS) status = ::pam_acct_mgmt(handle, PAM_SILENT);
  ::pam_end(handle, status);
  std::fill(secret.begin(), secret.end(), '\0');
  return status == PAM_SUCCESS;
}

}  // namespace snanode::daemon
