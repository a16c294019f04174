// frontd: where the panel's web server listens, here or on a node.

#include <functional>

#include "brefir/frontdctl.h"
#include "brefir/str_utils.h"
#include "fleet/diff.h"
#include "pnl/client.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/test.h"
#include "tools/commands/families.h"
#include "tools/commands/frontd/core_module.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

constexpr const char* kDefaultPort = "1500";
constexpr int kMaxPort = 65535;
constexpr const char* kRestart = "service frontd restart";

// --- The server

/// A path below the panel's directory, which is the same there as here.
std::string There(const char* name) {
  return pnl_file::ConcatPath(pnl_file::GetCurrentDir(), name);
}

FrontdCtl Control(pnl_host::Host& host) {
  return host.IsLocal() ? FrontdCtl() : FrontdCtl(*host.Session());
}

/// The same, where the panel has to be there.
FrontdCtl Panel(pnl_host::Host& host) {
  if (host.IsLocal()) return Control(host);
  RequirePlain(pnl_file::GetCurrentDir(), "--prefix");
  const std::string utility = There(pnl_client::kUtility);
  if (host.Look(utility).kind != pnl_host::FileKind::kMissing) return Control(host);
  throw pnl_err::Missed("file", utility)
      .add_param("message", host.Name() + ": there is no '" + utility +
                                "'; the panel has to stand in the same directory as here");
}

FrontdCtl Panel(const Context& context) {
  pnl_host::Host host = OpenHost(context);
  return Panel(host);
}

// --- Looking

Value Flag(const pnl_xml::XmlNode& elem, const char* name) {
  const pnl_xml::XmlNode flag = elem.FindNode(name);
  return flag ? Value(flag.Str() == "on") : Value();
}

Record ToRecord(const pnl_xml::XmlNode& elem) {
  const pnl_xml::XmlNode error = elem.FindNode("error");
  return Record()
      .Add("id", elem.FindNode("port").Str())
      .Add("sslauth", Flag(elem, "sslauth"))
      .Add("sslonly", Flag(elem, "sslonly"))
      .Add("error", error ? Value(error.Str()) : Value());
}

int List(Context& context) {
  const pnl_xml::Xml list = Panel(context).List();
  std::vector<Record> records;
  for (const pnl_xml::XmlNode& elem : list.GetNodes("/doc/elem")) {
    records.push_back(ToRecord(elem));
  }
  context.out.List(records);
  return kDone;
}

std::string Ip(const Context& context) {
  const std::string& ip = context.values.Str("IP");
  if (test::Ip4(ip) || test::Ip6(ip)) return ip;
  throw UsageError("IP", ip, "IP '" + ip + "' is no IP address; an IPv6 one has no brackets");
}

int Port(const Context& context) {
  return static_cast<int>(context.values.Int("PORT"));
}

int ListeningAt(Context& context, const std::string& ip, int port) {
  const bool listening = Panel(context).Listening(ip, port);
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("ip", ip).Add("port", port).Add("listening", listening));
  } else {
    context.out.Raw(listening ? "true\n" : "false\n");
  }
  return listening ? kDone : kNo;
}

int Listening(Context& context) {
  const std::string ip = Ip(context);
  if (context.values.Has("PORT")) return ListeningAt(context, ip, Port(context));
  if (test::Ip6(ip)) throw UsageError("PORT", "", "PORT is missing: an IPv6 address needs one");
  std::vector<int> ports;
  const bool listening = Panel(context).Listening(ip, ports);
  std::vector<Record> records;
  records.reserve(ports.size());
  for (const int port : ports) records.push_back(Record().Add("ip", ip).Add("port", port));
  context.out.List(records);
  return listening ? kDone : kNo;
}

// --- Changing

using Work = std::function<void(FrontdCtl& frontd)>;

/// Does the work on a copy of the file, by a module of this process, and shows what it changes.
int ShowChange(Context& context, pnl_host::Host& host, const Work& work) {
  const std::string path = host.IsLocal() ? kFrontdConf : There(kFrontdConf);
  const std::string before = HostTextOrNone(host, path);
  pnl_file::Tmp copy("/tmp/frontd.conf");
  copy.Write(before);
  copy.Close();
  const pnl_client::Module core("core", [&](const std::string& query) {
    const StringMap params = str::SplitParamsRaw(query, "&", "=");
    return CallCore(params.at("func"), params, copy);
  });
  FrontdCtl frontd;
  work(frontd);
  context.out.Text("diff", fleet::UnifiedDiff(before, pnl_file::ReadE(copy), path));
  return kDone;
}

/// The library restarts without a look at how that went.
void RestartServer(pnl_host::Host& host, const std::string& else_done = "") {
  const pnl_host::Outcome run = host.Act(WithSbin(kRestart));  // the server keeps running
  if (run.code == 0) return;
  std::string reason = str::Append(str::Trim(run.output), run.complaint, "\n");
  if (reason.empty()) reason = "exit code " + std::to_string(run.code);
  throw pnl_err::Error("frontd", "restart", host.Name())
      .add_param("message", host.Name() + ": frontd was not restarted: " +
                                str::Replace(reason, "\n", "; ") + else_done);
}

void Change(const Context& context, pnl_host::Host& host, FrontdCtl& frontd, const Work& work) {
  work(frontd);
  if (!context.values.Has("restart")) return;
  RestartServer(host, "; its listen addresses are changed all the same");
}

std::string ListenAddress(const std::string& ip, int port) {
  return (test::Ip6(ip) ? "[" + ip + "]" : ip) + ":" + str::Str(port);
}

/// The entry as the server's owner tells it by now. One without a port has the usual one.
pnl_xml::XmlNode Entry(const pnl_xml::Xml& list, const std::string& id) {
  const std::string usual = std::string(":") + kDefaultPort;
  for (const pnl_xml::XmlNode& elem : list.GetNodes("/doc/elem")) {
    const std::string port = elem.FindNode("port").Str();
    if (port == id || port + usual == id) return elem;
  }
  return {};
}

/// What the command line says of a flag, else what the entry has.
bool IsOn(const Context& context, const pnl_xml::XmlNode& entry, const std::string& flag) {
  if (context.values.Has(flag) || context.values.Has("no-" + flag)) return context.values.Has(flag);
  return entry && Flag(entry, flag.c_str()).Get() == Value(true).Get();
}

int Add(Context& context) {
  const std::string ip = Ip(context);
  const int port = Port(context);
  const std::string id = ListenAddress(ip, port);
  const Work work = [&](FrontdCtl& frontd) {
    const pnl_xml::Xml list = frontd.List();
    const pnl_xml::XmlNode entry = Entry(list, id);
    frontd.Add(ip, port, IsOn(context, entry, "sslauth"), IsOn(context, entry, "sslonly"));
  };
  pnl_host::Host host = OpenHost(context);
  if (context.values.Has("dry-run")) return ShowChange(context, host, work);
  FrontdCtl frontd = Panel(host);
  Change(context, host, frontd, work);
  const pnl_xml::Xml list = frontd.List();
  context.out.One(ToRecord(Entry(list, id)));
  return kDone;
}

int Delete(Context& context) {
  const std::string& id = context.values.Str("ID");
  if (id.find('&') != std::string::npos)
    throw UsageError("ID", id, "ID '" + id + "' is no listen address");
  const bool dry_run = context.values.Has("dry-run");
  pnl_host::Host host = OpenHost(context);
  // The node's shell reads it, and a bracket is a pattern there.
  const std::string elid = !host.IsLocal() && !dry_run ? pnl_proc::Escape(id) : id;
  const Work work = [&](FrontdCtl& frontd) { frontd.Delete(elid); };
  if (dry_run) return ShowChange(context, host, work);
  FrontdCtl frontd = Panel(host);
  Change(context, host, frontd, work);
  context.out.One(Record().Add("id", id).Add("deleted", true));
  return kDone;
}

int Restart(Context& context) {
  if (context.values.Has("dry-run")) return Would(context, kRestart);
  pnl_host::Host host = OpenHost(context);
  RestartServer(host);
  context.out.One(Record().Add("restart", "done"));
  return kDone;
}

// --- The command line

const std::vector<Field> kEntry = {
    {"id", "address and port, an IPv6 address in brackets: what delete takes"},
    {"sslauth", "whether clients are asked for a certificate"},
    {"sslonly", "whether connections that are not encrypted are refused"},
    {"error", "what is wrong with it, else null"},
};

void DescribeChange(opts::Args& args) {
  args.Option("restart").Help("restart the server when the change is made");
  args.Option("dry-run").Help("show the change as a diff; nothing is restarted");
}

void DescribeAdd(opts::Args& args) {
  args.Positional("IP").Help("an address of that host, without brackets");
  args.Positional("PORT")
      .Number("PORT", 1, kMaxPort)
      .Optional()
      .Default(kDefaultPort)
      .Help("its port");
  args.Details("An entry that is there already keeps the flags that are not named.");
  args.Option("sslauth").Help("ask clients for a certificate");
  args.Option("sslonly").Help("refuse connections that are not encrypted");
  args.Option("no-sslauth").Help("ask for none").Excludes("sslauth");
  args.Option("no-sslonly").Help("let all connections in").Excludes("sslonly");
  DescribeChange(args);
}

void DescribeDelete(opts::Args& args) {
  args.Positional("ID").Help("the listen address, as list shows it").Completes("listen");
  DescribeChange(args);
}

void DescribeListening(opts::Args& args) {
  args.Positional("IP").Help("an address, without brackets");
  args.Positional("PORT")
      .Number("PORT", 1, kMaxPort)
      .Optional()
      .Help("else all ports at that address are shown");
}

void DescribeRestart(opts::Args& args) {
  args.Option("dry-run").Help("print the command that would run");
}

void DescribeFamily(opts::Args& args) {
  AddNodeOptions(args);
  args.Details(
      "With --node, the panel has to stand there in the same directory as here (--prefix).");
}

}  // namespace

Family FrontdFamily() {
  return {
      .name = "frontd",
      .summary = "Where the panel's web server listens, here or on a node.",
      .describe = DescribeFamily,
      .verbs =
          {
              {
                  .name = "list",
                  .summary = "Lists the listen addresses, and what is wrong with one.",
                  .run = List,
                  .examples = {"", "--node 192.0.2.7"},
                  .fields = kEntry,
              },
              {
                  .name = "add",
                  .summary = "Adds a listen address or changes its flags.",
                  .describe = DescribeAdd,
                  .run = Add,
                  .examples = {"192.0.2.1 443 --sslonly --restart", "2001:db8::1 --dry-run"},
                  .fields = Fields(kEntry, {kDiffField}),
              },
              {
                  .name = "delete",
                  .summary = "Deletes a listen address.",
                  .describe = DescribeDelete,
                  .run = Delete,
                  .examples = {"192.0.2.1:443 --restart"},
                  .fields = {{"id", "the listen address"}, {"deleted", "true"}, kDiffField},
              },
              {
                  .name = "listening",
                  .summary = "Tells, also by the exit code, whether the server is to listen there.",
                  .describe = DescribeListening,
                  .run = Listening,
                  .examples = {"192.0.2.1 443"},
                  .fields = {{"ip", "the address"},
                             {"port", "the port; without PORT there is a record for each"},
                             {"listening", "whether it is to listen there", "with PORT"}},
              },
              {
                  .name = "restart",
                  .summary = "Restarts the server.",
                  .describe = DescribeRestart,
                  .run = Restart,
                  .examples = {"--dry-run"},
                  .fields = {{"restart", "done"}, kWouldField},
                  .place = Place::kAnywhere,
              },
          },
      .files = {{"etc/frontd.conf", "the listen addresses"}},
      .see_also = {"pnlctl(8)"},
  };
}

}  // namespace tools
