// nof_version: the node operator facility, as far as the library uses it:
// OPEN, QUERY_SIDE_INFO and CLOSE, answered from the node configuration.
//
// The side-information record carries ASCII names padded with blanks.  A
// local LU alias the entry does not name is sent as eight zero bytes, which
// the library reads as "none" (blanks would name an LU called "        ").
// User ID and password are sent only where the security type uses them.
//
// The constant fields of the verb blocks (the format bytes, the number of
// entries, the list option) are not interpreted: the library only ever asks
// for the one entry whose name equals the key, and that is what a query
// answers.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>

#include "config/node_config.h"
#include "config/nof_scripts.h"
#include "snanode/snanode.h"
#include "snanode/verbs.h"

namespace snanode::config {
namespace {

struct OpenHandles {
  std::mutex mutex;
  std::set<uint32_t> open;
  uint32_t next = 1;
};

OpenHandles &handles() {
  static OpenHandles instance;
  return instance;
}

bool is_open(uint32_t handle) {
  OpenHandles &h = handles();
  std::lock_guard<std::mutex> guard(h.mutex);
  return h.open.contains(handle);
}

void put_padded(uint8_t *field, size_t size, const std::string &text) {
  std::memset(field, ' ', size);
  std::memcpy(field, text.data(), std::min(size, text.size()));
}

void fill_record(const SideInfo &entry, NOF_SIDE_INFO_DATA &record) {
  std::memset(&record, 0, sizeof record);
  record.overlay_size = sizeof record;
  put_padded(record.sym_dest_name, sizeof record.sym_dest_name, entry.sym_dest_name);
  put_padded(record.partner_lu_name, sizeof record.partner_lu_name, entry.partner_lu);
  record.tp_name_type = entry.tp_name_type;
  put_padded(record.tp_name, sizeof record.tp_name, entry.tp_name);
  put_padded(record.mode_name, sizeof record.mode_name, entry.mode);
  record.conversation_security_type = entry.security_type;
  const bool with_password = entry.security_type == 2 || entry.security_type == 5;
  if (with_password || entry.security_type == 1) {
    put_padded(record.security_user_id, sizeof record.security_user_id, entry.user_id);
  }
  if (with_password) {
    put_padded(record.security_password, sizeof record.security_password, entry.password);
  }
  if (!entry.local_lu_alias.empty()) {
    put_padded(record.lu_alias, sizeof record.lu_alias, entry.local_lu_alias);
  }
}

// The configured entry whose blank-padded name equals the 8-byte key.
const SideInfo *find_entry(const NodeConfig &config, const uint8_t *key) {
  for (const SideInfo &entry : config.side_info) {
    uint8_t padded[8];
    put_padded(padded, sizeof padded, entry.sym_dest_name);
    if (std::memcmp(padded, key, sizeof padded) == 0) return &entry;
  }
  return nullptr;
}

// The configuration, or null when it cannot be used: such a node serves no
// one, and an exception must not cross the C interface.
const NodeConfig *usable_config() {
  try {
    return &current_config();
  } catch (const ConfigError &) {
    return nullptr;
  }
}

void open_verb(NOF_OPEN &open) {
  if (usable_config() == nullptr) {
    open.primary_rc = AP_COMM_SUBSYSTEM_NOT_LOADED;
    return;
  }
  OpenHandles &h = handles();
  std::lock_guard<std::mutex> guard(h.mutex);
  open.target_handle = h.next++;
  h.open.insert(open.target_handle);
}

void query_verb(uint32_t target, NOF_QUERY_SIDE_INFO &query) {
  if (!is_open(target) || query.buf_ptr == nullptr || query.buf_size < NOF_SIDE_INFO_DATA_SIZE) {
    query.primary_rc = AP_PARAMETER_CHECK;
    query.secondary_rc = AP_BAD_FIELD;
    return;
  }
  const NodeConfig *config = usable_config();
  if (config == nullptr) {
    query.primary_rc = AP_COMM_SUBSYSTEM_NOT_LOADED;
    return;
  }
  const SideInfo *entry = find_entry(*config, query.sym_dest_name);
  if (entry == nullptr) {
    query.primary_rc = AP_STATE_CHECK;
    query.secondary_rc = AP_NO_SIDE_INFO_ENTRY;
    return;
  }
  NOF_SIDE_INFO_DATA record;
  fill_record(*entry, record);
  std::memcpy(query.buf_ptr, &record, sizeof record);
}

void close_verb(uint32_t target, NOF_CLOSE &close) {
  OpenHandles &h = handles();
  std::lock_guard<std::mutex> guard(h.mutex);
  if (h.open.erase(target) == 0) {
    close.primary_rc = AP_PARAMETER_CHECK;
    close.secondary_rc = AP_BAD_FIELD;
  }
}

}  // namespace
}  // namespace snanode::config

extern "C" SNANODE_API void nof_version(uint32_t /*version*/, uint32_t target_handle,
                                        void *verb_block) {
  using namespace snanode::config;
  if (answer_scripted_nof(verb_block)) return;
  uint16_t opcode = 0;
  std::memcpy(&opcode, verb_block, sizeof opcode);
  switch (opcode) {
    case NOF_OPEN_OPCODE:
      open_verb(*static_cast<NOF_OPEN *>(verb_block));
      break;
    case NOF_QUERY_SIDE_INFO_OPCODE:
      query_verb(target_handle, *static_cast<NOF_QUERY_SIDE_INFO *>(verb_block));
      break;
    case NOF_CLOSE_OPCODE:
      close_verb(target_handle, *static_cast<NOF_CLOSE *>(verb_block));
      break;
    default: {
      // Every NOF verb starts with the common header: opcode, primary, secondary.
      auto *header = static_cast<NOF_CLOSE *>(verb_block);
      header->primary_rc = AP_PARAMETER_CHECK;
      header->secondary_rc = AP_BAD_FIELD;
      break;
    }
  }
}
