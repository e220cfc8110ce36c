// What the calls that set or read one conversation characteristic share:
// the frame they run in, the two state rules they apply, and the storing of
// a name into a fixed-length EBCDIC field.
//
// The frame differs from the conversation verbs' only in its trace records:
// a set call names the conversation's CCCB in both records (so the trace
// shows the characteristic before and after the change), an extract call
// names it in neither and shows its out-parameters on exit instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "call_frame.h"

// The conversation of `conversation_id` for a trace record, or null.  A null
// ID address has no conversation; the lookup proper does not defend against
// it (the node's problem log would read through it), but the trace must not
// fail before the call has even started.
inline CCCB *conversation_for_trace(const unsigned char *conversation_id) noexcept {
  return conversation_id == nullptr ? nullptr : CallFrame::lookup(conversation_id);
}

// Which trace records of a characteristic call carry the CCCB, and the call's
// own arguments for each record.
struct CharacteristicTrace {
  bool cccb_on_request;
  bool cccb_on_response;
  const void *in1 = nullptr;
  const void *in2 = nullptr;
  const void *out1 = nullptr;
  const void *out2 = nullptr;
};

// Runs `body` (lookup, checks and effect; it sets the return code through the
// frame) between the request and response records of call `verb`.  The CCCB
// of the response is looked up again: the body may have been refused before
// the lookup, and the record shows the conversation as it stands afterwards.
template <typename Body>
void run_characteristic_call(uint16_t verb, const unsigned char *conversation_id,
                             CM_RETURN_CODE *return_code, const CharacteristicTrace &trace,
                             Body &&body) {
  CallFrame frame(verb, return_code);
  if (frame.tracing()) {
    frame.request(trace.cccb_on_request ? conversation_for_trace(conversation_id) : nullptr,
                  conversation_id, trace.in1, trace.in2);
  }
  body(frame);
  if (frame.tracing()) {
    frame.response(trace.cccb_on_response ? conversation_for_trace(conversation_id) : nullptr,
                   trace.out1, trace.out2);
  }
}

// Initialize state: made by CMINIT and not yet allocated at the node.  Only
// then may the characteristics that the allocation sends be changed.
inline bool in_initialize_state(const CCCB &cccb) noexcept {
  return cccb.fInitializeState == 1 && cccb.ulAppcConvId == 0;
}

// A conversation made for an incoming allocation that has not been accepted
// yet: it has no characteristics worth reading, so extract calls refuse it.
inline bool awaiting_accept(const CCCB &cccb) noexcept {
  return cccb.fInitializeState == 0 && cccb.ulAppcConvId == 0;
}

inline constexpr unsigned char kEbcdicBlank = 0x40;
inline constexpr unsigned char kAsciiBlank = 0x20;

// Fills the `field_size` bytes of `field` with EBCDIC blanks, then converts
// the first `length` bytes of `name` into its start.  The caller has checked
// that `length` fits the field.
inline void store_ebcdic_name(unsigned char *field, size_t field_size, const unsigned char *name,
                              size_t length, uint16_t charset) {
  std::memset(field, kEbcdicBlank, field_size);
  SCC_convert_string(SCC_CNV_OUT, charset, static_cast<int16_t>(length), field, name);
}

// The lookup and state rule that every extract call of a conversation
// applies before it reads: an unknown ID is reported with `probe`; a
// conversation still waiting to be accepted is refused with 25.  With
// `refuse_while_busy`, a verb in progress is refused with 37 first.  `read`
// writes the out-parameters and returns the call's return code.
template <typename Read>
void extract_from(const CallFrame &frame, const unsigned char *conversation_id, uint32_t probe,
                  Read &&read, bool refuse_while_busy = false) {
  CCCB *cccb = frame.find(conversation_id, probe);
  if (cccb == nullptr) return;
  if (refuse_while_busy && cccb->usVerbsOutstanding != 0) {
    frame.set(CM_OPERATION_NOT_ACCEPTED);
  } else if (awaiting_accept(*cccb)) {
    frame.set(CM_PROGRAM_STATE_CHECK);
  } else {
    frame.set(read(static_cast<const CCCB &>(*cccb)));
  }
}

// Trace shape of an extract call: the request shows only the conversation
// ID, the response the out-parameters.
inline CharacteristicTrace extract_trace(const void *out1, const void *out2 = nullptr) {
  return CharacteristicTrace{
      .cccb_on_request = false, .cccb_on_response = false, .out1 = out1, .out2 = out2};
}
