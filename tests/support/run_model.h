#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <type_traits>

/// The protocol of runs as a state machine: what a panel, its late commands, a second panel, nodes that
/// crash and people who edit may do next, with two nodes and two steps on each: a file, and a command
/// that cannot be read back.
namespace support::run_model {

using Byte = std::uint8_t;

// --- What there is

/// What keeps the promises; each can be left out.
enum Rule : unsigned {
  kNone = 0,
  kBooksFirst = 1U << 0U,
  kLock = 1U << 1U,
  kEpoch = 1U << 2U,      ///< the node compares it
  kFence = 1U << 3U,      ///< the node keeps it after the end
  kNewEpoch = 1U << 4U,   ///< before a node is undone whose answer was lost
  kOwnEpoch = 1U << 5U,   ///< only its owner raises it so
  kMark = 1U << 6U,       ///< before a command begins
  kCompare = 1U << 7U,    ///< with before and after
  kReadAgain = 1U << 8U,  ///< after a COMMIT without an answer
};

enum Mark : Byte { kUnmarked, kBegun, kRan, kUndoing, kUndid };
enum File : Byte { kBefore, kAfter, kForeign };

struct Node {
  Byte file, ran, undid;  ///< the command and its undo: how often
  Byte mark, made, epoch;
  Byte seen;  ///< the highest epoch that was at work there
};

enum RunIs : Byte { kNoRun, kMaking, kCommitted, kDone, kUndoingRun, kUndone, kPartly };
enum NodeIs : Byte { kWaiting, kOpen, kMade, kFailed, kBack, kConflict, kOwed, kToClean, kClean };

struct Books {
  Byte run, epoch, committed;
  Byte node[2], uncommitted[2];
};

enum Kind : Byte { kMake, kUndo, kEnd };
enum Slot : Byte { kNotAsked, kToSend, kSent, kGood, kBad, kLost, kRefused };
enum Phase : Byte {
  kGone,
  kBooking,
  kBeginMake,
  kMakes,
  kDecide,
  kCommit,
  kUnsure,
  kDecideUndo,
  kBeginUndo,
  kUndoes,
  kBeginEnd,
  kEnds,
};

/// A process that works on the run. `alone`: the failed node is undone by itself; `pay`: debts only.
struct Process {
  Byte phase, epoch, alone, pay;
  Byte slot[2], lost[2], untouched[2], committed[2];
};

constexpr Byte kNobody = 9;
/// `at`: how far it has come; 0: it is still on its way.
struct Command {
  Byte node, kind, epoch, at, from, lost, committed, bad;
};

constexpr std::size_t kMostCommands = 8;

struct State {
  Node node[2];
  Books books;
  Process process[2];  ///< who began the run, and who recovers it
  Command command[kMostCommands];
  Byte commands, crashes, edits, losses, recoveries, overwritten, outrun, taken_back;

  bool operator==(const State& other) const { return memcmp(this, &other, sizeof *this) == 0; }
};
static_assert(std::has_unique_object_representations_v<State>);

/// How much may go wrong in one history.
struct Limits {
  Byte crashes = 0, edits = 0, losses = 0, recoveries = 0;
};

/// The order of the commands means nothing.
inline void Sort(State& s) {
  std::sort(s.command, s.command + s.commands,
            [](const Command& a, const Command& b) { return memcmp(&a, &b, sizeof a) < 0; });
}

/// The same with the other node as the first one.
inline State Swapped(State s) {
  std::swap(s.node[0], s.node[1]);
  std::swap(s.books.node[0], s.books.node[1]);
  std::swap(s.books.uncommitted[0], s.books.uncommitted[1]);
  for (Process& p : s.process)
    for (auto* const of : {&p.slot, &p.lost, &p.untouched, &p.committed})
      std::swap((*of)[0], (*of)[1]);
  for (int i = 0; i < s.commands; ++i) s.command[i].node ^= 1U;
  Sort(s);
  return s;
}

// --- What may happen

class Model {
 public:
  static constexpr int kFirst = 2;
  /// `who`: 0 and 1 are the nodes; kFirst and the next are the processes.
  using Next = std::function<void(const State&, const char* what, int who)>;
  Model(unsigned without, bool max_failed, Limits limits)
      : without_(without), max_failed_(max_failed), limits_(limits) {}

  void Follow(const State& s, const Next& next) const {
    for (int i = 0; i < s.commands; ++i) CommandGoesOn(s, i, next);
    for (int p = 0; p < 2; ++p) ProcessGoesOn(s, p, next);
    Recovers(s, next);
    for (int n = 0; n < 2; ++n) Accidents(s, n, next);
  }

 private:
  bool Keeps(Rule rule) const { return (without_ & rule) == 0; }

  // On a node.

  static void Remove(State& s, int i) {
    std::copy(s.command + i + 1, s.command + s.commands, s.command + i);
    s.command[--s.commands] = {};
  }

  static void Answer(State& s, int i, Slot slot) {
    const Command c = s.command[i];
    if (c.from != kNobody) s.process[c.from].slot[c.node] = slot;
    Remove(s, i);
  }

  /// Ends what works on a node.
  static void Kill(State& s, Byte node) {
    for (int i = s.commands; i-- > 0;)
      if (s.command[i].node == node && s.command[i].at > 0) Answer(s, i, kLost);
  }

  void Arrive(const State& s, int i, const Next& next) const {
    const Command c = s.command[i];
    const bool held = std::any_of(s.command, s.command + s.commands, [&](const Command& other) {
      return other.node == c.node && other.at > 0;
    });
    State t = s;
    if (held && Keeps(kLock)) {
      if (!c.lost) {
        Answer(t, i, kRefused);
        return next(t, "a command is refused: the lock is held", c.node);
      }
      t.command[i].at = 1;  // it stays when the others are ended
      for (int k = t.commands; k-- > 0;)
        if (k != i && t.command[k].node == c.node && t.command[k].at > 0) {
          Answer(t, k, kLost);
          if (k < i) --i;
        }
    }
    Node& n = t.node[c.node];
    if (Keeps(kEpoch) && c.epoch < n.epoch) {
      Answer(t, i, kRefused);
      return next(t, "a command is refused: its epoch is over", c.node);
    }
    n.epoch = std::max(n.epoch, c.epoch);
    n.seen = std::max(n.seen, c.epoch);
    t.command[i].at = 1;
    next(t, "a command has the lock", c.node);
  }

  void CommandGoesOn(const State& s, int i, const Next& next) const {
    const Command& c = s.command[i];
    if (c.at == 0) return Arrive(s, i, next);
    State t = s;
    Node& n = t.node[c.node];
    const Node before = n;
    const char* const what = c.kind == kMake   ? Make(t, i)
                             : c.kind == kUndo ? Undo(t, i)
                                               : End(t, i);
    const bool effect = n.file != before.file || n.ran != before.ran || n.undid != before.undid;
    if (effect && c.epoch < n.seen) t.outrun = 1;
    if (before.file == kForeign && n.file != kForeign) t.overwritten = 1;
    next(t, what, c.node);
  }

  const char* Make(State& t, int i) const {
    Command& c = t.command[i];
    Node& n = t.node[c.node];
    switch (c.at++) {
      case 1:
        n.made = 1;
        return "make: the list is there";
      case 2:
        if (n.mark != kUnmarked) return "make: what is before the command was made";
        if (n.file == kForeign && Keeps(kCompare)) return Answer(t, i, kBad), "make: a conflict";
        n.file = kAfter;
        return "make: the file";
      case 3:
        if (n.mark == kRan) return c.at = 6, "make: the command has run";
        if (n.mark == kBegun) return Answer(t, i, kBad), "make: the command was interrupted";
        if (Keeps(kMark)) n.mark = kBegun;
        return "make: the command begins";
      case 4:
        ++n.ran;
        return "make: the command runs";
      case 5:
        n.mark = kRan;
        return "make: the command is marked as run";
      default:
        return Answer(t, i, kGood), "make: answered";
    }
  }

  const char* Undo(State& t, int i) const {
    Command& c = t.command[i];
    Node& n = t.node[c.node];
    switch (c.at++) {
      case 1: {
        const bool never = n.mark == kUnmarked && (n.made || !c.committed);
        if (n.mark == kUndid || never) return c.at = 4, "undo: the command needs none";
        if (n.mark == kUndoing)
          return c.bad = 1, c.at = 4, "undo: that of the command was interrupted";
        if (Keeps(kMark)) n.mark = kUndoing;
        return "undo: that of the command begins";
      }
      case 2:
        ++n.undid;
        return "undo: that of the command runs";
      case 3:
        n.mark = kUndid;
        return "undo: that of the command is marked";
      case 4:
        if (n.file == kForeign && Keeps(kCompare)) return c.bad = 1, "undo: a conflict";
        n.file = kBefore;
        return "undo: the file";
      default:
        if (!c.bad) Tidy(n, c);
        return Answer(t, i, c.bad ? kBad : kGood), "undo: answered";
    }
  }

  const char* End(State& t, int i) const {
    Command& c = t.command[i];
    if (c.at++ > 1) return Answer(t, i, kGood), "end: answered";
    Tidy(t.node[c.node], c);
    return "end: all is removed";
  }

  void Tidy(Node& n, const Command& c) const {
    n.made = 0;
    if (n.mark == kUnmarked && !(c.lost && Keeps(kFence))) n.epoch = 0;
  }

  // A process.

  void ProcessGoesOn(const State& s, int p, const Next& next) const {
    const Process& self = s.process[p];
    if (self.phase == kGone) return;
    State t = s;
    Stop(t, p);
    next(t, "it dies", kFirst + p);
    switch (self.phase) {
      case kBooking:
        return Book(s, p, next);
      case kMakes:
        return Talk(s, p, kMake, next);
      case kUndoes:
        return Talk(s, p, kUndo, next);
      case kEnds:
        return Talk(s, p, kEnd, next);
      case kCommit:
        return Commit(s, p, next);
      default:
        break;
    }
    t = s;
    const bool forced = self.phase == kBeginUndo && !Keeps(kOwnEpoch);
    if (!Owns(s, p) && !forced)
      return Stop(t, p), next(t, "it sees that it was taken over", kFirst + p);
    next(t, Write(t, p), kFirst + p);
  }

  static bool Owns(const State& s, int p) { return s.books.epoch == s.process[p].epoch; }

  static void Stop(State& s, int p) {
    s.process[p] = {};
    for (int i = 0; i < s.commands; ++i)
      if (s.command[i].from == p) s.command[i].from = kNobody;
  }

  void Book(const State& s, int p, const Next& next) const {
    State t = s;
    t.process[p].epoch = 1;
    t.process[p].phase = kBeginMake;
    t.books.epoch = 1;
    if (Keeps(kBooksFirst)) t.books.run = kMaking;
    next(t, "the books are written", kFirst + p);
  }

  /// What is written between the commands.
  const char* Write(State& t, int p) const {
    switch (t.process[p].phase) {
      case kBeginMake:
        return BeginMake(t, p), "it begins to make";
      case kDecide:
        return Decide(t, p), "it has all answers";
      case kUnsure:
        return ReadAgain(t, p), "it reads the row of the commit";
      case kDecideUndo:
        return DecideUndo(t, p), "it decides to undo";
      case kBeginUndo:
        return BeginUndo(t, p), "it begins to undo";
      default:
        return BeginEnd(t, p), "it begins to clean up";
    }
  }

  static void BeginMake(State& t, int p) {
    for (int n = 0; n < 2; ++n) {
      Byte& is = t.books.node[n];
      const bool open = is == kWaiting || is == kOpen;
      if (open) is = kOpen;
      t.process[p].slot[n] = open ? kToSend : kNotAsked;
    }
    t.process[p].phase = kMakes;
  }

  void Talk(const State& s, int p, Kind kind, const Next& next) const {
    const Process& self = s.process[p];
    for (Byte n = 0; n < 2; ++n) {
      State t = s;
      if (self.slot[n] == kToSend && s.commands < kMostCommands) {
        t.process[p].slot[n] = kSent;
        t.command[t.commands++] = {n,       kind,         self.epoch,        0,
                                   Byte(p), self.lost[n], self.committed[n], 0};
        next(t, "it sends a command", kFirst + p);
      } else if (self.slot[n] == kSent && s.losses < limits_.losses) {
        ++t.losses;
        t.process[p].slot[n] = kLost;
        for (int i = 0; i < t.commands; ++i)
          if (t.command[i].from == p && t.command[i].node == n) t.command[i].from = kNobody;
        next(t, "it loses an answer", kFirst + p);
      }
    }
    for (const Byte slot : self.slot)
      if (slot == kToSend || slot == kSent) return;
    State t = s;
    if (kind == kMake && !Keeps(kBooksFirst)) t.books.run = kMaking;
    if (!Owns(s, p)) return Stop(t, p), next(t, "it sees that it was taken over", kFirst + p);
    Note(t, p, kind);
    next(t, "it notes the answers", kFirst + p);
  }

  void Note(State& t, int p, Kind kind) const {
    Process& self = t.process[p];
    for (int n = 0; n < 2; ++n) {
      const Byte slot = self.slot[n];
      if (slot == kNotAsked) continue;
      self.untouched[n] = kind == kMake && slot == kRefused && !self.lost[n];
      if (slot == kLost) self.lost[n] = 1;
      Byte& is = t.books.node[n];
      if (kind == kMake) is = slot == kGood ? kMade : kFailed;
      if (kind == kUndo) is = slot == kGood ? kBack : slot == kBad ? kConflict : kOwed;
      if (kind == kEnd) is = slot == kGood ? kClean : kToClean;
      self.slot[n] = kNotAsked;
    }
    if (kind == kMake) self.phase = kDecide;
    if (kind == kUndo) AfterUndo(t, p);
    if (kind == kEnd) AfterEnd(t, p);
  }

  static bool Has(const State& s, std::initializer_list<Byte> states) {
    return std::find_first_of(s.books.node, s.books.node + 2, states.begin(), states.end()) !=
           s.books.node + 2;
  }

  void Decide(State& t, int p) const {
    Process& self = t.process[p];
    const bool all = t.books.node[0] == kFailed && t.books.node[1] == kFailed;
    self.alone = max_failed_ && p == 0 && !all && Has(t, {kFailed});
    self.phase = !Has(t, {kFailed}) ? kCommit : self.alone ? kBeginUndo : kDecideUndo;
  }

  void Commit(const State& s, int p, const Next& next) const {
    State t = s;
    if (!Owns(s, p) || s.books.run != kMaking)
      return Stop(t, p), next(t, "it may not commit", kFirst + p);
    t.books.run = kCommitted;
    t.books.committed = 1;
    t.process[p].phase = kBeginEnd;
    next(t, "it commits", kFirst + p);
    if (s.losses == limits_.losses) return;
    ++t.losses;
    t.process[p].phase = kUnsure;
    next(t, "it commits without an answer", kFirst + p);
    t.books = s.books;
    next(t, "COMMIT and its answer are lost", kFirst + p);
  }

  void ReadAgain(State& t, int p) const {
    Process& self = t.process[p];
    self.phase = t.books.run == kCommitted ? kBeginEnd : kCommit;
    if (!Keeps(kReadAgain)) self.phase = kBeginUndo;
  }

  static void DecideUndo(State& t, int p) {
    t.books.run = kUndoingRun;
    for (Byte& is : t.books.node) {
      if (is == kClean) is = kMade;
      if (is == kWaiting) is = kBack;
    }
    t.process[p].phase = kBeginUndo;
  }

  void BeginUndo(State& t, int p) const {
    Process& self = t.process[p];
    bool lost = false;
    for (int n = 0; n < 2; ++n) {
      Byte& is = t.books.node[n];
      const bool chosen = self.alone ? is == kFailed : self.pay ? is == kOwed : is != kBack;
      if (!chosen) continue;
      if (t.books.run == kMaking) t.books.uncommitted[n] = 1;
      if (self.untouched[n]) {
        is = kBack;
        continue;
      }
      self.slot[n] = kToSend;
      self.committed[n] = is == kToClean || (t.books.committed && is != kOpen && is != kFailed &&
                                             !t.books.uncommitted[n]);
      lost = lost || self.lost[n];
    }
    if (lost && Keeps(kNewEpoch)) {
      t.taken_back = !Owns(t, p);
      self.epoch = ++t.books.epoch;
    }
    self.phase = kUndoes;
  }

  static void AfterUndo(State& t, int p) {
    Process& self = t.process[p];
    if (self.alone || self.pay) {
      self.phase = self.alone ? kCommit : kBeginEnd;
      self.alone = 0;
      return;
    }
    t.books.run = Has(t, {kConflict, kOwed}) ? kPartly : kUndone;
    Stop(t, p);
  }

  static void BeginEnd(State& t, int p) {
    Process& self = t.process[p];
    for (int n = 0; n < 2; ++n) {
      const Byte is = t.books.node[n];
      if (is == kToClean || (!self.pay && is == kMade)) self.slot[n] = kToSend;
    }
    self.phase = kEnds;
  }

  static void AfterEnd(State& t, int p) {
    const auto all = [&](NodeIs is) { return t.books.node[0] == is && t.books.node[1] == is; };
    if (!t.process[p].pay) {
      t.books.run = Has(t, {kBack, kConflict, kOwed}) ? kPartly : kDone;
    } else if (t.books.run == kPartly && all(t.books.committed ? kClean : kBack)) {
      t.books.run = t.books.committed ? kDone : kUndone;
    }
    Stop(t, p);
  }

  // Another process, and accidents.

  void Recovers(const State& s, const Next& next) const {
    const Byte run = s.books.run;
    if (run == kNoRun || s.process[1].phase != kGone || s.recoveries == limits_.recoveries) return;
    State t = s;
    ++t.recoveries;
    Process& self = t.process[1];
    self.epoch = ++t.books.epoch;
    self.lost[0] = self.lost[1] = 1;
    const bool owes = Has(s, {kOwed, kToClean});
    const bool over = run == kDone || run == kUndone || run == kPartly;
    self.pay = over;
    if (over) self.phase = Has(s, {kOwed}) ? kBeginUndo : kBeginEnd;
    if (run == kMaking) self.phase = kBeginMake;
    if (run == kMaking && !Has(s, {kWaiting, kOpen})) self.phase = kCommit;
    if (run == kMaking && Has(s, {kFailed})) self.phase = kDecideUndo;
    if (run == kCommitted) self.phase = kBeginEnd;
    if (run == kUndoingRun) self.phase = kBeginUndo;
    if (!over || owes) next(t, "another one resumes the run", kFirst + 1);
    if (run == kUndone || run == kUndoingRun) return;
    self.pay = 0;
    self.phase = kDecideUndo;
    next(t, "another one undoes the run", kFirst + 1);
  }

  void Accidents(const State& s, int n, const Next& next) const {
    State t = s;
    if (s.crashes < limits_.crashes) {
      ++t.crashes;
      Kill(t, Byte(n));
      next(t, "the node crashes", n);
    }
    t = s;
    if (s.edits == limits_.edits || s.node[n].file == kForeign) return;
    ++t.edits;
    t.node[n].file = kForeign;
    next(t, "somebody edits the file", n);
  }

  const unsigned without_;
  const bool max_failed_;
  const Limits limits_;
};

}  // namespace support::run_model
