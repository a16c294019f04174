#include "fleet/gather.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "brefir/str_utils.h"
#include "fleet/node_range.h"

namespace fleet {

std::vector<Gathered> Gather(const std::vector<std::string>& names,
                             const std::vector<std::string>& answers) {
  std::vector<Gathered> groups;
  std::map<std::string_view, std::size_t> by_answer;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto [at, added] = by_answer.emplace(answers[i], groups.size());
    if (added) groups.push_back({"", {}, answers[i]});
    groups[at->second].members.push_back(i);
  }
  for (Gathered& group : groups) {
    std::vector<std::string> own;
    for (const std::size_t i : group.members) own.push_back(names[i]);
    group.names = str::Join(FoldNames(own), ",");
  }
  std::stable_sort(groups.begin(), groups.end(), [](const Gathered& a, const Gathered& b) {
    return a.members.size() > b.members.size();
  });
  return groups;
}

}  // namespace fleet
