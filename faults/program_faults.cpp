// The programs, with all that they start.

#include <filesystem>
#include <stdexcept>

#include "faults/operation.h"
#include "faults/table.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace {

namespace fs = std::filesystem;

using namespace faults;

void Run(const std::string& line) {
  pnl_proc::Execute program("exec " BREFIR_BIN_DIR "/" + line,
                            pnl_proc::kMergeStderr | pnl_proc::kNoInput);
  const std::string said = program.Str();
  if (program.Result() != 0) throw std::runtime_error(said);
}

std::function<void()> Command(const std::string& line) {
  return [=] { Run(line); };
}

// --- brefirctl

/// A whole prefix, made once and kept elsewhere.
const std::string& WholePrefix() {
  static const pnl_file::TmpDir dir(fs::temp_directory_path() / "whole");
  static const std::string whole = dir.Str() + "/p";
  if (fs::exists(whole)) return whole;
  Run("brefirctl prefix init p");
  Shell("mv p " + whole);
  return whole;
}

/// Each file is whole, or not there yet.
std::string PrefixState() {
  if (!fs::exists("p")) return "old";
  std::string differences = Shell("diff -rq --no-dereference p " + WholePrefix() + " || true");
  bool all = true;
  while (!differences.empty()) {
    const std::string line = str::GetWord(differences, '\n');
    if (!line.starts_with("Only in ")) return line;
    all = all && !line.starts_with("Only in " + WholePrefix());
  }
  return all ? "new" : "part";
}

/// A run that a fault has stopped is undone before the next one. The journal outlives all of them.
void Change() {
  static const pnl_file::TmpDir dir(fs::temp_directory_path() / "panel");
  static const std::string panel = "brefirctl --prefix " + dir.Str() + "/p ";
  if (!fs::exists(dir.Str() + "/p")) Run("brefirctl prefix init " + dir.Str() + "/p");
  try {
    Run(panel + "run undo");
  } catch (const std::runtime_error&) {  // the next run of the machine pays
  }
  Run(panel + "config set f.conf a 2");
}

std::vector<Operation> Brefirctl() {
  Operation change =
      faults::Edit("brefirctl config set", "f.conf", "# ours\na = 1\n", "# ours\na=2\n", Change);
  change.leaves = change.cleans = true;  // the old file, until the run has ended
  change.every = 20;                     // it has thousands of points
  return {
      change,
      {.name = "brefirctl prefix init",
       .prepare = [] { (void)WholePrefix(); },
       .work = Command("brefirctl prefix init p"),
       .state = PrefixState,
       .torn = "part",
       .widest = 0666,
       .every = 3},
  };
}

// --- ost_install

class Repository {
 public:
  Repository() {
    Put(dir_.Str() + "/tree/os/init", "new");
    Shell("tar czf " + dir_.Str() + "/os.tar.gz -C " + dir_.Str() + "/tree .");
  }

  void PutIndex() const {
    Put("metadata.xml", "<doc url='file://" + dir_.Str() +
                            "'><elem><osname>Os</osname><filename>os.tar.gz</filename>"
                            "<support><elem>Panel</elem></support></elem></doc>");
  }

 private:
  pnl_file::TmpDir dir_{fs::temp_directory_path() / "repository"};
};

constexpr const char* kInstalled =
    "<doc><osname>Os</osname><support><elem>Panel</elem></support>"
    "<install_result>ok</install_result></doc>";

/// A failed first installation says so; nothing is there in part.
std::string InstallState() {
  if (Get("t/main__Os/os/init") == "new") return "new";
  if (!fs::exists("t/main__Os")) return "old";
  const std::string info = Get("t/main__Os/metainfo.xml");
  if (fs::exists("t/main__Os/os")) return "half a tree";
  return info.empty() || info.find("</install_result>") != std::string::npos ? "failed" : info;
}

std::string UpdateState() {
  if (Get("t/main__Os/templatemacros.values") != "m\t1\n") return "values are lost";
  if (Get("t/main__Os/metainfo.xml").find(">ok<") == std::string::npos) return "not installed";
  return OldOrNew(Get("t/main__Os/os/init"), "old", "new");
}

std::vector<Operation> Installer(const Repository& repository) {
  const std::string line = "ost_install -m panel -v 5.3 -i main__Os -t t -d metadata.xml";
  return {
      {.name = "ost_install, a new template",
       .prepare = [&] { repository.PutIndex(); },
       .work = Command(line),
       .state = InstallState,
       .torn = "failed",
       .widest = 0666,
       .logs = true,
       .cleans = true,
       .every = 10},
      {.name = "ost_install, an update",
       .prepare =
           [&] {
             repository.PutIndex();
             Put("t/main__Os/metainfo.xml", kInstalled);
             Put("t/main__Os/os/init", "old");
             Put("t/main__Os/templatemacros.values", "m\t1\n", 0600);
           },
       .work = Command(line),
       .state = UpdateState,
       .widest = 0666,
       .logs = true,
       .cleans = true,
       .every = 10},
  };
}

}  // namespace

int main(int argc, char** argv) {
  const Repository repository;
  std::vector<Operation> all = faults::Joined({Brefirctl(), Installer(repository)});
  for (Operation& operation : all) {
    operation.callers = faults::Callers::kOthers;
    operation.late = true;  // a change is made before it is told
    operation.prepare = [prepare = operation.prepare] {
      fs::create_directory("var");  // which a prefix has
      prepare();
    };
  }
  return faults::Run(argc, argv, all);
}
