#include "pnl/host.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/error_of.h"
#include "support/lab.h"
#include "support/temp_dir.h"

namespace {

using pnl_host::Content;
using pnl_host::FileKind;
using pnl_host::Host;
using support::LabNode;

Host HostOf(const LabNode& node) {
  return Host(pnl_rpc::SSH({.host = node.Address(),
                            .key_file = support::LabKey(),
                            .known_hosts = support::LabKnownHosts()}));
}

/// "" when it goes well.
std::string Reason(const std::function<void()>& work) {
  const auto error = support::Caught(work);
  return error ? error->type() + ": " + error->param("reason") : "";
}

class HostTest : public support::LabTest {
 protected:
  /// What stands in that directory of the node, and what else was left anywhere beside it.
  static std::string Left(const LabNode& node, const std::string& dir) {
    return node.Exec("find " + dir + " -name '.brefir*'");
  }
};

std::string EveryByte() {
  std::string name;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') name += static_cast<char>(byte);
  }
  return name;
}

// Each shell as /bin/sh, and this host.
TEST_F(HostTest, ReplacesAndRefuses) {
  const LabNode node;
  for (const char* shell : {"dash", "bash", "busybox", ""}) {
    const bool local = *shell == '\0';
    SCOPED_TRACE(local ? "here" : shell);
    Host host = local ? Host() : HostOf(node);
    const std::string root = local ? "" : node.Root().string();
    if (!local) node.Exec("ln -sf " + std::string("$(command -v ") + shell + ") /bin/sh");
    const auto run = [&](const std::string& command) {
      const auto outcome = host.Run(command);
      EXPECT_EQ(outcome.code, 0) << command << outcome.complaint;
      return outcome.output;
    };
    run("rm -rf /srv/t; mkdir -p /srv/t/dir; cd /srv/t; mkfifo fifo; ln -s fifo tofifo; "
        "ln -s /srv/t/dir/real link; ln -s nowhere/x lost; echo old >dir/real; "
        "chown 12:34 dir/real; chmod 4751 dir/real");
    const std::string real = root + "/srv/t/dir/real";
    setxattr(real.c_str(), "user.note", "kept", 4, 0);

    for (const std::string& name : {EveryByte(), "-" + std::string(254, 'n')}) {
      const std::string path = "/srv/t/" + name;
      EXPECT_EQ(host.Read(path), std::nullopt);
      EXPECT_EQ(host.Look(path).kind, FileKind::kMissing);
      host.Replace(path, "one\n", {.before = Content(), .new_mode = 0640});
      EXPECT_EQ(host.Read(path), "one\n");
      host.Replace(path, EveryByte(), {.before = "one\n"});
      EXPECT_EQ(pnl_file::Read(root + path), EveryByte());
      EXPECT_EQ(pnl_file::Info(root + path).Stat().st_mode & 07777, 0640U);
      const auto state = host.Look(path);
      EXPECT_EQ(state.path, path);
      EXPECT_EQ(state.size, 254U);
    }

    // A link leads to its target, which keeps what it has.
    const auto before = host.Look("/srv/t/link");
    EXPECT_EQ(before.path, "/srv/t/dir/real");
    host.Replace("/srv/t/link", "new\n", {.before = "old\n"});
    EXPECT_NE(host.Look("/srv/t/link").version, before.version);
    EXPECT_EQ(run("cd /srv/t; cat dir/real; stat -c %u:%g:%a dir/real; readlink link"),
              "new\n12:34:4751\n/srv/t/dir/real\n");
    if (shell != std::string("busybox")) {  // whose cp(1) keeps no more than these
      EXPECT_EQ(getxattr(real.c_str(), "user.note", nullptr, 0), 4);
    }

    const struct {
      const char* path;
      std::optional<Content> before;
      const char* error;
    } refused[] = {
        {"/srv/t/link", Content("old\n"), "conflict: it is not as it was"},
        {"/srv/t/link", Content(), "conflict: it is not as it was"},
        {"/srv/t/none", Content("old\n"), "conflict: it is not as it was"},
        {"/srv/t/none/x", std::nullopt, "replace: there is no directory for it"},
        {"/srv/t/dir", std::nullopt, "replace: it is a directory"},
        {"/srv/t/tofifo", std::nullopt, "replace: it is no regular file"},
    };
    for (const auto& c : refused) {
      const std::string error = Reason([&] { host.Replace(c.path, "text", {.before = c.before}); });
      EXPECT_TRUE(local ? !error.empty() : error == c.error) << c.path << error;
    }
    EXPECT_TRUE(Reason([&] {
                  host.Replace("/srv/t/link", 9, [n = 0](char*, std::size_t) mutable {
                    return n++ == 0 ? std::size_t{5} : std::size_t{0};
                  });
                }).starts_with("replace: the content did not come whole"));
    EXPECT_THROW(host.Replace("/srv/t/link", 9, [](char*, std::size_t) -> std::size_t { throw 1; }),
                 int);
    EXPECT_EQ(host.Read("/srv/t/link"), "new\n");
    EXPECT_NE(Reason([&] { (void)host.Read("/srv/t/fifo"); }), "");
    EXPECT_EQ(host.Sha256("/srv/t/link"),
              "7aa7a5359173d05b63cfd682e3c38487f3cb4f7f1d60659fe59fab1505977d4c");
    host.Replace("/srv/t/gone", "x", {.before = Content()});
    EXPECT_EQ(Reason([&] { host.Remove("/srv/t/gone", "y"); }), "conflict: it is not as it was");
    host.Remove("/srv/t/gone", "x");
    EXPECT_EQ(Reason([&] { host.Remove("/srv/t/gone", "x"); }), "conflict: it is not as it was");
    EXPECT_EQ(run("sleep 0.2; find /srv/t -name '.brefir*'"), "");
  }
}

TEST_F(HostTest, LoginShellsDoNotMatter) {
  const LabNode node;
  for (const char* shell : {"csh", "tcsh", "fish", "zsh", "mksh", "busybox"}) {
    if (pnl_proc::Execute("command -v " + std::string(shell)).Result() != 0) continue;
    SCOPED_TRACE(shell);
    const std::string run = shell == std::string("busybox") ? "busybox sh" : shell;
    node.Exec("f=/usr/local/bin/login-shell; printf '#!/bin/sh\\nexec " + run +
              " \"$@\"\\n' >$f; chmod +x $f; sed -i \"s|^\\(root:.*:\\).*|\\1$f|\" /etc/passwd");
    Host host = HostOf(node);
    const std::string path = "/srv/" + EveryByte();
    host.Replace(path, "text\n");
    host.Replace(path, shell, {.before = "text\n"});
    EXPECT_EQ(host.Read(path), shell);
  }
}

TEST_F(HostTest, WhatFailsOrIsCutLeavesTheOldFile) {
  const LabNode node("debian12", {.disk = "3m"});
  node.Exec("echo old >/srv/file; mkdir /srv/taken; echo mine >/srv/taken/.brefir-1.txt");
  Host host = HostOf(node);
  const std::string large(std::size_t{4} << 20, 'x');
  EXPECT_NE(Reason([&] { host.Replace("/srv/file", large); }).find("No space left"),
            std::string::npos);
  node.Fault("fill");
  const std::string full = Reason([&] { host.Replace("/srv/file", "new\n"); });
  EXPECT_NE(full.find("No space left"), std::string::npos) << full;
  node.Fault("writable");
  node.Fault("readonly");
  const std::string fixed = Reason([&] { host.Replace("/srv/file", "new\n"); });
  EXPECT_NE(fixed.find("Read-only"), std::string::npos) << fixed;
  node.Fault("writable");
  EXPECT_EQ(Left(node, "/srv"), "/srv/taken/.brefir-1.txt\n");

  // The owner of the directory wants another file to get his own one's owner and mode.
  node.Exec("mkdir /srv/his; echo old >/srv/his/f; chown -R 12 /srv/his; echo x >/etc/shadow-");
  node.Fault("stub cp 'ln -sf /etc/shadow- /srv/his/.brefir-*; exec /usr/bin/cp \"$@\"'");
  const std::string led = Reason([&] { host.Replace("/srv/his/f", "new\n"); });
  EXPECT_NE(led.find("put a link in the place"), std::string::npos) << led;
  EXPECT_EQ(node.Exec("cat /etc/shadow- /srv/his/f; stat -c %u /etc/shadow-"), "x\nold\n0\n");
  node.Fault("stub cp ''");

  // Killed, and out of reach, on the way: the next one clears up after it.
  for (const char* fault : {"cut", "unplug"}) {
    EXPECT_NE(Reason([&] {
                Host cut = HostOf(node);
                bool first = true;
                cut.Replace("/srv/file", large.size(), [&](char* block, std::size_t size) {
                  if (!std::exchange(first, false)) {
                    node.Fault(fault);
                    pnl_rpc::SSH(*cut.Session()).SetTimeout(1);
                  }
                  return std::string_view(large).copy(block, std::min<std::size_t>(size, 32768));
                });
              }),
              "");
    if (fault == std::string("unplug")) node.Fault("plug");
    EXPECT_EQ(pnl_file::Read(node.Root().string() + "/srv/file"), "old\n");
    HostOf(node).Replace("/srv/file", "old\n");
    EXPECT_EQ(Left(node, "/srv"), "/srv/taken/.brefir-1.txt\n") << fault;
  }
}

}  // namespace
