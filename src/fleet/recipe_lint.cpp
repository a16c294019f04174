#include "fleet/recipe_lint.h"

#include <map>
#include <utility>

#include "brefir/recipes.h"
#include "pnl/str.h"

namespace fleet {
namespace {

using recipe::HeaderKind;
using Severity = RecipeFinding::Severity;

constexpr const char* kBegin = "metadata_begin";
constexpr const char* kEnd = "metadata_end";

/// Follows the parser through a script, and records what it would not read as intended.
class HeaderCheck {
 public:
  std::vector<RecipeFinding> Run(std::string_view script) {
    for (++line_; !script.empty() && !ended_; ++line_) Line(str::NextWord(script, '\n'));
    Conclude();
    return std::move(findings_);
  }

 private:
  void Warn(const std::string& fault) { findings_.push_back({line_, Severity::kWarning, fault}); }
  void Refuse(int line, const std::string& fault) {
    findings_.push_back({line, Severity::kError, fault});
  }

  bool Inside() const { return begin_ != 0 && !ended_; }

  void Line(std::string_view raw) {
    const std::string_view line = str::TrimView(raw);  // as the parser gets it from a file
    const recipe::HeaderLine seen = recipe::RecipeParser::Classify(line, Inside());
    if (Inside()) {
      InBlock(seen, line);
    } else if (seen.kind == HeaderKind::kBegin) {
      begin_ = line_;
    } else if (meant_ == 0 && seen.text.find(kBegin) != std::string_view::npos) {
      meant_ = line_;
    }
    if (raw.size() > recipe::kMaxLine) {
      Refuse(line_, "the line is too long: the header is not read beyond it");
      ended_ = true;
    }
    if (Inside() && !line.empty() && raw.front() != line.front()) {
      Warn("the line is indented: it is ignored unless the script is read from a file");
    }
  }

  void InBlock(const recipe::HeaderLine& seen, std::string_view line) {
    switch (seen.kind) {
      case HeaderKind::kNoComment:
        if (!line.empty()) Warn("the line is not a comment: it is ignored");
        return;
      case HeaderKind::kEnd:
        ended_ = true;
        return;
      case HeaderKind::kUnknown:
        Warn("unknown token '" + std::string(seen.token) + "': the line is ignored");
        return;
      case HeaderKind::kComment:
      case HeaderKind::kBegin:
        return;
      default:
        Token(seen);
    }
  }

  void Token(const recipe::HeaderLine& seen) {
    const std::string token(seen.token);
    if (seen.kind == HeaderKind::kName) has_name_ = !seen.value.empty();
    if (seen.kind == HeaderKind::kDescription && seen.language.empty())
      Warn("the description has no language, as in description_en");
    for (const std::string_view tag : TagsOf(seen)) {
      if (tag.empty()) Warn("blanks between commas are an empty tag");
    }
    if (!seen.colon) Warn("there is no colon: '" + token + "' is empty");
    if (seen.kind == HeaderKind::kTags) return;  // several lines are allowed
    if (const int before = std::exchange(lines_[token], line_); before != 0) {
      Warn("'" + token + "' is also in line " + std::to_string(before) + ": this line counts");
    }
  }

  static std::vector<std::string_view> TagsOf(const recipe::HeaderLine& seen) {
    if (seen.kind != HeaderKind::kTags) return {};
    return recipe::RecipeParser::Tags(seen.value);
  }

  void Conclude() {
    if (begin_ == 0) {
      const std::string wanted = std::string("\"# ") + kBegin + "\"";
      return meant_ == 0
                 ? Refuse(1, "there is no line " + wanted)
                 : Refuse(meant_,
                          "this line does not begin a header: the whole line must be " + wanted);
    }
    if (!has_name_) Refuse(begin_, "the header has no name: there is no \"# recipe: NAME\"");
    if (!ended_) {
      Refuse(begin_, std::string("the header has no end: there is no \"# ") + kEnd + "\"");
    }
  }

  int line_ = 0;
  int begin_ = 0;  // of the block
  int meant_ = 0;  // the first line that looks like the beginning but is not
  bool ended_ = false;
  bool has_name_ = false;
  std::map<std::string, int> lines_;  // line numbers by token
  std::vector<RecipeFinding> findings_;
};

}  // namespace

std::vector<RecipeFinding> LintRecipe(std::string_view script) {
  return HeaderCheck().Run(script);
}

}  // namespace fleet
