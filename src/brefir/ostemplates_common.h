#pragma once

#include <map>
#include <string>

#include "brefir/export.h"
#include "parser/conf_cache.h"
#include "pnl/str.h"

/// Named repositories of OS templates and recipes. "Velkor", the name of the panel's own family of
/// programs, is also the name of the built-in repository.
///
/// The built-in repository always exists. Others are lines of `etc/ostemplates.conf` below the
/// working directory:
///
///      # kind of line, kind of repository, name, location
///      Repo ostemplates main http://templates.example.org/main
///      Repo recipes     main http://templates.example.org/main/recipes.tar.gz
///
/// Words are separated by blanks and tabs; a "#" begins a comment. People edit the file: a change
/// keeps everything else in it byte for byte. Several processes may change it at the same time.
namespace ostemplate {

inline constexpr const char* kBuiltinRepo = "Velkor";  ///< name of the built-in repository

/// The repository lines of the file; the data set "RepoDS". The key of a record is prefix + name.
class BREFIR_API RepoDS : public LineDataSet {
 public:
  dd::Field prefix{*this, "prefix"};  ///< kind of repository: "ostemplates" or "recipes"
  dd::Field name{*this, "name"};
  dd::Field location{*this, "location"};

 protected:
  std::string LinePrefix() const override;
  std::string KeyVal() const override;
};

/// Registers the kind of file "OstemplatesConf".
class BREFIR_API OstemplatesConf : public PnlCachedConfig {
 public:
  OstemplatesConf();
};

/// The cached configuration of `etc/ostemplates.conf`. A missing file counts as empty; a file that
/// cannot be read is pnl_err::Error of type "file". Thread-safe.
[[nodiscard]] BREFIR_API ConfRef GetConf();

/// The repositories of one kind, as they were when the object was made. Use it from one thread at a
/// time.
class BREFIR_API Repo {
 public:
  /// The location of a repository.
  struct BREFIR_API RepoInfo {
    RepoInfo() = default;
    RepoInfo(const std::string& location, bool builtin);

    std::string location;  ///< address of the index (templates) or the archive (recipes)
    bool builtin = false;  ///< the built-in repository, not overridden by a line of the file
  };

  /// Lists the built-in repository and the lines of the kind `prefix`. When several lines have one
  /// name, the last counts. A line with the name of the built-in repository replaces that. A line
  /// without a name is skipped and logged; a line without a location gives an empty location.
  /// Throws as GetConf does.
  Repo(const std::string& prefix, const std::string& builtin_location);
  virtual ~Repo();

  /// Removes the repository from the file, but not from `repos` of this object. Returns false when
  /// the file has no line of that name. Errors: "file", "lock".
  virtual bool Delete(const std::string& name);

  /// Fetches the repositories into their cache. Without `force` nothing may be fetched when the
  /// last update was a short time ago. Returns false when a repository failed; its name is added to
  /// `failed` unless that is null.
  virtual bool UpdateCache(const std::string& dir, bool force, StringSet* failed) = 0;

  /// Adds a repository or changes its location, in the file and in `repos`. A name or location that
  /// is empty or contains a blank, tab, "#" or line end throws pnl_err::Error("parser", "bad_word",
  /// word) with the parameter "field". Other errors: "file", "lock". After an error nothing is
  /// changed.
  void Set(const std::string& name, const std::string& location);

  [[nodiscard]] bool Exists(const std::string& name) const;
  /// The location of a repository; "" for an unknown name.
  [[nodiscard]] std::string GetLocation(const std::string& name) const;
  /// The name of the repository with exactly that location; the first in name order; "" when there
  /// is none.
  [[nodiscard]] std::string GetID(const std::string& location) const;

  std::map<std::string, RepoInfo> repos;  ///< by name
  std::string prefix;                     ///< the kind
};

}  // namespace ostemplate
