// Conversation security: the security type, user ID and password that the
// allocation sends to the partner.  Each operation exists under an xc name
// and a cm name that differ only in their trace verb (and, for reading the
// user ID, in how many bytes they hand back), so the work is done once, by
// the gen* routines, inside the frame of the call that names it.
//
// The values can only be set in Initialize state and in order: the type
// first, then a user ID (types same, program and program-strong), then a
// password (types program and program-strong).  A user ID set under one type
// stays when the type is changed later; the allocation decides what to send.
#include <algorithm>

#include "characteristic_call.h"

namespace {

// Probes of problem 0x20030005, one per routine or call.
constexpr uint32_t kProbeSetType = 37;
constexpr uint32_t kProbeSetUserId = 38;
constexpr uint32_t kProbeSetPassword = 36;
constexpr uint32_t kProbeReadUserId = 35;
constexpr uint32_t kProbeXCECST = 34;
constexpr uint32_t kProbeCMECST = 39;

// User IDs and passwords are at least one byte and at most the 10-byte field.
constexpr CM_INT32 kMinSecurityLength = 1;
constexpr CM_INT32 kMaxSecurityLength = sizeof(SCD_ENTRY::security_user_ID);
// The older extract call hands back at most 8 bytes of the user ID.
constexpr CM_INT32 kShortUserIdLength = 8;

bool settable_type(CM_INT32 type) {
  return type == CM_SECURITY_NONE || type == CM_SECURITY_SAME || type == CM_SECURITY_PROGRAM ||
         type == CM_SECURITY_PROGRAM_STRONG;
}

bool type_takes_password(uint32_t type) {
  return type == CM_SECURITY_PROGRAM || type == CM_SECURITY_PROGRAM_STRONG;
}

bool type_takes_user_id(uint32_t type) {
  return type == CM_SECURITY_SAME || type_takes_password(type);
}

// The user ID and the password share their checks and their storing; only
// the field, the probe and the types that accept them differ.
struct SecurityValue {
  uint32_t probe;
  bool (*type_accepts)(uint32_t type);
  unsigned char (SCD_ENTRY::*field)[10];
};

// Finds the conversation, checks state, type and length in that order, and
// stores the value padded with EBCDIC blanks to `maximum`.  Returns the
// conversation when the value was stored, so the caller can record more.
CCCB *store_security_value(const CallFrame &frame, const SecurityValue &what,
                           const unsigned char *conversation_id, const unsigned char *value,
                           const CM_INT32 *length, CM_INT32 minimum, CM_INT32 maximum) {
  CCCB *cccb = frame.find(conversation_id, what.probe);
  if (cccb == nullptr) return nullptr;
  if (!in_initialize_state(*cccb) ||
      !what.type_accepts(cccb->SideInfo.conversation_security_type)) {
    frame.set(CM_PROGRAM_STATE_CHECK);
    return nullptr;
  }
  if (*length < minimum || *length > maximum) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
    return nullptr;
  }
  store_ebcdic_name(cccb->SideInfo.*what.field, static_cast<size_t>(maximum), value,
                    static_cast<size_t>(*length), SCC_CHARSET_AE);
  return cccb;
}

// ---- the shared routines ------------------------------------------------------

void genscst(const CallFrame &frame, const unsigned char *conversation_id, const CM_INT32 *type) {
  CCCB *cccb = frame.find(conversation_id, kProbeSetType);
  if (cccb == nullptr) return;
  if (!in_initialize_state(*cccb)) {
    frame.set(CM_PROGRAM_STATE_CHECK);
  } else if (!settable_type(*type)) {
    // Distributed and mutual security need partner support this node does
    // not offer, so they are refused like any unknown value.
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else {
    cccb->SideInfo.conversation_security_type = static_cast<uint32_t>(*type);
  }
}

void genscsu(const CallFrame &frame, const unsigned char *conversation_id,
             const unsigned char *user_id, const CM_INT32 *length, CM_INT32 minimum,
             CM_INT32 maximum) {
  static constexpr SecurityValue kUserId{kProbeSetUserId, type_takes_user_id,
                                         &SCD_ENTRY::security_user_ID};
  CCCB *cccb =
      store_security_value(frame, kUserId, conversation_id, user_id, length, minimum, maximum);
  if (cccb != nullptr) cccb->SideInfo.usUserIDLen = static_cast<uint16_t>(*length);
}

// The password's length is not kept: the field is blank padded and the
// allocation sends it whole.
void genscsp(const CallFrame &frame, const unsigned char *conversation_id,
             const unsigned char *password, const CM_INT32 *length, CM_INT32 minimum,
             CM_INT32 maximum) {
  static constexpr SecurityValue kPassword{kProbeSetPassword, type_takes_password,
                                           &SCD_ENTRY::security_password};
  store_security_value(frame, kPassword, conversation_id, password, length, minimum, maximum);
}

// Reports the whole stored length even when `maximum` cuts the bytes written,
// so a caller of the 8-byte call can tell that the user ID is longer.  Unlike
// the set routines it takes no minimum: a stored user ID is never shorter
// than one byte, so there is nothing for a minimum to refuse.
void genecsu(const CallFrame &frame, const unsigned char *conversation_id, unsigned char *user_id,
             CM_INT32 *length, CM_INT32 maximum) {
  extract_from(frame, conversation_id, kProbeReadUserId, [&](const CCCB &c) {
    const uint16_t stored = c.SideInfo.usUserIDLen;
    const auto written = std::min<CM_INT32>(maximum, stored);
    SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE, static_cast<int16_t>(written), user_id,
                       c.SideInfo.security_user_ID);
    *length = stored;
    return CM_OK;
  });
}

// The frames of the calls.  Setting the type or the user ID traces the CCCB
// and the value; setting the password traces only the conversation ID, so
// the password never reaches the trace file.
CharacteristicTrace set_trace(const void *in1, const void *in2 = nullptr) {
  return CharacteristicTrace{
      .cccb_on_request = true, .cccb_on_response = true, .in1 = in1, .in2 = in2};
}

void set_type(uint16_t verb, unsigned char *conversation_id, CM_INT32 *type, CM_RETURN_CODE *rc) {
  run_characteristic_call(verb, conversation_id, rc, set_trace(type),
                          [&](const CallFrame &frame) { genscst(frame, conversation_id, type); });
}

void set_user_id(uint16_t verb, unsigned char *conversation_id, unsigned char *user_id,
                 CM_INT32 *length, CM_RETURN_CODE *rc) {
  run_characteristic_call(
      verb, conversation_id, rc, set_trace(user_id, length), [&](const CallFrame &frame) {
        genscsu(frame, conversation_id, user_id, length, kMinSecurityLength, kMaxSecurityLength);
      });
}

void set_password(uint16_t verb, unsigned char *conversation_id, unsigned char *password,
                  CM_INT32 *length, CM_RETURN_CODE *rc) {
  run_characteristic_call(
      verb, conversation_id, rc, set_trace(nullptr), [&](const CallFrame &frame) {
        genscsp(frame, conversation_id, password, length, kMinSecurityLength, kMaxSecurityLength);
      });
}

// No state rule: the type is readable even before an incoming conversation
// is accepted.
void read_type(uint16_t verb, uint32_t probe, unsigned char *conversation_id, CM_INT32 *type,
               CM_RETURN_CODE *rc) {
  run_characteristic_call(
      verb, conversation_id, rc, extract_trace(type), [&](const CallFrame &frame) {
        const CCCB *cccb = frame.find(conversation_id, probe);
        if (cccb != nullptr) {
          *type = static_cast<CM_INT32>(cccb->SideInfo.conversation_security_type);
        }
      });
}

void read_user_id(uint16_t verb, CM_INT32 maximum, unsigned char *conversation_id,
                  unsigned char *user_id, CM_INT32 *length, CM_RETURN_CODE *rc) {
  run_characteristic_call(
      verb, conversation_id, rc, extract_trace(user_id, length),
      [&](const CallFrame &frame) { genecsu(frame, conversation_id, user_id, length, maximum); });
}

}  // namespace

extern "C" {

void xcscst(unsigned char *id, CM_INT32 *type, CM_RETURN_CODE *rc) {
  set_type(kVerbXCSCST, id, type, rc);
}
void cmscst(unsigned char *id, CM_INT32 *type, CM_RETURN_CODE *rc) {
  set_type(kVerbCMSCST, id, type, rc);
}
void xcscsu(unsigned char *id, unsigned char *user_id, CM_INT32 *length, CM_RETURN_CODE *rc) {
  set_user_id(kVerbXCSCSU, id, user_id, length, rc);
}
void cmscsu(unsigned char *id, unsigned char *user_id, CM_INT32 *length, CM_RETURN_CODE *rc) {
  set_user_id(kVerbCMSCSU, id, user_id, length, rc);
}
void xcscsp(unsigned char *id, unsigned char *password, CM_INT32 *length, CM_RETURN_CODE *rc) {
  set_password(kVerbXCSCSP, id, password, length, rc);
}
void cmscsp(unsigned char *id, unsigned char *password, CM_INT32 *length, CM_RETURN_CODE *rc) {
  set_password(kVerbCMSCSP, id, password, length, rc);
}
void xcecst(unsigned char *id, CM_INT32 *type, CM_RETURN_CODE *rc) {
  read_type(kVerbXCECST, kProbeXCECST, id, type, rc);
}
void cmecst(unsigned char *id, CM_INT32 *type, CM_RETURN_CODE *rc) {
  read_type(kVerbCMECST, kProbeCMECST, id, type, rc);
}
void xcecsu(unsigned char *id, unsigned char *user_id, CM_INT32 *length, CM_RETURN_CODE *rc) {
  read_user_id(kVerbXCECSU, kShortUserIdLength, id, user_id, length, rc);
}
void cmecsu(unsigned char *id, unsigned char *user_id, CM_INT32 *length, CM_RETURN_CODE *rc) {
  read_user_id(kVerbCMECSU, kShortUserIdLength, id, user_id, length, rc);
}
void cmesui(unsigned char *id, unsigned char *user_id, CM_INT32 *length, CM_RETURN_CODE *rc) {
  read_user_id(kVerbCMESUI, kMaxSecurityLength, id, user_id, length, rc);
}

}  // extern "C"
