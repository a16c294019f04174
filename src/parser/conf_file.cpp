#include "parser/conf_file.h"

#include <utility>

namespace {

constexpr int kLockTimeout = 60;  // seconds

}  // namespace

ConfFile::ConfFile(std::string path, const pnl_token::Params& rules)
    : text_(std::move(path)), rules_(rules) {}

ConfTextPtr ConfFile::Load() const {
  return std::make_shared<const ConfText>(pnl_file::Read(path()), rules_);
}

ConfTextPtr ConfFile::Current() {
  const std::lock_guard guard(mutex_);
  return text_.Get([this] { return Load(); });
}

ConfTextPtr ConfFile::Edit(const std::function<std::string(const ConfTextPtr&)>& change) {
  const pnl_file::Lock lock(path(), kLockTimeout);
  ConfTextPtr before = Load();
  std::string after = change(before);
  if (after == before->text) return before;
  pnl_file::Write(path(), after);
  return std::make_shared<const ConfText>(std::move(after), rules_);
}
