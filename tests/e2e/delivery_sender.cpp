// A TP the node daemon starts for the delivery-at-exit test: it accepts the
// conversation, reads what to send, sends it, deallocates and returns from
// main at once, as a remote-execution server does when its command is done.
#include <cstdio>
#include <string>
#include <vector>

#include "e2e/delivery_stream.h"

int main() {
  unsigned char conv[8] = {};
  CM_RETURN_CODE rc = CM_OK;
  cmaccp(conv, &rc);
  if (rc != CM_OK) {
    std::fprintf(stderr, "delivery_sender: cmaccp returned %d\n", static_cast<int>(rc));
    return 1;
  }
  std::vector<unsigned char> text(64);
  CM_INT32 max = static_cast<CM_INT32>(text.size()), length = 0;
  CM_DATA_RECEIVED_TYPE data = 0;
  CM_STATUS_RECEIVED status = 0;
  CM_REQUEST_TO_SEND_RECEIVED rts = 0;
  cmrcv(conv, text.data(), &max, &data, &length, &status, &rts, &rc);
  delivery::Request request;
  if (rc != CM_OK || status != CM_SEND_RECEIVED ||
      !delivery::decode(std::string(text.begin(), text.begin() + length), request)) {
    std::fprintf(stderr, "delivery_sender: no request (rc %d)\n", static_cast<int>(rc));
    return 1;
  }
  const std::string failed = delivery::send_stream(conv, request, [] {});
  if (!failed.empty()) {
    std::fprintf(stderr, "delivery_sender: %s\n", failed.c_str());
    return 1;
  }
  return 0;
}
