#pragma once

#include <string>
#include <vector>

#include "console/record.h"

/// Records as texts, each with a line end: tables for people; JSON or CSV for programs.
namespace console {

enum class Layout { kLines, kOneLine };

/// An object, or an array of objects. Bytes that are no UTF-8 become U+FFFD: a file name may hold
/// any.
[[nodiscard]] std::string ToJson(const Record& record, Layout layout = Layout::kLines);
[[nodiscard]] std::string ToJson(const std::vector<Record>& records,
                                 Layout layout = Layout::kLines);

/// A value as people see it.
[[nodiscard]] std::string Cell(const Value& value);

/// The fields `columns` of all records, their names above. On a terminal the last column is wrapped
/// into what is left of the line; elsewhere a record is one line, whatever its length.
[[nodiscard]] std::string Table(const std::vector<Record>& records,
                                const std::vector<std::string>& columns, bool headers);
/// A line a field.
[[nodiscard]] std::string Sheet(const Record& record);
/// By RFC 4180, but for lines that end as others do here: values as JSON has them, lists and maps
/// as people see them.
[[nodiscard]] std::string Csv(const std::vector<Record>& records,
                              const std::vector<std::string>& columns, bool headers);

/// Puts them in the order of the field, "-FIELD" from the last to the first: numbers and times by
/// their size, all else as text. Records without it come first.
void Sort(std::vector<Record>& records, std::string field);
/// The record with just these of its fields, in this order.
[[nodiscard]] Record Only(const Record& record, const std::vector<std::string>& columns);

}  // namespace console
