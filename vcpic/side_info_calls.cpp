// XCMSSI, XCMESI and XCMDSI: the application's own side information.
//
// They work on this process's store only; the node's configuration is never
// changed.  The application's 124-byte entry is ASCII; the store holds names
// the way the node's verbs want them (see side_info_store.cpp).
#include <cstring>

#include "call_frame.h"
#include "side_info.h"

namespace {

constexpr CM_INT32 kEntryLength = sizeof(SIDE_INFO);
static_assert(kEntryLength == 124);
constexpr unsigned char kEbcdicBlank = 0x40;

bool valid_security_type(CM_INT32 type) {
  return type == CM_SECURITY_NONE || type == CM_SECURITY_SAME || type == CM_SECURITY_PROGRAM ||
         type == CM_SECURITY_PROGRAM_STRONG;
}

// The application's 8-byte user ID or password into a 10-byte EBCDIC field.
void store_security_field(unsigned char *field, const unsigned char *ascii) {
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE, 8, field, ascii);
  field[8] = kEbcdicBlank;
  field[9] = kEbcdicBlank;
}

void entry_from_application(const SIDE_INFO &in, SCD_ENTRY &out) {
  std::memset(&out, 0, sizeof out);
  std::memcpy(out.sym_dest_name, in.sym_dest_name, sizeof out.sym_dest_name);
  SCD_store_partner_lu_name(in.partner_LU_name, &out);
  out.TP_name_type = static_cast<uint32_t>(in.TP_name_type);
  if (in.TP_name_type == CM_SNA_SERVICE_TP) {
    // A service TP's first byte is a raw code point, not a character.
    out.TP_name[0] = in.TP_name[0];
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640, 63, out.TP_name + 1, in.TP_name + 1);
  } else {
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640, 64, out.TP_name, in.TP_name);
  }
  out.usModeNameLen = SCD_blank_trimmed_length(in.mode_name, sizeof in.mode_name);
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, 8, out.mode_name, in.mode_name);
  out.conversation_security_type = static_cast<uint32_t>(in.conversation_security_type);
  out.usUserIDLen = SCD_blank_trimmed_length(in.security_user_ID, sizeof in.security_user_ID);
  store_security_field(out.security_user_ID, in.security_user_ID);
  store_security_field(out.security_password, in.security_password);
}

// Fills the application's entry; the password is never handed back.
void entry_to_application(const SCD_ENTRY &in, SIDE_INFO &out) {
  std::memcpy(out.sym_dest_name, in.sym_dest_name, sizeof out.sym_dest_name);
  if (in.usPartnerLUQualified) {
    SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE, 17, out.partner_LU_name, in.partner_LU_name);
  } else {
    // An alias goes to the node as 8 characters; longer text is not kept.
    std::memcpy(out.partner_LU_name, in.partner_LU_name, 8);
    std::memset(out.partner_LU_name + 8, ' ', 9);
  }
  out.TP_name_type = static_cast<XC_TP_NAME_TYPE>(in.TP_name_type);
  if (in.TP_name_type == CM_SNA_SERVICE_TP) {
    out.TP_name[0] = in.TP_name[0];
    SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE, 63, out.TP_name + 1, in.TP_name + 1);
  } else {
    SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE640, 64, out.TP_name, in.TP_name);
  }
  SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_A, 8, out.mode_name, in.mode_name);
  out.conversation_security_type =
      static_cast<XC_CONVERSATION_SECURITY_TYPE>(in.conversation_security_type);
  if (in.conversation_security_type == CM_SECURITY_PROGRAM ||
      in.conversation_security_type == CM_SECURITY_PROGRAM_STRONG) {
    SCC_convert_string(SCC_CNV_IN, SCC_CHARSET_AE, 8, out.security_user_ID, in.security_user_ID);
    std::memset(out.security_password, 0, sizeof out.security_password);
  }
}

}  // namespace

void xcmssi(unsigned char * /*key*/, SIDE_INFO *side_info_entry, CM_INT32 *side_info_entry_length,
            CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbXCMSSI, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr, side_info_entry, side_info_entry_length);
  if (*side_info_entry_length != kEntryLength) {
    nba_pd_print_problem(kProblemSideInfoLength, 1, "l",
                         static_cast<uint32_t>(*side_info_entry_length));
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else if (side_info_entry->sym_dest_name[0] == ' ' ||
             (side_info_entry->TP_name_type != CM_APPLICATION_TP &&
              side_info_entry->TP_name_type != CM_SNA_SERVICE_TP) ||
             !valid_security_type(side_info_entry->conversation_security_type)) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else {
    SCD_ENTRY entry;
    entry_from_application(*side_info_entry, entry);
    frame.set(SCD_main(SCD_SET, &entry));
  }
  if (frame.tracing()) frame.response(nullptr);
}

void xcmesi(CM_INT32 * /*entry_number*/, unsigned char *sym_dest_name, SIDE_INFO *side_info_entry,
            CM_INT32 *side_info_entry_length, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbXCMESI, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr, sym_dest_name, side_info_entry_length);
  if (*side_info_entry_length != kEntryLength) {
    nba_pd_print_problem(kProblemSideInfoLength, 0, "l",
                         static_cast<uint32_t>(*side_info_entry_length));
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else {
    SCD_ENTRY entry{};
    std::memcpy(entry.sym_dest_name, sym_dest_name, sizeof entry.sym_dest_name);
    frame.set(SCD_main(SCD_LOOKUP, &entry));
    if (*return_code == CM_OK) entry_to_application(entry, *side_info_entry);
  }
  if (frame.tracing()) frame.response(nullptr, side_info_entry);
}

void xcmdsi(unsigned char * /*key*/, unsigned char *sym_dest_name, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbXCMDSI, return_code);
  if (frame.tracing()) frame.request(nullptr, nullptr, sym_dest_name);
  SCD_ENTRY entry{};
  std::memcpy(entry.sym_dest_name, sym_dest_name, sizeof entry.sym_dest_name);
  frame.set(SCD_main(SCD_DELETE, &entry));
  if (frame.tracing()) frame.response(nullptr);
}
