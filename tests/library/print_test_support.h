// Helpers shared by the print-routine tests: formatting into a string and
// reading the assertions the node recorded.
#pragma once

#include <cstdarg>
#include <string>

#include "snanode/snanode_test.h"
#include "svmcspnt.h"

namespace print_test {

// t_sprintf into a large buffer; the result as a string (up to the first NUL).
template <typename... Args>
std::string t_format(const char *format, Args... args) {
  char buffer[1024];
  t_sprintf(buffer, format, args...);
  return buffer;
}

template <typename... Args>
std::string nb_format(const char *format, Args... args) {
  char buffer[1024];
  nb_sprintf(buffer, format, args...);
  return buffer;
}

struct Assertion {
  std::string file;
  std::string expression;
};

inline Assertion assertion(uint32_t n) {
  char file[128] = "";
  char expression[128] = "";
  if (snt_assertion(n, file, sizeof file, expression, sizeof expression) == 0) return {};
  return {file, expression};
}

}  // namespace print_test
