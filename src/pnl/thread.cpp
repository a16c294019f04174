#include "pnl/thread.h"

#include <cerrno>
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

}  // namespace pnl_thread
