#pragma once

#include <cstdint>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "brefir/export.h"
#include "pnl/str.h"

namespace pnl_db {
class StringField;
}

/// Helpers above the platform's text operations (pnl/str.h): splitting configuration text and
/// parameter strings into maps, joining maps back, and filling command and message templates.
///
///     str::JoinParams({{"ip", "::1"}, {"port", "1500"}}, "&", "=");   // "ip=::1&port=1500"
///     str::Fmt("kill -? ?", 15, pid);                                // "kill -15 4711"
///     using str::formater::MkNamed;
///     str::Fmt2("ssh -p {PORT} {USER}@{HOST}", MkNamed("port", port), MkNamed("user", user),
///               MkNamed("host", name));
///
/// All functions are pure and thread-safe. None reports an error: a parse that finds no number
/// gives 0, a missing quote leaves the text as trimmed, a malformed line is a key with an empty
/// value. Nothing is quoted or escaped here; words for a shell go through pnl_proc::Escape first.
namespace str {

/// Every entry as key, `key_value_separator`, value, in key order, with `pair_separator` between
/// the entries and none at the ends. An empty map gives "". Neither separator is escaped.
[[nodiscard]] BREFIR_API std::string JoinParams(const StringMap& map,
                                                std::string_view pair_separator,
                                                std::string_view key_value_separator);

[[nodiscard]] BREFIR_API std::string ToStr(bool value);  ///< "true" or "false"
/// The value of a table's column in the row that the table holds.
[[nodiscard]] BREFIR_API std::string ToStr(const pnl_db::StringField& field);

/// `value` as a string stream writes it by default, whatever the global locale; a string comes back
/// unchanged.
template <class T>
[[nodiscard]] std::string ToStr(const T& value) {
  if constexpr (std::is_convertible_v<const T&, std::string>) {
    return value;
  } else {
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << value;
    return out.str();
  }
}

BREFIR_API void ITrim(std::string& text);  ///< replaces `text` by Trim(text)

/// Whether `text` ends in `tail`; an empty tail always matches. A tail exactly one character longer
/// than the text matches too, whatever it holds: callers rely on the answer of the wrapped
/// subtraction, so that it stays.
[[nodiscard]] BREFIR_API bool HasTail(const std::string& text, const std::string& tail);

/// The number at the start of `text` in `base` (0: by prefix, 0x hexadecimal, 0 octal, else
/// decimal), parsed as strtoul(3) does, then cut to its low 32 bits: "4294967296" gives 0, "-1"
/// 4294967295, and what exceeds 64 bits 4294967295. `rest` becomes the text after the number; all
/// of `text`, and the result 0, when there is no number.
BREFIR_API std::uint32_t ToUInt32(const std::string& text, std::string& rest, int base);
[[nodiscard]] BREFIR_API std::uint32_t ToUInt32(const std::string& text, int base);

/// `text` trimmed and, when it then stands between `open` and `close`, without them; an empty
/// `close` means the same as `open`. One pair is removed, the inside is not trimmed:
/// Unquote(" |x y| ", "|", "") is "x y", Unquote("[a", "[", "]") is "[a".
[[nodiscard]] BREFIR_API std::string Unquote(const std::string& text, const std::string& open,
                                             std::string close);

/// Adds to `map` from lines that hold a key, white space and a value; later lines win. There are no
/// comments in this form.
BREFIR_API void SplitConfig(std::string_view text, StringMap& map);

/// Adds to `map` from lines that hold a key, `separator` and a value, both trimmed; later lines
/// win, further separators belong to the value, a line without one is a key with an empty value.
/// Lines that begin, once trimmed, with `comment_prefix` (unless it is empty) are skipped, as are
/// empty ones. SplitConfig(text, map, "=", "#") reads release files, "\t" tab-separated values.
BREFIR_API void SplitConfig(std::string_view text, StringMap& map, std::string_view separator,
                            std::string_view comment_prefix);

/// A map from text like "a=1&b=2". Nothing is trimmed or decoded; later pairs win.
[[nodiscard]] BREFIR_API StringMap SplitParamsRaw(std::string_view text,
                                                  std::string_view pair_separator,
                                                  std::string_view key_value_separator);

/// The elements in order with `separator` between them; an empty element adds no separator.
[[nodiscard]] BREFIR_API std::string Join(const std::vector<std::string>& container,
                                          std::string_view separator);
[[nodiscard]] BREFIR_API std::string Join(const StringSet& container, std::string_view separator);

/// `format` with each "?" replaced by the next argument. Percent signs stay; values are inserted as
/// they are; a literal "?" cannot be written. There must be as many "?" as arguments: more throw
/// pnl_err::Error("format").
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, const std::string& a,
                                         const std::string& b);
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, const std::string& a,
                                         const std::string& b, const std::string& c);
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, int a, int b);
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, const std::string& a);

namespace formater {

/// A named value for Fmt2; the case of the name does not matter.
template <class T>
struct NamedVar {
  std::string name;
  T value;
};

template <class T>
[[nodiscard]] NamedVar<T> MkNamed(std::string name, T value) {
  return {std::move(name), std::move(value)};
}

/// Adds the placeholder "{NAME}" (upper case) and its value to `map`, replacing one of that name.
/// `index` is accepted for the sake of older callers and not used.
BREFIR_API void AddReplacerPair(StringMap& map, int index, const NamedVar<std::string>& variable);

}  // namespace formater

/// `format` with every "{NAME}", in upper case, replaced by the value of the variable of that name;
/// values are not scanned again, and a placeholder without a variable stays.
[[nodiscard]] BREFIR_API std::string Fmt2(const std::string& format,
                                          const formater::NamedVar<std::string>& first,
                                          const formater::NamedVar<std::string>& second,
                                          const formater::NamedVar<std::string>& third);

}  // namespace str
