#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"
#include "brefir/fields.h"
#include "brefir/ostemplates_common.h"
#include "pnl/date.h"
#include "pnl/err.h"
#include "pnl/str.h"
#include "pnl/xml.h"

/// Recipes: scripts for newly installed servers. A header of comment lines describes each recipe.
/// This file has the catalogue of recipes, and the access levels that say who may use them.
///
///     recipe::Manage manage("nodemgr", "/opt/panel/var/recipes");
///     recipe::RecipeMap recipes;
///     StringSet failed;
///     manage.List(recipes, &failed);
///     if (const auto web = manage.FindByName("Web server", {"debian"}, true)) Run(web->content);
///
/// All files are below the recipes directory D:
///
///      D/repo/R/        the recipes of the repository R, unpacked from its archive
///      D/local/         local recipes, written on this panel
///      D/metadata.xml   access levels and owners, by recipe id
///
/// Nothing is kept in memory between calls. Different objects may be used by different threads. The
/// const functions of one object may be called by several threads at once.
namespace recipe {

inline constexpr const char* kLocalSource = "#local";  ///< source of local recipes

// --- Records

/// Who may use a recipe.
enum AccessLevel : int {
  kAccessNone = 0,   ///< "none": nobody
  kAccessAdmin = 1,  ///< "admin": the administrator
  kAccessAny = 255,  ///< "any": everybody
};

/// "none", "admin", "any"; "" for any other value.
[[nodiscard]] BREFIR_API std::string AccessLevelToStr(AccessLevel level);
/// "" and "any" are kAccessAny, "admin" is kAccessAdmin, any other text is kAccessNone.
[[nodiscard]] BREFIR_API AccessLevel StrToAccessLevel(const std::string& text);

/// Identifies a recipe. As text it is the source, "__" and the file name; it is split at the first
/// "__".
struct BREFIR_API RecipeId {
  std::string source;  ///< a repository, or kLocalSource
  std::string file;

  /// Parses an id; returns none without "__".
  [[nodiscard]] static std::optional<RecipeId> Parse(std::string_view text);
  [[nodiscard]] std::string Str() const;  ///< "main__web.sh", "#local__web.sh"
  [[nodiscard]] bool IsLocal() const { return source == kLocalSource; }
};

/// A recipe: the data of its header, and this panel's parameters for it.
struct BREFIR_API RecipeInfo {
  RecipeInfo();
  RecipeInfo(const RecipeInfo&);
  RecipeInfo(RecipeInfo&&) noexcept;
  RecipeInfo& operator=(const RecipeInfo&);
  RecipeInfo& operator=(RecipeInfo&&) noexcept;
  ~RecipeInfo();

  /// For people: "Web server rev.3 [main]"; without the revision when it is empty.
  std::string FullName() const;

  std::string id;
  std::string name;  ///< a file without a name is not a recipe
  std::string owner;
  std::string repo;
  StringSet tags;
  std::string revision;
  pnl_date::DateTime mtime;
  std::string path;
  StringMap descriptions;
  std::string content;
  std::string method;
  AccessLevel access = kAccessAny;
};

/// The meaning of the fields, except the access level.
inline constexpr auto kRecipeFields = [] {
  using utils::Field;
  using R = RecipeInfo;
  return std::tuple{
      Field{"id", "source, two underscores, file name; other commands take this id", &R::id},
      Field{"name", "from its header", &R::name},
      Field{"owner", "the user who may use it besides the administrator; empty for none",
            &R::owner},
      Field{"repo", "its source: a repository, or #local", &R::repo},
      Field{"tags", "from its header", &R::tags},
      Field{"revision", "from its header", &R::revision},
      Field{"mtime", "when its file was changed", &R::mtime},
      Field{"path", "its file", &R::path},
      Field{"descriptions", "texts by language code, from its header", &R::descriptions},
      Field{"content", "the script, with --content; else empty", &R::content},
      Field{"method", "how it is run: ssh, or winrm for .ps1 and .bat", &R::method},
  };
}();

using RecipeInfoPtr = std::shared_ptr<RecipeInfo>;
using RecipeMap = std::map<std::string, RecipeInfo>;  ///< by id

// --- Header

/// The kind of a line of a script.
enum class HeaderKind {
  kNoComment,    ///< it begins with neither "#" nor "REM"
  kComment,      ///< without meaning: outside of the block, or empty after the comment marker
  kBegin,        ///< it begins the block
  kName,         ///< the token "recipe", in the block
  kTags,         ///< the token "tags"
  kRevision,     ///< the token "revision"
  kDescription,  ///< a token "description_LANGUAGE"; the language may be missing
  kUnknown,      ///< any other token
  kEnd,          ///< it ends the block
};

struct HeaderLine {
  HeaderKind kind = HeaderKind::kNoComment;
  std::string_view text;      ///< of a comment: the text after the marker
  std::string_view token;     ///< in the block: the text before the first colon, trimmed
  std::string_view value;     ///< the text after the colon, trimmed
  std::string_view language;  ///< of a description
  bool colon = false;         ///< in the block: whether there is a colon
};

/// Reads a recipe's header line by line into a record. The header is a block of comment lines
/// anywhere in the script:
///
///      # metadata_begin
///      # recipe: Web server
///      # tags: debian, ubuntu
///      # revision: 3
///      # description_en: Installs a web server
///      # metadata_end
///
/// All "#", blanks and tabs at the beginning of a line are removed. Lines that begin with "REM" are
/// comments too, but "REM" is not removed: they never begin a block and have no meaning in one.
/// Tags of several lines are added together. When another token occurs twice, the last line counts.
/// Unknown tokens are logged (level 4). Use one parser for one header.
///
/// Classify is the grammar alone, for code that checks a header without a record.
class BREFIR_API RecipeParser {
 public:
  explicit RecipeParser(RecipeInfo& info) : info_(info) {}

  /// Reads a line without its line end. Returns false after the end of the block.
  bool NextLine(std::string_view line);

  /// The text after the comment marker of a line; "" when the line is not a comment.
  static std::string_view HeaderText(std::string_view line);

  /// The kind and parts of a line without its line end. `in_block` says whether the line is between
  /// HeaderKind::kBegin and HeaderKind::kEnd. The views point into `line`.
  static HeaderLine Classify(std::string_view line, bool in_block);

  /// The comma-separated tags in the value of a line, trimmed, as views into it. Nothing between
  /// two commas is no tag; only blanks between them are an empty tag.
  static std::vector<std::string_view> Tags(std::string_view value);

 private:
  void Token(std::string_view token, std::string_view value);

  bool in_block_ = false;
  RecipeInfo& info_;
};

inline constexpr const char* kUnreadable = "read";  ///< a type of errors
inline constexpr std::size_t kMaxLine = 16383;      ///< longest line that ParseFile reads; bytes

/// Reads the header of the file `info.path` into `info`. Lines are trimmed at both ends, so that
/// the header may be indented. A line of more than kMaxLine bytes is cut there and ends the
/// reading. Little more than the header is read from the file. Throws pnl_err::Error("read",
/// "file", path) with the parameter "reason" for a file that cannot be read or is not a regular
/// file.
BREFIR_API void ParseFile(RecipeInfo& info);

/// The end of a script's output in a printable form: the printable ASCII characters and line feeds
/// of its last 5120 bytes. A byte above 127 is removed together with the next byte, and with one
/// more when that is above 127 too. So a character of three bytes is removed completely; a
/// character of two bytes is removed together with the character after it.
[[nodiscard]] BREFIR_API std::string TruncateOutput(std::string_view text);

// --- Catalogue

/// Whether `info` has at least one of `tags`; false when `tags` is empty.
[[nodiscard]] BREFIR_API bool TagMatch(const RecipeInfo& info, const StringSet& tags);

inline constexpr std::uint64_t kArchiveLimit = 64
                                               << 20;    ///< largest archive of a repository; bytes
inline constexpr std::uint64_t kUnpackLimit = 64 << 20;  ///< largest unpacked size; bytes
inline constexpr std::chrono::minutes kArchiveTime{10};  ///< longest time to fetch an archive

/// The repositories of recipes. Their locations are addresses of gzipped tar archives. The built-in
/// repository is on the server of the setting download_server.
class BREFIR_API RecipeRepo : public ostemplate::Repo {
 public:
  RecipeRepo();
  ~RecipeRepo() override;

  /// Fetches the archive of every repository R and unpacks it to `dir`/R. Only one update runs at a
  /// time in the process, and one per directory on the host; waits up to 600 s for another one. A
  /// repository that fails is added to `failed` (may be null), logged (level 3), and keeps its old
  /// recipes; the others are still updated. True when none failed. `force` is not used: every call
  /// fetches. When an update was killed, the next update of R removes the directories that it left
  /// (`dir`/R.brefir-XXXXXX, `dir`/.replaced/R), or moves the old recipes back when `dir`/R is
  /// missing.
  ///
  /// Limits are kArchiveLimit, kArchiveTime and kUnpackLimit. An archive above kUnpackLimit is
  /// refused before anything is unpacked. A name or password in a location is not logged.
  ///
  /// Nothing is unpacked outside of `dir`/R. An archive with a device, a FIFO, a socket or a link
  /// that leads outside is refused. The unpacked files belong to root, and only root can write to
  /// them. Old and new recipes are exchanged in one step. Throws when `dir` cannot be made, and
  /// exceptions that are not pnl_err::Error.
  bool UpdateCache(const std::string& dir, bool force, StringSet* failed) override;
};

/// The catalogue. The const functions may be called from several threads at once.
///
/// A change replaces `D/metadata.xml` as a whole, without a lock: of two changes at the same time
/// one may be lost. When the file does not exist, no recipe has parameters. When it cannot be read,
/// is malformed, or has another root than "doc", every function that needs it throws ("file",
/// "xml"). So a locked recipe is never shown as an open one.
class BREFIR_API Manage {
 public:
  /// `name` is kept for the caller; `directory` is D.
  Manage(const std::string& name, const std::string& directory);

  /// All recipes with their local parameters; see GetFromRepos and GetLocal. When local recipes
  /// cannot be read, "#local" is added to `failed_repos` (may be null), and the failure is logged.
  void List(RecipeMap& map, StringSet* failed_repos) const;
  /// Adds the recipes of all repositories. When a recipe cannot be read, that is logged and its
  /// repository is added to `failed_repos` (may be null); the other recipes are still added. When
  /// the directory of the built-in repository is missing, all repositories are fetched first. A
  /// repository that is being updated is shown with its old or its new recipes, or not at all,
  /// never in part.
  void GetFromRepos(RecipeMap& map, StringSet* failed_repos) const;
  /// Adds the local recipes, if there are any. Throws as GetFromDir does.
  void GetLocal(RecipeMap& map) const;
  /// Adds the recipes of one directory with `source` as their source: regular files (links are
  /// followed) whose header has a name. Other files are not opened. Throws "file" for a directory
  /// that cannot be read. Throws ("read", "file", path) for the first file that cannot be read,
  /// after the others have been added.
  void GetFromDir(const std::string& directory, const std::string& source, RecipeMap& map) const;

  /// One recipe with its local parameters, even when its header has no name. Throws
  /// pnl_err::Error("read", "file", path) when the file does not exist.
  [[nodiscard]] RecipeInfoPtr GetById(const std::string& id, bool with_content) const;
  [[nodiscard]] RecipeInfoPtr GetById(const RecipeId& id, bool with_content) const;
  /// The first recipe, in the order of ids, with that name and one of `tags`; null when there is
  /// none. Local recipes come before those of repositories.
  [[nodiscard]] RecipeInfoPtr FindByName(const std::string& name, const StringSet& tags,
                                         bool with_content) const;
  /// Whether List shows it.
  [[nodiscard]] bool Exists(const std::string& id) const;
  /// Removes a recipe's file and its local parameters. Returns false when somebody else removed the
  /// file at the same time. Throws as GetById does.
  bool Delete(const std::string& id);

  /// Reads the header of `info.content` into `info`. Lines are not trimmed and may have any length:
  /// an indented line is not a comment.
  void ParseContent(RecipeInfo& info) const;
  /// "winrm" for a path that ends in ".ps1" or ".bat", else "ssh".
  void SetMethod(RecipeInfo& info) const;

  /// Sets one parameter of a recipe, which need not exist. Throws "file" and "xml"; the file then
  /// stays as it was.
  void SetLocalParam(const std::string& id, const std::string& name, const std::string& value);
  void SetAccessLevel(const std::string& id, AccessLevel level);
  void SetOwner(const std::string& id, const std::string& owner);
  void DeleteLocalParams(const std::string& id);

  /// Sets access level and owner from `node`, an element of the file; by default "any" and "".
  void ApplyLocalParams(const pnl_xml::XmlNode& node, RecipeInfo& info) const;
  void ApplyLocalParams(RecipeInfoPtr& info) const;  ///< from the element for `info->id`
  void ApplyLocalParams(RecipeMap& map) const;

  std::string RepoDir() const;     ///< D/repo
  std::string ParamsFile() const;  ///< D/metadata.xml

 private:
  bool ReadDir(const std::string& directory, const std::string& source, RecipeMap& map,
               std::optional<pnl_err::Error>& unreadable) const;
  std::string LocalDir() const;

  std::string name_;
  std::string directory_;
};

}  // namespace recipe
