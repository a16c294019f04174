// Causes a thousand failures of all kinds, and checks that nothing is left: descriptors, threads,
// children, temporary files. In a lab (lab/run) this includes failures of sessions to nodes.

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>

#include "brefir/ostemplates.h"
#include "brefir/recipes.h"
#include "brefir/simpleconfig.h"
#include "brefir/sshkey_generate.h"
#include "brefir/stat_raw.h"
#include "faults/operation.h"
#include "faults/table.h"
#include "pnl/client.h"
#include "pnl/err.h"
#include "pnl/fetch.h"
#include "pnl/job.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/ssh.h"
#include "pnl/task.h"
#include "pnl/thread.h"
#include "pnldb/db.h"
#include "support/belongings.h"
#include "support/lab.h"
#include "support/repo_server.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

using faults::Put;
using std::chrono::milliseconds;
using Names = std::set<std::string>;

constexpr int kFailures = 1000;

/// A kind of failure. Slow ones come a few times only.
struct Kind {
  std::string name;
  std::function<void()> fail;  ///< throws
  bool slow = false;
};

// --- What must be as before

/// Below the working directory, and in /tmp what the library makes there.
Names Files() {
  constexpr const char* kOurs[] = {"check-local.", "conf.", "filelist.", "repo."};
  Names names;
  for (const std::string& name : support::Tree()) {
    if (!name.ends_with(".log")) names.insert(name);
  }
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename();
    for (const char* const ours : kOurs) {
      if (name.starts_with(ours)) names.insert(entry.path());
    }
  }
  return names;
}

/// "" when nothing has come to `before` and `files`.
std::string Leak(const support::Belongings& before, const Names& files) {
  for (const std::string& name : Files()) {
    if (files.count(name) == 0) return name + " is left";
  }
  return before.Leak();
}

// --- Failures

/// A port that nobody listens on.
constexpr int kClosed = 1;

void Expect(bool good) {
  if (!good) throw std::runtime_error("as expected");
}

std::vector<Kind> Files(const std::string& held) {
  return {
      {"write below a file", [] { pnl_file::Write("file/x", "x"); }},
      {"remove /", [] { pnl_file::Remove("/"); }},
      {"take over a FIFO", [] { pnl_file::SecureTree("hostile"); }},
      {"walk a missing directory", [] { pnl_file::Dir dir("none"); }},
      {"place a tree in none", [] { pnl_file::PlaceTree("d", "none/d"); }},
      {"wait for a held lock", [=] { pnl_file::Lock().DoLockWithTimeout(held, true, 0, 1); }},
      {"commit a missing file", [] { new pnl_job::MoveFile("none", "file"), pnl_job::Commit(); }},
      {"change a missing configuration",
       [] { utils::SimpleConfig("none", false, "#", "=", "").Set("a", "1", ""); }},
      {"flush counters to a directory",
       [] {
         counter::Cache cache;
         cache.Load();
         cache.Flush();
       }},
  };
}

std::vector<Kind> Processes() {
  using pnl_proc::Execute;
  return {
      {"a child that fails", [] { Expect(Execute("exit 3").Result() == 0); }},
      {"a child that is killed", [] { Expect(Execute("kill -9 $$").Result() == 0); }},
      {"a child in a missing directory", [] { Execute("true", 0, "none"); }},
      {"a child that reads nothing",
       [] {
         Execute child("exec <&-; exit 1");
         child.In() << std::string(1 << 20, 'x');
         Expect(child.Result() == 0);
       }},
      {"a child that is dropped",
       [] {
         const Execute child("cat");
         Expect(false);
       }},
      {"a child that takes too long",
       [] {
         Execute child("sleep 60 | sleep 60");
         child.SetTimeout(1);
         child.Result();
       },
       true},
      {"a missing module", [] { (void)pnl_client::Local("none", "leak").Query("func=x"); }},
      {"a missing task program",
       [] { pnl_task::LongTask("none", "n", "K").Start(pnl_task::kDetached); }},
      {"a task in a wrong mode", [] { pnl_task::LongTask("sbin/work", "n", "K").Start(1); }},
      {"an unknown task", [] { (void)pnl_task::Get("none"); }},
      {"a thread that throws",
       [] {
         pnl_thread::Handle thread([] { throw pnl_err::Error("inside"); });
         thread.Start();
         thread.join();
         Expect(false);
       }},
      {"a new key without an old one", [] { ssh_gen::SshKeyGenerator("none.pub", "none", ""); }},
  };
}

Kind Download(const std::string& name, const std::string& url, bool slow = false) {
  return {"download: " + name,
          [=] {
            const pnl_rpc::FetchOptions options{1000, milliseconds(500), milliseconds(300)};
            Expect(pnl_rpc::FetchFile(url, "target", options));
          },
          slow};
}

std::vector<Kind> Downloads(const support::RepoServer& server, int silent_port) {
  const std::string local = "http://127.0.0.1:";
  std::vector<Kind> kinds = {
      Download("no server", local + std::to_string(kClosed)),
      Download("a silent server", local + std::to_string(silent_port), true),
      Download("a device", "file:///dev/zero"),
      Download("too much", server.Url() + "/large"),
  };
  for (const char* fault :
       {"status 404", "truncate 10", "reset", "redirect file:///etc/passwd", "stall-body 10 60"}) {
    const std::string name = "fault" + std::to_string(kinds.size());
    server.Fault(name, fault);
    const bool slow = fault == std::string_view("stall-body 10 60");
    kinds.push_back(Download(fault, server.Url() + "/" + name, slow));
  }
  const std::string gone = server.Url() + "/none";
  kinds.push_back({"an index that is gone",
                   [=] { Expect(ostemplate::OstRepo(gone).UpdateCache("", true, nullptr)); }});
  kinds.push_back({"recipes that are no archive",
                   [] { Expect(recipe::RecipeRepo().UpdateCache("r/repo", true, nullptr)); }});
  kinds.push_back({"a template of nowhere", [] {
                     ostemplate::OsMetaInfo info;
                     info.repo = "nowhere";
                     ostemplate::Manage("panel", "5", "t", "").Install(info);
                   }});
  return kinds;
}

std::vector<Kind> Documents() {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<d>";
  const auto load = [](const std::string& text) { return [=] { const pnl_xml::Xml xml(text); }; };
  return {
      {"an external entity", load("<!DOCTYPE d [<!ENTITY e SYSTEM '/etc/passwd'>]><d>&e;</d>")},
      {"a cut document", load("<d><e>")},
      {"too deep a document", load(deep)},
  };
}

std::vector<Kind> Databases() {
  using pnl_db::Cache;
  return {
      {"a database in no directory", [] { (void)Cache::Open("sqlite:none/x.db"); }},
      {"a database that is none", [] { Cache::Open("sqlite:file")->Execute("select 1"); }},
      {"no database server", [] { (void)Cache::Open("postgresql://127.0.0.1:1/x", 1); }},
      {"a statement that is none", [] { Cache::Open("sqlite:x.db")->Execute("selec 1"); }},
      {"a key that is there",
       [] {
         const auto db = Cache::Open("sqlite:x.db");
         pnl_db::Transaction transaction(*db);
         db->Execute("insert into t values (1)");
       }},
      {"a database that is held",
       [] {
         const auto holder = Cache::Open("sqlite:x.db");
         const pnl_db::Transaction transaction(*holder);
         Cache::Open("sqlite:x.db", 1)->Execute("delete from t");
       },
       true},
  };
}

Kind Session(const std::string& name, const pnl_rpc::SshOptions& options, bool slow = false) {
  return {name, [=] { const pnl_rpc::SSH ssh(options); }, slow};
}

std::vector<Kind> Sessions(int silent_port) {
  pnl_rpc::SshOptions nobody;
  nobody.host = "127.0.0.1";
  nobody.port = kClosed;
  nobody.connect_timeout = 1;
  pnl_rpc::SshOptions silent = nobody;
  silent.port = silent_port;
  return {Session("a session to nobody", nobody), Session("a session to the silent", silent, true)};
}

/// With real nodes, where there are any.
std::vector<Kind> Nodes(const support::LabNode& node, const support::LabNode& dead) {
  pnl_rpc::SshOptions refused = node.Login();
  refused.key_file = "other_key";
  pnl_rpc::SshOptions unknown = node.Login();
  unknown.known_hosts = "file";
  const auto through = [&](pnl_rpc::SshJump jump) {
    pnl_rpc::SshOptions options = node.Login(5);
    jump.key_file = options.key_file;
    options.jumps = {jump, jump};
    return options;
  };
  return {
      Session("a node refuses the login", refused),
      Session("a node of an unknown key", unknown),
      Session("a node is dead", dead.Login(2), true),
      Session("nobody is at the jump host", through({.host = node.Address(), .port = kClosed})),
      Session("a jump host of an unknown key",
              through({.host = node.Address(), .known_hosts = "file"})),
      {"a node's command fails",
       [&] { Expect(pnl_rpc::SSH(node.Login()).Execute("exit 3").Result() == 0); }},
      {"a node cuts the session",
       [&] {
         pnl_rpc::SSH ssh(node.Login());
         (void)ssh.Execute("kill -9 $PPID; sleep 5").Str();
       }},
  };
}

// --- All of them

void PutPrefix(const std::string& recipes) {
  Put("etc/log.conf", "* 0\n");
  Put("etc/ostemplates.conf", "Repo recipes Velkor " + recipes + "\n");
  Put("file",
      "no database, which would be longer than this text, of a hundred bytes at the least, "
      "as its head has that size\n");
  Put("sbin/work", "#!/bin/sh\n", 0755);
  Put("d/file", "x");
  fs::create_directories("hostile");
  fs::create_directories("var/stat.counters");
  mkfifo("hostile/fifo", 0600);
  fs::create_directories("var/.oscache/Velkor");
  fs::create_directories("var/tasks");
  fs::create_directories("r/repo");
  Put("www/large", std::string(5000, 'x'));
  const auto db = pnl_db::Cache::Open("sqlite:x.db");
  db->Execute("create table t (n integer primary key)");
  db->Execute("insert into t values (1)");
}

/// False when it did not fail.
bool Fails(const Kind& kind) {
  try {
    kind.fail();
    return false;
  } catch (const std::exception&) {
    pnl_job::Rollback();
    return true;
  }
}

void Run(const std::vector<Kind>& kinds) {
  constexpr int kSlowTimes = 2;
  faults::Row row("failures of all kinds");
  // Objects that are made once and kept are no leak.
  for (const Kind& kind : kinds) {
    if (!Fails(kind)) row.Violation(kind.name + ": did not fail");
  }
  const support::Belongings before;
  const Names files = Files();
  int done = 0;
  for (int round = 0; done < kFailures; ++round) {
    for (const Kind& kind : kinds) {
      if (kind.slow && round >= kSlowTimes) continue;
      row.Point(Fails(kind) ? "failed" : "did not fail");
      if (++done == kFailures) break;
    }
  }
  std::string leak;
  for (int tries = 0; tries < 100; ++tries) {  // other tests have such files for a while
    leak = Leak(before, files);
    if (leak.empty()) return;
    pnl_proc::Sleep(100);
  }
  row.Violation(leak);
}

}  // namespace

int main() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // whatever a child leaves running is seen
  const pnl_file::TmpDir scratch(fs::temp_directory_path() / "leaks");
  fs::current_path(scratch.Str());
  const support::RepoServer server("www");
  PutPrefix(server.Url() + "/large");
  pnl_log::Reload();
  // Accepts connections and says nothing.
  pnl_proc::Execute silent(
      "exec python3 -c 'import socket; server = socket.create_server((\"127.0.0.1\", 0)); "
      "print(server.getsockname()[1], flush=True); input()'");
  int silent_port = 0;
  silent.Out() >> silent_port;
  pnl_file::Lock lock;
  lock.DoLockWithTimeout("held", true, 0, 1);
  std::vector<Kind> all =
      faults::Joined({Files("held"), Processes(), Downloads(server, silent_port), Documents(),
                      Databases(), Sessions(silent_port)});
  std::unique_ptr<support::LabNode> node;
  std::unique_ptr<support::LabNode> dead;
  if (!support::LabKey().empty()) {
    node = std::make_unique<support::LabNode>();
    dead = std::make_unique<support::LabNode>();
    dead->Kill();
    faults::Shell("ssh-keygen -t ed25519 -q -f other_key -N ''");
    all = faults::Joined({all, Nodes(*node, *dead)});
  }
  faults::PrintHead();
  Run(all);
  const int code = faults::Finish();
  fs::current_path("/");
  return code;
}
