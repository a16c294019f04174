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

/// Text helpers in addition to pnl/str.h. They split configuration text and parameter strings into
/// maps, join maps, and fill in command and message templates.
///
///     str::JoinParams({{"ip", "::1"}, {"port", "1500"}}, "&", "=");   // "ip=::1&port=1500"
///     str::Fmt("kill -? ?", 15, pid);                                // "kill -15 4711"
///     using str::formater::MkNamed;
///     str::Fmt2("ssh -p {PORT} {USER}@{HOST}", MkNamed("port", port), MkNamed("user", user),
///               MkNamed("host", name));
///
/// All functions are pure and thread-safe. Bad text is not an error: a missing number is 0, a text
/// with a missing quote is only trimmed, a malformed line is a key with an empty value. Only Fmt
/// throws. Nothing is quoted or escaped here: use pnl_proc::Escape for words of a shell command.
namespace str {

/// All entries as key, `key_value_separator` and value, in key order, with `pair_separator` between
/// the entries. An empty map gives "". Separators in keys and values are not escaped.
[[nodiscard]] BREFIR_API std::string JoinParams(const StringMap& map,
                                                std::string_view pair_separator,
                                                std::string_view key_value_separator);

[[nodiscard]] BREFIR_API std::string ToStr(bool value);  ///< "true" or "false"
/// The value of the field.
[[nodiscard]] BREFIR_API std::string ToStr(const pnl_db::StringField& field);

/// `value` as a string stream writes it by default, whatever the global locale; a string is
/// returned unchanged.
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

/// Whether `text` ends with `tail`; an empty tail always matches. A tail that is exactly one
/// character longer than the text always matches too: callers rely on this result of an unsigned
/// overflow.
[[nodiscard]] BREFIR_API bool HasTail(const std::string& text, const std::string& tail);

/// The number at the start of `text` in `base` (0: by prefix, 0x hexadecimal, 0 octal, else
/// decimal), parsed as strtoul(3) does and cut to its low 32 bits. "4294967296" gives 0; "-1" and
/// numbers above 64 bits give 4294967295. `rest` becomes the text after the number. Without a
/// number the result is 0 and `rest` is all of `text`.
BREFIR_API std::uint32_t ToUInt32(const std::string& text, std::string& rest, int base);
[[nodiscard]] BREFIR_API std::uint32_t ToUInt32(const std::string& text, int base);

/// `text` trimmed and, if it begins with `open` and ends with `close`, without them. An empty
/// `close` means the same as `open`. Only one pair is removed, and the inside is not trimmed:
/// Unquote(" |x y| ", "|", "") is "x y", Unquote("[a", "[", "]") is "[a".
[[nodiscard]] BREFIR_API std::string Unquote(const std::string& text, const std::string& open,
                                             std::string close);

/// Adds an entry to `map` for each line of a key, white space and a value. When a key occurs twice,
/// the later line counts. There are no comments.
BREFIR_API void SplitConfig(std::string_view text, StringMap& map);

/// Adds an entry to `map` for each line of a key, `separator` and a value, both trimmed. When a key
/// occurs twice, the later line counts. Further separators belong to the value. A line without a
/// separator is a key with an empty value. Empty lines and lines that, trimmed, begin with
/// `comment_prefix` (unless that is empty) are skipped. SplitConfig(text, map, "=", "#") reads
/// release files, "\t" tab-separated values.
BREFIR_API void SplitConfig(std::string_view text, StringMap& map, std::string_view separator,
                            std::string_view comment_prefix);

/// The map for a text like "a=1&b=2". Nothing is trimmed or decoded. When a key occurs twice, the
/// later pair counts.
[[nodiscard]] BREFIR_API StringMap SplitParamsRaw(std::string_view text,
                                                  std::string_view pair_separator,
                                                  std::string_view key_value_separator);

/// The elements in order, joined by `separator`; an empty element adds no separator.
[[nodiscard]] BREFIR_API std::string Join(const std::vector<std::string>& container,
                                          std::string_view separator);
[[nodiscard]] BREFIR_API std::string Join(const StringSet& container, std::string_view separator);

/// `format` with each "?" replaced by the next argument. Percent signs are not special. Values are
/// inserted unchanged. A literal "?" is not possible. More "?" than arguments throw
/// pnl_err::Error("format").
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, const std::string& a,
                                         const std::string& b);
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, const std::string& a,
                                         const std::string& b, const std::string& c);
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, int a, int b);
[[nodiscard]] BREFIR_API std::string Fmt(const std::string& format, const std::string& a);

namespace formater {

/// A named value for Fmt2. Names are not case-sensitive.
template <class T>
struct NamedVar {
  std::string name;
  T value;
};

template <class T>
[[nodiscard]] NamedVar<T> MkNamed(std::string name, T value) {
  return {std::move(name), std::move(value)};
}

/// Adds the placeholder "{NAME}" (upper case) and its value to `map`; replaces an entry of that
/// name. `index` is not used; it is there for older callers.
BREFIR_API void AddReplacerPair(StringMap& map, int index, const NamedVar<std::string>& variable);

}  // namespace formater

/// `format` with every "{NAME}" (upper case) replaced by the value of that variable. Replaced
/// values are not scanned again. A placeholder without a variable stays.
[[nodiscard]] BREFIR_API std::string Fmt2(const std::string& format,
                                          const formater::NamedVar<std::string>& first,
                                          const formater::NamedVar<std::string>& second,
                                          const formater::NamedVar<std::string>& third);

}  // namespace str
