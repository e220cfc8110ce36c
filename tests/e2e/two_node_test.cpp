// Two node daemons joined by a link of whole units (a SOCK_SEQPACKET socket
// pair, the test transport of network_node.h), or as two hosts on an
// Enterprise Extender link (127.0.0.2 and 127.0.0.3): a TP on the first node
// allocates to a TP on the second, and every byte and indicator crosses the
// LU-LU session between them.
#include <gtest/gtest.h>

#include <algorithm>

#include "e2e/two_nodes.h"

namespace e2e {
namespace {

std::string pattern_text(size_t size, char seed) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>(seed + static_cast<char>(i % 61));
  return text;
}

const std::string kLarge = pattern_text(3 * kRuSize + 17, '!');

// The partner's answer to a new conversation, by the verb that reports it:
// the first send turns the conversation round and the receive gets the
// answer, unless the Attach went alone (a slow TP's is held only briefly)
// and the answer is back before the send, which then reports it.
CM_RETURN_CODE answer_to_first_send(Conv &c, const char *text) {
  const CM_RETURN_CODE sent = c.send(text, CM_SEND_AND_PREP_TO_RECEIVE);
  return sent == CM_OK ? c.receive().rc : sent;
}

// Node A's TP: records, a confirmation, the turn, the answer, the end.
void allocator(Side &) {
  Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION, CM_CONFIRM);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  CHECK_EQ(c.send("first record"), CM_OK);
  CHECK_EQ(c.send(kLarge), CM_OK);
  CHECK_EQ(c.send("third"), CM_OK);
  CM_REQUEST_TO_SEND_RECEIVED rts = -1;
  CHECK_EQ(c.call(cmcfm, &rts), CM_OK);
  CHECK_EQ(c.send("turn", CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  // Sync level confirm: each turn given is confirmed first.
  const Received answer = c.receive_and(CM_CONFIRM_SEND_RECEIVED);
  CHECK_DATA(answer, CM_COMPLETE_DATA_RECEIVED, "the answer", CM_CONFIRM_SEND_RECEIVED);
  CHECK_EQ(c.call(cmcfmd), CM_OK);
  CHECK_EQ(c.deallocate(), CM_OK);
}

// Node B's TP.
void acceptor(Side &) {
  Conv c = accept();
  CHECK_DATA(c.receive(), CM_COMPLETE_DATA_RECEIVED, "first record", CM_NO_STATUS_RECEIVED);
  CHECK_DATA(c.receive(), CM_COMPLETE_DATA_RECEIVED, kLarge, CM_NO_STATUS_RECEIVED);
  CHECK_DATA(c.receive_and(CM_CONFIRM_RECEIVED), CM_COMPLETE_DATA_RECEIVED, "third",
             CM_CONFIRM_RECEIVED);
  CHECK_EQ(c.call(cmcfmd), CM_OK);
  CHECK_DATA(c.receive_and(CM_CONFIRM_SEND_RECEIVED), CM_COMPLETE_DATA_RECEIVED, "turn",
             CM_CONFIRM_SEND_RECEIVED);
  CHECK_EQ(c.call(cmcfmd), CM_OK);
  CHECK_EQ(c.send("the answer", CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  const Received end = c.receive();
  CHECK_EQ(end.rc, CM_DEALLOCATED_NORMAL);
  CHECK_EQ(end.data, CM_NO_DATA_RECEIVED);
}

// Basic records, an error reported by the side holding the turn, data after
// it, and an abnormal end.
void basic_allocator(Side &) {
  Conv c = initialize_remote("E2E", CM_BASIC_CONVERSATION);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  CHECK_EQ(c.send(record(CM_BASIC_CONVERSATION, "row"), CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  // The partner's error on what it had just received (Send-Pending) purges.
  CHECK_EQ(c.receive().rc, CM_PROGRAM_ERROR_PURGING);
  CHECK_DATA(c.receive_and(CM_SEND_RECEIVED), CM_COMPLETE_DATA_RECEIVED,
             record(CM_BASIC_CONVERSATION, "after error"), CM_SEND_RECEIVED);
  CHECK_EQ(c.deallocate(CM_DEALLOCATE_ABEND), CM_OK);
}

void basic_acceptor(Side &) {
  Conv c = accept();
  CHECK_DATA(c.receive_and(CM_SEND_RECEIVED), CM_COMPLETE_DATA_RECEIVED,
             record(CM_BASIC_CONVERSATION, "row"), CM_SEND_RECEIVED);
  CHECK_EQ(c.call(cmserr, &c.rts), CM_OK);
  CHECK_EQ(c.send(record(CM_BASIC_CONVERSATION, "after error"), CM_SEND_AND_PREP_TO_RECEIVE),
           CM_OK);
  CHECK_EQ(c.receive().rc, CM_DEALLOCATED_ABEND);
}

// PROGRAM security crosses the link: node B verifies the user and password.
void program_security_allocator(Side &) {
  for (const char *password : {"WRONG", "SECRET"}) {
    Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
    program_security(c, "CLERK", password);
    REQUIRE_EQ(c.call(cmallc), CM_OK);
    if (std::string(password) == "WRONG") {
      CHECK_EQ(answer_to_first_send(c, "refused"), CM_SECURITY_NOT_VALID);
    } else {
      CHECK_EQ(c.send("verified", CM_SEND_AND_DEALLOCATE), CM_OK);
    }
  }
}

void program_security_acceptor(Side &) {
  Conv c = accept();
  CHECK_DATA(c.receive(), CM_COMPLETE_DATA_RECEIVED, "verified", CM_NO_STATUS_RECEIVED);
  CHECK_EQ(c.receive().rc, CM_DEALLOCATED_NORMAL);
}

// Node B's daemon dies mid-conversation: the link is lost, every session on it
// ends, and each TP's next verb at node A gets a conversation failure with
// retry (another path may serve), whether it receives or sends; a new
// allocation at node A is refused for a retry.
void link_loss_allocator(Side &) {
  Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  CHECK_EQ(c.send("before", CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  Conv sending = initialize_remote("E2E", CM_BASIC_CONVERSATION);
  REQUIRE_EQ(sending.call(cmallc), CM_OK);
  REQUIRE_PARTNER();  // node B is gone
  const auto lost = Clock::now();
  CHECK_EQ(c.receive().rc, CM_RESOURCE_FAILURE_RETRY);
  // The failure may reach this TP a moment after the first one's.
  CM_RETURN_CODE sent = sending.send(record(CM_BASIC_CONVERSATION, "lost"), CM_SEND_AND_FLUSH);
  if (sent == CM_OK) {
    std::this_thread::sleep_for(100ms);
    sent = sending.send(record(CM_BASIC_CONVERSATION, "lost"), CM_SEND_AND_FLUSH);
  }
  CHECK_EQ(sent, CM_RESOURCE_FAILURE_RETRY);
  const auto noticed = Clock::now();
  CHECK_EQ(noticed - lost < 4s, true);  // the link's liveness is 2 s
  Conv again = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
  // The allocation's outcome may come with the verb after it.
  const CM_RETURN_CODE allocated = again.call(cmallc);
  CHECK_EQ(allocated == CM_OK ? again.send("lost", CM_SEND_AND_PREP_TO_RECEIVE) : allocated,
           CM_ALLOCATE_FAILURE_RETRY);
}

void link_loss_acceptor(Side &side) {
  Conv c = accept();
  CHECK_DATA(c.receive_and(CM_SEND_RECEIVED), CM_COMPLETE_DATA_RECEIVED, "before",
             CM_SEND_RECEIVED);
  Conv second = accept();  // its Attach came alone: node A's TP sent nothing yet
  CHECK_EQ(second.state(), CM_RECEIVE_STATE);
  side.say('K', "daemon");
  REQUIRE_EQ(::kill(side.daemon, SIGKILL), 0);
  int status = 0;
  ::waitpid(side.daemon, &status, 0);  // not this process's child: returns at once
  std::this_thread::sleep_for(200ms);
  side.post();
  CHECK_EQ(c.send("after") == CM_OK && c.call(cmptr) == CM_OK && c.receive().rc == CM_OK, false);
}

// Far more than the daemons, sockets and ring hold for a TP that does not read yet:
// pacing stops node A's daemon, which stops reading its TP, so the sender
// cannot finish before B reads; every byte still arrives.
constexpr int kBulkRecords = 200;
constexpr size_t kBulkSize = 30000;

void bulk_allocator(Side &side) {
  Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  for (int i = 0; i < kBulkRecords; ++i) {
    REQUIRE_EQ(c.send(pattern_text(kBulkSize, static_cast<char>('A' + i % 20))), CM_OK);
  }
  side.post();
  CHECK_EQ(c.deallocate(), CM_OK);
}

void bulk_acceptor(Side &side) {
  Conv c = accept();
  // The sender fills what the daemons hold, and then waits.
  CHECK_EQ(side.await(700), false);
  for (int i = 0; i < kBulkRecords; ++i) {
    const Received r = c.receive(static_cast<CM_INT32>(kBulkSize));
    REQUIRE_EQ(r.rc, CM_OK);
    CHECK_EQ(r.text == pattern_text(kBulkSize, static_cast<char>('A' + i % 20)), true);
  }
  CHECK_EQ(side.await(), true);  // the sender's post, after its last record
  CHECK_EQ(c.receive().rc, CM_DEALLOCATED_NORMAL);
}

// A stream of records larger than a session's RUs, each checked on arrival.
constexpr int kStreamRecords = 64;
constexpr size_t kStreamRecord = 32767;

void stream_allocator(Side &) {
  Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  for (int i = 0; i < kStreamRecords; ++i) {
    REQUIRE_EQ(c.send(pattern_text(kStreamRecord, static_cast<char>('A' + i % 23))), CM_OK);
  }
  CHECK_EQ(c.deallocate(), CM_OK);
}

void stream_acceptor(Side &) {
  Conv c = accept();
  for (int i = 0; i < kStreamRecords; ++i) {
    const Received r = c.receive(static_cast<CM_INT32>(kStreamRecord));
    REQUIRE_EQ(r.rc, CM_OK);
    REQUIRE_EQ(r.text == pattern_text(kStreamRecord, static_cast<char>('A' + i % 23)), true);
  }
  CHECK_EQ(c.receive().rc, CM_DEALLOCATED_NORMAL);
}

// A TP name node B does not know: the allocating TP hears it on its next verb.
void unknown_tp(Side &) {
  Conv c = initialize_remote("NOSUCHTP", CM_MAPPED_CONVERSATION);
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  CHECK_EQ(answer_to_first_send(c, "lost"), CM_TPN_NOT_RECOGNIZED);
}

// Already verified: node A's TP allocates to node B with PROGRAM security
// (B verifies CLERK); B's TP, now running for CLERK, allocates back to A with
// SAME, which passes CLERK on as already verified.  Node A accepts that only
// when it trusts node B's LU.
template <bool trusted>
void verified_back_allocator(Side &) {
  REQUIRE_EQ(local_tp(cmsltp, "BACK"), CM_OK);
  Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
  program_security(c, "CLERK", "SECRET");
  REQUIRE_EQ(c.call(cmallc), CM_OK);
  CHECK_EQ(c.send("go", CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
  const Received answer = c.receive();
  if (!trusted) {  // B's TP reports what its allocation got
    CHECK_DATA(answer, CM_COMPLETE_DATA_RECEIVED, "refused", CM_NO_STATUS_RECEIVED);
    return;
  }
  CHECK_DATA(answer, CM_COMPLETE_DATA_RECEIVED, "come back", CM_NO_STATUS_RECEIVED);
  Conv back = accept();
  CHECK_EQ(user_id(back), "CLERK");
  CHECK_DATA(back.receive(), CM_COMPLETE_DATA_RECEIVED, "as CLERK", CM_NO_STATUS_RECEIVED);
}

template <bool trusted>
void verified_back_acceptor(Side &) {
  Conv c = accept();
  CHECK_DATA(c.receive_and(CM_SEND_RECEIVED), CM_COMPLETE_DATA_RECEIVED, "go", CM_SEND_RECEIVED);
  Conv back = initialize("BACK", CM_MAPPED_CONVERSATION, CM_NONE, "LUA");
  REQUIRE_EQ(back.set(cmscst, CM_SECURITY_SAME), CM_OK);
  REQUIRE_EQ(back.call(cmallc), CM_OK);
  if (trusted) {
    CHECK_EQ(c.send("come back", CM_SEND_AND_DEALLOCATE), CM_OK);
    CHECK_EQ(back.send("as CLERK", CM_SEND_AND_DEALLOCATE), CM_OK);
    return;
  }
  CHECK_EQ(answer_to_first_send(back, "x"), CM_SECURITY_NOT_VALID);
  CHECK_EQ(c.send("refused", CM_SEND_AND_DEALLOCATE), CM_OK);
}

// PROGRAM security for users whose password the system (PAM) verifies at
// node B, as for a local allocation: the PAM service accepts root and has no
// account for the other user.
void pam_allocator(Side &) {
  for (const char *user : {"nobodyhere", "root"}) {
    Conv c = initialize_remote("E2E", CM_MAPPED_CONVERSATION);
    program_security(c, user, "any");
    REQUIRE_EQ(c.call(cmallc), CM_OK);
    CHECK_EQ(answer_to_first_send(c, "as root"),
             std::string(user) == "root" ? CM_DEALLOCATED_NORMAL : CM_SECURITY_NOT_VALID);
  }
}

void pam_acceptor(Side &) {
  Conv c = accept();
  CHECK_EQ(user_id(c), "root");
  CHECK_DATA(c.receive_and(CM_SEND_RECEIVED), CM_COMPLETE_DATA_RECEIVED, "as root",
             CM_SEND_RECEIVED);
  CHECK_EQ(c.deallocate(), CM_OK);
}

// Every unit of a capture read by tshark: more than ten, nothing malformed,
// no expert item.  `port_base`: UDP datagrams on those five ports (tshark
// knows 12000 to 12004 by itself).
void check_capture(const fs::path &file, uint16_t port_base = 0) {
  const std::string read =
      "tshark -r " + file.string() + (port_base != 0 ? ee_ports_for_tshark(port_base) : "");
  EXPECT_GT(std::atoi(ctl_test::run_command(read + " 2>/dev/null | wc -l").second.c_str()), 10)
      << read;
  const auto [status, bad] =
      ctl_test::run_command(read + " -Y '_ws.malformed || _ws.expert' 2>/dev/null");
  EXPECT_EQ(status, 0) << "tshark could not read " << read;
  EXPECT_EQ(bad, "") << read;
}

TEST(TwoNodes, ConversationCrossesTheLinkAndCaptureIsWellFormed) {
  TwoNodes nodes;
  ASSERT_TRUE(nodes.up) << "no daemons: see " << nodes.base;
  nodes.run(allocator, acceptor);
  nodes.run(basic_allocator, basic_acceptor);
  nodes.run(unknown_tp, nullptr);
  nodes.run(program_security_allocator, program_security_acceptor);
  nodes.run(bulk_allocator, bulk_acceptor);
  nodes.run(link_loss_allocator, link_loss_acceptor);
  if (::system("command -v tshark >/dev/null 2>&1") != 0) return;
  for (const auto &dir : nodes.dirs) check_capture(dir / "units.pcap");
}

// Two hosts on an EE link losing 5 % of the datagrams, duplicating and
// reordering 1 % both ways: a stream arrives whole and in order; node B's
// daemon killed, node A's TPs hear it within the link's liveness; once B is
// back, a new allocation succeeds.  Every datagram captured reads cleanly.
TEST(TwoHosts, StreamOnALossyPathAndThePartnerRestarting) {
  ::setenv("SNANODE_IMPAIR", "loss=0.05,dup=0.01,reorder=0.01", 1);
  struct Unset {
    ~Unset() { ::unsetenv("SNANODE_IMPAIR"); }
  } unset;
  TwoNodes nodes(false, "", true);
  if (nodes.port_base == 0) GTEST_SKIP() << "127.0.0.2 and 127.0.0.3 cannot be bound here";
  ASSERT_TRUE(nodes.up) << "no daemons or no link: see " << nodes.base;
  nodes.run(stream_allocator, stream_acceptor);
  // The operator sees the link, its RTP connection and the session it bound.
  // B has taken the whole stream, but the acknowledgement of its tail may
  // still be on the way to A (a lost status reply waits for the next request).
  const auto acknowledged = [](const ctl_test::Json &status) {
    for (const auto &row : status["rtp_connections"].items) {
      if (row["cos"].text == "#INTER") return row["bytes_acknowledged"].number;
    }
    return int64_t{0};
  };
  ctl_test::Json status = ctl_json(nodes.dirs[0]);
  for (const auto until = Clock::now() + 5s;
       acknowledged(status) <= 2'000'000 && Clock::now() < until;) {
    std::this_thread::sleep_for(50ms);
    status = ctl_json(nodes.dirs[0]);
  }
  ASSERT_EQ(status["links"].items.size(), 1u);
  EXPECT_EQ(status["links"].items[0]["cp_name"].text, "NETA.NODEB");
  EXPECT_EQ(status["links"].items[0]["state"].text, "active");
  EXPECT_GT(status["links"].items[0]["max_btu"].number, 0);
  // The stream's connection is its mode's class's (CNOS has one of its own).
  const auto &connections = status["rtp_connections"].items;
  const auto inter =
      std::find_if(connections.begin(), connections.end(),
                   [](const ctl_test::Json &row) { return row["cos"].text == "#INTER"; });
  ASSERT_NE(inter, connections.end());
  EXPECT_EQ((*inter)["state"].text, "connected");
  EXPECT_GT((*inter)["bytes_acknowledged"].number, 2'000'000);
  // The stream's segments left through the endpoint, and the acknowledgements came in.
  EXPECT_GT(status["ee_endpoint"]["datagrams_sent"].number, 1000);
  EXPECT_GT(status["ee_endpoint"]["datagrams_received"].number, 10);
  ASSERT_EQ(status["network_sessions"].items.size(), 1u);
  EXPECT_EQ(status["network_sessions"].items[0]["partner_lu"].text, "NETA.LUB");
  EXPECT_GE(status["network_sessions"].items[0]["bound"].number, 1);
  // The operator pauses the capture: a conversation while it is paused
  // leaves the file as it was.
  const fs::path &a = nodes.dirs[0];
  EXPECT_EQ(ctl(a, "capture off").first, 0);
  const auto captured = fs::file_size(a / "units.pcap");
  nodes.run(allocator, acceptor);
  EXPECT_EQ(fs::file_size(a / "units.pcap"), captured);
  EXPECT_EQ(ctl(a, "capture on").first, 0);
  nodes.run(link_loss_allocator, link_loss_acceptor);
  ASSERT_TRUE(nodes.restart_b()) << "node B did not come back: see " << nodes.base;
  nodes.run(allocator, acceptor);
  if (::system("command -v tshark >/dev/null 2>&1") != 0) return;
  for (const auto &dir : nodes.dirs) check_capture(dir / "units.pcap", nodes.port_base);
}

TEST(TwoNodes, AlreadyVerifiedUsersOnlyFromATrustedPartner) {
  for (bool trusted : {false, true}) {
    SCOPED_TRACE(trusted ? "node A trusts node B" : "node A does not trust node B");
    TwoNodes nodes(trusted);
    ASSERT_TRUE(nodes.up) << "no daemons: see " << nodes.base;
    nodes.run(trusted ? verified_back_allocator<true> : verified_back_allocator<false>,
              trusted ? verified_back_acceptor<true> : verified_back_acceptor<false>);
  }
}

TEST(TwoNodes, PasswordsThePartnerNodeLeavesToPam) {
  // The service "runuser" lets root authenticate anyone it names; elsewhere
  // there is no PAM service a test can rely on.
  std::ifstream service("/etc/pam.d/runuser");
  const std::string text((std::istreambuf_iterator<char>(service)), {});
  if (::geteuid() != 0 || text.find("pam_rootok") == std::string::npos) {
    GTEST_SKIP() << "needs root and /etc/pam.d/runuser with pam_rootok";
  }
  TwoNodes nodes(false,
                 "[pam]\nenabled = true\nservice = \"runuser\"\n[[user]]\n"
                 "user_id = \"root\"\n[[user]]\nuser_id = \"nobodyhere\"\n");
  ASSERT_TRUE(nodes.up) << "no daemons: see " << nodes.base;
  nodes.run(pam_allocator, pam_acceptor);
}

// `snanoded --check` names what is wrong with the network's keys.
TEST(TwoNodes, CheckExplainsNetworkKeys) {
  char pattern[] = "/tmp/cpic-2node-check-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  const std::string partner =
      "[[partner_lu]]\nalias = \"LUB\"\nlu_name = \"NETA.LUB\"\nowning_cp = \"NETA.NODEB\"\n";
  const std::pair<std::string, std::string> cases[] = {
      {"[node]\nnetwork_id = \"NETA\"\n" + partner, "[network] is not enabled"},
      {"[network]\nenabled = true\n", "cp_name"},
      {"[node]\nnetwork_id = \"NETA\"\n[network]\nenabled = true\ncp_name = \"NETB.CP\"\n",
       "is not in the network NETA"},
      {"[[mode]]\nname = \"#INTER\"\nmax_ru_size = 100\n", "max_ru_size"},
      {"[[mode]]\nname = \"#INTER\"\npacing_window = 64\n", "pacing_window"},
      {"[network]\nimpair = \"loss=2\"\n", "impair = \"loss=2\": \"loss=2\": a rate is"},
  };
  const auto check = [&](const std::string &text) {
    std::ofstream(dir / "node.toml") << text;
    return ctl_test::run_command(std::string(SNANODED_PATH) + " --check " +
                                 (dir / "node.toml").string() + " 2>&1");
  };
  for (const auto &[text, expected] : cases) {
    const auto [status, said] = check(text);
    EXPECT_NE(status, 0) << text;
    EXPECT_NE(said.find(expected), std::string::npos) << text << "\n" << said;
  }
  EXPECT_EQ(check("[node]\nnetwork_id = \"NETA\"\n[network]\nenabled = true\n"
                  "cp_name = \"NETA.NODEA\"\n" +
                  partner)
                .first,
            0);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace e2e
