// A thousand failures of all kinds, after which this process is as it was before: descriptors,
// threads, children, temporaries. In a lab (lab/run) those of sessions to nodes are among them.

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <thread>

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

/// Ended, and left behind by a child of ours, which leads a group: whose parent dies first comes to
/// this process, and is not its own.
bool IsStray(const std::string& pid) {
  std::ifstream stat("/proc/" + pid + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  char state = ' ';
  int parent = 0;
  int group = 0;
  text.erase(0, text.rfind(')') + 1);  // a name may hold anything, proc(5)
  if (std::sscanf(text.c_str(), " %c %d %d", &state, &parent, &group) != 3) return false;
  return state == 'Z' && std::to_string(group) != pid;
}

/// Children of all threads of this process, zombies among them.
Names Children() {
  Names children;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (std::string pid; list >> pid;) {
      if (!IsStray(pid)) children.insert(pid);
    }
  }
  return children;
}

/// Below the working directory, and in /tmp what the library and the programs make there.
Names Files() {
  constexpr const char* kOurs[] = {"check-local.", "conf.", "filelist.", "frontd.conf.", "repo."};
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

struct Belongings {
  std::size_t descriptors = support::OpenDescriptors();
  std::ptrdiff_t threads = std::distance(fs::directory_iterator("/proc/self/task"), {});
  Names children = Children();
};

/// "" when nothing has come to `before` and `files`.
std::string Leak(const Belongings& before, const Names& files) {
  const Belongings now;
  const auto count = [](auto a, auto b) {
    return std::to_string(a) + " before, now " + std::to_string(b);
  };
  if (now.descriptors != before.descriptors) {
    return "descriptors: " + count(before.descriptors, now.descriptors);
  }
  if (now.threads != before.threads) return "threads: " + count(before.threads, now.threads);
  if (now.children != before.children) {
    return "children: " + count(before.children.size(), now.children.size());
  }
  for (const std::string& name : Files()) {
    if (files.count(name) == 0) return name + " is left";
  }
  return "";
}

// --- Failures

/// Accepts connections and says nothing.
class SilentServer {
 public:
  SilentServer() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_.Get(), generic, size) != 0 || listen(socket_.Get(), 100) != 0) return;
    if (getsockname(socket_.Get(), generic, &size) == 0) port_ = ntohs(address.sin_port);
  }
  int Port() const { return port_; }

 private:
  pnl_file::Fd socket_;  // the kernel accepts by itself
  int port_ = 0;
};

/// A port that nobody listens on.
constexpr int kClosed = 1;

void Expect(bool good) {
  if (!good) throw std::runtime_error("as expected");
}

std::vector<Kind> Files(const std::string& held) {
  return {
      {"read a directory", [] { (void)pnl_file::Read("d"); }},
      {"read a missing file", [] { (void)pnl_file::ReadE("none"); }},
      {"write below a file", [] { pnl_file::Write("file/x", "x"); }},
      {"write over a directory", [] { pnl_file::Write("d", "x"); }},
      {"remove /", [] { pnl_file::Remove("/"); }},
      {"take over a FIFO", [] { pnl_file::SecureTree("hostile"); }},
      {"walk a missing directory", [] { pnl_file::Dir dir("none"); }},
      {"place a tree in none", [] { pnl_file::PlaceTree("d", "none/d"); }},
      {"wait for a held lock", [=] { pnl_file::Lock().DoLockWithTimeout(held, true, 0, 1); }},
      {"commit a missing file",
       [] {
         new pnl_job::MoveFile("none", "file");
         pnl_job::Commit();
       }},
      {"change a missing configuration",
       [] { utils::SimpleConfig("none", false, "#", "=", "").Set("a", "1", ""); }},
      {"flush counters to a directory",
       [] {
         counter::Cache cache;
         const pnl_file::safe::Folder home;
         fs::current_path("hostile");
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
         bool ran = false;
         pnl_thread::Handle thread([&] {
           ran = true;
           throw pnl_err::Error("inside");
         });
         thread.Start();
         thread.join();
         Expect(!ran);
       }},
      {"a new key without an old one", [] { ssh_gen::SshKeyGenerator("none.pub", "none", ""); }},
      {"a program without its file",
       [] { Expect(Execute(BREFIR_BIN_DIR "/brefirctl config get none a 2>&1").Result() == 0); }},
      {"an installer without an index",
       [] {
         Expect(Execute(BREFIR_BIN_DIR
                        "/ost_install -m m -v 1 -i a__b -t installed -d none 2>/dev/null")
                    .Result() == 0);
       }},
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

std::vector<Kind> Downloads(const support::RepoServer& server, const SilentServer& silent) {
  const std::string closed = "http://127.0.0.1:" + std::to_string(kClosed) + "/";
  for (const auto& [name, fault] :
       std::map<std::string, std::string>{{"gone", "status 404"},
                                          {"cut", "truncate 10"},
                                          {"stalled", "stall-body 10 60"},
                                          {"reset", "reset"},
                                          {"local", "redirect file:///etc/passwd"}}) {
    server.Fault(name, fault);
  }
  std::vector<Kind> kinds = {
      Download("no server", closed),
      Download("a silent server", "http://127.0.0.1:" + std::to_string(silent.Port()) + "/", true),
      Download("a device", "file:///dev/zero"),
      Download("too much", server.Url() + "/large"),
  };
  for (const char* name : {"gone", "cut", "reset", "local"}) {
    kinds.push_back(Download(name, server.Url() + "/" + name));
  }
  kinds.push_back(Download("stalled", server.Url() + "/stalled", true));
  const std::string gone = server.Url() + "/gone";
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
  std::string bomb = "<!DOCTYPE d [<!ENTITY a0 \"aaaaaaaaaa\">";
  for (int i = 1; i < 10; ++i) {
    const std::string inner = "&a" + std::to_string(i - 1) + ";";
    bomb += "<!ENTITY a" + std::to_string(i) + " \"";
    for (int n = 0; n < 10; ++n) bomb += inner;
    bomb += "\">";
  }
  bomb += "]><d>&a9;</d>";
  return {
      {"an XML bomb", [=] { const pnl_xml::Xml xml(bomb); }},
      {"an external entity",
       [] { const pnl_xml::Xml xml("<!DOCTYPE d [<!ENTITY e SYSTEM '/etc/passwd'>]><d>&e;</d>"); }},
      {"a cut document", [] { const pnl_xml::Xml xml("<d><e>"); }},
      {"too deep a document",
       [] {
         std::string deep;
         for (int i = 0; i < 100000; ++i) deep += "<d>";
         const pnl_xml::Xml xml(deep);
       }},
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

std::vector<Kind> Sessions(int silent_port) {
  const auto connect = [](int port) {
    return [=] {
      pnl_rpc::SshOptions options;
      options.host = "127.0.0.1";
      options.port = port;
      options.connect_timeout = 1;
      const pnl_rpc::SSH ssh(options);
    };
  };
  return {{"a session to nobody", connect(kClosed)},
          {"a session to the silent", connect(silent_port), true}};
}

/// With real nodes, where there are any.
std::vector<Kind> Nodes(const support::LabNode* node, const support::LabNode* dead) {
  if (node == nullptr) return {};
  const auto login = [](const support::LabNode* to) {
    pnl_rpc::SshOptions options;
    options.host = to->Address();
    options.key_file = support::LabKey();
    options.known_hosts = support::LabKnownHosts();
    options.connect_timeout = 2;
    return options;
  };
  return {
      {"a node's command fails",
       [=] { Expect(pnl_rpc::SSH(login(node)).Execute("exit 3").Result() == 0); }},
      {"a node refuses the login",
       [=] {
         pnl_rpc::SshOptions other = login(node);
         other.key_file = "other_key";
         const pnl_rpc::SSH ssh(other);
       }},
      {"a node of an unknown key",
       [=] {
         pnl_rpc::SshOptions other = login(node);
         other.known_hosts = "file";
         const pnl_rpc::SSH ssh(other);
       }},
      {"a node cuts the session",
       [=] {
         pnl_rpc::SSH ssh(login(node));
         (void)ssh.Execute("kill -9 $PPID; sleep 5").Str();
       }},
      {"a node is dead", [=] { const pnl_rpc::SSH ssh(login(dead)); }, true},
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
  fs::create_directories("hostile/var/stat.counters");
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
  // What is made once and kept is no leak.
  for (const Kind& kind : kinds) {
    if (!Fails(kind)) row.Violation(kind.name + ": did not fail");
  }
  const Belongings before;
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

void Add(std::vector<Kind>& all, const std::vector<Kind>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

}  // namespace

int main() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // whatever a child leaves running is seen
  const pnl_file::TmpDir scratch(fs::temp_directory_path() / "leaks");
  fs::current_path(scratch.Str());
  const support::RepoServer server("www");
  PutPrefix(server.Url() + "/large");
  pnl_log::Reload();
  const SilentServer silent;
  pnl_file::Lock lock;
  lock.DoLockWithTimeout("held", true, 0, 1);
  std::unique_ptr<support::LabNode> node;
  std::unique_ptr<support::LabNode> dead;
  if (!support::LabKey().empty()) {
    node = std::make_unique<support::LabNode>();
    dead = std::make_unique<support::LabNode>();
    dead->Kill();
    faults::Shell("ssh-keygen -t ed25519 -q -f other_key -N ''");
  }
  std::vector<Kind> all;
  Add(all, Files("held"));
  Add(all, Processes());
  Add(all, Downloads(server, silent));
  Add(all, Documents());
  Add(all, Databases());
  Add(all, Sessions(silent.Port()));
  Add(all, Nodes(node.get(), dead.get()));
  faults::PrintHead();
  Run(all);
  const int code = faults::Finish();
  fs::current_path("/");
  return code;
}
