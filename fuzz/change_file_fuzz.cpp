// Files of commands, and the values of nodes in them.

#include <algorithm>
#include <string>

#include "check.h"
#include "fleet/change_file.h"
#include "fleet/shell_words.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::Text(data, size));
  const StringMap values = {{"name", "-web 1"}, {"role", "{node.name}"}};
  fleet::ChangeFile file;
  try {
    file = fleet::ReadChangeFile(text, "f");
  } catch (const pnl_err::Error& error) {
    fuzz::Check(error.type() == fleet::kChangeFileError, "the error");
    return 0;
  }
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const pnl_err::Error& mistake : file.mistakes)
    fuzz::Check(mistake.param("message").starts_with("f:" + mistake.param("line") + ": "),
                "its line");
  std::size_t before = 0;
  std::string again;
  for (const fleet::ChangeLine& line : file.lines) {
    fuzz::Check(line.number > before && line.number <= lines && !line.words.empty(), "a line");
    before = line.number;
    again += "brefirctl";
    for (const std::string& word : line.words) {
      again += " " + fleet::QuotedWord(word);
      try {
        const std::string filled = fleet::FilledIn(word, values);
        fuzz::Check(line.has_values || filled == word, "a word without values");
      } catch (const pnl_err::Missed& missed) {
        fuzz::Check(missed.object() == "value" && line.has_values, "a missing value");
      }
    }
    again += "\n";
  }
  const fleet::ChangeFile same = fleet::ReadChangeFile(again, "f");
  fuzz::Check(same.mistakes.empty() && same.lines.size() == file.lines.size(),
              "the same lines again");
  for (std::size_t i = 0; i < same.lines.size(); ++i)
    fuzz::Check(same.lines[i].words == file.lines[i].words, "the same words again");
  return 0;
}
