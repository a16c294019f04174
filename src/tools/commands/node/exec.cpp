#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "fleet/remote_command.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

constexpr int kNotReached = 255;                           // as ssh(1) has it
constexpr std::size_t kMaxOfAll = std::size_t{512} << 20;  // bytes of output of all nodes

/// Reads a local file block by block.
fleet::Input FromFile(const std::string& path) {
  const auto file = std::make_shared<const pnl_file::Fd>(pnl_file::Open(path, O_RDONLY));
  return [=](char* block, std::size_t size) {
    return pnl_file::ReadSome(file->Get(), block, size, path);
  };
}

/// Makes the command for a node; each has an input of its own.
using Maker = std::function<fleet::RemoteCommand()>;

Maker ReadCommand(const Context& context) {
  const opts::Values& values = context.values;
  const std::vector<std::string> words = values.List("COMMAND");
  if (values.Has("script")) {
    const std::string path = context.Path(values.Str("script"));
    return [command = fleet::ScriptCommand(path, words)] { return command; };
  }
  if (words.empty()) throw UsageError("COMMAND", "", "COMMAND is missing, or --script FILE");
  const std::string line = fleet::CommandLine(words);
  if (!values.Has("stdin")) return [=] { return fleet::RemoteCommand{.line = line}; };
  const std::string& word = values.Str("stdin");
  if (word != "-") {
    const std::string path = context.Path(word);
    static_cast<void>(
        pnl_file::Open(path, O_RDONLY));  // a missing file is told before any node is reached
    return [=] { return fleet::RemoteCommand{line, FromFile(path)}; };
  }
  return [=] {
    return fleet::RemoteCommand{line, [](char* block, std::size_t size) {
                                  return pnl_file::ReadSome(STDIN_FILENO, block, size, "stdin");
                                }};
  };
}

Record RecordOf(const std::string& node, const fleet::CommandResult& result) {
  return Record()
      .Add("node", node)
      .Add("state", result.exit_code == 0 ? "ok" : "failed")
      .Add("exit_code", result.exit_code)
      .Add("output", result.output)
      .Add("error_output", result.error_output)
      .Add("ms", result.ms);
}

/// With --node: people see the output as it comes.
int Exec(Context& context) {
  const fleet::RemoteCommand command = ReadCommand(context)();
  try {
    pnl_rpc::SSH ssh = OpenNode(context);
    if (!context.out.ForPeople()) {
      const fleet::CommandResult result = fleet::RunGathered(ssh, command);
      context.out.One(RecordOf(ssh.Host(), result));
      return result.exit_code;
    }
    return fleet::RunStreamed(ssh, command,
                              {[&](std::string_view piece) { context.out.Piece(piece); },
                               [](std::string_view piece) {
                                 pnl_file::WriteAll(STDERR_FILENO, piece, "standard error");
                               }})
        .exit_code;
  } catch (const pnl_err::Error& error) {
    if (!pnl_rpc::SessionFailed(error)) throw;
    context.Report(error);
    return kNotReached;
  }
}

/// With --nodes.
Question ExecOf(Context& context) {
  if (context.values.Str("stdin") == "-")
    throw UsageError("--stdin", "-", "--stdin - goes with --node only; name a file");
  context.out.TellOfWork();
  const auto all = std::make_shared<std::atomic<std::size_t>>(0);
  const auto make = std::make_shared<const Maker>(ReadCommand(context));
  return [make, all](pnl_host::Host& host) {
    pnl_rpc::SSH ssh = *host.Session();
    const fleet::CommandResult result = fleet::RunGathered(ssh, (*make)());
    if ((*all += result.output.size() + result.error_output.size()) > kMaxOfAll) {
      throw pnl_err::Error(fleet::kTooMuchOutput, host.Name())
          .add_param("message", host.Name() + ": all nodes together printed more than 512 MiB");
    }
    Answer answer = RecordOf(host.Name(), result);
    answer.text = result.output + result.error_output;
    if (result.exit_code != 0) {
      answer.code = kFailed;
      answer.errors.push_back(
          pnl_err::Error("exit_code", host.Name(), std::to_string(result.exit_code))
              .add_param("message", "exit code " + std::to_string(result.exit_code)));
    }
    return answer;
  };
}

void Describe(opts::Args& args) {
  args.Details(
      "One word is a command line for the node's shell. Several words are a program and its "
      "arguments, which no shell changes. Write -- before a COMMAND with options.");
  args.Positional("COMMAND").Repeated().Optional().Help(
      "a command line, or a program and its arguments; with --script, the script's arguments");
  args.Option("script").Value("FILE").Excludes("stdin").Help(
      "copy this script to the node, run it there and remove it");
  args.Option("stdin").Value("FILE").Help(
      "the standard input of the command; - for that of brefirctl");
}

}  // namespace

Verb NodeExecVerb() {
  return {
      .name = "exec",
      .summary = "Runs a command.",
      .describe = Describe,
      .run = Exec,
      .ask = ExecOf,
      .examples = {"'df -h /' --node 192.0.2.7", "--nodes @web -- systemctl is-active frontd",
                   "--script check.sh --nodes @all,!db1"},
      .fields = {{"node", "its name"},
                 {"state",
                  "ok, or failed if the exit code is not 0; with --nodes also "
                  "unreachable or interrupted"},
                 {"exit_code", "of the command; 128 and the number of the signal that ended it"},
                 {"output", "its standard output; bytes that are not UTF-8 become U+FFFD"},
                 {"error_output", "its standard error, likewise"},
                 {"ms", "its duration in milliseconds"}}};
}

}  // namespace tools
