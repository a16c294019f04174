// config: files of keys and values, here or on a node.

#include "tools/commands/config/file.h"
#include "tools/commands/families.h"
#include "tools/frame/login.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "A line has a key, the separator and a value. Use --separator ' ' for files with a blank "
      "between them. Comments, other lines and the order of lines stay as they are. The file is "
      "replaced as a whole.");
  args.Option("comment").Value("CHARS").Default("#").Help(
      "lines that begin with one of these are comments");
  args.Option("separator").Value("TEXT").Default("=").Help("the text between key and value");
  args.Option("quote").Value("TEXT").Default("").Help("the text around values; default: none");
  AddNodeOptions(args);
}

Family ConfigFamily() {
  return {.name = "config",
          .summary = "Configuration files with keys and values, here or on a node.",
          .describe = DescribeFamily,
          .verbs = {ConfigGetVerb(), ConfigSetVerb(), ConfigRemoveVerb(), ConfigListVerb()}};
}

}  // namespace tools
