// The calls that read one characteristic of a conversation back, converting
// names from their stored EBCDIC form.  None of them changes the conversation
// or reaches the node.
#include <cstring>

#include "characteristic_call.h"

namespace {

// Probes of problem 0x20030005, one per call.
constexpr uint32_t kProbeCMECT = 8;
constexpr uint32_t kProbeCMEMN = 9;
constexpr uint32_t kProbeCMEPLN = 10;
constexpr uint32_t kProbeCMESL = 11;
constexpr uint32_t kProbeCMETPN = 33;
constexpr uint32_t kProbeCMELLN = 90;

// The length a TP name is extracted with: up to its first EBCDIC blank.  The
// name's length is not kept, so a name with an embedded blank comes back cut.
uint16_t significant_tp_name_length(const SCD_ENTRY &side) {
  uint16_t length = 0;
  while (length < sizeof(side.TP_name) && side.TP_name[length] != kEbcdicBlank) ++length;
  return length;
}

// The partner LU name as the application set it: a qualified name converted
// part by part around an ASCII period, an alias copied as stored.  Exactly
// the stored length is written, with no terminator.
void read_partner_lu_name(const SCD_ENTRY &side, unsigned char *name) {
  const uint16_t length = side.usPartnerLULen;
  if (side.usPartnerLUQualified != 1) {
    std::memcpy(name, side.partner_LU_name, length);
    return;
  }
  const uint16_t at = side.usPartnerLUPeriodPos;
  SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_A, static_cast<int16_t>(at), name,
                     side.partner_LU_name);
  name[at] = '.';
  SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_A, static_cast<int16_t>(length - at - 1),
                     name + at + 1, side.partner_LU_name + at + 1);
}

// The trace shows the local LU name as its full eight bytes.
constexpr CM_INT32 kLocalLUNameTraceLength = sizeof(CCCB::LocalLUName);

}  // namespace

extern "C" {

void cmect(unsigned char *conversation_id, CM_CONVERSATION_TYPE *conversation_type,
           CM_RETURN_CODE *return_code) {
  run_characteristic_call(kVerbCMECT, conversation_id, return_code,
                          extract_trace(conversation_type), [&](const CallFrame &frame) {
                            extract_from(frame, conversation_id, kProbeCMECT, [&](const CCCB &c) {
                              *conversation_type = static_cast<CM_INT32>(c.ulConversationType);
                              return CM_OK;
                            });
                          });
}

void cmesl(unsigned char *conversation_id, CM_SYNC_LEVEL *sync_level, CM_RETURN_CODE *return_code) {
  run_characteristic_call(kVerbCMESL, conversation_id, return_code, extract_trace(sync_level),
                          [&](const CallFrame &frame) {
                            extract_from(frame, conversation_id, kProbeCMESL, [&](const CCCB &c) {
                              *sync_level = static_cast<CM_INT32>(c.ulSyncLevel);
                              return CM_OK;
                            });
                          });
}

void cmemn(unsigned char *conversation_id, unsigned char *mode_name, CM_INT32 *mode_name_length,
           CM_RETURN_CODE *return_code) {
  run_characteristic_call(kVerbCMEMN, conversation_id, return_code,
                          extract_trace(mode_name, mode_name_length), [&](const CallFrame &frame) {
                            extract_from(frame, conversation_id, kProbeCMEMN, [&](const CCCB &c) {
                              const uint16_t length = c.SideInfo.usModeNameLen;
                              SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_A,
                                                 static_cast<int16_t>(length), mode_name,
                                                 c.SideInfo.mode_name);
                              *mode_name_length = length;
                              return CM_OK;
                            });
                          });
}

void cmepln(unsigned char *conversation_id, unsigned char *partner_lu_name,
            CM_INT32 *partner_lu_name_length, CM_RETURN_CODE *return_code) {
  run_characteristic_call(kVerbCMEPLN, conversation_id, return_code,
                          extract_trace(partner_lu_name, partner_lu_name_length),
                          [&](const CallFrame &frame) {
                            extract_from(frame, conversation_id, kProbeCMEPLN, [&](const CCCB &c) {
                              read_partner_lu_name(c.SideInfo, partner_lu_name);
                              *partner_lu_name_length = c.SideInfo.usPartnerLULen;
                              return CM_OK;
                            });
                          });
}

// The one extract call that names the CCCB in its request and that refuses
// while a verb is in progress.
void cmetpn(unsigned char *conversation_id, unsigned char *tp_name, CM_INT32 *tp_name_length,
            CM_RETURN_CODE *return_code) {
  CharacteristicTrace trace = extract_trace(tp_name, tp_name_length);
  trace.cccb_on_request = true;
  run_characteristic_call(
      kVerbCMETPN, conversation_id, return_code, trace, [&](const CallFrame &frame) {
        extract_from(
            frame, conversation_id, kProbeCMETPN,
            [&](const CCCB &c) {
              const uint16_t length = significant_tp_name_length(c.SideInfo);
              SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE640, static_cast<int16_t>(length),
                                 tp_name, c.SideInfo.TP_name);
              *tp_name_length = length;
              return CM_OK;
            },
            /*refuse_while_busy=*/true);
      });
}

// The name is written even when none is set (eight zero bytes), so a caller
// that ignores the return code still sees an empty string.  There is no length
// out-parameter: the name is always its eight bytes and a terminator, and the
// trace shows that fixed length.
void cmelln(unsigned char *conversation_id, unsigned char *local_lu_name,
            CM_RETURN_CODE *return_code) {
  run_characteristic_call(kVerbCMELLN, conversation_id, return_code,
                          extract_trace(local_lu_name, &kLocalLUNameTraceLength),
                          [&](const CallFrame &frame) {
                            extract_from(frame, conversation_id, kProbeCMELLN, [&](const CCCB &c) {
                              std::memcpy(local_lu_name, c.LocalLUName, sizeof(c.LocalLUName));
                              local_lu_name[sizeof(c.LocalLUName)] = 0;
                              return c.LocalLUName[0] == 0 ? CM_PROGRAM_STATE_CHECK : CM_OK;
                            });
                          });
}

// Needs no conversation and no started library: the limit is fixed.
void cmembs(CM_INT32 *maximum_buffer_size, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMEMBS, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr);
  *maximum_buffer_size = CM_MAXIMUM_BUFFER_SIZE;
  if (frame.tracing()) frame.response(nullptr, maximum_buffer_size);
}

}  // extern "C"
