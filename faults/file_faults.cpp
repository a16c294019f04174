// The files of the platform and of the library, and their temporaries.

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>

#include "brefir/ostemplates.h"
#include "brefir/simpleconfig.h"
#include "brefir/stat_raw.h"
#include "faults/operation.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/task.h"
#include "tools/core_module.h"

namespace {

namespace fs = std::filesystem;

using faults::OldOrNew;
using faults::Operation;
using faults::Put;
using faults::Text;

const std::string kOld = "old " + std::string(5000, '.');
const std::string kNew = "new " + std::string(9000, '.');

// --- pnl_file

bool labels = false;  ///< the file system knows them

/// A file whose owner, mode and label a new one has to take over.
void PutLabelled(const std::string& path) {
  Put(path, kOld);
  if (chown(path.c_str(), 0, 4321) == 0) chmod(path.c_str(), 02640);
  labels = setxattr(path.c_str(), "user.origin", "panel", 5, 0) == 0;
}

std::string Labelled(const std::string& path) {
  struct stat info {};
  char label[8] = "";
  if (lstat(path.c_str(), &info) != 0) return "missing";
  const bool root = geteuid() == 0;
  if (root && (info.st_gid != 4321 || (info.st_mode & 07777) != 02640)) return "other attributes";
  if (labels && getxattr(path.c_str(), "user.origin", label, 5) != 5) return "no label";
  return OldOrNew(Text(path), kOld, kNew);
}

std::vector<Operation> Files() {
  const auto file = [] { return OldOrNew(Text("d/file"), kOld, kNew); };
  const auto fresh = [] { return OldOrNew(Text("file"), "", kNew); };
  const auto nothing = [] {};
  return {
      {.name = "Write, over a file",
       .prepare = [] { PutLabelled("file"); },
       .work = [] { pnl_file::Write("file", kNew); },
       .state = [] { return Labelled("file"); },
       .widest = 02640},
      {.name = "Write, through a link",
       .prepare =
           [] {
             PutLabelled("d/file");
             fs::create_symlink("d/file", "link");
           },
       .work = [] { pnl_file::Write("link", kNew); },
       .state = [] { return fs::is_symlink("link") ? Labelled("d/file") : "no link"; },
       .widest = 02640},
      {.name = "Write, a new file",
       .prepare = nothing,
       .work = [] { pnl_file::Write("file", kNew); },
       .state = fresh,
       .widest = 0666},
      {.name = "Write, a new secret",
       .prepare = nothing,
       .work = [] { pnl_file::Write("file", kNew, pnl_file::kSecretMode); },
       .state = fresh,
       .widest = 0600},
      {.name = "PlaceTree, over a tree",
       .prepare =
           [] {
             Put("d/file", kOld);
             Put("tree/file", kNew);
             Put("tree/added", "");
           },
       .work =
           [] {
             if (fs::exists("tree/added")) pnl_file::PlaceTree("tree", "d");
           },
       .state = file},
      {.name = "PlaceTree, a new tree",
       .prepare = [] { Put("tree/file", kNew); },
       .work =
           [] {
             if (fs::exists("tree")) pnl_file::PlaceTree("tree", "d");
           },
       .state = [] { return OldOrNew(Text("d/file"), "", kNew); }},
      {.name = "Remove, a tree",
       .prepare =
           [] {
             for (const char* path : {"d/a/x", "d/a/y", "d/z", "outside/x"}) Put(path, kOld);
             fs::create_symlink("../../outside", "d/a/link");
           },
       .work = [] { pnl_file::Remove("d"); },
       .state =
           [] {
             if (Text("outside/x") != kOld) return "went outside";
             if (!fs::exists("d")) return "new";
             const auto left = std::distance(fs::recursive_directory_iterator("d"), {});
             return left == 5 ? "old" : "part";
           },
       .torn = "part"},
      {.name = "MkDir, with its parents",
       .prepare = nothing,
       .work = [] { pnl_file::MkDir("a/b/c"); },
       .state =
           [] {
             if (fs::exists("a/b/c")) return "new";
             return fs::exists("a") ? "part" : "old";
           },
       .torn = "part"},
  };
}

// --- Jobs

Operation JobThat(const std::string& ends, void (*end)(), const std::string& old_left,
                  const std::string& new_left) {
  return {.name = "MoveFile, " + ends,
          .prepare =
              [] {
                Put("file", kOld);
                Put("tmp", kNew, 0600);
              },
          .work =
              [=] {
                if (!fs::exists("tmp")) return;
                new pnl_job::MoveFile("tmp", "file");
                end();
              },
          .state =
              [=] {
                const std::string found = fs::exists("tmp") ? "tmp" : Text("file").substr(0, 3);
                return OldOrNew(found, old_left, new_left);
              },
          .silent = ends == "rollback"};
}

std::vector<Operation> Jobs() {
  return {JobThat("commit", pnl_job::Commit, "tmp", "new"),
          JobThat("rollback", pnl_job::Rollback, "tmp", "old")};
}

// --- Configuration

constexpr const char* kConf = "# a comment\na = 1\nb = 2\n";

utils::SimpleConfig Config(bool create = false) {
  return {"f.conf", create, "#", "=", ""};
}

Operation ConfigThat(const std::string& does, std::function<void()> work,
                     const std::string& result) {
  return {.name = "SimpleConfig, " + does,
          .prepare = [] { Put("f.conf", kConf); },
          .work = std::move(work),
          .state = [=] { return OldOrNew(Text("f.conf"), kConf, result); }};
}

std::vector<Operation> Configs() {
  return {
      ConfigThat(
          "Set", [] { Config().Set("b", "3", ""); }, "# a comment\na = 1\nb=3\n"),
      ConfigThat(
          "Del", [] { (void)Config().Del("a"); }, "# a comment\nb = 2\n"),
      {.name = "SimpleConfig, a new file",
       .prepare = [] {},
       .work = [] { Config(true).Set("a", "1", ""); },
       .state =
           [] { return Text("f.conf").empty() ? "old" : OldOrNew(Text("f.conf"), "", "a=1\n"); },
       .widest = 0666},
      {.name = "core, frontd.edit",
       .prepare = [] { Put("etc/frontd.conf", "# listens\nListen 127.0.0.1 80 on off\n"); },
       .work =
           [] {
             (void)tools::CallCore("frontd.edit", {{"sok", "ok"},
                                                   {"ip", "127.0.0.1"},
                                                   {"port", "80"},
                                                   {"sslauth", "off"},
                                                   {"sslonly", "off"}});
           },
       .state =
           [] {
             return OldOrNew(Text("etc/frontd.conf"), "# listens\nListen 127.0.0.1 80 on off\n",
                             "# listens\nListen 127.0.0.1 80 off off\n");
           }},
      {.name = "counters, Flush",
       .prepare = [] { Put("var/stat.counters", "a b 1\n"); },
       .work =
           [] {
             counter::Cache cache;
             cache.Load();
             cache.UpdateCounter("a", "b", 2);
             cache.Flush();
           },
       .state =
           [] {
             return OldOrNew(Text("var/stat.counters"), "a b 1\n",
                             "# counter cache data\n#name cname value\na b 2\n");
           }},
  };
}

// --- Tasks

/// The program that was started, if any, has ended by now.
std::string TaskState() {
  std::vector<pnl_task::Status> tasks;
  do {
    tasks = pnl_task::List();
  } while (!tasks.empty() && tasks[0].state == pnl_task::State::kRunning);
  return tasks.empty() ? "old" : "new";
}

std::vector<Operation> Tasks() {
  return {{.name = "LongTask, Start",
           .prepare =
               [] {
                 Put("sbin/work", "#!/bin/sh\n", 0750);
                 fs::create_directories("var/tasks");
               },
           .work =
               [] {
                 pnl_task::LongTask task("sbin/work", "one", "WORK");
                 task.Start(pnl_task::kDetached);
               },
           .state = TaskState,
           .widest = 0666,  // of the exit code, which the shell writes
           .calls = faults::Calls::kOwn}};
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Operation> all;
  for (const auto& group : {Files(), Jobs(), Configs(), Tasks()}) {
    all.insert(all.end(), group.begin(), group.end());
  }
  return faults::Run(argc, argv, all);
}
