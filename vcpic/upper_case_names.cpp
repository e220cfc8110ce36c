// The upper-case twin of every call, generated from entry_points.def.  Each
// twin takes the lower-case call's parameter types (so a list entry that does
// not match cpic.h fails to compile) and only passes its arguments on.
#include <cstddef>
#include <tuple>

#include "cpic.h"

namespace {

template <typename Function>
struct Parameters;
template <typename... Args>
struct Parameters<void(Args...)> {
  template <std::size_t I>
  using type = std::tuple_element_t<I, std::tuple<Args...>>;
};

}  // namespace

#define CPIC_P(low, i) Parameters<decltype(low)>::type<i>
#define CPIC_TWIN_1(UP, low)   \
  void UP(CPIC_P(low, 0) a0) { \
    low(a0);                   \
  }
#define CPIC_TWIN_2(UP, low)                      \
  void UP(CPIC_P(low, 0) a0, CPIC_P(low, 1) a1) { \
    low(a0, a1);                                  \
  }
#define CPIC_TWIN_3(UP, low)                                         \
  void UP(CPIC_P(low, 0) a0, CPIC_P(low, 1) a1, CPIC_P(low, 2) a2) { \
    low(a0, a1, a2);                                                 \
  }
#define CPIC_TWIN_4(UP, low)                                                            \
  void UP(CPIC_P(low, 0) a0, CPIC_P(low, 1) a1, CPIC_P(low, 2) a2, CPIC_P(low, 3) a3) { \
    low(a0, a1, a2, a3);                                                                \
  }
#define CPIC_TWIN_5(UP, low)                                                          \
  void UP(CPIC_P(low, 0) a0, CPIC_P(low, 1) a1, CPIC_P(low, 2) a2, CPIC_P(low, 3) a3, \
          CPIC_P(low, 4) a4) {                                                        \
    low(a0, a1, a2, a3, a4);                                                          \
  }
#define CPIC_TWIN_8(UP, low)                                                            \
  void UP(CPIC_P(low, 0) a0, CPIC_P(low, 1) a1, CPIC_P(low, 2) a2, CPIC_P(low, 3) a3,   \
          CPIC_P(low, 4) a4, CPIC_P(low, 5) a5, CPIC_P(low, 6) a6, CPIC_P(low, 7) a7) { \
    low(a0, a1, a2, a3, a4, a5, a6, a7);                                                \
  }

extern "C" {
#define CPIC_ENTRY(UP, low, n) CPIC_TWIN_##n(UP, low)
#include "entry_points.def"
#undef CPIC_ENTRY
}
