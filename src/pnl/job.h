#pragma once

#include <string>

#include "pnl/export.h"

/// Transactions of reversible jobs.
///
/// Every thread has at most one transaction. Its first job opens it; Commit or Rollback ends it. A
/// job does its work in its constructor, finishes it in onCommit and undoes it in onRollback. Make
/// jobs with `new`; the transaction owns them as soon as the constructor of SafeJob has run:
///
///     new pnl_job::MoveFile(tmp, path);
///     ...
///     pnl_job::Commit();
///
/// A job whose constructor throws is removed from the transaction. When a thread ends, its open
/// transaction is rolled back.
namespace pnl_job {

/// The base class of all jobs.
class PNL_API SafeJob {
 public:
  virtual ~SafeJob();

  /// End this one job: they call onCommit or onRollback, unless the job has already ended. The
  /// transaction calls them. When a job calls one itself, the transaction still owns it, but does
  /// nothing more for it at its end.
  virtual void Commit();
  virtual void Rollback();

 protected:
  SafeJob();  ///< registers the job in the calling thread's transaction
  SafeJob(const SafeJob&) = delete;
  SafeJob& operator=(const SafeJob&) = delete;

  virtual void onCommit();    ///< does nothing here
  virtual void onRollback();  ///< does nothing here

 private:
  bool ended_ = false;
};

/// Commits the calling thread's jobs in the order in which they were made and ends the transaction.
/// When a job throws, the others are still committed. The first error is thrown at the end; each
/// further one is logged (module "job", level 3). Does nothing without a transaction.
PNL_API void Commit();

/// Rolls the calling thread's jobs back in reverse order and ends the transaction. When a job
/// throws, its error is logged and the others are still rolled back. Never throws.
PNL_API void Rollback() noexcept;

/// A transaction for one scope: the destructor rolls back unless Commit was called.
class PNL_API Transaction {
 public:
  Transaction() = default;
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (!done_) Rollback();
  }
  void Commit() {
    done_ = true;
    pnl_job::Commit();
  }

 private:
  bool done_ = false;
};

/// Moves the file `from` to `to` on commit; removes `from` on rollback. The job owns `from`: a
/// pnl_file::Tmp that made it must release it first. `from` must be complete and closed.
class PNL_API MoveFile : public SafeJob {
 public:
  MoveFile(std::string from, std::string to);
  ~MoveFile() override;

 protected:
  void onCommit() override;
  void onRollback() override;

 private:
  std::string from_;
  std::string to_;
};

}  // namespace pnl_job
