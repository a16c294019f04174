// The operations of node_faults for those verbs of brefirctl that do more than the library's
// functions.

#include "brefir/sshkey_generate.h"
#include "faults/node_operation.h"
#include "faults/node_states.h"
#include "pnl/err.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace node_faults {
namespace {

constexpr int kProgramTimeout = 4;  // seconds; each verb logs in by itself

/// "@" stands for the directory on the node, NODE and PEERS for addresses. An exit code of 1 comes
/// with a reason, or with those of the nodes in a table.
std::function<void(Site&)> Program(const std::string& arguments) {
  return [arguments](Site& s) {
    std::string peers;
    for (const auto& peer : s.peers) peers += "," + peer->Address();
    const std::string words =
        str::Replace(arguments, {{"@", s.dir}, {"NODE", s.node.Address()}, {",PEERS", peers}});
    pnl_proc::Execute run(pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") + " --prefix . " + words +
                              " --timeout " + std::to_string(kProgramTimeout) +
                              " >var/out 2>var/err",
                          pnl_proc::kOwnSession | pnl_proc::kNoInput);
    const int code = run.Result();
    if (code == 0) return;
    const std::string said = Get("var/err");
    const bool in_table = said.empty() && Get("var/out").find(" ERROR ") != std::string::npos;
    Expect(code == 1 && (in_table || said.starts_with("brefirctl: ")),
           std::to_string(code) + ": " + said);
    throw pnl_err::Error("exit code", "1", said);
  };
}

Operation Verb(const std::string& name, const std::string& arguments) {
  return {.name = "brefirctl " + name,
          .call = Program(name + " " + arguments + " --node NODE --key " + support::LabKey()),
          .failed = "old short new",
          .faults = "cut silence crash fill readonly",
          .seconds = 20,
          .errors = "exit code",
          .logs_in = false};
}

const std::string kOldKey = "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAAAAwEAAQ== former\n";

void PutKeyPair(Site& s) {
  Shell("cp $LAB_KEY etc/key; cp $LAB_KEY.pub etc/key.pub");
  PutKeys(s);
}

}  // namespace

std::vector<Operation> ProgramOperations() {
  const auto big = [](const char* path) {
    return [path](const Site& s) { return StateOf(s.Here(s.Path(path)), "", NewText()); };
  };
  Operation run = Verb("recipe run", "'#local__r'");
  run.state = [](const Site&) {
    return Get("var/out").find("the end") == std::string::npos ? "old" : "new";
  };
  Operation sync = Verb("node sync", "src --dest @/s");
  sync.state = big("s/big");
  Operation tree = Verb("node tree", "src/big --dest @/s");
  tree.state = big("s/big");
  tree.faults = "cut crash fill readonly";  // a silent node has 300 s, see CopyViaTar
  Operation put = Verb("node put", "src/big @/p");
  put.state = big("p");
  put.prepare = [](Site& s) { Put(s.Here(s.Path("p")), ""); };
  put.failed = "old new";
  Operation get = Verb("node get", "@/f copy");
  get.prepare = [](Site& s) {
    Put(s.Here(s.Path("f")), NewText());
    Put("copy", OldText());
  };
  get.state = [](const Site&) { return StateOf("copy", OldText(), NewText()); };
  get.failed = "old";
  Operation config = Verb("config set", "@/f key value");
  config.state = [](const Site& s) {
    return StateOf(s.Here(s.Path("f")), OldText(), OldText() + "key=value\n");
  };
  config.prepare = [](Site& s) { Put(s.Here(s.Path("f")), OldText()); };
  config.failed = "old new";
  Operation write = config;
  write.name = "brefirctl node write";
  write.call = Verb("node write", "@/f --from src/big").call;
  write.state = [](const Site& s) { return StateOf(s.Here(s.Path("f")), OldText(), NewText()); };
  Operation sysctl = Verb("sysctl set", "net.ipv4.ip_forward=1");
  sysctl.prepare = [](Site& s) { Put(s.Here("/etc/sysctl.conf"), OldText()); };
  sysctl.state = [](const Site& s) {
    return StateOf(s.Here("/etc/sysctl.conf"), OldText(), OldText() + "net.ipv4.ip_forward = 1\n");
  };
  sysctl.failed = "old new";
  Operation rotate = Verb("key rotate", "");
  rotate.call =
      Program("key rotate --method ssh --nodes NODE,PEERS --private etc/key --public etc/key.pub");
  rotate.state = [](const Site& s) { return KeysState(s, "*"); };
  rotate.prepare = PutKeyPair;
  rotate.failed = "old left";
  rotate.points = 5;
  rotate.seconds =
      90;  // a minute for a node that is silent, half of one to undo, and what comes around it
  rotate.with_peers = true;
  Operation retire = Verb("key retire", "");
  retire.call = Program(
      "key retire --no-guard --nodes NODE --private etc/key --public etc/key.pub --old etc/old");
  retire.state = [](const Site& s) {
    const std::string present = Get("etc/key.pub");
    return StateOf(s.Here(ssh_gen::kAuthorizedKeys), kOldKey + present, present);
  };
  retire.prepare = [](Site& s) {
    PutKeyPair(s);
    Put("etc/old", kOldKey);
    Put(s.Here(ssh_gen::kAuthorizedKeys), kOldKey + Get("etc/key.pub"));
  };
  retire.failed = "old new";
  retire.points = 5;
  return {run, sync, tree, put, get, config, write, sysctl, rotate, retire};
}

}  // namespace node_faults
