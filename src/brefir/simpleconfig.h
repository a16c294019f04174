#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"
#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "pnl/ssh.h"

/// Line-oriented files of keys and values, edited in place: every line that an edit does not
/// concern stays byte for byte.
///
///     utils::SimpleConfig time("/etc/time.conf", false, "#", "=", "");
///     time.Set("drift", "3", "server");   // behind the line that begins with "server"
///
///     utils::Config agent(ssh, "/etc/default/agent");       // a file of a node
///     utils::SCBaseField level("level", &agent, "info");    // bound to one key
///     if (level == "debug") level = "info";
namespace utils {

/// How lines are read and written.
struct LineSyntax {
  std::string comment = "#";    ///< a set of characters: a line that begins with one is a comment
  std::string separator = "=";  ///< a text, between key and value
  std::string quote;            ///< written before and after every value
};

/// The edits of SimpleConfig on a text, for those who want to see a change before they make it.
///
/// A line ends with a line feed. Its key is what stands before the first separator, trimmed; keys
/// compare byte for byte. Whatever is written ends with a line feed. All functions are pure.
namespace lines {

[[nodiscard]] BREFIR_API bool Exists(std::string_view text, std::string_view key,
                                     const LineSyntax& syntax);
/// SimpleConfig::Get; `quote` is that to be removed, not that of `syntax`.
[[nodiscard]] BREFIR_API std::string Get(std::string_view text, std::string_view key,
                                         std::string_view quote, const LineSyntax& syntax);
/// The text that SimpleConfig::Set writes.
[[nodiscard]] BREFIR_API std::string Set(std::string_view text, std::string_view key,
                                         std::string_view value, std::string_view after,
                                         const LineSyntax& syntax);
/// The text that SimpleConfig::Del writes; none when no line has the key.
[[nodiscard]] BREFIR_API std::optional<std::string> Del(std::string_view text, std::string_view key,
                                                        const LineSyntax& syntax);

/// A line with its key.
struct Entry {
  std::size_t line = 0;  ///< from 1
  std::string key;
  std::string value;  ///< as Get reads it
};
/// Every line that has a key and is no comment, in order.
[[nodiscard]] BREFIR_API std::vector<Entry> List(std::string_view text, std::string_view quote,
                                                 const LineSyntax& syntax);

}  // namespace lines

/// One file, locked against every other SimpleConfig of the same path, in any process, as long as
/// the object lives. Each call reads the file anew, so that a foreign edit between two calls is
/// seen.
///
/// A change replaces the file at once and whole, with owner, group, mode, ACL and label kept. A
/// symbolic link is itself replaced, by a file with the attributes of what it led to, which stays
/// as it was: give pnl_file::RealPath where the link has to stay. On an error the file is as it
/// was.
///
/// Errors: pnl_err::Error("pkg", "file_open", path), parameters errno and errmsg, when the file or
/// the temporary beside it cannot be opened; "file" for other failures of the system.
///
/// Used by one thread at a time. Two objects of one path in one thread wait in vain for each other.
class BREFIR_API SimpleConfig {
 public:
  /// The last three are those of LineSyntax. A missing file is made, empty, when `create` is true;
  /// else it is pnl_err::Error("pkg", "file_not_exists", path). Waits up to 3 s for the lock, then
  /// throws pnl_err::Error("lock", "timeout", path).
  SimpleConfig(const std::string& path, bool create, const std::string& comment,
               const std::string& separator, const std::string& quote);
  SimpleConfig(const SimpleConfig&) = delete;
  SimpleConfig& operator=(const SimpleConfig&) = delete;
  ~SimpleConfig();

  /// Whether some line has the key; comments are not left out ("#a=1" has the key "#a").
  [[nodiscard]] bool Exists(const std::string& key) const;
  /// The value of the first line with the key that is no comment, up to the next comment character,
  /// trimmed; one `quote` is removed from each end where it stands. "" when there is none.
  [[nodiscard]] std::string Get(const std::string& key, const std::string& quote) const;
  /// Writes the key in place of its first line, else at the end; further lines with the key stay.
  ///
  /// With an `after` that is not the key itself, the line comes behind the first one that, trimmed,
  /// begins with `after` (at the end when there is none): lines with the key that stand before it
  /// go, and so does the first one behind it.
  ///
  /// Nothing is checked or escaped: key and value must fit the syntax. The file is written also
  /// when nothing changes.
  void Set(const std::string& key, const std::string& value, const std::string& after);
  /// Removes every line with the key; false, and the file untouched, when there is none.
  bool Del(const std::string& key);
  /// The whole file; "" when it is missing by now.
  [[nodiscard]] std::string Content() const;

 private:
  std::string path_;
  LineSyntax syntax_;
  pnl_file::Lock lock_;
};

class SCBaseField;

/// A file with "#" comments, "=" and no quotes, to whose keys fields are bound. Fields are made
/// after it and must not outlive it; all of them are used by one thread at a time.
class BREFIR_API Config {
 public:
  /// A local file, made when missing. Errors: those of SimpleConfig.
  explicit Config(const std::string& path);
  /// A file of a node: a working copy here, which goes back when the object ends, also after no
  /// change; failures are only logged then. Errors: those of ssh_utils::file::RemoteFile; a file
  /// that the node does not have is "file_not_exists", with the path of the copy.
  Config(pnl_rpc::SSH ssh, const std::string& path);
  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;
  ~Config();

  /// Called by the field's constructor. A key that the file has gives the field its value, without
  /// the double quotes around it, and is written back that way; else the field keeps its default.
  void Register(SCBaseField* field);
  /// Logs the whole file (module "simpleconfig", level 9).
  void Dump() const;

 private:
  friend class SCBaseField;

  std::map<std::string, SCBaseField*> fields_;  // not owned
  // In this order: the working copy goes back after its lock is released.
  std::shared_ptr<ssh_utils::file::RemoteFile> remote_;
  std::shared_ptr<SimpleConfig> config_;
};

/// The value of one key of a Config: what the file says, else a default. Assignments are written at
/// once; errors are those of SimpleConfig.
class BREFIR_API SCBaseField {
 public:
  SCBaseField(const std::string& name, Config* owner, const std::string& default_value);
  SCBaseField(const SCBaseField&) = delete;
  SCBaseField& operator=(const SCBaseField&) = delete;

  const std::string& name() const { return name_; }  ///< the key
  bool is_set() const { return is_set_; }            ///< whether the file has the key
  const std::string& AsString() const { return value_; }
  operator const std::string&() const { return value_; }  // NOLINT: reads as its value

  bool operator==(const std::string& text) const { return value_ == text; }
  bool operator==(const char* text) const { return value_ == text; }

  SCBaseField& operator=(const std::string& value);
  SCBaseField& operator=(const char* value);
  /// Removes the key from the file and returns to the default.
  SCBaseField& Del();

 private:
  friend class Config;

  bool is_set_ = false;
  Config* owner_;
  std::string name_;
  std::string value_;
  std::string default_value_;
};

}  // namespace utils
