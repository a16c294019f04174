#include "tools/frame/verb.h"

namespace tools {

std::vector<Field> Fields(std::vector<Field> fields, const std::vector<Field>& more) {
  fields.insert(fields.end(), more.begin(), more.end());
  return fields;
}

std::vector<Field> AllFields(const Verb& verb) {
  if (verb.change == nullptr) return verb.fields;
  std::vector<Field> all = Fields(verb.fields, {{"changed", "whether anything was changed"}});
  if (verb.checks) {
    all.back().meaning = "whether anything was changed; with --check, whether it would be";
    all.push_back(kDiffField);
  } else {
    all.push_back(kWouldField);
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
  if (verb.change == nullptr) return;
  const char* shows = verb.checks ? "show the change as a diff, and make none"
                                  : "print the commands that would run, and run none";
  args.Option("dry-run").Help(shows);
  if (!verb.checks) return;
  args.Option("check")
      .Help("only tell, by the exit code, whether there would be a change: 3, or 0 for none")
      .Excludes("dry-run");
}

int Run(const Verb& verb, Context& context) {
  if (verb.change == nullptr) return verb.run(context);
  return CarryOut(context, verb.change(context));
}

int Would(Context& context, const std::string& command) {
  context.out.Text("would", command.empty() ? "" : command + "\n");
  return kDone;
}

}  // namespace tools
