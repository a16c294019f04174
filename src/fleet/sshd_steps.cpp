#include "fleet/sshd_steps.h"

#include <algorithm>
#include <set>
#include <string>

namespace fleet {
namespace {

constexpr const char* kSshdStep = "check and reload sshd";

// Scripts of System V reload only what a pid file names, and say that all is well without one. Of the
// processes, only listeners read the configuration again; those of containers have other namespaces.
// sshd opens its ports again a moment after the signal.
constexpr const char* kReload = R"sh(PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin
sshd=$(command -v sshd) || exit 0
"$sshd" -t || exit
if [ -d /run/systemd/system ]; then
  for unit in ssh sshd; do
    systemctl -q is-active $unit && { systemctl reload $unit; exit; }
  done
fi
own=$(readlink /proc/self/ns/pid)
for pid in $(pgrep -x sshd); do
  [ "$(readlink "/proc/$pid/ns/pid")" = "$own" ] || continue
  case $(tr "\0" " " <"/proc/$pid/cmdline") in
    /* | *"[listener]"*) kill -HUP "$pid" || exit ;;
  esac
done
sleep 1
)sh";

bool IsOfSshd(const std::string& path) {
  return path == "/etc/ssh/sshd_config" || path.starts_with("/etc/ssh/sshd_config.d/");
}

bool ChangesSshd(const RunStep& step) {
  const bool has_path =
      step.form == StepForm::kPath || step.form == StepForm::kMove || step.form == StepForm::kCopy;
  return has_path &&
         (IsOfSshd(step.object) || (step.form == StepForm::kMove && IsOfSshd(step.from)));
}

}  // namespace

void AddSshdStep(std::vector<RunStep>& steps) {
  const auto last = std::find_if(steps.rbegin(), steps.rend(), ChangesSshd);
  if (last == steps.rend()) return;
  std::set<std::string> objects;
  for (const RunStep& step : steps)
    if (ChangesSshd(step)) objects.insert(step.object);
  RunStep reload{.form = StepForm::kService, .object = kSshdStep, .make = kReload};
  reload.follows.assign(objects.begin(), objects.end());
  steps.insert(last.base(), std::move(reload));
}

bool HasSshdStep(const std::vector<RunStep>& steps) {
  return std::any_of(steps.begin(), steps.end(), [](const RunStep& step) {
    return step.form == StepForm::kService && step.object == kSshdStep;
  });
}

}  // namespace fleet
