// node: a managed node, through an SSH session.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "brefir/ssh_utils.h"
#include "fleet/diff.h"
#include "pnl/client.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/proc.h"
#include "tools/commands/families.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/copies.h"
#include "tools/frame/interrupt.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;
namespace os_info = ssh_utils::os_info;

// --- Looking

int Facts(Context& context) {
  pnl_rpc::SSH ssh = OpenNode(context);
  const char* advice = "; 'brefirctl node read' tells why";
  Record facts;
  facts.Add("arch", os_info::Arch(ssh));
  fleet::OnNodeFile(
      ssh, "/proc/uptime", "read", [&] { facts.Add("boot_date", os_info::BootDate(ssh).Str()); },
      advice);
  fleet::OnNodeFile(
      ssh, "/etc/*release", "read",
      [&] {
        facts.Add("type", str::Format("%06x", os_info::Type(ssh)))
            .Add("version", str::Trim(os_info::Version(ssh)))
            .Add("os", str::Trim(os_info::GetOs(ssh)));
      },
      advice);
  context.out.One(facts);
  return kDone;
}

int Read(Context& context) {
  const std::string path = NodePath(context, "PATH");
  pnl_host::Host host(OpenNode(context, {"PATH"}));
  if (context.out.GetFormat() == Format::kJson) {
    context.out.Text("content", HostText(host, path));
    return kDone;
  }
  OnHostFile(host, path, "remote_read", "read",
             [&] { host.Read(path, [&](std::string_view block) { context.out.Piece(block); }); });
  return kDone;
}

const char* TypeName(int type) {
  if (type == 0) return "file";
  return type == 1 ? "directory" : "other";
}

int Stat(Context& context) {
  const std::string path = NodePath(context, "PATH");
  RequirePlain(path, "PATH");  // one of the questions to the node leaves it unquoted
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  const file::FileInfo info = file::GetInfo(ssh, path);
  const auto known = [&](const auto& value) { return info.exists ? Value(value) : Value(); };
  context.out.One(Record()
                      .Add("path", info.path)
                      .Add("size", known(info.size))
                      .Add("type", known(TypeName(info.type)))
                      .Add("exists", info.exists)
                      .Add("atime", known(info.atime.Str()))
                      .Add("mtime", known(info.mtime.Str()))
                      .Add("ctime", known(info.ctime.Str())));
  return kDone;
}

int Exists(Context& context) {
  const std::string path = NodePath(context, "PATH");
  pnl_rpc::SSH ssh = OpenNode(context);
  // With a "/" at its end it is a directory that is asked for.
  const bool exists = file::Exists(ssh, context.values.Str("PATH"), context.values.Str("type"));
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("path", path).Add("exists", exists));
  } else {
    context.out.Raw(exists ? "true\n" : "false\n");
  }
  return exists ? kDone : kNo;
}

// --- Changing

/// Standard input, whole, in a file without a name: nothing on the node is touched before all of it
/// has come.
pnl_file::Fd StandardInput(const Context& context) {
  if (isatty(STDIN_FILENO) != 0 && !context.values.Has("quiet"))
    std::fputs("brefirctl: reading the content from the terminal; Ctrl-D ends it\n", stderr);
  const pnl_file::Tmp name("/tmp/brefirctl");
  pnl_file::Fd file = pnl_file::Open(name, O_RDWR);
  char block[65536];
  while (const std::size_t n =
             pnl_file::ReadSome(STDIN_FILENO, block, sizeof block, "standard input"))
    pnl_file::WriteAll(file.Get(), {block, n}, name.Str());
  if (lseek(file.Get(), 0, SEEK_SET) != 0) throw pnl_err::System("seek", name.Str(), errno);
  return file;
}

/// The new content of a file.
class Content {
 public:
  explicit Content(const Context& context) : from_(context.values.Str("from")) {
    const bool input = from_.empty() || from_ == "-";
    fd_ = input ? StandardInput(context) : pnl_file::OpenRegular(context.Path(from_)).fd;
    size_ = pnl_file::Info(fd_, from_).Size();
  }

  std::size_t Give(char* block, std::size_t size) {
    return pnl_file::ReadSome(fd_.Get(), block, size, from_);
  }
  std::uint64_t Size() const { return size_; }  ///< bytes

  std::string All() {
    std::string all;
    char block[65536];
    while (const std::size_t n = Give(block, sizeof block)) all.append(block, n);
    return all;
  }

 private:
  std::string from_;
  pnl_file::Fd fd_;
  std::uint64_t size_ = 0;
};

int Write(Context& context) {
  const std::string path = NodePath(context, "PATH");
  Content content(context);
  pnl_host::Host host(OpenNode(context, {"PATH"}));
  if (context.values.Has("dry-run")) {
    const std::string before = HostTextOrNone(host, path);
    context.out.Text("diff", fleet::UnifiedDiff(before, content.All(), path));
    return kDone;
  }
  OnHostFile(host, path, "remote_write", "written", [&] {
    host.Replace(path, content.Size(),
                 [&](char* block, std::size_t size) { return content.Give(block, size); });
  });
  context.out.One(Record().Add("path", path).Add("size", content.Size()));
  return kDone;
}

int Touch(Context& context) {
  const std::string path = NodePath(context, "PATH");
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  RunOnFile(ssh, path, "remote_touch", "touched", "touch " + pnl_proc::Escape(path));
  context.out.One(Record().Add("path", path).Add("touched", true));
  return kDone;
}

int MkDir(Context& context) {
  const std::string path = NodePath(context, "PATH");
  pnl_rpc::SSH ssh = OpenNode(context);
  MakeNodeDir(ssh, path);
  context.out.One(Record().Add("path", path).Add("made", true));
  return kDone;
}

int MkLink(Context& context) {
  const std::string path = NodePath(context, "PATH");
  const std::string& target = context.values.Str("TARGET");
  if (target.empty() || target.starts_with('-'))
    throw UsageError("TARGET", target, "TARGET '" + target + "' cannot be the target of a link");
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  RunOnFile(ssh, path, "remote_ln", "made",
            "ln -s " + pnl_proc::Escape(target) + " " + pnl_proc::Escape(path));
  context.out.One(Record().Add("path", path).Add("target", target));
  return kDone;
}

int Chmod(Context& context) {
  const std::string& mode = context.values.Str("MODE");
  const std::string path = NodePath(context, "PATH");
  if (mode.empty() || mode.find_first_not_of("01234567ugoarwxXst+=,-") != std::string::npos ||
      mode.starts_with('-'))
    throw UsageError("MODE", mode, "MODE '" + mode + "' is none that chmod takes: 0644, u+x");
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  RequireThere(ssh, path);
  const std::string command = "chmod " + mode + " " + pnl_proc::Escape(path);
  if (context.values.Has("dry-run")) return Would(context, command);
  RunOnFile(ssh, path, "remote_chmod", "changed", command);
  context.out.One(Record().Add("path", path).Add("mode", mode));
  return kDone;
}

/// Where mv and cp put `from`.
struct NodeTarget {
  /// A directory takes the name of `from`.
  NodeTarget(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to)
      : path(to), word(to) {
    if (!file::Exists(ssh, to, "d")) return;
    path = pnl_file::ConcatPath(to, pnl_file::Name(from));
    if (!word.ends_with('/')) word += '/';
  }

  std::string path;
  std::string word;  ///< what the commands are told
};

int Move(Context& context) {
  const std::string from = MovablePath(context, "FROM");
  const std::string to = NodePath(context, "TO");
  pnl_rpc::SSH ssh = OpenNode(context, {"FROM", "TO"});
  RequireThere(ssh, from);
  const NodeTarget target(ssh, from, to);
  const std::string command =
      "mv -f " + pnl_proc::Escape(from) + " " + pnl_proc::Escape(target.word);
  if (context.values.Has("dry-run")) return Would(context, command);
  RunOnFile(ssh, from, "node", "moved", command);
  context.out.One(Record().Add("path", target.path).Add("from", from));
  return kDone;
}

int Copy(Context& context) {
  const std::string from = MovablePath(context, "FROM");
  const std::string to = NodePath(context, "TO");
  pnl_rpc::SSH ssh = OpenNode(context, {"FROM", "TO"});
  RequireThere(ssh, from);
  if (!file::Exists(ssh, from, "f"))
    throw NodeError(ssh, from, "'" + from + "' is no regular file; cp copies only such");
  const NodeTarget target(ssh, from, to);
  RunOnFile(ssh, from, "node", "copied",
            "cp -f " + pnl_proc::Escape(from) + " " + pnl_proc::Escape(target.word));
  context.out.One(Record().Add("path", target.path).Add("from", from));
  return kDone;
}

// --- Removing

/// Moves `path` aside, as a job of this thread's transaction.
void MoveAside(pnl_rpc::SSH& ssh, const std::string& path) {
  RequireThere(ssh, path);
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new file::RemoveFileJob(ssh, path);
  if (file::Exists(ssh, path, "e"))
    throw NodeError(
        ssh, path, "'" + path + "' could not be moved aside; it stays as it was, and -v shows why");
}

pnl_err::Error Undone(pnl_rpc::SSH& ssh, const std::string& path, const std::string& why) {
  bool back = false;
  try {
    back = file::Exists(ssh, path, "e");
  } catch (const pnl_err::Error&) {
    back = false;  // the connection is lost: nothing came back
  }
  return NodeError(ssh, path,
                   why + (back ? "; '" + path + "' is back as it was"
                               : "; '" + path +
                                     "' could NOT be brought back: it stands beside it "
                                     "on the node as '" +
                                     path + ".NUMBER'"));
}

void RemoveUnlessFailing(pnl_rpc::SSH& ssh, const std::string& path, const std::string& command) {
  const NotedInterruption interruption;
  pnl_job::Transaction transaction;
  MoveAside(ssh, path);
  const int code = interruption.Happened() ? 0 : interruption.Run(command);
  if (code != 0 || interruption.Happened()) {
    pnl_job::Rollback();
    throw Undone(ssh, path,
                 interruption.Happened()
                     ? "interrupted"
                     : "command '" + command + "' ended with exit code " + std::to_string(code));
  }
  transaction.Commit();
}

int Remove(Context& context) {
  const std::string path = MovablePath(context, "PATH");
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  if (!context.values.Has("recursive") && file::Exists(ssh, path, "d")) {
    throw NodeError(ssh, path,
                    "'" + path + "' is a directory; --recursive removes it with all it holds");
  }
  const std::string command = "rm -rf " + pnl_proc::Escape(path);
  if (context.values.Has("dry-run")) return Would(context, command);
  if (context.values.Has("undo-on-failure")) {
    RemoveUnlessFailing(ssh, path, context.values.Str("undo-on-failure"));
  } else {
    RunOnFile(ssh, path, "remote_rm", "removed", command);
  }
  context.out.One(Record().Add("path", path).Add("removed", true));
  return kDone;
}

// --- Processes

int Pid(const Context& context) {
  return static_cast<int>(context.values.Int("PID"));
}

int Kill(Context& context) {
  const int pid = Pid(context);
  const int number = static_cast<int>(context.values.Int("signal"));
  pnl_rpc::SSH ssh = OpenNode(context);
  const pnl_host::Outcome run =
      pnl_host::Host(ssh).Run("kill -" + std::to_string(number) + " " + std::to_string(pid));
  if (run.code != 0) {
    throw pnl_err::Missed("process", std::to_string(pid))
        .add_param("message", ssh.Host() + ": there is no process " + std::to_string(pid) +
                                  " that can be signalled: " + Said(run));
  }
  context.out.One(Record().Add("pid", pid).Add("signal", number));
  return kDone;
}

int Terminate(Context& context) {
  const int pid = Pid(context);
  const auto wait = [&](const char* option) {
    return static_cast<int>(context.values.Int(option));
  };
  pnl_rpc::SSH ssh = OpenNode(context);
  if (!ssh_utils::Terminate(ssh, pid, wait("term-wait"), wait("kill-wait"))) {
    throw pnl_err::Error("node", "terminate", std::to_string(pid))
        .add_param("message", ssh.Host() + ": process " + std::to_string(pid) +
                                  " is still there, also after SIGKILL");
  }
  context.out.One(Record().Add("pid", pid).Add("terminated", true));
  return kDone;
}

/// The words NAME=VALUE, quoted: the command line takes them as they are.
StringMap CtlParams(const Context& context) {
  StringMap params;
  for (const std::string& word : context.values.List("PARAM")) {
    std::string value = word;
    const std::string name = str::GetWord(value, '=');
    if (name.empty() || name == word)
      throw UsageError("PARAM", word, "PARAM '" + word + "' is not NAME=VALUE");
    params[pnl_proc::Escape(name)] = pnl_proc::Escape(value);
  }
  return params;
}

int Ctl(Context& context) {
  const std::string dir = NodePath(context, "install-dir");
  const StringMap params = CtlParams(context);
  pnl_rpc::SSH ssh = OpenNode(context);
  const std::string utility = pnl_file::ConcatPath(dir, pnl_client::kUtility);
  RequireThere(ssh, utility);
  const auto word = [&](const char* name) { return pnl_proc::Escape(context.values.Str(name)); };
  try {
    const pnl_xml::Xml reply =
        ssh_utils::PnlCtl(ssh, pnl_proc::Escape(dir), word("MODULE"), word("FUNCTION"), params);
    context.out.Text("xml", reply.Str(true));
    return kDone;
  } catch (const pnl_err::Error& error) {
    if (error.type() != pnl_xml::kError) throw;
    throw NodeError(ssh, utility,
                    "'" + utility + "' did not reply with XML (" +
                        ErrorText(error, Format::kTable) + "); -v shows what it said");
  }
}

// --- The command line

const Field kPathField = {"path", "the path on the node"};
const Field kTargetField = {"path", "where it is now"};
const Field kPidField = {"pid", "the process"};

void DescribePath(opts::Args& args) {
  args.Positional("PATH").Help("an absolute path on the node");
}

void DescribeDryRun(opts::Args& args, const char* help) {
  args.Option("dry-run").Help(help);
}

void DescribeWrite(opts::Args& args) {
  DescribePath(args);
  args.Option("from").Value("FILE").Help("the new content; else standard input");
  DescribeDryRun(args, "show the change as a diff");
}

void DescribeExists(opts::Args& args) {
  DescribePath(args);
  args.Option("type")
      .OneOf({"f", "d", "e", "s", "p"})
      .Default("e")
      .Help("a regular file, a directory, anything, a file that is not empty, a named pipe");
}

void DescribeRemove(opts::Args& args) {
  DescribePath(args);
  args.Option("recursive").Help("also a directory with all it holds");
  args.Option("undo-on-failure")
      .Value("CMD")
      .Help("run this command here before the removal is final; undo it when the command fails")
      .Excludes("dry-run");
  DescribeDryRun(args, "print the command that would run");
}

void DescribeCopy(opts::Args& args) {
  args.Positional("FROM").Help("what is there on the node");
  args.Positional("TO").Help("file or directory on the node");
}

void DescribeMove(opts::Args& args) {
  DescribeCopy(args);
  DescribeDryRun(args, "print the command that would run");
}

void DescribeLink(opts::Args& args) {
  args.Positional("TARGET").Help("what the link leads to");
  DescribePath(args);
}

void DescribeChmod(opts::Args& args) {
  args.Positional("MODE").Help("as chmod takes it: 0644, u+x");
  DescribePath(args);
  DescribeDryRun(args, "print the command that would run");
}

void DescribePid(opts::Args& args) {
  args.Positional("PID").Number("PID", 1, 1 << 22).Help("a process of the node");
}

void DescribeKill(opts::Args& args) {
  DescribePid(args);
  args.Option("signal").Number("N", 0, 64).Default("15").Help("the signal; 0 only asks");
}

void DescribeTerminate(opts::Args& args) {
  DescribePid(args);
  args.Option("term-wait").Number("S", 0, 3600).Default("10").Help("seconds after SIGTERM");
  args.Option("kill-wait").Number("S", 0, 3600).Default("5").Help("seconds after SIGKILL");
}

void DescribeCtl(opts::Args& args) {
  args.Positional("MODULE").Help("a module of the panel there");
  args.Positional("FUNCTION").Help("one of its functions");
  args.Positional("PARAM").Repeated().Optional().Help("its parameters, each NAME=VALUE");
  args.Option("install-dir").Value("DIR").Required().Help("the panel's directory on the node");
}

void DescribeFamily(opts::Args& args) {
  args.Details(
      "The node is reached over SSH, as root unless USER says otherwise; nothing has to be "
      "installed there. Its host key has to be known: --accept-new notes that of a new node. Paths "
      "of the node are absolute, those of this host are taken from where the program is started.");
  AddNodeOptions(args).Required();
}

}  // namespace

Family NodeFamily() {
  Family family = {
      .name = "node",
      .summary = "A managed node: its files, its processes, its panel.",
      .describe = DescribeFamily,
      .verbs =
          {
              {
                  .name = "facts",
                  .summary = "Tells architecture, boot date and operating system.",
                  .run = Facts,
                  .examples = {"--node 192.0.2.7"},
                  .fields = {{"arch", "architecture, as uname(1) tells it"},
                             {"boot_date", "since when it is up: YYYY-MM-DD HH:MM:SS, UTC"},
                             {"type", "the system as a code of six hexadecimal digits"},
                             {"version", "version of the system"},
                             {"os", "its name"}},
              },
              {
                  .name = "read",
                  .summary = "Prints a file.",
                  .describe = DescribePath,
                  .run = Read,
                  .examples = {"/etc/hostname --node 192.0.2.7",
                               "/etc/hosts --node root@[2001:db8::7]:2222"},
                  .fields = {{"content", "the file; bytes that are no UTF-8 become U+FFFD"}},
              },
              {
                  .name = "write",
                  .summary = "Gives a file new content.",
                  .describe = DescribeWrite,
                  .run = Write,
                  .examples = {"/etc/motd --from motd --node 192.0.2.7 --dry-run"},
                  .fields = {kPathField, {"size", "bytes of the new content"}, kDiffField},
              },
              {
                  .name = "stat",
                  .summary = "Tells size, type and times of a file.",
                  .describe = DescribePath,
                  .run = Stat,
                  .examples = {"/etc/motd --node 192.0.2.7"},
                  .fields = {kPathField,
                             {"size",
                              "bytes; null like all that follows but exists when there is none"},
                             {"type", "file, directory or other"},
                             {"exists", "whether it is there"},
                             {"atime", "last access: YYYY-MM-DD HH:MM:SS, UTC"},
                             {"mtime", "last change of the content"},
                             {"ctime", "last change of owner, mode or content"}},
              },
              {
                  .name = "exists",
                  .summary = "Tells, also by the exit code, whether a file exists.",
                  .describe = DescribeExists,
                  .run = Exists,
                  .examples = {"/etc/motd --type f --node 192.0.2.7"},
                  .fields = {kPathField, {"exists", "whether it is there and of that type"}},
              },
              {
                  .name = "touch",
                  .summary = "Makes an empty file, or sets a file's times to now.",
                  .describe = DescribePath,
                  .run = Touch,
                  .examples = {"/var/tmp/mark --node 192.0.2.7"},
                  .fields = {kPathField, {"touched", "true"}},
              },
              {
                  .name = "mkdir",
                  .summary = "Makes a directory and those above it.",
                  .describe = DescribePath,
                  .run = MkDir,
                  .examples = {"/srv/www/html --node 192.0.2.7"},
                  .fields = {kPathField, {"made", "true"}},
              },
              {
                  .name = "rm",
                  .summary = "Removes a file or directory, on demand reversibly.",
                  .describe = DescribeRemove,
                  .run = Remove,
                  .examples = {"/srv/www/old --recursive --node 192.0.2.7 --dry-run",
                               "/etc/motd --undo-on-failure ./check --node 192.0.2.7"},
                  .fields = {kPathField, {"removed", "true"}, kWouldField},
              },
              {
                  .name = "mv",
                  .summary = "Moves a file or directory on the node.",
                  .describe = DescribeMove,
                  .run = Move,
                  .examples = {"/srv/new /srv/www --node 192.0.2.7"},
                  .fields = {kTargetField, {"from", "where it was"}, kWouldField},
              },
              {
                  .name = "cp",
                  .summary = "Copies a file on the node.",
                  .describe = DescribeCopy,
                  .run = Copy,
                  .examples = {"/etc/motd /root/ --node 192.0.2.7"},
                  .fields = {kTargetField, {"from", "the original"}},
              },
              {
                  .name = "ln",
                  .summary = "Makes a symbolic link.",
                  .describe = DescribeLink,
                  .run = MkLink,
                  .examples = {"/usr/bin/vim.tiny /usr/local/bin/vi --node 192.0.2.7"},
                  .fields = {{"path", "the link"}, {"target", "what it leads to"}},
              },
              {
                  .name = "chmod",
                  .summary = "Changes the mode of a file.",
                  .describe = DescribeChmod,
                  .run = Chmod,
                  .examples = {"0640 /etc/app.conf --node 192.0.2.7"},
                  .fields = {kPathField, {"mode", "what it was set to"}, kWouldField},
              },
          },
  };
  const std::vector<Verb> copies = NodeCopies();
  family.verbs.insert(family.verbs.end(), copies.begin(), copies.end());
  const std::vector<Verb> rest = {
      {
          .name = "kill",
          .summary = "Sends a signal to a process.",
          .describe = DescribeKill,
          .run = Kill,
          .examples = {"4711 --signal 1 --node 192.0.2.7"},
          .fields = {kPidField, {"signal", "its number"}},
      },
      {
          .name = "terminate",
          .summary = "Ends a process, at last by force.",
          .describe = DescribeTerminate,
          .run = Terminate,
          .examples = {"4711 --term-wait 30 --node 192.0.2.7"},
          .fields = {kPidField, {"terminated", "true"}},
      },
      {
          .name = "ctl",
          .summary = "Calls the panel's control utility there and prints its XML.",
          .describe = DescribeCtl,
          .run = Ctl,
          .examples = {"core frontd --install-dir /opt/panel --node 192.0.2.7"},
          .fields = {{"xml", "the reply"}},
      },
  };
  family.verbs.insert(family.verbs.end(), rest.begin(), rest.end());
  family.files = {{"var/rsync-node-NODE.log", "what sync's rsync did"}};
  family.see_also = {"ssh(1)", "rsync(1)", "pnlctl(8)"};
  return family;
}

}  // namespace tools
