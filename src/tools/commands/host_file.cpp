#include "tools/commands/host_file.h"

#include "tools/frame/login.h"

namespace tools {

using pnl_host::Host;

std::shared_ptr<const pnl_file::Lock> LockForChange(const Context& context, const Host& host,
                                                    const std::string& path) {
  constexpr int kTimeout = 3;  // seconds
  auto lock = std::make_shared<pnl_file::Lock>();
  if (host.IsLocal() && !context.OnlyPlans()) lock->DoLockWithTimeout(path, true, kTimeout, 1);
  return lock;
}

Change FileChange(Host host, const std::string& path, const pnl_host::Content& before,
                  const std::string& after, std::shared_ptr<const pnl_file::Lock> lock,
                  Answer answer) {
  fleet::Plan plan = {{.node = host.Name(),
                       .kind = fleet::StepKind::kFile,
                       .object = path,
                       .before = before,
                       .after = after}};
  auto make = [=, lock = std::move(lock), answer = std::move(answer)]() mutable {
    if (before != after) ReplaceText(host, path, after, before);
    return answer;
  };
  return {std::move(plan), std::move(make)};
}

}  // namespace tools
