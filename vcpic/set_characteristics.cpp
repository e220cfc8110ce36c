// The fifteen calls that change one characteristic of a conversation.  They
// differ only in their checks and in the field they store, so each is one row
// of a table that a single frame runs: take the lock, trace the request,
// find the conversation, apply the Initialize-state rule and the row's check
// (the first failure wins and nothing changes), store, trace the response.
// Nothing reaches the node; the verbs read the stored values later.
#include <cstring>

#include "characteristic_call.h"
#include "log_data.h"

namespace {

// What the application passed between the conversation ID and the return
// code: a value, or a name (log data included) and the address of its length.
struct SetArgs {
  const CM_INT32 *value = nullptr;
  const unsigned char *name = nullptr;
  const CM_INT32 *length = nullptr;
};

using Check = CM_RETURN_CODE (*)(const CCCB &, const SetArgs &);
using Effect = CM_RETURN_CODE (*)(CCCB &, const SetArgs &);

struct SetCall {
  TraceVerb verb;
  uint32_t probe;  // of problem 0x20030005 when the conversation is unknown
  bool needs_initialize_state;
  Check check;
  Effect effect;
};

constexpr CM_RETURN_CODE ok_if(bool accepted) {
  return accepted ? CM_OK : CM_PROGRAM_PARAMETER_CHECK;
}

constexpr bool in_range(CM_INT32 value, CM_INT32 low, CM_INT32 high) {
  return value >= low && value <= high;
}

// Send, prepare-to-receive and deallocate types all use 2 for "and confirm",
// which needs a sync level that can confirm.
constexpr CM_INT32 kConfirmValue = 2;

CM_RETURN_CODE confirmable(const CCCB &cccb, CM_INT32 value, CM_INT32 highest) {
  return ok_if(in_range(value, 0, highest) &&
               (value != kConfirmValue || cccb.ulSyncLevel != CM_NONE));
}

// Name lengths the application passes are 32-bit; the bounds are checked
// unsigned, so a negative length is simply too long.
bool length_within(const SetArgs &args, uint32_t low, uint32_t high) {
  const auto length = static_cast<uint32_t>(*args.length);
  return length >= low && length <= high;
}

template <uint32_t CCCB::*Field>
CM_RETURN_CODE store_value(CCCB &cccb, const SetArgs &args) {
  cccb.*Field = static_cast<uint32_t>(*args.value);
  return CM_OK;
}

// ---- checks ------------------------------------------------------------------

CM_RETURN_CODE check_conversation_type(const CCCB &cccb, const SetArgs &args) {
  // Fill and log data exist only on basic conversations, so a conversation
  // that uses either cannot become mapped.
  if (*args.value == CM_BASIC_CONVERSATION) return CM_OK;
  return ok_if(*args.value == CM_MAPPED_CONVERSATION && cccb.ulFill != CM_FILL_BUFFER &&
               cccb.usLogDataLength == 0);
}

CM_RETURN_CODE check_deallocate_type(const CCCB &cccb, const SetArgs &args) {
  return confirmable(cccb, *args.value, CM_DEALLOCATE_ABEND);
}

CM_RETURN_CODE check_prepare_to_receive_type(const CCCB &cccb, const SetArgs &args) {
  return confirmable(cccb, *args.value, CM_PREP_TO_RECEIVE_CONFIRM);
}

CM_RETURN_CODE check_send_type(const CCCB &cccb, const SetArgs &args) {
  return confirmable(cccb, *args.value, CM_SEND_AND_DEALLOCATE);
}

CM_RETURN_CODE check_binary(const CCCB &, const SetArgs &args) {
  return ok_if(in_range(*args.value, 0, 1));
}

CM_RETURN_CODE check_fill(const CCCB &cccb, const SetArgs &args) {
  if (cccb.ulConversationType != CM_BASIC_CONVERSATION) return CM_PROGRAM_PARAMETER_CHECK;
  return check_binary(cccb, args);
}

CM_RETURN_CODE check_log_data(const CCCB &cccb, const SetArgs &args) {
  if (cccb.ulConversationType != CM_BASIC_CONVERSATION) return CM_PROGRAM_PARAMETER_CHECK;
  return ok_if(in_range(*args.length, 0, kMaxLogDataLength));
}

CM_RETURN_CODE check_sync_level(const CCCB &cccb, const SetArgs &args) {
  // Lowering to none would strand a confirm type that is already set.
  if (*args.value == CM_CONFIRM) return CM_OK;
  return ok_if(*args.value == CM_NONE && cccb.ulSendType != kConfirmValue &&
               cccb.ulPrepareToReceiveType != kConfirmValue &&
               cccb.ulDeallocateType != kConfirmValue);
}

CM_RETURN_CODE check_processing_mode(const CCCB &cccb, const SetArgs &args) {
  // The mode decides how the outstanding verb completes; it cannot change
  // under it.
  if (cccb.usVerbsOutstanding != 0) return CM_OPERATION_NOT_ACCEPTED;
  return check_binary(cccb, args);
}

CM_RETURN_CODE check_eight_byte_name(const CCCB &, const SetArgs &args) {
  return ok_if(length_within(args, 0, 8));
}

CM_RETURN_CODE check_partner_lu_name(const CCCB &, const SetArgs &args) {
  const auto length = static_cast<uint16_t>(*args.length);
  return ok_if(length >= 1 && length <= sizeof(SCD_ENTRY::partner_LU_name));
}

CM_RETURN_CODE check_tp_name(const CCCB &, const SetArgs &args) {
  return ok_if(length_within(args, 1, sizeof(SCD_ENTRY::TP_name)));
}

// ---- effects -----------------------------------------------------------------

CM_RETURN_CODE store_processing_mode(CCCB &cccb, const SetArgs &args) {
  cccb.usProcessingMode = static_cast<uint16_t>(*args.value);
  return CM_OK;
}

CM_RETURN_CODE store_log_data(CCCB &cccb, const SetArgs &args) {
  if (*args.length == 0) {
    SCC_clear_log_data(&cccb);
    return CM_OK;
  }
  return SCC_store_log_data(&cccb, args.name, static_cast<uint16_t>(*args.length));
}

CM_RETURN_CODE store_mode_name(CCCB &cccb, const SetArgs &args) {
  const auto length = static_cast<uint16_t>(*args.length);
  store_ebcdic_name(cccb.SideInfo.mode_name, sizeof(cccb.SideInfo.mode_name), args.name, length,
                    SCC_CHARSET_A);
  cccb.SideInfo.usModeNameLen = length;
  return CM_OK;
}

// A name with a period is a network-qualified LU name and travels in EBCDIC,
// each part converted on its own around the EBCDIC period; a name without one
// is an LU alias, which the node resolves in ASCII.  The first period splits,
// so any later one falls outside table A and becomes X'00'.
CM_RETURN_CODE store_partner_lu_name(CCCB &cccb, const SetArgs &args) {
  SCD_ENTRY &side = cccb.SideInfo;
  const auto length = static_cast<uint16_t>(*args.length);
  const void *period = std::memchr(args.name, '.', length);
  if (period != nullptr) {
    const auto at = static_cast<uint16_t>(static_cast<const unsigned char *>(period) - args.name);
    side.usPartnerLUQualified = 1;
    std::memset(side.partner_LU_name, kEbcdicBlank, sizeof(side.partner_LU_name));
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, static_cast<int16_t>(at), side.partner_LU_name,
                       args.name);
    side.partner_LU_name[at] = 0x4B;
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, static_cast<int16_t>(length - at - 1),
                       side.partner_LU_name + at + 1, args.name + at + 1);
    side.usPartnerLUPeriodPos = at;
  } else {
    std::memset(side.partner_LU_name, kAsciiBlank, 8);
    side.usPartnerLUQualified = 0;
    std::memcpy(side.partner_LU_name, args.name, length);
  }
  side.usPartnerLULen = length;
  return CM_OK;
}

CM_RETURN_CODE store_tp_name(CCCB &cccb, const SetArgs &args) {
  cccb.SideInfo.TP_name_type = CM_APPLICATION_TP;
  store_ebcdic_name(cccb.SideInfo.TP_name, sizeof(cccb.SideInfo.TP_name), args.name,
                    static_cast<uint32_t>(*args.length), SCC_CHARSET_AE640);
  return CM_OK;
}

// The local LU name stays ASCII: it names an LU of this node, not a network
// name.  All zero bytes mean "none", which is what a length of 0 sets.
CM_RETURN_CODE store_local_lu_name(CCCB &cccb, const SetArgs &args) {
  const auto length = static_cast<uint32_t>(*args.length);
  std::memset(cccb.LocalLUName, length == 0 ? 0 : kAsciiBlank, sizeof(cccb.LocalLUName));
  std::memcpy(cccb.LocalLUName, args.name, length);
  return CM_OK;
}

// ---- the table ---------------------------------------------------------------

constexpr SetCall kSetCalls[] = {
    // verb       probe  Initialize state  check                          effect
    {kVerbCMSCT, 18, true, check_conversation_type, store_value<&CCCB::ulConversationType>},
    {kVerbCMSDT, 19, false, check_deallocate_type, store_value<&CCCB::ulDeallocateType>},
    {kVerbCMSED, 20, false, check_binary, store_value<&CCCB::ulErrorDirection>},
    {kVerbCMSF, 21, false, check_fill, store_value<&CCCB::ulFill>},
    {kVerbCMSLD, 22, false, check_log_data, store_log_data},
    {kVerbCMSMN, 23, true, check_eight_byte_name, store_mode_name},
    {kVerbCMSPLN, 24, true, check_partner_lu_name, store_partner_lu_name},
    {kVerbCMSPTR, 25, false, check_prepare_to_receive_type,
     store_value<&CCCB::ulPrepareToReceiveType>},
    {kVerbCMSRT, 26, false, check_binary, store_value<&CCCB::ulReceiveType>},
    {kVerbCMSRC, 27, true, check_binary, store_value<&CCCB::ulReturnControl>},
    {kVerbCMSST, 28, false, check_send_type, store_value<&CCCB::ulSendType>},
    {kVerbCMSSL, 29, true, check_sync_level, store_value<&CCCB::ulSyncLevel>},
    {kVerbCMSTPN, 30, true, check_tp_name, store_tp_name},
    {kVerbCMSPM, 32, false, check_processing_mode, store_processing_mode},
    {kVerbCMSLLN, 24, true, check_eight_byte_name, store_local_lu_name},
};

// The row of `verb`, found at compile time so that a call without a row does
// not build.
consteval const SetCall &row(TraceVerb verb) {
  for (const SetCall &call : kSetCalls) {
    if (call.verb == verb) return call;
  }
  throw "set call without a row";
}

void run_set_call(const SetCall &call, const unsigned char *conversation_id, const SetArgs &args,
                  CM_RETURN_CODE *return_code) {
  const CharacteristicTrace trace{
      .cccb_on_request = true,
      .cccb_on_response = true,
      .in1 = args.value != nullptr ? static_cast<const void *>(args.value) : args.name,
      .in2 = args.length,
  };
  run_characteristic_call(call.verb, conversation_id, return_code, trace,
                          [&](const CallFrame &frame) {
                            CCCB *cccb = frame.find(conversation_id, call.probe);
                            if (cccb == nullptr) return;
                            CM_RETURN_CODE result = CM_PROGRAM_STATE_CHECK;
                            if (!call.needs_initialize_state || in_initialize_state(*cccb)) {
                              result = call.check(*cccb, args);
                            }
                            if (result == CM_OK) result = call.effect(*cccb, args);
                            frame.set(result);
                          });
}

}  // namespace

#define CPIC_SET_VALUE_CALL(call, verb)                                            \
  void call(unsigned char *conversation_id, CM_INT32 *value, CM_RETURN_CODE *rc) { \
    run_set_call(row(verb), conversation_id, SetArgs{.value = value}, rc);         \
  }
#define CPIC_SET_NAME_CALL(call, verb)                                                     \
  void call(unsigned char *conversation_id, unsigned char *text, CM_INT32 *length,         \
            CM_RETURN_CODE *rc) {                                                          \
    run_set_call(row(verb), conversation_id, SetArgs{.name = text, .length = length}, rc); \
  }

extern "C" {
CPIC_SET_VALUE_CALL(cmsct, kVerbCMSCT)
CPIC_SET_VALUE_CALL(cmsdt, kVerbCMSDT)
CPIC_SET_VALUE_CALL(cmsed, kVerbCMSED)
CPIC_SET_VALUE_CALL(cmsf, kVerbCMSF)
CPIC_SET_NAME_CALL(cmsld, kVerbCMSLD)
CPIC_SET_NAME_CALL(cmsmn, kVerbCMSMN)
CPIC_SET_NAME_CALL(cmspln, kVerbCMSPLN)
CPIC_SET_VALUE_CALL(cmsptr, kVerbCMSPTR)
CPIC_SET_VALUE_CALL(cmsrt, kVerbCMSRT)
CPIC_SET_VALUE_CALL(cmsrc, kVerbCMSRC)
CPIC_SET_VALUE_CALL(cmsst, kVerbCMSST)
CPIC_SET_VALUE_CALL(cmssl, kVerbCMSSL)
CPIC_SET_NAME_CALL(cmstpn, kVerbCMSTPN)
CPIC_SET_VALUE_CALL(cmspm, kVerbCMSPM)
CPIC_SET_NAME_CALL(cmslln, kVerbCMSLLN)
}
