// Conversations for the characteristics tests, made directly through the
// library's control-block routines so that a test can put one in any of the
// three situations the calls tell apart: Initialize state (made by CMINIT,
// not yet allocated), allocated, and made for an incoming allocation but not
// yet accepted.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "cpic.h"
#include "internal.h"
#include "snanode/snanode_test.h"

enum class Stage { kInitialize, kAllocated, kIncoming };

struct Conversation {
  std::array<unsigned char, 8> id{};
  CCCB *cccb = nullptr;
  unsigned char *id_ptr() { return id.data(); }
};

class CharacteristicsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The local LU name must start unset whatever the environment says.
    unsetenv("APPCLLU");
    snt_reset();
    snt_script_verbs(1);
    SCC_init();
  }

 public:
  // A new conversation in `stage`: from CMINIT without side information, as
  // an application makes one, or, for an incoming conversation, straight from
  // the control-block routine as the accept path makes it before the accept
  // completes.  Allocation is marked by giving it a node conversation id.
  static Conversation make(Stage stage = Stage::kInitialize) {
    Conversation conversation;
    if (stage == Stage::kIncoming) {
      EXPECT_EQ(1, SCC_cccb_init(conversation.id.data(), &conversation.cccb));
      if (conversation.cccb != nullptr) conversation.cccb->fInitializeState = 0;
      return conversation;
    }
    unsigned char no_side_information[8] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
    CM_RETURN_CODE rc = -1;
    cminit(conversation.id.data(), no_side_information, &rc);
    EXPECT_EQ(CM_OK, rc);
    GCB *gcb = pGCB;
    SCC_find_cccb(conversation.id.data(), &conversation.cccb, &gcb);
    if (conversation.cccb != nullptr && stage == Stage::kAllocated) {
      conversation.cccb->ulAppcConvId = 0x51;
    }
    return conversation;
  }

  // An ID no conversation has.
  static std::array<unsigned char, 8> unknown_id() { return {0x77, 0x66, 0x55, 0x44, 0, 0, 0, 0}; }

  // Checks that the last problem record reports `id` as unknown with `probe`.
  static void expect_unknown_reported(const std::array<unsigned char, 8> &id, uint32_t probe) {
    ASSERT_EQ(1u, snt_problem_count());
    SNT_RECORD record{};
    ASSERT_EQ(1, snt_problem(0, &record));
    EXPECT_EQ(0x20030005u, record.code);
    EXPECT_EQ(probe, record.probe);
    EXPECT_STREQ("ba", record.arg_types);
    EXPECT_EQ(8u, record.args[0]);
    EXPECT_EQ(0, std::memcmp(record.bytes[0], id.data(), 8));
  }

  // A call made with a conversation ID, and the probe it must report an
  // unknown ID with.
  struct ProbeRow {
    std::function<void(unsigned char *, CM_RETURN_CODE *)> call;
    uint32_t probe;
  };

  // Each call, given an unknown ID, returns 24 and writes exactly one
  // problem record with its own probe.
  static void expect_each_reports_unknown(const std::vector<ProbeRow> &rows) {
    for (const ProbeRow &row : rows) {
      SCOPED_TRACE(testing::Message() << "probe " << row.probe);
      snt_reset();
      auto id = unknown_id();
      CM_RETURN_CODE rc = -1;
      row.call(id.data(), &rc);
      EXPECT_EQ(CM_PROGRAM_PARAMETER_CHECK, rc);
      expect_unknown_reported(id, row.probe);
    }
  }
};

using TextCall = void (*)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *);

// Makes a call that takes a text and its length (a name, log data, a user ID
// or password) on `c`; returns its return code.
inline CM_RETURN_CODE set_text(TextCall fn, Conversation &c, const std::string &text,
                               CM_INT32 length) {
  std::string argument = text;
  CM_RETURN_CODE rc = -1;
  fn(c.id_ptr(), reinterpret_cast<unsigned char *>(argument.data()), &length, &rc);
  return rc;
}
inline CM_RETURN_CODE set_text(TextCall fn, Conversation &c, const std::string &text) {
  return set_text(fn, c, text, static_cast<CM_INT32>(text.size()));
}

// What a call that extracts a text handed back.  The buffer starts filled
// with '~' and the length with -7, so what the call did not write shows.
struct Extracted {
  CM_RETURN_CODE rc = -1;
  std::string text;
  CM_INT32 length = -7;
};

inline Extracted extract_text(TextCall fn, unsigned char *id, size_t buffer_size = 80) {
  Extracted out;
  out.text.assign(buffer_size, '~');
  fn(id, reinterpret_cast<unsigned char *>(out.text.data()), &out.length, &out.rc);
  return out;
}

inline std::vector<unsigned char> bytes_of(const std::string &text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

inline std::vector<unsigned char> field(const unsigned char *start, size_t size) {
  return std::vector<unsigned char>(start, start + size);
}

// `prefix` followed by `fill` up to `size` bytes.
inline std::vector<unsigned char> padded(std::vector<unsigned char> prefix, size_t size,
                                         unsigned char fill) {
  prefix.resize(size, fill);
  return prefix;
}
