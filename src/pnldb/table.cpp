#include <algorithm>
#include <optional>
#include <utility>

#include "pnl/utf8.h"
#include "pnldb/connection.h"
#include "pnldb/db.h"

namespace pnl_db {

namespace {

// PostgreSQL silently cuts longer names.
constexpr std::size_t kMaxName = 63;

// The lock's number. All releases must use the same one.
constexpr const char* kSchemaLock = "7305804402300416";

void CheckName(const std::string& name) {
  if (!name.empty() && name.size() <= kMaxName && name.find('\0') == std::string::npos) return;
  throw DbError("column", name, "a name has 1 to 63 bytes", "42602");
}

/// Adds `item` to a list with `separator` between its items.
void Append(std::string& list, std::string_view item, std::string_view separator = ", ") {
  if (!list.empty()) list += separator;
  list += item;
}

}  // namespace

// --- Fields

Field::Field(CustomTable* table, const std::string& name) : name_(name) {
  CheckName(name);
  const std::vector<std::string> columns = table->Columns();
  if (std::find(columns.begin(), columns.end(), name) != columns.end()) {
    throw DbError("column", name, "the table has this column already", "42701");
  }
  // Nothing may throw from here on: the table would keep a pointer to a destroyed field.
  table->fields_.push_back(this);
}

Field::~Field() = default;

StringField::StringField(CustomTable* table, const std::string& name, int width)
    : Field(table, name), width_(width) {}

StringField::~StringField() = default;

StringField& StringField::operator=(const std::string& value) {
  value_ = value;
  return *this;
}

std::string StringField::Definition() const {
  return "varchar(" + std::to_string(width_) + ") not null default ''";
}

std::string StringField::Value() const {
  // SQLite would accept any length.
  if (utf8::Count(value_) <= static_cast<std::size_t>(width_)) return value_;
  throw DbError("value", Name(), "longer than " + std::to_string(width_) + " characters", "22001");
}

void StringField::Set(const std::string& value) {
  value_ = value;
}

LongField::LongField(CustomTable* table, const std::string& name) : Field(table, name) {}

LongField::~LongField() = default;

LongField& LongField::operator=(std::int64_t value) {
  value_ = value;
  return *this;
}

std::string LongField::Definition() const {
  return "bigint not null default 0";
}

std::string LongField::Value() const {
  return str::Str(value_);
}

void LongField::Set(const std::string& value) {
  value_ = str::Int64(value);
}

// --- Tables

CustomTable::CustomTable(std::string name) : CustomTable(std::move(name), false) {}

CustomTable::CustomTable(std::string name, bool has_identity)
    : name_(std::move(name)), has_identity_(has_identity) {
  CheckName(name_);
}

CustomTable::~CustomTable() {
  for (Field* field : fields_) delete field;
}

IdTable::IdTable(std::string name) : CustomTable(std::move(name), true) {}

IdTable::~IdTable() = default;

std::vector<std::string> CustomTable::Columns() const {
  std::vector<std::string> names;
  names.reserve(fields_.size());
  for (const Field* field : fields_) names.push_back(field->Name());
  return names;
}

void CustomTable::Create(Cache& cache) const {
  std::optional<Transaction> transaction;
  if (!cache.pool_->InTransaction()) transaction.emplace(cache);
  const Dialect& dialect = cache.pool_->Take("execute", name_)->GetDialect();
  // Without this lock, two processes that make the same table at the same time would fail.
  if (*dialect.lock != '\0') cache.Execute(dialect.lock, {kSchemaLock});

  const std::string table = Cache::QuoteName(name_);
  std::string columns;
  if (has_identity_) columns.append("\"id\" ").append(dialect.identity);
  const auto definition = [](const Field& field) {
    return Cache::QuoteName(field.Name()) + " " + field.Definition();
  };
  for (const Field* field : fields_) Append(columns, definition(*field));
  cache.Execute("create table if not exists " + table + " (" + columns + ")");

  const auto there = cache.Select("select * from " + table + " limit 0")->Columns();
  for (const Field* field : fields_) {
    if (std::find(there.begin(), there.end(), field->Name()) != there.end()) continue;
    cache.Execute("alter table " + table + " add column " + definition(*field));
  }
  if (transaction) transaction->Commit();
}

std::vector<std::string> CustomTable::Values() const {
  std::vector<std::string> values;
  values.reserve(fields_.size());
  for (const Field* field : fields_) values.push_back(field->Value());
  return values;
}

std::string CustomTable::Where(const StringMap& key, std::vector<std::string>& args) {
  std::string conditions;
  for (const auto& [column, value] : key) {
    Append(conditions, Cache::QuoteName(column) + " = ?", " and ");
    args.push_back(value);
  }
  return conditions.empty() ? "" : " where " + conditions;
}

void CustomTable::Insert(Cache& cache) const {
  std::string columns;
  std::string marks;
  for (const Field* field : fields_) {
    Append(columns, Cache::QuoteName(field->Name()));
    Append(marks, "?");
  }
  cache.Execute(
      "insert into " + Cache::QuoteName(name_) + " (" + columns + ") values (" + marks + ")",
      Values());
}

std::int64_t CustomTable::Update(Cache& cache, const StringMap& key) const {
  std::string changes;
  for (const Field* field : fields_) Append(changes, Cache::QuoteName(field->Name()) + " = ?");
  std::vector<std::string> args = Values();
  const std::string where = Where(key, args);
  return cache.Execute("update " + Cache::QuoteName(name_) + " set " + changes + where, args);
}

std::int64_t CustomTable::Delete(Cache& cache, const StringMap& key) const {
  std::vector<std::string> args;
  const std::string where = Where(key, args);
  return cache.Execute("delete from " + Cache::QuoteName(name_) + where, args);
}

bool CustomTable::Find(Cache& cache, const StringMap& key) {
  std::string columns;
  for (const Field* field : fields_) Append(columns, Cache::QuoteName(field->Name()));
  std::vector<std::string> args;
  const std::string where = Where(key, args);
  const auto row = cache.Select("select " + columns + " from " + Cache::QuoteName(name_) + where +
                                    (has_identity_ ? " order by \"id\" limit 1" : " limit 1"),
                                args);
  if (!row->Next()) return false;
  Load(*row);
  return true;
}

void CustomTable::Load(const Query& row) {
  // All or nothing: a column may be missing.
  std::vector<std::string> values;
  values.reserve(fields_.size());
  for (const Field* field : fields_) values.push_back(row.AsString(field->Name()));
  for (std::size_t i = 0; i < fields_.size(); ++i) fields_[i]->Set(values[i]);
}

}  // namespace pnl_db
