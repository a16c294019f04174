#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "brefir/fields.h"
#include "console/record.h"

/// Tables of fields: one definition serves JSON, tables and man pages.
///
///     const FieldTable<Host> kFields = {
///         {{"name", "as the panel knows it"}, [](const Host& host) { return host.name; }},
///         {{"port", "of its sshd"}, [](const Host& host) { return host.port; }}};
///     context.out.One(ToRecord(kFields, host));
namespace console {

/// A field of the records for a T.
template <class T>
struct FieldOf : Field {
  std::function<Value(const T&)> value;
};

template <class T>
using FieldTable = std::vector<FieldOf<T>>;

/// Adds the fields of `value` to `record`.
template <class T>
Record ToRecord(const FieldTable<T>& table, const T& subject, Record record = {}) {
  for (const FieldOf<T>& field : table) record.Add(field.name, field.value(subject));
  return record;
}

template <class T, class List>
std::vector<Record> ToRecords(const FieldTable<T>& table, const List& subjects) {
  std::vector<Record> records;
  for (const T& subject : subjects) records.push_back(ToRecord(table, subject));
  return records;
}

/// The fields that a command declares for records with these fields and `others`.
template <class T>
std::vector<Field> Declared(const FieldTable<T>& table, std::vector<Field> others = {}) {
  for (const Field& field : table) {
    const auto same = [&](const Field& other) { return other.name == field.name; };
    if (std::none_of(others.begin(), others.end(), same)) others.push_back(field);
  }
  return others;
}

// --- Records of the library, which has its own tables

/// The fields of a record of the library, to be declared by a verb.
template <class... T>
std::vector<Field> FieldsOf(const std::tuple<T...>& table, const std::string& when = "") {
  std::vector<Field> fields;
  utils::ForEach(table, [&](const auto& field) {
    fields.push_back({field.name, field.meaning, when});
  });
  return fields;
}

/// The record to be printed; a member of another type is printed as its text.
template <class R, class... T>
void AddFields(Record& record, const std::tuple<T...>& table, const R& values) {
  utils::ForEach(table, [&](const auto& field) {
    const auto& value = values.*field.member;
    if constexpr (requires { Value(value); }) {
      record.Add(field.name, value);
    } else {
      record.Add(field.name, value.Str());
    }
  });
}

}  // namespace console
