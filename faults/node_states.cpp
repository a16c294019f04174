#include "faults/node_states.h"

#include <filesystem>
#include <random>

namespace fs = std::filesystem;

namespace node_faults {
namespace {

/// Lines that nothing takes for more than a comment.
std::string Lines(int size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < static_cast<std::size_t>(size))
    text += "# " + std::to_string(random()) + "\n";
  text.resize(static_cast<std::size_t>(size) - 1);
  return text += '\n';
}

}  // namespace

const std::string& OldText() {
  static const std::string text = Lines(kOldSize, 1);
  return text;
}

const std::string& NewText() {
  static const std::string text = Lines(kNewSize, 2);
  return text;
}

bool Exists(const std::string& path) {
  return fs::exists(fs::symlink_status(path));
}

std::string StateOf(const std::string& path, const std::string& old_text,
                    const std::string& new_text) {
  const std::string text = Get(path);
  if (text == new_text) return "new";
  if (text == old_text && (Exists(path) || old_text.empty())) return "old";
  return Exists(path) && new_text.starts_with(text) ? "short" : "TORN";
}

}  // namespace node_faults
