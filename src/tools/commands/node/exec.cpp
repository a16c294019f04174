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

/// With --change.
HostEdit ExecAsChange(Context& context) {
  const std::vector<std::string>& words = context.values.List("COMMAND");
  if (words.empty()) throw UsageError("COMMAND", "", "COMMAND is missing");
  const std::string line = fleet::CommandLine(words);
  return {.look = [](fleet::Looks&) {},
          .make = [line, undo = context.values.Str("undo")](fleet::Draft& draft) -> Answer {
            draft.Run(line, line, undo);
            return Record().Add("node", draft.HostName()).Add("state", "ok").Add("exit_code", 0);
          },
          .told =
              [](Answer& answer, const fleet::NodeReport& node) {
                answer.records.front()
                    .Add("output", node.output)
                    .Add("error_output", Value())
                    .Add("ms", Value());
                answer.text = node.output;
              }};
}

std::string WhyNoRun(const opts::Values& words) {
  return words.Has("change") ? "" : "give it --change, so that it is a change of the node";
}

void Describe(opts::Args& args) {
  args.Details(
      "One word is a command line for the node's shell. Several words are a program and its "
      "arguments, which no shell changes. Write -- before a COMMAND with options.\n"
      "With --change it is a run: if it fails on one node, the nodes where it was made are undone "
      "by --undo. Without --undo it cannot be undone, and each node is for itself "
      "(--policy each), unless --irreversible says otherwise. It has no standard input, and half "
      "an hour of time. It should be safe to repeat; a command that began counts as run when the "
      "node crashes. The options of runs need --change.");
  args.Positional("COMMAND").Repeated().Optional().Help(
      "a command line, or a program and its arguments; with --script, the script's arguments");
  args.Option("change").Help("the command changes the node: make it a run, which can be undone");
  args.Option("undo").Value("CMD").Needs("change").Help(
      "a command for the node's shell that takes back what COMMAND does");
  args.Option("script").Value("FILE").Excludes("stdin").Excludes("change").Help(
      "copy this script to the node, run it there and remove it");
  args.Option("stdin").Value("FILE").Excludes("change").Help(
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
      .edit = ExecAsChange,
      .no_run = WhyNoRun,
      .examples = {"'df -h /' --node 192.0.2.7", "--nodes @web -- systemctl is-active frontd",
                   "--script check.sh --nodes @all,!db1",
                   "--change 'useradd app' --undo 'userdel app' --nodes @web"},
      .fields = {{"node", "its name"},
                 {"state",
                  "ok, or failed if the exit code is not 0; with --nodes also "
                  "unreachable or interrupted"},
                 {"exit_code", "of the command; 128 and the number of the signal that ended it"},
                 {"output",
                  "its standard output; bytes that are not UTF-8 become U+FFFD; with --change the "
                  "last lines of both"},
                 {"error_output", "its standard error, likewise; null with --change"},
                 {"ms", "its duration in milliseconds; null with --change"}}};
}

}  // namespace tools
