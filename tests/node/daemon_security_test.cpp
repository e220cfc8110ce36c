// The node's security model: what one user of the node may not do to another
// (take a TP's attaches or its verified user, squat on the daemon's socket,
// point root's logs or configuration somewhere), and what each user still
// may.  The broker cases run anywhere; the cases with processes of other
// users need root and are skipped without it.
#include <gmock/gmock.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <functional>

#include "client/daemon_client.h"
#include "core/log_files.h"
#include "node/broker_test_support.h"
#include "node/daemon_test_support.h"
#include "snanode/verbs.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using namespace snanode;
using namespace daemon_test;
using broker_test::RecordingOutput;
using client::AcceptWait;
using client::AllocateRequest;
using client::AllocateResult;
using client::AttachDelivery;
using daemon::ClientId;

// Ids no account of the host uses; processes may take them all the same.
constexpr uid_t kOwnerUid = 64101;
constexpr uid_t kIntruderUid = 64102;
constexpr gid_t kNodeGid = 64100;  // the group of the daemon's socket
constexpr uid_t kNobodyUid = 65534;

#define REQUIRE_ROOT() \
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run processes as other users"

AllocateRequest as_alice(AllocateRequest request) {
  request.security_type = 2;
  request.user_id = "alice";
  request.password = "secret";
  return request;
}

AllocateRequest claiming_alice(AllocateRequest request) {
  request.security_type = 1;
  request.allocator_user = "alice";
  return request;
}

config::InvokableTp tp(const std::string &name) {
  config::InvokableTp tp;
  tp.tp_name = name;
  tp.program = "/bin/true";
  return tp;
}

// The broker with clients of several uids, as the daemon sees them; every
// invokable TP here belongs to kOwnerUid.
class BrokerSecurity : public broker_test::BrokerFixture {
 protected:
  BrokerSecurity()
      : BrokerFixture(
            [] {
              config::NodeConfig config;
              config.local_lus = {{"LOCAL", "APPN.LOCAL", true}};
              auto secure = tp("SECURE");
              secure.security_required = true;
              auto single = tp("SINGLE");
              single.max_instances = 1;
              config.tps = {tp("PAYROLL"), secure, tp("DEFAULTS"), single, tp("THIRD")};
              config.users = {{"alice", "secret"}};
              config.max_started_tps = 9;
              return config;
            }(),
            nullptr, [](const config::InvokableTp &) { return kOwnerUid; }) {}
  uint32_t last_secondary(ClientId client) { return last_result(client).secondary; }
};

TEST_F(BrokerSecurity, AnotherUidTakesNeitherATpsAttachesNorItsVerifiedUser) {
  const ClientId root = join(0);
  const ClientId intruder = join(kIntruderUid);
  // The intruder waits for PAYROLL first; the attach is not its.
  ASSERT_TRUE(handle(intruder, AcceptWait{1, {"PAYROLL"}}));
  ASSERT_TRUE(handle(intruder, client::RegisterTp{"PAYROLL"}));
  ASSERT_TRUE(handle(root, as_alice(request("PAYROLL"))));
  EXPECT_EQ(last_secondary(root), 0u);
  EXPECT_TRUE(attaches(intruder).empty());
  EXPECT_EQ(out_.launches, std::vector<std::string>{"PAYROLL@LOCAL"});
  EXPECT_THAT(out_.all_logs(), HasSubstr("refused TP name PAYROLL"));
  // The program the node started (its owner's uid) takes it, with alice.
  const ClientId instance = join(kOwnerUid);
  ASSERT_TRUE(handle(instance, AcceptWait{2, {"PAYROLL"}}));
  ASSERT_EQ(attaches(instance).size(), 1u);
  EXPECT_EQ(attaches(instance)[0].user, std::optional<std::string>("alice"));

  // SAME passes alice on from the process that was given her, from no other.
  ASSERT_TRUE(handle(intruder, claiming_alice(request("SECURE"))));
  EXPECT_EQ(last_secondary(intruder), AP_SECURITY_NOT_VALID);
  ASSERT_TRUE(handle(instance, claiming_alice(request("SECURE"))));
  EXPECT_EQ(last_secondary(instance), 0u);

  // A name no TP definition owns belongs to the first uid that serves it:
  // other processes of that uid share it, another uid's are refused.
  ASSERT_TRUE(handle(intruder, client::RegisterTp{"LEDGER"}));
  ASSERT_TRUE(handle(instance, AcceptWait{3, {"LEDGER"}}));
  const ClientId intruder_too = join(kIntruderUid);
  ASSERT_TRUE(handle(intruder_too, AcceptWait{4, {"LEDGER"}}));
  ASSERT_TRUE(handle(root, request("LEDGER")));
  EXPECT_EQ(attaches(instance).size(), 1u);
  EXPECT_EQ(attaches(intruder_too).size(), 1u);
}

TEST_F(BrokerSecurity, StartedProgramsAreLimitedAndTheNextQueuedAttachStartsOne) {
  const ClientId root = join(0);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(handle(root, request("DEFAULTS")));
  EXPECT_EQ(out_.launches.size(), 8u) << "a TP with no max_instances runs 8 at most";

  // The LU a started TP is told comes from the node's definition, never from
  // what the allocating process wrote.
  auto odd_lu = request("SINGLE");
  odd_lu.local_lu_alias = "X;EVIL";
  ASSERT_TRUE(handle(root, odd_lu));
  ASSERT_TRUE(handle(root, odd_lu));
  EXPECT_EQ(out_.launches.back(), "SINGLE@LOCAL");
  // The node runs 9 started programs at most, whatever each TP allows.
  ASSERT_TRUE(handle(root, request("THIRD")));
  EXPECT_EQ(out_.launches.size(), 9u);
  EXPECT_THAT(out_.all_logs(), HasSubstr("the node's limit"));

  // SINGLE's instance takes one attach and ends: the one still queued starts
  // the next instance rather than waiting out its time.
  const ClientId single = join(kOwnerUid);
  ASSERT_TRUE(handle(single, AcceptWait{1, {"SINGLE"}}));
  ASSERT_EQ(attaches(single).size(), 1u);
  EXPECT_EQ(attaches(single)[0].local_lu_alias, "LOCAL");
  broker_.instance_exited("SINGLE");
  EXPECT_EQ(std::count(out_.launches.begin(), out_.launches.end(), "SINGLE@LOCAL"), 2);
}

// Runs `body` in a child process under uid (group the same number, member of
// kNodeGid too); its exit status, or -1.
int as_user(uid_t uid, const std::function<int()> &body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const gid_t groups[] = {kNodeGid};
    if (::setgroups(1, groups) != 0 || ::setgid(uid) != 0 || ::setuid(uid) != 0) ::_exit(120);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The next message within `limit`, or nothing.
std::optional<client::ReceivedMessage> receive_within(client::MessageChannel &channel,
                                                      std::chrono::milliseconds limit) {
  const timeval tv{0, static_cast<suseconds_t>(limit.count() * 1000)};
  ::setsockopt(channel.fd(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  try {
    return channel.receive();
  } catch (const client::ProtocolError &) {
    return std::nullopt;
  }
}

// A scratch directory other users can pass through (not list or write).
struct SharedScratch : TempDir {
  SharedScratch() { ::chmod(path.c_str(), 0711); }
  fs::path owned_by(const std::string &name, uid_t uid, mode_t mode = 0755) const {
    const fs::path dir = path / name;
    fs::create_directory(dir);
    ::chmod(dir.c_str(), mode);
    EXPECT_EQ(::chown(dir.c_str(), uid, uid), 0);
    return dir;
  }
};

// snanoded run as root in the socket group kNodeGid, the way an
// administrator gives the node's users a group.
class RootDaemon : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_ROOT(); }
  void TearDown() override { stop(); }
  void stop() {
    if (daemon_ > 0) {
      ::kill(daemon_, SIGTERM);
      ::waitpid(daemon_, nullptr, 0);
    }
    daemon_ = -1;
  }
  // Starts it with `args` in `cwd`; its exit status when it stopped at once
  // (standard error in `output_`), or -1 once it serves `socket_`.
  int start(std::vector<std::string> args, const fs::path &cwd) {
    stop();
    const fs::path out = scratch_.path / "daemon.out";
    args.insert(args.begin(), {SNANODED_PATH, "--foreground", "--socket", socket_});
    daemon_ = ::fork();
    if (daemon_ == 0) {
      ::unsetenv("SNANODE_CONFIG");
      ::setenv("SNANODE_LOG_DIR", scratch_.path.c_str(), 1);
      const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(fd, STDERR_FILENO);
      if (::chdir(cwd.c_str()) != 0 || ::setgroups(0, nullptr) != 0 || ::setgid(kNodeGid) != 0) {
        ::_exit(121);
      }
      std::vector<char *> argv;
      for (auto &arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      ::execv(SNANODED_PATH, argv.data());
      ::_exit(127);
    }
    for (int tries = 0; tries < 500; ++tries) {
      int status = 0;
      if (::waitpid(daemon_, &status, WNOHANG) == daemon_) {
        daemon_ = -1;
        std::getline(std::ifstream(out), output_, '\0');
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
      }
      if (client::connect_unix_socket(socket_).valid()) return -1;
      std::this_thread::sleep_for(10ms);
    }
    return -2;
  }
  fs::path config(const std::string &name, const std::string &text, uid_t owner = 0,
                  mode_t mode = 0644) {
    const fs::path file = scratch_.path / name;
    write_file(file, text);
    ::chmod(file.c_str(), mode);
    EXPECT_EQ(::chown(file.c_str(), owner, owner), 0);
    return file;
  }

  SharedScratch scratch_;
  std::string socket_ = (scratch_.path / "node.sock").string();
  pid_t daemon_ = -1;
  std::string output_;
};

TEST_F(RootDaemon, RefusesWhatAnotherUserCouldHavePutInItsWay) {
  const std::string tp_rest = "\"\nuser = \"nobody\"\n";
  const fs::path theirs = config("theirs.toml", "[node]\nname = \"THEIRS\"\n", kIntruderUid);
  EXPECT_EQ(start({"--config", theirs}, scratch_.path), 1);
  EXPECT_THAT(output_, HasSubstr("owned by uid 64102"));

  const fs::path open_file = config("open.toml", "[node]\n", 0, 0666);
  EXPECT_EQ(start({"--config", open_file}, scratch_.path), 1);
  EXPECT_THAT(output_, HasSubstr("writable by group or others"));

  const fs::path program = scratch_.path / "their-program";
  fs::copy_file("/bin/true", program);
  ASSERT_EQ(::chown(program.c_str(), kIntruderUid, kIntruderUid), 0);
  const fs::path their_program =
      config("program.toml", "[[tp]]\ntp_name = \"T\"\nprogram = \"" + program.string() + tp_rest);
  EXPECT_EQ(start({"--config", their_program}, scratch_.path), 1);
  EXPECT_THAT(output_, HasSubstr("TP T: program"));

  const fs::path as_root =
      config("root.toml", "[[tp]]\ntp_name = \"T\"\nprogram = \"/bin/true\"\n");
  // A TP that would run as root by default is never started; the rest of the
  // node serves on.
  EXPECT_EQ(start({"--config", as_root}, scratch_.path), -1);
  std::getline(std::ifstream(scratch_.path / "daemon.out"), output_, '\0');
  EXPECT_THAT(output_, HasSubstr("names no user"));
  EXPECT_THAT(output_, HasSubstr("it will not be started"));

  // A socket in a directory another user owns could be taken from under it.
  const fs::path their_dir = scratch_.owned_by("their-dir", kIntruderUid);
  socket_ = (their_dir / "node.sock").string();
  EXPECT_EQ(start({}, scratch_.path), 1);
  EXPECT_THAT(output_, HasSubstr("socket directory refused"));

  // Started in another user's directory, the daemon ignores its snanode.toml.
  socket_ = (scratch_.path / "node.sock").string();
  const fs::path cwd = scratch_.owned_by("cwd", kIntruderUid);
  write_file(cwd / "snanode.toml", "[node]\nname = \"THEIRS\"\n");
  ASSERT_EQ(start({}, cwd), -1) << output_;
  std::string node_name;
  ASSERT_TRUE(greet(socket_, &node_name));
  EXPECT_EQ(node_name, "SNANODE");
}

TEST_F(RootDaemon, AnIntruderInTheSocketGroupGetsNoAttachAndNoUser) {
  const fs::path out = scratch_.owned_by("out", kNobodyUid);
  const fs::path file =
      config("node.toml",
             "[[user]]\nuser_id = \"alice\"\npassword = \"secret\"\n"
             "[[tp]]\ntp_name = \"PAYROLL\"\nprogram = \"/bin/sh\"\nuser = \"nobody\"\n"
             "arguments = [\"-c\", \"echo $(id -u) $APPCLLU > " +
                 (out / "payroll").string() +
                 "\"]\nqueue_timeout_ms = 300\n"
                 "[[tp]]\ntp_name = \"SECURE\"\nprogram = \"/bin/true\"\nuser = \"nobody\"\n"
                 "security_required = true\nqueue_timeout_ms = 300\n");
  ASSERT_EQ(start({"--config", file}, scratch_.path), -1) << output_;

  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t intruder = ::fork();
  if (intruder == 0) {
    ::_exit(as_user(kIntruderUid, [&] {
      auto channel = greet(socket_);
      if (!channel || !channel->send(AcceptWait{1, {"PAYROLL"}})) return 10;
      // The answer to an allocation says the accept-wait before it is handled.
      if (!channel->send(request_for("NOBODYHERE")) || !channel->receive()) return 11;
      (void)!::write(ready[1], "r", 1);
      if (receive_within(*channel, 800ms)) return 1;  // root's attach, and alice with it
      auto same = claiming_alice(request_for("SECURE"));
      same.request_id = 2;
      if (!channel->send(same)) return 12;
      auto result = receive_within(*channel, 2s);
      const auto *answer = result ? std::get_if<AllocateResult>(&result->message) : nullptr;
      return answer != nullptr && answer->secondary == AP_SECURITY_NOT_VALID ? 0 : 2;
    }));
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  auto root = greet(socket_);
  ASSERT_TRUE(root);
  auto payroll = as_alice(request_for("PAYROLL"));
  payroll.local_lu_alias = "BOGUS";
  ASSERT_TRUE(root->send(payroll));
  auto result = root->receive();
  ASSERT_TRUE(result);
  EXPECT_EQ(std::get<AllocateResult>(result->message).primary, AP_OK);
  int status = 0;
  ::waitpid(intruder, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: the intruder got the attach; 2: SAME passed alice on";

  // The configured program ran, as its user, at the LU the node defines.
  std::string line;
  for (int tries = 0; tries < 200 && line.empty(); ++tries) {
    std::getline(std::ifstream(out / "payroll"), line);
    if (line.empty()) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(line, "65534 LOCAL");
}

class NoEvents : public client::DaemonEvents {
  void allocated(const client::AllocateResult &, client::UniqueFd) override {}
  void attached(client::AttachDelivery, client::UniqueFd) override {}
};

TEST_F(RootDaemon, AProgramTellsASquatterNothing) {
  const fs::path squat = scratch_.owned_by("squat", kIntruderUid) / "node.sock";
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t squatter = ::fork();
  if (squatter == 0) {
    ::_exit(as_user(kIntruderUid, [&] {
      const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, squat.c_str(), sizeof address.sun_path - 1);
      if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return 100;
      ::chmod(squat.c_str(), 0666);
      ::listen(fd, 1);
      (void)!::write(ready[1], "r", 1);
      const int peer = ::accept(fd, nullptr, nullptr);
      char buffer[256];
      const ssize_t n = ::read(peer, buffer, sizeof buffer);  // the hello, or nothing
      return static_cast<int>(std::min<ssize_t>(std::max<ssize_t>(n, 0), 99));
    }));
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  NoEvents events;
  EXPECT_EQ(client::DaemonClient::connect(squat, events, nullptr), nullptr);
  int status = 0;
  ::waitpid(squatter, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "bytes the squatter read";

  // The real daemon, root's, is used.
  ASSERT_EQ(start({}, scratch_.path), -1) << output_;
  EXPECT_NE(client::DaemonClient::connect(socket_, events, nullptr), nullptr);
}

TEST(LogFiles, NeverWrittenThroughAnotherUsersDirectoryOrLink) {
  REQUIRE_ROOT();
  SharedScratch scratch;
  const fs::path target = scratch.path / "target";
  fs::create_directory(target);
  const auto append_in = [](const fs::path &dir) {
    ::setenv("SNANODE_LOG_DIR", dir.c_str(), 1);
    append_log_line("audit.log", "a record");
  };
  // A link another user planted where the log directory belongs.
  const fs::path link = scratch.path / "link";
  fs::create_directory_symlink(target, link);
  ASSERT_EQ(::lchown(link.c_str(), kIntruderUid, kIntruderUid), 0);
  append_in(link);
  EXPECT_FALSE(fs::exists(target / "audit.log"));
  // A directory another user owns.
  const fs::path theirs = scratch.owned_by("theirs", kIntruderUid);
  append_in(theirs);
  EXPECT_FALSE(fs::exists(theirs / "audit.log"));
  // A link in place of the file.
  const fs::path own = scratch.path / "own";
  fs::create_directory(own);
  fs::create_symlink(target / "victim", own / "audit.log");
  append_in(own);
  EXPECT_FALSE(fs::exists(target / "victim"));

  // A directory of its own is made, closed to others, and written.
  const fs::path fresh = scratch.path / "fresh" / "logs";
  append_in(fresh);
  EXPECT_EQ(fs::status(fresh).permissions() & fs::perms::others_all, fs::perms::none);
  std::string line;
  std::getline(std::ifstream(fresh / "audit.log"), line);
  EXPECT_EQ(line, "a record");
  ::unsetenv("SNANODE_LOG_DIR");
}

}  // namespace
