#pragma once

#include <vector>

#include "brefir/cmdarg.h"
#include "tools/frame/verb.h"

namespace tools {

// One function per family, in <name>_commands.cpp.
Family TemplateFamily();
Family MacroFamily();
Family RepoFamily();
Family RecipeFamily();
Family TaskFamily();
Family NodeFamily();
Family KeyFamily();
Family ConfigFamily();
Family SysctlFamily();
Family PackageFamily();
Family FrontdFamily();
Family StatFamily();
Family PrefixFamily();
Family DemoFamily();

/// All families, in the order in which help lists them.
std::vector<Family> Families();

/// Whether the working directory is a panel's: it has etc or var.
bool IsPrefix();

/// The panel's directory when --prefix does not name it: that of $BREFIR_PREFIX, else the working
/// directory where that is one, else that of the setting "prefix" in /etc/brefir.conf, which has to
/// be absolute, else "".
std::string DefaultPrefix();

/// Follows a task to its end, with a progress bar, and prints its state; kDone when it ended with
/// exit code 0. An unknown task is pnl_err::Missed.
int FollowTask(Context& context, const std::string& id);

/// The fields of a task's record, as FollowTask prints it.
std::vector<Field> TaskFields();

/// The registration of brefirctl with the given families.
opts::Args Program(const std::vector<Family>& families);

/// The command that was parsed; `words` is family and verb.
const Command& Find(const std::vector<Family>& families, const std::vector<std::string>& words);

}  // namespace tools
