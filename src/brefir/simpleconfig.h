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

/// Edits line-oriented files of keys and values: all other lines stay byte for byte.
///
///     utils::SimpleConfig time("/etc/time.conf", false, "#", "=", "");
///     time.Set("drift", "3", "server");   // after the line that begins with "server"
///
///     utils::Config agent(ssh, "/etc/default/agent");       // a file of a node
///     utils::SCBaseField level("level", &agent, "info");    // bound to one key
///     if (level == "debug") level = "info";
namespace utils {

/// The syntax of the lines.
struct LineSyntax {
  std::string comment =
      "#";  ///< a set of characters: each of them at the beginning of a line makes it a comment
  std::string separator = "=";  ///< a text, between key and value
  std::string quote;            ///< written before and after every value
};

/// The edits of SimpleConfig on a text, to see a change before making it.
///
/// A line ends with a line feed. Its key is the text before the first separator, trimmed; keys are
/// compared byte by byte. A written text always ends with a line feed. All functions are pure.
namespace lines {

[[nodiscard]] BREFIR_API bool Exists(std::string_view text, std::string_view key,
                                     const LineSyntax& syntax);
/// As SimpleConfig::Get; `quote` is the quote to be removed, not that of `syntax`.
[[nodiscard]] BREFIR_API std::string Get(std::string_view text, std::string_view key,
                                         std::string_view quote, const LineSyntax& syntax);
/// The text that SimpleConfig::Set would write.
[[nodiscard]] BREFIR_API std::string Set(std::string_view text, std::string_view key,
                                         std::string_view value, std::string_view after,
                                         const LineSyntax& syntax);
/// The text that SimpleConfig::Del would write; none when no line has the key.
[[nodiscard]] BREFIR_API std::optional<std::string> Del(std::string_view text, std::string_view key,
                                                        const LineSyntax& syntax);

/// A line with its key.
struct Entry {
  std::size_t line = 0;  ///< from 1
  std::string key;
  std::string value;  ///< as Get reads it
};
/// Every line that has a key and is not a comment, in order.
[[nodiscard]] BREFIR_API std::vector<Entry> List(std::string_view text, std::string_view quote,
                                                 const LineSyntax& syntax);

}  // namespace lines

/// One file. While the object lives, the file is locked against every other SimpleConfig of the
/// same path, in any process. Each call reads the file again, and so sees edits that others made
/// between two calls.
///
/// A change replaces the file by atomic rename; owner, group, mode, ACL and security label stay. A
/// symbolic link itself is replaced by a file with the attributes of its target, and the target
/// stays as it was. To keep the link, pass pnl_file::RealPath of it. On an error the file stays as
/// it was.
///
/// Errors: pnl_err::Error("pkg", "file_open", path), parameters errno and errmsg, when the file or
/// its temporary file cannot be opened; "file" for other system failures.
///
/// Use it from one thread at a time. A second object for the same path in one thread cannot get the
/// lock and throws.
class BREFIR_API SimpleConfig {
 public:
  /// The last three parameters are those of LineSyntax. With `create`, a missing file is made,
  /// empty; otherwise it is pnl_err::Error("pkg", "file_not_exists", path). Waits up to 3 s for the
  /// lock, then throws pnl_err::Error("lock", "timeout", path).
  SimpleConfig(const std::string& path, bool create, const std::string& comment,
               const std::string& separator, const std::string& quote);
  SimpleConfig(const SimpleConfig&) = delete;
  SimpleConfig& operator=(const SimpleConfig&) = delete;
  ~SimpleConfig();

  /// Whether a line has the key. Comments count too: "#a=1" has the key "#a".
  [[nodiscard]] bool Exists(const std::string& key) const;
  /// The value of the first line with the key that is not a comment, up to the next comment
  /// character, trimmed. One `quote` at each end is removed if it is there. "" when no line has the
  /// key.
  [[nodiscard]] std::string Get(const std::string& key, const std::string& quote) const;
  /// Replaces the first line with the key; without one, adds a line at the end. Further lines with
  /// the key stay.
  ///
  /// When `after` is not empty and not the key itself, the line is put after the first line that,
  /// trimmed, begins with `after`; at the end when there is none. All lines with the key before
  /// that place are removed, and the first one after it.
  ///
  /// Nothing is checked or escaped: key and value must fit the syntax. The file is written even
  /// when nothing changes.
  void Set(const std::string& key, const std::string& value, const std::string& after);
  /// Removes every line with the key. When there is none, returns false and does not write the
  /// file.
  bool Del(const std::string& key);
  /// The whole file; "" when it has been removed.
  [[nodiscard]] std::string Content() const;

 private:
  std::string path_;
  LineSyntax syntax_;
  pnl_file::Lock lock_;
};

class SCBaseField;

/// A file with "#" comments, "=" and no quotes. Fields (SCBaseField) are bound to its keys; they
/// must not outlive it. Use the object and its fields from one thread at a time.
class BREFIR_API Config {
 public:
  /// A local file, made when missing. Errors: those of SimpleConfig.
  explicit Config(const std::string& path);
  /// A file of a node. A working copy on this host is edited. The destructor writes it back, even
  /// without a change, and only logs failures. Errors: those of ssh_utils::file::RemoteFile. A file
  /// that the node does not have is "file_not_exists", with the path of the copy.
  Config(pnl_rpc::SSH ssh, const std::string& path);
  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;
  ~Config();

  /// The field's constructor calls this. When the file has the key, the field gets its value
  /// without double quotes around it, and the file is rewritten with that value. Otherwise the
  /// field keeps its default.
  void Register(SCBaseField* field);
  /// Logs the whole file (module "simpleconfig", level 9).
  void Dump() const;

 private:
  friend class SCBaseField;

  std::map<std::string, SCBaseField*> fields_;  // not owned
  // The order matters: the lock is released before the working copy is written back.
  std::shared_ptr<ssh_utils::file::RemoteFile> remote_;
  std::shared_ptr<SimpleConfig> config_;
};

/// The value of one key of a Config: from the file, else a default. An assignment is written to the
/// file at once. Errors are those of SimpleConfig.
class BREFIR_API SCBaseField {
 public:
  SCBaseField(const std::string& name, Config* owner, const std::string& default_value);
  SCBaseField(const SCBaseField&) = delete;
  SCBaseField& operator=(const SCBaseField&) = delete;

  const std::string& name() const { return name_; }  ///< the key
  bool is_set() const { return is_set_; }            ///< whether the file has the key
  const std::string& AsString() const { return value_; }
  operator const std::string&() const { return value_; }  // NOLINT: converts to its value

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
