#pragma once

#include <string>

#include "faults/operation.h"

namespace node_faults {

constexpr int kOldSize = 200'000;    // bytes
constexpr int kNewSize = 2'500'000;  // more than a session's window takes in
constexpr int kTreeFiles = 50;

const std::string& OldText();
const std::string& NewText();

using faults::Get;
using faults::Put;
using faults::Shell;

bool Exists(const std::string& path);

/// "old", "new", "short" (some beginning of the new text), else "TORN". A missing file is "old"
/// where the old text is "".
std::string StateOf(const std::string& path, const std::string& old_text,
                    const std::string& new_text);

}  // namespace node_faults
