#include "client/attach_policy.h"

#include "snanode/verbs.h"

namespace snanode::client {

uint32_t attach_refusal(const AttachCheck &check) {
  const config::InvokableTp *tp = check.invokable;
  if (!check.served) return AP_TP_NAME_NOT_RECOGNIZED;
  if (tp != nullptr && !(check.mapped ? tp->accept_mapped : tp->accept_basic)) {
    return AP_CONV_TYPE_MISMATCH;
  }
  if (check.sync_level > kHighestSyncLevel ||
      (tp != nullptr &&
       !(check.sync_level == 0 ? tp->accept_sync_none : tp->accept_sync_confirm))) {
    return AP_SYNC_LEVEL_NOT_SUPPORTED;
  }
  if (!check.security_valid || (tp != nullptr && tp->security_required && !check.has_user)) {
    return AP_SECURITY_NOT_VALID;
  }
  return 0;
}

const char *refusal_reason(uint32_t secondary) {
  switch (secondary) {
    case AP_TP_NAME_NOT_RECOGNIZED:
      return "TP name not recognised";
    case AP_CONV_TYPE_MISMATCH:
      return "conversation type not accepted";
    case AP_SYNC_LEVEL_NOT_SUPPORTED:
      return "sync level not supported";
    case AP_SECURITY_NOT_VALID:
      return "security not valid";
    case AP_TP_NOT_AVAILABLE_RETRY:
      return "no TP accepted it within the queue time-out";
    default:
      return "refused";
  }
}

}  // namespace snanode::client
