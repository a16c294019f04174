#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "pnl/err.h"

namespace support {

/// The error that `call` throws; none when it returns.
inline std::optional<pnl_err::Error> Caught(const std::function<void()>& call) {
  try {
    call();
  } catch (const pnl_err::Error& error) {
    return error;
  }
  return std::nullopt;
}

/// Type, object and `more` parts ("value", or a parameter by name) of the error that `call` throws,
/// with blanks between them. Empty parts are left out. "" when it returns.
inline std::string ErrorOf(const std::function<void()>& call,
                           const std::vector<std::string>& more = {}) {
  const auto error = Caught(call);
  if (!error) return "";
  std::string text = error->type();
  if (!error->object().empty()) text += " " + error->object();
  for (const std::string& name : more) {
    const std::string part = name == "value" ? error->value() : error->param(name);
    if (!part.empty()) text += " " + part;
  }
  return text;
}

}  // namespace support
