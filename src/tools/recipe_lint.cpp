// recipe lint: what is wrong with a recipe's header.

#include <map>
#include <utility>

#include "pnl/file.h"
#include "tools/recipes.h"

namespace tools {
namespace {

constexpr const char* kBegin = "metadata_begin";
constexpr const char* kEnd = "metadata_end";
constexpr std::string_view kDescription = "description_";

/// Goes through a script as its parser does, and notes what it would not take as it is meant.
class HeaderCheck {
 public:
  explicit HeaderCheck(std::string_view script) {
    for (++line_; !script.empty() && state_ != State::kAfter; ++line_) {
      Line(str::NextWord(script, '\n'));
    }
    Conclude();
  }

  const std::vector<Record>& Faults() const { return faults_; }
  bool Usable() const { return usable_; }

 private:
  enum class State { kBefore, kInside, kAfter };

  void Note(int line, const char* severity, const std::string& fault) {
    faults_.push_back(Record().Add("line", line).Add("severity", severity).Add("fault", fault));
  }
  void Warn(const std::string& fault) { Note(line_, "warning", fault); }
  void Refuse(int line, const std::string& fault) {
    Note(line, "error", fault);
    usable_ = false;
  }

  void Line(std::string_view raw) {
    const std::string_view line = str::TrimView(raw);
    const std::string_view text = recipe::RecipeParser::HeaderText(line);
    if (state_ == State::kBefore) {
      Before(text);
    } else if (!text.empty()) {
      Inside(text);
    } else if (!line.empty() && !line.starts_with('#')) {
      Warn("the line is no comment: it is ignored");
    }
    if (raw.size() > recipe::kMaxLine) {
      Refuse(line_, "the line is too long: the header is not read beyond it");
      state_ = State::kAfter;
    }
    if (state_ == State::kInside && !line.empty() && raw.front() != line.front()) {
      Warn("the line is indented: it is not seen in a script that is not read from a file");
    }
  }

  void Before(std::string_view text) {
    if (text == kBegin) {
      state_ = State::kInside;
      begin_ = line_;
    } else if (meant_ == 0 && text.find(kBegin) != std::string_view::npos) {
      meant_ = line_;
    }
  }

  void Inside(std::string_view text) {
    const bool colon = text.find(':') != std::string_view::npos;
    const std::string token = str::Trim(str::NextWord(text, ':'));
    const std::string_view value = str::TrimView(text);
    if (token == kEnd) {
      state_ = State::kAfter;
      return;
    }
    if (token == "recipe") {
      has_name_ = !value.empty();
    } else if (token == "tags") {
      Tags(value);
    } else if (token == kDescription) {
      Warn("the description has no language: description_en");
    } else if (token != "revision" && !token.starts_with(kDescription)) {
      Warn("unknown token '" + token + "': the line is ignored");
      return;
    }
    if (!colon) Warn("there is no colon: '" + token + "' is empty");
    if (token == "tags") return;
    if (const int before = std::exchange(seen_[token], line_); before != 0) {
      Warn("'" + token + "' was in line " + std::to_string(before) + ": this one counts");
    }
  }

  void Tags(std::string_view value) {
    while (!value.empty()) {
      const std::string_view piece = str::NextWord(value, ',');
      if (!piece.empty() && str::TrimView(piece).empty()) {
        Warn("blanks between commas are an empty tag");
      }
    }
  }

  void Conclude() {
    if (begin_ == 0) {
      const std::string wanted = std::string("\"# ") + kBegin + "\"";
      return meant_ == 0
                 ? Refuse(1, "there is no line " + wanted)
                 : Refuse(meant_, "this begins no header: the whole line must be " + wanted);
    }
    if (!has_name_) Refuse(begin_, "the header names no recipe: there is no \"# recipe: NAME\"");
    if (state_ == State::kInside) {
      Refuse(begin_, std::string("the header has no end: there is no \"# ") + kEnd + "\"");
    }
  }

  State state_ = State::kBefore;
  int line_ = 0;
  int begin_ = 0;
  int meant_ = 0;  // the first line that looks like a beginning and is none
  bool has_name_ = false;
  bool usable_ = true;
  std::map<std::string, int> seen_;  // tokens, and where
  std::vector<Record> faults_;
};

int Lint(Context& context) {
  const std::string path = context.Path(context.values.Str("FILE"));
  const HeaderCheck check(pnl_file::ReadE(path));
  context.out.List(check.Faults());
  return check.Usable() ? kDone : kFailed;
}

void Describe(opts::Args& args) {
  args.Positional("FILE").Help("a script");
}

}  // namespace

Command RecipeLint() {
  return {"lint",
          "Checks a script's header; its exit code is 1 for an error.",
          Describe,
          Lint,
          {"web.sh"},
          {{"line", "where it is; the first is 1"},
           {"severity", "error: the recipe cannot be used; warning: not all is taken as meant"},
           {"fault", "what is wrong"}}};
}

}  // namespace tools
