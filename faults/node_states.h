#pragma once

#include <string>

namespace node_faults {

constexpr int kOldSize = 200'000;    // bytes
constexpr int kNewSize = 2'500'000;  // more than a session's window takes in
constexpr int kTreeFiles = 50;

const std::string& OldText();
const std::string& NewText();

bool Exists(const std::string& path);
std::string Get(const std::string& path);
/// The parent directories too; a file that is there goes away first, for it may still be held open.
void Put(const std::string& path, const std::string& text);

/// "old", "new", "short" (some beginning of the new text), else "TORN". A missing file is "old"
/// where the old text is "".
std::string StateOf(const std::string& path, const std::string& old_text,
                    const std::string& new_text);

}  // namespace node_faults
