#include "faults/workers.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include "faults/table.h"
#include "pnl/str.h"
#include "support/faults.h"

namespace faults {
namespace {

constexpr int kMostWorkers = 64;

/// In memory that all processes have.
struct Shared {
  std::atomic<std::size_t> next;                   ///< job
  std::atomic<std::size_t> current[kMostWorkers];  ///< job of each worker
};

Shared& MakeShared() {
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  return *new (memory) Shared{};
}

[[noreturn]] void Work(int number, std::size_t jobs, Shared& shared, const Worker& work) {
  while (true) {
    const std::size_t job = shared.next++;
    shared.current[number] = job;
    if (job >= jobs) std::exit(0);
    work(job);
  }
}

/// Reads what the workers say until all of them have ended.
void Listen(int fd, std::map<std::string, Row>& rows) {
  std::ifstream lines("/proc/self/fd/" + std::to_string(fd));
  for (std::string text; std::getline(lines, text);) {
    const char kind = text[0];
    Row& row = rows.at(str::GetWord(text, '\t').substr(1));
    if (kind == 'P') {
      row.Point(text);
    } else {
      row.Violation(text);
    }
  }
}

}  // namespace

/// The line is whole, however many write.
void Report::Send(char kind, const std::string& row, std::string text) const {
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::string line = kind + row + '\t' + text.substr(0, PIPE_BUF / 2) + '\n';
  if (write(fd_, line.data(), line.size()) < 0) std::abort();
}

std::string WhyNotHere(const std::string& program) {
  if (std::getenv("LAB") == nullptr)
    return program + ": needs a lab: lab/run --bind BUILD " + program + "\n";
  if (!support::FaultsWork()) return program + ": system calls cannot be stopped here\n";
  return "";
}

void EnterPanel(int number) {
  const std::string dir = "/panel/" + std::to_string(number);
  for (const char* name : {"/var", "/etc"}) std::filesystem::create_directories(dir + name);
  std::filesystem::current_path(dir);
}

Thinning::Thinning() {
  constexpr int kJobs = 3;  // there are eight jobs for a fault: all kinds of them have their turn
  const char* const step = std::getenv("BREFIR_FAULT_STEP");
  if (step == nullptr) return;
  const int wanted = std::max(1, std::atoi(step));
  jobs = wanted < kJobs ? 1 : kJobs;
  points = (wanted + jobs - 1) / jobs;
}

void RunJobs(const std::vector<std::string>& rows, int workers,
             const std::function<Worker(int number, const Report& report)>& make) {
  Shared& shared = MakeShared();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  std::map<pid_t, int> numbers;
  const int crew = std::min({workers, kMostWorkers, static_cast<int>(rows.size())});
  for (int number = 0; number < crew; ++number) {
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      close(ends[0]);
      Work(number, rows.size(), shared, make(number, Report(ends[1])));
    }
    numbers[pid] = number;
  }
  close(ends[1]);
  std::map<std::string, Row> table;
  for (const std::string& row : rows) table.try_emplace(row, row);
  Listen(ends[0], table);
  close(ends[0]);
  for (const auto& [pid, number] : numbers) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (status == 0) continue;
    const std::size_t job = shared.current[number];
    const std::string what = "ended its process with status " + std::to_string(status);
    const bool hung = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
    if (job < rows.size()) {
      table.at(rows[job]).Violation(what + (hung ? ": it hung" : ""));
    } else {
      Row("the end of a process").Violation(what);
    }
  }
  munmap(&shared, sizeof(Shared));
}

}  // namespace faults
