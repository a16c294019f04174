// The files of the platform and of the library, and their temporaries.

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>

#include "brefir/simpleconfig.h"
#include "faults/operation.h"
#include "faults/table.h"
#include "pnl/file.h"
#include "pnl/task.h"

namespace {

namespace fs = std::filesystem;

using namespace faults;

const std::string kOld = "old " + std::string(5000, '.');
const std::string kNew = "new " + std::string(9000, '.');

// --- pnl_file

bool labels = false;  ///< the file system knows them

/// A file whose owner, mode and label the new one must get.
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
  return OldOrNew(Get(path), kOld, kNew);
}

std::vector<Operation> Files() {
  const auto place = [] {
    if (fs::exists("tree/added")) pnl_file::PlaceTree("tree", "d");
  };
  return {
      {.name = "Write, through a link",
       .prepare =
           [] {
             PutLabelled("d/file");
             fs::create_symlink("d/file", "link");
           },
       .work = [] { pnl_file::Write("link", kNew); },
       .state = [] { return fs::is_symlink("link") ? Labelled("d/file") : "no link"; },
       .widest = 02640},
      {.name = "PlaceTree, over a tree",
       .prepare =
           [] {
             Put("d/file", kOld);
             Put("tree/file", kNew);
             Put("tree/added", "");
           },
       .work = place,
       .state = [] { return OldOrNew(Get("d/file"), kOld, kNew); }},
      {.name = "Remove, a tree",
       .prepare =
           [] {
             for (const char* path : {"d/a/x", "d/a/y", "d/z", "outside/x"}) Put(path, kOld);
             fs::create_symlink("../../outside", "d/a/link");
           },
       .work = [] { pnl_file::Remove("d"); },
       .state =
           [] {
             if (Get("outside/x") != kOld) return "went outside";
             if (!fs::exists("d")) return "new";
             const auto left = std::distance(fs::recursive_directory_iterator("d"), {});
             return left == 5 ? "old" : "part";
           },
       .torn = "part"},
      {.name = "MkDir, with its parents",
       .prepare = [] {},
       .work = [] { pnl_file::MkDir("a/b/c"); },
       .state =
           [] {
             if (fs::exists("a/b/c")) return "new";
             return fs::exists("a") ? "part" : "old";
           },
       .torn = "part"},
  };
}

// --- Texts of single files

void SetConfig(const std::string& key, const std::string& value) {
  utils::SimpleConfig("f.conf", true, "#", "=", "").Set(key, value, "");
}

std::vector<Operation> Edits() {
  using faults::Edit;
  std::vector<Operation> all = {
      Edit("Write, a new file", "file", "", kNew, [] { pnl_file::Write("file", kNew); }),
      Edit("Write, a new secret", "file", "", kNew,
           [] { pnl_file::Write("file", kNew, pnl_file::kSecretMode); }),
      Edit("SimpleConfig, a new file", "f.conf", "", "a=1\n", [] { SetConfig("a", "1"); }),
      Edit("SimpleConfig, Set", "f.conf", "# c\na = 1\nb = 2\n", "# c\na = 1\nb=3\n",
           [] { SetConfig("b", "3"); }),
  };
  all[0].widest = all[2].widest = 0666;
  all[1].widest = 0600;
  return all;
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
           .callers = faults::Callers::kOwn}};
}

}  // namespace

int main(int argc, char** argv) {
  return faults::Run(argc, argv, faults::Joined({Files(), Edits(), Tasks()}));
}
