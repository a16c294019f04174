// The functions of ssh_utils that work on files of a node, and the session below them.

#include <filesystem>

#include "brefir/simpleconfig.h"
#include "brefir/ssh_utils.h"
#include "faults/node_operation.h"
#include "faults/node_states.h"
#include "pnl/err.h"
#include "pnl/job.h"
#include "pnl/progress.h"

namespace node_faults {
namespace {

namespace file = ssh_utils::file;
namespace fs = std::filesystem;
using Ssh = pnl_rpc::SSH;

// --- States

std::string FileState(const Site& site, const std::string& name) {
  return StateOf(site.Here(site.Path(name)), OldText(), NewText());
}

/// Of what a copy makes or overwrites, with nothing there before.
std::string CopyState(const std::string& path) {
  return StateOf(path, "", NewText());
}

std::function<std::string(const Site&)> Made(const std::string& name) {
  return [name](const Site& site) { return Exists(site.Here(site.Path(name))) ? "new" : "old"; };
}

/// "old" and "new" as RemoveFileJob leaves them, "kept" while the removed file has its other name.
std::string RemovalState(const Site& site) {
  const std::string path = site.Here(site.Path("f"));
  for (const auto& entry : fs::directory_iterator(site.Here(site.dir))) {
    const std::string backup = entry.path();
    if (backup.starts_with(path + ".")) return Get(backup) == OldText() ? "kept" : "TORN";
  }
  if (!Exists(path)) return "new";
  return Get(path) == OldText() ? "old" : "TORN";
}

std::string TreeState(const Site& site) {
  const fs::path tree = site.Here(site.Path("tree"));
  if (!fs::exists(tree)) return "new";
  return std::distance(fs::directory_iterator(tree), {}) == kTreeFiles ? "old" : "part";
}

std::string TmpState(const Site& site) {
  for (const auto& entry : fs::directory_iterator(site.Here(site.dir))) {
    if (entry.path().filename().string().starts_with("tmp.")) return "left";
  }
  return "new";
}

// --- Preparations

void PutBig(Site& site) {
  Put(site.Here(site.Path("f")), NewText());
}

void PutTree(Site& site) {
  for (int i = 0; i < kTreeFiles; ++i) {
    Put(site.Here(site.Path("tree/" + std::to_string(i))), "x");
  }
}

/// CopyViaTar gives the session 300 s; a silent node is not to be waited for so long here.
class ShortTimeout {
 public:
  explicit ShortTimeout(Ssh& ssh)
      : watch_([&ssh](auto, auto, auto) { ssh.SetTimeout(kTimeout); }) {}

 private:
  pnl_progress::Watch watch_;
};

void Pump(Ssh& ssh, std::size_t size) {
  const std::string block(1U << 20U, 'x');
  Ssh run = ssh.Execute("cat");
  for (std::size_t sent = 0; sent < size && run.In(); sent += block.size()) run.In() << block;
  Expect(run.Str().size() == size, "all came back");
}

std::vector<Operation> SessionOperations() {
  return {
      {.name = "SSH: connect",
       .call = [](Site& s) { Ssh ssh(LoginTo(s.node, kTimeout)); },
       .faults = kAllFaults,
       .points = 9,
       .logs_in = false},
      {.name = "SSH: Execute, Str",
       .call =
           [](Site& s) { Expect(s.Ssh().Execute("cat " + s.Path("f")).Str() == NewText(), ""); },
       .prepare = PutBig,
       .points = 5},
      {.name = "SSH: 16 MiB each way",
       .call = [](Site& s) { Pump(s.Ssh(), 16U << 20U); },
       .faults = "cut silence",
       .points = 2,
       .seconds = 30,
       .calls = {SYS_sendto}},
  };
}

/// What asks, or changes a thing at once.
std::vector<Operation> SmallOperations() {
  return {
      {.name = "file::AssertExec",
       .call =
           [](Site& s) {
             std::string text;
             file::AssertExec(s.Ssh(), "cat " + s.Path("f"), "failed", &text);
             Expect(text == OldText(), "");
           },
       .errors = "failed"},
      {.name = "file::Touch",
       .call = [](Site& s) { file::Touch(s.Ssh(), s.Path("t")); },
       .state = Made("t"),
       .errors = "remote_touch"},
      {.name = "file::MkDir",
       .call = [](Site& s) { file::MkDir(s.Ssh(), s.Path("a/b/c")); },
       .state = Made("a/b/c"),
       .errors = "remote_mkdir"},
      {.name = "file::Remove",
       .call = [](Site& s) { file::Remove(s.Ssh(), s.Path("tree")); },
       .state = TreeState,
       .failed = "old part new",
       .prepare = PutTree,
       .errors = "remote_rm"},
      {.name = "file::MkLink",
       .call = [](Site& s) { file::MkLink(s.Ssh(), "f", s.Path("l")); },
       .state = Made("l"),
       .errors = "remote_ln"},
      {.name = "file::Chmod",
       .call = [](Site& s) { file::Chmod(s.Ssh(), s.Path("f"), "0600"); },
       .state =
           [](const Site& s) {
             const auto mode = fs::status(s.Here(s.Path("f"))).permissions();
             return std::string(mode == fs::perms{0600} ? "new" : "old");
           },
       .errors = "remote_chmod"},
      {.name = "file::Size",
       .call = [](Site& s) { Expect(file::Size(s.Ssh(), s.Path("f")) == kOldSize, ""); }},
      {.name = "file::Rename",
       .call = [](Site& s) { file::Rename(s.Ssh(), s.Path("f"), s.Path("g")); },
       .state = Made("g"),
       .silent = "old"},
      {.name = "file::Exists",
       .call = [](Site& s) { Expect(file::Exists(s.Ssh(), s.Path("f"), "f"), ""); }},
      {.name = "file::GetInfo",
       .call =
           [](Site& s) {
             const file::FileInfo info = file::GetInfo(s.Ssh(), s.Path("f"));
             Expect(info.exists && info.size == kOldSize && info.mtime.Seconds() > 0, "");
           }},
      {.name = "file::TmpFile",
       .call =
           [](Site& s) {
             const file::TmpFile tmp(s.Ssh(), s.dir, "tmp");
             Expect(Exists(s.Here(tmp)), "it is there");
           },
       .state = TmpState,
       .failed = "new left",
       .done = "new left",
       .errors = "mktemp"},
      {.name = "file::RemoveFileJob, committed",
       .call =
           [](Site& s) {
             new file::RemoveFileJob(s.Ssh(), s.Path("f"));
             pnl_job::Commit();
           },
       .state = RemovalState,
       .failed = "old kept new",
       .silent = "old",
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_rm"},
      {.name = "file::RemoveFileJob, rolled back",
       .call =
           [](Site& s) {
             new file::RemoveFileJob(s.Ssh(), s.Path("f"));
             file::Write(s.Ssh(), s.Path("f"), "text");
             pnl_job::Rollback();
           },
       .state = RemovalState,
       .failed = "old kept",
       .done = "old kept",
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_write"},
  };
}

/// What moves a file or more; a fault may come in the middle.
std::vector<Operation> CopyOperations() {
  const auto tar = [](auto names) {
    return [names](Site& s) {
      const ShortTimeout guard(s.Ssh());
      ssh_utils::CopyViaTar(names, "src", s.Ssh(), s.dir, "");
    };
  };
  const auto tar_state = [](const Site& s) { return CopyState(s.Here(s.Path("big"))); };
  return {
      {.name = "file::Read",
       .call = [](Site& s) { Expect(file::Read(s.Ssh(), s.Path("f")) == NewText(), ""); },
       .prepare = PutBig,
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_read"},
      {.name = "file::Write",
       .call = [](Site& s) { file::Write(s.Ssh(), s.Path("f"), NewText()); },
       .state = [](const Site& s) { return FileState(s, "f"); },
       .failed = "old short new",
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_write"},
      {.name = "file::Copy",
       .call = [](Site& s) { file::Copy(s.Ssh(), s.Path("f"), s.Path("g")); },
       .state = [](const Site& s) { return CopyState(s.Here(s.Path("g"))); },
       .failed = "old short new",
       .silent = "old short",
       .prepare = PutBig},
      {.name = "file::CopyFrom",
       .call =
           [](Site& s) {
             fs::remove("copy");
             file::CopyFrom(s.Ssh(), s.Path("f"), "copy");
           },
       .state = [](const Site&) { return CopyState("copy"); },
       .failed = "old short new",
       .prepare = PutBig,
       .points = 5},
      {.name = "file::CopyTo",
       .call = [](Site& s) { file::CopyTo("src/big", s.Ssh(), s.Path("f")); },
       .state = [](const Site& s) { return FileState(s, "f"); },
       .failed = "old short new",
       .silent = "old short",
       .points = 5},
      {.name = "file::RemoteFile, fetched",
       .call =
           [](Site& s) {
             const file::RemoteFile copy(s.Ssh(), s.Path("f"));
             Expect(Get(copy) == OldText(), "");
             fs::remove(copy.Str());
           },
       .state = [](const Site& s) { return FileState(s, "f"); },
       .failed = "old",
       .done = "old",
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_read"},
      {.name = "file::RemoteFile, changed",
       .call =
           [](Site& s) {
             fs::remove("kept");
             const file::RemoteFile copy(s.Ssh(), s.Path("f"));
             Put(copy, NewText());
             Put("kept", copy.Str());
           },
       .state =
           [](const Site& s) {
             const std::string state = FileState(s, "f");
             const bool lost = state != "new" && fs::exists("kept") && !fs::exists(Get("kept"));
             return lost ? "LOST" : state;
           },
       .failed = "old",
       .done = "new old short",
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_read"},
      {.name = "utils::Config",
       .call =
           [](Site& s) {
             utils::Config config(s.Ssh(), s.Path("f"));
             utils::SCBaseField("key", &config, "") = "value";
           },
       .state =
           [](const Site& s) {
             return StateOf(s.Here(s.Path("f")), OldText(), OldText() + "key=value\n");
           },
       .failed = "old",
       .done = "new old short",
       .faults = kAllFaults,
       .points = 5,
       .errors = "remote_read"},
      {.name = "CopyViaTar, names",
       .call = tar(std::string("big small")),
       .state = tar_state,
       .failed = "old short new",
       .faults = kAllFaults,
       .points = 4,
       .early = false,
       .errors = "scp_failed"},
      {.name = "CopyViaTar, list",
       .call = tar(std::vector<std::string>{"small", "big"}),
       .state = tar_state,
       .failed = "old short new",
       .faults = "cut silence",
       .early = false,
       .errors = "scp_failed"},
      {.name = "CopyViaTar, directory",
       .call = [](Site& s) { ssh_utils::CopyViaTar("src", s.Ssh(), s.Path("d"), ""); },
       .state = [](const Site& s) { return CopyState(s.Here(s.Path("d/src/big"))); },
       .failed = "old short new",
       .errors = "scp_failed remote_mkdir"},
  };
}

/// rsync brings an ssh of its own, and answers with an exit code.
Operation Rsync(const std::string& name, const std::string& faults,
                const std::function<int(Site&)>& copy) {
  return {.name = name,
          .call =
              [copy](Site& s) {
                const int code = copy(s);
                if (code != 0) throw pnl_err::Error("exit code", std::to_string(code));
              },
          .state = [](const Site& s) { return CopyState(s.Here(s.Path("big"))); },
          .failed = "old new",
          .faults = faults,
          .seconds = 12,
          .errors = "exit code",
          .logs_in = false,
          .calls = {SYS_write}};
}

std::vector<Operation> RsyncOperations() {
  using namespace ssh_utils;
  using Names = std::vector<std::string>;
  const std::string key = support::LabKey();
  const std::string hosts = support::LabKnownHosts();
  return {
      Rsync("CopyViaRsync, list file", kAllFaults,
            [=](Site& s) {
              return CopyViaRsync("src", "etc/list", s.node.Address(), key, s.dir, hosts, "");
            }),
      Rsync("CopyViaRsync, names", "cut silence",
            [=](Site& s) {
              return CopyViaRsync("src", Names{"big"}, s.node.Address(), key, s.dir, hosts, "");
            }),
      Rsync("CopyViaRsyncBmx, list file", "cut silence",
            [=](Site& s) {
              return CopyViaRsyncBmx("src", "etc/list", s.node.Address(), key, s.dir, hosts, 22);
            }),
      Rsync("CopyViaRsyncBmx, names", "cut silence",
            [=](Site& s) {
              return CopyViaRsyncBmx("src", Names{"big"}, s.node.Address(), key, s.dir, hosts, 0);
            }),
  };
}

}  // namespace

std::vector<Operation> FileOperations() {
  std::vector<Operation> all;
  for (const auto& some :
       {SessionOperations(), SmallOperations(), CopyOperations(), RsyncOperations()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

}  // namespace node_faults
