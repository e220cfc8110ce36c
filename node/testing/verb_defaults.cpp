#include "testing/verb_defaults.h"

#include <cstring>

#include "core/verb_result.h"
#include "snanode/verbs.h"

namespace snanode::testing {
namespace {

constexpr uint8_t kLocalLuAlias[8] = {'L', 'O', 'C', 'A', 'L', ' ', ' ', ' '};
// "#INTER" and "APPN.LOCAL" in EBCDIC, padded with EBCDIC blanks.
constexpr uint8_t kModeInter[8] = {0x7B, 0xC9, 0xD5, 0xE3, 0xC5, 0xD9, 0x40, 0x40};
constexpr uint8_t kPartnerLu[17] = {0xC1, 0xD7, 0xD7, 0xD5, 0x4B, 0xD3, 0xD6, 0xC3, 0xC1,
                                    0xD3, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40, 0x40};
constexpr uint8_t kMappedConversation = 1;

bool all_zero(const uint8_t *bytes, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

}  // namespace

// TP identifiers carry a marker byte so that none is ever all zero (the
// library's "no context").
void VerbDefaults::fresh_tp_id(uint8_t *tp_id) {
  const uint64_t value = (uint64_t{0x54} << 56) | next_tp_serial_++;
  std::memcpy(tp_id, &value, sizeof value);
}

void VerbDefaults::apply(void *vcb) {
  switch (verb_opcode(vcb)) {
    case NAP_START_TP: {
      auto *start = static_cast<NAP_START_TP_VCB *>(vcb);
      fresh_tp_id(start->tp_id);
      if (all_zero(start->local_lu_name, sizeof start->local_lu_name)) {
        std::memcpy(start->local_lu_name, kLocalLuAlias, sizeof kLocalLuAlias);
      }
      break;
    }
    case NAP_B_ALLOCATE:
      static_cast<NAP_ALLOCATE *>(vcb)->hdr.conv_id = fresh_conv_id();
      break;
    case NAP_RECEIVE_ALLOCATE_CPIC: {
      auto *accept = static_cast<NAP_RECEIVE_ALLOCATE *>(vcb);
      fresh_tp_id(accept->tp_id);
      accept->conv_id = fresh_conv_id();
      if (accept->tp_name_count != 0 && accept->tp_name_list != nullptr) {
        std::memcpy(accept->rcv_tp_name, accept->tp_name_list, sizeof accept->rcv_tp_name);
      }
      accept->rcv_sync_level = 0;
      accept->rcv_conv_type = kMappedConversation;
      std::memset(accept->rcv_user_id, 0x40, sizeof accept->rcv_user_id);
      std::memcpy(accept->rcv_lu_alias, kLocalLuAlias, sizeof kLocalLuAlias);
      std::memcpy(accept->rcv_mode_name, kModeInter, sizeof kModeInter);
      std::memcpy(accept->rcv_partner_lu_name, kPartnerLu, sizeof kPartnerLu);
      break;
    }
    case NAP_GET_STATE:
      static_cast<NAP_GET_STATE_VCB *>(vcb)->conv_state = AP_STATE_SEND;
      break;
    default:
      break;
  }
}

}  // namespace snanode::testing
