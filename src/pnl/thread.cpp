#include "pnl/thread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "pnl/err.h"
#include "pnl/job.h"
#include "pnl/log.h"

namespace pnl_thread {
namespace {

pnl_log::Module log_module("thread");

/// An exception that leaves the thread would end the process.
void Run(const std::function<void()>& body) noexcept {
  try {
    body();
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "A thread ended with an error: %s", error.what());
  } catch (...) {
    PNL_LOG(log_module, 3, "A thread ended with an unknown exception");
  }
  pnl_job::Rollback();
}

pnl_err::Error StartError(const std::error_code& code) {
  pnl_err::Error error("thread", "start");
  error.add_param("errno", std::to_string(code.value()));
  error.add_param("errmsg", code.message());
  return error;
}

}  // namespace

Handle::Handle(std::function<void()> body) : body_(std::move(body)) {}

Handle::~Handle() {
  join();
}

void Handle::Start() {
  if (thread_.joinable())
    throw StartError(std::make_error_code(std::errc::device_or_resource_busy));
  try {
    thread_ = std::thread([this] { Run(body_); });
  } catch (const std::system_error& error) {
    throw StartError(error.code());
  }
}

void Handle::join() {
  if (thread_.joinable()) thread_.join();
}

Event::Event() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) throw pnl_err::System("open", "eventfd", errno);
}

Event::~Event() {
  close(fd_);
}

void Event::Raise() noexcept {
  const std::uint64_t one = 1;
  // A counter that is full has been raised, too.
  static_cast<void>(!write(fd_, &one, sizeof one));
}

bool Event::Raised() const noexcept {
  pollfd ready{fd_, POLLIN, 0};
  return poll(&ready, 1, 0) > 0;
}

}  // namespace pnl_thread
