// The reply of a host that was asked for its facts, or for the keys that its users accept.

#include <algorithm>
#include <set>
#include <string>

#include "check.h"
#include "fleet/facts.h"
#include "fleet/key_audit.h"

namespace {

constexpr std::time_t kAsked = 1'000'000'000;

template <class List>
bool AreDifferent(const List& list) {
  return std::set<typename List::value_type>(list.begin(), list.end()).size() == list.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::Text(data, size);
  const fleet::Facts facts = fleet::ParseFacts(text, kAsked);
  fuzz::Check(facts.reply == text && facts.asked == kAsked, "the reply is kept");
  fuzz::Check(!facts.boot || (*facts.boot >= 0 && *facts.boot <= kAsked), "booted before");
  fuzz::Check(!facts.load || *facts.load >= 0, "a load");
  fuzz::Check(!facts.processors || *facts.processors > 0, "a processor");
  for (const auto& bytes : {facts.memory, facts.memory_free})
    fuzz::Check(!bytes || *bytes >= 0, "some memory");
  for (const fleet::Disk& disk : facts.disks) {
    fuzz::Check(disk.size >= 0 && disk.used >= 0 && disk.free >= 0, "sizes");
    fuzz::Check(disk.Percent() >= 0 && disk.Percent() <= 100, "a percentage");
    fuzz::Check(disk.mount.starts_with('/'), "where it is mounted");
  }
  fuzz::Check(AreDifferent(facts.addresses) && AreDifferent(facts.late), "no word comes twice");
  fuzz::Check(facts.updates.has_value() == facts.updates_asked.has_value(), "both or none");
  fuzz::Check(!facts.updates || *facts.updates >= 0, "a count");
  const fleet::KeyAudit audit = fleet::ParseKeyAnswer(text);
  for (const fleet::AcceptedKey& key : audit.keys)
    fuzz::Check(key.line > 0 && !key.key.empty() && key.fingerprint.empty(), "a key of a line");
  for (const fleet::KeyLogin& login : audit.logins)
    fuzz::Check(login.fingerprint.starts_with("SHA256:"), "a key was logged in with");
  return 0;
}
