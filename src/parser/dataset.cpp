#include "parser/dataset.h"

#include <algorithm>
#include <utility>

#include "pnl/err.h"

namespace dd {

Record::~Record() = default;

Field::Field(Record& record, std::string_view name)
    : record_(record), index_(record.cells_.size()) {
  record.cells_.push_back({std::string(name), "", false});
}

void Field::Set(std::string_view value) {
  record_.cells_[index_].value = value;
  record_.cells_[index_].changed = true;
}

}  // namespace dd

namespace {

/// The line end of `text`: that of its last complete line.
const char* LineEnd(std::string_view text) {
  const std::size_t end = text.rfind('\n');
  const bool crlf = end != std::string_view::npos && end > 0 && text[end - 1] == '\r';
  return crlf ? "\r\n" : "\n";
}

}  // namespace

void ConfDataSet::Open(std::shared_ptr<ConfFile> file) {
  file_ = std::move(file);
  text_ = file_->Current();
  First();
}

// --- Moving about

bool LineDataSet::IsRecord(std::size_t line) const {
  return text_->lines[line].words.front() == LinePrefix();
}

/// Reads the fields from a line, or empties them after the last line.
void LineDataSet::GoTo(std::size_t line) {
  line_ = line;
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    const bool present = !Eof() && i + 1 < text_->lines[line].words.size();
    cells_[i].value = present ? text_->lines[line].words[i + 1] : "";
    cells_[i].changed = false;
  }
  key_ = Eof() ? std::nullopt : std::optional(KeyVal());
}

void LineDataSet::GoToNext(std::size_t line) {
  while (line < text_->lines.size() && !IsRecord(line)) ++line;
  GoTo(line);
}

void LineDataSet::First() {
  GoToNext(0);
}

void LineDataSet::Next() {
  if (!Eof()) GoToNext(line_ + 1);
}

bool LineDataSet::Locate(const std::string& key) {
  for (std::size_t line = text_->lines.size(); line-- > 0;) {
    if (!IsRecord(line)) continue;
    GoTo(line);
    if (key_ == key) return true;
  }
  NewRecord();
  return false;
}

void LineDataSet::NewRecord() {
  GoTo(text_->lines.size());
}

// --- Changing the file

void LineDataSet::Post() {
  const std::vector<Cell> draft = cells_;
  const std::string key = key_ ? *key_ : KeyVal();
  const ConfTextPtr posted = file_->Edit([&](const ConfTextPtr& present) {
    text_ = present;
    const bool found = Locate(key);
    cells_ = draft;
    return found ? WithLineChanged() : WithLineAdded();
  });
  const std::string new_key = KeyVal();
  text_ = posted;
  Locate(new_key);
}

void LineDataSet::_Delete() {
  if (!key_) return;
  const std::string key = *key_;
  text_ = file_->Edit([&](const ConfTextPtr& present) {
    text_ = present;
    return WithoutKey(key);
  });
  NewRecord();
}

const std::string& LineDataSet::Word(const Cell& cell) const {
  if (file_->rules().IsWord(cell.value)) return cell.value;
  throw pnl_err::Error(kParserError, "bad_word", cell.value).add_param("field", cell.name);
}

std::string LineDataSet::WithLineAdded() const {
  std::string text = text_->text;
  const char* end = LineEnd(text);
  if (!text.empty() && file_->rules().RoleOf(text.back()) != pnl_token::Role::kLineEnd) text += end;
  text += LinePrefix();
  for (const Cell& cell : cells_) text.append(" ").append(Word(cell));
  return text += end;
}

std::string LineDataSet::WithLineChanged() const {
  const std::vector<std::string_view>& words = text_->lines[line_].words;
  const auto last_changed =
      std::find_if(cells_.rbegin(), cells_.rend(), [](const Cell& cell) { return cell.changed; });
  const auto count = static_cast<std::size_t>(cells_.rend() - last_changed);

  std::string missing;
  for (std::size_t i = words.size() - 1; i < count; ++i) missing += " " + Word(cells_[i]);

  // From right to left, so that the offsets of the remaining words stay valid.
  std::string text = text_->text;
  text.insert(text_->Offset(words.back()) + words.back().size(), missing);
  for (std::size_t i = std::min(count, words.size() - 1); i-- > 0;) {
    if (!cells_[i].changed) continue;
    text.replace(text_->Offset(words[i + 1]), words[i + 1].size(), Word(cells_[i]));
  }
  return text;
}

std::string LineDataSet::WithoutKey(const std::string& key) {
  std::string kept;
  std::size_t from = 0;
  for (First(); !Eof(); Next()) {
    if (key_ != key) continue;
    const std::string_view line = text_->lines[line_].text;
    kept.append(text_->text, from, text_->Offset(line) - from);
    from = text_->Offset(line) + line.size();
  }
  return kept.append(text_->text, from);
}
