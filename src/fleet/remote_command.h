#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// A command of an administrator on a node. Thread-safe with a session for each thread.
///
///     const fleet::CommandResult result = fleet::RunGathered(ssh, {.line = "df -h /"});
///     if (result.exit_code != 0) Show(result.error_output);
namespace fleet {

/// Fills a block with up to `size` bytes and returns their number; 0 at the end.
using Input = std::function<std::size_t(char* block, std::size_t size)>;

struct RemoteCommand {
  std::string line;  ///< for the login shell of the node
  Input input = {};  ///< its standard input; empty: none
};

/// Returns the command line of a program and its arguments: each word is quoted. A single word is
/// returned unchanged, because it is a command line already.
[[nodiscard]] FLEET_API std::string CommandLine(const std::vector<std::string>& words);

/// Returns a command that copies a local script to a temporary file of the node, runs it with the
/// arguments and without standard input, and removes it. The interpreter is that of its first line
/// ("#!"), else /bin/sh. Throws "file" if `path` cannot be read or has more than kMaxScript bytes.
[[nodiscard]] FLEET_API RemoteCommand ScriptCommand(const std::string& path,
                                                    const std::vector<std::string>& arguments);
inline constexpr std::size_t kMaxScript = std::size_t{16} << 20;  ///< bytes

struct CommandResult {
  int exit_code = 0;        ///< 128 + n for death by signal n
  std::string output = {};  ///< empty after RunStreamed
  std::string error_output = {};
  std::int64_t ms = 0;  ///< duration in milliseconds
};

/// Runs the command and passes its output on as it comes. Throws what pnl_rpc::SSH and `sinks` throw.
FLEET_API CommandResult RunStreamed(pnl_rpc::SSH& ssh, const RemoteCommand& command,
                                    pnl_rpc::Sinks sinks);

inline constexpr std::size_t kMaxGathered = std::size_t{16} << 20;  ///< bytes
inline constexpr const char* kTooMuchOutput = "too_much_output";

/// Runs the command and returns its output. More than `limit` bytes of output and error output
/// together throw pnl_err::Error(kTooMuchOutput, host), with a message, and the command is abandoned.
FLEET_API CommandResult RunGathered(pnl_rpc::SSH& ssh, const RemoteCommand& command,
                                    std::size_t limit = kMaxGathered);

}  // namespace fleet
