#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tools/commands/catalogue.h"

/// What the verbs of the family "repo" share.
namespace tools {

// One function per verb, in VERB.cpp.
Verb RepoListVerb();
Verb RepoAddVerb();
Verb RepoRemoveVerb();

inline const std::vector<std::string> kRepositoryKinds = {"ostemplates", "recipes"};

/// The repositories of one kind, to be listed and edited.
[[nodiscard]] std::shared_ptr<ostemplate::Repo> Repositories(const std::string& kind);

/// What etc/ostemplates.conf says of the repository NAME of the kind KIND.
struct RepositoryLine {
  explicit RepositoryLine(const Context& context);
  /// The plan that it becomes `after`, shown without names and passwords; none removes it.
  fleet::Plan Becomes(const std::optional<std::string>& after) const;

  std::string kind;
  std::string name;
  std::shared_ptr<ostemplate::Repo> repositories;
  std::optional<std::string> location;  ///< none: there is no line
};

/// The words KIND and NAME.
opts::Arg& AddKind(opts::Args& args);
opts::Arg& AddKindAndName(opts::Args& args);

inline const Field kRepositoryKind = {"kind", "ostemplates or recipes"};

}  // namespace tools
