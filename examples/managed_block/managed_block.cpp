// Keeps a block of lines in a file of several nodes: what stands there between "# begin NAME" and
// "# end NAME" becomes standard input, and all other lines belong to others. All nodes get it, or none:
// CHECK, a command that runs on each node afterwards, must succeed. 'brefirctl run undo' takes it back.
//
// Usage: managed_block KEY KNOWN_HOSTS PATH NAME CHECK NODE... <LINES
//   e.g. managed_block etc/panel.key etc/known_hosts /etc/hosts cluster 'getent hosts db1' web1 web2
#include <fleet/fleet_database.h>
#include <fleet/run.h>

#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

struct Block {
  std::string path;
  std::string name;
  std::string lines;  ///< each with its line end
  std::string check;  ///< a command
};

/// The text with the block in it: at its old place, or at the end.
std::string WithBlock(const fleet::Draft& draft, const Block& block) {
  const std::string begin = "# begin " + block.name + "\n";
  const std::string end = "# end " + block.name + "\n";
  std::string text = draft.Text(block.path).value_or("");
  if (!text.empty() && !text.ends_with('\n')) text += '\n';
  const std::size_t from = text.find(begin);
  if (from == std::string::npos) return text + begin + block.lines + end;
  const std::size_t to = text.find(end, from);
  if (to == std::string::npos)
    draft.Refuse(block.path, "'" + block.path + "' has no line '# end " + block.name + "'");
  return text.replace(from, to + end.size() - from, begin + block.lines + end);
}

void Check(pnl_host::Host& host, const Block& block) {
  const pnl_host::Outcome run = host.Run(block.check);
  if (run.code == 0) return;
  throw pnl_err::Error("check", host.Name(), block.check)
      .add_param("message", "'" + block.check + "' failed: " + run.complaint);
}

/// The kind of change: what it must see of a node, and what it makes of that.
fleet::Edit BlockEdit(const Block& block) {
  return {.look = [block](fleet::Looks& looks) { looks.texts.insert(block.path); },
          .make =
              [block](fleet::Draft& draft) {
                draft.Write(block.path, WithBlock(draft, block), {.by_lines = true});
                draft.Verify([block](pnl_host::Host& host) { Check(host, block); });
              }};
}

int Make(const std::vector<fleet::RunTarget>& nodes, const Block& block) {
  fleet::Journal journal(fleet::OpenFleetDatabase());
  fleet::Run run(&journal, nodes, {.command = "managed_block " + block.path + " " + block.name});
  run.Plan({BlockEdit(block)});
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    std::cout << nodes[i].name << ":\n"
              << fleet::DiffOf(fleet::PlanOf(nodes[i].name, run.Steps(i)));
  }
  const fleet::RunReport report = run.Make();
  std::cout << "run " << report.id << ": " << fleet::ToText(report.state) << "\n";
  for (const fleet::NodeReport& node : report.nodes) {
    if (!node.reason.empty()) std::cerr << node.name << ": " << node.reason << "\n";
  }
  return report.Good() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() < 6) {
    std::cerr << "usage: managed_block KEY KNOWN_HOSTS PATH NAME CHECK NODE... <LINES\n";
    return 2;
  }
  const std::string lines(std::istreambuf_iterator<char>(std::cin), {});
  std::vector<fleet::RunTarget> nodes;
  for (std::size_t i = 5; i < words.size(); ++i) {
    const pnl_rpc::SshOptions login{
        .host = words[i], .key_file = words[0], .known_hosts = words[1]};
    nodes.push_back({.name = words[i], .login = login});
  }
  try {
    return Make(nodes, {.path = words[2], .name = words[3], .lines = lines, .check = words[4]});
  } catch (const pnl_err::Error& error) {
    std::cerr << "managed_block: " << error.what() << "\n";
    return 1;
  }
}
