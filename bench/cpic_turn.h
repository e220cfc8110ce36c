// Receiving one turn of a half-duplex exchange, shared by the benches that
// drive conversations through the CPI-C calls.
#pragma once

#include <vector>

#include "cpic.h"

namespace bench {

// Receives until the partner gives the turn (send state).  Returns the number
// of complete records received, with the last one's length in `last`, or the
// return code that ended the conversation, negated.
inline long receive_turn(unsigned char *conversation_id, std::vector<unsigned char> &buffer,
                         long &last) {
  for (long records = 0;;) {
    CM_INT32 max = static_cast<CM_INT32>(buffer.size()), length = 0;
    CM_DATA_RECEIVED_TYPE data;
    CM_STATUS_RECEIVED status;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    CM_RETURN_CODE rc;
    cmrcv(conversation_id, buffer.data(), &max, &data, &length, &status, &rts, &rc);
    if (rc != CM_OK) return -static_cast<long>(rc);
    if (data == CM_COMPLETE_DATA_RECEIVED) ++records, last = length;
    if (status == CM_SEND_RECEIVED) return records;
  }
}

}  // namespace bench
