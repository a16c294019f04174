#pragma once

#include <functional>
#include <string>
#include <vector>

/// Jobs that are done by several processes at the same time, each with nodes of its own.
namespace faults {

/// What a worker tells the process that prints the table.
class Report {
 public:
  explicit Report(int fd) : fd_(fd) {}
  void Point(const std::string& row, const std::string& state) const { Send('P', row, state); }
  void Violation(const std::string& row, const std::string& what) const { Send('V', row, what); }

 private:
  void Send(char kind, const std::string& row, std::string text) const;

  int fd_;
};

/// What BREFIR_FAULT_STEP in the environment leaves of jobs with many points each: about every so
/// many-th point. Jobs are left out, too, because each ends with a round that its fault does not reach.
struct Thinning {
  Thinning();
  [[nodiscard]] bool IsWhole() const { return jobs == 1 && points == 1; }
  template <class Job>
  [[nodiscard]] std::vector<Job> Of(const std::vector<Job>& all) const {
    std::vector<Job> kept;
    for (std::size_t i = 0; i < all.size(); i += static_cast<std::size_t>(jobs))
      kept.push_back(all[i]);
    return kept;
  }

  int jobs = 1;    ///< every so many-th
  int points = 1;  ///< of each
};

/// Why a program with nodes cannot run here, with an advice, for people; "": it can. A program that
/// cannot ends with kLeftOut.
std::string WhyNotHere(const std::string& program);
constexpr int kLeftOut = 77;

/// Makes a directory of a panel for a worker and enters it.
void EnterPanel(int number);

/// Does the job with this number.
using Worker = std::function<void(std::size_t job)>;

/// Starts `workers` processes. Each calls `make` with its number, from 0, and then the returned
/// function for one job after the other, until all are done. `rows` are the rows of the table to which
/// the jobs belong; they are printed when all have ended. A worker that ends with a signal is a
/// violation in the row of its job.
void RunJobs(const std::vector<std::string>& rows, int workers,
             const std::function<Worker(int number, const Report& report)>& make);

}  // namespace faults
