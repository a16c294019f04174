// All orders in which the parts of a run can act are tried in a model of it. The real thing goes through
// the orders that matter:
//
//     a late command, after the undo          RunTest.NothingComesLate
//     a late command, after the cleanup       RunSchedulesTest.LateCommandsAreRefused
//     an owner that was taken over goes on    RunSchedulesTest.WhoWasTakenOverHasNoEffect
//     a crash between a command and its mark  RunSchedulesTest.InterruptedCommandsAreNotRepeated
//     a lost answer to COMMIT                 JournalTest.LostAnswersAreAskedForAgain
//     an owner of before raises the epoch     JournalTest.ARunIsTakenOverFromTheDead
//     a panel that dies anywhere              RunTest.WhateverDiesItIsAllOrNone
//     a connection that is lost               RunTest.LostConnectionsAreUndoneOrOwed
//     edits of others                         RunTest.EditsOfOthersStay

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "support/run_model.h"

namespace {

using namespace support::run_model;

// --- What must not be

bool IsOver(const State& s) {
  const Byte run = s.books.run;
  return run == kDone || run == kUndone || run == kPartly;
}

/// Which promise is broken; null: none is.
const char* Broken(const State& s) {
  if (s.overwritten) return "what somebody else has written is overwritten";
  if (s.outrun) return "who was taken over still has an effect";
  if (s.taken_back) return "who was taken over takes the run back";
  bool some = false;
  bool back = false;
  for (int i = 0; i < 2; ++i) {
    const Node& n = s.node[i];
    const Byte is = s.books.node[i];
    if (n.ran > 1 || n.undid > 1) return "a command, or its undo, runs twice";
    const bool touched = n.made || n.ran || n.file == kAfter;
    if (touched && s.books.run == kNoRun) return "a node is changed by what is in no books";
    if (is == kBack && (n.made || n.file == kAfter || n.ran > n.undid))
      return "a node is not as before, though it counts as undone";
    const bool has_it = is == kMade || is == kToClean || is == kClean;
    const bool stays = has_it && (s.books.run == kCommitted || IsOver(s));
    if (stays && (n.file == kBefore || n.ran != 1 || n.undid))
      return "a node does not have what was committed";
    if (!IsOver(s)) continue;
    if (is == kWaiting || is == kOpen || is == kMade || is == kFailed)
      return "the run is over, but not on a node";
    if (is == kClean && n.made) return "something is left on a node";
    some = some || has_it;
    back = back || is == kBack;
  }
  return some && back ? "some nodes have it, and others have not" : nullptr;
}

// --- The search

struct Found {
  std::size_t states = 0;
  std::set<int> ends = {};  ///< of runs
  std::string broken = {};
  std::string trace = {};  ///< the shortest one that leads there
};

class Search {
 public:
  Search(const Model& model, bool max_failed) : model_(model), max_failed_(max_failed) {
    State first{};
    first.process[0].phase = kBooking;
    Add(first, 0, "", 0);
  }

  Found Run() {
    Found found;
    for (std::uint32_t at = 0; at < states_.size() && found.broken.empty(); ++at) {
      const State s = states_[at];
      if (IsOver(s)) found.ends.insert(s.books.run);
      if (const char* const broken = Broken(s); broken != nullptr && !IsAllowed(broken)) {
        found.broken = broken;
        found.trace = Trace(at);
      }
      model_.Follow(s, [&](const State& t, const char* what, int who) { Add(t, at, what, who); });
    }
    found.states = states_.size();
    return found;
  }

 private:
  struct Came {
    std::uint32_t from;
    const char* what;
    int who;
    bool swapped;
  };

  bool IsAllowed(const std::string& broken) const {
    return max_failed_ && broken == "some nodes have it, and others have not";
  }

  void Add(State s, std::uint32_t from, const char* what, int who) {
    Sort(s);
    const State other = Swapped(s);
    const bool swapped = memcmp(&other, &s, sizeof s) < 0;
    states_.push_back(swapped ? other : s);
    if (seen_.insert(static_cast<std::uint32_t>(states_.size() - 1)).second) {
      came_.push_back({from, what, who, swapped});
    } else {
      states_.pop_back();
    }
  }

  std::string Trace(std::uint32_t at) const {
    std::vector<Came> way;
    for (; at != 0; at = came_[at].from) way.push_back(came_[at]);
    constexpr const char* kWho[] = {"node 1", "node 2", "first process", "second process"};
    std::string trace;
    int first = 0;  // which node is now the first one of the state
    for (auto step = way.rbegin(); step != way.rend(); ++step) {
      const int who = step->who < Model::kFirst ? step->who ^ first : step->who;
      trace += std::string(kWho[who]) + ": " + step->what + "\n";
      first ^= step->swapped ? 1 : 0;
    }
    return trace;
  }

  const Model& model_;
  const bool max_failed_;
  std::vector<State> states_;
  std::vector<Came> came_;
  std::function<std::size_t(std::uint32_t)> hash_ = [this](std::uint32_t i) {
    return std::hash<std::string_view>()(
        {reinterpret_cast<const char*>(&states_[i]), sizeof(State)});
  };
  std::function<bool(std::uint32_t, std::uint32_t)> same_ =
      [this](std::uint32_t a, std::uint32_t b) { return states_[a] == states_[b]; };
  std::unordered_set<std::uint32_t, decltype(hash_), decltype(same_)> seen_{1U << 16U, hash_,
                                                                            same_};
};

Found Explore(unsigned without, bool max_failed, Limits limits) {
  const Model model(without, max_failed, limits);
  return Search(model, max_failed).Run();
}

TEST(RunModel, PromisesHoldInEveryOrder) {
  const std::tuple<Limits, bool, std::size_t> cases[] = {
      {{.crashes = 1, .recoveries = 1}, false, 100'000},
      {{.crashes = 1, .recoveries = 1}, true, 80'000},
      {{.edits = 1, .recoveries = 1}, false, 70'000},
      {{.edits = 1, .recoveries = 1}, true, 70'000},
      {{.losses = 1, .recoveries = 1}, false, 140'000},
      {{.crashes = 1, .losses = 1, .recoveries = 1}, true, 600'000},
      {{.recoveries = 2}, false, 700'000},
  };
  std::size_t states = 0;
  for (const auto& [limits, max_failed, least] : cases) {
    const Found found = Explore(kNone, max_failed, limits);
    EXPECT_EQ(found.broken, "") << found.trace;
    EXPECT_GT(found.states, least);
    EXPECT_EQ(found.ends, (std::set<int>{kDone, kUndone, kPartly}));
    states += found.states;
    if (BREFIR_SANITIZED) break;  // it would take minutes
  }
  RecordProperty("states", std::to_string(states));
}

// A search that finds nothing proves nothing: without any of its rules, the protocol breaks a promise.
TEST(RunModel, EachRuleIsNeeded) {
  const std::tuple<const char*, Rule, Limits, const char*> cases[] = {
      {"books first", kBooksFirst, {}, "a node is changed by what is in no books"},
      {"lock", kLock, {.recoveries = 1}, "who was taken over still has an effect"},
      {"comparison of epochs", kEpoch, {.recoveries = 1}, "who was taken over still has an effect"},
      {"fence", kFence, {.recoveries = 1}, "who was taken over still has an effect"},
      {"new epoch after a lost answer",
       kNewEpoch,
       {.losses = 1},
       "a node is not as before, though it counts as undone"},
      {"new epochs only for the owner",
       kOwnEpoch,
       {.losses = 1, .recoveries = 1},
       "who was taken over takes the run back"},
      {"mark before a command", kMark, {.recoveries = 1}, "a command, or its undo, runs twice"},
      {"comparison with before and after",
       kCompare,
       {.edits = 1},
       "what somebody else has written is overwritten"},
      {"look at the row after a lost COMMIT",
       kReadAgain,
       {.losses = 1},
       "a node does not have what was committed"},
  };
  for (const auto& [name, rule, limits, broken] : cases) {
    const Found found = Explore(rule, false, limits);
    EXPECT_EQ(found.broken, broken) << found.trace;
    printf("Without the %s:\n%s-> %s\n\n", name, found.trace.c_str(), broken);
  }
}

}  // namespace
