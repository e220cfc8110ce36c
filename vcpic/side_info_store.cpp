// The side-information store and its node query.
//
// The store is a cache with local overrides: a name is looked up in the store
// first, and only a name the store does not hold at all is asked of the node,
// whose answer is then kept for the rest of the path's life.  A delete never
// reaches the node's configuration; it leaves a "deleted" marker so the name
// stays unknown to this process until it is set again.
#include <cstdlib>
#include <cstring>

#include "side_info.h"

namespace {

constexpr unsigned char kEbcdicBlank = 0x40;
constexpr unsigned char kEbcdicPeriod = 0x4B;
constexpr uint32_t kNofVersion = 2;

SCD_SLOT *allocate_slot() {
  return static_cast<SCD_SLOT *>(nba_mm_alloc(sizeof(SCD_SLOT), kMemKept, nba_blank_name, 0, 0));
}

// Registers a slot in the store; frees it and writes the problem record with
// `probe` when the table takes no more.
bool register_slot(SCD_SLOT *slot, uint32_t probe) {
  if (vtm_get_free_entry(pGCB->SideInfoTable, slot) != 0) return true;
  nba_pd_print_problem(kProblemNoResource, probe, "");
  nba_mm_free(slot, 0);
  return false;
}

// The outcome of asking the node for one name.
struct NodeAnswer {
  bool opened = false;
  uint16_t primary = 0;
  uint32_t secondary = 0;
};

// OPEN, QUERY_SIDE_INFO for `name` into `record`, and CLOSE whenever the open
// succeeded.  A failed open writes problem 0x2003000D with `open_probe`.
NodeAnswer ask_node(const unsigned char *name, NOF_SIDE_INFO_DATA *record, uint32_t open_probe) {
  NodeAnswer answer;
  NOF_OPEN open{};
  open.opcode = NOF_OPEN_OPCODE;
  open.format = 2;
  nof_version(kNofVersion, 0, &open);
  if (open.primary_rc != 0) {
    nba_pd_print_problem(kProblemNofOpen, open_probe, "");
    return answer;
  }
  answer.opened = true;

  NOF_QUERY_SIDE_INFO query{};
  query.opcode = NOF_QUERY_SIDE_INFO_OPCODE;
  query.format = 1;
  query.buf_ptr = reinterpret_cast<uint8_t *>(record);
  query.buf_size = NOF_SIDE_INFO_DATA_SIZE;
  query.num_entries = 1;
  query.list_options = 4;
  std::memcpy(query.sym_dest_name, name, sizeof query.sym_dest_name);
  nof_version(kNofVersion, open.target_handle, &query);
  answer.primary = query.primary_rc;
  answer.secondary = query.secondary_rc;

  NOF_CLOSE close{};
  close.opcode = NOF_CLOSE_OPCODE;
  nof_version(kNofVersion, open.target_handle, &close);
  return answer;
}

// The node's answer to a query for a name its configuration does not hold.
bool node_holds_no_such_name(const NodeAnswer &answer) {
  return answer.primary == AP_STATE_CHECK && answer.secondary == AP_NO_SIDE_INFO_ENTRY;
}

// Reads a two-character hexadecimal pair the way strtol does.
unsigned char hex_pair(const uint8_t *pair) {
  const char text[3] = {static_cast<char>(pair[0]), static_cast<char>(pair[1]), '\0'};
  return static_cast<unsigned char>(std::strtol(text, nullptr, 16));
}

}  // namespace

uint16_t SCD_blank_trimmed_length(const unsigned char *name, uint16_t size) {
  uint16_t length = 0;
  while (length < size && name[length] != ' ') ++length;
  return length;
}

void SCD_store_partner_lu_name(const unsigned char *ascii_name, SCD_ENTRY *entry) {
  constexpr uint16_t kSize = sizeof entry->partner_LU_name;
  entry->usPartnerLULen = SCD_blank_trimmed_length(ascii_name, kSize);
  entry->usPartnerLUQualified = 0;
  entry->usPartnerLUPeriodPos = 0;
  for (uint16_t i = 0; i < entry->usPartnerLULen; ++i) {
    if (ascii_name[i] == '.') {
      entry->usPartnerLUQualified = 1;
      entry->usPartnerLUPeriodPos = i;
    }
  }
  if (!entry->usPartnerLUQualified) {
    std::memcpy(entry->partner_LU_name, ascii_name, kSize);
    return;
  }
  const uint16_t period = entry->usPartnerLUPeriodPos;
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, static_cast<int16_t>(period),
                     entry->partner_LU_name, ascii_name);
  entry->partner_LU_name[period] = kEbcdicPeriod;
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, static_cast<int16_t>(kSize - 1 - period),
                     entry->partner_LU_name + period + 1, ascii_name + period + 1);
}

int SCD_match_sym_dest_name(const unsigned char *name, SCD_SLOT **slot) {
  void *object = nullptr;
  for (uint32_t handle = vtm_get_next_used(pGCB->SideInfoTable, 0, &object); handle != 0;
       handle = vtm_get_next_used(pGCB->SideInfoTable, handle, &object)) {
    auto *candidate = static_cast<SCD_SLOT *>(object);
    if (std::memcmp(candidate->Entry.sym_dest_name, name, 8) == 0) {
      *slot = candidate;
      return 1;
    }
  }
  return 0;
}

void SCD_read_nof_response(const NOF_SIDE_INFO_DATA *record, SCD_ENTRY *entry) {
  std::memset(entry, 0, sizeof *entry);
  std::memcpy(entry->sym_dest_name, record->sym_dest_name, sizeof entry->sym_dest_name);
  SCD_store_partner_lu_name(record->partner_lu_name, entry);

  entry->TP_name_type = record->tp_name_type;
  if (record->tp_name_type == CM_SNA_SERVICE_TP) {
    // Service TP names are configured as 8 hex digits: four raw bytes.
    std::memset(entry->TP_name, kEbcdicBlank, sizeof entry->TP_name);
    for (int i = 0; i < 4; ++i) entry->TP_name[i] = hex_pair(record->tp_name + 2 * i);
  } else {
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640, sizeof entry->TP_name, entry->TP_name,
                       record->tp_name);
  }

  std::memcpy(entry->local_LU_alias, record->lu_alias, sizeof entry->local_LU_alias);
  entry->usModeNameLen = SCD_blank_trimmed_length(record->mode_name, sizeof record->mode_name);
  SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_A, sizeof entry->mode_name, entry->mode_name,
                     record->mode_name);

  // The node's user ID and password reach the conversation only where the
  // security type uses them.
  const uint32_t security = record->conversation_security_type;
  entry->conversation_security_type = security;
  const bool has_password = security == CM_SECURITY_PROGRAM || security == 5;
  if (has_password || security == CM_SECURITY_SAME) {
    entry->usUserIDLen = SCD_blank_trimmed_length(record->security_user_id, 10);
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE, 10, entry->security_user_ID,
                       record->security_user_id);
  }
  if (has_password) {
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE, 10, entry->security_password,
                       record->security_password);
  }

  // Keeping a copy is an optimisation: when it fails, the caller still has
  // the entry and the next lookup simply asks the node again.
  SCD_SLOT *slot = allocate_slot();
  if (slot == nullptr || !register_slot(slot, 87)) return;
  slot->usInUse = 1;
  std::memcpy(&slot->Entry, entry, sizeof slot->Entry);
}

CM_RETURN_CODE SCD_lookup(SCD_ENTRY *entry) {
  SCD_SLOT *slot = nullptr;
  if (SCD_match_sym_dest_name(entry->sym_dest_name, &slot)) {
    if (!slot->usInUse) return CM_PROGRAM_PARAMETER_CHECK;
    std::memcpy(entry, &slot->Entry, sizeof *entry);
    return CM_OK;
  }
  NOF_SIDE_INFO_DATA record{};
  const NodeAnswer answer = ask_node(entry->sym_dest_name, &record, 0);
  if (!answer.opened) return CM_PRODUCT_SPECIFIC_ERROR;
  if (answer.primary == AP_OK) {
    SCD_read_nof_response(&record, entry);
    return CM_OK;
  }
  return node_holds_no_such_name(answer) ? CM_PROGRAM_PARAMETER_CHECK : CM_PRODUCT_SPECIFIC_ERROR;
}

CM_RETURN_CODE SCD_set(const SCD_ENTRY *entry) {
  SCD_SLOT *slot = nullptr;
  if (!SCD_match_sym_dest_name(entry->sym_dest_name, &slot)) {
    slot = allocate_slot();
    if (slot == nullptr) {
      nba_pd_print_problem(kProblemNoResource, 5, "");
      return CM_PRODUCT_SPECIFIC_ERROR;
    }
    if (!register_slot(slot, 6)) return CM_PRODUCT_SPECIFIC_ERROR;
  }
  slot->usInUse = 1;
  std::memcpy(&slot->Entry, entry, sizeof slot->Entry);
  return CM_OK;
}

CM_RETURN_CODE SCD_delete(const SCD_ENTRY *entry) {
  SCD_SLOT *slot = nullptr;
  if (SCD_match_sym_dest_name(entry->sym_dest_name, &slot)) {
    if (!slot->usInUse) return CM_PROGRAM_PARAMETER_CHECK;
    slot->usInUse = 0;
    return CM_OK;
  }
  NOF_SIDE_INFO_DATA record{};
  const NodeAnswer answer = ask_node(entry->sym_dest_name, &record, 1);
  if (!answer.opened) return CM_PRODUCT_SPECIFIC_ERROR;
  if (node_holds_no_such_name(answer)) return CM_PROGRAM_PARAMETER_CHECK;
  if (answer.primary != AP_OK) {
    nba_pd_print_problem(kProblemNofQuery, 1, "x lx", static_cast<uint32_t>(answer.primary),
                         answer.secondary);
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  // The node holds the name: remember that this process deleted it.
  slot = allocate_slot();
  if (slot == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 3, "");
    return CM_PRODUCT_SPECIFIC_ERROR;
  }
  std::memset(slot, 0, sizeof *slot);
  if (!register_slot(slot, 4)) return CM_PRODUCT_SPECIFIC_ERROR;
  std::memcpy(slot->Entry.sym_dest_name, entry->sym_dest_name, sizeof slot->Entry.sym_dest_name);
  return CM_OK;
}

CM_RETURN_CODE SCD_main(uint16_t function, SCD_ENTRY *entry) {
  if (!fInitCPIC) SCC_init();
  if (!fInitCPIC) return CM_PRODUCT_SPECIFIC_ERROR;
  switch (function) {
    case SCD_LOOKUP:
      return SCD_lookup(entry);
    case SCD_DELETE:
      return SCD_delete(entry);
    case SCD_SET:
      return SCD_set(entry);
    default:
      return CM_OK;
  }
}
