#include "pnldb/sql.h"

#include <algorithm>
#include <initializer_list>
#include <vector>

#include "pnl/str.h"
#include "pnl/test.h"

namespace pnl_db {

namespace {

bool IsWordByte(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

// --- Tokens

/// The end of the quoted part that begins at `i`, whose quotes are doubled or, in E'...', escaped.
std::size_t SkipQuoted(std::string_view sql, std::size_t i, Syntax syntax) {
  const char quote = sql[i] == '[' ? ']' : sql[i];
  const bool escapes = syntax == Syntax::kPostgres && quote == '\'' && i > 0 &&
                       (sql[i - 1] == 'E' || sql[i - 1] == 'e') &&
                       (i < 2 || !IsWordByte(sql[i - 2]));
  for (++i; i < sql.size() && sql[i] != quote; ++i) {
    if (escapes && sql[i] == '\\') ++i;
  }
  return i + 1;
}

/// The end of the comment that begins at `i`; PostgreSQL's starred kind nests.
std::size_t SkipComment(std::string_view sql, std::size_t i, Syntax syntax) {
  if (sql[i] == '-') return sql.find('\n', i);
  int depth = 0;
  do {
    const std::string_view two = sql.substr(i, 2);
    if (two == "/*" && (depth == 0 || syntax == Syntax::kPostgres)) ++depth;
    if (two == "*/") --depth;
    i += two == "/*" || two == "*/" ? 2 : 1;
  } while (depth > 0 && i < sql.size());
  return i;
}

/// The end of the $tag$...$tag$ that begins at `i`; i + 1 when none does.
std::size_t SkipDollars(std::string_view sql, std::size_t i) {
  std::size_t end = i + 1;
  while (end < sql.size() && IsWordByte(sql[end])) ++end;
  if (end >= sql.size() || sql[end] != '$') return i + 1;
  const std::string_view tag = sql.substr(i, end + 1 - i);
  const std::size_t close = sql.find(tag, end + 1);
  return close == std::string_view::npos ? close : close + tag.size();
}

/// The end of the word, quoted part or sign that begins at `i`.
std::size_t SkipToken(std::string_view sql, std::size_t i, Syntax syntax) {
  const char c = sql[i];
  const bool sqlite = syntax == Syntax::kSqlite;
  if (c == '\'' || c == '"' || (sqlite && (c == '`' || c == '[')))
    return SkipQuoted(sql, i, syntax);
  if (c == '$' && !sqlite) return SkipDollars(sql, i);
  if (IsWordByte(c)) {
    while (i < sql.size() && IsWordByte(sql[i])) ++i;
    return i;
  }
  for (const std::string_view sign : {"<=", ">=", "<>", "!=", "==", "||"}) {
    if (sql.substr(i).starts_with(sign)) return i + sign.size();
  }
  return i + 1;
}

// --- What stands beside an argument

bool Is(std::string_view token, std::initializer_list<std::string_view> list) {
  return std::find(list.begin(), list.end(), str::Lower(token)) != list.end();
}

/// The role of a token: a part of an operand, or its limit.
enum class Role { kPart, kOpens, kCloses, kComparison, kBoundary };

Role RoleOf(std::string_view token) {
  if (Is(token, {"(", "case"})) return Role::kOpens;
  if (Is(token, {")", "end"})) return Role::kCloses;
  if (Is(token, {"=", "==", "<>", "!=", "<", "<=", ">", ">=", "is"})) return Role::kComparison;
  const bool boundary =
      Is(token, {",",      ";",         "select", "distinct", "all",  "where", "having", "and",
                 "or",     "not",       "on",     "when",     "then", "else",  "by",     "set",
                 "values", "returning", "in",     "between",  "like", "from",  "group",  "order",
                 "limit",  "offset",    "union",  "except",   "as",   "asc",   "desc",   "window"});
  return boundary ? Role::kBoundary : Role::kPart;
}

struct Word {
  std::string_view text;
  Role role;
};
using Words = std::vector<Word>;

int Depth(Role role) {
  return role == Role::kOpens ? 1 : role == Role::kCloses ? -1 : 0;
}

/// The beginning of the operand that ends before `end`.
std::size_t OperandBegin(const Words& words, std::size_t end) {
  int depth = 0;
  for (; end > 0; --end) {
    const Role role = words[end - 1].role;
    if (depth == 0 && role != Role::kPart && role != Role::kCloses) break;
    depth -= Depth(role);
  }
  return end;
}

std::size_t OperandEnd(const Words& words, std::size_t begin) {
  int depth = 0;
  for (; begin < words.size(); ++begin) {
    const Role role = words[begin].role;
    if (depth == 0 && role != Role::kPart && role != Role::kOpens) break;
    depth += Depth(role);
  }
  return begin;
}

struct Operand {
  std::size_t begin = 0;
  std::size_t end = 0;
};

Operand Before(const Words& words, std::size_t end) {
  if (end > 0 && Is(words[end - 1].text, {"not"})) --end;  // "not in", "not between"
  return {OperandBegin(words, end), end};
}

/// The operand with which the argument `i` is compared; empty when there is none.
Operand Other(const Words& words, std::size_t i) {
  const auto is = [&](std::size_t at, std::string_view word) {
    return at < words.size() && Is(words[at].text, {word});
  };
  const auto compares = [&](std::size_t at) {
    return at < words.size() && words[at].role == Role::kComparison;
  };
  if (OperandBegin(words, i) != i || OperandEnd(words, i) != i + 1) return {};  // a part of one
  if (compares(i + 1)) return {i + 2, OperandEnd(words, i + 2)};
  // Before the first word the index wraps around, and no word is found.
  if (is(i - 1, "not") && compares(i - 2)) return Before(words, i - 2);
  if (compares(i - 1) || is(i - 1, "between")) return Before(words, i - 1);
  if (is(i - 1, "and")) {
    const std::size_t low = OperandBegin(words, i - 1);
    return is(low - 1, "between") ? Before(words, low - 1) : Operand();
  }
  std::size_t list = i;
  while (is(list - 1, ",")) list = OperandBegin(words, list - 1);
  return is(list - 1, "(") && is(list - 2, "in") ? Before(words, list - 2) : Operand();
}

/// Columns are compared by their type, unless the statement itself defines them.
bool IsColumn(const Words& words, const Operand& operand) {
  for (std::size_t i = operand.begin; i < operand.end; ++i) {
    const std::string_view word = words[i].text;
    const bool dot = (i - operand.begin) % 2 == 1;
    const bool quoted = Is(word.substr(0, 1), {"\"", "`", "["});
    if (dot ? word != "." : !quoted && !IsWordByte(word.front())) return false;
    if (test::Numeric(word.front())) return false;
  }
  const std::string_view name = words[operand.end - 1].text;
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i].text == name && Is(words[i - 1].text, {"as", ")"})) return false;
  }
  return true;
}

/// Whether the type of `operand` must decide about the argument. A literal text or another argument
/// is text.
bool Decides(const Words& words, const Operand& operand) {
  if (operand.begin == operand.end || IsColumn(words, operand)) return false;
  const bool single = operand.end - operand.begin == 1;
  return !single || !Is(words[operand.begin].text.substr(0, 1), {"?", "'"});
}

/// A part of the statement, with its arguments by number.
std::string Part(const Words& words, const Operand& part) {
  int number = 0;
  const char* done = words[part.begin].text.data();
  std::string text;
  for (std::size_t i = 0; i < part.end; ++i) {
    const bool argument = words[i].text == "?";
    if (argument) ++number;
    if (i < part.begin) continue;
    const char* const end = words[i].text.data() + words[i].text.size();
    text.append(done, end);
    if (argument) text += std::to_string(number);
    done = end;
  }
  return text;
}

}  // namespace

std::vector<std::string_view> Tokens(std::string_view sql, Syntax syntax) {
  std::vector<std::string_view> tokens;
  for (std::size_t i = 0; i < sql.size();) {
    const std::string_view two = sql.substr(i, 2);
    std::size_t end = i + 1;
    if (two == "--" || two == "/*") {
      end = SkipComment(sql, i, syntax);
    } else if (!str::TrimView(sql.substr(i, 1)).empty()) {
      end = SkipToken(sql, i, syntax);
      tokens.push_back(sql.substr(i, end - i));
    }
    i = std::min(end, sql.size());
  }
  return tokens;
}

bool MayChange(std::string_view sql) {
  const auto tokens = Tokens(sql, Syntax::kPostgres);
  const bool reads = !tokens.empty() && Is(tokens.front(), {"select", "values", "table", "with",
                                                            "show", "explain", "("});
  return !reads || std::any_of(tokens.begin(), tokens.end(), [](std::string_view token) {
    return Is(token, {"insert", "update", "delete", "merge", "into", "analyze"});
  });
}

std::string Numbered(std::string_view sql) {
  std::string out;
  std::size_t done = 0;
  int number = 0;
  for (const std::string_view token : Tokens(sql, Syntax::kPostgres)) {
    if (token != "?") continue;
    const auto at = static_cast<std::size_t>(token.data() - sql.data());
    out.append(sql.substr(done, at - done)).append("$").append(std::to_string(++number));
    done = at + 1;
  }
  return out.append(sql.substr(done));
}

TypedSql Typed(std::string_view sql) {
  Words words;
  for (const std::string_view token : Tokens(sql, Syntax::kSqlite))
    words.push_back({token, RoleOf(token)});
  TypedSql typed = {"", 0, false};
  for (const Word& word : words) typed.arguments += word.text == "?" ? 1 : 0;
  std::size_t done = 0;
  std::size_t number = 0;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i].text != "?") continue;
    const auto at = static_cast<std::size_t>(words[i].text.data() - sql.data());
    const std::string text = "?" + std::to_string(++number);
    typed.sql.append(sql.substr(done, at - done));
    done = at + 1;
    const Operand other = Other(words, i);
    if (!Decides(words, other)) {
      typed.sql += text;
      continue;
    }
    typed.doubled = true;
    typed.sql += "(case typeof(" + Part(words, other) + ") when 'text' then " + text + " else ?" +
                 std::to_string(number + typed.arguments) + " end)";
  }
  typed.sql.append(sql.substr(done));
  return typed;
}

}  // namespace pnl_db
