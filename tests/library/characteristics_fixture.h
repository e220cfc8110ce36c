// Conversations for the characteristics tests, made directly through the
// library's control-block routines so that a test can put one in any of the
// three situations the calls tell apart: Initialize state (made by CMINIT,
// not yet allocated), allocated, and made for an incoming allocation but not
// yet accepted.
#pragma once

#include <gtest/gtest.h>

#include <array>
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
    snt_reset();
    snt_script_verbs(1);
    SCC_init();
  }

 public:
  // A new conversation in `stage`.
  static Conversation make(Stage stage = Stage::kInitialize) {
    Conversation conversation;
    EXPECT_EQ(1, SCC_cccb_init(conversation.id.data(), &conversation.cccb));
    if (conversation.cccb == nullptr) return conversation;
    conversation.cccb->fInitializeState = stage == Stage::kIncoming ? 0 : 1;
    conversation.cccb->ulAppcConvId = stage == Stage::kAllocated ? 0x51 : 0;
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
};

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
