// A trace sink for the record tests: this test program's own definitions of
// the node's trace output routines take the place of the node library's, so
// every separator, line and dump the writer hands over is captured as text.
// Include from exactly one file of a test program.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "snanode/snanode.h"

namespace trace_sink {

inline constexpr const char *kSeparator = "<separator>";

struct Event {
  int32_t handle;
  std::string component;
  std::string text;  // the line, kSeparator, or dump_text() of a dump
};

inline std::vector<Event> &events() {
  static std::vector<Event> all;
  return all;
}

// How a dump is recorded: the address and length handed over.
inline std::string dump_text(const void *data, uint32_t length) {
  char text[64];
  std::snprintf(text, sizeof text, "<dump %p %u>", data, length);
  return text;
}

// The text "%p" gives for an address, as the trace's pointer lines use it.
inline std::string pointer_text(const void *data) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", data);
  return text;
}

// The texts of all events, in order.
inline std::vector<std::string> texts() {
  std::vector<std::string> out;
  for (const Event &event : events()) out.push_back(event.text);
  return out;
}

}  // namespace trace_sink

extern "C" {
void com_trc_sep(int32_t handle, const char *component) {
  trace_sink::events().push_back({handle, component, trace_sink::kSeparator});
}
void com_trc_line(int32_t handle, const char *component, const char *text) {
  trace_sink::events().push_back({handle, component, text});
}
void com_trc_dump(int32_t handle, const char *component, const void *data, uint32_t length) {
  trace_sink::events().push_back({handle, component, trace_sink::dump_text(data, length)});
}
}
