// Lists the templates that a panel has installed, and sets a key in one of its configuration files.
//
// Usage: consumer PREFIX FILE KEY VALUE        e.g. consumer /opt/panel etc/brefir.conf recipe_dir
// r
#include <brefir/ostemplates.h>
#include <brefir/simpleconfig.h>
#include <brefir/version.h>
#include <pnl/err.h>
#include <pnl/file.h>
#include <pnl/job.h>
#include <pnl/settings.h>

#include <filesystem>
#include <iostream>
#include <string>

namespace {

void ListTemplates() {
  ostemplate::Manage manage(pnl_settings::Get("module_name"), pnl_settings::Get("module_version"),
                            pnl_settings::Get("template_dir"),
                            pnl_settings::Get("template_location"));
  ostemplate::OsInfoMap templates;
  manage.GetInstalledTemplates(templates, false);
  std::cout << templates.size() << " templates\n";
  for (const auto& [key, info] : templates) std::cout << key << ": " << info.GetDesc("en") << "\n";
}

/// Nothing changes before the transaction commits; an error on the way undoes what was prepared.
void SetKey(const std::string& file, const std::string& key, const std::string& value) {
  pnl_file::Lock lock;
  lock.DoLockWithTimeout(file, /*exclusive=*/true, /*timeout=*/3, /*interval=*/1);
  pnl_job::Transaction transaction;
  pnl_file::Tmp changed(file);
  changed.Write(utils::lines::Set(pnl_file::ReadE(file), key, value, /*after=*/"", {}));
  changed.CopyAttrs(file);
  changed.Close();
  new pnl_job::MoveFile(changed.Release(), file);  // belongs to the transaction
  transaction.Commit();
  std::cout << utils::lines::Get(pnl_file::ReadE(file), key, "", {}) << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: consumer PREFIX FILE KEY VALUE\n";
    return 2;
  }
  std::cout << "brefir " << brefir::Version() << "\n";
  try {
    std::filesystem::current_path(argv[1]);  // relative paths are below the panel's directory
    ListTemplates();
    SetKey(argv[2], argv[3], argv[4]);
  } catch (const std::exception& error) {  // pnl_err::Error and those of the standard library
    std::cerr << "consumer: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
