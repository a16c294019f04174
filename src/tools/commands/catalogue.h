#pragma once

#include <string>

#include "brefir/ostemplates.h"
#include "tools/frame/verb.h"

/// What the families that work on the template catalogue share.
namespace tools {

/// --module, --version, --templates, --location: what else etc/brefir.conf says.
void AddCatalogueOptions(opts::Args& args);
/// The positional word KEY: any template, or an installed one.
void AddKey(opts::Args& args);
void AddInstalledKey(opts::Args& args);

/// The directory of installed templates, absolute.
[[nodiscard]] std::string TemplateDir(const Context& context);
[[nodiscard]] ostemplate::Manage Catalogue(const Context& context);
/// The repositories, whose names become directories: pnl_err::Error("usage", "repository") for one
/// that cannot; and the catalogue where it reads what they offer.
[[nodiscard]] ostemplate::OstRepo TemplateRepositories(const Context& context);
[[nodiscard]] ostemplate::Manage OfferedTemplates(const Context& context);

/// The word KEY, which has to name one directory: else pnl_err::Error("usage", ...).
[[nodiscard]] std::string Key(const Context& context);
/// The same of an installed template: pnl_err::Missed("template", key) when there is none.
[[nodiscard]] std::string InstalledKey(const Context& context);

/// `word` has to be one path component: else pnl_err::Error("usage", what) with a message. Names
/// come from people and repositories, and become paths.
void RequirePathComponent(const std::string& word, const std::string& what);
/// The same of a repository's name, which also stands before the first "__" of its items' keys.
void RequireSourceName(const std::string& word, const std::string& what);

/// Tells of each repository in `failed` that it could not be `done`, as an error of `type`.
void ReportFailed(Context& context, const char* type, const StringSet& failed, const char* done);
inline const std::vector<Field> kUpdatedFields = {
    {"key", "the repository"},
    {"location", "its address, without credentials"},
    {"builtin", "whether it is the built-in one"},
    {"updated", "whether it was fetched; a repository that was not keeps what it had"},
};
/// The answer of an update: all repositories, and those of them that failed.
void TellUpdated(Context& context, const char* type, const ostemplate::Repo& repositories,
                 const StringSet& failed);

}  // namespace tools
