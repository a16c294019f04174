#include "faults/guard_site.h"

#include <filesystem>

#include "faults/guard_node.h"
#include "faults/operation.h"
#include "faults/run_site.h"
#include "fleet/edits.h"

namespace faults {
namespace {

constexpr const char* kPlace = "/srv/t/number";
constexpr const char* kKeys = "/root/.ssh/authorized_keys";
constexpr const char* kForward = "net.ipv4.ip_forward";

std::string KeyOf(int number) {
  return "key" + std::to_string(number % 2);
}

std::string LineOf(const std::string& key) {
  const std::string line = Get(key + ".pub");
  return line.substr(0, line.find('\n'));
}

std::string KeysOf(const KeyChange& change) {
  return (change.locks_out ? "" : LineOf(support::LabKey()) + "\n") + LineOf(KeyOf(change.number)) +
         "\n";
}

std::string ForwardOf(const KeyChange& change) {
  return std::to_string(change.number % 2);
}

/// As it is found on the node.
std::string Described(const KeyChange& change) {
  return std::to_string(change.number) + "\n" + KeysOf(change) + ForwardOf(change) + "\n" +
         kForward + " = " + ForwardOf(change) + "\n";
}

}  // namespace

KeySite::KeySite(bool systemd)
    : node_("debian12", {.sshd = {"AuthorizedKeysFile .ssh/authorized_keys"}, .systemd = systemd}) {
  for (const std::string& key : {KeyOf(0), KeyOf(1)})
    if (!std::filesystem::exists(key))
      Shell("ssh-keygen -q -t ed25519 -N '' -C " + key + " -f " + key);
  const std::string root = node_.Root();
  Put(root + kPlace, "0\n");
  Put(root + kKeys, KeysOf({}), 0600);
  const std::string forward = kForward;
  node_.Exec("echo " + forward + " = 0 >/etc/sysctl.conf; sysctl -qw " + forward + "=0");
}

std::unique_ptr<fleet::Journal> KeySite::OpenJournal() {
  return std::make_unique<fleet::Journal>(pnl_db::Cache::Open("sqlite:fleet.db"));
}

fleet::RunReport KeySite::Make(const KeyChange& change, const fleet::RunWatch& watch) const {
  fleet::RunOptions options;
  options.command = "change " + std::to_string(change.number);
  options.policy.guard = kGuard;
  options.timeout = kTimeout;
  options.watch = watch;
  const fleet::RunTarget target{node_.Name(), node_.Login(kTimeout)};
  const auto journal = OpenJournal();
  fleet::Run run(journal.get(), {target}, options);
  run.Plan(EditsOf(change));
  return run.Make();
}

std::vector<fleet::Edit> KeySite::EditsOf(const KeyChange& change) const {
  const std::string text = std::to_string(change.number) + "\n";
  std::vector<fleet::Edit> edits = {
      {.look = [](fleet::Looks& looks) { looks.files.insert(kPlace); },
       .make = [text](fleet::Draft& draft) { draft.Write(kPlace, text); }},
      fleet::AuthorizedKeyEdit("root", LineOf(KeyOf(present_.number)), false),
      fleet::AuthorizedKeyEdit("root", LineOf(KeyOf(change.number)), true),
      fleet::ParametersEdit({{kForward, ForwardOf(change)}})};
  if (change.locks_out)
    edits.push_back(fleet::AuthorizedKeyEdit("root", LineOf(support::LabKey()), false));
  return edits;
}

std::string KeySite::Found() const {
  const std::string root = node_.Root();
  return Get(root + kPlace) + Get(root + kKeys) + node_.Exec(std::string("sysctl -n ") + kForward) +
         Get(root + "/etc/sysctl.conf");
}

std::string KeySite::State(const KeyChange& change) const {
  return OldOrNew(Found(), Described(present_), Described(change));
}

std::string KeySite::Door(const KeyChange& change) const {
  const std::string text = Get(node_.Root().string() + kKeys);
  const std::string state = OldOrNew(text, KeysOf(present_), KeysOf(change));
  if (state != "old" && state != "new") return "keys '" + state + "'";
  const int number = state == "old" ? present_.number : change.number;
  return LetsIn(node_, KeyOf(number)) ? state : "no login with the " + state + " key";
}

std::string KeySite::Leftovers() const {
  const auto guard = FindGuard(node_);
  return LeftoversIn(node_.Root(), {"srv", "root", "etc"}) + (guard ? guard->dir.string() : "");
}

}  // namespace faults
