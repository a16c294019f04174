#include "pnl/job.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "pnl/file.h"
#include "pnl/log.h"

namespace pnl_job {
namespace {

pnl_log::Module log_module("job");

/// The jobs of one transaction, destroyed in reverse order: a job may refer to an earlier one.
class JobList {
 public:
  JobList() = default;
  JobList(JobList&& other) noexcept : jobs_(std::exchange(other.jobs_, {})) {}
  JobList& operator=(JobList&&) = delete;
  ~JobList() {
    for (; !jobs_.empty(); jobs_.pop_back()) delete jobs_.back();
  }

  void Add(SafeJob* job) { jobs_.push_back(job); }

  /// Removes a job that destroys itself; usually the last one, whose constructor threw.
  void Drop(const SafeJob* job) noexcept {
    const auto found = std::find(jobs_.rbegin(), jobs_.rend(), job);
    if (found != jobs_.rend()) jobs_.erase(std::next(found).base());
  }

  bool Empty() const noexcept { return jobs_.empty(); }
  const std::vector<SafeJob*>& Jobs() const noexcept { return jobs_; }

 private:
  std::vector<SafeJob*> jobs_;  // owned; the base constructor registers the job
};

void Log(const char* what, const std::exception_ptr& error) noexcept {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& known) {
    PNL_LOG(log_module, 3, "%s failed: %s", what, known.what());
  } catch (...) {
    PNL_LOG(log_module, 3, "%s failed: unknown exception", what);
  }
}

void RollbackAll(JobList& open) noexcept {
  const JobList list(std::move(open));
  for (auto job = list.Jobs().rbegin(); job != list.Jobs().rend(); ++job) {
    try {
      (*job)->Rollback();
    } catch (...) {
      Log("Rollback of a job", std::current_exception());
    }
  }
}

/// The open transaction of the thread. When the thread ends, it is rolled back, and so are jobs
/// that are made during that.
struct OpenTransaction {
  JobList list;
  ~OpenTransaction() {
    while (!list.Empty()) RollbackAll(list);
  }
};

JobList& Current() {
  thread_local OpenTransaction transaction;
  return transaction.list;
}

}  // namespace

SafeJob::SafeJob() {
  Current().Add(this);
}

SafeJob::~SafeJob() {
  Current().Drop(this);
}

void SafeJob::Commit() {
  if (!std::exchange(ended_, true)) onCommit();
}

void SafeJob::Rollback() {
  if (!std::exchange(ended_, true)) onRollback();
}

void SafeJob::onCommit() {}

void SafeJob::onRollback() {}

void Commit() {
  // Taken out first: a job that is made during onCommit opens the next transaction.
  const JobList list(std::move(Current()));
  std::exception_ptr first;
  for (SafeJob* job : list.Jobs()) {
    try {
      job->Commit();
    } catch (...) {
      if (first) Log("Commit of a further job", std::current_exception());
      if (!first) first = std::current_exception();
    }
  }
  if (first) std::rethrow_exception(first);
}

void Rollback() noexcept {
  RollbackAll(Current());
}

MoveFile::MoveFile(std::string from, std::string to) : from_(std::move(from)), to_(std::move(to)) {}

MoveFile::~MoveFile() = default;

void MoveFile::onCommit() {
  pnl_file::Move(from_, to_);
}

void MoveFile::onRollback() {
  pnl_file::RemoveFile(from_);
}

}  // namespace pnl_job
