#include "fleet/file_mode.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>

namespace fleet {
namespace {

constexpr unsigned kAll = 07777;
constexpr unsigned kSetUser = 04000;
constexpr unsigned kSetGroup = 02000;
constexpr unsigned kSticky = 01000;
constexpr unsigned kUser = 0700;
constexpr unsigned kGroup = 0070;
constexpr unsigned kOthers = 0007;
constexpr unsigned kAnyExecute = 0111;

/// The bits of "ugoa", with those that only they can have.
std::optional<unsigned> WhoBits(std::string_view& word) {
  unsigned bits = 0;
  while (!word.empty() && std::string_view("ugoa").find(word.front()) != std::string_view::npos) {
    switch (word.front()) {
      case 'u':
        bits |= kUser | kSetUser;
        break;
      case 'g':
        bits |= kGroup | kSetGroup;
        break;
      case 'o':
        bits |= kOthers;
        break;
      default:
        bits |= kUser | kGroup | kOthers | kSetUser | kSetGroup | kSticky;
    }
    word.remove_prefix(1);
  }
  return bits == 0 ? std::nullopt : std::optional(bits);
}

unsigned ForAll(unsigned bits) {
  return bits << 6 | bits << 3 | bits;
}

/// The bits of "rwxXst", for everybody; null for another letter.
std::optional<unsigned> BitsOf(std::string_view letters, unsigned now, bool is_directory) {
  unsigned bits = 0;
  for (const char letter : letters) {
    switch (letter) {
      case 'r':
        bits |= ForAll(4);
        break;
      case 'w':
        bits |= ForAll(2);
        break;
      case 'x':
        bits |= ForAll(1);
        break;
      case 'X':
        bits |= is_directory || (now & kAnyExecute) != 0 ? ForAll(1) : 0;
        break;
      case 's':
        bits |= kSetUser | kSetGroup;
        break;
      case 't':
        bits |= kSticky;
        break;
      default:
        return std::nullopt;
    }
  }
  return bits;
}

/// The mode after one part, "u+x"; null if that is none.
std::optional<unsigned> After(std::string_view part, unsigned now, bool is_directory) {
  const unsigned who = WhoBits(part).value_or(kAll);
  if (part.empty()) return std::nullopt;
  while (!part.empty()) {
    const char action = part.front();
    if (std::string_view("+-=").find(action) == std::string_view::npos) return std::nullopt;
    part.remove_prefix(1);
    const std::size_t size = std::min(part.find_first_of("+-="), part.size());
    const auto bits = BitsOf(part.substr(0, size), now, is_directory);
    if (!bits) return std::nullopt;
    part.remove_prefix(size);
    // The sticky bit belongs to nobody: "o=" takes it away only with "t" or from all.
    const unsigned meant = *bits & (who | kSticky);
    if (action == '+') now |= meant;
    if (action == '-') now &= ~meant;
    if (action == '=') now = (now & ~who) | meant;
  }
  return now;
}

std::optional<unsigned> Changed(std::string_view mode, unsigned now, bool is_directory) {
  constexpr std::size_t kDigits = 5;
  if (mode.empty()) return std::nullopt;
  if (mode.find_first_not_of("01234567") == std::string_view::npos) {
    unsigned bits = 0;
    for (const char digit : mode) bits = bits << 3 | static_cast<unsigned>(digit - '0');
    return mode.size() <= kDigits && bits <= kAll ? std::optional(bits) : std::nullopt;
  }
  std::optional<unsigned> after = now;
  while (after && !mode.empty()) {
    const std::size_t end = std::min(mode.find(','), mode.size());
    after = After(mode.substr(0, end), *after, is_directory);
    mode.remove_prefix(std::min(end + 1, mode.size()));
  }
  return after;
}

}  // namespace

bool IsMode(std::string_view mode) {
  return Changed(mode, 0, false).has_value();
}

unsigned ChangedMode(std::string_view mode, unsigned now, bool is_directory) {
  const auto after = Changed(mode, now, is_directory);
  if (!after) throw std::invalid_argument("not a mode: " + std::string(mode));
  return *after;
}

}  // namespace fleet
