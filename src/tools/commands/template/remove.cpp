#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/template/templates.h"

namespace tools {

/// Rewords errors for a user who removes a template.
static void RemoveTemplate(ostemplate::Manage catalogue, const std::string& key,
                           const std::string& path) try {
  catalogue.Remove(key);
} catch (pnl_err::Error& error) {
  const std::string what = "template '" + key + "' ";
  if (pnl_file::IsTaken(error)) {
    const auto parts = ostemplate::TemplateKey::Parse(key);
    const std::string hint = parts
                                 ? "; 'brefirctl task wait " + catalogue.InstallTask(*parts).Id() +
                                       "' waits for an installation"
                                 : "";
    error.add_param("message", what + "is being installed or removed" + hint);
  } else if (!pnl_file::Exists(path)) {
    error.add_param("message", what + "is no longer installed, but some files remain: " +
                                   ErrorText(error, Format::kTable) +
                                   "; the next 'brefirctl template remove' tries again");
  }
  throw error;
}

static Change Remove(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string path = pnl_file::ConcatPath(TemplateDir(context), key);
  const auto make = [=, catalogue = Catalogue(context)]() -> Answer {
    RemoveTemplate(catalogue, key, path);
    return Record().Add("key", key).Add("removed", true).Add("path", path);
  };
  return {{{.node = "localhost", .object = path, .words = "rm -rf " + pnl_proc::Escape(path)}},
          make};
}

Verb TemplateRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes an installed template.",
          .aliases = {"del", "delete"},
          .describe = AddInstalledKey,
          .change = Remove,
          .checks = true,
          .examples = {"main__Debian-12 --dry-run"},
          .fields = {{"key", "the template"}, {"removed", "true"}, {"path", "its directory"}}};
}

}  // namespace tools
