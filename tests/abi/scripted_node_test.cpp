// libcpic.so in front of a node of the test's own: proves that the library's
// node calls reach whatever node the process provides, through the ordinary
// dynamic linking of the application.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "cpic.h"
#include "scripted_node.h"

namespace {

using scripted_node::count;

// Exported callbacks that cpic.h does not declare.
template <typename F>
F exported(const char *name) {
  return reinterpret_cast<F>(dlsym(RTLD_DEFAULT, name));
}

TEST(ScriptedNode, EveryCallRunsUnderTheProvidedLock) {
  unsigned char id[8] = {};
  CM_RETURN_CODE conversation_rc = -1, rc = -1;
  CMWAIT(id, &conversation_rc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(count("vpm_lock"), 1);
  EXPECT_EQ(count("vpm_unlock"), 1);

  CMCHCK(id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);
  EXPECT_EQ(count("vpm_asm_event_fd"), 1);
  EXPECT_EQ(count("vpm_lock"), 2);
  EXPECT_EQ(count("vpm_unlock"), 2);
}

TEST(ScriptedNode, UnknownConversationIsLoggedThroughTheProvidedProblemLog) {
  unsigned char id[8] = {1, 2, 3, 4, 0, 0, 0, 0};
  CM_RETURN_CODE rc = -1;
  cmcanc(id, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
  ASSERT_EQ(count("nba_pd_print_problem"), 1);
  EXPECT_EQ(scripted_node::last_problem().code, 0x20030005u);
  EXPECT_EQ(scripted_node::last_problem().probe, 2u);
  EXPECT_EQ(scripted_node::last_problem().arg_types, "ba");
}

TEST(ScriptedNode, ExportedCallbacksUseTheProvidedServices) {
  using Callback = void (*)(void *, uint32_t, uint32_t, uintptr_t);
  auto null_callback = exported<Callback>("SCC_null_callback");
  auto cancel_callback = exported<Callback>("cmcanc_cb");
  ASSERT_NE(null_callback, nullptr);
  ASSERT_NE(cancel_callback, nullptr);
  void *block = nba_mm_alloc(208, 0x202, nba_blank_name, 0, 0);
  null_callback(block, 0, 0, 1);
  EXPECT_EQ(count("nba_mm_free"), 1);

  void *wait_object = vpm_allocate_wait_object();
  cancel_callback(nullptr, 0, 0, reinterpret_cast<uintptr_t>(wait_object));
  EXPECT_EQ(count("vpm_wakeup"), 1);
  vpm_release_wait_object(wait_object);
}

TEST(ScriptedNode, StartUpAndPathEndUseTheProvidedTablesAndPath) {
  unsigned char id[8] = {};
  unsigned char blank[9] = "        ";
  CM_RETURN_CODE rc = -1;
  cminit(id, blank, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_EQ(fInitCPIC, 1);
  EXPECT_EQ(count("vtm_table_init"), 3);
  EXPECT_EQ(count("vpm_init_path_user"), 1);
  EXPECT_EQ(count("vpm_allocate_wait_object"), 1);
  EXPECT_GE(count("nba_mm_alloc"), 1);
  EXPECT_GE(count("vtm_get_free_entry"), 1);

  // Cancelling a conversation that never reached the node frees it.
  const int frees = count("nba_mm_free");
  cmcanc(id, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(count("nba_mm_free"), frees + 1);

  ASSERT_NE(scripted_node::path_routine(), nullptr);
  VPM_PATH_EVENT ended = {VPM_PATH_ENDED, 0xFFFF};
  EXPECT_EQ(scripted_node::path_routine()(nullptr, &ended), 0);
  EXPECT_EQ(fInitCPIC, 0);
  EXPECT_EQ(count("vtm_table_terminate"), 3);
  EXPECT_EQ(count("vpm_release_wait_object"), 1);
  EXPECT_EQ(count("vpm_terminate_path_user"), 1);
}

TEST(ScriptedNode, AcceptedConversationIsCancelledThroughTheProvidedVerbs) {
  unsigned char id[8] = {};
  CM_RETURN_CODE rc = -1;
  cmaccp(id, &rc);
  ASSERT_EQ(rc, CM_OK);
  EXPECT_GE(count("appc_c_version") + count("appc_c_async_version"), 1);

  const int verbs = count("appc_c_async_version");
  cmcanc(id, &rc);
  EXPECT_EQ(rc, CM_OK);
  EXPECT_EQ(count("appc_c_async_version"), verbs + 1);
  EXPECT_EQ(scripted_node::last_opcode(), NAP_CANCEL);
}

}  // namespace
