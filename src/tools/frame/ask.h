#pragma once

#include <chrono>
#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fleet/fan.h"
#include "fleet/inventory.h"
#include "pnl/host.h"
#include "tools/frame/answer.h"

/// Verbs that ask a node: the same question to --node, or to each of --nodes.
namespace tools {

struct Verb;

/// What a verb asks. With --nodes several threads call `ask`, each with a host of its own, and
/// `known`.
struct Question {
  template <std::invocable<pnl_host::Host&> Ask>
  Question(Ask ask_host) : ask(std::move(ask_host)) {}

  std::function<Answer(pnl_host::Host& host)> ask;
  /// If set: the answer that is known of the node with that name (pnl_host::Host::Name). Nobody logs
  /// in to such a node.
  std::function<std::optional<Answer>(const std::string& node)> known = {};
  std::function<void()> end = {};  ///< if set: called once after the last answer
};

/// --nodes and the options that go with it.
void AddNodesOptions(opts::Args& args);
/// The same without --diff, for a verb that means all nodes where --nodes is missing.
void AddAllNodesOptions(opts::Args& args);
/// --forks, --node-deadline and --deadline. Unless `always`, they need --nodes.
void AddFanOptions(opts::Args& args, bool always);
/// The fields that --nodes adds to a verb's records; `list` for a verb that answers with a list.
[[nodiscard]] std::vector<Field> NodesFields(bool list);

/// On how many nodes to work at the same time.
[[nodiscard]] std::size_t Forks(const Context& context);

/// The name of the node, as pnl_host::Host::Name has it after the login.
[[nodiscard]] const std::string& NameOf(const pnl_rpc::SshOptions& login);

/// Asks, prints the answers, and returns the exit code.
[[nodiscard]] int Ask(Context& context, const Verb& verb);

/// The type of the error of a node that is as before, because another node failed.
inline constexpr const char* kUndone = "run_undone";

/// One command on each of --nodes. Draws the progress on a terminal, ends on an interruption, and
/// stores the nodes that failed as "@failed".
class Round {
 public:
  /// Selects the nodes. Throws a usage error for --nodes.
  explicit Round(Context& context);
  Round(Context& context, std::vector<fleet::Node> nodes);

  const std::vector<fleet::Node>& Nodes() const { return nodes_; }

  /// What is done on a node. Its answer counts as failed if its code is kFailed.
  using Work = std::function<Answer(const fleet::Node& node, pnl_host::Host& host)>;
  struct How {
    /// Whose answer is known (see Question) is not visited.
    decltype(Question::known) known = {};
    /// Of a caller that handles interruptions itself.
    std::shared_ptr<pnl_thread::Event> stop = {};
    bool draws = true;  ///< the progress
    /// How to log in, from several threads; without it, as the inventory says.
    std::function<pnl_rpc::SshOptions(const fleet::Node& node)> login = {};
  };
  void Visit(const Work& work, const How& how);
  /// Takes what was done in another way.
  void Set(std::vector<std::optional<Answer>> answers, fleet::Failures failures);

  // What became of a node.
  static constexpr const char* kOk = "ok";
  static constexpr const char* kFailedState = "failed";
  static constexpr const char* kUnreachable = "unreachable";
  static constexpr const char* kInterruptedState = "interrupted";
  static constexpr const char* kUndoneState = "undone";
  bool HasFailed(std::size_t node) const;
  std::string State(std::size_t node) const;   ///< one of these
  std::string Reason(std::size_t node) const;  ///< why it failed, for people
  /// What its login took; null if it was not reached.
  const std::optional<std::chrono::milliseconds>& LoginTime(std::size_t node) const {
    return login_times_[node];
  }

  /// Prints the answers and the summary, and returns the exit code.
  [[nodiscard]] int Tell(const Verb& verb);

 private:
  void Keep() const;
  Record Told(std::size_t node, const Verb& verb) const;
  std::vector<Record> Rows(const Verb& verb) const;
  int Code() const;
  void PrintRecords(const Verb& verb) const;
  void PrintGathered() const;
  void PrintFailures() const;
  std::string Summary() const;

  Context& context_;
  std::vector<fleet::Node> nodes_;
  std::vector<std::optional<Answer>> answers_;
  fleet::Failures failures_;
  std::vector<std::optional<std::chrono::milliseconds>> login_times_;
};

}  // namespace tools
