#include "pnl/client.h"
#include "tools/commands/node/node.h"

namespace tools {

/// The words NAME=VALUE, quoted here because the library does not quote them.
static StringMap CtlParams(const Context& context) {
  StringMap params;
  for (const std::string& word : context.values.List("PARAM")) {
    const auto [name, value] = Assignment(word, "PARAM");
    params[pnl_proc::Escape(name)] = pnl_proc::Escape(value);
  }
  return params;
}

/// Only the panel knows whether the function changes something.
static Change Ctl(Context& context) {
  const std::string dir = NodePath(context, "install-dir");
  const StringMap params = CtlParams(context);
  pnl_rpc::SSH ssh = OpenNode(context);
  const std::string utility = pnl_file::ConcatPath(dir, pnl_client::kUtility);
  RequireThere(ssh, utility);
  const std::string module = pnl_proc::Escape(context.values.Str("MODULE"));
  const std::string function = pnl_proc::Escape(context.values.Str("FUNCTION"));
  const std::string words =
      ssh_utils::PnlCtlCommand(pnl_proc::Escape(dir), module, function, params);
  return ActChange(ssh.Host(), words, [=]() mutable -> Answer {
    try {
      const pnl_xml::Xml reply =
          ssh_utils::PnlCtl(ssh, pnl_proc::Escape(dir), module, function, params);
      Answer answer(Record().Add("xml", reply.Str(true)));
      answer.word = "xml";
      return answer;
    } catch (const pnl_err::Error& error) {
      if (error.type() != pnl_xml::kError) throw;
      throw NodeError(ssh, utility,
                      "'" + utility + "' did not reply with XML (" +
                          ErrorText(error, Format::kTable) + "); -v shows its output");
    }
  });
}

static void DescribeCtl(opts::Args& args) {
  args.Positional("MODULE").Help("a module (program) of the panel on the node");
  args.Positional("FUNCTION").Help("a function of the module");
  args.Positional("PARAM").Repeated().Optional().Help("its parameters, each NAME=VALUE");
  args.Option("install-dir").Value("DIR").Required().Help("the panel's directory on the node");
}

Verb NodeCtlVerb() {
  return {.name = "ctl",
          .summary = "Calls the panel's control utility, pnlctl, on the node and prints its XML.",
          .describe = DescribeCtl,
          .change = Ctl,
          .examples = {"core frontd --install-dir /opt/panel --node 192.0.2.7"},
          .fields = {{"xml", "the reply"}}};
}

}  // namespace tools
