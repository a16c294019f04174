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

/// Does the job with this number.
using Worker = std::function<void(std::size_t job)>;

/// Starts `workers` processes. Each calls `make` with its number, from 0, and then the returned
/// function for one job after the other, until all are done. `rows` are the rows of the table to which
/// the jobs belong; they are printed when all have ended. A worker that ends with a signal is a
/// violation in the row of its job.
void RunJobs(const std::vector<std::string>& rows, int workers,
             const std::function<Worker(int number, const Report& report)>& make);

}  // namespace faults
