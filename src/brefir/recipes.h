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

/// Recipes: scripts that are run on freshly installed servers, with a header of comment lines that
/// says what they are; the catalogue of them; who may use them.
///
///     recipe::Manage manage("nodemgr", "/opt/panel/var/recipes");
///     recipe::RecipeMap recipes;
///     StringSet failed;
///     manage.List(recipes, &failed);
///     if (const auto web = manage.FindByName("Web server", {"debian"}, true)) Run(web->content);
///
/// All of it lies below the recipes directory D:
///
///      D/repo/R/        the recipes of the repository R, as its archive brought them
///      D/local/         recipes that were written here
///      D/metadata.xml   access levels and owners, by recipe id
///
/// Nothing is kept in memory between calls. Different objects may be used by different
/// threads, and one by several for what is const.
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
/// "" and "any" are kAccessAny, "admin" is kAccessAdmin, everything else locks: kAccessNone.
[[nodiscard]] BREFIR_API AccessLevel StrToAccessLevel(const std::string& text);

/// What names a recipe: in texts its source, "__" and its file name, split at the first "__".
struct BREFIR_API RecipeId {
  std::string source;  ///< a repository, or kLocalSource
  std::string file;

  /// The id in `text`; none where there is no "__".
  [[nodiscard]] static std::optional<RecipeId> Parse(std::string_view text);
  [[nodiscard]] std::string Str() const;  ///< "main__web.sh", "#local__web.sh"
  [[nodiscard]] bool IsLocal() const { return source == kLocalSource; }
};

/// A recipe: what its header says, and what this panel keeps of it.
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
  std::string name;  ///< a file without one is no recipe
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

/// What the fields mean, but for the access level.
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

/// What a line of a script is.
enum class HeaderKind {
  kNoComment,    ///< it begins with neither "#" nor "REM"
  kComment,      ///< of no meaning: outside of the block, or nothing behind its marker
  kBegin,        ///< it opens the block
  kName,         ///< the token "recipe", in the block
  kTags,         ///< the token "tags"
  kRevision,     ///< the token "revision"
  kDescription,  ///< a token "description_LANGUAGE"; the language may be missing
  kUnknown,      ///< any other token
  kEnd,          ///< it ends the block
};

struct HeaderLine {
  HeaderKind kind = HeaderKind::kNoComment;
  std::string_view text;      ///< of a comment: what stands behind the marker
  std::string_view token;     ///< in the block: what stands before the first colon, trimmed
  std::string_view value;     ///< what stands behind it, trimmed
  std::string_view language;  ///< of a description
  bool colon = false;         ///< in the block: whether there is one
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
/// Every "#", blank and tab in front of a line goes. Lines that begin with "REM" are comments too,
/// but keep their "REM", so that they never open a block and say nothing within it. Tags of several
/// lines add up; of other tokens the last line counts. Unknown tokens are logged (level 4).
/// One parser reads one header.
///
/// Classify is its grammar, for those who tell people about a header instead of taking it in.
class BREFIR_API RecipeParser {
 public:
  explicit RecipeParser(RecipeInfo& info) : info_(info) {}

  /// Takes a line without its end. True to go on, false after the block.
  bool NextLine(std::string_view line);

  /// What the parser makes of a line: the text behind its comment marker; "" when it is no comment.
  static std::string_view HeaderText(std::string_view line);

  /// What the parser makes of a line without its end, within a block (which HeaderKind::kBegin
  /// opens and HeaderKind::kEnd ends) or before it. The views are into `line`.
  static HeaderLine Classify(std::string_view line, bool in_block);

  /// The tags in the value of a line, trimmed, as views into it. What is empty between two commas
  /// is none; blanks there are a tag of no characters.
  static std::vector<std::string_view> Tags(std::string_view value);

 private:
  void Token(std::string_view token, std::string_view value);

  bool in_block_ = false;
  RecipeInfo& info_;
};

inline constexpr const char* kUnreadable = "read";  ///< a type of errors
inline constexpr std::size_t kMaxLine = 16383;      ///< bytes of a line that ParseFile takes

/// Reads the header of the file `info.path` into `info`. Lines are trimmed at both ends, so that
/// the header may be indented; one of more than kMaxLine bytes is cut there and is the last. Little
/// more than the header is read from the file. Throws pnl_err::Error("read", "file", path), with
/// the parameter "reason", for a file that cannot be read or is no regular one.
BREFIR_API void ParseFile(RecipeInfo& info);

/// The end of a script's output, fit to be shown: the printable ASCII characters and line feeds of
/// its last 5120 bytes. A byte above 127 is left out together with the next byte, and with one more
/// when that is above 127, too. So a character of three bytes disappears as a whole, and one of two
/// bytes takes the character behind it along.
[[nodiscard]] BREFIR_API std::string TruncateOutput(std::string_view text);

// --- Catalogue

/// Whether `info` has at least one of `tags`; without tags nothing matches.
[[nodiscard]] BREFIR_API bool TagMatch(const RecipeInfo& info, const StringSet& tags);

inline constexpr std::uint64_t kArchiveLimit = 64 << 20;  ///< bytes of a repository's archive
inline constexpr std::uint64_t kUnpackLimit = 64 << 20;   ///< bytes that it may unpack to
inline constexpr std::chrono::minutes kArchiveTime{10};   ///< for fetching it

/// The repositories of recipes; their locations are addresses of gzipped tar archives. The built-in
/// one is on the server of the setting download_server.
class BREFIR_API RecipeRepo : public ostemplate::Repo {
 public:
  RecipeRepo();
  ~RecipeRepo() override;

  /// Fetches the archive of every repository R and unpacks it as `dir`/R; one update at a time in
  /// the process, and one of a directory on the host: another one is waited for, up to 600 s. One
  /// that fails is added to `failed` (may be null), logged (level 3), and keeps its old recipes;
  /// the others go on. True when none failed. `force` is not used: every call fetches. What a
  /// killed update has left, `dir`/R.brefir-XXXXXX or `dir`/.replaced/R, goes with the next one of
  /// R, or back to its place where that is empty.
  ///
  /// An archive may have kArchiveLimit bytes, take kArchiveTime, and hold kUnpackLimit bytes; one
  /// that holds more is refused before anything of it is unpacked. A name or password in a location
  /// is not logged.
  ///
  /// Nothing of an archive lands outside; one that holds a device, FIFO, socket or a link that
  /// leads outside is refused. What is unpacked belongs to root and is writable by root alone. Old
  /// and new recipes change places at once. Errors other than pnl_err::Error, and that `dir` cannot
  /// be made, pass through.
  bool UpdateCache(const std::string& dir, bool force, StringSet* failed) override;
};

/// The catalogue. What is const may be called from several threads at once.
///
/// `D/metadata.xml` is replaced as a whole by those who change it, without a lock: of two at once
/// one may be lost. No such file means that no recipe has parameters; one that cannot be read, is
/// malformed, or whose root is not "doc" is an error ("file", "xml") for everything that would need
/// it, so that no locked recipe is ever taken for an open one.
class BREFIR_API Manage {
 public:
  /// `name` is for the caller, `directory` is D.
  Manage(const std::string& name, const std::string& directory);

  /// All recipes with their local parameters; see GetFromRepos and GetLocal. Local recipes that
  /// cannot be read add "#local" to `failed_repos` (may be null) and are logged.
  void List(RecipeMap& map, StringSet* failed_repos) const;
  /// Adds the recipes of all repositories. What can be read of one is added also where some of it
  /// cannot: that is logged, and the repository added to `failed_repos` (may be null). Without the
  /// built-in repository's directory all are fetched first. A repository that is updated meanwhile
  /// is shown old or new, or missed, never in part.
  void GetFromRepos(RecipeMap& map, StringSet* failed_repos) const;
  /// Adds local recipes; there need not be any. Throws as GetFromDir does.
  void GetLocal(RecipeMap& map) const;
  /// Adds the recipes of one directory as those of `source`: regular files (also by links) whose
  /// header has a name. What is no regular file is not opened. Throws "file" for a directory that
  /// cannot be read, and ("read", "file", path) for the first file that cannot be; the others have
  /// been added then.
  void GetFromDir(const std::string& directory, const std::string& source, RecipeMap& map) const;

  /// One recipe with its local parameters, whether its header has a name or not. Throws
  /// pnl_err::Error("read", "file", path) when there is no such file.
  [[nodiscard]] RecipeInfoPtr GetById(const std::string& id, bool with_content) const;
  [[nodiscard]] RecipeInfoPtr GetById(const RecipeId& id, bool with_content) const;
  /// The first recipe, in the order of ids, of that name and with one of `tags`; null when there is
  /// none. Local recipes come before those of repositories.
  [[nodiscard]] RecipeInfoPtr FindByName(const std::string& name, const StringSet& tags,
                                         bool with_content) const;
  /// Whether List shows it.
  [[nodiscard]] bool Exists(const std::string& id) const;
  /// Removes a recipe's file and its local parameters. False when the file vanished meanwhile;
  /// throws as GetById.
  bool Delete(const std::string& id);

  /// Reads the header of `info.content` into `info`. Lines are taken as they are, of any length: an
  /// indented one is no comment.
  void ParseContent(RecipeInfo& info) const;
  /// "winrm" for a path that ends in ".ps1" or ".bat", else "ssh".
  void SetMethod(RecipeInfo& info) const;

  /// Sets one parameter of a recipe, whether there is such a recipe or not. Throws "file" and
  /// "xml"; the file stays as it was then.
  void SetLocalParam(const std::string& id, const std::string& name, const std::string& value);
  void SetAccessLevel(const std::string& id, AccessLevel level);
  void SetOwner(const std::string& id, const std::string& owner);
  void DeleteLocalParams(const std::string& id);

  /// Access level and owner of the file's element `node`; what it lacks is "any" and "".
  void ApplyLocalParams(const pnl_xml::XmlNode& node, RecipeInfo& info) const;
  void ApplyLocalParams(RecipeInfoPtr& info) const;  ///< of the file's element for `info->id`
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
