#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "brefir/ostemplates.h"
#include "tools/frame/verb.h"

/// Shared by the families template, macro, recipe and repo.
namespace tools {

// --- The command line

/// --module, --version, --templates, --location; their defaults are in etc/brefir.conf.
void AddCatalogueOptions(opts::Args& args);
/// Adds the positional word KEY: any template, or an installed one.
void AddKey(opts::Args& args);
void AddInstalledKey(opts::Args& args);

/// Adds --repo ("only those of this repository"; `of` names the items) and --tag for a list. The
/// second function tells whether `info` passes these filters.
void AddFilters(opts::Args& args, const char* of);
template <class Info>
bool IsWanted(const opts::Values& values, const Info& info) {
  return (!values.Has("repo") || info.repo == values.Str("repo")) &&
         (!values.Has("tag") || info.tags.contains(values.Str("tag")));
}

/// The absolute directory of an option, else of a setting. The second function is for the directory
/// of installed templates.
[[nodiscard]] std::string DirOf(const Context& context, const char* option, const char* setting);
[[nodiscard]] std::string TemplateDir(const Context& context);

/// Returns `word` if it is one path component: otherwise throws pnl_err::Error("usage", what) with
/// a message. Names come from people and repositories, and become paths.
const std::string& RequirePathComponent(const std::string& word, const std::string& what);
/// The same for a repository's name, which also comes before the first "__" in the keys of its
/// items.
void RequireSourceName(const std::string& word, const std::string& what);

/// The word KEY. It must be one path component: otherwise throws pnl_err::Error("usage", ...).
[[nodiscard]] std::string Key(const Context& context);
/// The same for an installed template; throws pnl_err::Missed("template", key) when it is not
/// installed.
[[nodiscard]] std::string InstalledKey(const Context& context);

// --- Templates and repositories

[[nodiscard]] ostemplate::Manage Catalogue(const Context& context);
/// The repositories, and the catalogue for reading their offers. The names of repositories become
/// directories: an unsuitable name throws pnl_err::Error("usage", "repository").
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

/// Does `work`, which may fetch repositories and returns those that failed. Each failure is
/// reported as an error of `type`: it could not be `done`. An interruption ends the work between
/// two blocks, so that no partial file is left.
StringSet Fetching(Context& context, const char* type, const char* done,
                   const std::function<void(StringSet& failed)>& work);

/// The change for an update of repositories, and the fields of its output: all repositories, and
/// which were fetched.
[[nodiscard]] Change UpdateOf(Context& context, const char* type,
                              const std::shared_ptr<ostemplate::Repo>& repositories,
                              const std::string& dir);
[[nodiscard]] std::vector<Field> UpdateFields();

}  // namespace tools
