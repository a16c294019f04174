#pragma once

#include <string>
#include <vector>

#include "console/record.h"

/// Records as texts that end with a line end: tables for people, JSON or CSV for programs.
namespace console {

enum class Layout { kLines, kOneLine };

/// An object, or an array of objects. Bytes that are not valid UTF-8 (possible in file names)
/// become U+FFFD.
[[nodiscard]] std::string ToJson(const Record& record, Layout layout = Layout::kLines);
[[nodiscard]] std::string ToJson(const std::vector<Record>& records,
                                 Layout layout = Layout::kLines);

/// A value as text for people.
[[nodiscard]] std::string Cell(const Value& value);

/// The fields `columns` of all records below a heading. On a terminal the last column is wrapped at
/// the end of the line; elsewhere each record is one line of any length.
[[nodiscard]] std::string Table(const std::vector<Record>& records,
                                const std::vector<std::string>& columns, bool headers);
/// One line for each field.
[[nodiscard]] std::string Sheet(const Record& record);
/// CSV by RFC 4180, but lines end with a line feed only. Values are written as in JSON, lists and
/// maps as for people.
[[nodiscard]] std::string Csv(const std::vector<Record>& records,
                              const std::vector<std::string>& columns, bool headers);

/// Sorts the records by a field; "-FIELD" reverses the order. Numbers and times are sorted by size,
/// all else as text. Records without the field come first.
void Sort(std::vector<Record>& records, std::string field);
/// The record with only these fields, in this order.
[[nodiscard]] Record Only(const Record& record, const std::vector<std::string>& columns);

}  // namespace console
