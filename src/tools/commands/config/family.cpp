// config: files of keys and values, here or on a node.

#include "tools/commands/config/file.h"
#include "tools/commands/families.h"
#include "tools/commands/login.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "A line is a key, the separator and a value; --separator ' ' reads files that have a blank "
      "between them. Comments, other lines and their order stay as they are, and the file is "
      "replaced as a whole.");
  args.Option("comment").Value("CHARS").Default("#").Help(
      "lines that begin with one of these are comments");
  args.Option("separator").Value("TEXT").Default("=").Help("what stands between key and value");
  args.Option("quote").Value("TEXT").Default("").Help("what stands around values");
  AddNodeOptions(args);
}

Family ConfigFamily() {
  return {.name = "config",
          .summary = "Files of keys and values, here or on a node.",
          .describe = DescribeFamily,
          .verbs = {ConfigGetVerb(), ConfigSetVerb(), ConfigRemoveVerb(), ConfigListVerb()}};
}

}  // namespace tools
