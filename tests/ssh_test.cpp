#include "pnl/ssh.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "support/dialogue.h"
#include "support/error_of.h"
#include "support/faults.h"
#include "support/lab.h"
#include "support/temp_dir.h"

namespace {

using pnl_rpc::HostKeys;
using pnl_rpc::SSH;
using support::LabNode;
using support::Seconds;

class SshTest : public support::LabTest {
 protected:
  static pnl_rpc::SshOptions To(const LabNode& node) {
    return {.host = node.Address(),
            .key_file = support::LabKey(),
            .known_hosts = support::LabKnownHosts(),
            .connect_timeout = 3};
  }
};

// The type of the error that `call` throws; "" when it throws none.
std::string TypeOf(const std::function<void()>& call) {
  const auto error = support::Caught(call);
  if (!error) return "";
  EXPECT_FALSE(error->object().empty());
  EXPECT_FALSE(error->param("reason").empty());
  return error->type();
}

TEST_F(SshTest, OutputAndExitCode) {
  const LabNode node("debian12", {.sshd = {"MaxSessions 1"}});
  SSH ssh(To(node));
  const struct {
    std::string command;
    std::string output;
    int code;
    std::string complaint = "";
  } kCases[] = {
      {"echo out; echo err >&2; exit 3", "out\n", 3, "err\n"},
      {"printf 'a\\0b'", {"a\0b", 3}, 0},
      {"head -c 3000000 /dev/zero", std::string(3000000, '\0'), 0},
      {"seq 1000000 >&2", "", 0, pnl_proc::Execute("seq 999416 1000000").Str()},  // just 4 KiB
      {"exec >&- 2>&-; sleep 0.2; exit 5", "", 5},
      {"kill -9 $$", "", 137},
      {"kill -TERM $$", "", 143},
      {"no-such-program 2>/dev/null", "", 127},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.command);
    SSH command = ssh.Execute(c.command);
    EXPECT_EQ(command.Result(), c.code);
    EXPECT_TRUE(command.Str() == c.output);
    EXPECT_EQ(command.Result(), c.code);
    EXPECT_EQ(command.Complaint(), c.complaint);
    EXPECT_TRUE(ssh.Execute(c.command).Str() == c.output);
    EXPECT_EQ(ssh.Result(), c.code);  // of the command that ran last
  }
  SSH large = ssh.Execute("head -c 100000000 /dev/zero; exit 6");
  EXPECT_EQ(large.Result(), 6);
  EXPECT_EQ(TypeOf([&] { large.Str(); }), "ssh_exec");  // dropped, and that is not empty
}

TEST_F(SshTest, NoAmountOfDataBlocks) {
  const LabNode node;
  SSH ssh(To(node));
  const std::string data(std::size_t{64} << 20, 'x');
  SSH both = ssh.Execute("tee /dev/stderr");
  both.In() << data;
  EXPECT_TRUE(both.Str() == data);

  SSH back = ssh.Execute("cat");
  back.In().write(data.data(), 100'000);
  back.CloseIn();
  std::string block(65'536, '\0');
  back.Out().read(block.data(), 65'536);
  EXPECT_EQ(back.Out().gcount(), 65'536);
  back.Out().read(block.data(), 65'536);
  EXPECT_EQ(back.Out().gcount(), 100'000 - 65'536);
  EXPECT_TRUE(back.Out().eof());

  SSH deaf = ssh.Execute("exit 4");
  deaf.In() << data;
  EXPECT_TRUE(deaf.In().bad());
  EXPECT_EQ(deaf.Result(), 4);
}

TEST_F(SshTest, Dialogue) {
  const LabNode node;
  SSH ssh(To(node));
  support::ExpectDialogue(ssh.Execute(support::kAnswering));
}

TEST_F(SshTest, CommandsEndWithTheirLastCopyOrTheNext) {
  const LabNode node;
  SSH ssh(To(node));
  {
    SSH copy = ssh;
    copy = ssh.Execute("cat >/root/copied");
    SSH other = copy;
    copy = ssh;
    other.In() << "text";
  }
  EXPECT_EQ(pnl_file::Read(node.Root() / "root/copied"), "text");
  SSH first = ssh.Execute("cat; exit 7");
  first.In() << "kept";
  EXPECT_EQ(ssh.Execute("echo second").Str(), "second\n");
  EXPECT_EQ(first.Result(), 7);
  EXPECT_EQ(first.Str(), "kept");
  // What nobody has read of a released command is the session's.
  ssh.Execute("echo hi; echo no >&2; exit 3");
  EXPECT_EQ(ssh.Str() + ssh.Complaint() + std::to_string(ssh.Result()), "hi\nno\n3");
  EXPECT_EQ(ssh.Str(), "");
  // A daemon that keeps the streams does not hold up the exit code.
  EXPECT_LT(Seconds([&] {
              EXPECT_EQ(ssh.Execute("sleep 20 & exit 8").Result(), 8);
              EXPECT_EQ(ssh.Execute("sleep 20 & echo up").Said(), "up\n");
              SSH held = ssh.Execute("exec 3<&0; sleep 20 <&3 & exit 9");
              held.In() << std::string(10'000'000, 'x');
              EXPECT_EQ(held.Result(), 9);
            }),
            15);
}

TEST_F(SshTest, SilentCommandOnALiveConnectionGoesOn) {
  const LabNode node;
  SSH ssh(To(node));
  ssh.SetTimeout(1);
  const std::clock_t before = std::clock();
  EXPECT_EQ(ssh.Execute("sleep 3; echo alive").Str(), "alive\n");
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2);  // processor time
}

// A command, what happens to its node while it runs, and how it ends.
TEST_F(SshTest, LostConnections) {
  const struct {
    std::string fault;
    std::string error;
    std::function<void(SSH&)> call;
  } kCases[] = {
      {"silence", "ssh_timeout", [](SSH& command) { command.Str(); }},
      {"unplug", "ssh_timeout", [](SSH& command) { command.Result(); }},
      {"unplug", "ssh_timeout", [](SSH& command) { command.Out().get(); }},
      {"unplug", "ssh_timeout",
       [](SSH& command) {
         command.In() << std::string(std::size_t{10} << 20, 'x');
         EXPECT_TRUE(command.In().bad());
       }},
      {"cut", "ssh_closed", [](SSH& command) { command.Str(); }},
      {"cut", "ssh_closed", [](SSH& command) { command.Out().get(); }},
      {"cut", "ssh_closed", [](SSH& command) { command.Result(); }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.fault);
    const LabNode node;
    SSH ssh(To(node));
    ssh.SetTimeout(2);
    SSH command = ssh.Execute("sleep 100");
    std::jthread fault([&] {
      pnl_proc::Sleep(300);
      node.Fault(c.fault);
    });
    EXPECT_LT(Seconds([&] { EXPECT_EQ(TypeOf([&] { c.call(command); }), c.error); }), 7);
    EXPECT_EQ(TypeOf([&] { command.Result(); }), "ssh_closed");
    EXPECT_EQ(TypeOf([&] { ssh.Execute("true"); }), "ssh_closed");
  }
}

TEST_F(SshTest, RefusedLogins) {
  const LabNode node("debian12", {.sshd = {"MaxSessions 0"}});
  pnl_file::TmpDir dir("/tmp/ssh");
  const auto path = [&](const char* name) { return dir.Str() + "/" + name; };
  pnl_proc::Execute("ssh-keygen -q -t ed25519 -N '' -f " + path("other")).Result();
  pnl_proc::Execute("ssh-keygen -q -t rsa -m PEM -N secret -f " + path("locked")).Result();
  pnl_file::Write(path("junk"), "no key");
  pnl_file::Write(path("none"), "");
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  const std::string other_key = pnl_file::Read(path("other.pub"));
  pnl_file::Write(path("changed"), node.Address() + " " + other_key);
  std::string key = pnl_file::Read(support::LabKnownHosts());
  key.erase(0, key.find(' '));
  pnl_file::Write(path("revoked"), "*" + key + "@revoked\t10.99.*" + key);
  pnl_file::Write(path("negated"), "10.99.*,!" + node.Address() + key);

  // It listens, and never says a word.
  const pnl_file::Fd silent(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  address.sin6_port = htons(2222);
  ASSERT_EQ(bind(silent.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(silent.Get(), 1), 0);

  const struct {
    std::string error;
    std::function<void(pnl_rpc::SshOptions&)> change;
  } kCases[] = {
      {"ssh_exec", [](auto&) {}},
      {"ssh_auth", [&](auto& o) { o.key_file = path("other"); }},
      {"ssh_auth", [&](auto& o) { o.key_file = path("locked"); }},
      {"ssh_auth", [&](auto& o) { o.key_file = path("junk"); }},
      {"ssh_auth", [&](auto& o) { o.key_file = path("missing"); }},
      {"ssh_auth", [&](auto& o) { o.key_file.clear(); }},
      {"ssh_auth", [&](auto& o) { o.user = "nobody"; }},
      {"ssh_hostkey", [&](auto& o) { o.known_hosts = path("none"); }},
      {"ssh_hostkey", [&](auto& o) { o.known_hosts = path("missing"); }},
      {"ssh_hostkey", [&](auto& o) { o.known_hosts = path("changed"); }},
      {"ssh_hostkey", [&](auto& o) { o.known_hosts = path("fifo"); }},
      {"ssh_hostkey",
       [&](auto& o) {
         o.known_hosts = path("changed");
         o.host_keys = HostKeys::kAcceptNew;
       }},
      {"ssh_hostkey", [&](auto& o) { o.known_hosts = path("revoked"); }},
      {"ssh_hostkey",
       [&](auto& o) {
         o.known_hosts = path("revoked");
         o.host_keys = HostKeys::kAcceptNew;
       }},
      {"ssh_hostkey", [&](auto& o) { o.known_hosts = path("negated"); }},
      {"ssh_connect", [](auto& o) { o.port = 65536 + 22; }},
      {"ssh_connect", [](auto& o) { o.port = 23; }},
      {"ssh_connect", [](auto& o) { o.host = "no-such-host.invalid"; }},
      {"ssh_connect", [](auto& o) { o.host = "10.99.250.250"; }},
      {"ssh_connect",
       [](auto& o) {
         o.host = "::1";
         o.port = 2222;
         o.connect_timeout = 1;
       }},
  };
  const auto open = support::OpenDescriptors();
  for (int round = 0; round < 3; ++round) {
    for (const auto& c : kCases) {
      auto options = To(node);
      c.change(options);
      SCOPED_TRACE(&c - kCases);
      const auto log_in = [&] { SSH(options).Execute("true"); };
      EXPECT_LT(Seconds([&] { EXPECT_EQ(TypeOf(log_in), c.error); }), 6);
      EXPECT_EQ(support::OpenDescriptors(), open);
    }
  }

  // What people compare is the host's fingerprint; of several addresses each is tried.
  auto options = To(node);
  options.known_hosts = path("none");
  const std::string reason = support::ErrorOf([&] { SSH{options}; }, {"reason"});
  const std::string known = pnl_proc::Execute("ssh-keygen -lf " + support::LabKnownHosts()).Str();
  EXPECT_NE(known.find(reason.substr(reason.find("SHA256:") % reason.size())), known.npos)
      << reason;
  pnl_file::Write("/etc/hosts", "10.99.0.1 two\n" + node.Address() + " two\n");
  options.host = "two";
  options.host_keys = HostKeys::kAcceptNew;
  EXPECT_EQ(TypeOf([&] { SSH(options).Execute("true"); }), "ssh_exec");
}

TEST_F(SshTest, NewHostKeysAreAddedAndThenRequired) {
  const LabNode node;
  pnl_file::TmpDir dir("/tmp/ssh");
  auto options = To(node);
  options.known_hosts = dir.Str() + "/new/known_hosts";
  options.host_keys = HostKeys::kAcceptNew;
  EXPECT_EQ(SSH(options).Execute("echo in").Str(), "in\n");
  const std::string once = pnl_file::Read(options.known_hosts);
  options.host_keys = HostKeys::kStrict;
  EXPECT_EQ(SSH(options).Execute("echo in").Str(), "in\n");
  EXPECT_EQ(pnl_file::Read(options.known_hosts), once);

  // A last line without an end stays a line of its own.
  options.host_keys = HostKeys::kAcceptNew;
  pnl_file::Write(options.known_hosts, "# note");
  EXPECT_EQ(SSH(options).Execute("echo in").Str(), "in\n");
  EXPECT_EQ(pnl_file::Read(options.known_hosts), "# note\n" + once);

  options.known_hosts = "/dev/null";  // nothing is kept
  EXPECT_EQ(SSH(options).Execute("echo in").Str(), "in\n");

  // Lines that let it in, marked and hashed ones among them.
  options.known_hosts = dir.Str() + "/lines";
  options.host_keys = HostKeys::kStrict;
  const std::string key = once.substr(once.find(' '));
  pnl_proc::Execute("ssh-keygen -q -t ed25519 -N '' -f " + dir.Str() + "/other").Result();
  const std::string other = " " + pnl_file::Read(dir.Str() + "/other.pub");
  pnl_proc::Execute("ssh-keygen -H -f " + dir.Str() + "/new/known_hosts").Result();
  for (const std::string& lines :
       {"!10.98.*,10.99.*" + key, "#\n@revoked *" + other + "\t*" + key, "*" + other + "*" + key,
        "@cert-authority *" + other + pnl_file::Read(dir.Str() + "/new/known_hosts"),
        "10.99.*,!" + node.Address() + other + node.Address() + key}) {
    pnl_file::Write(options.known_hosts, lines);
    EXPECT_EQ(SSH(options).Execute("echo in").Str(), "in\n") << lines;
  }
}

// What is given up, or says more than anybody wants, is not waited for.
TEST_F(SshTest, EndlessOutputIsGivenUp) {
  const LabNode node("debian12", {.sshd = {"MaxSessions 1"}});
  SSH ssh(To(node));
  ssh.SetTimeout(1);
  const std::function<void(SSH&)> cases[] = {
      [](SSH& c) { EXPECT_EQ(TypeOf([&] { c.Str(100'000); }), "ssh_exec"); },
      [](SSH& c) { EXPECT_FALSE(c.Finish().has_value()); },
      [](SSH& c) {
        EXPECT_EQ(c.Out().get(), 0);
        c.Abandon();
        EXPECT_EQ(TypeOf([&] { c.Result(); }), "ssh_closed");
      },
  };
  for (const char* command : {"exec cat /dev/zero", "printf '\\0'; exec cat /dev/zero"}) {
    for (const auto& end : cases) {
      EXPECT_LT(Seconds([&] {
                  SSH endless = ssh.Execute(command);
                  end(endless);
                }),
                3);
      EXPECT_EQ(ssh.Execute("echo next").Str(), "next\n");
    }
  }
  SSH short_one = ssh.Execute("echo all; exit 3");
  short_one.Out().ignore(4);
  EXPECT_EQ(short_one.Finish(), 3);
  EXPECT_LT(Seconds([&] { EXPECT_FALSE(ssh.Execute("exec sleep 60").Finish().has_value()); }), 4);
}

// Nor is the node new when its key is there and could not be read.
TEST_F(SshTest, AnUnreadHostKeyIsNotReplaced) {
  if (!support::FaultsWork()) GTEST_SKIP() << "no faults here";
  const LabNode node;
  const pnl_file::TmpDir dir("/tmp/ssh");
  auto options = To(node);
  options.known_hosts = dir.Str() + "/changed";
  options.host_keys = HostKeys::kAcceptNew;
  pnl_proc::Execute("ssh-keygen -q -t ed25519 -N '' -f " + dir.Str() + "/other").Result();
  const std::string changed = node.Address() + " " + pnl_file::Read(dir.Str() + "/other.pub");
  pnl_file::Write(options.known_hosts, changed);
  for (const auto& [call, error] : {std::pair(SYS_openat, EMFILE), std::pair(SYS_read, EIO)}) {
    for (int nth = 1;; ++nth) {
      const auto end = support::FailNth(nth, error, {call}, [&] { SSH ssh(options); });
      EXPECT_NE(end, support::End::kSurvived) << call << ", " << nth;
      EXPECT_EQ(pnl_file::Read(options.known_hosts), changed) << call << ", " << nth;
      if (end == support::End::kClean) break;
    }
  }
}

TEST_F(SshTest, ThreadsWithASessionEach) {
  const LabNode node;
  std::vector<std::jthread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, number = std::to_string(i)] {
      SSH ssh(To(node));
      for (int turn = 0; turn < 20; ++turn) {
        SSH command = ssh.Execute("cat; echo " + number);
        command.In() << turn << '\n';
        EXPECT_EQ(command.Str(), std::to_string(turn) + "\n" + number + "\n");
      }
    });
  }
}

}  // namespace
