// A daemon connection in a process at its open-file limit: a descriptor the
// kernel cannot install costs only the message it came with, and the
// descriptors after it still pair with their own messages.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "client/message_channel.h"

namespace {

using namespace snanode::client;

// The same open file: the same device and inode.
bool same_file(int a, int b) {
  struct stat sa {
  }, sb{};
  return ::fstat(a, &sa) == 0 && ::fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

std::vector<ReceivedMessage> receive(MessageChannel &channel, size_t count) {
  std::vector<ReceivedMessage> got;
  while (got.size() < count && channel.read_some()) {
    while (auto m = channel.next()) got.push_back(std::move(*m));
  }
  return got;
}

TEST(MessageChannelLimit, ALostDescriptorFailsOnlyItsOwnMessage) {
  int pair[2], lost[2], kept[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  ASSERT_EQ(::pipe(lost), 0);
  ASSERT_EQ(::pipe(kept), 0);
  MessageChannel sender{UniqueFd(pair[0])};
  MessageChannel receiver{UniqueFd(pair[1])};

  // No descriptor can be opened: the limit is the lowest free number.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  const int lowest_free = ::dup(0);
  ASSERT_GE(lowest_free, 0);
  ::close(lowest_free);
  rlimit low = saved;
  low.rlim_cur = static_cast<rlim_t>(lowest_free);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  ASSERT_TRUE(sender.send(AllocateResult{1, 0, 0}, lost[1]));
  ASSERT_TRUE(sender.send(RegisterTp{"NOFD"}));
  std::vector<ReceivedMessage> got = receive(receiver, 2);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);

  AttachDelivery attach;
  attach.accept_id = 7;
  ASSERT_TRUE(sender.send(attach, kept[1]));
  for (auto &m : receive(receiver, 1)) got.push_back(std::move(m));

  ASSERT_EQ(got.size(), 3u);
  ASSERT_TRUE(std::holds_alternative<AllocateResult>(got[0].message));
  EXPECT_TRUE(got[0].descriptor_lost);
  EXPECT_FALSE(got[0].descriptor.valid());
  ASSERT_TRUE(std::holds_alternative<RegisterTp>(got[1].message));
  EXPECT_FALSE(got[1].descriptor_lost);
  ASSERT_TRUE(std::holds_alternative<AttachDelivery>(got[2].message));
  EXPECT_EQ(std::get<AttachDelivery>(got[2].message).accept_id, 7u);
  EXPECT_FALSE(got[2].descriptor_lost);
  ASSERT_TRUE(got[2].descriptor.valid());
  EXPECT_TRUE(same_file(got[2].descriptor.get(), kept[1]));
  for (int fd : {lost[0], lost[1], kept[0], kept[1]}) ::close(fd);
}

}  // namespace
