#pragma once

#include <memory>
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

/// The words KIND and NAME.
opts::Arg& AddKind(opts::Args& args);
opts::Arg& AddKindAndName(opts::Args& args);

inline const Field kRepositoryKind = {"kind", "ostemplates or recipes"};

}  // namespace tools
