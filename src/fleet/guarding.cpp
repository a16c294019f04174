#include "fleet/guarding.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "brefir/str_utils.h"

namespace fleet {
namespace {

bool IsPath(const RunStep& step) {
  return step.form == StepForm::kPath || step.form == StepForm::kMove ||
         step.form == StepForm::kCopy;
}

/// Whether `path` is `top`, lies below it, or is a directory above it.
bool Touches(std::string_view path, std::string_view top) {
  const auto below = [](std::string_view a, std::string_view b) {
    return b == "/" || (a.starts_with(b) && (a.size() == b.size() || a[b.size()] == '/'));
  };
  return below(path, top) || below(top, path);
}

/// Directories above ~/.ssh count, too: sshd does not trust keys below one that others can write to
/// (StrictModes, sshd_config(5)).
bool CanLockOut(std::string_view path, const pnl_rpc::SshOptions& login) {
  constexpr std::string_view kKeys = "/.ssh";
  if (path.ends_with(kKeys) || path.find("/.ssh/") != std::string_view::npos) return true;
  const std::string home = login.user == "root" ? "/root" : "/home/" + login.user;
  constexpr std::array<std::string_view, 4> kTops = {"/etc/ssh", "/etc/pam.d", "/etc/pam.conf",
                                                     "/etc/security"};
  constexpr std::array<std::string_view, 2> kSudo = {"/etc/sudoers", "/etc/sudoers.d"};
  const auto touches = [&](std::string_view top) { return Touches(path, top); };
  return path == home || touches(home + std::string(kKeys)) ||
         std::any_of(kTops.begin(), kTops.end(), touches) ||
         (login.sudo && std::any_of(kSudo.begin(), kSudo.end(), touches));
}

/// What may take minutes.
bool IsSlow(const RunStep& step) {
  return step.form == StepForm::kCommand || step.form == StepForm::kPackages;
}

/// The first firewall among packages that come; "" if there is none.
std::string Firewall(const std::vector<RunStep>& steps) {
  constexpr std::array<std::string_view, 8> kFirewalls = {"ufw",
                                                          "firewalld",
                                                          "nftables",
                                                          "iptables-persistent",
                                                          "iptables-services",
                                                          "shorewall",
                                                          "ferm",
                                                          "netfilter-persistent"};
  for (const RunStep& step : steps)
    for (const auto& [name, move] : step.packages)
      if (move.before.empty() &&
          std::find(kFirewalls.begin(), kFirewalls.end(), name) != kFirewalls.end())
        return name;
  return "";
}

}  // namespace

bool CanLockOut(const RunStep& step, const pnl_rpc::SshOptions& login) {
  if (step.form == StepForm::kParameter)
    return step.object.starts_with("net.") || step.object.starts_with("net/");
  if (!IsPath(step)) return false;
  return CanLockOut(std::string_view(step.object), login) ||
         (step.form == StepForm::kMove && CanLockOut(std::string_view(step.from), login));
}

StepGroup GroupFrom(const std::vector<RunStep>& steps, std::size_t begin, std::size_t limit,
                    const Guarding& guarding, const std::optional<pnl_rpc::SshOptions>& login) {
  if (guarding.seconds == 0 || !login) return {limit, false};
  if (guarding.all) return {limit, true};
  const auto at = [&](std::size_t i) { return steps.begin() + static_cast<std::ptrdiff_t>(i); };
  for (std::size_t first = begin; first < limit;) {
    const bool slow = IsSlow(steps[first]);
    const auto end = std::find_if(at(first), at(limit),
                                  [&](const RunStep& step) { return IsSlow(step) != slow; });
    const bool guarded = !slow && std::any_of(at(first), end, [&](const RunStep& step) {
      return CanLockOut(step, *login);
    });
    const auto next = static_cast<std::size_t>(end - steps.begin());
    if (guarded) return first == begin ? StepGroup{next, true} : StepGroup{first, false};
    first = next;
  }
  return {limit, false};
}

std::string GuardNote(const std::vector<RunStep>& steps, const Guarding& guarding,
                      const std::optional<pnl_rpc::SshOptions>& login, bool at_boot) {
  if (!login) return "";
  std::string note;
  const auto can = [&](const RunStep& step) { return CanLockOut(step, *login); };
  const bool risky = std::any_of(steps.begin(), steps.end(), can);
  if (guarding.seconds == 0) {
    if (risky) note = "not guarded: a mistake in this change can lock everybody out\n";
  } else if (!steps.empty() && (guarding.all || risky)) {
    note = "guarded: put back by the node itself after " + std::to_string(guarding.seconds) +
           " s, unless a fresh login works\n";
    if (!at_boot)
      note += "  (not if the node boots within that time: this takes systemd, and root)\n";
  }
  const std::string firewall = guarding.all ? "" : Firewall(steps);
  if (!firewall.empty())
    note += "warning: '" + firewall +
            "' may close the port of SSH; no guard covers packages unless --guard is given\n";
  return note;
}

}  // namespace fleet
