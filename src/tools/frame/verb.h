#pragma once

#include <set>
#include <string>
#include <vector>

#include "brefir/cmdarg_man.h"
#include "tools/frame/ask.h"
#include "tools/frame/change.h"
#include "tools/frame/context.h"
#include "tools/frame/output.h"
#include "tools/frame/runs.h"

/// The model of all commands of brefirctl. A command is a family and a verb ("repo add"). A verb is
/// a value with named fields; parsing, help, completion, man pages and JSON are made from it.
///
/// To add a verb, write commands/FAMILY/VERB.cpp with a function that returns it, declare that in
/// the family's header and name it in commands/FAMILY/family.cpp:
///
///     Verb ShowVerb() {
///       return {.name = "show",
///               .summary = "Shows one task.",
///               .describe = [](opts::Args& args) { args.Positional("ID").Help("the task"); },
///               .run = Show,
///               .examples = {"OST_INSTALL@main__Debian-12"},
///               .fields = TaskFields()};
///     }
///
/// Declare a new family in commands/families.h and add it to Families(). Value names matter for
/// completion: FILE completes file names, DIR directories. Choices (OneOf) are completed too.
/// Completes offers names of the panel (commands/candidates.h).
///
/// A verb's table of fields is documented in the man page. Output checks it: a record with other
/// fields is an error, so that the first test of a verb finds the mistake.
namespace tools {

/// The working directory of a verb.
enum class Place {
  kPrefix,    ///< the panel's directory; an error without one
  kAnywhere,  ///< the panel's directory; without one, the directory at the start
  kStart,     ///< the directory at the start
};

/// What a verb works on, in a family that has the option --node.
enum class Reach {
  kHost,     ///< --node, or this host
  kNode,     ///< --node; or --nodes, if the verb asks
  kNothing,  ///< no host: --node is refused
};

struct Verb {
  std::string name;                              ///< "" for a family that is a command itself
  std::string summary;                           ///< a sentence
  std::vector<std::string> aliases = {};         ///< older names, shown in no text
  void (*describe)(opts::Args& args) = nullptr;  ///< registers options and positional words

  // Set one of these.
  int (*run)(Context& context) = nullptr;  ///< for a verb without a plan; returns the exit code
  /// For a verb that asks a host: reads the words and returns the question. The frame asks --node,
  /// this host or each of --nodes, and prints the answers. If `run` or `change` is set too, it
  /// replaces all of that except --nodes.
  Question (*ask)(Context& context) = nullptr;
  bool lists = false;  ///< whether the answer to the question is a list
  /// For a verb that changes files and values: reads the words and returns its effect on a host. The
  /// frame makes a run of it, on this host, --node or --nodes, or shows or checks its plan.
  HostEdit (*edit)(Context& context) = nullptr;
  /// For a verb that changes something else: returns a plan, which the frame shows (--dry-run), checks
  /// (--check) or carries out. The frame adds these options and their output fields.
  Change (*change)(Context& context) = nullptr;
  /// Whether the plan says if there is anything to do, so that --check is possible. Its steps must
  /// be files and values, or commands that are left out when they would do nothing.
  bool checks = false;
  /// If set, and `edit` too: why these words make no run; "" if they make one. Otherwise the verb is as if
  /// it had no `edit`.
  std::string (*no_run)(const opts::Values& words) = nullptr;

  std::vector<std::string> examples = {};  ///< the words after the verb: "main__Debian-12 --wait"
  std::vector<Field> fields = {};          ///< of its output
  Place place = Place::kPrefix;
  Reach reach = Reach::kHost;
};

struct Family {
  std::string name;
  std::string summary;                           ///< a sentence
  void (*describe)(opts::Args& args) = nullptr;  ///< registers options of all its verbs
  std::vector<Verb> verbs;
  std::vector<opts::Note> files = {};      ///< files below the prefix, for the man page
  std::vector<std::string> see_also = {};  ///< further man pages: "ostemplates.conf(5)"
};

/// The fields of several verbs together.
[[nodiscard]] std::vector<Field> Fields(std::vector<Field> fields, const std::vector<Field>& more);

/// All fields that a verb's records may have, including those of the frame.
[[nodiscard]] std::vector<Field> AllFields(const Verb& verb);

/// The verbs, with Reach::kNode.
[[nodiscard]] std::vector<Verb> OnNodes(std::vector<Verb> verbs);

/// The family with all its verbs except `bound` at Place::kAnywhere.
[[nodiscard]] Family Anywhere(Family family, const std::set<std::string>& bound = {});

/// Registers a verb's options and words, including those of the frame.
void Describe(const Verb& verb, opts::Args& args);

/// --dry-run and, where the plan `checks`, --check: for a verb that calls CarryOut itself.
void AddPlanOptions(opts::Args& args, bool checks);

/// Runs the verb; returns its exit code.
[[nodiscard]] int Run(const Verb& verb, Context& context);

}  // namespace tools
