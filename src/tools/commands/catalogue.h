#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "brefir/ostemplates.h"
#include "tools/frame/verb.h"

/// What the families of templates, of recipes and of their repositories share.
namespace tools {

// --- The command line

/// --module, --version, --templates, --location: what else etc/brefir.conf says.
void AddCatalogueOptions(opts::Args& args);
/// The positional word KEY: any template, or an installed one.
void AddKey(opts::Args& args);
void AddInstalledKey(opts::Args& args);

/// --repo, which is the only one `of` this, and --tag of a list, and whether they let `info` in.
void AddFilters(opts::Args& args, const char* of);
template <class Info>
bool IsWanted(const opts::Values& values, const Info& info) {
  return (!values.Has("repo") || info.repo == values.Str("repo")) &&
         (!values.Has("tag") || info.tags.contains(values.Str("tag")));
}

/// The directory of an option, else of a setting, absolute; that of installed templates.
[[nodiscard]] std::string DirOf(const Context& context, const char* option, const char* setting);
[[nodiscard]] std::string TemplateDir(const Context& context);

/// `word`, which has to be one path component: else pnl_err::Error("usage", what) with a message.
/// Names come from people and repositories, and become paths.
const std::string& RequirePathComponent(const std::string& word, const std::string& what);
/// The same of a repository's name, which also stands before the first "__" of its items' keys.
void RequireSourceName(const std::string& word, const std::string& what);

/// The word KEY, which has to name one directory: else pnl_err::Error("usage", ...).
[[nodiscard]] std::string Key(const Context& context);
/// The same of an installed template: pnl_err::Missed("template", key) when there is none.
[[nodiscard]] std::string InstalledKey(const Context& context);

// --- Templates and repositories

[[nodiscard]] ostemplate::Manage Catalogue(const Context& context);
/// The repositories, whose names become directories: pnl_err::Error("usage", "repository") for one
/// that cannot; and the catalogue where it reads what they offer.
[[nodiscard]] ostemplate::OstRepo TemplateRepositories(const Context& context);
[[nodiscard]] ostemplate::Manage OfferedTemplates(const Context& context);

using Repository = std::pair<const std::string, ostemplate::Repo::RepoInfo>;
inline const FieldTable<Repository> kRepositoryTable = {
    {{"key", "the repository's name, which other commands take"},
     [](const auto& r) { return r.first; }},
    {{"location", "address of its index (templates) or archive (recipes), without credentials"},
     [](const auto& r) { return str::WithoutCredentials(r.second.location); }},
    {{"builtin", "true unless etc/ostemplates.conf names it"},
     [](const auto& r) { return r.second.builtin; }},
};

/// Does `work`, which may fetch repositories and gives those that fail: it is told that they could
/// not be `done`, as errors of `type`. An interruption ends it between two blocks, so that nothing
/// half made is left.
StringSet Fetching(Context& context, const char* type, const char* done,
                   const std::function<void(StringSet& failed)>& work);

/// The change of an update, and the fields of its answer: all repositories, and which were fetched.
[[nodiscard]] Change UpdateOf(Context& context, const char* type,
                              const std::shared_ptr<ostemplate::Repo>& repositories,
                              const std::string& dir);
[[nodiscard]] std::vector<Field> UpdateFields();

}  // namespace tools
