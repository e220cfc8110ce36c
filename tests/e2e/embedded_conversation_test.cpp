// Conversations through libcpic and the embedded engine, TPs on threads of
// one process: blocking ping-pong, non-blocking verbs collected by CMWAIT,
// and a thousand conversations open at once.
#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cpic.h"

namespace {

using ConvId = std::array<unsigned char, 8>;

// Each test runs in a process of its own, so the node configuration it
// writes here is the one the embedded node reads on its first verb.
void use_config(const std::string &toml) {
  const auto dir =
      std::filesystem::temp_directory_path() / ("engine_e2e_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  const auto file = dir / "snanode.toml";
  std::ofstream(file) << toml;
  ::setenv("SNANODE_CONFIG", file.c_str(), 1);
}

void register_tp(const std::string &name) {
  CM_INT32 length = static_cast<CM_INT32>(name.size());
  CM_RETURN_CODE rc;
  cmsltp(reinterpret_cast<unsigned char *>(const_cast<char *>(name.data())), &length, &rc);
  ASSERT_EQ(rc, CM_OK);
}

ConvId allocate(const std::string &tp_name, CM_PROCESSING_MODE mode = CM_BLOCKING) {
  ConvId id{};
  unsigned char blank[9] = "        ";
  CM_RETURN_CODE rc;
  cminit(id.data(), blank, &rc);
  EXPECT_EQ(rc, CM_OK);
  std::string partner = "LOCAL", mode_name = "#INTER";
  CM_INT32 length = static_cast<CM_INT32>(partner.size());
  cmspln(id.data(), reinterpret_cast<unsigned char *>(partner.data()), &length, &rc);
  EXPECT_EQ(rc, CM_OK);
  length = static_cast<CM_INT32>(mode_name.size());
  cmsmn(id.data(), reinterpret_cast<unsigned char *>(mode_name.data()), &length, &rc);
  EXPECT_EQ(rc, CM_OK);
  std::string tp = tp_name;
  length = static_cast<CM_INT32>(tp.size());
  cmstpn(id.data(), reinterpret_cast<unsigned char *>(tp.data()), &length, &rc);
  EXPECT_EQ(rc, CM_OK);
  cmallc(id.data(), &rc);
  EXPECT_EQ(rc, CM_OK);
  cmspm(id.data(), &mode, &rc);
  EXPECT_EQ(rc, CM_OK);
  return id;
}

CM_RETURN_CODE send(ConvId &id, const std::string &data, CM_SEND_TYPE type) {
  CM_RETURN_CODE rc;
  cmsst(id.data(), &type, &rc);
  if (rc != CM_OK) return rc;
  CM_INT32 length = static_cast<CM_INT32>(data.size());
  CM_REQUEST_TO_SEND_RECEIVED rts;
  cmsend(id.data(), reinterpret_cast<unsigned char *>(const_cast<char *>(data.data())), &length,
         &rts, &rc);
  return rc;
}

struct Received {
  CM_RETURN_CODE rc = -1;
  CM_DATA_RECEIVED_TYPE data = 0;
  CM_STATUS_RECEIVED status = 0;
  std::string text;
};

Received receive(ConvId &id) {
  std::vector<unsigned char> buffer(1024);
  CM_INT32 max = static_cast<CM_INT32>(buffer.size()), length = 0;
  CM_REQUEST_TO_SEND_RECEIVED rts;
  Received r;
  cmrcv(id.data(), buffer.data(), &max, &r.data, &length, &r.status, &rts, &r.rc);
  r.text.assign(buffer.begin(), buffer.begin() + length);
  return r;
}

// The partner's record and the turn that follows it, whether the two come
// in one receive or two.
std::string receive_echo(ConvId &id) {
  Received r = receive(id);
  EXPECT_EQ(r.rc, CM_OK);
  if (r.rc == CM_OK && r.status != CM_SEND_RECEIVED) {
    EXPECT_EQ(receive(id).status, CM_SEND_RECEIVED);
  }
  return r.text;
}

// Echoes every record back with the turn until the partner deallocates.
void echo_server(int conversations) {
  for (int i = 0; i < conversations; ++i) {
    ConvId id{};
    CM_RETURN_CODE rc;
    cmaccp(id.data(), &rc);
    ASSERT_EQ(rc, CM_OK);
    for (;;) {
      Received r = receive(id);
      if (r.rc == CM_DEALLOCATED_NORMAL) break;
      ASSERT_EQ(r.rc, CM_OK);
      if (r.status != CM_SEND_RECEIVED) {
        ASSERT_EQ(receive(id).status, CM_SEND_RECEIVED);
      }
      ASSERT_EQ(send(id, r.text, CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
    }
  }
}

// Takes `conversations` conversations as they come, answers each once and
// keeps it open; all of them end only after the last has been answered.
void serve_once_each(int conversations) {
  std::vector<ConvId> open;
  for (int i = 0; i < conversations; ++i) {
    ConvId id{};
    CM_RETURN_CODE rc;
    cmaccp(id.data(), &rc);
    ASSERT_EQ(rc, CM_OK);
    const std::string text = receive_echo(id);
    ASSERT_EQ(send(id, text, CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
    open.push_back(id);
  }
  for (auto &id : open) EXPECT_EQ(receive(id).rc, CM_DEALLOCATED_NORMAL);
}

void deallocate(ConvId &id) {
  CM_DEALLOCATE_TYPE flush = CM_DEALLOCATE_FLUSH;
  CM_RETURN_CODE rc;
  cmsdt(id.data(), &flush, &rc);
  cmdeal(id.data(), &rc);
  EXPECT_EQ(rc, CM_OK);
}

TEST(EmbeddedConversation, BlockingPingPong) {
  register_tp("ECHO");
  std::thread server(echo_server, 1);
  ConvId id = allocate("ECHO");
  for (int i = 0; i < 20; ++i) {
    const std::string ping = "ping " + std::to_string(i);
    ASSERT_EQ(send(id, ping, CM_SEND_AND_PREP_TO_RECEIVE), CM_OK);
    EXPECT_EQ(receive_echo(id), ping);
  }
  deallocate(id);
  server.join();
}

TEST(EmbeddedConversation, NonBlockingReceivesCollectedByCmwait) {
  constexpr int kConversations = 8;
  register_tp("ECHO");
  std::thread server(serve_once_each, kConversations);
  std::vector<ConvId> ids;
  std::vector<std::vector<unsigned char>> buffers(kConversations, std::vector<unsigned char>(64));
  struct Out {
    CM_INT32 max = 64, length = 0;
    CM_DATA_RECEIVED_TYPE data = 0;
    CM_STATUS_RECEIVED status = 0;
    CM_REQUEST_TO_SEND_RECEIVED rts = 0;
    CM_RETURN_CODE rc = -1;
  };
  std::vector<Out> out(kConversations);
  for (int i = 0; i < kConversations; ++i) {
    ids.push_back(allocate("ECHO", CM_NON_BLOCKING));
    ASSERT_EQ(send(ids[i], "conv " + std::to_string(i), CM_BUFFER_DATA), CM_OK);
    Out &o = out[i];
    cmrcv(ids[i].data(), buffers[i].data(), &o.max, &o.data, &o.length, &o.status, &o.rts, &o.rc);
    ASSERT_EQ(o.rc, CM_OPERATION_INCOMPLETE);
  }
  std::set<int> collected;
  for (int n = 0; n < kConversations; ++n) {
    ConvId done{};
    CM_RETURN_CODE conv_rc = -1, rc = -1;
    cmwait(done.data(), &conv_rc, &rc);
    ASSERT_EQ(rc, CM_OK);
    EXPECT_EQ(conv_rc, CM_OK);
    int which = -1;
    for (int i = 0; i < kConversations; ++i) {
      if (std::memcmp(ids[i].data(), done.data(), 4) == 0) which = i;
    }
    ASSERT_GE(which, 0);
    EXPECT_TRUE(collected.insert(which).second) << "collected twice";
    EXPECT_EQ(std::string(buffers[which].begin(), buffers[which].begin() + out[which].length),
              "conv " + std::to_string(which));
  }
  ConvId none{};
  CM_RETURN_CODE conv_rc, rc;
  cmwait(none.data(), &conv_rc, &rc);
  EXPECT_EQ(rc, CM_PROGRAM_STATE_CHECK);  // nothing left outstanding
  for (auto &id : ids) {
    CM_PROCESSING_MODE blocking = CM_BLOCKING;
    cmspm(id.data(), &blocking, &rc);
    if (out[&id - ids.data()].status != CM_SEND_RECEIVED) {
      EXPECT_EQ(receive(id).status, CM_SEND_RECEIVED);
    }
    deallocate(id);
  }
  server.join();
}

TEST(EmbeddedConversation, AThousandConversationsAtOnce) {
  constexpr int kConversations = 1000;
  use_config("[[mode]]\nname = \"#INTER\"\nsession_limit = 2000\n");
  register_tp("MANY");
  std::thread server(serve_once_each, kConversations);
  std::vector<ConvId> ids;
  for (int i = 0; i < kConversations; ++i) {
    ids.push_back(allocate("MANY"));
    ASSERT_EQ(send(ids.back(), "n" + std::to_string(i), CM_BUFFER_DATA), CM_OK);
  }
  for (int i = 0; i < kConversations; ++i) {
    CM_RETURN_CODE rc;
    cmptr(ids[i].data(), &rc);
    ASSERT_EQ(rc, CM_OK);
    ASSERT_EQ(receive_echo(ids[i]), "n" + std::to_string(i));
  }
  for (auto &id : ids) deallocate(id);
  server.join();
}

}  // namespace
