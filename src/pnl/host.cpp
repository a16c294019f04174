#include "pnl/host.h"

#include <memory>
#include <utility>
#include <variant>

#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace pnl_host {

namespace {

pnl_log::Module log_module("host");

}  // namespace

// --- A command

/// The two kinds of commands have the same functions.
class Command::Impl {
 public:
  explicit Impl(const std::string& command)
      : end_(std::in_place_type<std::unique_ptr<pnl_proc::Execute>>,
             std::make_unique<pnl_proc::Execute>(command)) {}
  explicit Impl(pnl_rpc::SSH run) : end_(std::in_place_type<pnl_rpc::SSH>, std::move(run)) {}

  template <class Work>
  decltype(auto) On(const Work& work) {
    if (auto* node = std::get_if<pnl_rpc::SSH>(&end_)) return work(*node);
    return work(*std::get<std::unique_ptr<pnl_proc::Execute>>(end_));
  }
  void Abandon() noexcept {
    if (auto* node = std::get_if<pnl_rpc::SSH>(&end_)) node->Abandon();
  }

 private:
  std::variant<std::unique_ptr<pnl_proc::Execute>, pnl_rpc::SSH> end_;
};

Command::Command(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Command::Command(Command&&) noexcept = default;
Command& Command::operator=(Command&&) noexcept = default;
Command::~Command() = default;

std::ostream& Command::In() {
  return impl_->On([](auto& run) -> std::ostream& { return run.In(); });
}

void Command::CloseIn() {
  impl_->On([](auto& run) { run.CloseIn(); });
}

std::istream& Command::Out() {
  return impl_->On([](auto& run) -> std::istream& { return run.Out(); });
}

std::string Command::Str(std::size_t limit) {
  return impl_->On([&](auto& run) { return run.Str(limit); });
}

std::string Command::Said() {
  return impl_->On([](auto& run) { return run.Said(); });
}

int Command::Result() {
  return impl_->On([](auto& run) { return run.Result(); });
}

void Command::Abandon() noexcept {
  impl_->Abandon();
}

std::string Command::Complaint() const {
  const std::string words = impl_->On([](auto& run) { return run.Complaint(); });
  return str::WithoutCredentials(str::Trim(words));
}

// --- A host

Host::Host() = default;
Host::Host(pnl_rpc::SSH session) : session_(std::move(session)) {}

std::string Host::Name() const {
  return session_ ? session_->Host() : "localhost";
}

Command Host::Start(const std::string& command) {
  return Command(session_ ? std::make_unique<Command::Impl>(session_->Execute(command))
                          : std::make_unique<Command::Impl>(command));
}

int Host::Log(const std::string& command, int code, const std::string& complaint) const {
  if (code != 0) {
    const std::string said = complaint.empty() ? "" : ": " + complaint;
    PNL_LOG(log_module, 3, "%s: '%s': exit code %d%s", Name().c_str(),
            str::WithoutCredentials(command).c_str(), code, said.c_str());
  }
  return code;
}

int Host::Do(const std::string& command) {
  Command run = Start(command);
  const int code = run.Result();
  return Log(command, code, run.Complaint());
}

Outcome Host::Run(const std::string& command, std::string_view input, std::size_t limit) {
  Command run = Start(command);
  run.In().write(input.data(), static_cast<std::streamsize>(input.size()));
  return Logged(command, run, run.Str(limit));
}

Outcome Host::Act(const std::string& command) {
  Command run = Start(command);
  return Logged(command, run, run.Said());
}

Outcome Host::Logged(const std::string& command, Command& run, std::string output) const {
  Outcome outcome{run.Result(), std::move(output), run.Complaint()};
  Log(command, outcome.code, outcome.complaint);
  return outcome;
}

}  // namespace pnl_host
