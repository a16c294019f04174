#include "fleet/retirement.h"

#include "fleet/authorized_keys.h"
#include "fleet/rotation.h"
#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {

static std::string KeyInFile(const std::string& path) {
  std::string text = pnl_file::ReadE(path);
  while (!text.empty()) {
    std::string key = fleet::KeyOf(str::GetWord(text, '\n'));
    if (!key.empty()) return key;
  }
  throw UsageError("--old", path, "'" + path + "' contains no public key");
}

static fleet::Retirement ReadRetirement(const Context& context, const fleet::KeySetup& setup) {
  const std::string path = context.Path(context.values.Str("old"));
  fleet::Retirement retirement{KeyInFile(path), AboutWord(fleet::kUnusableKey, "--private", [&] {
                                 return fleet::PublicHalf(setup.private_key);
                               })};
  if (retirement.old_key == retirement.current_key) {
    throw pnl_err::Error("key_in_use", "key", path)
        .add_param("message", "'" + path + "' is the key that the panel logs in with; " +
                                  "make a new one first with 'brefirctl key rotate'");
  }
  return retirement;
}

static Answer Make(Context& context, const fleet::KeySetup& setup,
                   const fleet::Retirement& retirement) {
  const pnl_file::Lock lock = fleet::LockKeys(setup);
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes);
  fleet::NodeWork work(setup.nodes, WatchOn(screen));
  work.Visit([&](const std::string& node) {
    return fleet::RetireKey(setup, retirement, node) ? fleet::NodeState::kRetired
                                                     : fleet::NodeState::kAbsent;
  });
  return screen->Told(fleet::NodeState::kRetired, work.Failed() ? kFailed : kDone);
}

static Change Retire(Context& context) {
  const fleet::KeySetup setup = ReadKeySetup(context);
  const fleet::Retirement retirement = ReadRetirement(context, setup);
  if (!context.OnlyPlans()) return {{}, [=, &context] { return Make(context, setup, retirement); }};
  return Previewed(context, setup, [&](const fleet::NodeWatch& watch) {
    return fleet::PreviewRetirement(setup, retirement, watch);
  });
}

static void Describe(opts::Args& args) {
  args.Option("old").Value("FILE").Required().Help(
      "the old public key; 'key rotate' keeps it beside the new one, in a file that ends in .old");
}

Verb KeyRetireVerb() {
  return {.name = "retire",
          .summary = "Removes an old key from all nodes.",
          .describe = Describe,
          .change = Retire,
          .checks = true,
          .examples = {"--old etc/panel.key.pub.old --nodes etc/nodes"},
          .fields = Declared(console::kNodeFields)};
}

}  // namespace tools
