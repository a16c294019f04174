#include "tools/commands/node/node.h"

namespace tools {

/// A user or group of the host as a number: names are looked up there.
static std::string NumberOf(const fleet::Draft& draft, const std::string& word, const char* what,
                            const std::map<std::string, std::string>& known) {
  if (word.find_first_not_of("0123456789") == std::string::npos) return word;
  const std::string& number = known.at(word);
  if (number.empty()) draft.Absent(word, "there is no " + std::string(what) + " '" + word + "'");
  return number;
}

static HostEdit Chown(Context& context) {
  const std::string& owner = context.values.Str("OWNER");
  const std::string path = NodePath(context, "PATH");
  std::string_view rest = owner;
  const std::string user(str::NextWord(rest, ':'));
  const std::string group(rest);
  if (user.empty() && group.empty())
    throw UsageError("OWNER", owner, "OWNER '" + owner + "' is not USER, USER:GROUP or :GROUP");
  const auto is_name = [](const std::string& word) {
    return word.find_first_not_of("0123456789") != std::string::npos;
  };
  return {.look =
              [=](fleet::Looks& looks) {
                looks.files.insert(path);
                if (is_name(user)) looks.users.insert(user);
                if (is_name(group)) looks.groups.insert(group);
              },
          .make = [=, word = context.values.Str("PATH")](fleet::Draft& draft) -> Answer {
            RequireMeant(draft, word, "PATH");
            draft.SetOwner(path, NumberOf(draft, user, "user", draft.Seen().users) + ":" +
                                     NumberOf(draft, group, "group", draft.Seen().groups));
            return Record().Add("path", path).Add("owner", owner);
          }};
}

static void DescribeChown(opts::Args& args) {
  args.Positional("OWNER").Help(
      "USER, USER:GROUP or :GROUP; names are those of the node, or numbers");
  DescribePath(args);
}

Verb NodeChownVerb() {
  return {.name = "chown",
          .summary = "Changes the owner of a file.",
          .describe = DescribeChown,
          .edit = Chown,
          .examples = {"www-data:www-data /srv/www --node 192.0.2.7"},
          .fields = {kPathField, {"owner", "the owner that was set"}}};
}

}  // namespace tools
