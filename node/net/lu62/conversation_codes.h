// The codes that cross between a TP's return codes and the sense data of an
// LU 6.2 session: allocation errors, program errors, abends, session failures.
#pragma once

#include <cstdint>

#include "net/formats/sense_codes.h"

namespace snanode::net::lu62 {

// The FMH-7 sense for an allocation error the daemon's attach logic gives as
// a secondary return code (0x21600810 TP name not recognised, ...).
uint32_t allocation_sense(uint32_t secondary);
// The secondary return code a local partner gives for the same refusal, for
// an allocation sense received in an FMH-7; 0 when `sense` is not one.
uint32_t allocation_secondary(uint32_t sense);

// The FMH-7 sense a node sends for a TP whose process ended without
// deallocating (its link to the node broke): the node, not the program, ends
// the conversation, and the partner's TP hears a conversation failure as it
// would from a local partner that died.
inline constexpr uint32_t kSenseTpProcessEnded = sense::kDeallocateAbendService;

// What an FMH-7's sense tells the TP that receives it.
enum class ErrorMeaning : uint8_t {
  kProgramError,  // Send_Error: no truncation, or purging when −RSP(X'0846') came first
  kProgramErrorTruncation,
  kAbend,                // Deallocate(abend)
  kPartnerProcessEnded,  // kSenseTpProcessEnded: resource failure, no retry
  kAllocationError,
  kOther,
};
ErrorMeaning error_meaning(uint32_t sense);

// The return code of a conversation whose session failed with `sense`: retry
// when a new allocation may find a working session, no retry otherwise.
uint16_t session_failure_code(uint32_t sense);

}  // namespace snanode::net::lu62
