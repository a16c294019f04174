#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

#include "fleet/journal.h"
#include "pnl/log.h"
#include "pnl/thread.h"

namespace fleet {
namespace {

pnl_log::Module log_module("journal");

}  // namespace

class OutcomeWriter::Queue {
 public:
  Queue(Journal& journal, RunHead run) : journal_(journal), run_(std::move(run)) {
    thread_.Start();
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  ~Queue() {
    {
      const std::lock_guard guard(mutex_);
      Log(std::exchange(failure_, nullptr));
      ending_ = true;
    }
    changed_.notify_all();
    thread_.join();
    Log(failure_);
  }

  void Add(NodeOutcome outcome) {
    const std::lock_guard guard(mutex_);
    waiting_.push_back(std::move(outcome));
    changed_.notify_all();
  }

  void Flush() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return failure_ || (waiting_.empty() && !writing_); });
    if (!failure_) return;
    const std::exception_ptr failure = std::exchange(failure_, nullptr);
    changed_.notify_all();
    std::rethrow_exception(failure);
  }

 private:
  static void Log(const std::exception_ptr& failure) {
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const std::exception& error) {
      PNL_LOG(log_module, 3, "outcomes of nodes are not in the journal: %s", error.what());
    }
  }

  /// After a failure it waits until somebody has heard of it, so that a journal that cannot be
  /// written is not asked all the time.
  void Write() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return ending_ || (!waiting_.empty() && !failure_); });
      if (waiting_.empty() || failure_) return;
      const std::vector<NodeOutcome> batch = std::exchange(waiting_, {});
      writing_ = true;
      lock.unlock();
      std::exception_ptr failure;
      try {
        journal_.Note(run_, batch);
      } catch (...) {
        failure = std::current_exception();
      }
      lock.lock();
      writing_ = false;
      failure_ = failure;
      changed_.notify_all();
      // Later outcomes of a node stay behind the earlier ones.
      if (failure) waiting_.insert(waiting_.begin(), batch.begin(), batch.end());
    }
  }

  Journal& journal_;
  const RunHead run_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::vector<NodeOutcome> waiting_;
  std::exception_ptr failure_;  // of the last transaction; nobody has heard of it yet
  bool writing_ = false;
  bool ending_ = false;
  pnl_thread::Handle thread_{[this] { Write(); }};
};

OutcomeWriter::OutcomeWriter(Journal& journal, RunHead run)
    : queue_(std::make_unique<Queue>(journal, std::move(run))) {}

OutcomeWriter::~OutcomeWriter() = default;

void OutcomeWriter::Add(NodeOutcome outcome) {
  queue_->Add(std::move(outcome));
}

void OutcomeWriter::Flush() {
  queue_->Flush();
}

}  // namespace fleet
