#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pnl/err.h"
#include "tools/frame/context.h"
#include "tools/frame/output.h"

namespace tools {

/// The output of a verb: one record, or a list of records.
struct Answer {
  Answer(Record record, std::vector<std::string> shown = {})
      : records{std::move(record)}, columns(std::move(shown)) {}
  Answer(std::vector<Record> list, std::vector<std::string> shown = {})
      : records(std::move(list)), is_list(true), columns(std::move(shown)) {}

  std::vector<Record> records;
  bool is_list = false;
  std::vector<std::string> columns = {};  ///< the fields shown to people; all when empty
  std::string word = {};  ///< when set, people see only this field of the record, without its name
  std::optional<std::string> text = {};     ///< when set, people see this text instead
  std::vector<pnl_err::Error> errors = {};  ///< parts that failed; `code` must then be kFailed
  int code = kDone;
};

/// Prints the records.
void Print(Output& out, const Answer& answer);

}  // namespace tools
