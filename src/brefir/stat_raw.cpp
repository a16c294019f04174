#include "brefir/stat_raw.h"

#include <algorithm>
#include <charconv>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <utility>

#include "brefir/str_utils.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/str.h"

namespace {

pnl_log::Module log_module("stat");

constexpr int kKeyWidth = 64;

/// Unsigned: a signed result outside of the range would be undefined.
std::int64_t WrappingSum(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

std::int64_t WrappingDifference(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

}  // namespace

namespace Stat {

// --- Fields

Field::Field(Recordset* owner, const std::string& name) : name_(name) {
  owner->Register(this);
}

Field::~Field() = default;

DataFoldType Field::FoldType() {
  return None;
}

void Field::Fold(Field* /*other*/) {}

std::string Field::GetFun() {
  return name_;
}

KeyField& KeyField::operator=(const std::string& text) {
  value_ = text;
  return *this;
}

FieldType KeyField::Type() const {
  return Key;
}

void KeyField::CreateDbField(pnl_db::CustomTable* table) {
  new pnl_db::StringField(table, Name(), kKeyWidth);
}

std::string KeyField::Value() const {
  return value_;
}

void KeyField::Set(const std::string& text) {
  value_ = text;
}

DataField::DataField(Recordset* owner, const std::string& name, bool need_normalize,
                     DataFoldType fold_type)
    : Field(owner, name), need_normalize_(need_normalize), fold_type_(fold_type) {}

DataField& DataField::operator=(long number) {
  value_ = number;
  return *this;
}

FieldType DataField::Type() const {
  return Data;
}

void DataField::CreateDbField(pnl_db::CustomTable* table) {
  new pnl_db::LongField(table, Name());
}

std::string DataField::Value() const {
  return str::Str(value_);
}

DataFoldType DataField::FoldType() {
  return fold_type_;
}

void DataField::Fold(Field* other) {
  const std::int64_t number = str::Int64(other->Value());
  switch (fold_type_) {
    case Sum:
      value_ = WrappingSum(value_, number);
      break;
    case Max:
      value_ = std::max(value_, number);
      break;
    case Min:
      value_ = std::min(value_, number);
      break;
    default:
      value_ = number;
  }
}

void DataField::Set(const std::string& text) {
  value_ = str::Int64(text);
}

std::string DataField::GetFun() {
  const auto aggregate = [this](const char* function) {
    return std::string(function) + "(" + Name() + ") " + Name();
  };
  switch (fold_type_) {
    case Sum:
      return aggregate("sum");
    case Max:
      return aggregate("max");
    case Min:
      return aggregate("min");
    default:
      return Name();
  }
}

// --- Recordsets

Recordset::~Recordset() = default;

void Recordset::Register(Field* field) {
  fields_.push_back(field);
}

std::vector<Field*> Recordset::Fields() {
  return fields_;
}

std::vector<Field*> Recordset::Fields(FieldType type) {
  std::vector<Field*> found;
  std::copy_if(fields_.begin(), fields_.end(), std::back_inserter(found),
               [type](const Field* field) { return field->Type() == type; });
  return found;
}

Field* Recordset::Find(std::string_view name) const {
  const auto found = std::find_if(fields_.begin(), fields_.end(),
                                  [name](const Field* field) { return field->Name() == name; });
  return found == fields_.end() ? nullptr : *found;
}

Field* Recordset::FieldByName(const std::string& name) const {
  if (Field* const field = Find(name)) return field;
  throw pnl_err::Missed("recordset_field", name);
}

void Recordset::SetKeys(const std::vector<std::string>& keys) {
  const std::size_t count = std::min(fields_.size(), keys.size());
  for (std::size_t i = 0; i < count; ++i)
    if (fields_[i]->Type() == Key) fields_[i]->Set(keys[i]);
}

void Recordset::FromQuery(const std::shared_ptr<pnl_db::Query>& query) {
  for (Field* const field : fields_) field->Set(query->AsString(field->Name()));
}

void Recordset::FromXml(pnl_xml::XmlNode node) {
  for (pnl_xml::XmlNode child = node.FirstChild(); child; child = child.Next()) {
    if (!child.IsNode() || child.Name() == "begin") continue;
    if (Field* const field = Find(child.Name())) field->Set(child.Str());
  }
}

void Recordset::Fold(const Recordset& other) {
  count_ = static_cast<int>(WrappingSum(count_, other.count_));
  if (Name() != other.Name()) return;
  for (Field* const field : fields_) {
    Field* const theirs = other.FieldByName(field->Name());
    if (field->Type() != Key) field->Fold(theirs);
  }
}

void Recordset::Normalize() {
  for (Field* const field : fields_) Normalize(*field);
}

void Recordset::Normalize(Field& field) {
  auto* const data = dynamic_cast<DataField*>(&field);
  if (data == nullptr || !data->NeedNormalize()) return;
  Singleton<counter::Cache>::Instance().Normalize(str::Join(GetKeysValues(), ":"), *data);
}

std::vector<std::string> Recordset::GetKeys() {
  std::vector<std::string> names;
  for (const Field* const field : Fields(Key)) names.push_back(field->Name());
  return names;
}

std::vector<std::string> Recordset::GetKeysValues() {
  std::vector<std::string> values;
  for (const Field* const field : Fields(Key)) values.push_back(field->Value());
  std::erase(values, "");
  return values;
}

std::vector<std::string> Recordset::GetKeyNamesAndValues() {
  std::vector<std::string> conditions;
  for (const Field* const field : Fields(Key)) {
    const std::string value = field->Value();
    if (!value.empty()) conditions.push_back(field->Name() + "='" + value + "'");
  }
  return conditions;
}

std::vector<std::string> Recordset::GetDataFields() {
  std::vector<std::string> names;
  for (const Field* const field : Fields(Data)) names.push_back(field->Name());
  return names;
}

void Recordset::FieldDump() {
  for (const Field* const field : fields_)
    PNL_TRACE(log_module, "%s:'%s'", field->Name().c_str(), field->Value().c_str());
}

std::string to_fun(Field* field) {
  return field->Type() == Data ? field->GetFun() : field->Name();
}

// --- The table of counters

CountersTable::CountersTable() : IdTable("counters") {}

}  // namespace Stat

void HeaderDebug(const char* file, int line, const std::string& text) {
  PNL_TRACE(log_module, "%s:%d %s", file, line, text.c_str());
}

// --- The counter cache

namespace counter {
namespace {

constexpr std::string_view kHeader = "# counter cache data\n#name cname value\n";

// Begins an encoded name, in which "%" and two digits stand for a byte.
constexpr std::string_view kMark = "%%";
constexpr std::string_view kSpace = " \t\r\n\v\f";

bool IsWord(std::string_view name) {
  return !name.empty() && !name.starts_with(kMark) &&
         name.find_first_of(kSpace) == std::string_view::npos;
}

void AppendName(std::string& text, std::string_view name, bool plain) {
  const auto stays = [](char c) {
    return c != '%' && c != '#' && kSpace.find(c) == std::string_view::npos;
  };
  if (plain) {
    text += name;
  } else {
    text.append(kMark).append(str::PercentEncode(name, stays));
  }
  text += ' ';
}

/// Decodes a name. A word that begins with the mark but is not encoded is the name itself.
std::string_view Name(std::string_view word, std::string& buffer) {
  const bool marked = word.starts_with(kMark);
  return marked && str::PercentDecode(word.substr(kMark.size()), buffer) ? buffer : word;
}

Cache::Counters Parse(std::string_view text) {
  Cache::Counters counters;
  auto object = counters.end();  // of the previous line, and usually of this one
  std::string buffer;
  while (!text.empty()) {
    std::string_view line = str::TrimView(str::NextWord(text, '\n'));
    if (line.empty() || line.front() == '#') continue;
    const std::string_view name = Name(str::NextWord(line), buffer);
    const std::string_view cname = str::NextWord(line);
    if (cname.empty()) continue;  // when written back, its value would be read as its name
    // The file is sorted: the next entry belongs at the end.
    if (object == counters.end() || object->first != name)
      object = counters.try_emplace(counters.end(), std::string(name));
    object->second.insert_or_assign(object->second.end(), std::string(Name(cname, buffer)),
                                    Value(str::Int64(line)));
  }
  return counters;
}

void AppendNumber(std::string& text, long number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  text.append(digits, static_cast<std::size_t>(end - digits));
}

std::string Text(const Cache::Counters& counters) {
  std::string text(kHeader);
  for (const auto& [name, values] : counters) {
    for (const auto& [cname, value] : values) {
      // A line that began with "#" would be a comment.
      AppendName(text, name, IsWord(name) && name.front() != '#');
      AppendName(text, cname, IsWord(cname));
      AppendNumber(text, value.Val());
      text += '\n';
    }
  }
  return text;
}

}  // namespace

Value& Value::operator=(long number) {
  val_ = number;
  return *this;
}

Value& Value::operator=(const Stat::DataField& field) {
  val_ = field.Int();
  return *this;
}

void Value::Normalize(Value raw) {
  val_ = raw.val_ < val_ ? raw.val_ : WrappingDifference(raw.val_, val_);
}

void Cache::Load() {
  if (loaded_) return;
  const std::unique_lock guard(lock_);
  if (loaded_) return;  // another thread has loaded it
  counters_.clear();
  counters_ = Parse(pnl_file::Read(kFile));
  loaded_ = true;
}

void Cache::Flush() {
  if (!loaded_) return;
  // Held while writing too: otherwise one of two flushes could write an older text last.
  const std::shared_lock guard(lock_);
  pnl_file::Write(kFile, Text(counters_));
}

std::optional<Value> Cache::Find(const std::string& name, const std::string& cname) {
  const std::shared_lock guard(lock_);
  const auto object = counters_.find(name);
  if (object == counters_.end()) return std::nullopt;
  const auto value = object->second.find(cname);
  if (value == object->second.end()) return std::nullopt;
  return value->second;
}

bool Cache::HasCounter(const std::string& name, const std::string& cname) {
  return Find(name, cname).has_value();
}

Value Cache::GetCounter(const std::string& name, const std::string& cname) {
  const std::shared_lock guard(lock_);
  return counters_.at(name).at(cname);
}

void Cache::UpdateCounter(const std::string& name, const std::string& cname, Value v) {
  const std::unique_lock guard(lock_);
  counters_[name][cname] = v;
}

bool Cache::RemoveCounter(const std::string& name, const std::string& cname) {
  const std::unique_lock guard(lock_);
  const auto object = counters_.find(name);
  if (object == counters_.end() || object->second.erase(cname) == 0) return false;
  if (object->second.empty()) counters_.erase(object);
  return true;
}

Cache::Counters Cache::GetCounters() {
  const std::shared_lock guard(lock_);
  return counters_;
}

Value Cache::Advance(const std::string& name, const std::string& cname, Value raw) {
  // One lookup: another thread could remove the counter between a test and a read.
  Value increase;
  if (const std::optional<Value> previous = Find(name, cname)) {
    increase = *previous;
    increase.Normalize(raw);
  }
  UpdateCounter(name, cname, raw);
  return increase;
}

void Cache::Normalize(const std::string& name, Stat::DataField& field) {
  Load();
  field = Advance(name, field.Name(), field).Val();
}

}  // namespace counter
