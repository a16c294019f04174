#include "fleet/own_user.h"

#include <pwd.h>
#include <unistd.h>

#include <array>

namespace fleet {

OwnUser FindOwnUser() {
  std::array<char, 16384> texts;
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(geteuid(), &entry, texts.data(), texts.size(), &found);
  if (found == nullptr) return {std::to_string(geteuid()), ""};
  return {found->pw_name, found->pw_dir};
}

}  // namespace fleet
