#include "parser/conf_file.h"

#include <chrono>
#include <utility>

namespace {

constexpr int kLockTimeout = 60;  // seconds
constexpr int kLockPause = 1;

/// Whether any later change of the file will show in its times. They come from the kernel's coarse
/// clock, which steps by up to 10 ms: two changes within one step look the same.
bool Settled(const pnl_file::Info& file) {
  using namespace std::chrono;
  if (!file.Exists()) return true;
  const timespec& changed = file.Stat().st_ctim;
  const auto age = system_clock::now().time_since_epoch() - seconds(changed.tv_sec) -
                   nanoseconds(changed.tv_nsec);
  return age > milliseconds(20);
}

}  // namespace

ConfFile::ConfFile(std::string path, const pnl_token::Params& rules)
    : path_(std::move(path)), rules_(rules) {}

ConfTextPtr ConfFile::Load() const {
  return std::make_shared<const ConfText>(pnl_file::Read(path_), rules_);
}

ConfTextPtr ConfFile::Current() {
  const std::lock_guard guard(mutex_);
  // Looked at before the reading: a change in between is taken for a new one the next time.
  const pnl_file::Info now(path_);
  if (!text_version_ || !now.SameVersion(*text_version_)) {
    text_ = Load();
    text_version_ = Settled(now) ? std::optional(now) : std::nullopt;
  }
  return text_;
}

ConfTextPtr ConfFile::Edit(const std::function<std::string(const ConfTextPtr&)>& change) {
  pnl_file::Lock lock;
  lock.DoLockWithTimeout(path_, true, kLockTimeout, kLockPause);
  ConfTextPtr before = Load();
  std::string after = change(before);
  if (after == before->text) return before;
  pnl_file::Write(path_, after);
  return std::make_shared<const ConfText>(std::move(after), rules_);
}
