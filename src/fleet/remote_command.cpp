#include "fleet/remote_command.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr std::size_t kBlock = 32768;

/// Sends the input; a command that reads no more of it is no error.
void Send(pnl_rpc::SSH& run, const Input& input) {
  char block[kBlock];
  std::ostream& in = run.In();
  while (in.good()) {
    const std::size_t size = input(block, sizeof block);
    if (size == 0) break;
    in.write(block, static_cast<std::streamsize>(size));
  }
}

/// Input from memory.
Input FromText(std::string text) {
  return [text = std::move(text), at = std::size_t{0}](char* block, std::size_t size) mutable {
    const std::size_t count = std::min(size, text.size() - at);
    std::copy_n(text.data() + at, count, block);
    at += count;
    return count;
  };
}

}  // namespace

std::string CommandLine(const std::vector<std::string>& words) {
  if (words.size() == 1) return words.front();
  std::string line;
  for (const std::string& word : words) line = str::Append(line, pnl_proc::Escape(word), " ");
  return line;
}

RemoteCommand ScriptCommand(const std::string& path, const std::vector<std::string>& arguments) {
  std::string text = pnl_file::ReadE(path);
  if (text.size() > kMaxScript) throw pnl_err::System("read", path, EFBIG);
  std::string words;
  for (const std::string& argument : arguments) words += " " + pnl_proc::Escape(argument);
  // A connection that breaks ends the input: only a file of the announced size is run. One line
  // without an exclamation mark, since the login shell may be csh.
  const std::string script =
      "umask 077; f=$(mktemp) || exit 126; trap 'rm -f \"$f\"' EXIT; trap 'exit 129' HUP INT TERM; "
      "cat >\"$f\" && test \"$(wc -c <\"$f\")\" -eq " +
      std::to_string(text.size()) + " && chmod 700 \"$f\" || exit 126; \"$f\"" + words +
      " </dev/null";
  return {"exec /bin/sh -c " + pnl_proc::Escape(script), FromText(std::move(text))};
}

CommandResult RunStreamed(pnl_rpc::SSH& ssh, const RemoteCommand& command, pnl_rpc::Sinks sinks) {
  using Clock = std::chrono::steady_clock;
  const auto begun = Clock::now();
  pnl_rpc::SSH run = ssh.Execute(command.line, std::move(sinks));
  try {
    if (command.input) Send(run, command.input);
    CommandResult result{.exit_code = run.Result()};
    result.ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun).count();
    return result;
  } catch (...) {
    run.Abandon();
    throw;
  }
}

CommandResult RunGathered(pnl_rpc::SSH& ssh, const RemoteCommand& command, std::size_t limit) {
  std::string output, errors;
  const auto gather = [&](std::string& text) {
    return [&](std::string_view piece) {
      if (output.size() + errors.size() + piece.size() <= limit) {
        text += piece;
        return;
      }
      throw pnl_err::Error(kTooMuchOutput, ssh.Host())
          .add_param("message", ssh.Host() + ": the command printed more than " +
                                    std::to_string(limit) + " bytes");
    };
  };
  CommandResult result = RunStreamed(ssh, command, {gather(output), gather(errors)});
  result.output = std::move(output);
  result.error_output = std::move(errors);
  return result;
}

}  // namespace fleet
