#include "net/lu62/conversation_codes.h"

#include <array>

#include "net/formats/sense_codes.h"
#include "snanode/verbs.h"

namespace snanode::net::lu62 {
namespace {

struct AllocationCode {
  uint32_t secondary;
  uint32_t sense;
};

// One row per allocation error a local partner reports; the first row with a
// given secondary code is the sense this node sends for it.
constexpr std::array kAllocationCodes{
    AllocationCode{AP_TP_NAME_NOT_RECOGNIZED, sense::kTpNameNotRecognized},
    AllocationCode{AP_SECURITY_NOT_VALID, sense::kSecurityNotValid},
    AllocationCode{AP_CONV_TYPE_MISMATCH, sense::kConversationTypeMismatch},
    AllocationCode{AP_SYNC_LEVEL_NOT_SUPPORTED, sense::kSyncLevelNotSupported},
    AllocationCode{AP_TP_NOT_AVAILABLE_RETRY, sense::kTpNotAvailableRetry},
    AllocationCode{AP_TP_NOT_AVAILABLE_NO_RETRY, sense::kTpNotAvailableNoRetry},
    AllocationCode{AP_PIP_NOT_SPECIFIED, sense::kPipNotSpecifiedCorrectly},
    AllocationCode{AP_PIP_NOT_SPECIFIED, sense::kPipNotAllowed},
    AllocationCode{AP_ALLOCATION_FAILURE_NO_RETRY, sense::kInvalidAttachParameter},
};

constexpr uint32_t high_half(uint32_t sense) {
  return sense & 0xFFFF0000u;
}

}  // namespace

uint32_t allocation_sense(uint32_t secondary) {
  for (const auto &row : kAllocationCodes) {
    if (row.secondary == secondary) return row.sense;
  }
  return sense::kInvalidAttachParameter;
}

uint32_t allocation_secondary(uint32_t sense) {
  for (const auto &row : kAllocationCodes) {
    if (row.sense == sense) return row.secondary;
  }
  // Every security refusal reads the same to the TP, whatever detail the
  // partner's low half gives.
  if (high_half(sense) == high_half(sense::kSecurityNotValid)) return AP_SECURITY_NOT_VALID;
  // An Attach the partner could not parse (X'1008xxxx'): it will not parse
  // again.
  if (high_half(sense) == 0x10080000u) return AP_ALLOCATION_FAILURE_NO_RETRY;
  return 0;
}

ErrorMeaning error_meaning(uint32_t sense) {
  switch (sense) {
    case sense::kProgramErrorNoTruncation:
    case sense::kServiceErrorNoTruncation:
      return ErrorMeaning::kProgramError;
    case sense::kProgramErrorTruncation:
    case sense::kServiceErrorTruncation:
      return ErrorMeaning::kProgramErrorTruncation;
    case kSenseTpProcessEnded:
      return ErrorMeaning::kPartnerProcessEnded;
    default:
      break;
  }
  if (high_half(sense) == high_half(sense::kDeallocateAbendProgram)) return ErrorMeaning::kAbend;
  if (allocation_secondary(sense) != 0) return ErrorMeaning::kAllocationError;
  return ErrorMeaning::kOther;
}

uint16_t session_failure_code(uint32_t sense) {
  // A path that failed (X'80xxxxxx'), a session reset, or a session the
  // partner ended normally under the conversation may all be replaced by a
  // new one; a protocol error on this session would recur.
  const bool retry = sense == 0 || (sense & 0xFF000000u) == 0x80000000u ||
                     high_half(sense) == high_half(sense::kSessionResetCleanup);
  return retry ? AP_CONV_FAILURE_RETRY : AP_CONV_FAILURE_NO_RETRY;
}

}  // namespace snanode::net::lu62
