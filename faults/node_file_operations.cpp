// The functions of ssh_utils that work on files of a node, and the session below them.

#include <filesystem>

#include "brefir/simpleconfig.h"
#include "brefir/ssh_utils.h"
#include "faults/node_operation.h"
#include "faults/node_states.h"
#include "faults/table.h"
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

void Pump(Ssh& ssh, std::size_t size) {
  const std::string block(1U << 20U, 'x');
  Ssh run = ssh.Execute("cat");
  for (std::size_t sent = 0; sent < size && run.In(); sent += block.size()) run.In() << block;
  Expect(run.Str().size() == size, "all came back");
}

std::vector<Operation> SessionOperations() {
  return {
      {.name = "SSH: connect",
       .call = [](Site& s) { Ssh ssh(s.node.Login(kTimeout)); },
       .faults = kAllFaults,
       .points = 9,
       .logs_in = false},
      {.name = "SSH: 16 MiB each way",
       .call = [](Site& s) { Pump(s.Ssh(), 16U << 20U); },
       .faults = "cut silence",
       .seconds = 30,
       .calls = {SYS_sendto}},
  };
}

/// What only asks.
void Ask(Site& s) {
  const std::string path = s.Path("f");
  Expect(s.Ssh().Execute("cat " + path).Str() == OldText(), "Execute");
  std::string text;
  file::AssertExec(s.Ssh(), "cat " + path, "failed", &text);
  Expect(text == OldText(), "AssertExec");
  Expect(file::Size(s.Ssh(), path) == kOldSize, "Size");
  Expect(file::Exists(s.Ssh(), path, "f"), "Exists");
  const file::FileInfo info = file::GetInfo(s.Ssh(), path);
  Expect(info.exists && info.size == kOldSize && info.mtime.Seconds() > 0, "GetInfo");
}

Operation Removal(const std::string& ends, const std::function<void(Site&)>& call) {
  return {.name = "file::RemoveFileJob, " + ends,
          .call = call,
          .state = RemovalState,
          .faults = kAllFaults,
          .points = 5,
          .errors = "remote_rm remote_write"};
}

/// What asks, or changes a thing at once.
std::vector<Operation> SmallOperations() {
  Operation commit = Removal("committed", [](Site& s) {
    new file::RemoveFileJob(s.Ssh(), s.Path("f"));
    pnl_job::Commit();
  });
  commit.failed = "old kept new";
  commit.silent = "old";
  Operation rollback = Removal("rolled back", [](Site& s) {
    new file::RemoveFileJob(s.Ssh(), s.Path("f"));
    file::Write(s.Ssh(), s.Path("f"), "text");
    pnl_job::Rollback();
  });
  rollback.failed = rollback.done = "old kept";
  Operation tmp{"file::TmpFile", [](Site& s) {
                  const file::TmpFile made(s.Ssh(), s.dir, "tmp");
                  Expect(Exists(s.Here(made)), "it is there");
                }};
  tmp.state = TmpState;
  tmp.failed = tmp.done = "new left";
  tmp.errors = "mktemp";
  Operation remove{"file::Remove", [](Site& s) { file::Remove(s.Ssh(), s.Path("tree")); },
                   TreeState, "old part new"};
  remove.prepare = PutTree;
  remove.errors = "remote_rm";
  std::vector<Operation> all = {commit, rollback, tmp, remove};
  all.push_back({.name = "file: what only asks", .call = Ask, .points = 9, .errors = "failed"});

  const auto mode = [](const Site& s) {
    const auto found = fs::status(s.Here(s.Path("f"))).permissions();
    return std::string(found == fs::perms{0600} ? "new" : "old");
  };
  const struct {
    const char *name, *error;
    std::function<void(Site&)> call;
    std::function<std::string(const Site&)> state;
  } changes[] = {
      {"Touch", "remote_touch", [](Site& s) { file::Touch(s.Ssh(), s.Path("t")); }, Made("t")},
      {"MkDir", "remote_mkdir", [](Site& s) { file::MkDir(s.Ssh(), s.Path("a/b")); }, Made("a/b")},
      {"MkLink", "remote_ln", [](Site& s) { file::MkLink(s.Ssh(), "f", s.Path("l")); }, Made("l")},
      {"Chmod", "remote_chmod", [](Site& s) { file::Chmod(s.Ssh(), s.Path("f"), "0600"); }, mode},
  };
  for (const auto& c : changes) {
    all.push_back({std::string("file::") + c.name, c.call, c.state});
    all.back().errors = c.error;
  }
  const auto rename = [](Site& s) { file::Rename(s.Ssh(), s.Path("f"), s.Path("g")); };
  all.push_back({"file::Rename", rename, Made("g"), "old new", "new", "old"});
  return all;
}

/// What moves a file or more; a fault may come in the middle.
Operation Transfer(const std::string& name, const std::string& faults,
                   const std::function<void(Site&)>& call,
                   const std::function<std::string(const Site&)>& state,
                   const std::string& errors) {
  return {.name = name,
          .call = call,
          .state = state,
          .failed = "old short new",
          .faults = faults,
          .points = 5,
          .errors = errors};
}

constexpr const char* kUsualFaults = "cut silence fill readonly";

/// A working copy is not written back when it came short, and is kept when it cannot be.
std::vector<Operation> WorkingCopies() {
  const auto state = [](const Site& s) { return FileState(s, "f"); };
  const auto fetch = [](Site& s) {
    const file::RemoteFile copy(s.Ssh(), s.Path("f"));
    Expect(Get(copy) == OldText(), "");
    fs::remove(copy.Str());
  };
  const auto change = [](Site& s) {
    fs::remove("kept");
    const file::RemoteFile copy(s.Ssh(), s.Path("f"));
    Put(copy, NewText());
    Put("kept", copy.Str());
  };
  const auto configure = [](Site& s) {
    utils::Config config(s.Ssh(), s.Path("f"));
    utils::SCBaseField("key", &config, "") = "value";
  };
  const auto configured = [](const Site& s) {
    return StateOf(s.Here(s.Path("f")), OldText(), OldText() + "key=value\n");
  };
  const auto written = [state](const Site& s) {
    const bool lost = state(s) != "new" && fs::exists("kept") && !fs::exists(Get("kept"));
    return lost ? "LOST" : state(s);
  };
  std::vector<Operation> all = {
      Transfer("file::RemoteFile, fetched", kAllFaults, fetch, state, "remote_read"),
      Transfer("file::RemoteFile, changed", kAllFaults, change, written, "remote_read"),
      Transfer("utils::Config", kAllFaults, configure, configured, "remote_read")};
  for (Operation& operation : all) {
    operation.failed = "old";
    operation.done = "new old short";
  }
  all[0].done = "old";
  return all;
}

std::vector<Operation> CopyOperations() {
  const auto file = [](const Site& s) { return FileState(s, "f"); };
  const auto made = [](const char* path) {
    return [path](const Site& s) { return CopyState(s.Here(s.Path(path))); };
  };
  const auto read = [](Site& s) { Expect(file::Read(s.Ssh(), s.Path("f")) == NewText(), ""); };
  const auto write = [](Site& s) { file::Write(s.Ssh(), s.Path("f"), NewText()); };
  const auto copy = [](Site& s) { file::Copy(s.Ssh(), s.Path("f"), s.Path("g")); };
  const auto from = [](Site& s) {
    fs::remove("copy");
    file::CopyFrom(s.Ssh(), s.Path("f"), "copy");
  };
  const auto to = [](Site& s) { file::CopyTo("src/big", s.Ssh(), s.Path("f")); };
  const auto tar = [](Site& s) {
    // It gives the session 300 s; a silent node is not to be waited for so long here.
    const pnl_progress::Watch watch([&s](auto, auto, auto) { s.Ssh().SetTimeout(kTimeout); });
    ssh_utils::CopyViaTar(std::vector<std::string>{"small", "big"}, "src", s.Ssh(), s.dir, "");
  };
  const auto dir = [](Site& s) { ssh_utils::CopyViaTar("src", s.Ssh(), s.Path("d"), ""); };
  std::vector<Operation> all = {
      Transfer("file::Read", kAllFaults, read, nullptr, "remote_read"),
      Transfer("file::Copy", kUsualFaults, copy, made("g"), ""),
      Transfer(
          "file::CopyFrom", kUsualFaults, from, [](const Site&) { return CopyState("copy"); }, ""),
      Transfer("file::CopyTo", kUsualFaults, to, file, ""),
      Transfer("file::Write", kAllFaults, write, file, "remote_write"),
      Transfer("CopyViaTar, names", kAllFaults, tar, made("big"), "scp_failed"),
      Transfer("CopyViaTar, directory", kUsualFaults, dir, made("d/src/big"),
               "scp_failed remote_mkdir")};
  for (std::size_t read_there = 0; read_there < 3; ++read_there) all[read_there].prepare = PutBig;
  all[1].silent = all[3].silent = "old short";
  all[5].early = false;
  return all;
}

/// rsync brings an ssh of its own, and answers with an exit code.
Operation Rsync(const std::string& name, const std::string& faults,
                const std::function<int(Site&)>& copy) {
  const auto call = [copy](Site& s) {
    const int code = copy(s);
    if (code != 0) throw pnl_err::Error("exit code", std::to_string(code));
  };
  const auto state = [](const Site& s) { return CopyState(s.Here(s.Path("big"))); };
  Operation operation = Transfer(name, faults, call, state, "exit code");
  operation.failed = "old new";
  operation.points = 2;
  operation.seconds = 12;
  operation.logs_in = false;
  operation.calls = {SYS_write};
  return operation;
}

std::vector<Operation> RsyncOperations() {
  using namespace ssh_utils;
  const std::vector<std::string> names = {"big"};
  const std::string key = support::LabKey();
  const std::string hosts = support::LabKnownHosts();
  return {
      Rsync("CopyViaRsync", kAllFaults,
            [=](Site& s) {
              return CopyViaRsync("src", names, s.node.Address(), key, s.dir, hosts, "");
            }),
      Rsync("CopyViaRsyncBmx", "cut silence",
            [=](Site& s) {
              return CopyViaRsyncBmx("src", names, s.node.Address(), key, s.dir, hosts, 22);
            }),
  };
}

}  // namespace

std::vector<Operation> FileOperations() {
  return faults::Joined({SessionOperations(), SmallOperations(), WorkingCopies(), CopyOperations(),
                         RsyncOperations()});
}

}  // namespace node_faults
