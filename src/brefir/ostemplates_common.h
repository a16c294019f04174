#pragma once

#include <map>
#include <string>

#include "brefir/export.h"
#include "parser/conf_cache.h"
#include "pnl/str.h"

/// Named repositories of OS templates and recipes.
///
/// One repository, "Velkor", is always there; others are lines of `etc/ostemplates.conf` below the
/// working directory:
///
///      # kind of line, kind of repository, name, location
///      Repo ostemplates main http://templates.example.org/main
///      Repo recipes     main http://templates.example.org/main/recipes.tar.gz
///
/// Words are separated by blanks and tabs; what follows a "#" is a comment. People edit the file:
/// whatever is not the word or line to be changed is kept byte for byte. Several processes may
/// change it at once.
namespace ostemplate {

inline constexpr const char* kBuiltinRepo = "Velkor";  ///< name of the built-in repository

/// The repository lines of the file. Key: prefix + name. Its name as a data set is "RepoDS".
class BREFIR_API RepoDS : public LineDataSet {
 public:
  dd::Field prefix{*this, "prefix"};  ///< kind of repository: "ostemplates" or "recipes"
  dd::Field name{*this, "name"};
  dd::Field location{*this, "location"};

 protected:
  std::string LinePrefix() const override;
  std::string KeyVal() const override;
};

/// Announces the kind of file, "OstemplatesConf".
class BREFIR_API OstemplatesConf : public PnlCachedConfig {
 public:
  OstemplatesConf();
};

/// The cached configuration of `etc/ostemplates.conf`. A missing file is an empty one; one that
/// cannot be read is pnl_err::Error of type "file". Thread-safe.
[[nodiscard]] BREFIR_API ConfRef GetConf();

/// The repositories of one kind, as they were when the object was made. For one thread.
class BREFIR_API Repo {
 public:
  /// Where a repository is.
  struct BREFIR_API RepoInfo {
    RepoInfo() = default;
    RepoInfo(const std::string& location, bool builtin);

    std::string location;  ///< address of the index (templates) or the archive (recipes)
    bool builtin = false;  ///< the built-in repository, not overridden by a line of the file
  };

  /// Lists the built-in repository and the lines of the kind `prefix`. Of several lines with one
  /// name the last counts; one named like the built-in repository replaces it. A line without a
  /// name is skipped and logged, one without a location has an empty one. Throws as GetConf.
  Repo(const std::string& prefix, const std::string& builtin_location);
  virtual ~Repo();

  /// Removes the repository from the file, not from `repos`; a new object no longer sees it. False
  /// when the file has no line of that name. Errors: "file", "lock".
  virtual bool Delete(const std::string& name);

  /// Fetches the repositories into their cache. Without `force` this may be put off when the last
  /// time is not long ago. Names of those that failed are added to `failed` unless it is null, and
  /// the result is false then.
  virtual bool UpdateCache(const std::string& dir, bool force, StringSet* failed) = 0;

  /// Adds a repository or changes its location, in the file and in `repos`. Name and location must
  /// be words without blank, tab, "#" or line end: else pnl_err::Error("parser", "bad_word", word),
  /// parameter "field". Other errors: "file", "lock". After an error nothing is changed.
  void Set(const std::string& name, const std::string& location);

  [[nodiscard]] bool Exists(const std::string& name) const;
  /// "" for an unknown name.
  [[nodiscard]] std::string GetLocation(const std::string& name) const;
  /// The first name, in name order, with exactly that location; "" when there is none.
  [[nodiscard]] std::string GetID(const std::string& location) const;

  std::map<std::string, RepoInfo> repos;  ///< by name
  std::string prefix;                     ///< the kind
};

}  // namespace ostemplate
