#include "fleet/recipe_run.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <istream>

#include "brefir/guarded.h"
#include "brefir/ssh_utils.h"
#include "fleet/errors.h"
#include "fleet/layout.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "pnl/test.h"
#include "pnl/thread.h"
#include "pnl/utf8.h"

namespace fleet {
namespace {

pnl_log::Module log_module("recipe_run");

// --- Who may run what

pnl_err::Error Refusal(const recipe::RecipeInfo& info, const std::string& reason) {
  return pnl_err::Error("recipe", "refused", info.id)
      .add_param("message", "recipe '" + info.id + "' " + reason);
}

void RequireAccess(const recipe::RecipeInfo& info, const std::string& user) {
  if (info.access == recipe::kAccessNone) throw Refusal(info, "is locked: its access is none");
  if (user == kAdministrator || info.access == recipe::kAccessAny || info.owner == user) return;
  throw Refusal(info, "is for the administrator and its owner, not for '" + user + "'");
}

void CheckEnvironment(const RecipePlan& plan) {
  for (const auto& [name, value] : plan.environment) {
    if (!IsVariableName(name)) throw pnl_err::Error("recipe", "environment", name);
  }
}

std::string Exports(const RecipePlan& plan) {
  CheckEnvironment(plan);
  std::string exports;
  for (const auto& [name, value] : plan.environment) {
    exports += " " + name + "=" + pnl_proc::Escape(value);
  }
  return exports.empty() ? "" : "export" + exports + "; ";
}

// --- Its output

/// Passes output on as it comes, up to the mark after it, and keeps the end.
class OutputPump {
 public:
  OutputPump(std::string end, const std::function<void(std::string_view)>& output)
      : end_(std::move(end)), output_(output) {}

  /// False after the mark.
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
  static constexpr std::size_t kTail = 5120;  // bytes of the end that are kept

  /// The number of bytes at the end that may begin the mark or an incomplete character.
  std::size_t Held() const {
    for (std::size_t size = std::min(held_.size(), end_.size() - 1); size > 0; --size) {
      if (held_.ends_with(std::string_view(end_).substr(0, size))) return size;
    }
    return utf8::Unfinished(held_);
  }

  void Pass(std::size_t size) {
    const std::string_view data = std::string_view(held_).substr(0, size);
    if (output_) utils::Guarded(log_module, "output is not shown", [&] { output_(data); });
    tail_ += data;
    if (tail_.size() > 2 * kTail) tail_.erase(0, tail_.size() - kTail);
    held_.erase(0, size);
  }

  const std::string end_;
  const std::function<void(std::string_view)>& output_;
  std::string held_;
  std::string tail_;
};

// --- The script on the node

/// Removed with the object; the script's command line removes it too.
class NodeScript {
 public:
  /// Throws NodeError with the node's own reason.
  NodeScript(pnl_rpc::SSH& ssh, const std::string& dir, const std::string& content)
      : host_(ssh), path_(pnl_file::ConcatPath(dir, "recipe." + str::hex::Encode(str::Random(8)))) {
    constexpr unsigned kRunnable = 0700;
    try {
      host_.Replace(path_, content, {.before = pnl_host::Content(), .new_mode = kRunnable});
    } catch (const pnl_err::Error& error) {
      if (pnl_rpc::SessionFailed(error)) throw;
      throw NodeError(ssh, path_,
                      "the script could not be written to '" + path_ +
                          "': " + str::Replace(error.param("reason"), "\n", "; ") +
                          "; --dir names another directory");
    }
  }
  NodeScript(const NodeScript&) = delete;
  NodeScript& operator=(const NodeScript&) = delete;
  ~NodeScript() {
    utils::Guarded(log_module, "the script is left on the node",
                   [&] { host_.Do("rm -f " + pnl_proc::Escape(path_)); });
  }

  const std::string& Path() const { return path_; }

 private:
  pnl_host::Host host_;
  std::string path_;
};

// --- The run

/// Runs a plan on a separate thread: a thread that waits for a silent script cannot check `stop`.
class NodeRun {
 public:
  NodeRun(const RecipePlan& plan, pnl_rpc::SSH ssh, const RecipeCalls& calls)
      : plan_(plan),
        calls_(calls),
        ssh_(std::move(ssh)),
        end_(str::hex::Encode(str::Random(16))),
        pump_(end_, calls.output) {}

  /// Waits for the end; ends the script when `stop` is true.
  RecipeOutcome Follow() {
    constexpr int kPause = 20;  // milliseconds
    constexpr int kPatience = 10000 / kPause;
    outcome_.started = pnl_date::DateTime::Now();
    worker_.Start();
    int asked = 0;
    while (!ended_) {
      pnl_proc::Sleep(kPause);
      if (!IsStopped()) continue;
      stopped_ = true;
      const int group = group_;
      if (group == 0) continue;
      if (asked == 0) Signal(group, SIGTERM);
      if (asked == kPatience) Signal(group, SIGKILL);
      ++asked;
    }
    worker_.join();
    outcome_.stopped = IsStopped();
    outcome_.tail = pump_.Tail();
    outcome_.ended = pnl_date::DateTime::Now();
    return outcome_;
  }

 private:
  bool IsStopped() const {
    bool stopped = false;
    utils::Guarded(log_module, "the caller could not be asked whether to stop",
                   [&] { stopped = calls_.stop && calls_.stop(); });
    return stopped;
  }

  /// Sends a signal to the script's process group, over a separate session.
  void Signal(int group, int number) const {
    if (!calls_.open) return;
    try {
      ssh_utils::Kill(calls_.open(), -group, number);
    } catch (const pnl_err::Error& error) {
      utils::Guarded(log_module, "the caller could not be told that the script was not ended", [&] {
        if (calls_.not_ended) calls_.not_ended(error);
      });
    }
  }

  void Work() noexcept {
    try {
      Execute();
    } catch (const pnl_err::Error& error) {
      outcome_.error = error;
    } catch (const std::exception& error) {
      outcome_.error = pnl_err::Error("internal", "", error.what());
    }
    ended_ = true;
  }

  void Execute() {
    const NodeScript copy(ssh_, plan_.dir, plan_.recipe->content);
    if (stopped_) return;
    pnl_rpc::SSH run = ssh_.Execute(RecipeCommand(plan_, copy.Path(), end_));
    run.CloseIn();
    Read(run.Out());
    outcome_.code = run.Result();
  }

  void Read(std::istream& out) {
    char group[16] = "";  // limited, whatever the node sends
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

  const RecipePlan& plan_;
  const RecipeCalls& calls_;
  pnl_rpc::SSH ssh_;  // only the worker uses it while it runs
  const std::string end_;
  OutputPump pump_;
  RecipeOutcome outcome_;  // the worker sets code and error; read them after the join
  std::atomic<int> group_{0};
  std::atomic<bool> stopped_{false};
  std::atomic<bool> ended_{false};
  pnl_thread::Handle worker_{[this] { Work(); }};
};

std::string CodeText(const RecipeOutcome& outcome) {
  if (outcome.error) return std::string("unknown: ") + outcome.error->what();
  const std::string code = outcome.code ? std::to_string(*outcome.code) : "none";
  return code + (outcome.stopped ? " (interrupted)" : "");
}

}  // namespace

void RequireRunnable(const recipe::RecipeInfo& info, const std::string& user) {
  RequireAccess(info, user);
  if (info.name.empty())
    throw Refusal(info, "has no name in its header; check it with 'brefirctl recipe lint'");
  if (info.method != "ssh") {
    throw Refusal(
        info, "needs the method '" + info.method + "'; this program runs recipes only over SSH");
  }
}

bool IsVariableName(std::string_view word) {
  const auto letter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  };
  return !word.empty() && letter(word.front()) &&
         std::all_of(word.begin(), word.end(),
                     [&](char c) { return letter(c) || (c >= '0' && c <= '9'); });
}

std::string RecipeCommand(const RecipePlan& plan, const std::string& path, const std::string& end) {
  const std::string copy = pnl_proc::Escape(path);
  const bool own_interpreter = plan.recipe->content.starts_with("#!");
  // Removes the copy even when this host can no longer do it.
  return "trap " + pnl_proc::Escape("rm -f " + copy + "; printf %s " + end) +
         " EXIT; trap 'exit 143' TERM; echo $$; exec 2>&1 </dev/null; " + Exports(plan) +
         (own_interpreter ? "" : "/bin/sh ") + copy + "; exit $?";
}

RecipeOutcome RunRecipe(const RecipePlan& plan, pnl_rpc::SSH ssh, const RecipeCalls& calls) {
  CheckEnvironment(plan);
  return NodeRun(plan, std::move(ssh), calls).Follow();
}

std::string RecipeLogName(const std::string& id, const std::string& node) {
  return id + "@" + node + ".log";
}

std::string WriteRecipeLog(const RecipePlan& plan, const RecipeOutcome& outcome) {
  const std::string name = RecipeLogName(plan.recipe->id, plan.node);
  if (!test::PathComponent(name)) throw pnl_err::Error("recipe", "log_name", name);
  std::string path = pnl_file::ConcatPath(layout::kRecipeLogDir, name);
  pnl_file::MkDir(layout::kRecipeLogDir);
  pnl_file::Write(path,
                  "recipe: " + plan.recipe->id + "\nname: " + plan.recipe->FullName() +
                      "\nnode: " + plan.node + "\nstarted: " + outcome.started.Str() +
                      "\nended: " + outcome.ended.Str() + "\nexit code: " + CodeText(outcome) +
                      "\n\n" + outcome.tail,
                  pnl_file::kSecretMode);
  return path;
}

}  // namespace fleet
