#pragma once

#include <tuple>

/// Tables of a record's fields, for code that reads, writes or shows all of them:
///
///     utils::ForEach(ostemplate::kTemplateFields,
///                    [&](const auto& field) { Show(field.name, info.*field.member); });
namespace utils {

template <class Record, class Member>
struct Field {
  const char* name;
  const char* meaning;  ///< for people; "" means the same as the previous field
  Member Record::*member;
};
template <class Record, class Member>
Field(const char*, const char*, Member Record::*) -> Field<Record, Member>;

template <class... Fields, class Call>
void ForEach(const std::tuple<Fields...>& fields, const Call& call) {
  std::apply([&](const auto&... field) { (call(field), ...); }, fields);
}

}  // namespace utils
