// Shared fixture of the library-core tests: a fresh scripted node per test,
// helpers that drive the library's internal routines under the process lock,
// and readers for the node's problem and assertion records.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "call_frame.h"
#include "snanode/snanode_test.h"

namespace core_test {

// Holds the process lock for a scope, as a CPI-C call would.
class Locked {
 public:
  Locked() : token_(vpm_lock()) {}
  ~Locked() { vpm_unlock(token_); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;

 private:
  uint16_t token_;
};

// Completion routine for verbs the tests submit directly: the common steps
// every verb's routine runs, counted so tests see how it was called.
inline int g_routine_calls = 0;
inline uintptr_t g_last_correlator = 99;
extern "C" inline void test_completion(void *vcb, uint32_t, uint32_t, uintptr_t correlator) {
  ++g_routine_calls;
  g_last_correlator = correlator;
  auto *cccb = static_cast<CCCB *>(vcb);
  SCC_complete_result(cccb);
  if (correlator != 0) SCC_complete_async(cccb);
}

inline SNT_VERB_SCRIPT script(uint16_t opcode, uint16_t primary = 0, uint32_t secondary = 0,
                              bool later = false) {
  SNT_VERB_SCRIPT s{};
  s.opcode = opcode;
  s.primary_rc = primary;
  s.secondary_rc = secondary;
  s.complete_later = later ? 1 : 0;
  return s;
}

inline void push_script(uint16_t opcode, uint16_t primary = 0, uint32_t secondary = 0,
                        bool later = false) {
  SNT_VERB_SCRIPT s = script(opcode, primary, secondary, later);
  snt_push_verb_script(&s);
}

inline SNT_RECORD problem(uint32_t n) {
  SNT_RECORD record{};
  EXPECT_EQ(snt_problem(n, &record), 1) << "no problem record " << n;
  return record;
}

inline std::string assertion(uint32_t n) {
  char file[128] = {};
  char expression[256] = {};
  if (snt_assertion(n, file, sizeof file, expression, sizeof expression) == 0) return "<none>";
  return expression;
}

struct Conversation {
  unsigned char id[8] = {};
  CCCB *cccb = nullptr;
};

class CoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("APPCLLU");
    unsetenv("APPCTPN");
    snt_reset();
    snt_script_verbs(1);
    g_routine_calls = 0;
    g_last_correlator = 99;
  }

  static void start() {
    Locked lock;
    SCC_init();
    ASSERT_EQ(fInitCPIC, 1);
  }

  static Conversation make_conversation() {
    Locked lock;
    Conversation c;
    EXPECT_EQ(SCC_cccb_init(c.id, &c.cccb), 1);
    return c;
  }

  // Builds a verb in the conversation's verb area and submits it the way a
  // conversation call does.
  static CM_RETURN_CODE submit(Conversation &c, uint16_t opcode, uint16_t trace_verb = 10) {
    Locked lock;
    SCC_vcb_init(c.cccb, opcode);
    SCC_set_completion_info(c.cccb, trace_verb, c.id);
    return SCC_submit_conversation_verb(c.cccb, test_completion);
  }

  static bool known(const unsigned char *id) {
    Locked lock;
    return CallFrame::lookup(id) != nullptr;
  }
};

}  // namespace core_test
