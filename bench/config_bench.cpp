// One edit of a configuration file of 500 lines: by the library, by bare system calls that write
// the same bytes safely, and by starting an editor. The working directory must be on a disk:
// elsewhere fsync(2) costs nothing.

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "brefir/simpleconfig.h"
#include "pnl/proc.h"
#include "ratio.h"

namespace {

using std::string;

constexpr int kLines = 500;

void Must(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

/// The file to be edited, in a directory of its own.
class Scene {
 public:
  Scene() : dir_("bench"), file_(dir_.Str() + "/conf") {
    struct statfs info {};
    Must(statfs(dir_.Str().c_str(), &info) == 0, "statfs");
    if (info.f_type == TMPFS_MAGIC) std::cerr << "config_bench: this is no disk\n";
    string text;
    for (int i = 0; i < kLines; ++i)
      text += i % 5 == 0 ? "# about what follows\n" : "key" + std::to_string(i) + "=value of it\n";
    pnl_file::Write(file_, text);
  }

  const string& Dir() const { return dir_.Str(); }
  const string& File() const { return file_; }
  /// Never the value that is there.
  string NextValue() { return "v" + std::to_string(++count_); }

 private:
  pnl_file::TmpDir dir_;
  string file_;
  int count_ = 100000;
};

Scene* scene = nullptr;

void SetLibrary(benchmark::State& state) {
  utils::SimpleConfig config(scene->File(), false, "#", "=", "");
  for (auto _ : state) config.Set("key251", scene->NextValue(), "");
}

void SetBare(benchmark::State& state) {
  const string tmp = scene->File() + ".tmp";
  std::vector<char> bytes(1 << 16);
  for (auto _ : state) {
    const int in = open(scene->File().c_str(), O_RDONLY);
    const ssize_t size = read(in, bytes.data(), bytes.size());
    close(in);
    const int out = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    Must(size > 0 && write(out, bytes.data(), static_cast<size_t>(size)) == size, "copy");
    Must(fsync(out) == 0 && close(out) == 0, "fsync");
    Must(rename(tmp.c_str(), scene->File().c_str()) == 0, "rename");
    const int dir = open(scene->Dir().c_str(), O_RDONLY | O_DIRECTORY);
    Must(fsync(dir) == 0 && close(dir) == 0, "fsync");
  }
}

/// `command` is given the next value as its last word.
void RunEditor(benchmark::State& state, const string& command) {
  for (auto _ : state)
    Must(pnl_proc::Execute(command + scene->NextValue()).Result() == 0, command.c_str());
}

void Crudini(benchmark::State& state) {
  RunEditor(state, "crudini --set " + scene->File() + " '' key251 ");
}

void Augtool(benchmark::State& state) {
  RunEditor(state, "augtool -s -A -t 'Shellvars.lns incl " + scene->File() + "' set /files" +
                       scene->File() + "/key251 ");
}

bool Installed(const char* program) {
  if (pnl_proc::Execute(string("command -v ") + program).Result() == 0) return true;
  std::cerr << "config_bench: skipped: " << program << " is not installed\n";
  return false;
}

void Add(const char* name, void (*function)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name, function)
      ->Repetitions(9)
      ->ReportAggregatesOnly(true)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
}

int Run(const std::vector<char*>& words) {
  Scene here;
  scene = &here;
  Add("SetLibrary", SetLibrary);
  Add("SetBare", SetBare);
  if (Installed("crudini")) Add("Crudini", Crudini);
  if (Installed("augtool")) Add("Augtool", Augtool);
  const auto clock = bench::Time::kClock;
  return bench::MainInterleaved(words, {{"SetLibrary", "SetBare", "at most 1.2", clock},
                                        {"Crudini", "SetLibrary", "many", clock},
                                        {"Augtool", "SetLibrary", "many", clock}});
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] { return Run({argv, argv + argc}); });
}
