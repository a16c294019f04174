#include "fleet/host_answers.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <utility>

#include "brefir/str_utils.h"
#include "fleet/package_plan.h"
#include "pnl/cksum.h"
#include "pnl/str.h"

namespace fleet::answers {
namespace {

template <class Number>
bool ReadNumber(std::string_view word, Number& number, int base = 10) {
  const char* const end = word.data() + word.size();
  const auto read = std::from_chars(word.data(), end, number, base);
  return read.ec == std::errc() && read.ptr == end && !word.empty();
}

/// What can be a word of a command for every login shell, and is one word.
bool IsWord(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c <= '~' && std::string_view("'!\\").find(c) == std::string_view::npos;
  });
}

/// The answer to a look, from front to back.
class Reader {
 public:
  explicit Reader(const Answer& answer) : answer_(answer), rest_(answer.output) {}

  /// The next line without the nonce; it begins with `kind`, which is left out.
  std::string_view Line(const char* kind) {
    std::string_view line = Raw();
    if (str::NextWord(line, ' ') != answer_.nonce || str::NextWord(line, ' ') != kind) throw Cut();
    return line;
  }
  bool IsNext(const char* kind) const {
    return rest_.substr(0, rest_.find('\n')).starts_with(answer_.nonce + " " + kind);
  }
  /// A line as it is.
  std::string_view Raw() {
    const std::size_t end = rest_.find('\n');
    if (end == std::string_view::npos) throw Cut();
    const std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return line;
  }
  /// So many bytes, and a line end after them.
  std::string_view Bytes(std::size_t size) {
    if (rest_.size() <= size || rest_[size] != '\n') throw Cut();
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(size + 1);
    return bytes;
  }
  pnl_err::Error Failed(const std::string& reason) const {
    return answers::Failed(answer_.host, answer_.run, reason);
  }
  pnl_err::Error Cut() const {
    const std::string& complaint = answer_.complaint;
    return Failed("its answer is not complete, or a file was changed while it was read: try again" +
                  (complaint.empty() ? "" : " (" + str::Replace(complaint, "\n", "; ") + ")"));
  }

 private:
  const Answer& answer_;
  std::string_view rest_;
};

template <class Number>
Number NumberIn(const Reader& reader, std::string_view word, int base = 10) {
  Number number{};
  if (!ReadNumber(word, number, base)) throw reader.Cut();
  return number;
}

std::string FromHex(const Reader& reader, std::string_view digits) {
  constexpr int kHex = 16;
  std::string bytes;
  for (; digits.size() >= 2; digits.remove_prefix(2))
    bytes += static_cast<char>(NumberIn<unsigned char>(reader, digits.substr(0, 2), kHex));
  if (bytes.ends_with('\n')) bytes.pop_back();
  return bytes;
}

PathKind KindOf(unsigned mode) {
  if (S_ISREG(mode)) return PathKind::kFile;
  if (S_ISDIR(mode)) return PathKind::kDirectory;
  return S_ISLNK(mode) ? PathKind::kLink : PathKind::kOther;
}

/// "LENGTH CONTENT missing", "nowhere" when its directory is missing, too, or "LENGTH CONTENT MODE UID
/// GID TIME SIZE": lengths of the path and of the content, or "s" and the sum of the content. Path,
/// target of a link in hexadecimal digits, content and an end line follow.
Place ReadPlace(Reader& reader, const std::string& path) {
  constexpr int kHex = 16;
  constexpr unsigned kPermissions = 07777;
  std::string_view line = reader.Line("f");
  const auto length = NumberIn<std::size_t>(reader, str::NextWord(line, ' '));
  const std::string_view content = str::NextWord(line, ' ');
  const std::string_view first = str::NextWord(line, ' ');
  if (first == "unreadable") throw reader.Failed("'" + path + "' cannot be read by this user");
  Place place{.path = std::string(reader.Bytes(length)), .state = {}};
  if (length == 0) place.path = path;
  if (place.path != path && !place.path.starts_with('/')) throw reader.Cut();
  place.has_folder = first != "nowhere";
  if (first != "missing" && place.has_folder) {
    const auto mode = NumberIn<unsigned>(reader, first, kHex);
    place.state.kind = KindOf(mode);
    place.state.mode = mode & kPermissions;
    const auto uid = NumberIn<std::uint32_t>(reader, str::NextWord(line, ' '));
    const auto gid = NumberIn<std::uint32_t>(reader, str::NextWord(line, ' '));
    place.state.owner = std::to_string(uid) + ":" + std::to_string(gid);
    place.time = NumberIn<std::int64_t>(reader, str::NextWord(line, ' '));
  }
  place.state.target = FromHex(reader, reader.Raw());
  if (place.state.kind == PathKind::kFile) {
    place.state.size = NumberIn<std::uint64_t>(reader, line);
    if (content.starts_with('s')) {
      place.state.sum = NumberIn<std::uint32_t>(reader, content.substr(1));
      reader.Bytes(0);
    } else {
      if (NumberIn<std::uint64_t>(reader, content) != place.state.size) throw reader.Cut();
      place.state.content =
          std::make_shared<const std::string>(reader.Bytes(NumberIn<std::size_t>(reader, content)));
      place.state.sum = pnl_file::Cksum::Of(*place.state.content);
    }
  } else {
    reader.Bytes(0);
  }
  reader.Line("e");
  return place;
}

/// "LENGTH", and a text of that length.
std::string ReadText(Reader& reader) {
  return std::string(reader.Bytes(NumberIn<std::size_t>(reader, reader.Line("o"))));
}

/// The family, and with packages or versions: the list of all packages, and the plans.
void ReadPackageAnswers(Reader& reader, const Looks& looks, Sight& sight) {
  PackageAnswer known;
  std::string_view system = reader.Line("y");
  const std::string_view family = str::NextWord(system, ' ');
  if (family == "debian") known.family = PackageFamily::kDebian;
  if (family == "redhat") known.family = PackageFamily::kRedHat;
  known.machine = str::NextWord(system, ' ');
  known.manager = system;
  sight.family = known.family;
  if (!AsksForPackages(looks)) return;
  known.installed = ReadPackages(ReadText(reader));
  if (known.installed.empty() && !known.manager.empty())
    throw reader.Failed("the list of its packages cannot be read");
  for (const PackageRequest& request : looks.packages) {
    known.code = NumberIn<int>(reader, reader.Line("k"));
    known.plan = ReadText(reader);
    known.available = ReadText(reader);
    known.automatic = ReadText(reader);
    sight.packages[request] = ReadPackagePlan(request, known);
  }
  for (const std::string& name : looks.versions) {
    const auto found = known.installed.find(name);
    const bool is_there = found != known.installed.end() && found->second != "config";
    sight.versions[name] = is_there ? found->second : "";
  }
}

KernelValue ReadValue(Reader& reader) {
  if (reader.IsNext("p")) return {std::string(reader.Line("p")), ""};
  return {std::nullopt, std::string(reader.Line("q"))};
}

/// The number of a user or a group; "" if there is none.
std::string ReadId(Reader& reader) {
  const std::string_view id = reader.Line("i");
  if (id.empty()) return "";
  return std::to_string(NumberIn<std::uint32_t>(reader, id));
}

std::optional<GuardState> GuardOf(std::string_view word) {
  if (word == "armed") return GuardState::kArmed;
  if (word == "lost") return GuardState::kLost;
  if (word == "fired") return GuardState::kFired;
  if (word == "restored") return GuardState::kRestored;
  return std::nullopt;
}

/// The machine and the runs: later commands have them as words.
void ReadMarks(Reader& reader, Sight& sight) {
  sight.machine = reader.Line("m");
  if (!IsWord(sight.machine))
    throw reader.Failed("its machine-id is none: '" + sight.machine +
                        "'; give it one, for example with systemd-machine-id-setup");
  while (reader.IsNext("r")) {
    const std::string_view line = reader.Line("r");
    const std::size_t end = std::min(line.rfind(' '), line.size());
    const std::string name(line.substr(0, end));
    if (name.empty() || !IsWord(name))
      throw reader.Failed("'" + name + "' in its directory brefir/runs is no run: remove it");
    sight.runs[name] = NumberIn<std::int64_t>(reader, line.substr(std::min(end + 1, line.size())));
    if (!reader.IsNext("g ")) continue;
    const auto state = GuardOf(reader.Line("g"));
    if (!state) throw reader.Cut();
    sight.guards[name] = *state;
  }
  sight.guards_at_boot = reader.Line("b") == "systemd";
}

/// The text of a word of pnl_host::EncodedWord.
std::string Decoded(std::string_view word) {
  constexpr std::size_t kEscape = 5;  // "\\0ooo"
  std::string text;
  while (!word.empty()) {
    unsigned char byte = 0;
    const bool escaped = word.front() == '\\' && word.size() >= kEscape &&
                         ReadNumber(word.substr(1, kEscape - 1), byte, 8);
    text += escaped ? static_cast<char>(byte) : word.front();
    word.remove_prefix(escaped ? kEscape : 1);
  }
  return text;
}

// --- The answer to work

/// The last lines of a text that may have no end.
class LastLines {
 public:
  void Add(std::string_view line) {
    text_.append(line.substr(line.size() - std::min(line.size(), kMax))) += '\n';
    if (text_.size() > 2 * kMax) Cut();
  }
  std::string Text() {
    if (text_.size() > kMax) Cut();
    return std::move(text_);
  }

 private:
  static constexpr std::size_t kMax = 4001;  // what the script prints, and a line end

  void Cut() { text_.erase(0, text_.size() - kMax); }

  std::string text_;
};

/// What the host has said of its work, line by line.
class WorkReader {
 public:
  /// Takes the verdict of a step after an earlier one of the same step, which may be kNone.
  using Fold = void (*)(Verdict& known, Verdict verdict);

  WorkReader(const Answer& answer, Fold fold) : answer_(answer), fold_(fold) {
    // Shells put their name before what they say, and that they evaluate a text.
    complaint_ = str::Trim(answer.complaint);
    for (const char* name : {"brefir-run: 1: ", "eval: ", "\r"})
      complaint_ = str::Replace(complaint_, name, "");
    complaint_ = str::Replace(complaint_, "\n", "; ");
    std::string_view output = answer.output;
    bool complete = false;
    for (std::size_t end = 0; (end = output.find('\n')) != std::string_view::npos;) {
      complete = ReadLine(output.substr(0, end)) || complete;
      output.remove_prefix(end + 1);
    }
    if (!complete) throw Failed(str::Append("its answer is not complete", complaint_, ": "));
    for (auto& [number, verdict] : verdicts_) AddSaid(number, verdict);
  }

  bool Ended() const { return ended_; }
  /// What was said of the guard; "" if nothing.
  std::string_view Guard() const { return guard_; }
  std::map<std::size_t, Verdict>& Verdicts() { return verdicts_; }
  /// The objects of the steps that the host knows, by number.
  std::map<std::size_t, std::string>& Objects() { return objects_; }

  pnl_err::Error Failed(const std::string& reason) const {
    return answers::Failed(answer_.host, answer_.run, reason);
  }
  pnl_err::Error NotUnderstood() const { return Failed("its answer is not understood"); }

 private:
  /// Returns whether it is the last one.
  bool ReadLine(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);  // sshd ends its lines with it
    if (str::NextWord(line, ' ') != answer_.nonce) return false;
    const std::string_view kind = str::NextWord(line, ' ');
    if (kind == "refused") throw Refused(line);
    if (kind == "ended") ended_ = true;
    if (kind == "guard") guard_ = line;
    if (kind == "step" || kind == "object" || kind == "out" || kind == "moved") {
      std::size_t number = 0;
      if (!ReadNumber(str::NextWord(line, ' '), number)) throw NotUnderstood();
      Take(kind, number, line);
    }
    return kind == "end";
  }

  void Take(std::string_view kind, std::size_t number, std::string_view line) {
    if (kind == "step") fold_(verdicts_[number], ReadVerdict(line));
    if (kind == "object") objects_[number] = Decoded(line);
    if (kind == "moved") ReadMove(line, moves_[number]);
    if (kind == "out") outputs_[number].Add(line);
  }

  static void ReadMove(std::string_view line, PackageMoves& moves) {
    const auto version = [&] {
      const std::string word(str::NextWord(line, ' '));
      return word == "missing" ? "" : word;
    };
    PackageMove& move = moves[std::string(str::NextWord(line, ' '))];
    move.before = version();
    move.after = version();
  }

  pnl_err::Error Refused(std::string_view reason) const {
    const std::string why =
        reason.starts_with("epoch ")
            ? "another process has taken the run over, or the journal is older than what this "
              "node knows of the run (" +
                  std::string(reason) + ")"
            : str::Append(std::string(reason), complaint_, ": ");
    return Failed(why).add_param(kRefused, "1");
  }

  Verdict ReadVerdict(std::string_view line) const {
    const std::string_view word = str::NextWord(line, ' ');
    if (word == "done") return {StepResult::kDone, std::string(line)};
    if (word == "already") return {StepResult::kAlready};
    constexpr std::string_view kBecause = "because ";
    if (word == "conflict")
      return {StepResult::kConflict,
              line.starts_with(kBecause) ? std::string(line.substr(kBecause.size())) : ""};
    const std::string reason =
        str::Replace(str::Append(std::string(line), complaint_, ": "), "\r", "");
    return {word == "wanted" ? StepResult::kWanted : StepResult::kFailed, reason};
  }

  void AddSaid(std::size_t number, Verdict& verdict) {
    if (const auto moves = moves_.find(number); moves != moves_.end())
      verdict.packages = std::move(moves->second);
    if (const auto output = outputs_.find(number); output != outputs_.end())
      verdict.output = output->second.Text();
  }

  const Answer& answer_;
  const Fold fold_;
  std::string complaint_;
  bool ended_ = false;
  std::string_view guard_;
  std::map<std::size_t, Verdict> verdicts_;
  std::map<std::size_t, std::string> objects_;
  std::map<std::size_t, LastLines> outputs_;  // of commands
  std::map<std::size_t, PackageMoves> moves_;
};

bool IsGood(StepResult result) {
  return result == StepResult::kDone || result == StepResult::kAlready;
}

void TakeLast(Verdict& known, Verdict verdict) {
  known = std::move(verdict);
}

void TakeUnlessBad(Verdict& known, Verdict verdict) {
  if (known.result == StepResult::kNone || IsGood(known.result)) known = std::move(verdict);
}

void TakeWorse(Verdict& known, Verdict verdict) {
  if (known.result == StepResult::kNone || !IsGood(verdict.result)) known = std::move(verdict);
}

}  // namespace

pnl_err::Error Failed(const std::string& host, const std::string& run, const std::string& reason) {
  return pnl_err::Error(kRunFailed, host, run).add_param("message", host + ": " + reason);
}

bool AsksForPackages(const Looks& looks) {
  return !looks.packages.empty() || !looks.versions.empty();
}

Sight ReadSight(const Answer& answer, const Looks& looks) {
  Reader reader(answer);
  Sight sight;
  ReadMarks(reader, sight);
  for (const std::string& path : looks.texts) sight.files[path] = ReadPlace(reader, path);
  for (const std::string& path : looks.files) {
    Place place = ReadPlace(reader, path);
    sight.files.emplace(path, std::move(place));  // what is known as a text stays
  }
  for (const std::string& path : looks.entries) sight.entries[path] = ReadPlace(reader, path);
  for (const std::string& path : looks.missing) {
    const std::string_view count = reader.Line("d");
    if (count != "-")
      sight.missing[path] = NumberIn<std::size_t>(reader, count);
    else
      sight.missing[path] = std::nullopt;
  }
  for (const std::string& name : looks.parameters) sight.parameters[name] = ReadValue(reader);
  for (const std::string& name : looks.users) sight.users[name] = ReadId(reader);
  for (const std::string& name : looks.groups) sight.groups[name] = ReadId(reader);
  if (AsksForPackages(looks) || looks.family) ReadPackageAnswers(reader, looks, sight);
  reader.Line("end");
  return sight;
}

std::vector<Verdict> ReadMade(const Answer& answer, std::size_t steps, std::size_t asked,
                              std::size_t done) {
  WorkReader reader(answer, TakeLast);
  std::vector<Verdict> verdicts(steps);
  std::fill_n(verdicts.begin(), std::min(done, steps), Verdict{StepResult::kAlready});
  for (auto& [number, verdict] : reader.Verdicts()) {
    if (number >= std::min(asked, steps)) throw reader.NotUnderstood();
    verdicts[number] = std::move(verdict);
  }
  return verdicts;
}

std::vector<Verdict> ReadUndone(const Answer& answer, std::size_t steps,
                                const std::set<std::size_t>& asked, GuardState* guard) {
  WorkReader reader(answer, TakeUnlessBad);
  if (guard != nullptr && !reader.Guard().empty()) {
    const auto state = GuardOf(reader.Guard());
    if (!state) throw reader.NotUnderstood();
    *guard = *state;
  }
  std::vector<Verdict> verdicts(steps, {StepResult::kAlready});
  for (const std::size_t number : asked) verdicts.at(number) = {};
  for (auto& [number, verdict] : reader.Verdicts()) {
    if (!asked.contains(number)) throw reader.NotUnderstood();
    verdicts[number] = std::move(verdict);
  }
  return verdicts;
}

void ReadClaimed(const Answer& answer) {
  const WorkReader reader(answer, TakeLast);
  if (reader.Guard() == "claimed") return;
  if (reader.Guard() == "stays")
    throw reader.Failed("the guard's unit for the next boot cannot be removed");
  const auto state = GuardOf(reader.Guard()).value_or(GuardState::kLost);
  throw reader.Failed(state == GuardState::kLost
                          ? "the guard of this run is gone, for example by a reboot"
                          : "the guard's time was over before a fresh login came, and it has gone "
                            "off");
}

void ReadEnded(const Answer& answer) {
  const WorkReader reader(answer, TakeLast);
  if (!reader.Ended()) throw reader.Failed("it did not say that the kept copies are removed");
}

std::vector<Salvaged> ReadSalvaged(const Answer& answer) {
  WorkReader reader(answer, TakeWorse);
  // What is left of a list of steps that was cut by a crash may have a verdict, but no object.
  for (const auto& [number, verdict] : reader.Verdicts())
    reader.Objects().try_emplace(number, "a step that the host cannot name");
  std::vector<Salvaged> steps;
  bool good = true;
  for (const auto& [number, object] : reader.Objects()) {
    steps.push_back({object, std::move(reader.Verdicts()[number])});
    good = good && IsGood(steps.back().verdict.result);
  }
  if (good && !reader.Ended()) throw reader.Failed("it did not say that all is undone");
  return steps;
}

}  // namespace fleet::answers
