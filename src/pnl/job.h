#pragma once

#include <string>

#include "pnl/export.h"

/// Transactions of reversible jobs.
///
/// Every thread has at most one transaction, opened by its first job and ended by Commit or
/// Rollback. A job does its work in its constructor, finishes it in onCommit and undoes it in
/// onRollback. Jobs are made with `new` and belong to the transaction from their base's constructor
/// on:
///
///     new pnl_job::MoveFile(tmp, path);
///     ...
///     pnl_job::Commit();
///
/// A job whose constructor throws leaves the transaction again. A thread that ends with an open
/// transaction rolls it back.
namespace pnl_job {

/// What all jobs derive from.
class PNL_API SafeJob {
 public:
  virtual ~SafeJob();

  /// Ends this one job: calls onCommit (onRollback) unless it has ended already. The transaction
  /// calls them; a job may do so itself, it then stays owned but does nothing at the transaction's
  /// end.
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
/// When one throws, the rest are still committed, each further error is logged (module "job", level
/// 3), and the first is thrown at the end. Without a transaction nothing happens.
PNL_API void Commit();

/// Rolls the calling thread's jobs back in reverse order and ends the transaction. A job that
/// throws is logged and passed. Never throws.
PNL_API void Rollback() noexcept;

/// Rolls back what is open when it ends, unless Commit was called: one scope, one transaction.
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

/// Moves the file `from` onto `to` on commit; removes `from` on rollback. It takes `from` over: a
/// pnl_file::Tmp that made it must have released it. `from` has to be complete and closed.
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
