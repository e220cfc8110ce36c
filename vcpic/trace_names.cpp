// The API trace's name tables.
#include "trace_names.h"

#include <cstdio>

namespace {
constexpr const char *kRcUnknown = kUnknownReturnCode;
constexpr const char *kStateUnknown = "***UNKNOWN CONVERSATION STATE***";
}  // namespace

const char *const cpicvb[kTraceVerbCount] = {
    "CMACCP", "CMALLC", "CMCFM",  "CMCFMD", "CMDEAL", "CMECS",  "CMECT",  "CMEMN",  "CMEPLN",
    "CMESL",  "CMFLUS", "CMINIT", "CMPTR",  "CMRCV",  "CMRTS",  "CMSEND", "CMSERR", "CMSCT",
    "CMSDT",  "CMSED",  "CMSF",   "CMSLD",  "CMSMN",  "CMSPLN", "CMSPTR", "CMSRT",  "CMSRC",
    "CMSST",  "CMSSL",  "CMSTPN", "CMTRTS", "XCMDSI", "XCECST", "XCECSU", "XCMESI", "XCSCSP",
    "XCSCST", "XCSCSU", "XCMSSI", "CMTERM", "CMSPM",  "CMINIC", "CMACCI", "CMWAIT", "CMCANC",
    "CMCHCK", "CMSCST", "CMSCSU", "CMSCSP", "CMESUI", "CMSLTP", "CMRLTP", "CMETPN", "CMCNVI",
    "CMCNVO", "CMEMBS", "CMECTX", "CMSCTX", "CMECSU", "CMECST", "CMELLN", "XCHWND", "CMSLLN",
};

const char *const cpicct[2] = {"BASIC_CONVERSATION", "MAPPED_CONVERSATION"};
const char *const cpicdt[4] = {"DEALLOCATE_SYNC_LEVEL", "DEALLOCATE_FLUSH", "DEALLOCATE_CONFIRM",
                               "DEALLOCATE_ABEND"};
const char *const cpiced[2] = {"RECEIVE_ERROR", "SEND_ERROR"};
const char *const cpicsl[4] = {"NONE", "CONFIRM", "SYNC_POINT", "SYNC_POINT_NO_CONFIRM"};
const char *const cpicft[2] = {"FILL_LL", "FILL_BUFFER"};
const char *const cpicptr[3] = {"PREP_TO_RECEIVE_SYNC_LEVEL", "PREP_TO_RECEIVE_FLUSH",
                                "PREP_TO_RECEIVE_CONFIRM"};
const char *const cpicrt[2] = {"RECEIVE_AND_WAIT", "RECEIVE_IMMEDIATE"};
const char *const cpicst[5] = {"BUFFER_DATA", "SEND_AND_FLUSH", "SEND_AND_CONFIRM",
                               "SEND_AND_PREP_TO_RECEIVE", "SEND_AND_DEALLOCATE"};
const char *const cpicrcon[2] = {"WHEN_SESSION_ALLOCATED", "IMMEDIATE"};
const char *const cpiccst[6] = {"SECURITY_NONE",    "SECURITY_SAME",
                                "SECURITY_PROGRAM", "SECURITY_DISTRIBUTED",
                                "SECURITY_MUTUAL",  "SECURITY_PROGRAM_STRONG"};
const char *const cpictp[2] = {"APPLICATION_TP", "SNA_SERVICE_TP"};
const char *const cpicpm[2] = {"BLOCKING", "NON_BLOCKING"};
const char *const cpicrtsr[2] = {"REQ_TO_SEND_NOT_RECEIVED", "REQ_TO_SEND_RECEIVED"};
const char *const cpicdr[4] = {"NO_DATA_RECEIVED", "DATA_RECEIVED", "COMPLETE_DATA_RECEIVED",
                               "INCOMPLETE_DATA_RECEIVED"};
// The last row is never reached by a lookup (values above 12 are unknown).
const char *const cpicsr[14] = {"NO_STATUS_RECEIVED",
                                "SEND_RECEIVED",
                                "CONFIRM_RECEIVED",
                                "CONFIRM_SEND_RECEIVED",
                                "CONFIRM_DEALLOC_RECEIVED",
                                "TAKE_COMMIT",
                                "TAKE_COMMIT_SEND",
                                "TAKE_COMMIT_DEALLOCATE",
                                "TAKE_COMMIT_DATA_OK",
                                "TAKE_COMMIT_SEND_DATA_OK",
                                "TAKE_COMMIT_DEALLOC_DATA_OK",
                                "PREPARE_OK",
                                "JOINT_TRANSACTION",
                                "***UNKNOWN STATUS_RECEIVED***"};
// States start at 2; rows 0 and 1 are placeholders that still print with
// the prefix.
const char *const cpiccs[19] = {kStateUnknown,
                                kStateUnknown,
                                "INITIALIZE_STATE",
                                "SEND_STATE",
                                "RECEIVE_STATE",
                                "SEND_PENDING_STATE",
                                "CONFIRM_STATE",
                                "CONFIRM_SEND_STATE",
                                "CONFIRM_DEALLOCATE_STATE",
                                "DEFER_RECEIVE_STATE",
                                "DEFER_DEALLOCATE_STATE",
                                "SYNC_POINT_STATE",
                                "SYNC_POINT_SEND_STATE",
                                "SYNC_POINT_DEALLOCATE_STATE",
                                "INITIALIZE_INCOMING_STATE",
                                "SEND_ONLY_STATE",
                                "RECEIVE_ONLY_STATE",
                                "SEND_RECEIVE_STATE",
                                "PREPARED_STATE"};
const char *const cpicet[2] = {"HARD", "SOFT"};

// Return codes without a name of their own keep the unknown text in their
// row, so they print as CM_***UNKNOWN RC***.
const char *const cpicrc[kTraceReturnCodeCount] = {
    "OK",                                                        // 0
    "ALLOCATE_FAILURE_NO_RETRY",                                 // 1
    "ALLOCATE_FAILURE_RETRY",                                    // 2
    "CONVERSATION_TYPE_MISMATCH",                                // 3
    kRcUnknown,                                                  // 4
    "PIP_NOT_SPECIFIED_CORRECTLY",                               // 5
    "SECURITY_NOT_VALID",                                        // 6
    "SYNC_LEVEL_NOT_SUPPORTED_LU",                               // 7
    "SYNC_LEVEL_NOT_SUPPORTED_PGM",                              // 8
    "TPN_NOT_RECOGNISED",                                        // 9
    "TP_NOT_AVAILABLE_NO_RETRY",                                 // 10
    "TP_NOT_AVAILABLE_RETRY",                                    // 11
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,  // 12-16
    "DEALLOCATED_ABEND",                                         // 17
    "DEALLOCATED_NORMAL",                                        // 18
    "PARAMETER_ERROR",                                           // 19
    "PRODUCT_SPECIFIC_ERROR",                                    // 20
    "PROGRAM_ERROR_NO_TRUNC",                                    // 21
    "PROGRAM_ERROR_PURGING",                                     // 22
    "PROGRAM_ERROR_TRUNC",                                       // 23
    "PROGRAM_PARAMETER_CHECK",                                   // 24
    "PROGRAM_STATE_CHECK",                                       // 25
    "RESOURCE_FAILURE_NO_RETRY",                                 // 26
    "RESOURCE_FAILURE_RETRY",                                    // 27
    "UNSUCCESSFUL",                                              // 28
    kRcUnknown,                                                  // 29
    "DEALLOCATED_ABEND_SVC",                                     // 30
    "DEALLOCATED_ABEND_TIMER",                                   // 31
    "SVC_ERROR_NO_TRUNC",                                        // 32
    "SVC_ERROR_PURGING",                                         // 33
    "SVC_ERROR_TRUNC",                                           // 34
    "OPERATION_INCOMPLETE",                                      // 35
    "SYSTEM_EVENT",                                              // 36
    "OPERATION_NOT_ACCEPTED",                                    // 37
    "CONVERSATION_ENDING",                                       // 38
    "SEND_RCV_MODE_NOT_SUPPORTED",                               // 39
    "BUFFER_TOO_SMALL",                                          // 40
    "EXP_DATA_NOT_SUPPORTED",                                    // 41
    "DEALLOC_CONFIRM_REJECT",                                    // 42
    "ALLOCATION_ERROR",                                          // 43
    "RETRY_LIMIT_EXCEEDED",                                      // 44
    "NO_SECONDARY_INFORMATION",                                  // 45
    "SECURITY_NOT_SUPPORTED",                                    // 46
    "SECURITY_MUTUAL_FAILED",                                    // 47
    "CALL_NOT_SUPPORTED",                                        // 48
    "PARM_VALUE_NOT_SUPPORTED",                                  // 49
    // 50-99
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown,
    "TAKE_BACKOUT",  // 100
    // 101-129
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown, kRcUnknown,
    "DEALLOCATED_ABEND_BO",        // 130
    "DEALLOCATED_ABEND_SVC_BO",    // 131
    "DEALLOCATED_ABEND_TIMER_BO",  // 132
    "RESOURCE_FAIL_NO_RETRY_BO",   // 133
    "RESOURCE_FAILURE_RETRY_BO",   // 134
    "DEALLOCATED_NORMAL_BO",       // 135
    "CONV_DEALLOC_AFTER_SYNCPT",   // 136
    "INCLUDE_PARTNER_REJECT_BO",   // 137
};

#define TRACE_TABLE(name, array, used, prefix, unknown) \
  const TraceNameTable name = {array, used, prefix, unknown};
static_assert(sizeof cpicsr / sizeof cpicsr[0] == 14);

TRACE_TABLE(kConversationTypeNames, cpicct, 2, "CM_", "***UNKNOWN CONVERSATION TYPE***")
TRACE_TABLE(kDeallocateTypeNames, cpicdt, 4, "CM_", "***UNKNOWN DEALLOCATE TYPE***")
TRACE_TABLE(kErrorDirectionNames, cpiced, 2, "CM_", "***UNKNOWN ERROR DIRECTION***")
TRACE_TABLE(kSyncLevelNames, cpicsl, 4, "CM_", "***UNKNOWN SYNC_LEVEL***")
TRACE_TABLE(kFillNames, cpicft, 2, "CM_", "***UNKNOWN FILL TYPE***")
TRACE_TABLE(kPrepareToReceiveTypeNames, cpicptr, 3, "CM_", "***UNKNOWN PREP_TO_RECEIVE TYPE***")
TRACE_TABLE(kReceiveTypeNames, cpicrt, 2, "CM_", "***UNKNOWN RECEIVE TYPE***")
TRACE_TABLE(kSendTypeNames, cpicst, 5, "CM_", "***UNKNOWN SEND TYPE***")
TRACE_TABLE(kReturnControlNames, cpicrcon, 2, "CM_", "***UNKNOWN RETURN_CONTROL***")
TRACE_TABLE(kSecurityTypeNames, cpiccst, 6, "XC_", "***UNKNOWN CONVERSATION_SECURITY_TYPE***")
TRACE_TABLE(kTpNameTypeNames, cpictp, 2, "XC_", "***UNKNOWN TP_NAME_TYPE***")
TRACE_TABLE(kProcessingModeNames, cpicpm, 2, "CM_", "***UNKNOWN PROCESSING MODE***")
TRACE_TABLE(kRequestToSendNames, cpicrtsr, 2, "CM_", "***UNKNOWN REQ_TO_SEND TYPE***")
TRACE_TABLE(kDataReceivedNames, cpicdr, 4, "CM_", "***UNKNOWN DATA RECEIVED TYPE***")
TRACE_TABLE(kStatusReceivedNames, cpicsr, 13, "CM_", "***UNKNOWN STATUS_RECEIVED***")
TRACE_TABLE(kConversationStateNames, cpiccs, 19, "CM_", kStateUnknown)
TRACE_TABLE(kEndTypeNames, cpicet, 2, "CM_", "***UNKNOWN END TYPE***")
TRACE_TABLE(kReturnCodeNames, cpicrc, kTraceReturnCodeCount, "CM_", kUnknownReturnCode)
TRACE_TABLE(kAsyncResultNames, cpicrc, 38, "CM_", kUnknownReturnCode)
#undef TRACE_TABLE

const char *trace_value_name(const TraceNameTable &table, uint32_t value, char *out, size_t size) {
  if (value < table.used) {
    std::snprintf(out, size, "%s%s", table.prefix, table.entries[value]);
  } else {
    std::snprintf(out, size, "%s", table.unknown);
  }
  return out;
}

const char *trace_verb_name(uint16_t verb) {
  return verb < kTraceVerbCount ? cpicvb[verb] : kUnknownVerb;
}
