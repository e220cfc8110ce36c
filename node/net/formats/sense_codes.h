// Sense codes LU 6.2 sends in negative responses, UNBINDs and FMH-7s.
//
// The high two bytes name the condition, the low two qualify it (for the BIND
// errors X'0835' and X'0821', the offset of the field in question).  Codes
// chosen for conditions the public tables do not spell out are in
// wire_decisions.h with the other choices of that kind.
#pragma once

#include <cstddef>
#include <cstdint>

namespace snanode::net::sense {

// Allocation errors, carried in an FMH-7 after an Attach.
inline constexpr uint32_t kTpNotAvailableRetry = 0x084B6031;
inline constexpr uint32_t kTpNotAvailableNoRetry = 0x084C0000;
inline constexpr uint32_t kTpNameNotRecognized = 0x10086021;
inline constexpr uint32_t kSecurityNotValid = 0x080F6051;
inline constexpr uint32_t kConversationTypeMismatch = 0x10086034;
inline constexpr uint32_t kSyncLevelNotSupported = 0x10086041;
inline constexpr uint32_t kPipNotAllowed = 0x10086031;
inline constexpr uint32_t kPipNotSpecifiedCorrectly = 0x10086032;
inline constexpr uint32_t kInvalidAttachParameter = 0x10086040;
inline constexpr uint32_t kReconnectionNotSupported = 0x10086042;

// Conversation ends and program errors (FMH-7).
inline constexpr uint32_t kDeallocateAbendProgram = 0x08640000;
inline constexpr uint32_t kDeallocateAbendService = 0x08640001;
inline constexpr uint32_t kDeallocateAbendTimer = 0x08640002;
inline constexpr uint32_t kProgramErrorNoTruncation = 0x08890000;  // also "purging"
inline constexpr uint32_t kProgramErrorTruncation = 0x08890001;
inline constexpr uint32_t kServiceErrorNoTruncation = 0x08890100;
inline constexpr uint32_t kServiceErrorTruncation = 0x08890101;
inline constexpr uint32_t kBackout = 0x08240000;

// −RSP to an FMD chain: an FMH-7 follows.
inline constexpr uint32_t kErpMessageForthcoming = 0x08460000;

// Malformed FM headers.
inline constexpr uint32_t kFmhLengthWrong = 0x10086000;
inline constexpr uint32_t kAccessSecurityLengthWrong = 0x10086005;
inline constexpr uint32_t kFixedParameterLengthInvalid = 0x10086009;
inline constexpr uint32_t kInvalidLuwIdentifier = 0x10086011;
inline constexpr uint32_t kFmhCommandNotRecognized = 0x1008600B;
inline constexpr uint32_t kFmhConcatenationNotAllowed = 0x1008200E;
inline constexpr uint32_t kFmhDataMismatch = 0x1008201D;
inline constexpr uint32_t kFmhTypeNotSupported = 0x10084001;

// Brackets and bids (−RSP).
inline constexpr uint32_t kBracketBidRejectNoRtr = 0x08130000;
inline constexpr uint32_t kBracketBidRejectRtr = 0x08140000;
inline constexpr uint32_t kRtrNotRequired = 0x08190000;
inline constexpr uint32_t kBeginBracketNotAccepted = 0x088B0000;

// BIND negotiation (−RSP(BIND)).  The low half carries the field's offset.
inline constexpr uint32_t kBindInvalidParameter = 0x08350000;
inline constexpr uint32_t kBindInvalidSessionParameters = 0x08210000;
inline constexpr uint32_t kBindModeNameUnknown = 0x08210002;
inline constexpr uint32_t kSessionLimitExceeded = 0x08050000;
constexpr uint32_t bind_parameter_at(size_t offset) {
  return kBindInvalidParameter | static_cast<uint32_t>(offset & 0xFFFF);
}

// State errors (−RSP or UNBIND).
inline constexpr uint32_t kSequenceNumberError = 0x20010000;
inline constexpr uint32_t kChainingError = 0x20020000;
inline constexpr uint32_t kBracketError = 0x20030000;
inline constexpr uint32_t kDirectionError = 0x20040000;
inline constexpr uint32_t kNoBeginBracket = 0x20080000;

// Request header usage errors (−RSP).
inline constexpr uint32_t kBeginBracketNotAllowed = 0x40030000;
inline constexpr uint32_t kAlternateCodeNotSupported = 0x40100000;
inline constexpr uint32_t kResponseRequestIndicatorsInvalid = 0x40140000;  // DR1, DR2, ERI
inline constexpr uint32_t kEncipheredDataIndicatorInvalid = 0x40160000;
inline constexpr uint32_t kPaddedDataIndicatorInvalid = 0x40170000;
inline constexpr uint32_t kLastInChainIndicatorsInvalid = 0x40190000;

// Request errors (−RSP).
inline constexpr uint32_t kFunctionNotSupported = 0x10030000;
inline constexpr uint32_t kParameterError = 0x10050000;

// Session ends.
inline constexpr uint32_t kSessionResetSscpGone = 0x08A00001;
inline constexpr uint32_t kSessionResetCleanup = 0x08A00002;
inline constexpr uint32_t kLinkFailure = 0x80020000;

}  // namespace snanode::net::sense
