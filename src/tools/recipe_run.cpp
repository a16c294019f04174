// recipe run: a recipe's script on a managed node.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <istream>
#include <optional>
#include <utility>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/thread.h"
#include "tools/catalogue.h"
#include "tools/interrupt.h"
#include "tools/node.h"
#include "tools/recipes.h"
#include "tools/text.h"

namespace tools {
namespace {

constexpr const char* kLogDir = "var/recipes/log";
constexpr const char* kAdministrator = "root";

// --- What is to be run

struct Plan {
  recipe::RecipeInfoPtr recipe;
  std::string host;
  std::string dir;      ///< on the node, for the copy
  std::string exports;  ///< the shell command that sets the environment
  std::string log;      ///< the file here
};

pnl_err::Error Refusal(const recipe::RecipeInfo& info, const std::string& reason) {
  return pnl_err::Error("recipe", "refused", info.id)
      .add_param("message", "recipe '" + info.id + "' " + reason);
}

/// Nobody runs a locked recipe. The administrator runs all others, and everybody those that are for
/// all and his own.
void RequireAccess(const recipe::RecipeInfo& info, const std::string& user) {
  if (info.access == recipe::kAccessNone) throw Refusal(info, "is locked: its access is none");
  if (user == kAdministrator || info.access == recipe::kAccessAny || info.owner == user) return;
  throw Refusal(info, "is for the administrator and its owner, not for '" + user + "'");
}

void RequireRunnable(const recipe::RecipeInfo& info) {
  if (info.name.empty())
    throw Refusal(info, "has no name in its header; 'brefirctl recipe lint' tells more");
  if (info.method != "ssh") {
    throw Refusal(info, "is run by the method '" + info.method +
                            "', which this program does not speak: it runs scripts over SSH only");
  }
}

bool IsVariableName(const std::string& word) {
  const auto letter = [](char c) {
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
  };
  return !word.empty() && letter(word.front()) &&
         std::all_of(word.begin(), word.end(),
                     [&](char c) { return letter(c) || (c >= '0' && c <= '9'); });
}

std::string Exports(const std::vector<std::string>& words) {
  std::string exports;
  for (const std::string& word : words) {
    std::string value = word;
    const std::string name = str::GetWord(value, '=');
    if (name == word || !IsVariableName(name))
      throw UsageError("--env", word, "--env '" + word + "' is not NAME=VALUE");
    exports += " " + name + "=" + pnl_proc::Escape(value);
  }
  return exports.empty() ? "" : "export" + exports + "; ";
}

Plan MakePlan(const Context& context) {
  const opts::Values& values = context.values;
  const std::string id = RecipeId(context);
  Plan plan;
  plan.host = NodeOptions(context).host;
  plan.dir = values.Str("dir");
  plan.exports = Exports(values.List("env"));
  const std::string name = id + "@" + plan.host + ".log";
  RequirePathComponent(name, "the log's name");
  plan.log = pnl_file::ConcatPath(kLogDir, name);
  plan.recipe = FindRecipe(context, id, true);
  RequireAccess(*plan.recipe, values.Str("as"));
  RequireRunnable(*plan.recipe);
  return plan;
}

/// The command line for the node. It tells its process group first, and `end` when the script has
/// ended: what the script left running in the background may hold the output open for ever. The
/// copy goes also when nobody is there any more to remove it.
std::string CommandLine(const Plan& plan, const std::string& path, const std::string& end) {
  const std::string copy = pnl_proc::Escape(path);
  const bool own_interpreter = plan.recipe->content.starts_with("#!");
  return "trap " + pnl_proc::Escape("rm -f " + copy + "; printf %s " + end) +
         " EXIT; trap 'exit 143' TERM; echo $$; exec 2>&1 </dev/null; " + plan.exports +
         (own_interpreter ? "" : "/bin/sh ") + copy + "; exit $?";
}

// --- Its output

/// Shows output as it comes and keeps its end, up to a mark that stands behind it.
class OutputPump {
 public:
  OutputPump(std::string end, int fd) : end_(std::move(end)), fd_(fd) {}

  /// False when the mark has come.
  bool Add(std::string_view data) {
    held_ += data;
    const std::size_t end = held_.find(end_);
    if (end == std::string::npos) {
      Pass(held_.size() - Held());
      return true;
    }
    held_.resize(end);
    Finish();
    return false;
  }
  void Finish() { Pass(held_.size()); }

  std::string Tail() const { return recipe::TruncateOutput(tail_); }

 private:
  static constexpr std::size_t kTail = 5120;  // what the shown end is made of

  /// How much at the end may be the beginning of the mark, or a character that is not whole yet.
  std::size_t Held() const {
    for (std::size_t size = std::min(held_.size(), end_.size() - 1); size > 0; --size) {
      if (held_.ends_with(std::string_view(end_).substr(0, size))) return size;
    }
    std::size_t size = 0;
    while (size < std::min<std::size_t>(held_.size(), 3) &&
           static_cast<unsigned char>(held_[held_.size() - size - 1]) >= 0x80) {
      ++size;
    }
    return size;
  }

  void Pass(std::size_t size) {
    const std::string_view data = std::string_view(held_).substr(0, size);
    Show(data);
    tail_ += data;
    if (tail_.size() > 2 * kTail) tail_.erase(0, tail_.size() - kTail);
    held_.erase(0, size);
  }

  /// A reader that left, or a full disk here, is no reason to stop the work there.
  void Show(std::string_view data) {
    if (failed_) return;
    try {
      pnl_file::WriteAll(fd_, terminal_ ? Printable(data, "\n\t") : std::string(data), "output");
    } catch (const pnl_err::Error&) {
      failed_ = true;
    }
  }

  const std::string end_;
  const int fd_;
  const bool terminal_ = isatty(fd_) != 0;
  bool failed_ = false;
  std::string held_;
  std::string tail_;
};

// --- The run

/// Runs a plan on a thread of its own: one that waits for a silent script could not see that it is
/// interrupted.
class NodeRun {
 public:
  NodeRun(const Plan& plan, pnl_rpc::SSH ssh, int fd)
      : plan_(plan),
        ssh_(std::move(ssh)),
        end_(str::hex::Encode(str::Random(16))),
        pump_(end_, fd) {
    worker_.Start();
  }

  bool Ended() const { return ended_; }
  void Join() { worker_.join(); }

  /// Begins nothing more. The process group of what has begun, to be ended by others; 0: nothing.
  int Stop() {
    stopped_ = true;
    return group_;
  }

  // After Join.
  const std::optional<int>& Code() const { return code_; }
  const std::optional<pnl_err::Error>& Error() const { return error_; }
  std::string Tail() const { return pump_.Tail(); }

 private:
  void Work() noexcept {
    try {
      Execute();
    } catch (const pnl_err::Error& error) {
      error_ = error;
    } catch (const std::exception& error) {
      error_ = pnl_err::Error("internal", "", error.what());
    }
    ended_ = true;
  }

  void Execute() {
    namespace file = ssh_utils::file;
    const file::TmpFile copy(ssh_, plan_.dir, "recipe");
    OnNodeFile(ssh_, copy, "written", [&] {
      file::Write(ssh_, copy, plan_.recipe->content);
      file::Chmod(ssh_, copy, "0700");
    });
    if (stopped_) return;
    pnl_rpc::SSH run = ssh_.Execute(CommandLine(plan_, copy, end_));
    run.CloseIn();
    Read(run.Out());
    code_ = run.Result();
  }

  void Read(std::istream& out) {
    char group[16] = "";  // its number, and no more of whatever the node may say
    out.get(group, sizeof group);
    out.ignore();
    group_ = str::Int(group);
    std::string block(std::size_t{32} << 10, '\0');
    while (out.peek() != std::istream::traits_type::eof()) {
      const auto size = out.readsome(block.data(), static_cast<std::streamsize>(block.size()));
      if (!pump_.Add(std::string_view(block).substr(0, static_cast<std::size_t>(size)))) return;
    }
    pump_.Finish();
  }

  const Plan& plan_;
  pnl_rpc::SSH ssh_;  // the worker's, once it runs
  const std::string end_;
  OutputPump pump_;
  std::optional<int> code_;
  std::optional<pnl_err::Error> error_;
  std::atomic<int> group_{0};
  std::atomic<bool> stopped_{false};
  std::atomic<bool> ended_{false};
  pnl_thread::Handle worker_{[this] { Work(); }};
};

/// Sends a signal to the script's whole process group, over a session of its own.
void Signal(Context& context, int group, int number) {
  try {
    ssh_utils::Kill(OpenNode(context), -group, number);
  } catch (const pnl_err::Error& error) {
    context.Report(error);
  }
}

/// Waits for the end, which an interruption brings about.
void Follow(Context& context, const NotedInterruption& interruption, NodeRun& run) {
  constexpr int kPause = 20;  // milliseconds
  constexpr int kPatience = 10000 / kPause;
  int asked = 0;
  while (!run.Ended()) {
    pnl_proc::Sleep(kPause);
    const int group = interruption.Happened() ? run.Stop() : 0;
    if (group == 0) continue;
    if (asked == 0) Signal(context, group, SIGTERM);
    if (asked == kPatience) Signal(context, group, SIGKILL);
    ++asked;
  }
  run.Join();
}

// --- What is left of it

std::string Outcome(const NodeRun& run, bool interrupted) {
  if (run.Error()) return std::string("unknown: ") + run.Error()->what();
  const std::string code = run.Code() ? std::to_string(*run.Code()) : "none";
  return code + (interrupted ? " (interrupted)" : "");
}

void WriteLog(const Plan& plan, const NodeRun& run, const std::string& started, bool interrupted) {
  pnl_file::MkDir(kLogDir);
  pnl_file::Write(plan.log,
                  "recipe: " + plan.recipe->id + "\nname: " + plan.recipe->FullName() +
                      "\nnode: " + plan.host + "\nstarted: " + started +
                      "\nended: " + pnl_date::DateTime::Now().Str() +
                      "\nexit code: " + Outcome(run, interrupted) + "\n\n" + run.Tail(),
                  pnl_file::kSecretMode);
}

int Conclude(Context& context, const Plan& plan, const NodeRun& run, bool interrupted) {
  const std::string& id = plan.recipe->id;
  if (run.Error()) throw pnl_err::Error(*run.Error());
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record()
                        .Add("id", id)
                        .Add("node", plan.host)
                        .Add("exit_code", run.Code())
                        .Add("output", run.Tail())
                        .Add("log", plan.log));
  }
  if (run.Code() == 0) return kDone;
  const std::string what =
      interrupted ? "was interrupted" : "ended with exit code " + std::to_string(*run.Code());
  context.Report(pnl_err::Error("recipe", interrupted ? "interrupted" : "exit_code", id)
                     .add_param("message", plan.host + ": recipe '" + id + "' " + what +
                                               "; the end of its output is in " + plan.log));
  return kFailed;
}

int Run(Context& context) {
  const Plan plan = MakePlan(context);
  if (context.values.Has("dry-run")) {
    const std::string path = pnl_file::ConcatPath(plan.dir, "recipe.XXXXXX");
    context.out.Text("would", CommandLine(plan, path, "MARK") + "\n");
    return kDone;
  }
  const bool json = context.out.GetFormat() == Format::kJson;
  const std::string started = pnl_date::DateTime::Now().Str();
  pnl_rpc::SSH ssh = OpenNode(context);
  const NotedInterruption interruption;
  NodeRun run(plan, std::move(ssh), json ? STDERR_FILENO : STDOUT_FILENO);
  Follow(context, interruption, run);
  const bool interrupted = interruption.Happened();
  WriteLog(plan, run, started, interrupted);
  return Conclude(context, plan, run, interrupted);
}

void Describe(opts::Args& args) {
  AddRecipeId(args);
  AddNodeOptions(args).Required();
  args.Option("env").Value("NAME=VALUE").Repeated().Help("set in the script's environment");
  args.Option("as")
      .Value("USER")
      .Default(kAdministrator)
      .Help(
          "for whom: root may run all recipes but locked ones, others those for any and their own");
  args.Option("dir").Value("DIR").Default("/tmp").Help(
      "where the script is put on the node, for as long as it runs");
  args.Option("dry-run").Help("print the command that would run on the node");
}

}  // namespace

Command RecipeRun() {
  return {"run",
          "Runs a recipe on a node; var/recipes/log keeps exit code and the output's end.",
          Describe,
          Run,
          {"main__web.sh --node 192.0.2.7 --key etc/panel.key --env PORT=80"},
          {{"id", "the recipe"},
           {"node", "where it ran"},
           {"exit_code", "of the script"},
           {"output", "the end of its output, printable ASCII only"},
           {"log", "the file that keeps all this"},
           kWouldField}};
}

}  // namespace tools
