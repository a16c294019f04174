#pragma once

#include <set>
#include <string>
#include <vector>

#include "brefir/cmdarg_man.h"
#include "tools/frame/change.h"
#include "tools/frame/context.h"
#include "tools/frame/output.h"

/// The one model of all commands of brefirctl: a family of verbs, each a value with named fields,
/// from which parsing, help, completion, man pages and JSON come.
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
/// A new family is declared in commands/families.h and called in Families(). Value names have a
/// meaning for completion: FILE completes file names, DIR directories; choices (OneOf) complete
/// themselves, and Completes offers what the panel has (commands/candidates.h).
///
/// A verb's table of fields is what the man page promises to programs. Output holds the verb to it:
/// a record of other fields is a fault, so that the first test of a verb finds it.
namespace tools {

/// Where a verb works.
enum class Place {
  kPrefix,    ///< in the panel's directory, which has to be there
  kAnywhere,  ///< there too, but nothing of it lives there: without one, where it was started
  kStart,     ///< where it was started
};

struct Verb {
  std::string name;     ///< "": the family's only command, which is its name alone
  std::string summary;  ///< a sentence
  std::vector<std::string> aliases = {};         ///< older words for it, which no text tells of
  void (*describe)(opts::Args& args) = nullptr;  ///< registers options and positional words

  // One of the two.
  int (*run)(Context& context) = nullptr;  ///< asks, or has an effect that no plan shows; exit code
  /// Changes something: gives a plan, which the frame shows (--dry-run), asks about (--check) or
  /// carries out. The frame adds these options and what they print to `fields`.
  Change (*change)(Context& context) = nullptr;
  /// Whether the plan tells if there is anything to do, for --check: its steps are files and
  /// values, or commands that are left out where they would do nothing.
  bool checks = false;

  std::vector<std::string> examples =
      {};                          ///< what stands behind the verb: "main__Debian-12 --wait"
  std::vector<Field> fields = {};  ///< of what it prints
  Place place = Place::kPrefix;
};

struct Family {
  std::string name;
  std::string summary;                           ///< a sentence
  void (*describe)(opts::Args& args) = nullptr;  ///< registers options of all its verbs
  std::vector<Verb> verbs;
  std::vector<opts::Note> files = {};      ///< what its man page tells of files, below the prefix
  std::vector<std::string> see_also = {};  ///< further man pages: "ostemplates.conf(5)"
};

/// Fields of several verbs, put together.
[[nodiscard]] std::vector<Field> Fields(std::vector<Field> fields, const std::vector<Field>& more);

/// All fields that a verb's records may have, those of the frame, too.
[[nodiscard]] std::vector<Field> AllFields(const Verb& verb);

/// The family with all its verbs but `bound` at Place::kAnywhere.
[[nodiscard]] Family Anywhere(Family family, const std::set<std::string>& bound = {});

/// Registers a verb's options and words, those of the frame, too.
void Describe(const Verb& verb, opts::Args& args);

/// --dry-run and, where the plan `checks`, --check: for a verb that calls CarryOut itself.
void AddPlanOptions(opts::Args& args, bool checks);

/// Carries the verb out; its exit code.
[[nodiscard]] int Run(const Verb& verb, Context& context);

}  // namespace tools
