// Turning the node's APPC result (primary and secondary return code) into the
// one CPI-C return code the application sees.  Values are the 16- and 32-bit
// numbers as they sit in the verb record on this little-endian host, i.e. the
// byte-swapped SNA codes (sense 10086034 reads as 0x34600810).
#include "call_frame.h"

namespace {

struct CodeRow {
  uint32_t appc;
  CM_RETURN_CODE cpic;
};

// Results decided by the primary return code alone.
constexpr CodeRow kByPrimary[] = {
    {AP_STATE_CHECK, CM_PROGRAM_STATE_CHECK},
    {AP_DEALLOC_ABEND, CM_DEALLOCATED_ABEND},
    {AP_DEALLOC_ABEND_PROG, CM_DEALLOCATED_ABEND},
    {AP_DEALLOC_ABEND_SVC, CM_DEALLOCATED_ABEND_SVC},
    {AP_DEALLOC_ABEND_TIMER, CM_DEALLOCATED_ABEND_TIMER},
    {AP_DEALLOC_NORMAL, CM_DEALLOCATED_NORMAL},
    {AP_PROG_ERROR_NO_TRUNC, CM_PROGRAM_ERROR_NO_TRUNC},
    {AP_PROG_ERROR_TRUNC, CM_PROGRAM_ERROR_TRUNC},
    {AP_PROG_ERROR_PURGING, CM_PROGRAM_ERROR_PURGING},
    {AP_CONV_FAILURE_RETRY, CM_RESOURCE_FAILURE_RETRY},
    {AP_CONV_FAILURE_NO_RETRY, CM_RESOURCE_FAILURE_NO_RETRY},
    {AP_SVC_ERROR_NO_TRUNC, CM_SVC_ERROR_NO_TRUNC},
    {AP_SVC_ERROR_TRUNC, CM_SVC_ERROR_TRUNC},
    {AP_SVC_ERROR_PURGING, CM_SVC_ERROR_PURGING},
    {AP_UNSUCCESSFUL, CM_UNSUCCESSFUL},
};

// Parameter checks: the secondary code tells the application's fault apart.
constexpr CodeRow kParameterCheck[] = {
    {AP_BAD_FIELD, CM_PROGRAM_PARAMETER_CHECK},   {AP_BAD_TP_ID, CM_PROGRAM_PARAMETER_CHECK},
    {AP_BAD_CONV_ID, CM_PROGRAM_PARAMETER_CHECK}, {AP_BAD_MODE_NAME, CM_PARAMETER_ERROR},
    {AP_UNKNOWN_PARTNER_LU, CM_PARAMETER_ERROR},
};

// Allocation errors: the sense data says why the partner refused.  A missing
// PIP (sense 10086031) has no CPI-C code of its own and is left out on purpose.
constexpr CodeRow kAllocationError[] = {
    {AP_ALLOCATION_FAILURE_NO_RETRY, CM_ALLOCATE_FAILURE_NO_RETRY},
    {AP_ALLOCATION_FAILURE_RETRY, CM_ALLOCATE_FAILURE_RETRY},
    {AP_CONV_TYPE_MISMATCH, CM_CONVERSATION_TYPE_MISMATCH},
    {AP_SECURITY_NOT_VALID, CM_SECURITY_NOT_VALID},
    {0x58600F08u, CM_SECURITY_NOT_VALID},  // sense 080F6058
    {0x16900000u, CM_SECURITY_NOT_VALID},
    {AP_SYNC_LEVEL_NOT_SUPPORTED, CM_SYNC_LEVEL_NOT_SUPPORTED_PGM},
    {AP_TP_NAME_NOT_RECOGNIZED, CM_TPN_NOT_RECOGNIZED},
    {AP_TP_NOT_AVAILABLE_NO_RETRY, CM_TP_NOT_AVAILABLE_NO_RETRY},
    {AP_TP_NOT_AVAILABLE_RETRY, CM_TP_NOT_AVAILABLE_RETRY},
};

// Sense 080FFFxx for xx 00 to 0D: the fourteen security failure reasons.
bool is_security_sense(uint32_t secondary) {
  return (secondary & 0x00FFFFFFu) == 0x00FF0F08u && (secondary >> 24) <= 0x0Du;
}

template <std::size_t N>
bool look_up(const CodeRow (&rows)[N], uint32_t appc, CM_RETURN_CODE *cpic) {
  for (const CodeRow &row : rows) {
    if (row.appc == appc) {
      *cpic = row.cpic;
      return true;
    }
  }
  return false;
}

bool map_known(uint16_t primary, uint32_t secondary, CM_RETURN_CODE *cpic) {
  switch (primary) {
    case AP_PARAMETER_CHECK:
      return look_up(kParameterCheck, secondary, cpic);
    case AP_ALLOCATION_ERROR:
      if (is_security_sense(secondary)) {
        *cpic = CM_SECURITY_NOT_VALID;
        return true;
      }
      return look_up(kAllocationError, secondary, cpic);
    default:
      return look_up(kByPrimary, primary, cpic);
  }
}

}  // namespace

void SCC_map_return_codes(CM_RETURN_CODE *return_code, uint16_t primary, uint32_t secondary,
                          uint16_t opcode) {
  if (map_known(primary, secondary, return_code)) return;
  // Anything the table does not know is the product's problem, not the
  // application's: report it and give the catch-all code.
  *return_code = CM_PRODUCT_SPECIFIC_ERROR;
  nba_pd_print_problem(kProblemUnmappedResult, 1, "x x lx", uint32_t{opcode}, uint32_t{primary},
                       secondary);
}

bool SCC_is_ending_primary(uint16_t primary) {
  switch (primary) {
    case AP_ALLOCATION_ERROR:
    case AP_DEALLOC_ABEND:
    case AP_DEALLOC_ABEND_PROG:
    case AP_DEALLOC_ABEND_SVC:
    case AP_DEALLOC_ABEND_TIMER:
    case AP_DEALLOC_NORMAL:
    case AP_CONV_FAILURE_RETRY:
    case AP_CONV_FAILURE_NO_RETRY:
    case AP_CANCELLED:
      return true;
    default:
      return false;
  }
}
