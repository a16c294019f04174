// demo: a tour of the library on throwaway servers. The tour itself is a set of scripts, which are
// installed with the program.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <vector>

#include "pnl/file.h"
#include "tools/commands/families.h"

namespace tools {

static int Demo(Context& context) {
  // Found relative to the program, so that each installation and each build has its own tour.
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
  const std::string tour =
      (program.parent_path() / BREFIR_DATA_FROM_BIN / "demo/tour").lexically_normal();
  if (!pnl_file::Exists(tour)) {
    throw pnl_err::Missed("demo", tour)
        .add_param("message", "the demo is not installed here: there is no '" + tour + "'");
  }
  std::vector<std::string> words = {"/bin/bash", tour, program};
  if (context.values.Has("keep")) words.emplace_back("--keep");
  if (context.values.Has("part")) words.insert(words.end(), {"--part", context.values.Str("part")});
  // exec: the tour gets the signals and the terminal.
  std::vector<char*> argv(words.size() + 1, nullptr);
  for (std::size_t i = 0; i < words.size(); ++i) argv[i] = words[i].data();
  std::signal(SIGPIPE, SIG_DFL);  // a shell cannot reset an ignored signal
  execv(argv[0], argv.data());
  throw pnl_err::System("start", words[0], errno);
}

static void Describe(opts::Args& args) {
  args.Details(
      "The tour starts a repository server and managed nodes, which are real SSH servers in Linux "
      "namespaces. It runs the commands of all families on them, and shows each command with its "
      "output. It takes two to three minutes, changes nothing on this machine and leaves nothing "
      "behind, "
      "even if it is interrupted. Nodes need root; an ordinary user sees only the part about "
      "templates. If programs are missing, the tour first names them and their packages. Exit code "
      "0 means that every command gave the expected exit code and output.");
  args.Option("keep").Help(
      "open a shell among the servers at the end, even if a step failed; 'exit' ends all servers");
  args.Option("part")
      .OneOf({"templates", "nodes", "changes", "packages", "guard", "keys"})
      .Help(
          "run only this part; changes, packages: one change of many nodes, made and undone; "
          "guard: changes that lock the panel out; keys: the panel's key is replaced");
}

Family DemoFamily() {
  return {.name = "demo",
          .summary = "A tour that shows what the program can do, on temporary servers.",
          .describe = Describe,
          .verbs = {{.name = "",  // the family is the command
                     .summary = "",
                     .run = Demo,
                     .examples = {"", "--part changes", "--keep"},
                     .place = Place::kStart}}};
}

}  // namespace tools
