#include "brefir/ssh_utils.h"

#include <algorithm>
#include <functional>
#include <optional>

#include "brefir/str_utils.h"
#include "fleet/facts.h"
#include "pnl/err.h"
#include "pnl/proc.h"
#include "pnl/progress.h"
#include "support/error_of.h"
#include "support/lab.h"

namespace {

namespace file = ssh_utils::file;
namespace os_info = ssh_utils::os_info;
using Call = std::function<void()>;
using Strings = std::vector<std::string>;
using namespace std::string_literals;

/// Works in a panel's prefix that logs everything, on a node that logs its commands.
class SshUtilsTest : public support::LabTest {
 protected:
  void SetUp() override {
    support::LabTest::SetUp();
    for (const char* dir : {"/panel/var", "/panel/etc", "/panel/src"}) pnl_file::MkDir(dir);
    std::filesystem::current_path("/panel");
    pnl_file::Write("etc/log.conf", "sshutils 9\nhost 9\nproc 9\n");
    Start("debian12");
  }

  void Start(const std::string& os) {
    ssh.reset();
    node.emplace(os, support::LabOptions{{}, "", true});
    ssh.emplace(node->Login());
  }
  std::optional<support::LabNode> node;
  std::optional<pnl_rpc::SSH> ssh;
};

/// The error's text, without the system's reasons.
std::string ErrorText(const Call& call) {
  const auto error = support::Caught(call);
  const std::string text = error ? error->what() : "";
  return text.substr(0, std::min(text.find(" (errno="), text.find(" (reason=")));
}

bool Logged(const std::string& text) {
  return pnl_file::Read("var/ssh_utils_test.log").find(" " + text + "\n") != std::string::npos;
}

/// What the library left in the panel's /tmp.
std::string Temporaries() {
  return pnl_proc::Execute("ls -d /tmp/conf.* /tmp/filelist.*").Str();
}

TEST_F(SshUtilsTest, LocalHelpers) {
  EXPECT_EQ(ssh_utils::BuildSshCmd("/a b", "::1", "echo \"{IP}\""),
            "ssh -i /a b ::1 -o UserKnownHostsFile=/dev/null -o GlobalKnownHostsFile=/dev/null "
            "-o StrictHostKeyChecking=no \"echo \"{IP}\"\"");
  for (const auto& [before, after] : {std::pair{"", ""}, {"k", "k\n"}, {"k\n", "k\n"}}) {
    pnl_file::Write("key", before);
    ssh_utils::FixPublicKey("key");
    EXPECT_EQ(pnl_file::Read("key"), after);
  }
  file::DownloadWatcher watcher(100);
  watcher.OnGetData(nullptr, 50);
  EXPECT_FALSE(watcher.Finished());
  watcher.OnGetData(nullptr, 50);
  EXPECT_TRUE(watcher.Finished());
  EXPECT_TRUE(Logged("readen 50% (100 of 100)"));
}

TEST_F(SshUtilsTest, CommandLinesOnTheNode) {
  const std::string bytes = "\0\n\r\xff$'"s;
  const std::string odd = "/p/\xff\n$(`\"'";
  const std::string quoted = pnl_proc::Escape(odd);
  node->Exec("mkdir -p /p/sbin && mkfifo /p/pipe");
  file::Write(*ssh, "/p/sbin/pnlctl",
              "#!/bin/sh\n[ $2 = good ] && echo '<doc><a>1</a></doc>' || echo \"<doc><error "
              "type='exists' object='user'><param name='value'>bob</param></error></doc>\"\n");
  file::Chmod(*ssh, "/p/sbin/pnlctl", "+x");
  const auto ctl = [&](const char* dir, const char* module, const StringMap& params) {
    return ssh_utils::PnlCtl(*ssh, dir, module, "f", params).GetNode("/doc/a").Str();
  };
  pnl_file::Write("src/1", "x");
  std::string tmp;
  const std::pair<Call, Strings> cases[] = {
      {[&] { file::Write(*ssh, "/a b", bytes); },
       {R"(/bin/sh -c 'dd of='\''/a b'\'' 2>/dev/null')"}},
      {[&] { EXPECT_EQ(file::Read(*ssh, "/a b"), bytes); },
       {R"(/bin/sh -c 'dd if='\''/a b'\'' 2>/dev/null')"}},
      {[&] { file::CopyFrom(*ssh, "/a b", "src/2"); },
       {"stat -c '%s' '/a b'", R"(/bin/sh -c 'dd if='\''/a b'\'' 2>/dev/null')"}},
      {[&] { file::RemoteFile(*ssh, "/p/pipe/"); },
       {"stat -c '%s' /p/pipe/", "/bin/sh -c 'dd if=/p/pipe/ 2>/dev/null'", "test -e /p/pipe/"}},
      {[&] { file::RemoteFile(*ssh, "/p/sbin/pnlctl"); },
       {"stat -c '%s' /p/sbin/pnlctl", "/bin/sh -c 'dd if=/p/sbin/pnlctl 2>/dev/null'",
        "/bin/sh -c 'dd of=/p/sbin/pnlctl 2>/dev/null'"}},
      {[&] { file::CopyTo("src/1", *ssh, "/p/c"); }, {"/bin/sh -c 'dd of=/p/c 2>/dev/null'"}},
      {[&] { file::Touch(*ssh, odd); }, {"touch " + quoted}},
      {[&] { file::MkDir(*ssh, "/p/d e/f"); }, {"mkdir -p '/p/d e/f'"}},
      {[&] { file::MkLink(*ssh, "a b", "/p/l l"); }, {"ln -s 'a b' '/p/l l'"}},
      {[&] { file::Chmod(*ssh, "/a b", "-R 0600"); }, {"chmod -R 0600 '/a b'"}},
      {[&] { EXPECT_EQ(file::Size(*ssh, "/p/l l"), 3); }, {"stat -c '%s' '/p/l l'"}},
      {[&] { file::Copy(*ssh, "/a b", "/p/k k"); }, {"cp -f '/a b' '/p/k k'"}},
      {[&] { file::Rename(*ssh, "/p/k k", "/p/m m"); }, {"mv -f '/p/k k' '/p/m m'"}},
      {[&] { EXPECT_TRUE(file::Exists(*ssh, odd, "f")); }, {"test -f " + quoted}},
      {[&] { file::Remove(*ssh, odd); }, {"rm -rf " + quoted}},
      {[&] { EXPECT_FALSE(file::Exists(*ssh, "/p/k k", "x")); }, {"test -e '/p/k k'"}},
      {[&] { EXPECT_TRUE(file::Exists(*ssh, "/p", "")); }, {"test -e /p"}},
      {[&] { EXPECT_FALSE(file::Exists(*ssh, "/p", "fd")); }, {"test -fd /p"}},
      {[&] { EXPECT_EQ(file::GetInfo(*ssh, "/p/pipe").type, 2); },
       {"test -e /p/pipe", "stat -c '%s' /p/pipe", "test -f /p/pipe", "test -d /p/pipe",
        "stat -c '%X:%Y:%Z' /p/pipe"}},
      {[&] { EXPECT_EQ(file::GetInfo(*ssh, "/a b").mtime.Seconds(), 0); },
       {"test -e '/a b'", "stat -c '%s' '/a b'", "test -f '/a b'", "stat -c '%X:%Y:%Z' /a b"}},
      {[&] { tmp = file::TmpFile(*ssh, "/p/d e/", "t"); }, {"mktemp '/p/d e/t.XXXXXX'", "rm -f "}},
      {[&] { EXPECT_EQ(os_info::Arch(*ssh), "x86_64"); }, {"uname -m"}},
      {[&] { (void)os_info::BootDate(*ssh); }, {"cat /proc/uptime | grep -o '^[0-9]*'"}},
      {[&] { EXPECT_TRUE(ssh_utils::Terminate(*ssh, 99999, 9, 9)); }, {"kill -0 99999"}},
      {[&] { EXPECT_EQ(ctl("/p/", "good", {}), "1"); }, {"/p/sbin/pnlctl -m good -o xml f "}},
      {[&] {
         EXPECT_EQ(ErrorText([&] {
                     ctl("/p", "a b", {{"b", "$x"}, {"a", "1"}});
                   }),
                   "exists user (value=bob)");
       },
       {"/p/sbin/pnlctl -m a b -o xml f a=1 b=$x"}},
      {[&] { ssh_utils::CopyViaTar(Strings(2, "1"), "src", *ssh, "/p", ""); }, {"tar xpf - -C /p"}},
      {[&] { ssh_utils::CopyViaTar("src", *ssh, "/p/q", "z"); },
       {"mkdir -p /p/q", "tar xzpf - -C /p/q"}},
  };
  for (const auto& [call, expected] : cases) {
    node->ClearCommands();
    call();
    Strings commands = expected;
    if (commands.back() == "rm -f ") commands.back() += pnl_proc::Escape(tmp);
    EXPECT_EQ(node->Commands(), commands);
  }
  EXPECT_EQ(node->Exec("cd /p && echo `find . -type f | sort`"),
            "./1 ./c ./m m ./q/src/1 ./q/src/2 ./sbin/pnlctl\n");
  EXPECT_TRUE(Logged("tar cpf - -C src 1 1"));
  EXPECT_TRUE(Logged("tar czpf - src"));
}

TEST_F(SshUtilsTest, FailuresThrowOrStaySilent) {
  const std::pair<Call, const char*> cases[] = {
      {[&] { (void)file::Read(*ssh, "/no"); }, "remote_read"},
      {[&] { file::Write(*ssh, "/dev/full", std::string(200000, 'x')); }, "remote_write"},
      {[&] { file::Touch(*ssh, "/no/x"); }, "remote_touch"},
      {[&] { file::MkDir(*ssh, "/etc/passwd/x"); }, "remote_mkdir"},
      {[&] { file::Remove(*ssh, "/proc/version"); }, "remote_rm"},
      {[&] { file::MkLink(*ssh, "x", "/no/x"); }, "remote_ln"},
      {[&] { file::Chmod(*ssh, "/no", "600"); }, "remote_chmod"},
      {[&] { file::TmpFile(*ssh, "/no", "x"); }, "mktemp"},
      {[&] { file::RemoteFile(*ssh, "/etc"); }, "remote_read file /etc"},
      {[&] { ssh_utils::CopyViaTar("none", "/panel", *ssh, "/", ""); }, "scp_failed"},
      {[&] { ssh_utils::CopyViaTar("lib", "/usr", *ssh, "/no", ""); }, "scp_failed"},
      {[&] { file::CopyTo("none", *ssh, "/etc/passwd"); }, "file open none"},
      {[&] { file::CopyTo("/etc", *ssh, "/etc/passwd"); }, "file read /etc"},
      {[&] { file::CopyFrom(*ssh, "/etc/passwd", "/dev/full"); }, "file write /dev/full"},
      {[&] { EXPECT_EQ(file::Size(*ssh, "/no"), 0); }, ""},
      {[&] { file::Rename(*ssh, "/no", "/x"); }, ""},
      {[&] { file::CopyFrom(*ssh, "/no", "src/x"); }, ""},
      {[&] { file::CopyTo("/etc/passwd", *ssh, "/dev/full"); }, ""},
      {[&] { EXPECT_FALSE(file::GetInfo(*ssh, "/no").exists); }, ""},
  };
  for (const auto& [call, error] : cases) EXPECT_EQ(ErrorText(call), error);
  EXPECT_NE(file::Size(*ssh, "/etc/passwd"), 0);
  EXPECT_TRUE(
      Logged("'mv -f /no /x': exit code 1: mv: cannot stat '/no': No such file or directory"));
  EXPECT_TRUE(Logged("'/bin/sh -c 'dd of=/dev/full 2>/dev/null'': exit code 1"));
}

TEST_F(SshUtilsTest, OperatingSystems) {
  pnl_file::Write("/etc/lsb-release", "A = B\nDISTRIB_RELEASE=14.04\n");
  const struct {
    const char *os, *prepare;
    int type;
    std::string prefix, version;
    const char* facts = nullptr;  // version and name, where the facts know more
  } cases[] = {
      {"centos6", "", os_info::OsCentOS, "CentOS ", "6.5.el6.centos.11.1"},
      {"centos7", "", 0x20103, "CentOS ", "7.9.2009.1.el7.centos"},
      {"scientific", "", 0x20103, "CentOS ", "7.9.7.sl7"},
      {"fedora", "", 0x20102, "", "39.30", "39.30 Fedora Linux 39"},
      {"cloudlinux", "", 0x20104, "CloudLinux ", "7.9.1.el7"},
      {"virtuozzo", "", 0x20105, "VirtuozzoLinux ", "7.17.vl7"},
      {"rhel", "", 0x20101, "", "7.9.6.el7_9",
       "7.9.6.el7_9 Red Hat Enterprise Linux Server release 7.9 (Maipo)"},
      {"debian12", "", 0x20201, "Debian ", "12.5"},
      {"debian12", "printf 8 >/etc/debian_version", 0x20201, "Debian ", "8.0"},
      {"debian12", "echo a CentOS release >/etc/redhat-release", 0x20101, "", "",
       " a CentOS release"},
      {"debian12", "echo Mint >/etc/lsb-release", 0x20201, "Debian ", "12.5"},
      {"debian-jessie", "", 0x20201, "Debian ", "8"},
      {"ubuntu", "", 0x20202, "Ubuntu ", "14.04", "22.04 Ubuntu 22.04"},
      {"gentoo", "", 0x20001, "", "", "2.14 Gentoo 2.14"},
      {"unknown", "", 0, "", ""},
  };
  for (const auto& c : cases) {
    Start(c.os);
    node->Exec(c.prepare);
    EXPECT_EQ(os_info::Type(*ssh), c.type) << c.os;
    EXPECT_EQ(os_info::Version(*ssh), c.version) << c.os << ": " << c.prepare;
    const std::string name = c.prefix.empty() ? "" : c.prefix + c.version;
    EXPECT_EQ(os_info::GetOs(*ssh), name) << c.os;
    pnl_host::Host host(*ssh);
    const fleet::Facts facts = fleet::AskFacts(host);
    EXPECT_EQ(facts.type, c.type) << c.os;
    EXPECT_EQ(facts.version + " " + facts.os, c.facts ? c.facts : c.version + " " + name) << c.os;
    EXPECT_EQ(facts.arch, os_info::Arch(*ssh));
    EXPECT_NEAR(static_cast<double>(facts.boot.value_or(0)),
                static_cast<double>(os_info::BootDate(*ssh).Seconds()), 2);
    EXPECT_EQ(facts.hostname, node->Name());
    EXPECT_EQ(facts.addresses, Strings{node->Address()});
    ASSERT_EQ(facts.disks.size(), 1U);
    EXPECT_EQ(facts.disks[0].mount, "/");
    EXPECT_TRUE(facts.memory > facts.memory_free && facts.processors > 0 && facts.load >= 0);
    EXPECT_EQ(facts.late, Strings());
  }
  EXPECT_TRUE(Logged("os version: 020103"));
}

TEST_F(SshUtilsTest, RemovalIsReversible) {
  const auto names = [&] {
    return node->Exec("ls /tmp | sed 's/f[.].*/number/' | uniq -c | xargs");
  };
  node->Exec("cd /tmp && echo old >f && for i in `seq 0 9`; do touch f.$((`date +%s` + i)); done");
  new file::RemoveFileJob(*ssh, "/tmp/f");
  EXPECT_EQ(names(), "11 number\n");
  file::Write(*ssh, "/tmp/f", "new");
  pnl_job::Rollback();
  EXPECT_EQ(names(), "1 f 10 number\n");

  node->Fault("stub mv 'exit 1'");
  new file::RemoveFileJob(*ssh, "/tmp/f");
  pnl_job::Rollback();
  EXPECT_EQ(file::Read(*ssh, "/tmp/f"), "old\n") << "what could not be renamed stays";
  node->Fault("stub mv ''");
  new file::RemoveFileJob(*ssh, "/tmp/f");
  pnl_job::Commit();
  EXPECT_EQ(names(), "10 number\n");
}

TEST_F(SshUtilsTest, WorkingCopyIsWrittenBackWhole) {
  using Work = void (*)(const std::string&);
  const Work put = [](const std::string& path) { pnl_file::Write(path, "new"); };
  const Work look = [](const std::string& path) { EXPECT_FALSE(pnl_file::Exists(path)); };
  const struct {
    const char *path, *fault;
    Work work;
    const char *error, *after;
  } cases[] = {
      {"/f", "stub stat 'echo 99'", put, "remote_read file /f", "old"},
      {"/f", "stub stat 'echo 2'", put, "remote_read file /f", "old"},
      {"/f", "stub stat ''", put, "", "new"},
      {"/g", "stub stat ''", look, "", ""},
      {"/g", "stub stat ''", put, "", "new"},
  };
  node->Exec("printf old >/f");
  for (const auto& c : cases) {
    node->Fault(c.fault);
    EXPECT_EQ(ErrorText([&] { c.work(file::RemoteFile(*ssh, c.path)); }), c.error) << c.fault;
    EXPECT_EQ(node->Exec("cat "s + c.path + " || true"), c.after) << c.path << c.fault;
  }
  EXPECT_TRUE(Logged("Finished: 0"));
  EXPECT_EQ(Temporaries(), "");

  // What cannot be written back is kept.
  for (const bool asked : {false, true}) {
    std::string kept;
    {
      file::RemoteFile copy(*ssh, "/f");
      put(kept = copy.Str());
      node->Fault("readonly");
      const std::string error = "remote_write file /f (kept=" + kept + ")";
      EXPECT_EQ(ErrorText([&] { asked ? copy.WriteBack() : void(); }), asked ? error : "");
    }
    EXPECT_EQ(Temporaries(), kept + "\n");
    EXPECT_EQ(pnl_file::Read(kept), "new");
    EXPECT_NE(pnl_file::Read("var/ssh_utils_test.log").find("kept in '" + kept), std::string::npos);
    pnl_file::Remove(kept);
    node->Fault("writable");
  }
}

// Nothing that a node holds fills this host, or is waited for when nobody wants it any more.
TEST_F(SshUtilsTest, EndlessNodes) {
  node->Exec(
      "mkdir -p /p/sbin && mkfifo /pipe && truncate -s 3G /large && truncate -s 100M /conf &&"
      " ln -sf /dev/zero /etc/redhat-release");
  file::Write(*ssh, "/p/sbin/pnlctl", "#!/bin/sh\necho '<doc>'; exec yes '<a/>'\n");
  file::Chmod(*ssh, "/p/sbin/pnlctl", "+x");
  ssh->SetTimeout(1);
  const auto cancel = [](auto, auto, auto) { throw pnl_err::Error("cancelled"); };
  const auto stop = [](std::string_view) { throw pnl_err::Error("stop"); };
  const std::pair<Call, std::string> cases[] = {
      {[&] { (void)os_info::Type(*ssh); }, "ssh_exec"},
      {[&] { ssh_utils::PnlCtl(*ssh, "/p", "m", "f", {}); }, "ssh_exec"},
      {[&] {
         const pnl_progress::Watch watch(cancel);
         file::CopyFrom(*ssh, "/large", "down");
       },
       "cancelled"},
      {[&] { file::CopyFrom(*ssh, "/large", "/dev/full"); }, "file"},
      {[&] { file::CopyFrom(*ssh, "/dev/zero", "down"); }, ""},
      {[&] { file::CopyFrom(*ssh, "/pipe", "down"); }, ""},
      {[&] { file::RemoteFile(*ssh, "/conf"); }, "remote_read"},
      {[&] { file::Read(*ssh, "/dev/zero", stop); }, "stop"},
  };
  for (const auto& [call, type] : cases) {
    const auto begin = std::chrono::steady_clock::now();
    const std::string error = ErrorText(call);
    EXPECT_EQ(error.substr(0, error.find(' ')), type);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << error;
    EXPECT_EQ(ssh->Execute("echo next").Str(), "next\n");
  }
}

TEST_F(SshUtilsTest, CopiesOfAllSizes) {
  std::uint64_t last = 0;
  const pnl_progress::Watch watch([&](auto, auto done, auto) { last = done; });
  for (const std::size_t size : {0U, 1U, 65536U, 65537U, 3U << 20}) {
    pnl_file::Write("up", str::Random(size));
    last = 0;
    file::CopyTo("up", *ssh, "/f");
    EXPECT_EQ(last, size);
    file::CopyFrom(*ssh, "/f", "down");
    EXPECT_TRUE(pnl_file::ReadE("down") == pnl_file::Read("up")) << size;
    std::string content;
    file::Read(*ssh, "/f", [&](std::string_view block) { content += block; });
    EXPECT_TRUE(content == pnl_file::Read("up")) << size;
    file::Write(*ssh, "/f", [&](char* block, std::size_t most) {
      const std::size_t given = content.copy(block, most);
      content.erase(0, given);
      return given;
    });
    EXPECT_TRUE(file::Read(*ssh, "/f") == pnl_file::Read("up")) << size;
  }
  EXPECT_TRUE(Logged("readen 1"));
}

TEST_F(SshUtilsTest, TerminateEscalates) {
  const std::string stubborn = "trap : TERM; while :; do sleep 1; done";
  const std::tuple<std::string, int, const char*> cases[] = {
      {"sleep 60; :", 5, "kill -0 kill -15 kill -0"},
      {stubborn, 0, "kill -0 kill -15 kill -0 kill -9 kill -0"},
      {stubborn, 1, "kill -0 kill -15 kill -0 kill -0 kill -9 kill -0"}};
  for (const auto& [script, wait, commands] : cases) {
    const auto pid = str::Trim(node->Exec("sh -c '" + script + "' >/dev/null 2>&1 & echo $!"));
    node->ClearCommands();
    EXPECT_TRUE(ssh_utils::Terminate(*ssh, str::Int(pid), wait, 5));
    const auto ran = str::Replace(str::Join(node->Commands(), " "), " " + pid, "");
    EXPECT_TRUE(ran.starts_with(commands)) << ran;
  }
}

TEST_F(SshUtilsTest, RsyncPushesTheListedFiles) {
  const std::string to = node->Address(), key = support::LabKey(), hosts = support::LabKnownHosts();
  for (const char* name : {"a", "b", "c"}) pnl_file::Write("src/"s + name, name);
  pnl_file::Write("the list", "a\n");
  EXPECT_EQ(ssh_utils::CopyViaRsync("src", "the list", to, key, "/tmp", hosts, "-c"), 0);
  EXPECT_EQ(ssh_utils::CopyViaRsync("", Strings{"src/b"}, to, key, "/tmp", hosts, ""), 0);
  EXPECT_EQ(ssh_utils::CopyViaRsyncBmx("src", "the list", to, key, "/tmp", hosts, 22), 0);
  EXPECT_EQ(ssh_utils::CopyViaRsyncBmx("src", Strings{"b", "c"}, to, key, "/tmp", hosts, 0), 0);
  EXPECT_EQ(node->Exec("cd /tmp && echo `find . -type f | sort`"), "./a ./b ./c ./src/b\n");

  const std::string files =
      "' --files-from='the list' src " + to + ":/tmp/ > var/rsync-node-" + to + ".log";
  const std::string login = "-o UserKnownHostsFile=" + hosts + " -i " + key + files;
  EXPECT_TRUE(Logged("rsync -avr -c -e 'ssh -l root " + login));
  EXPECT_TRUE(Logged("rsync -avr -e 'ssh -p 22 -l root -o StrictHostKeyChecking=no " + login));
  EXPECT_EQ(Temporaries(), "");
}

}  // namespace
