#include "brefir/sshkey_generate.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstdlib>
#include <functional>
#include <memory>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "support/error_of.h"
#include "support/faults.h"
#include "support/lab.h"
#include "support/temp_dir.h"

namespace {

using Apply = ssh_gen::SshKeyGenerator::ApplySshKeysToRemoteNodesJob;
using support::ErrorOf;
using support::LabNode;
using Names = std::vector<std::string>;

const std::string kKey = "ssh-rsa NEW panel\n";  // no pair, for nodes that check no login

std::string Shell(const std::string& command) {
  return pnl_proc::Execute(command, pnl_proc::kMergeStderr).Str();
}

mode_t Mode(const std::string& path) {
  return pnl_file::Info(path).Stat().st_mode & 07777;
}

/// Programs of this directory come first from now on.
void PutInPath(const std::string& name, const std::string& script) {
  pnl_file::Write(name, "#!/bin/sh\n" + script);
  chmod(name.c_str(), 0755);
  static const std::string rest = std::getenv("PATH");
  setenv("PATH", (pnl_file::GetCurrentDir() + ":" + rest).c_str(), 1);
}

// --- The pair

class KeyPairTest : public support::TempDir {
 protected:
  KeyPairTest() { Shell("ssh-keygen -t ed25519 -q -N '' -f key"); }
};

TEST_F(KeyPairTest, CommitReplacesAndRollbackLeavesThePair) {
  const std::string old_private = Get("key");
  const std::string old_public = Get("key.pub");
  {
    const ssh_gen::SshKeyGenerator generator("key.pub", "key", "");
    const ssh_gen::CreateSshKeysJob& pair = generator.KeyPair();
    EXPECT_EQ(pair.TemporaryPrivateKeyPath().size(), sizeof "key." - 1 + 16);
    EXPECT_EQ(pair.TemporaryPublicKeyPath(), pair.TemporaryPrivateKeyPath() + ".pub");
    EXPECT_EQ(pair.TemporaryPublicKeyValue(), Get(pair.TemporaryPublicKeyPath()));
    EXPECT_EQ(pair.TemporaryPrivateKeyValue(), Get(pair.TemporaryPrivateKeyPath()));
    pnl_job::Rollback();
  }
  EXPECT_EQ(Get("key"), old_private);
  EXPECT_EQ(support::Tree(), (Names{"key", "key.old", "key.pub", "key.pub.old"}));

  chmod("key", 0644);
  const ssh_gen::SshKeyGenerator generator("key.pub", "key", "");
  const std::string wanted = generator.KeyPair().TemporaryPublicKeyValue();
  pnl_job::Commit();
  EXPECT_EQ(Get("key.pub"), wanted);
  EXPECT_TRUE(wanted.starts_with(Shell("ssh-keygen -y -f key").substr(0, 200)));
  EXPECT_EQ(Mode("key"), 0600U);
  EXPECT_EQ(Get("key.old"), old_private);
  EXPECT_EQ(Get("key.pub.old"), old_public);
  EXPECT_EQ(support::Tree().size(), 4U);
}

TEST_F(KeyPairTest, WhatCannotBeBackedUpOrMadeIsAnError) {
  const struct {
    const char* before;
    const char* type;
  } cases[] = {
      {"mv key.pub aside", "backup_ssh_keys"},
      {"mv aside key.pub; mv key aside", "backup_ssh_keys"},
      {"mv aside key; rm -f key.old; ln -s /dev/full key.old", "backup_ssh_keys"},
      {"rm key.old; mkfifo key.old", "backup_ssh_keys"},  // and nothing waits for its reader
      {"rm key.old", "ssh_keygen_fail"},
  };
  PutInPath("ssh-keygen", "exit 3");
  for (const auto& c : cases) {
    Shell(c.before);
    EXPECT_EQ(ErrorOf([] { ssh_gen::SshKeyGenerator("key.pub", "key", ""); }), c.type) << c.before;
    EXPECT_NO_THROW(pnl_job::Commit());  // no job is left
  }
}

// --- Many nodes that are directories, for faults of this host

/// `ssh` is a script that runs the command in the directory of the node.
class ManyNodesTest : public support::TempDir {
 protected:
  ManyNodesTest() {
    // No pipe and no process of its own: those that fail are to be the library's.
    PutInPath("ssh",
              "exec bash -c 'for w; do shift; case $w in root@*) break; esac; done\n"
              "cd nodes/${w#root@} 2>/dev/null || exit 255; c=\"$*\"\n"
              "c=${c//\\/root\\/.ssh\\//}; exec sh -c \"${c//\\/tmp\\//none/}\"' ssh \"$@\"\n");
  }
  static Names MakeNodes(int count) {
    Shell("rm -rf nodes");
    Names names;
    for (int i = 1; i <= count; ++i) {
      names.push_back("n" + std::to_string(i));
      Put("nodes/" + names.back() + "/authorized_keys", "old " + names.back());
    }
    return names;
  }
  static std::string Distribute(const Names& nodes, const ssh_gen::RolloutWatch& watch = {},
                                const Names& more = {}) {
    const auto distribute = [&] {
      new Apply({.nodes = nodes,
                 .private_key_path = "key",
                 .public_key_path = "key.pub",
                 .new_private_key_path = "new",
                 .new_private_key_text = "",
                 .new_public_key_text = kKey,
                 .watch = watch});
    };
    return ErrorOf(distribute, more);
  }
  /// How many have the new key; every one must be whole.
  static int Changed(const Names& nodes) {
    int changed = 0;
    for (const std::string& node : nodes) {
      const std::string keys = Get("nodes/" + node + "/authorized_keys");
      if (keys == "old " + node) continue;
      EXPECT_EQ(keys, "old " + node + "\n" + kKey + "\n");
      ++changed;
    }
    return changed;
  }
  void ExpectNothingLeft() const { EXPECT_EQ(before_.Leak(), ""); }

 private:
  const support::Belongings before_;
};

TEST_F(ManyNodesTest, AllOfThreeHundredOrNone) {
  Names nodes = MakeNodes(300);
  EXPECT_EQ(Distribute({}), "");
  const ssh_gen::RolloutWatch broken{
      .changed = [](const auto&, const auto&, const auto&) { throw std::bad_alloc(); },
      .stop = []() -> bool { throw 1; }};
  EXPECT_EQ(Distribute(nodes, broken), "");
  EXPECT_EQ(Changed(nodes), 300);
  pnl_job::Rollback();
  EXPECT_EQ(Changed(nodes), 0);
  nodes.insert(nodes.begin() + 200, "absent");
  EXPECT_EQ(Distribute(nodes), "copy_ssh_keys");
  nodes.erase(nodes.begin() + 200);
  EXPECT_EQ(Changed(nodes), 0);
  EXPECT_EQ(Shell("find nodes -name '*.new' -o -name '*.old'"), "");
  ExpectNothingLeft();
}

// What ssh says of itself (255, or its end by a signal) is no answer: neither of an empty file nor
// of a node that is not this host.
TEST_F(ManyNodesTest, ANodeWithoutAnAnswerFails) {
  for (const char* asked : {"authorized_keys", "none/check-local*"}) {
    for (const char* lost : {"exit 255", "kill -KILL $$"}) {
      const Names nodes = MakeNodes(3);
      PutInPath("cat", str::Format("case $PWD/$* in */n2/%s) %s;; esac; exec /bin/cat \"$@\"",
                                   asked, lost));
      EXPECT_EQ(Distribute(nodes), "copy_ssh_keys") << asked << lost;
      EXPECT_EQ(Changed(nodes), 0) << asked << lost;
    }
  }
}

// The descriptors that are left from the first failure on are enough for one ssh(1) at a time.
TEST_F(ManyNodesTest, AHostShortOfDescriptorsStillPutsAllBack) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  rlimit few = before;
  // The shells of the nodes have the same limit, and dash keeps its script at number 10 or above.
  std::vector<pnl_file::Fd> taken;
  do {
    taken.push_back(pnl_file::Open("/dev/null", O_RDONLY));
    few.rlim_cur = static_cast<rlim_t>(taken.back().Get()) + 7;
  } while (few.rlim_cur < 20);
  const ssh_gen::RolloutWatch watch{.changed =
                                        [&](const auto&, const std::string& state, const auto&) {
                                          if (state == "ERROR") setrlimit(RLIMIT_NOFILE, &few);
                                        },
                                    .stop = nullptr};
  const struct {
    const char* failing;  // when it is replaced
    const char* slow;     // what is undone
  } cases[] = {{"n10", "*.old\\ *"}, {"n*", "*/rm*"}};
  for (const auto& c : cases) {
    const Names nodes = MakeNodes(10);
    for (const char* program : {"mv", "rm"}) {
      PutInPath(program, str::Format("case $PWD/$* in */%s/*.new\\ *) sleep 2; exit 1;; esac\n"
                                     "case \"/$0 $* \" in %s) sleep 0.6;; esac\n"
                                     "exec /bin/%s \"$@\"",
                                     c.failing, c.slow, program));
    }
    EXPECT_EQ(Distribute(nodes, watch), "copy_ssh_keys");
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(Changed(nodes), 0) << c.slow;
    EXPECT_EQ(Shell("find nodes -name '*.new' -o -name '*.old'"), "") << c.slow;
  }
  taken.clear();
  ExpectNothingLeft();
}

// n2 fails before it is replaced, with half a copy that must not come back; n1 is replaced.
TEST_F(ManyNodesTest, WhatIsNotRestoredIsNamed) {
  const struct {
    const char* undo;  // what n1 does
    const char* left;
  } cases[] = {
      {"exit 1", "n1"},
      {"[ -e tried ] || { touch tried; sleep 2.5; exit 255; }", ""},  // a slow refusal
  };
  PutInPath("cp", "case $PWD in */n2) sleep 1; echo x >\"$2\"; exit 1;; esac; exec /bin/cp \"$@\"");
  for (const auto& c : cases) {
    const Names nodes = MakeNodes(2);
    PutInPath("mv", str::Format("case $PWD/$* in */n1/*.old\\ *) %s;; esac; exec /bin/mv \"$@\"",
                                c.undo));
    EXPECT_EQ(Distribute(nodes, {}, {"nodes", "not_restored"}),
              str::Append("copy_ssh_keys n2", c.left, " "));
    EXPECT_EQ(Changed(nodes), c.left == std::string() ? 0 : 1);
  }
}

// Whichever thread or process cannot be started, for whatever it lacks.
TEST_F(ManyNodesTest, AFailureToStartPutsAllBack) {
  const struct {
    int call;
    int error;
  } cases[] = {{SYS_clone3, EAGAIN}, {SYS_pipe2, EMFILE}};
  for (const auto& c : cases) {
    auto end = support::End::kThrew;
    for (int nth = 1; end != support::End::kClean; ++nth) {
      const Names nodes = MakeNodes(3);
      end = support::FailNth(nth, c.error, {c.call}, [&] {
        if (!Distribute(nodes).empty()) throw 0;
        EXPECT_EQ(Changed(nodes), 3);
      });  // the end of its thread rolls back
      EXPECT_EQ(Changed(nodes), 0) << nth;
      EXPECT_TRUE(nth > 12 || end != support::End::kClean);
    }
  }
  ExpectNothingLeft();
}

// --- Real nodes

constexpr char kKeys[] = "/root/.ssh/authorized_keys";

class NodesTest : public support::LabTest {
 protected:
  static std::string Distribute(const Names& nodes, const std::string& dir = "") {
    const std::string& key = support::LabKey();
    return ErrorOf([&] {
      new Apply(nodes, key, key + ".pub", key, "", "secret\n", kKey, support::LabKnownHosts(),
                !dir.empty(), dir);
    });
  }
  static std::string Keys(const LabNode& node) {
    return pnl_file::Read(node.Root().string() + kKeys);
  }
};

TEST_F(NodesTest, EveryNodeGetsTheCommandsInOrder) {
  const LabNode node("debian12", {.log_commands = true});
  node.Exec("mkdir /srv/keys; echo k >/srv/keys/key; echo p >/srv/keys/key.pub; truncate -s -1 " +
            std::string(kKeys));
  const std::string old = Keys(node);
  // This host is a node, too; its key files are the panel's own.
  Shell("cp /srv/lab/key.pub /root/.ssh/authorized_keys; /usr/sbin/sshd -f /srv/lab/sshd_config");
  const std::string keys =
      " cp /srv/keys/key /srv/keys/key.old; cp /srv/keys/key.pub "
      "/srv/keys/key.pub.old; cp ";
  EXPECT_EQ(Distribute({node.Address(), "10.99.0.1"}, "/srv/keys"), "");
  Names commands = node.Commands();
  EXPECT_TRUE(commands.at(0).starts_with("cat /tmp/check-local.")) << commands[0];
  commands.erase(commands.begin());
  const std::string file(kKeys);
  EXPECT_EQ(commands, (Names{"cat " + file, "cat > " + file + ".new", "cat > /srv/keys/key.pub.new",
                             "cat > /srv/keys/key.new", keys + file + " " + file + ".old",
                             " mv /srv/keys/key.new /srv/keys/key; mv /srv/keys/key.pub.new "
                             "/srv/keys/key.pub; chmod 600 /srv/keys/key; mv " +
                                 file + ".new " + file}));
  EXPECT_EQ(Keys(node), old + "\n" + kKey + "\n");
  EXPECT_EQ(node.Exec("cat /srv/keys/key /srv/keys/key.pub"), "secret\n" + kKey);
  EXPECT_EQ(Mode((node.Root() / "srv/keys/key").string()), 0600U);
  EXPECT_TRUE(pnl_file::Read(kKeys).ends_with("\n" + kKey + "\n"));
  EXPECT_NE(pnl_file::Read("/srv/lab/key"), "secret\n");
  EXPECT_EQ(pnl_file::Read("/srv/lab/key.old"), pnl_file::Read("/srv/lab/key"));
  EXPECT_FALSE(pnl_file::Exists("/srv/lab/key.new"));

  node.ClearCommands();
  // A probe that gets no answer in the rollback does not make this host another one.
  PutInPath("ssh", "case $* in *10.99.0.1\\ cat*) exit 255;; esac; exec /usr/bin/ssh \"$@\"");
  pnl_job::Rollback();
  EXPECT_EQ(node.Commands().at(1),
            " mv /srv/keys/key.old /srv/keys/key; mv /srv/keys/key.pub.old "
            "/srv/keys/key.pub; mv " +
                file + ".old " + file);
  EXPECT_EQ(Keys(node), old);
  EXPECT_EQ(node.Exec("cat /srv/keys/key"), "k\n");
  EXPECT_EQ(pnl_file::Read(kKeys), pnl_file::Read("/srv/lab/key.pub"));
  EXPECT_FALSE(pnl_file::Exists("/srv/lab/key.old"));
}

}  // namespace
