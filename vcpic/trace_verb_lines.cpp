// The lines of every verb's request and response records.
#include "trace_verb_lines.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "trace_names.h"
#include "trace_verbs.h"

namespace {

using S = TraceSource;
using V = TraceValue;
using N = TraceName;
using L = TraceLength;

constexpr TraceItem id(S source) {
  return {TraceOp::kConversationId, 0, source, S::kCccb};
}
constexpr TraceItem kId4 = id(S::kArg4);
constexpr TraceItem kIdA1 = id(S::kA1);
constexpr TraceItem kChars = {TraceOp::kCharacteristics, 0, S::kCccb, S::kCccb};
constexpr TraceItem kLogData = {TraceOp::kLogData, 0, S::kCccb, S::kCccb};
constexpr TraceItem value(V what, S source = S::kCccb) {
  return {TraceOp::kNamedValue, static_cast<uint8_t>(what), source, S::kCccb};
}
// A name of the CCCB, dumped at its fixed size.
constexpr TraceItem cccb_dump(N what) {
  return {TraceOp::kNameDump, static_cast<uint8_t>(what), S::kCccb, S::kCccb};
}
// A name passed by the application, with its length through `length`.
constexpr TraceItem dump(N what, S data, S length) {
  return {TraceOp::kNameDump, static_cast<uint8_t>(what), data, length};
}
constexpr TraceItem length(L what, S source) {
  return {TraceOp::kLength, static_cast<uint8_t>(what), source, S::kCccb};
}
constexpr TraceItem buffer(S data, S length, bool low16 = false) {
  return {TraceOp::kBuffer, 0, data, length, low16};
}
constexpr TraceItem sym_dest(S source) {
  return {TraceOp::kSymDest, 0, source, S::kCccb};
}
constexpr TraceItem side_info(S source) {
  return {TraceOp::kSideInfoEntry, 0, source, S::kCccb};
}

constexpr TraceItem kIdOnly[] = {kId4};

// Set calls: the new value, then the conversation's value.
template <V What>
constexpr TraceItem kSetRequest[] = {kId4, value(What, S::kA1), kChars, value(What)};
template <V What>
constexpr TraceItem kSetResponse[] = {kChars, value(What)};

// Extract calls that hand back one value through a1.
template <V What>
constexpr TraceItem kExtractResponse[] = {value(What, S::kA1)};

// Name extract calls: the name at a1, its length at a2.
template <N What, L Length>
constexpr TraceItem kNameExtractResponse[] = {dump(What, S::kA1, S::kA2), length(Length, S::kA2)};

// Name set calls: the name passed, then the conversation's copy.
template <N What, L Length>
constexpr TraceItem kNameSetRequest[] = {kId4, dump(What, S::kA1, S::kA2), length(Length, S::kA2),
                                         kChars, cccb_dump(What)};
template <N What>
constexpr TraceItem kNameSetResponse[] = {kChars, cccb_dump(What)};

constexpr TraceItem kRequestToSendA1[] = {value(V::kRequestToSend, S::kA1)};

// Joins item lists into one.
template <size_t... Sizes>
constexpr auto join(const TraceItem (&...parts)[Sizes]) {
  std::array<TraceItem, (Sizes + ...)> out{};
  size_t n = 0;
  ((std::copy(std::begin(parts), std::end(parts), out.begin() + n), n += Sizes), ...);
  return out;
}

// Every characteristic of a new conversation, shown by CMACCP and CMINIT.
constexpr TraceItem kAllCharacteristics[] = {
    kChars,
    value(V::kConversationType),
    value(V::kDeallocateType),
    value(V::kErrorDirection),
    value(V::kSyncLevel),
    value(V::kFill),
    value(V::kPrepareToReceiveType),
    value(V::kReceiveType),
    value(V::kSendType),
    value(V::kSecurityType),
    kLogData,
};
constexpr TraceItem kIdA1Only[] = {kIdA1};
constexpr TraceItem kAccpNames[] = {cccb_dump(N::kPartnerLu), cccb_dump(N::kMode)};
constexpr auto kAccpResponse = join(kIdA1Only, kAllCharacteristics, kAccpNames);
constexpr TraceItem kAllcRequest[] = {
    kId4,
    kChars,
    value(V::kConversationType),
    value(V::kReturnControl),
    value(V::kSyncLevel),
    value(V::kSecurityType),
    cccb_dump(N::kPartnerLu),
    cccb_dump(N::kMode),
    cccb_dump(N::kPartnerTp),
};
constexpr TraceItem kCfmRequest[] = {kId4, kChars, value(V::kSyncLevel)};
constexpr TraceItem kDealRequest[] = {kId4, kChars, value(V::kDeallocateType), kLogData};
constexpr TraceItem kInitRequest[] = {sym_dest(S::kArg4)};
constexpr TraceItem kInitNames[] = {sym_dest(S::kCccb), cccb_dump(N::kPartnerLu),
                                    cccb_dump(N::kMode), cccb_dump(N::kPartnerTp)};
constexpr auto kInitResponse = join(kIdA1Only, kAllCharacteristics, kInitNames);
constexpr TraceItem kPtrRequest[] = {kId4, kChars, value(V::kPrepareToReceiveType)};
constexpr TraceItem kRcvRequest[] = {
    kId4,
    length(L::kRequested, S::kA1),
    kChars,
    value(V::kConversationType),
    value(V::kFill),
    value(V::kReceiveType),
};
constexpr TraceItem kRcvResponse[] = {
    buffer(S::kA1, S::kA3),           value(V::kDataReceived, S::kA2),
    length(L::kReceived, S::kA3),     value(V::kStatusReceived, S::kA4),
    value(V::kRequestToSend, S::kA5),
};
constexpr TraceItem kSendRequest[] = {
    kId4,
    buffer(S::kA1, S::kA2),
    length(L::kSend, S::kA2),
    kChars,
    value(V::kSendType),
    value(V::kPrepareToReceiveType),
    value(V::kDeallocateType),
};
constexpr TraceItem kSerrRequest[] = {kId4, kChars, value(V::kErrorDirection), kLogData};
constexpr TraceItem kSldRequest[] = {kId4, buffer(S::kA1, S::kA2, true),
                                     length(L::kLogData, S::kA2), kChars, kLogData};
constexpr TraceItem kSldResponse[] = {kChars, kLogData};
constexpr TraceItem kDsiRequest[] = {sym_dest(S::kA1)};
constexpr TraceItem kEsiRequest[] = {sym_dest(S::kA1), length(L::kEntry, S::kA2)};
constexpr TraceItem kEsiResponse[] = {side_info(S::kA1)};
constexpr TraceItem kSsiRequest[] = {side_info(S::kA1), length(L::kEntry, S::kA2)};
constexpr TraceItem kTermRequest[] = {value(V::kEndType, S::kArg4)};
constexpr TraceItem kSpmRequest[] = {kId4, value(V::kProcessingMode, S::kA1), kChars};
constexpr TraceItem kSpmResponse[] = {kChars, value(V::kProcessingMode)};
constexpr TraceItem kWaitResponse[] = {kIdA1, {TraceOp::kAsyncResult, 0, S::kA2, S::kCccb}};
constexpr TraceItem kLocalTpRequest[] = {dump(N::kLocalTp, S::kArg4, S::kA1),
                                         length(L::kTpName, S::kA1)};
constexpr TraceItem kConvertLines[] = {buffer(S::kA1, S::kA2, true)};
constexpr TraceItem kEmbsResponse[] = {length(L::kMaximumBuffer, S::kA1)};
constexpr TraceItem kSctxRequest[] = {dump(N::kContext, S::kA1, S::kA2),
                                      length(L::kContextId, S::kA2)};
constexpr TraceItem kWindowRequest[] = {{TraceOp::kWindowHandle, 0, S::kArg4, S::kCccb}};
constexpr TraceItem kSllnRequest[] = {kId4, dump(N::kLocalLu, S::kA1, S::kA2),
                                      length(L::kLocalLuName, S::kA2)};

constexpr std::span<const TraceItem> kNone{};

constexpr TraceVerbLines kVerbLines[kTraceVerbCount] = {
    /* 0 CMACCP */ {kNone, kAccpResponse},
    /* 1 CMALLC */ {kAllcRequest, kNone},
    /* 2 CMCFM */ {kCfmRequest, kRequestToSendA1},
    /* 3 CMCFMD */ {kIdOnly, kNone},
    /* 4 CMDEAL */ {kDealRequest, kNone},
    /* 5 CMECS */ {kIdOnly, kExtractResponse<V::kConversationState>},
    /* 6 CMECT */ {kIdOnly, kExtractResponse<V::kConversationType>},
    /* 7 CMEMN */ {kIdOnly, kNameExtractResponse<N::kMode, L::kModeName>},
    /* 8 CMEPLN */ {kIdOnly, kNameExtractResponse<N::kPartnerLu, L::kPartnerLuName>},
    /* 9 CMESL */ {kIdOnly, kExtractResponse<V::kSyncLevel>},
    /* 10 CMFLUS */ {kIdOnly, kNone},
    /* 11 CMINIT */ {kInitRequest, kInitResponse},
    /* 12 CMPTR */ {kPtrRequest, kNone},
    /* 13 CMRCV */ {kRcvRequest, kRcvResponse},
    /* 14 CMRTS */ {kIdOnly, kNone},
    /* 15 CMSEND */ {kSendRequest, kRequestToSendA1},
    /* 16 CMSERR */ {kSerrRequest, kRequestToSendA1},
    /* 17 CMSCT */
    {kSetRequest<V::kConversationType>, kSetResponse<V::kConversationType>},
    /* 18 CMSDT */ {kSetRequest<V::kDeallocateType>, kSetResponse<V::kDeallocateType>},
    /* 19 CMSED */ {kSetRequest<V::kErrorDirection>, kSetResponse<V::kErrorDirection>},
    /* 20 CMSF */ {kSetRequest<V::kFill>, kSetResponse<V::kFill>},
    /* 21 CMSLD */ {kSldRequest, kSldResponse},
    /* 22 CMSMN */ {kNameSetRequest<N::kMode, L::kModeName>, kNameSetResponse<N::kMode>},
    /* 23 CMSPLN */
    {kNameSetRequest<N::kPartnerLu, L::kPartnerLuName>, kNameSetResponse<N::kPartnerLu>},
    /* 24 CMSPTR */
    {kSetRequest<V::kPrepareToReceiveType>, kSetResponse<V::kPrepareToReceiveType>},
    /* 25 CMSRT */ {kSetRequest<V::kReceiveType>, kSetResponse<V::kReceiveType>},
    /* 26 CMSRC */ {kSetRequest<V::kReturnControl>, kSetResponse<V::kReturnControl>},
    /* 27 CMSST */ {kSetRequest<V::kSendType>, kSetResponse<V::kSendType>},
    /* 28 CMSSL */ {kSetRequest<V::kSyncLevel>, kSetResponse<V::kSyncLevel>},
    /* 29 CMSTPN */
    {kNameSetRequest<N::kPartnerTp, L::kTpName>, kNameSetResponse<N::kPartnerTp>},
    /* 30 CMTRTS */ {kIdOnly, kRequestToSendA1},
    /* 31 XCMDSI */ {kDsiRequest, kNone},
    /* 32 XCECST */ {kIdOnly, kExtractResponse<V::kSecurityType>},
    /* 33 XCECSU */ {kIdOnly, kNameExtractResponse<N::kUserId, L::kUserId>},
    /* 34 XCMESI */ {kEsiRequest, kEsiResponse},
    /* 35 XCSCSP */ {kIdOnly, kNone},
    /* 36 XCSCST */ {kSetRequest<V::kSecurityType>, kSetResponse<V::kSecurityType>},
    /* 37 XCSCSU */ {kNameSetRequest<N::kUserId, L::kUserId>, kNameSetResponse<N::kUserId>},
    /* 38 XCMSSI */ {kSsiRequest, kNone},
    /* 39 CMTERM */ {kTermRequest, kNone},
    /* 40 CMSPM */ {kSpmRequest, kSpmResponse},
    /* 41 CMINIC */ {kNone, kIdA1Only},
    /* 42 CMACCI */ {kIdOnly, kNone},
    /* 43 CMWAIT */ {kNone, kWaitResponse},
    /* 44 CMCANC */ {kIdOnly, kNone},
    /* 45 CMCHCK */ {kNone, kIdA1Only},
    /* 46 CMSCST */ {kSetRequest<V::kSecurityType>, kSetResponse<V::kSecurityType>},
    /* 47 CMSCSU */ {kNameSetRequest<N::kUserId, L::kUserId>, kNameSetResponse<N::kUserId>},
    /* 48 CMSCSP */ {kIdOnly, kNone},
    /* 49 CMESUI */ {kIdOnly, kNameExtractResponse<N::kUserId, L::kUserId>},
    /* 50 CMSLTP */ {kLocalTpRequest, kNone},
    /* 51 CMRLTP */ {kLocalTpRequest, kNone},
    /* 52 CMETPN */ {kIdOnly, kNameExtractResponse<N::kLocalTp, L::kTpName>},
    /* 53 CMCNVI */ {kConvertLines, kConvertLines},
    /* 54 CMCNVO */ {kConvertLines, kConvertLines},
    /* 55 CMEMBS */ {kNone, kEmbsResponse},
    /* 56 CMECTX */ {kIdOnly, kNameExtractResponse<N::kContext, L::kContextId>},
    /* 57 CMSCTX */ {kSctxRequest, kNone},
    /* 58 CMECSU */ {kIdOnly, kNameExtractResponse<N::kUserId, L::kUserId>},
    /* 59 CMECST */ {kIdOnly, kExtractResponse<V::kSecurityType>},
    /* 60 CMELLN */ {kIdOnly, kNameExtractResponse<N::kLocalLu, L::kLocalLuName>},
    /* 61 XCHWND */ {kWindowRequest, kNone},
    /* 62 CMSLLN */ {kSllnRequest, kNameSetResponse<N::kLocalLu>},
};

static_assert(kVerbCMSLLN + 1 == kTraceVerbCount);

}  // namespace

TraceVerbLines trace_verb_lines(uint16_t verb) {
  return verb < kTraceVerbCount ? kVerbLines[verb] : TraceVerbLines{};
}
