#include "tools/frame/verb.h"

#include <algorithm>

namespace tools {

std::vector<Field> Fields(std::vector<Field> fields, const std::vector<Field>& more) {
  fields.insert(fields.end(), more.begin(), more.end());
  return fields;
}

std::vector<Field> AllFields(const Verb& verb) {
  if (verb.change == nullptr) return verb.fields;
  std::vector<Field> all = verb.fields;
  for (const Field& field : PlanFields()) {
    const auto same = [&](const Field& other) { return other.name == field.name; };
    if (std::none_of(all.begin(), all.end(), same)) all.push_back(field);
  }
  return all;
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
  if (verb.change != nullptr) AddPlanOptions(args, verb.checks);
}

void AddPlanOptions(opts::Args& args, bool checks) {
  args.Option("dry-run").Help("show what would be done; change nothing");
  if (!checks) return;
  args.Option("check")
      .Help("change nothing; the exit code is 3 if there would be a change, else 0")
      .Excludes("dry-run");
}

int Run(const Verb& verb, Context& context) {
  if (verb.change == nullptr) return verb.run(context);
  return CarryOut(context, verb.change(context));
}

}  // namespace tools
