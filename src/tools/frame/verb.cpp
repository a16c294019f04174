#include "tools/frame/verb.h"

#include <algorithm>

namespace tools {

std::vector<Field> Fields(std::vector<Field> fields, const std::vector<Field>& more) {
  fields.insert(fields.end(), more.begin(), more.end());
  return fields;
}

std::vector<Field> AllFields(const Verb& verb) {
  std::vector<Field> all = verb.fields;
  std::vector<Field> more;
  if (verb.change != nullptr) more = PlanFields();
  if (verb.ask != nullptr) more = Fields(more, NodesFields(verb.lists));
  if (verb.edit != nullptr) more = EditFields();
  for (const Field& field : more) {
    const auto same = [&](const Field& other) { return other.name == field.name; };
    if (std::none_of(all.begin(), all.end(), same)) all.push_back(field);
  }
  return all;
}

std::vector<Verb> OnNodes(std::vector<Verb> verbs) {
  for (Verb& verb : verbs) verb.reach = Reach::kNode;
  return verbs;
}

Family Anywhere(Family family, const std::set<std::string>& bound) {
  for (Verb& verb : family.verbs) {
    if (!bound.contains(verb.name)) verb.place = Place::kAnywhere;
  }
  return family;
}

void Describe(const Verb& verb, opts::Args& args) {
  for (const std::string& alias : verb.aliases) args.Alias(alias);
  if (verb.describe != nullptr) verb.describe(args);
  if (verb.change != nullptr && verb.edit == nullptr) AddPlanOptions(args, verb.checks);
  if (verb.ask != nullptr && verb.edit == nullptr) AddNodesOptions(args);
  if (verb.edit == nullptr) return;
  AddPlanOptions(args, true);
  AddThenOption(args);
  AddRunOptions(args);
}

void AddPlanOptions(opts::Args& args, bool checks) {
  args.Option("dry-run").Help("show what would be done; change nothing");
  if (!checks) return;
  args.Option("check")
      .Help("change nothing; the exit code is 3 if there would be a change, else 0")
      .Excludes("dry-run");
}

/// The options of a family are those of all its verbs. What a verb needs of --node is checked here.
static void CheckReach(const Verb& verb, const Context& context) {
  const bool node = context.values.HasAtAll("node");
  if (verb.reach == Reach::kNothing && node)
    throw UsageError("--node", context.values.Str("node"), "'" + verb.name + "' takes no --node");
  if (verb.reach != Reach::kNode || node || context.values.HasAtAll("nodes")) return;
  throw UsageError("--node", "",
                   verb.ask == nullptr && verb.edit == nullptr ? "--node is missing"
                                                               : "--node or --nodes is missing");
}

/// Refuses options of runs for words that make none, because of `why`.
static void RequireNoRunOptions(const Verb& verb, const Context& context, const std::string& why) {
  opts::Args options("", "");
  AddThenOption(options);
  AddPolicyOptions(options, true);
  std::set<std::string> names;
  for (const opts::Arg& option : options.Options()) names.insert(option.Info().name);
  names.erase("help");
  if (verb.ask == nullptr) names.insert("nodes");
  if (verb.change == nullptr) names.insert("dry-run");
  if (verb.change == nullptr || !verb.checks) names.insert("check");
  const auto given = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
    return context.values.HasAtAll(name);
  });
  if (given == names.end()) return;
  throw UsageError("--" + *given, "",
                   "--" + *given + " is an option of runs, and this is none: " + why);
}

int Run(const Verb& verb, Context& context) {
  CheckReach(verb, context);
  if (verb.edit != nullptr) {
    const std::string why = verb.no_run == nullptr ? "" : verb.no_run(context.values);
    if (why.empty()) return RunEdit(context, verb);
    RequireNoRunOptions(verb, context, why);
  }
  const bool asks = verb.ask != nullptr && verb.run == nullptr && verb.change == nullptr;
  if (asks || (verb.ask != nullptr && context.values.Has("nodes"))) return Ask(context, verb);
  if (verb.change == nullptr) return verb.run(context);
  return CarryOut(context, verb.change(context));
}

}  // namespace tools
