// Repositories, templates and recipes: downloads, and changes by the administrator.

#include <filesystem>
#include <stdexcept>

#include "brefir/ostemplates.h"
#include "brefir/recipes.h"
#include "faults/operation.h"
#include "pnl/fetch.h"
#include "pnl/job.h"
#include "pnl/settings.h"
#include "support/repo_server.h"

namespace {

namespace fs = std::filesystem;

using namespace faults;

const std::string kArchive(200000, 'x');

void Require(bool done) {
  if (!done) throw std::runtime_error("false");
}

/// Repositories that no operation changes, outside the working directory.
struct Sources {
  pnl_file::TmpDir dir{fs::temp_directory_path() / "sources"};
  std::string path = dir.Str();

  Sources() {
    Put(path + "/index/metadata.xml", "<doc><elem><osname>New</osname></elem></doc>");
    Put(path + "/archive", kArchive);
    Put(path + "/new/script", "# metadata_begin\n# recipe: New\n# metadata_end\n");
    Shell("tar czf " + path + "/recipes.tar.gz -C " + path + "/new .");
  }
  std::string Url(const std::string& name) const { return "file://" + path + "/" + name; }
};

std::string Has(const std::string& text, const std::string& changed, const std::string& old) {
  if (text.find(changed) != std::string::npos) return "new";
  return OldOrNew(text, old, "");
}

// --- Downloads

Operation Fetch(const std::string& name, const std::string& url) {
  return faults::Edit("FetchFile, " + name, "target", "old", kArchive,
                      [=] { Require(pnl_rpc::FetchFile(url, "target", 0)); });
}

// --- Repositories

Operation List() {
  const std::string list = "# ours\nRepo ostemplates main http://a.example.org/\n";
  return faults::Edit("repository list, Set", "etc/ostemplates.conf", list,
                      list + "Repo ostemplates other http://b.example.org/\n",
                      [] { ostemplate::OstRepo("").Set("other", "http://b.example.org/"); });
}

Operation Index(const Sources& sources) {
  const std::string location = sources.Url("index");
  return {
      .name = "template index, UpdateCache",
      .prepare = [] { Put("var/.oscache/Velkor/metadata.xml", "old"); },
      .work = [=] { Require(ostemplate::OstRepo(location).UpdateCache("", true, nullptr)); },
      .state = [] { return Has(Get("var/.oscache/Velkor/metadata.xml"), "New</osname>", "old"); },
      .logs = true};
}

// --- Templates

ostemplate::Manage Templates() {
  return {"panel", "5.3", "t", ""};
}

constexpr const char* kValues = "m\t1\n";

Operation Macro(const std::string& ends, void (*end)(), const std::string& result) {
  const auto set = [=] {
    (void)Templates().SetOsTemplateMacroValue("main__Os", "m", "2");
    end();
  };
  Operation macro = faults::Edit("macro values, " + ends, "t/main__Os/templatemacros.values",
                                 kValues, result, set);
  macro.prepare = [] {
    Put("t/main__Os/metainfo.xml", "<doc/>");
    Put("t/main__Os/templatemacros.values", kValues, 0600);
  };
  macro.widest = 0600;
  macro.late = ends == "rollback";
  return macro;
}

/// Whatever happens: the whole template, or none.
Operation Removal() {
  return {.name = "templates, Remove",
          .prepare =
              [] {
                Put("t/main__Os/metainfo.xml", "<doc/>");
                Put("t/main__Os/os/init", "old");
              },
          .work =
              [] {
                ostemplate::Manage("panel", "5.3", fs::current_path() / "t", "").Remove("main__Os");
              },
          .state = []() -> std::string {
            if (!fs::exists("t/main__Os")) return "new";
            const bool whole =
                fs::exists("t/main__Os/metainfo.xml") && !Get("t/main__Os/os/init").empty();
            return whole ? "old" : "part";
          },
          .late = true,
          .leaves = true,
          .cleans = true};
}

// --- Recipes

constexpr const char* kParams =
    "<doc><elem name='#local__a'><access>none</access><owner>ann</owner></elem></doc>";

/// Access and owner; a lost record would open the recipe to everybody.
std::string Params() {
  const pnl_xml::XmlFile file("r/metadata.xml");
  const pnl_xml::XmlNode elem = file.GetNode("/doc/elem");
  return elem.FindNode("access").Str() + " " + elem.FindNode("owner").Str();
}

Operation Recipe(const std::string& does, void (*work)(recipe::Manage&),
                 const std::string& result) {
  return {.name = "recipes, " + does,
          .prepare =
              [] {
                Put("r/metadata.xml", kParams);
                Put("r/local/a", "# metadata_begin\n# recipe: A\n# metadata_end\n");
              },
          .work =
              [=] {
                recipe::Manage manage("panel", "r");
                work(manage);
              },
          .state = [=] { return OldOrNew(Params(), "none ann", result); }};
}

Operation RecipeAccess() {
  return Recipe(
      "SetAccessLevel",
      [](recipe::Manage& manage) { manage.SetAccessLevel("#local__a", recipe::kAccessAdmin); },
      "admin ann");
}

/// Script and parameters are two files. The script is removed first: without its parameters it
/// would be open to others.
Operation RecipeDelete() {
  const auto remove = [](recipe::Manage& manage) {
    if (fs::exists("r/local/a")) {
      (void)manage.Delete("#local__a");
    } else {
      manage.DeleteLocalParams("#local__a");
    }
  };
  Operation operation = Recipe("Delete", remove, " ");
  operation.state = [params = operation.state]() -> std::string {
    const bool script = fs::exists("r/local/a");
    const std::string found = params();
    if (found == "old") return script ? "old" : "script gone";
    return script ? "an open script" : found;
  };
  operation.torn = "script gone";
  return operation;
}

Operation RecipeUpdate(const Sources& sources) {
  const std::string url = sources.Url("recipes.tar.gz");
  return {.name = "recipes, UpdateCache",
          .prepare =
              [=] {
                Put("r/repo/Velkor/script", "old");
                Put("etc/ostemplates.conf", "Repo recipes Velkor " + url + "\n");
              },
          .work = [] { Require(recipe::RecipeRepo().UpdateCache("r/repo", true, nullptr)); },
          .state = [] { return Has(Get("r/repo/Velkor/script"), "recipe: New", "old"); },
          .widest = 0666,
          .logs = true,
          .cleans = true,
          .every = 2};
}

}  // namespace

int main(int argc, char** argv) {
  const Sources sources;
  const support::RepoServer server(sources.path);
  return faults::Run(
      argc, argv,
      {Fetch("a local file", sources.Url("archive")), Fetch("over HTTP", server.Url() + "/archive"),
       List(), Index(sources), Macro("commit", pnl_job::Commit, "m\t2"),
       Macro("rollback", pnl_job::Rollback, kValues), Removal(), RecipeAccess(), RecipeDelete(),
       RecipeUpdate(sources)});
}
