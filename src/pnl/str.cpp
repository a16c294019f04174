#include "pnl/str.h"

#include <fmt/args.h>
#include <fmt/printf.h>
#include <sys/random.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <charconv>
#include <limits>
#include <utility>

#include "pnl/err.h"

namespace str {
namespace {

bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');  // tab, LF, VT, FF, CR are neighbours
}

std::string_view SkipSpace(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
  return text;
}

/// Returns the part before the separator at `pos`, and moves `text` behind the separator.
std::string_view CutView(std::string_view& text, std::size_t pos, std::size_t separator_size) {
  const std::string_view word = text.substr(0, pos);
  text.remove_prefix(pos == std::string_view::npos ? text.size() : pos + separator_size);
  return word;
}

std::string CutString(std::string& text, std::size_t pos, std::size_t separator_size) {
  if (pos == std::string::npos) return std::exchange(text, {});
  std::string word = text.substr(0, pos);
  text.erase(0, pos + separator_size);
  return word;
}

std::size_t FindSeparator(std::string_view text, std::string_view separator) {
  return separator.empty() ? std::string_view::npos : text.find(separator);
}

template <class Number>
Number ParseDecimal(std::string_view text) {
  text = SkipSpace(text);
  // from_chars does not accept "+"; "+-5" is not a number for strtol either.
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  Number number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc::result_out_of_range) return number;
  return text.front() == '-' ? std::numeric_limits<Number>::min()
                             : std::numeric_limits<Number>::max();
}

template <class Sink>
void SplitInto(std::string_view text, std::string_view separator, Sink sink) {
  while (!text.empty()) {
    const std::size_t pos = FindSeparator(text, separator);
    sink(std::string(CutView(text, pos, separator.size())));
    // A separator at the very end is followed by one more, empty, piece.
    if (text.empty() && pos != std::string_view::npos) sink(std::string());
  }
}

/// The keys of a replacement map, longest first, to be tried in this order.
class Replacer {
 public:
  explicit Replacer(const StringMap& map) {
    entries_.reserve(map.size());
    for (const auto& [key, value] : map) {
      if (key.empty()) continue;
      entries_.push_back({key, value});
      values_size_ += value.size();
      first_bytes_.set(static_cast<unsigned char>(key.front()));
    }
    // The order of keys of one length does not matter: at most one of them matches.
    std::sort(entries_.begin(), entries_.end(),
              [](const Entry& a, const Entry& b) { return a.key.size() > b.key.size(); });
    one_first_byte_ = first_bytes_.count() == 1;
    if (one_first_byte_) only_first_byte_ = entries_.front().key.front();
  }

  std::string Run(std::string_view text) const {
    std::string out;
    if (entries_.empty()) return out.assign(text);
    out.reserve(text.size() + values_size_);  // enough when each key occurs once
    std::size_t copied = 0;
    for (std::size_t pos = Candidate(text, 0); pos != std::string_view::npos;) {
      const Entry* entry = Match(text.substr(pos));
      if (entry != nullptr) {
        out.append(text, copied, pos - copied);
        out.append(entry->value);
        pos += entry->key.size();
        copied = pos;
      } else {
        ++pos;
      }
      pos = Candidate(text, pos);
    }
    return out.append(text, copied);
  }

 private:
  struct Entry {
    std::string_view key;
    std::string_view value;
  };

  /// The next position from `pos` at which a key may begin.
  std::size_t Candidate(std::string_view text, std::size_t pos) const {
    if (one_first_byte_) return text.find(only_first_byte_, pos);
    while (pos < text.size() && !first_bytes_[static_cast<unsigned char>(text[pos])]) ++pos;
    return pos < text.size() ? pos : std::string_view::npos;
  }

  const Entry* Match(std::string_view text) const {
    for (const Entry& entry : entries_) {
      if (text.starts_with(entry.key)) return &entry;
    }
    return nullptr;
  }

  std::vector<Entry> entries_;
  std::size_t values_size_ = 0;
  std::bitset<256> first_bytes_;
  bool one_first_byte_ = false;
  char only_first_byte_ = 0;
};

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

/// The position after the scheme and slashes of an address with ":/" at `colon`. Web addresses with
/// one to three slashes can be fetched.
std::size_t BehindSlashes(std::string_view text, std::size_t colon) {
  const std::size_t longest = std::min<std::size_t>(colon, 5);
  const std::string scheme = Lower(text.substr(colon - longest, longest));
  const bool web = scheme.ends_with("http") || scheme == "https" || scheme.ends_with("ftp");
  if (web) return std::min(text.find_first_not_of('/', colon + 1), text.size());
  return colon + (text.substr(colon).starts_with("://") ? 3 : 1);
}

/// The length of the part before the host, in an address without scheme and slashes.
std::size_t CredentialsSize(std::string_view address) {
  const auto blank = std::find_if(address.begin(), address.end(),
                                  [](char c) { return static_cast<unsigned char>(c) <= ' '; });
  address = address.substr(0, static_cast<std::size_t>(blank - address.begin()));
  const std::string_view authority = address.substr(0, address.find_first_of("/?#"));
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) return at + 1;
  // A password with one of these characters is not allowed in an address, but must be removed too.
  const std::string_view port = authority.substr(authority.rfind(':') + 1);  // npos + 1 is 0
  const bool password = port.size() < authority.size() && !authority.ends_with(']') &&
                        !std::all_of(port.begin(), port.end(), IsDigit);
  return password ? address.rfind('@') + 1 : 0;
}

template <class Convert>
std::string Mapped(std::string_view text, Convert convert) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), convert);
  return out;
}

}  // namespace

std::string_view TrimView(std::string_view text) {
  text = SkipSpace(text);
  while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::string Trim(std::string_view text) {
  return std::string(TrimView(text));
}

void inpl::Trim(std::string& text) {
  text = str::Trim(text);
}

std::string GetWord(std::string& text) {
  std::string_view rest = text;
  std::string word(NextWord(rest));
  text = std::string(rest);
  return word;
}

std::string GetWord(std::string& text, std::string_view separator) {
  return CutString(text, FindSeparator(text, separator), separator.size());
}

std::string GetWord(std::string& text, char separator) {
  return CutString(text, text.find(separator), 1);
}

std::string_view NextWord(std::string_view& text) {
  text = SkipSpace(text);
  const auto end = std::find_if(text.begin(), text.end(), IsSpace);
  const std::string_view word = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text = SkipSpace(text.substr(word.size()));
  return word;
}

std::string_view NextWord(std::string_view& text, std::string_view separator) {
  return CutView(text, FindSeparator(text, separator), separator.size());
}

std::string_view NextWord(std::string_view& text, char separator) {
  return CutView(text, text.find(separator), 1);
}

std::string RGetWord(std::string& text, std::string_view separator) {
  const std::size_t pos = separator.empty() ? std::string::npos : text.rfind(separator);
  if (pos == std::string::npos) return std::exchange(text, {});
  std::string word = text.substr(pos + separator.size());
  text.resize(pos);
  return word;
}

std::string Replace(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  std::size_t copied = 0;
  for (std::size_t pos = FindSeparator(text, from); pos != std::string_view::npos;
       pos = text.find(from, copied)) {
    out.append(text, copied, pos - copied);
    out.append(to);
    copied = pos + from.size();
  }
  return out.append(text, copied);
}

std::string Replace(std::string_view text, const StringMap& map) {
  return Replacer(map).Run(text);
}

std::string Upper(std::string_view text) {
  return Mapped(text, [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
}

std::string Lower(std::string_view text) {
  return Mapped(text, [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
}

std::string Append(std::string_view a, std::string_view b, std::string_view separator) {
  std::string out(a);
  if (!a.empty() && !b.empty()) out.append(separator);
  return out.append(b);
}

std::string WithoutCredentials(std::string_view text) {
  std::string out;
  std::size_t copied = 0;
  for (std::size_t colon = text.find(":/"); colon != std::string_view::npos;
       colon = text.find(":/", std::max(copied, colon + 1))) {
    const std::size_t begin = BehindSlashes(text, colon);
    if (begin == colon + 1) continue;
    out.append(text, copied, begin - copied);
    copied = begin + CredentialsSize(text.substr(begin));
  }
  return out.append(text, copied);
}

int Int(std::string_view text) {
  return ParseDecimal<int>(text);
}

std::int64_t Int64(std::string_view text) {
  return ParseDecimal<std::int64_t>(text);
}

std::string Str(std::int64_t number) {
  return std::to_string(number);
}

void Split(std::string_view text, std::string_view separator, StringSet& out) {
  SplitInto(text, separator, [&](std::string piece) { out.insert(std::move(piece)); });
}

void Split(std::string_view text, std::string_view separator, std::vector<std::string>& out) {
  SplitInto(text, separator, [&](std::string piece) { out.push_back(std::move(piece)); });
}

std::uint64_t Hash(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

std::string Shorten(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return std::string(text);
  return std::string(text.substr(0, limit - 17)) + Format("~%016llx", Hash(text));
}

std::string PercentEncode(std::string_view text, bool (*plain)(char c)) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (plain(c)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded.append({'%', kDigits[byte / 16], kDigits[byte % 16]});
    }
  }
  return encoded;
}

bool PercentDecode(std::string_view text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    unsigned char byte = 0;
    const std::string_view digits = text.substr(i + 1, 2);
    const char* const end = digits.data() + digits.size();
    if (digits.size() < 2 || std::from_chars(digits.data(), end, byte, 16).ptr != end) return false;
    out += static_cast<char>(byte);
    i += 2;
  }
  return true;
}

std::string Random(std::size_t bytes) {
  std::string out(bytes, '\0');
  for (std::size_t done = 0; done < bytes;) {
    const ssize_t got = getrandom(out.data() + done, bytes - done, 0);
    if (got < 0 && errno != EINTR) throw pnl_err::System("getrandom", "", errno);
    if (got > 0) done += static_cast<std::size_t>(got);
  }
  return out;
}

std::string hex::Encode(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
  }
  return out;
}

std::string FormatList(std::string_view format, const FormatArg* args, std::size_t count) {
  fmt::dynamic_format_arg_store<fmt::printf_context> store;
  const auto push = [&](const auto& value) {
    using Value = std::decay_t<decltype(value)>;
    if constexpr (std::is_same_v<Value, std::string_view>) {
      store.push_back(fmt::string_view(value.data(), value.size()));
    } else if constexpr (std::is_same_v<Value, const char*>) {
      store.push_back(value != nullptr ? value : "(null)");
    } else {
      store.push_back(value);
    }
  };
  for (std::size_t i = 0; i < count; ++i) std::visit(push, args[i]);
  try {
    return fmt::vsprintf(fmt::string_view(format.data(), format.size()),
                         fmt::basic_format_args<fmt::printf_context>(store));
  } catch (const fmt::format_error& error) {
    throw pnl_err::Error("format", "", format).add_param("reason", error.what());
  }
}

}  // namespace str
