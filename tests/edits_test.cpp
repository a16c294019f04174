#include "fleet/edits.h"

#include <gtest/gtest.h>

#include <random>

#include "fleet/saved_plan.h"
#include "fleet/undo_lines.h"
#include "support/error_of.h"

namespace {

TEST(UndoLinesTest, OthersKeepTheirLines) {
  struct Case {
    std::string before, after, now;
    std::string undone;  ///< "- " and a reason: it cannot be undone
  };
  const std::vector<Case> cases = {
      {"a=1\nb=1\n", "a=2\nb=1\n", "a=2\nb=9\nc=1\n", "a=1\nb=9\nc=1\n"},
      {"", "k\n", "other\nk\n", "other\n"},
      {"", "k\n", "k\nk\n", "k\n"},        // either is right
      {"x\n", "x\nk\n", "k\nx\n", "x\n"},  // it was moved
      {"x\n", "x\nk\n", "x\n", "x\n"},     // it was removed
      {"a\nb\nc\n", "a\nc\n", "0\na\nnew\nc\n", "0\na\nb\nnew\nc\n"},
      {"a\nb\nc\n", "a\nc\n", "0\na\nb\nc\n", "0\na\nb\nc\n"},  // it came back
      {"a=1\n", "a=2\n", "a=1\nz\n", "a=1\nz\n"},               // the same for a value
      {"p\n", "p\n1\n2\n", "p\n1\nx\n2\n", "p\nx\n"},
      {"k\nx\nk\n", "k\nx\n", "k\nx\ny\n", "k\nx\nk\ny\n"},
      {"a", "a\nk\n", "a\nk\nz\n", "a\nz\n"},  // line ends
      {"a", "a\nk\n", "0\na\nk\n", "0\na"},
      {"a\n", "a\nk\n", "a\nk\nz", "a\nz"},
      {"a=1\n", "a=2\n", "a=3\n", "- the line 'a=2' was changed or stands there several times"},
      {"x\n", "x\nk\n", "y\nx\nkk\n", "- the line 'k' was changed or stands there several times"},
      {"1\n2\n3\n4\n5\n", "1\n2\n4\n5\n", "1\n5\n",
       "- the line '3' cannot be put back, its place is gone"}};
  for (const Case& c : cases) {
    const fleet::LinesUndone undone = fleet::UndoLines(c.before, c.after, c.now);
    EXPECT_EQ(undone.text.value_or("- " + undone.why), c.undone) << c.now;
  }
}

/// Each of two people edits lines that the other one leaves alone: without the first one's edits
/// there are the second one's.
TEST(UndoLinesTest, ItIsAsIfItHadNotBeen) {
  std::mt19937 random(1);
  const auto edits = [](const char* who, const std::string& line) {
    return std::vector{line, who + line, line + who + line, std::string()};
  };
  std::size_t undone = 0;
  constexpr std::size_t kRounds = 2000;
  for (std::size_t round = 0; round < kRounds; ++round) {
    std::string before, after, now, wanted;
    bool removes = false;
    for (int i = 0; i < 12; ++i) {
      const std::string line = std::to_string(i) + "\n";
      const auto mine = edits("m", line);
      const auto theirs = edits("t", line);
      const auto m = random() % 16;
      const auto t = m < 4 ? 0 : random() % 16;
      before += line;
      after += m < 4 ? mine[m] : line;
      now += m < 4 ? mine[m] : t < 4 ? theirs[t] : line;
      wanted += t < 4 ? theirs[t] : line;
      removes = removes || m == 3;
    }
    const auto text = fleet::UndoLines(before, after, now).text;
    undone += text ? 1 : 0;
    EXPECT_TRUE(text || removes) << before << "--\n" << after << "--\n" << now;
    const auto sorted = [](std::string all) {
      std::sort(all.begin(), all.end());
      return all;
    };
    if (!text) continue;
    EXPECT_EQ(sorted(*text), sorted(wanted)) << after << "--\n" << now << "--\n" << *text;
  }
  EXPECT_GT(undone, kRounds * 9 / 10);
}

std::string MessageOf(const std::function<void()>& call) {
  const auto error = support::Caught(call);
  return error ? error->param("message") : "";
}

/// What an edit makes of a text; its error, after "- ".
std::string Edited(const fleet::Edit& edit, const std::string& path,
                   const std::optional<std::string>& text) {
  fleet::Looks looks;
  edit.look(looks);
  EXPECT_TRUE(looks.texts.contains(path));
  fleet::Sight sight;
  sight.files[path] = {path, text ? fleet::PathState::File(*text) : fleet::PathState()};
  sight.parameters["net.a"] = {"16 4", ""};
  fleet::Draft draft("web1", sight);
  std::string words;
  const std::string error = MessageOf([&] { edit.make(draft); });
  if (!error.empty()) return "- " + error;
  for (const fleet::RunStep& step : draft.Steps()) {
    EXPECT_TRUE(step.by_lines || step.form == fleet::StepForm::kParameter);
    words += step.form == fleet::StepForm::kParameter ? step.object + ":" + step.value
                                                      : *step.after.content;
  }
  return words;
}

TEST(EditsTest, TheyChangeTheirLineOrSayWhyNot) {
  using namespace fleet;
  const auto set = [](const std::string& after, bool create) {
    return SetKeyEdit("/f", "k", "2", {.after = after, .create = create});
  };
  EXPECT_EQ(Edited(set("", false), "/f", "a=1\nk=1 # why\n"), "a=1\nk=2 # why\n");
  EXPECT_EQ(Edited(set("", true), "/f", std::nullopt), "k=2\n");
  EXPECT_EQ(Edited(set("", false), "/f", "k=2\n"), "");
  EXPECT_EQ(Edited(set("", false), "/f", std::nullopt), "- web1: there is no '/f'");
  EXPECT_EQ(Edited(set("no", false), "/f", "k=1\n"),
            "- '/f' has no line that begins with 'no' (--after); nothing was changed");
  EXPECT_EQ(Edited(RemoveKeyEdit("/f", "k"), "/f", "a=1\nk=2\n"), "a=1\n");
  EXPECT_EQ(Edited(RemoveKeyEdit("/f", "k"), "/f", "a=1\n"), "- '/f' has no key 'k'");
  EXPECT_EQ(Edited(ParametersEdit({{"net.a", "0x10  4"}}), kSysctlConf, "net.a = 0x10  4\n"), "");
  EXPECT_EQ(Edited(ParametersEdit({{"net.a", "8"}}), kSysctlConf, "#x\n"),
            "#x\nnet.a = 8\nnet.a:8");
  EXPECT_EQ(MessageOf([] {
              (void)ParametersEdit({{"a b", "8"}});
            }),
            "'a b' is no name of a kernel parameter");
  EXPECT_EQ(MessageOf([] { (void)AuthorizedKeyEdit("/f", "ssh-rsa A\nssh-rsa B", true); }),
            "this is not one line of an authorized_keys file: 'ssh-rsa A\nssh-rsa B'");
}

/// What a host still has to do of a saved plan.
TEST(SavedPlanTest, PackagesAreComparedCommandsAreNot) {
  using Form = fleet::StepForm;
  const fleet::RunStep install{
      .form = Form::kPackages, .object = "p", .packages = {{"p", {"", "2"}}, {"lib", {"1", "3"}}}};
  const fleet::RunStep more{
      .form = Form::kPackages, .object = "lib", .packages = {{"lib", {"3", "4"}}}};
  const fleet::RunStep reload{.form = Form::kService, .object = "s", .make = "s", .follows = {"p"}};
  const fleet::RunStep command{.form = Form::kCommand, .object = "c", .make = "c"};
  const fleet::RunStep late{.form = Form::kLate, .object = "l"};
  struct Case {
    std::vector<fleet::RunStep> steps;
    const char* p;
    const char* lib;
    std::string left;  ///< how many steps, or the package that is in conflict
  };
  const Case cases[] = {
      {{install, reload, more}, "", "1", "3"},    {{install, reload, more}, "2", "4", "0"},
      {{install, reload, more}, "2", "3", "lib"}, {{install, reload}, "2", "1", "p"},
      {{install, command}, "", "1", "2"},         {{install, command}, "2", "3", "lib"},
      {{install, late}, "2", "3", "lib"},         {{command, late}, "", "", "2"},
  };
  for (const Case& c : cases) {
    const std::set<std::string> asked = fleet::LooksOf(c.steps).versions;
    fleet::Sight sight;
    for (const std::string& name : asked) sight.versions[name] = name == "p" ? c.p : c.lib;
    std::string left;
    const auto error = support::Caught(
        [&] { left = std::to_string(StillToDo(fleet::Draft("n", sight), c.steps).size()); });
    if (error) left = error->value();
    EXPECT_EQ(left, c.left) << c.p << c.lib << c.steps.size();
  }
}

}  // namespace
