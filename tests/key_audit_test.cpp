// Which keys hosts accept: what is made of their answers, and brefirctl key audit on real nodes.

#include "fleet/key_audit.h"

#include <gtest/gtest.h>

#include "pnl/date.h"
#include "pnl/file.h"
#include "support/program.h"

namespace {

using support::Finished;
using support::Has;
using support::LabNode;

TEST(KeyAnswerTest, LoginsInLogs) {
  const std::string accepted = "Accepted publickey for ";
  const std::string rest = " port 3 ssh2: ED25519 SHA256:abc";
  const struct {
    std::string line;
    const char* now;
    const char* zone;
    const char* time;  // "": it is no login
    const char* user;
    const char* from;
  } cases[] = {
      {"Nov 23 10:11:12 h sshd[3]: " + accepted + "root from 10.0.0.1" + rest,
       "2026-11-23 10:11:12", "+0000", "2026-11-23 10:11:12", "root", "10.0.0.1"},
      {"Nov 23 10:11:13 h sshd[3]: " + accepted + "root from 10.0.0.1" + rest,
       "2026-11-23 10:11:12", "+0000", "2025-11-23 10:11:13", "root", "10.0.0.1"},
      {"Jan  1 01:00:00 h sshd-session[3]: " + accepted + "a from ::1" + rest,
       "2026-12-31 23:30:00", "+0200", "2026-12-31 23:00:00", "a", "::1"},
      {"Feb 29 10:00:00 h sshd[3]: " + accepted + "root from 10.0.0.1" + rest,
       "2026-11-23 10:11:12", "-0100", "2024-02-29 11:00:00", "root", "10.0.0.1"},
      {"2026-11-20T10:00:00.123456+01:00 h sshd[3]: " + accepted + "D\\joe doe from 10.0.0.1" +
           rest,
       "2026-11-23 10:11:12", "+0000", "2026-11-20 09:00:00", "D\\joe doe", "10.0.0.1"},
      {"2026-11-20T10:00:00+0100 h sshd[3]: " + accepted +
           "joe from 10.0.0.1 port 3 ssh2: RSA-CERT SHA256:xyz ID root (serial 0) CA RSA "
           "SHA256:abc",
       "2026-11-23 10:11:12", "", "2026-11-20 09:00:00", "joe", "10.0.0.1"},
      // What somebody else has made up.
      {"Nov 23 10:11:12 h sshd[3]: Invalid user sshd[3]: " + accepted + "root from 10.0.0.1" + rest,
       "2026-11-23 10:11:12", "+0000", "", "", ""},
      {"Nov 23 10:11:12 h other[3]: " + accepted + "root from 10.0.0.1" + rest,
       "2026-11-23 10:11:12", "+0000", "", "", ""},
      {"Nox 23 10:11:12 h sshd[3]: " + accepted + "root from 10.0.0.1" + rest,
       "2026-11-23 10:11:12", "+0000", "", "", ""},
      {"Feb 31 10:11:12 h sshd[3]: " + accepted + "root from 10.0.0.1" + rest, "2026-11-23",
       "+9999", "", "", ""},
      {"2026-11-20 h sshd[3]: " + accepted + " from SHA256:", "2026-11-23", "", "", "", ""},
  };
  for (const auto& c : cases) {
    const std::time_t now = pnl_date::DateTime(c.now).Seconds();
    const auto audit = fleet::ParseKeyAnswer("keys\nl " + c.line + "\nnow " + std::to_string(now) +
                                             " " + c.zone + "\nend\n");
    ASSERT_EQ(audit.logins.size(), std::string(c.time).empty() ? 0U : 1U) << c.line;
    if (audit.logins.empty()) continue;
    EXPECT_EQ(pnl_date::DateTime(audit.logins[0].time).Str(), c.time) << c.line;
    EXPECT_EQ(audit.logins[0].user, c.user);
    EXPECT_EQ(audit.logins[0].from, c.from);
    EXPECT_EQ(audit.logins[0].fingerprint, "SHA256:abc");
  }
}

TEST(KeyAnswerTest, KeysAndWhatCouldNotBeRead) {
  const std::string large(fleet::kMaxKeyFile, '#');
  const struct {
    std::string answer;
    std::string keys;    // user, line and comment
    std::string unread;  // user and reason
    std::string notes;
  } cases[] = {
      {"file a:/f\nk # c\nk \nk no-pty ssh-rsa A x y \r\nk ssh-rsa\nread\nsame b:/f\nsame "
       "c:/g\nkeys",
       "a3[no-pty]x y b3[no-pty]x y ", "", "line 4 of '/f' of a is no key, and sshd ignores it;"},
      {"file a:/a:b\nk x\nk y\nk z\nread\nfile b:/c\nodd\nkeys", "", "",
       "line 1 of '/a:b' of a and 2 more are no keys, and sshd ignores them;"
       "'/c' of b is no regular file, and sshd ignores it;"},
      {"file a:/f\nk ssh-rsa A\nbad\nsame b:/f\ndenied c:/d\nkeys", "a1[] b1[] ",
       "'/f' of a cannot be read;'/f' of b cannot be read;'/d' of c cannot be read;", ""},
      {"file a:/f\nk " + large + "\nread\nkeys", "",
       "'/f' of a is too long and was not read to its end;", ""},
      {"file a:/f\nk ssh-rsa A\n", "a1[] ",
       "'/f' of a did not come within 120 seconds; what follows it was not read;", ""},
      {"", "",
       "the list of users and files did not come within 120 seconds; what follows it was not "
       "read;",
       ""},
      {"k ssh-rsa A\nread\nbad\nodd\nsame x\nl\nnow\nkeys\nrubbish", "", "", ""},
  };
  for (const auto& c : cases) {
    const fleet::KeyAudit audit = fleet::ParseKeyAnswer(c.answer);
    std::string keys, unread, notes;
    for (const fleet::AcceptedKey& key : audit.keys)
      keys += key.user + std::to_string(key.line) + "[" + key.options + "]" + key.comment + " ";
    for (const fleet::UnreadKeys& file : audit.unread) unread += file.reason + ";";
    for (const std::string& note : audit.notes) notes += note + ";";
    EXPECT_EQ(keys, c.keys) << c.answer.substr(0, 99);
    EXPECT_EQ(unread, c.unread) << c.answer.substr(0, 99);
    EXPECT_EQ(notes, c.notes) << c.answer.substr(0, 99);
  }
}

class KeyAuditTest : public support::ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    pnl_file::Write("etc/brefir.conf", "private_key = " + support::LabKey() +
                                           "\nknown_hosts = " + support::LabKnownHosts() + "\n");
    for (const char* name : {"alice", "evil"})
      Shell(std::string("ssh-keygen -q -t ed25519 -N '' -C ") + name + "@home -f etc/" + name);
  }
  static std::string Public(const std::string& name) {
    return pnl_file::Read("etc/" + name + ".pub");
  }
  static std::string Fingerprint(const std::string& name) {
    std::string words = Shell("ssh-keygen -l -f etc/" + name + ".pub").out;
    str::GetWord(words);
    return str::GetWord(words);
  }
  static void Append(const LabNode& node, const std::string& file, const std::string& text) {
    const std::string path = node.Root().string() + file;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    pnl_file::Write(path, pnl_file::Read(path) + text);
  }
};

TEST_F(KeyAuditTest, FindsTheKeyThatNobodyKnows) {
  const LabNode first, second("centos7"), dead;
  pnl_file::Write("etc/nodes", "n1 host=" + first.Address() + "\nn2 host=" + second.Address() +
                                   "\ndead host=" + dead.Address() + "\n");
  first.Exec(
      "useradd -m alice; echo alice:secret | chpasswd; useradd -m carl; mkdir -p /home/carl/.ssh; "
      "mkfifo /home/carl/.ssh/a");
  Append(first, "/etc/ssh/sshd_config",
         "\nHostKey /etc/ssh/lab_host_key\nAuthorizedKeysFile .ssh/authorized_keys %h/.ssh/a\n"
         "Match User alice\nAuthorizedKeysFile /etc/keys/%u%%%U .ssh/authorized_keys\n");
  Append(first, "/home/alice/.ssh/authorized_keys",
         "# " + Public("evil") + "rubbish\n" + Public("alice"));
  Append(first, "/etc/keys/alice%" + str::Trim(first.Exec("id -u alice")),
         "from=\"10.0.0.1\",no-pty " + Public("evil"));
  Append(second, "/root/.ssh/authorized_keys2", Public("alice") + "ssh-rsa AAAA short\n");
  const std::string rest = " from 10.1.2.3 port 9 ssh2: ED25519 ";
  Append(first, "/var/log/auth.log",
         "Jan  2 03:04:05 h sshd[7]: Accepted publickey for alice" + rest + Fingerprint("evil") +
             "\n");
  Append(second, "/var/log/secure-20261101",
         "2026-10-20T10:00:00+02:00 h sshd[7]: Accepted publickey "
         "for root" +
             rest + Fingerprint("alice") + "\n");
  Append(second, "/var/log/secure",
         "2026-11-01T10:00:00+02:00 h sshd[7]: Accepted publickey for bob" + rest +
             Fingerprint("alice") + "\n");

  const Finished json = Run("key audit --nodes n1,n2 -o json");
  EXPECT_EQ(json.code, 3) << json.err;
  for (const std::string& part :
       {"\"user\": \"alice\",\n    \"file\": \"/etc/keys/alice%" +
            str::Trim(first.Exec("id -u alice")),
        "\"fingerprint\": \"" + Fingerprint("evil") +
            "\",\n    \"comment\": \"evil@home\",\n    "
            "\"options\": \"from=\\\"10.0.0.1\\\",no-pty\",\n    \"whose\": null,\n    \"known\": "
            "false,",
        std::string("-01-02T03:04:05Z\",\n    \"from\": \"10.1.2.3\",\n    \"error\": null"),
        std::string("\"file\": \"/home/alice/.ssh/authorized_keys\",\n    \"line\": 3,"),
        std::string("\"last_seen\": \"2026-10-20T08:00:00Z\""),
        std::string("\"whose\": \"this panel\",\n    \"known\": true,"),
        std::string("\"fingerprint\": null,\n    \"comment\": \"short\"")})
    EXPECT_TRUE(Has(json.out, part)) << part << "\n" << json.out;

  pnl_file::Write("etc/known_keys", "# ours\n" + Public("alice") + "ssh-rsa AAAA\n");
  const Finished people = Run("key audit");  // of the inventory
  EXPECT_EQ(people.code, 3) << people.err;
  EXPECT_TRUE(Has(people.out, "  NOBODY KNOWS            alice        n1  ")) << people.out;
  EXPECT_TRUE(Has(people.out, "  this panel  "));
  EXPECT_TRUE(Has(people.out, "  root         n[1-2],dead  ")) << people.out;
  EXPECT_TRUE(Has(people.out, "  etc/known_keys, line 3  "));
  EXPECT_EQ(people.out.rfind("\nSHA256:"), people.out.find("\n" + Fingerprint("evil")));  // last
  for (const char* part :
       {"n1: '/home/carl/.ssh/a' of carl is no regular file, and sshd ignores it\n",
        "n1: line 2 of '/home/alice/.ssh/authorized_keys' of alice is no key",
        "\n4 keys on 3 nodes, 1 of them known to nobody\n"})
    EXPECT_TRUE(Has(people.err, part)) << part << people.err;

  dead.Kill();
  Append(second, "/root/.ssh/authorized_keys", Public("alice"));
  Shell("cat etc/*.pub >var/known; echo rubbish >var/bad");
  Check(
      {{"key audit --nodes n1 --known var/known", 0, "  evil@home  ", " 0 of them known to nobody"},
       {"key audit --nodes n1,dead --timeout 3", 3, " NOBODY KNOWS ", "; 1 node was not asked\n"},
       {"key audit --nodes alice@" + first.Address() + " --private etc/alice -o json", 1,
        "\"file\": \"/root/.ssh/authorized_keys\",\n    \"line\": null", "sshd could not be asked"},
       {"key audit --nodes n2 --private etc/alice", 3, "  this panel ", " 1 of them known"},
       {"key audit --nodes n1 --known var/bad", 1, "", "var/bad, line 1: this is no public key"},
       {"key audit --nodes n1 --known var/none", 1, "", "var/none"}});
}

TEST_F(KeyAuditTest, ReadsTheJournal) {
  if (!support::NodesRunSystemd()) GTEST_SKIP();
  const LabNode node("debian12", {.systemd = true});
  node.Exec("echo Accepted publickey for root from 10.1.2.3 port 9 ssh2: ED25519 " +
            Fingerprint("alice") + " | systemd-cat -t sshd; journalctl --sync");
  Append(node, "/root/.ssh/authorized_keys", Public("alice"));
  const Finished run = Run("key audit --nodes " + node.Address() + " -o json");
  EXPECT_TRUE(Has(run.out, "\"from\": \"10.1.2.3\"")) << run.out << run.err;
}

}  // namespace
