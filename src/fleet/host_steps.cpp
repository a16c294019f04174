#include "fleet/host_steps.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <utility>

#include "brefir/str_utils.h"
#include "fleet/package_plan.h"
#include "fleet/package_scripts.h"
#include "fleet/run_scripts.h"
#include "pnl/cksum.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

constexpr std::size_t kNonceBytes = 8;
constexpr const char* kLookName = "look";

pnl_err::Error Failed(const pnl_host::Host& host, const std::string& run,
                      const std::string& reason) {
  return pnl_err::Error(kRunFailed, host.Name(), run)
      .add_param("message", host.Name() + ": " + reason);
}

std::string Nonce() {
  return str::hex::Encode(str::Random(kNonceBytes));
}

/// On this host, a signal of the terminal must not end a command in the middle.
std::string CommandFor(const pnl_host::Host& host, const std::string& script,
                       const std::vector<std::string>& words) {
  const std::string command = pnl_host::PortableCommand(script, "brefir-run", words);
  return host.IsLocal() ? "setsid " + command : command;
}

// --- Reading an answer

template <class Number>
bool ReadNumber(std::string_view word, Number& number, int base = 10) {
  const char* const end = word.data() + word.size();
  const auto read = std::from_chars(word.data(), end, number, base);
  return read.ec == std::errc() && read.ptr == end && !word.empty();
}

/// The answer to a look, from front to back.
class Answer {
 public:
  Answer(const pnl_host::Host& host, const std::string& nonce, const pnl_host::Outcome& run)
      : host_(host), nonce_(nonce), complaint_(run.complaint), rest_(run.output) {}

  /// The next line without the nonce; it begins with `kind`, which is left out.
  std::string_view Line(const char* kind) {
    std::string_view line = Raw();
    if (str::NextWord(line, ' ') != nonce_ || str::NextWord(line, ' ') != kind) throw Cut();
    return line;
  }
  bool IsNext(const char* kind) const {
    return rest_.substr(0, rest_.find('\n')).starts_with(nonce_ + " " + kind);
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
  pnl_err::Error Cut() const {
    return Failed(
        host_, kLookName,
        "its answer is not complete, or a file was changed while it was read: try again" +
            (complaint_.empty() ? "" : " (" + str::Replace(complaint_, "\n", "; ") + ")"));
  }

 private:
  const pnl_host::Host& host_;
  std::string nonce_;
  std::string complaint_;
  std::string_view rest_;
};

template <class Number>
Number NumberIn(const Answer& answer, std::string_view word, int base = 10) {
  Number number{};
  if (!ReadNumber(word, number, base)) throw answer.Cut();
  return number;
}

std::string FromHex(const Answer& answer, std::string_view digits) {
  constexpr int kHex = 16;
  std::string bytes;
  for (; digits.size() >= 2; digits.remove_prefix(2))
    bytes += static_cast<char>(NumberIn<unsigned char>(answer, digits.substr(0, 2), kHex));
  if (bytes.ends_with('\n')) bytes.pop_back();
  return bytes;
}

PathKind KindOf(unsigned mode) {
  if (S_ISREG(mode)) return PathKind::kFile;
  if (S_ISDIR(mode)) return PathKind::kDirectory;
  return S_ISLNK(mode) ? PathKind::kLink : PathKind::kOther;
}

/// "LENGTH CONTENT missing", "nowhere" when its directory is missing, too, or "LENGTH CONTENT MODE UID GID TIME SIZE": lengths of the path and of
/// the content, or "s" and the sum of the content. Path, target of a link in hexadecimal digits,
/// content and an end line follow.
Place ReadPlace(Answer& answer, const pnl_host::Host& host, const std::string& path) {
  constexpr int kHex = 16;
  constexpr unsigned kPermissions = 07777;
  std::string_view line = answer.Line("f");
  const auto length = NumberIn<std::size_t>(answer, str::NextWord(line, ' '));
  const std::string_view content = str::NextWord(line, ' ');
  const std::string_view first = str::NextWord(line, ' ');
  if (first == "unreadable")
    throw Failed(host, kLookName, "'" + path + "' cannot be read by this user");
  Place place{.path = std::string(answer.Bytes(length)), .state = {}};
  if (length == 0) place.path = path;
  place.has_folder = first != "nowhere";
  if (first != "missing" && place.has_folder) {
    const auto mode = NumberIn<unsigned>(answer, first, kHex);
    place.state.kind = KindOf(mode);
    place.state.mode = mode & kPermissions;
    const std::string_view uid = str::NextWord(line, ' ');
    place.state.owner = std::string(uid) + ":" + std::string(str::NextWord(line, ' '));
    place.time = NumberIn<std::int64_t>(answer, str::NextWord(line, ' '));
  }
  place.state.target = FromHex(answer, answer.Raw());
  if (place.state.kind == PathKind::kFile) {
    place.state.size = NumberIn<std::uint64_t>(answer, line);
    if (content.starts_with('s')) {
      place.state.sum = NumberIn<std::uint32_t>(answer, content.substr(1));
      answer.Bytes(0);
    } else {
      place.state.content =
          std::make_shared<const std::string>(answer.Bytes(NumberIn<std::size_t>(answer, content)));
      place.state.sum = pnl_file::Cksum::Of(*place.state.content);
    }
  } else {
    answer.Bytes(0);
  }
  answer.Line("e");
  return place;
}

/// "LENGTH", and a text of that length.
std::string ReadText(Answer& answer) {
  return std::string(answer.Bytes(NumberIn<std::size_t>(answer, answer.Line("o"))));
}

constexpr std::array<const char*, 4> kActions = {"install", "remove", "update", "all"};

std::string QuestionOf(const PackageRequest& request) {
  std::string words = kActions[static_cast<std::size_t>(request.action)];
  for (const std::string& name : request.names) words += " " + name;
  return words;
}

/// The family, and with packages or versions: the list of all packages, and the plans.
void ReadPackageAnswers(Answer& answer, const pnl_host::Host& host, const Looks& looks,
                        Sight& sight) {
  PackageAnswer known;
  std::string_view system = answer.Line("y");
  const std::string_view family = str::NextWord(system, ' ');
  if (family == "debian") known.family = PackageFamily::kDebian;
  if (family == "redhat") known.family = PackageFamily::kRedHat;
  known.machine = str::NextWord(system, ' ');
  known.manager = system;
  sight.family = known.family;
  if (looks.packages.empty() && looks.versions.empty()) return;
  known.installed = ReadPackages(ReadText(answer));
  if (known.installed.empty() && !known.manager.empty())
    throw Failed(host, kLookName, "the list of its packages cannot be read");
  for (const PackageRequest& request : looks.packages) {
    known.code = NumberIn<int>(answer, answer.Line("k"));
    known.plan = ReadText(answer);
    known.available = ReadText(answer);
    known.automatic = ReadText(answer);
    sight.packages[request] = ReadPackagePlan(request, known);
  }
  for (const std::string& name : looks.versions) {
    const auto found = known.installed.find(name);
    const bool is_there = found != known.installed.end() && found->second != "config";
    sight.versions[name] = is_there ? found->second : "";
  }
}

KernelValue ReadValue(Answer& answer) {
  if (answer.IsNext("p")) return {std::string(answer.Line("p")), ""};
  return {std::nullopt, std::string(answer.Line("q"))};
}

// --- Writing the steps

std::string StateWord(const PathState& state) {
  if (!state.is_known) return "-";  // the host has it in its list
  switch (state.kind) {
    case PathKind::kMissing:
      return "missing";
    case PathKind::kFile:
      return "file:" + std::to_string(state.sum) + ":" + std::to_string(state.size);
    case PathKind::kDirectory:
      return "directory";
    case PathKind::kLink:
      return "link:" + std::to_string(pnl_file::Cksum::Of(state.target)) + ":" +
             std::to_string(state.target.size());
    case PathKind::kOther:
      return "other";
  }
  return "";
}

std::string ModeWord(const PathState& state) {
  return state.mode ? str::Format("%o", *state.mode) : "-";
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

std::string OrNone(const std::string& word) {
  return word.empty() ? "-" : word;
}

std::string EncodedOrNone(const std::string& word) {
  return word.empty() ? "-" : pnl_host::EncodedWord(word);
}

/// A step as the script reads it.
struct Order {
  std::string form;
  std::string object;
  std::string before;
  std::string after;
  std::string size = "-";
  std::string mode = "-";
  std::string owner = "-";
  std::string extra = "-";  ///< a path

  std::string Line(std::size_t number) const {
    return std::to_string(number) + " " + form + " " + pnl_host::EncodedWord(object) + " " +
           before + " " + after + " " + size + " " + mode + " " + owner + " " +
           (extra == "-" ? extra : pnl_host::EncodedWord(extra)) + "\n";
  }
};

/// The order for a path that goes from one state to another. `undoing`: what is no file or link comes
/// from the kept copy only.
Order PathOrder(const RunStep& step, bool undoing) {
  constexpr const char* kNewMode = "644";
  const PathState& after = step.after;
  Order order{.form = "",
              .object = step.object,
              .before = StateWord(step.before),
              .after = StateWord(after),
              .mode = ModeWord(after),
              .owner = OrNone(after.owner)};
  if (step.before.SameContent(after) && after.kind != PathKind::kMissing) {
    if (step.before.time && after.time) {
      order.form = "time";
      order.before = std::to_string(*step.before.time);
      order.after = std::to_string(*after.time);
      return order;
    }
    order.form = "attributes";
    order.before = ModeWord(step.before) + ":" + step.before.owner;
    order.after = ModeWord(after) + ":" + after.owner;
    return order;
  }
  switch (after.kind) {
    case PathKind::kMissing:
      order.form = "gone";
      break;
    case PathKind::kFile:
      order.form = "file";
      if (step.before.kind != PathKind::kFile) {
        if (order.mode == "-") order.mode = kNewMode;
        break;
      }
      // What stays is what the file has when its turn comes.
      if (step.before.mode == after.mode) order.mode = "-";
      if (step.before.owner == after.owner) order.owner = "-";
      break;
    case PathKind::kLink:
      order.form = "link";
      order.extra = after.target;
      break;
    case PathKind::kDirectory:
      order.form = undoing ? "kept" : "directory";
      if (order.mode == "-") order.mode = "755";
      break;
    case PathKind::kOther:
      order.form = "kept";
      break;
  }
  return order;
}

/// "NAME=VERSION,NAME=missing"; "none" for no packages.
std::string VersionsWord(const PackageMoves& moves, std::string PackageMove::*side) {
  std::string word;
  for (const auto& [name, move] : moves)
    word.append(word.empty() ? "" : ",")
        .append(name)
        .append("=")
        .append((move.*side).empty() ? "missing" : move.*side);
  return word.empty() ? "none" : word;
}

Order OrderOf(const RunStep& step, bool undoing) {
  switch (step.form) {
    case StepForm::kParameter: {
      const bool is_known = !step.secret || !step.value.empty();
      return {.form = "parameter",
              .object = step.object,
              .before = is_known ? "=" + pnl_host::EncodedWord(step.value_before) : "-",
              .after = is_known ? "=" + pnl_host::EncodedWord(step.value) : "-"};
    }
    case StepForm::kMove:
      return {.form = "move",
              .object = step.object,
              .before = StateWord(step.before),
              .after = StateWord(step.after),
              .extra = step.from};
    case StepForm::kCopy: {
      Order order = PathOrder(step, undoing);
      order.form = "copy";
      order.extra = step.from;
      return order;
    }
    case StepForm::kCommand:
      return {.form = "command",
              .object = step.object,
              .before = "none",
              .after = "run",
              .owner = undoing ? "-" : EncodedOrNone(step.undo),
              .extra = OrNone(undoing ? step.undo : step.make)};
    case StepForm::kService:
      return {.form = "service",
              .object = step.object,
              .before = "none",
              .after = "run",
              .mode = step.follows.empty() ? "-" : "again",
              .extra = step.make};
    case StepForm::kPackages:
      return {.form = "packages",
              .object = step.object,
              .before = VersionsWord(step.packages, &PackageMove::before),
              .after = VersionsWord(step.packages, &PackageMove::after),
              .extra = undoing ? "-" : step.make};
    case StepForm::kPath:
      return PathOrder(step, undoing);
    case StepForm::kLate:
      break;
  }
  return {};
}

/// What one command gets and answers.
class Work {
 public:
  Work(pnl_host::Host& host, const RunMark& run, const char* mode, std::size_t done = 0)
      : host_(host), run_(run), mode_(mode), done_(done) {}

  void Add(std::size_t number, const RunStep& step, bool undoing, bool with_content,
           bool whatever_is_kept = false) {
    Order order = OrderOf(step, undoing);
    const bool is_file = order.form == "file";
    if (is_file && whatever_is_kept) order.form = "lines";
    if (is_file && with_content) {
      order.size = std::to_string(step.after.size);
      if (step.after.size != 0) contents_.push_back(&step);
    }
    if (step.form == StepForm::kPackages) has_packages_ = true;
    input_ += order.Line(number);
  }

  /// Runs it. Calls `take` for each verdict. Returns whether the host has ended the run.
  bool Do(const std::function<void(std::size_t number, Verdict verdict)>& take) {
    const std::string nonce = Nonce();
    // Every user of the host sees command lines: steps and content go through the input.
    pnl_host::Command command = host_.Start(CommandFor(
        host_, Script(),
        {nonce, mode_, run_.name, std::to_string(run_.epoch), std::to_string(run_.wait),
         run_.take ? "take" : "-", std::to_string(contents_.size()), run_.fence ? "fence" : "-",
         run_.machine.empty() ? "-" : run_.machine, run_.known ? str::Join(*run_.known, " ") : "*",
         run_.committed ? "committed"
         : run_.made    ? "made"
                        : "-",
         std::to_string(run_.command_limit), std::to_string(done_)}));
    command.In() << input_ << ".\n";
    for (const RunStep* step : contents_) Send(command.In(), *step);
    command.CloseIn();
    const std::string output = command.Str();
    return Read(output, command.Complaint(), nonce, take);
  }

  /// The objects of the steps that the host knows, by number.
  const std::map<std::size_t, std::string>& Objects() const { return objects_; }

 private:
  /// Of a run to be salvaged only the host knows whether it has packages.
  std::string Script() const {
    if (!has_packages_ && mode_ != std::string_view("salvage"))
      return std::string(scripts::kWords) + scripts::kWork;
    return std::string(scripts::kWords) + scripts::kPackages + scripts::kPackageSteps +
           scripts::kWork;
  }

  static void Send(std::ostream& in, const RunStep& step) {
    if (step.after.content) {
      in << *step.after.content;
      return;
    }
    pnl_file::OpenFile file = pnl_file::OpenRegular(step.source);
    std::vector<char> block(std::size_t{1} << 18);
    while (const std::size_t size =
               pnl_file::ReadSome(file.fd.Get(), block.data(), block.size(), step.source))
      in.write(block.data(), static_cast<std::streamsize>(size));
  }

  bool Read(std::string_view output, const std::string& said, const std::string& nonce,
            const std::function<void(std::size_t, Verdict)>& take) {
    // Shells put their name before what they say.
    const std::string complaint = str::Replace(
        str::Replace(str::Replace(str::Trim(said), "brefir-run: 1: ", ""), "\r", ""), "\n", "; ");
    bool ended = false;
    bool complete = false;
    while (!output.empty()) {
      std::string_view line = str::NextWord(output, '\n');
      if (str::NextWord(line, ' ') != nonce) continue;
      const std::string_view kind = str::NextWord(line, ' ');
      if (kind == "refused") throw Refused(line, complaint);
      if (kind == "ended") ended = true;
      if (kind == "end") complete = true;
      if (kind == "step") ReadVerdict(line, complaint, take);
      if (kind == "object") ReadObject(line);
      if (kind == "out") ReadOutput(line);
      if (kind == "moved") ReadMove(line);
    }
    if (complete) return ended;
    throw Failed(host_, run_.name, str::Append("its answer is not complete", complaint, ": "));
  }

  void ReadObject(std::string_view line) {
    std::size_t number = 0;
    if (ReadNumber(str::NextWord(line, ' '), number)) objects_[number] = Decoded(line);
  }

  void ReadOutput(std::string_view line) {
    std::size_t number = 0;
    if (!ReadNumber(str::NextWord(line, ' '), number)) return;
    if (line.ends_with('\r')) line.remove_suffix(1);
    outputs_[number].append(line) += '\n';
  }

  void ReadMove(std::string_view line) {
    std::size_t number = 0;
    if (!ReadNumber(str::NextWord(line, ' '), number)) return;
    const auto version = [&] {
      const std::string word(str::NextWord(line, ' '));
      return word == "missing" ? "" : word;
    };
    PackageMove& move = moves_[number][std::string(str::NextWord(line, ' '))];
    move.before = version();
    move.after = version();
  }

  pnl_err::Error Refused(std::string_view reason, const std::string& complaint) const {
    const std::string why =
        reason.starts_with("epoch ")
            ? "another process has taken the run over, or the journal is older than what this node "
              "knows of the run (" +
                  std::string(reason) + ")"
            : str::Append(std::string(reason), complaint, ": ");
    return Failed(host_, run_.name, why).add_param(kRefused, "1");
  }

  void ReadVerdict(std::string_view line, const std::string& complaint,
                   const std::function<void(std::size_t, Verdict)>& take) const {
    std::size_t number = 0;
    if (!ReadNumber(str::NextWord(line, ' '), number))
      throw Failed(host_, run_.name, "its answer is not understood");
    const std::string_view word = str::NextWord(line, ' ');
    Verdict verdict{StepResult::kFailed, str::Append(std::string(line), complaint, ": ")};
    if (word == "done") verdict = {StepResult::kDone, std::string(line)};
    if (word == "already") verdict = {StepResult::kAlready};
    if (word == "wanted") verdict.result = StepResult::kWanted;
    const bool has_reason = line.starts_with("because ");
    if (word == "conflict")
      verdict = {StepResult::kConflict,
                 has_reason ? std::string(line.substr(sizeof("because"))) : ""};
    const auto moves = moves_.find(number);
    if (moves != moves_.end()) verdict.packages = moves->second;
    const auto output = outputs_.find(number);
    if (output != outputs_.end()) verdict.output = output->second;
    take(number, std::move(verdict));
  }

  pnl_host::Host& host_;
  const RunMark& run_;
  const char* mode_;
  std::size_t done_;
  std::map<std::size_t, std::string> objects_;
  std::map<std::size_t, std::string> outputs_;  // of commands, by the step's number
  std::map<std::size_t, PackageMoves> moves_;   // by the step's number
  bool has_packages_ = false;
  std::string input_;
  std::vector<const RunStep*> contents_;
};

}  // namespace

// --- Looking

const PathState& Sight::At(const std::string& path) const {
  const auto found = files.find(path);
  if (found == files.end()) throw pnl_err::Missed("path", path);
  return found->second.state;
}

Sight Look(pnl_host::Host& host, const Looks& looks, std::uint64_t limit) {
  std::string input;
  const auto ask = [&](const char* kind, const std::set<std::string>& words) {
    for (const std::string& word : words)
      input.append(kind).append(" ").append(pnl_host::EncodedWord(word)) += '\n';
  };
  ask("T", looks.texts);
  ask("F", looks.files);
  ask("N", looks.entries);
  ask("D", looks.missing);
  ask("P", looks.parameters);
  ask("U", looks.users);
  ask("G", looks.groups);
  const bool packages = !looks.packages.empty() || !looks.versions.empty();
  if (packages || looks.family) input += "Y -\n";
  if (packages) input += "L -\n";
  for (const PackageRequest& request : looks.packages)
    input += "Q " + pnl_host::EncodedWord(QuestionOf(request)) + "\n";
  const std::string nonce = Nonce();
  const std::string script =
      scripts::kWords +
      (packages || looks.family ? std::string(scripts::kPackages) + scripts::kPackagePlans : "") +
      scripts::kLook;
  const pnl_host::Outcome run =
      host.Run(CommandFor(host, script,
                          {nonce, std::to_string(limit), std::to_string(pnl_host::Host::kMaxText)}),
               input);
  Answer answer(host, nonce, run);
  Sight sight;
  sight.machine = answer.Line("m");
  while (answer.IsNext("r")) {
    std::string_view line = answer.Line("r");
    const std::string name(str::NextWord(line, ' '));
    sight.runs[name] = NumberIn<std::int64_t>(answer, line);
  }
  for (const std::string& path : looks.texts) sight.files[path] = ReadPlace(answer, host, path);
  for (const std::string& path : looks.files) {
    Place place = ReadPlace(answer, host, path);
    sight.files.emplace(path, std::move(place));  // what is known as a text stays
  }
  for (const std::string& path : looks.entries) sight.entries[path] = ReadPlace(answer, host, path);
  for (const std::string& path : looks.missing) {
    const std::string_view count = answer.Line("d");
    if (count != "-")
      sight.missing[path] = NumberIn<std::size_t>(answer, count);
    else
      sight.missing[path] = std::nullopt;
  }
  for (const std::string& name : looks.parameters) sight.parameters[name] = ReadValue(answer);
  for (const std::string& name : looks.users) sight.users[name] = answer.Line("i");
  for (const std::string& name : looks.groups) sight.groups[name] = answer.Line("i");
  if (packages || looks.family) ReadPackageAnswers(answer, host, looks, sight);
  answer.Line("end");
  return sight;
}

// --- Working

std::vector<Verdict> MakeSteps(pnl_host::Host& host, const RunMark& run,
                               const std::vector<RunStep>& steps, std::size_t done) {
  Work work(host, run, "make", done);
  for (std::size_t i = 0; i < steps.size() && steps[i].form != StepForm::kLate; ++i)
    work.Add(i, steps[i], false, i >= done);
  std::vector<Verdict> verdicts(steps.size());
  std::fill_n(verdicts.begin(), std::min(done, steps.size()), Verdict{StepResult::kAlready});
  work.Do([&](std::size_t i, Verdict verdict) {
    if (i < verdicts.size()) verdicts[i] = std::move(verdict);
  });
  return verdicts;
}

/// The numbers of the steps in the order in which they are undone: the last one first, but a service
/// behind all that it follows.
static std::vector<std::size_t> UndoOrder(const std::vector<RunStep>& steps) {
  std::map<std::size_t, std::vector<std::size_t>> after;  // services by the step that they wait for
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (steps[i].form != StepForm::kService || steps[i].follows.empty()) continue;
    const std::set<std::string> follows(steps[i].follows.begin(), steps[i].follows.end());
    const auto first = std::find_if(steps.begin(), steps.end(), [&](const RunStep& step) {
      return follows.contains(step.object);
    });
    after[std::min(i, static_cast<std::size_t>(first - steps.begin()))].push_back(i);
  }
  std::vector<std::size_t> order;
  for (std::size_t i = steps.size(); i-- > 0;) {
    if (steps[i].form != StepForm::kService && steps[i].form != StepForm::kLate) order.push_back(i);
    order.insert(order.end(), after[i].begin(), after[i].end());
  }
  return order;
}

std::vector<Verdict> UndoSteps(pnl_host::Host& host, const RunMark& run,
                               const std::vector<RunStep>& steps, bool content,
                               const std::map<std::size_t, RunStep>& instead) {
  // A step may need several to be undone. They keep its number, by which the host finds what it has
  // kept; of their verdicts the worst counts.
  const std::vector<std::size_t> order = UndoOrder(steps);
  std::vector<std::vector<RunStep>> back(steps.size());
  std::vector<Verdict> verdicts(steps.size(), {StepResult::kAlready});  // what is not undone at all
  Work work(host, run, "undo");
  for (const std::size_t i : order) {
    back[i] = instead.contains(i) ? std::vector{instead.at(i)} : Inverse(steps[i]);
    for (const RunStep& step : back[i])
      work.Add(i, step, true, content && step.after.content != nullptr, instead.contains(i));
    verdicts[i] = {};
  }
  work.Do([&](std::size_t i, Verdict verdict) {
    if (i >= verdicts.size()) return;
    const bool good = verdicts[i].result == StepResult::kNone ||
                      verdicts[i].result == StepResult::kDone ||
                      verdicts[i].result == StepResult::kAlready;
    if (good) verdicts[i] = std::move(verdict);
  });
  return verdicts;
}

void EndSteps(pnl_host::Host& host, const RunMark& run) {
  Work work(host, run, "end");
  if (!work.Do([](std::size_t, const Verdict&) {}))
    throw Failed(host, run.name, "it did not say that the kept copies are removed");
}

std::vector<Salvaged> SalvageRun(pnl_host::Host& host, const RunMark& run) {
  Work work(host, run, "salvage");
  std::map<std::size_t, Verdict> verdicts;
  const bool ended = work.Do([&](std::size_t i, Verdict verdict) {
    const auto [known, is_new] = verdicts.emplace(i, verdict);
    const bool worse =
        verdict.result != StepResult::kDone && verdict.result != StepResult::kAlready;
    if (worse && !is_new) known->second = std::move(verdict);
  });
  std::vector<Salvaged> steps;
  bool good = true;
  for (const auto& [number, object] : work.Objects()) {
    steps.push_back({object, verdicts[number]});
    const StepResult result = steps.back().verdict.result;
    good = good && (result == StepResult::kDone || result == StepResult::kAlready);
  }
  if (good && !ended) throw Failed(host, run.name, "it did not say that all is undone");
  return steps;
}

}  // namespace fleet
