#include "brefir/cmdarg.h"

#include <gtest/gtest.h>

#include "pnl/err.h"

namespace {

using Words = std::vector<std::string>;

/// A small tool that has every kind of option and word.
opts::Args Tool() {
  opts::Args args("tool", "Shows what the parser knows.");
  args.CommandName("FAMILY");
  args.Option("version").Help("print the version").Last();
  args.Option("verbose").Short('v').Help("tell more");
  args.Option("output").Short('o').OneOf({"table", "json"}).Default("table").Help("form");
  opts::Args& node = args.Command("node", "Files of a node.").CommandName("VERB");
  node.Option("node").Short('n').Value("HOST").Required().Help("the node");
  node.Option("version").Value("V").Help("version of the module");
  opts::Args& copy = node.Command("copy", "Copies files.");
  copy.Option("port").Short('p').Number("PORT", -1, 65535).Default("22").Help("SSH port");
  copy.Option("key").Value("FILE").Repeated().Needs("port").Help("identity");
  copy.Option("force").Short('f').Help("overwrite");
  copy.Option("keep").Excludes("force").Help("do not overwrite");
  copy.Positional("SOURCE").Repeated().Help("files");
  copy.Positional("TARGET").Help("where to");
  copy.Positional("MODE").OneOf({"fast", "safe"}).Optional().Help("how");
  node.Command("kill", "Ends processes.").Positional("PID").Number("PID", 1, 9).Optional();
  return args;
}

/// What was understood, as text: command, options that were given, words.
std::string Understood(const opts::Values& values) {
  Words names = {"help", "version", "verbose", "output"};
  if (values.Command() == Words{"node", "copy"})
    names.insert(names.end(), {"node", "port", "key", "force", "keep", "SOURCE", "TARGET", "MODE"});
  std::string text;
  for (const std::string& word : values.Command()) text += word + " ";
  for (const std::string& name : names) {
    if (!values.Has(name)) continue;
    text += name + "(";
    for (const std::string& value : values.List(name)) text += "[" + value + "]";
    text += ") ";
  }
  if (!values.EndedBy().empty()) text += "ended by " + values.EndedBy() + ", left:";
  for (const std::string& word : values.Rest()) text += " " + word;
  return text;
}

TEST(Opts, ReadsCommandLines) {
  const struct {
    Words words;
    std::string understood;
  } cases[] = {
      {{"node", "copy", "--node=h", "a", "b"}, "node copy node([h]) SOURCE([a]) TARGET([b]) "},
      {{"-vojson", "node", "-n", "h", "copy", "a", "b", "c", "--verbose", "-p5"},
       "node copy verbose() output([json]) node([h]) port([5]) SOURCE([a][b]) TARGET([c]) "},
      {{"node", "copy", "-vfnh", "--", "-a", "--force"},
       "node copy verbose() node([h]) force() SOURCE([-a]) TARGET([--force]) "},
      {{"node", "copy", "--node", "-", "-", "b", "-p", "-1", "--key=", "--key=-x"},
       "node copy node([-]) port([-1]) key([][-x]) SOURCE([-]) TARGET([b]) "},
      {{"node", "copy", "--version", "7", "-nh", "a", "b"},
       "node copy version([7]) node([h]) SOURCE([a]) TARGET([b]) "},
      {{"--version", "node", "--bad"}, "version() ended by version, left: node --bad"},
      {{"node", "-vh", "copy"}, "node help() verbose() ended by help, left: copy"},
  };
  for (const auto& c : cases) EXPECT_EQ(Understood(Tool().Parse(c.words)), c.understood);

  const opts::Values values = Tool().Parse({"node", "copy", "-nh", "a", "b"});
  EXPECT_EQ(values.Int("port"), 22);
  EXPECT_EQ(values.Str("output"), "table");
  EXPECT_FALSE(values.Has("port"));
  EXPECT_THROW((void)values.Str("prot"), pnl_err::Error);
}

TEST(Opts, RefusesWrongCommandLines) {
  const struct {
    Words words;
    std::string object;
    std::string nearest;
  } cases[] = {
      {{}, "FAMILY", ""},
      {{"node", "-nh"}, "VERB", ""},
      {{"ndoe"}, "ndoe", "node"},
      {{"node", "cpoy"}, "cpoy", "copy"},
      {{"node", "ki"}, "ki", "kill"},
      {{"zzz"}, "zzz", ""},
      {{"--verbsoe"}, "--verbsoe", "--verbose"},
      {{"--port=1", "node"}, "--port", ""},  // stands before its command
      {{"node", "copy", "--verb"}, "--verb", "--verbose"},
      {{"node", "copy", "-vx"}, "-x", ""},
      {{"--verbose=1"}, "--verbose", ""},
      {{"-o"}, "--output", ""},
      {{"-o", "jsn"}, "--output", "json"},
      {{"-ojson", "-otable"}, "--output", ""},
      {{"node", "--node", "--verbose"}, "--node", ""},
      {{"node", "kill"}, "--node", ""},
      {{"node", "kill", "-nh", "10"}, "PID", ""},
      {{"node", "kill", "-nh", "9x"}, "PID", ""},
      {{"node", "kill", "-nh", "1", "2"}, "2", ""},
      {{"node", "copy", "-nh", "a"}, "TARGET", ""},
      {{"node", "copy", "-nh", "-p99999999999999999999", "a", "b"}, "--port", ""},
      {{"node", "copy", "-nh", "--key=k", "a", "b"}, "--key", ""},
      {{"node", "copy", "-nh", "-f", "--keep", "a", "b"}, "--keep", ""},
  };
  for (const auto& c : cases) {
    try {
      ADD_FAILURE() << "accepted: " << Understood(Tool().Parse(c.words)) << " for " << c.object;
    } catch (const pnl_err::Error& error) {
      EXPECT_EQ(error.type(), "usage");
      EXPECT_EQ(error.object(), c.object);
      EXPECT_EQ(error.param("nearest"), c.nearest) << c.object;
      EXPECT_NE(error.param("message"), "");
    }
  }
}

TEST(Opts, RefusesWrongRegistrations) {
  const std::vector<void (*)(opts::Args&)> faults = {
      [](opts::Args& args) { args.Option("help"); },
      [](opts::Args& args) { args.Option("host").Short('h'); },
      [](opts::Args& args) { args.Option("port").Number("PORT", 1, 9).Default("10"); },
      [](opts::Args& args) { args.Command("sub", "").Option("a").Needs("b"); },
      [](opts::Args& args) { args.Command("sub", ""), args.Positional("FILE"); },
      [](opts::Args& args) { args.Positional("A").Repeated(), args.Positional("B").Repeated(); },
  };
  for (std::size_t i = 0; i < faults.size(); ++i) {
    opts::Args args("tool", "");
    faults[i](args);
    EXPECT_THROW(args.Parse(Words{"--help"}), pnl_err::Error) << i;
  }
}

TEST(Opts, UsageFitsTheWidthAndShowsWhatIsKnownAtTheLevel) {
  const std::string usage = Tool().Usage({"node", "copy"}, 50);
  EXPECT_EQ(usage,
            "Usage: tool node copy [OPTION...] --node HOST\n"
            "       SOURCE... TARGET [MODE]\n"
            "\n"
            "Copies files.\n"
            "\n"
            "Arguments:\n"
            "  SOURCE...  files\n"
            "  TARGET     where to\n"
            "  [MODE]     how (one of fast|safe)\n"
            "\n"
            "Options:\n"
            "  -p, --port PORT  SSH port (-1 to 65535; default:\n"
            "                   22)\n"
            "      --key FILE   identity (may be repeated;\n"
            "                   needs --port)\n"
            "  -f, --force      overwrite\n"
            "      --keep       do not overwrite (not with\n"
            "                   --force)\n"
            "\n"
            "Common options:\n"
            "  -h, --help               show this help\n"
            "  -v, --verbose            tell more\n"
            "  -o, --output table|json  form (default: table)\n"
            "  -n, --node HOST          the node (required)\n"
            "      --version V          version of the module\n");
  const std::string program = Tool().Usage();
  EXPECT_NE(program.find("Usage: tool [OPTION...] FAMILY VERB ..."), std::string::npos);
  EXPECT_NE(program.find("FAMILY is one of:\n  node  Files of a node.\n"), std::string::npos);
}

}  // namespace
