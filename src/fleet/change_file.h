#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"
#include "fleet/inventory.h"
#include "pnl/err.h"
#include "pnl/str.h"

/// Files with a change of nodes: commands, one in each line, that are planned and made together.
///
///      # the new port
///      config set /etc/app/conf port 8080
///      config set /etc/app/conf name {node.name}.example.org
///      node put files/motd /etc/motd
///
/// Words are written as ShellWords reads them. A line that ends with a backslash goes on in the next
/// one, but a comment does not. Lines may end with CR LF. "{node.NAME}" in a word stands for a value of
/// the node; it is filled in after the words were told apart, so that it never becomes two words.
/// Thread-safe.
namespace fleet {

/// The type of errors about such a file: pnl_err::Error(kChangeFileError, path, word), with the
/// parameter "line" and a message that begins with "PATH:LINE: ".
inline constexpr const char* kChangeFileError = "change_file";

inline constexpr std::size_t kMaxChangeFile = std::size_t{1} << 20;  ///< bytes

/// A command of the file.
struct ChangeLine {
  std::size_t number = 0;          ///< of its first line, from 1
  std::vector<std::string> words;  ///< at least one
  bool has_values = false;         ///< whether a word has "{node.NAME}"
};

struct ChangeFile {
  std::vector<ChangeLine> lines;
  std::vector<pnl_err::Error> mistakes;  ///< of lines that cannot be read, in their order
};

/// Reads the text of such a file; `path` is for errors. Throws kChangeFileError for a text that is too
/// long, or has a zero byte.
[[nodiscard]] FLEET_API ChangeFile ReadChangeFile(std::string_view text, const std::string& path);
/// Reads such a file; `name` is what errors call it. Throws "file" if it cannot be read.
[[nodiscard]] FLEET_API ChangeFile LoadChangeFile(const std::string& path, const std::string& name);
/// The error for a line.
[[nodiscard]] FLEET_API pnl_err::Error ChangeFileError(const std::string& path, std::size_t line,
                                                       const std::string& word,
                                                       const std::string& what);

/// The values that a node has: name, host, user, port, groups, and all its settings in the inventory.
/// `login` says how it is logged in to. A node outside the inventory has only the first four.
[[nodiscard]] FLEET_API StringMap NodeValues(const Node& node, const pnl_rpc::SshOptions& login);
/// Returns the word with the values of a node. Throws pnl_err::Missed("value", NAME) for a value that
/// the node does not have, and std::invalid_argument, with a text for people, if something else than
/// NAME} stands after "{node.".
[[nodiscard]] FLEET_API std::string FilledIn(std::string_view word, const StringMap& values);

}  // namespace fleet
