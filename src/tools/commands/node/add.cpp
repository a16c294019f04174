#include "fleet/shell_words.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

/// The line of the words; each of them is refused if it would be something else in that line.
std::string NewLine(const Context& context) {
  const std::string& name = context.values.Str("NAME");
  const bool opens_group = name.starts_with('[') && name.find(':') == std::string::npos;
  if (opens_group || name.find_first_of("#\n") != std::string::npos)
    throw UsageError(
        "NAME", name,
        "NAME '" + name + "' is no name of a node; write NAME, NAME[1-9] or [USER@]HOST[:PORT]");
  std::string line = fleet::QuotedWord(name);
  for (const std::string& word : context.values.List("SETTING")) {
    std::string value = word;
    const std::string key = str::GetWord(value, '=');
    if (word.find('\n') != std::string::npos)
      throw UsageError("SETTING", word, "SETTING '" + key + "' must not contain a line end");
    const bool valued = key != word;  // a word without "=" is refused with the line
    line += " " + fleet::QuotedWord(key) + (valued ? "=" : "");
    if (valued && !value.empty()) line += fleet::QuotedWord(value);
  }
  return line;
}

/// An error names the line that is not in the file, and would mislead.
pnl_err::Error Refused(const pnl_err::Error& error, const std::string& path,
                       const std::string& name, const fleet::Inventory& old) {
  const std::string number = error.param("line");
  const std::string place = path + (number.empty() ? "" : ":" + number) + ": ";
  const std::string message =
      "cannot add '" + name + "' to " + path + ": " + error.param("message").substr(place.size());
  if (old.Find(error.value()) == nullptr) return UsageError("NAME", error.value(), message);
  return pnl_err::Error(fleet::kInventoryError, path, error.value()).add_param("message", message);
}

Change Add(Context& context) {
  const std::string line = NewLine(context);
  return InventoryChange(context, [&](std::string& text, const std::string& path) -> Answer {
    const fleet::Inventory old = fleet::Inventory::Parse(text, path);
    try {
      text = fleet::WithNode(text, path, line, context.values.Str("group"));
    } catch (const pnl_err::Error& error) {
      if (error.type() != fleet::kInventoryError) throw;
      throw Refused(error, path, context.values.Str("NAME"), old);
    }
    std::vector<Record> records;
    const fleet::Inventory now = fleet::Inventory::Parse(text, path);
    for (const fleet::Node& node : now.Nodes()) {
      if (old.Find(node.name) == nullptr) records.push_back(ToRecord(InventoryFields(), node));
    }
    return {records, kInventoryColumns};
  });
}

void Describe(opts::Args& args) {
  args.Positional("NAME").Help(
      "its name, or a range of names such as web[01-40]; an address, or [USER@]HOST[:PORT], needs "
      "no SETTING");
  args.Positional("SETTING").Repeated().Optional().Help(
      "KEY=VALUE: host, user, port, key, known_hosts, jump, become, groups, or a value of your "
      "own; brefir-nodes(5) explains them");
  args.Option("group").Value("GROUP").Help(
      "add it to the lines of this group, which must exist; default: before all groups");
}

}  // namespace

Verb NodeAddVerb() {
  return {.name = "add",
          .summary = "Adds a node, or a range of nodes, to the inventory.",
          .describe = Describe,
          .change = Add,
          .checks = true,
          .examples = {"192.0.2.7", "web7 host=192.0.2.7 user=admin role=frontend --group web",
                       "'web[01-40]' 'host=192.0.2.[1-40]' --dry-run"},
          .fields = Declared(InventoryFields()),
          .reach = Reach::kNothing};
}

}  // namespace tools
