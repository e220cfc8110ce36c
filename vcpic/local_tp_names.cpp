// Specify_Local_TP_Name and Release_Local_TP_Name, and the local TP name
// records they keep so that a name is defined at the node once, a release
// finds what was defined, and the accept path knows whether it must still
// define the process TP name.
#include "local_tp_names.h"

#include <algorithm>
#include <cstring>

#include "call_frame.h"

namespace {

inline constexpr uint32_t kMaxTpNameLength = 64;
inline constexpr unsigned char kEbcdicBlank = 0x40;

// Characters a local TP name may hold: the double quote to Z (digits,
// upper-case letters and the specials between), lower-case letters and the
// underscore.  No blank, no exclamation mark.
bool valid_tp_name_char(unsigned char c) {
  return (c >= 0x22 && c <= 0x5A) || (c >= 0x61 && c <= 0x7A) || c == 0x5F;
}

// A verb block for `name` (ASCII), converted and padded as the node wants it.
NAP_LOCAL_TP_VCB local_tp_verb(uint16_t opcode, const unsigned char *name, uint16_t length) {
  NAP_LOCAL_TP_VCB verb{};
  verb.opcode = opcode;
  std::memset(verb.tp_name, kEbcdicBlank, sizeof verb.tp_name);
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640, static_cast<int16_t>(length), verb.tp_name,
                     name);
  return verb;
}

LOCAL_TP_RECORD *record_of(uint32_t handle) {
  return static_cast<LOCAL_TP_RECORD *>(vtm_get_pointer(pGCB->LocTPNameTable, handle));
}

void drop_record(uint32_t handle) {
  LOCAL_TP_RECORD *record = record_of(handle);
  vtm_release_entry(pGCB->LocTPNameTable, handle);
  nba_mm_free(record, 0);
}

// The withdrawal of the process TP name that the accept path defined by
// itself: once the program names its own TP names, the implicit one would
// only catch allocations meant for nobody.  A name given by APPCTPN was asked
// for and stays.
void withdraw_implicit_process_name() {
  if (pGCB->fTpNameFromEnv != 0 || pGCB->fDefaultTpNameDefined == 0 || pGCB->NumLocTPNames != 2) {
    return;
  }
  const uint32_t handle = SCC_find_local_tp(pGCB->TpName, pGCB->usTpNameLen);
  if (handle == NB_NULL_HANDLE) return;
  if (SCC_delete_local_tp(handle, 1)) pGCB->fDefaultTpNameDefined = 0;
}

// Checks the length argument; false when it is outside 1 to 64.
bool valid_length(const CM_INT32 *length) {
  const auto value = static_cast<uint32_t>(*length);
  return value >= 1 && value <= kMaxTpNameLength;
}

}  // namespace

bool SCC_library_started() {
  if (fInitCPIC == 0) SCC_init();
  return fInitCPIC != 0;
}

uint32_t SCC_find_local_tp(const unsigned char *name, uint16_t length) {
  return SCC_scan_local_tps([&](uint32_t, const LOCAL_TP_RECORD &record) {
    return record.usNameLen == length && std::memcmp(record.TPName, name, length) == 0;
  });
}

CM_RETURN_CODE SCC_define_local_tp(const unsigned char *name, uint16_t length,
                                   const LocalTpProbes &probes) {
  auto *record = static_cast<LOCAL_TP_RECORD *>(
      nba_mm_alloc(sizeof(LOCAL_TP_RECORD), kMemKept, nba_blank_name, 0, 0));
  if (record == nullptr) {
    nba_pd_print_problem(kProblemNoResource, probes.no_memory, "");
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  const uint32_t handle = vtm_get_free_entry(pGCB->LocTPNameTable, record);
  if (handle == NB_NULL_HANDLE) {
    nba_pd_print_problem(kProblemNoResource, probes.table_full, "");
    nba_mm_free(record, 0);
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  record->usNameLen = length;
  std::memcpy(record->TPName, name, sizeof record->TPName);

  NAP_LOCAL_TP_VCB verb{};
  verb.opcode = NAP_DEFINE_LOCAL_TP;
  std::memcpy(verb.tp_name, name, sizeof verb.tp_name);
  appc_c_version(APPC_INTERFACE_VERSION, &verb);
  if (verb.primary_rc != AP_OK) {
    nba_pd_print_problem(kProblemDefineLocalTp, probes.node_refused, "es", 64u, record->TPName);
    drop_record(handle);
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  pGCB->NumLocTPNames++;
  return CM_OK;
}

bool SCC_delete_local_tp(uint32_t handle, uint32_t probe) {
  LOCAL_TP_RECORD *record = record_of(handle);
  NAP_LOCAL_TP_VCB verb{};
  verb.opcode = NAP_DELETE_LOCAL_TP;
  std::memcpy(verb.tp_name, record->TPName, sizeof verb.tp_name);
  appc_c_version(APPC_INTERFACE_VERSION, &verb);
  if (verb.primary_rc != AP_OK) {
    nba_pd_print_problem(kProblemDeleteLocalTp, probe, "es", 64u, record->TPName);
    return false;
  }
  pGCB->NumLocTPNames--;
  drop_record(handle);
  return true;
}

extern "C" {

void cmsltp(unsigned char *tp_name, CM_INT32 *tp_name_length, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMSLTP, return_code);
  if (frame.tracing()) frame.request(nullptr, tp_name, tp_name_length);
  const auto length = static_cast<uint16_t>(*tp_name_length);
  if (!valid_length(tp_name_length) ||
      !std::all_of(tp_name, tp_name + length, valid_tp_name_char)) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else if (!SCC_library_started()) {
    frame.set(CM_PRODUCT_SPECIFIC_ERROR);
  } else {
    const NAP_LOCAL_TP_VCB verb = local_tp_verb(NAP_DEFINE_LOCAL_TP, tp_name, length);
    if (SCC_find_local_tp(verb.tp_name, length) == NB_NULL_HANDLE) {
      frame.set(SCC_define_local_tp(verb.tp_name, length, LocalTpProbes{7, 8, 2}));
      if (*return_code == CM_OK) withdraw_implicit_process_name();
    }
  }
  if (frame.tracing()) frame.response(nullptr);
}

void cmrltp(unsigned char *tp_name, CM_INT32 *tp_name_length, CM_RETURN_CODE *return_code) {
  CallFrame frame(kVerbCMRLTP, return_code);
  if (frame.tracing()) frame.request(nullptr, tp_name, tp_name_length);
  if (!valid_length(tp_name_length)) {
    frame.set(CM_PROGRAM_PARAMETER_CHECK);
  } else {
    const auto length = static_cast<uint16_t>(*tp_name_length);
    const NAP_LOCAL_TP_VCB verb = local_tp_verb(NAP_DELETE_LOCAL_TP, tp_name, length);
    // Before start-up there are no records, so nothing can be released.
    const uint32_t handle =
        fInitCPIC != 0 ? SCC_find_local_tp(verb.tp_name, length) : NB_NULL_HANDLE;
    if (handle == NB_NULL_HANDLE) {
      frame.set(CM_PROGRAM_PARAMETER_CHECK);
    } else if (!SCC_delete_local_tp(handle, 0)) {
      frame.set(CM_PRODUCT_SPECIFIC_ERROR);
    }
  }
  if (frame.tracing()) frame.response(nullptr);
}

}  // extern "C"
