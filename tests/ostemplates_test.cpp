#include "brefir/ostemplates.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "pnl/deadline.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/task.h"
#include "support/error_of.h"
#include "support/repo_server.h"
#include "support/temp_dir.h"

namespace {

using namespace ostemplate;
using namespace std::string_literals;
using support::ErrorOf;

std::string Elem(const std::string& name, const std::string& rest) {
  return "<elem><osname>" + name +
         "</osname><support><elem>Other</elem><elem version='5.1'>NodeAdmin" + "</elem></support>" +
         rest + "</elem>";
}

std::string Index(const std::string& elems) {
  return "<doc>" + elems + "</doc>";
}

std::string MetaInfo(const std::string& name, const std::string& rest) {
  return "<doc><osname>" + name + "</osname><support><elem>nodeadmin</elem></support>" + rest +
         "</doc>";
}

/// A panel prefix with the repositories "good" and "other" served over HTTP, and no built-in one.
class OsTemplatesTest : public support::TempDir {
 protected:
  OsTemplatesTest() {
    MakePanelDirs();
    Put("www/good/metadata.xml", Index(Elem("A", "<utcmtime>2026-03-01 00:00:00</utcmtime>") +
                                       "<elem><osname>B</osname></elem>"));
    Put("www/other/metadata.xml", Index(Elem("C", "")));
    server_.emplace((Root() / "www").string());
    Put("etc/ostemplates.conf", "Repo ostemplates Velkor " + server_->Url() +
                                    "/good\nRepo ostemplates other " + server_->Url() +
                                    "/other/\nRepo recipes x y\n");
  }

  Manage Catalogue() const {
    return {"nodeADMIN", "5.275.0", (Root() / "templates").string(), "http://127.0.0.1:1/none"};
  }

  static bool Update(bool force, StringSet& failed) {
    return OstRepo("http://127.0.0.1:1/none").UpdateCache("", force, &failed);
  }

  static std::vector<std::string> Keys(const OsInfoMap& map) {
    std::vector<std::string> keys;
    for (const auto& [key, info] : map) keys.push_back(key);
    return keys;
  }

  std::optional<support::RepoServer> server_;
};

TEST(OsMetaInfo, VersionsKeysDescriptionsAndResults) {
  const struct {
    const char *text, *kept, *equal_to;  // "": not valid
  } versions[] = {
      {"5.275.0-el7", "5.275.0", "5.275"},
      {"5.275.0.1", "5.275.0.1", "5.275.0"},
      {"1.100.1000", "1.100.1000", "2.1"},
      {"abc", "", ""},
      {"0.0.0", "0.0.0", ""},
      {"99999999999.99999999.", "99999999999.99999999.", "99999999999.99999999"},
  };
  for (const auto& row : versions) {
    const PnlVersion version(row.text);
    EXPECT_EQ(version.Str(), row.kept);
    EXPECT_EQ(static_cast<bool>(version), *row.equal_to != '\0') << row.text;
    EXPECT_TRUE(version <= PnlVersion(row.equal_to) && !(version > PnlVersion(row.equal_to)));
  }
  EXPECT_TRUE(PnlVersion("5.276") > PnlVersion("5.275.999"));

  const char* keys[][3] = {{"main__CentOS-7", "CentOS-7 (main)", "CentOS-7"},
                           {"a__b__c", "b__c (a)", "b__c"},
                           {"plain_key", "plain_key", "plain_key"}};
  for (const auto& row : keys) {
    EXPECT_EQ(OsKey2OsName(row[0], true), row[1]);
    EXPECT_EQ(OsKey2OsName(row[0], false), row[2]);
  }

  OsMetaInfo info;
  EXPECT_EQ(info.GetDesc("de"), "");
  info.descriptions = {{"en", "text"}, {"ru", ""}};
  EXPECT_EQ(info.GetDesc("de"), "text");
  EXPECT_EQ(info.GetDesc("ru"), "");
  for (const auto& [result, good] : std::map<std::string, bool>{{" 0 \n", true},
                                                                {"OK", true},
                                                                {"ok", true},
                                                                {"", false},
                                                                {"00", false},
                                                                {"no", false}}) {
    info.install_result = result;
    EXPECT_EQ(OsInstalledGood(info), good) << result;
  }
}

TEST(OsMetaInfo, IsFilledFromItsElementAndKeepsWhatIsMissing) {
  Manage manage("NodeAdmin", "5.1", "/none", "");
  OsMetaInfo info;
  info.tags = {"old"};
  info.install_result = "kept";
  info.sshpublickey = true;
  info.hddraid = "cleared";
  manage.FillMetaInfo(
      pnl_xml::Xml(
          "<doc><osname>A</osname><osname>second</osname><tags>x,y</tags><macro/>"
          "<support><elem version='6.0'>NODEADMIN</elem><elem version='bad'>nodeadmin</elem>"
          "<skip>z</skip><elem>Z</elem></support><description lang='en'>1</description>"
          "<description>2</description><description lang='en'>3</description></doc>")
          .GetRoot(),
      info);
  EXPECT_EQ(info.name, "A");
  EXPECT_EQ(info.tags, (StringSet{"old", "x", "y"}));
  EXPECT_EQ(info.install_result, "kept");
  EXPECT_TRUE(info.sshpublickey && info.macro && info.supported && info.spare_flag);
  EXPECT_FALSE(info.loaderefi64);
  EXPECT_EQ(info.hddraid, "");
  EXPECT_EQ(info.compatible, (StringSet{"nodeadmin", "z"}));
  EXPECT_EQ(info.pnl_version, "6.0");
  EXPECT_EQ(info.descriptions, (StringMap{{"", "2"}, {"en", "3"}}));
}

TEST_F(OsTemplatesTest, ListsOfferedAndInstalledMerged) {
  Put("templates/Velkor__A/metainfo.xml",
      MetaInfo("A",
               "<install_result type='t'>OK</install_result><date>2026-02-28T23:00:00Z</date>"
               "<hddraid>1</hddraid>"));
  Put("templates/Velkor__A/restrict", "");
  Put("templates/own/metainfo.xml", MetaInfo("own", "<install_result>0</install_result>"));
  Put("templates/other__C/metainfo.xml",
      MetaInfo("C", "<install_result>ok</install_result><date>yesterday</date>"));
  Put("templates/bad1/metainfo.xml", MetaInfo("x", "<install_result>failed</install_result>"));
  Put("templates/foreign/metainfo.xml",
      "<doc><osname>x</osname><install_result>0</install_result></doc>");
  Put("templates/nameless/metainfo.xml", MetaInfo("", "<install_result>0</install_result>"));
  Put("templates/empty/metainfo.xml", "");
  Put("templates/file", "");
  std::filesystem::create_directories("templates/fifo");
  ASSERT_EQ(mkfifo("templates/fifo/metainfo.xml", 0600), 0);  // must never be opened

  OsInfoMap all;
  StringSet failed;
  EXPECT_TRUE(Catalogue().GetTemplates(all, &failed));  // fetches first: there is no cache
  EXPECT_EQ(Keys(all), (std::vector{"Velkor__A"s, "other__C"s, "own"s}));
  const OsMetaInfo& merged = all["Velkor__A"];
  EXPECT_TRUE(merged.installed && merged.update_available && merged.restrict && !merged.autoupdate);
  EXPECT_EQ(merged.repo + merged.install_result_type + merged.hddraid, "Velkort1");
  EXPECT_TRUE(all["own"].installed && all["own"].repo.empty());
  EXPECT_FALSE(all["other__C"].update_available);
  EXPECT_EQ(Catalogue().GetCachedKeys(), (StringSet{"Velkor__A", "other__C"}));
  Put("var/.oscache/Velkor/keys", "nodeadmin\tX\nother\tY\n");  // is what is read
  EXPECT_EQ(Catalogue().GetCachedKeys(), (StringSet{"Velkor__X", "other__C"}));

  OsInfoMap broken;
  Catalogue().GetInstalledTemplates(broken, true);
  EXPECT_EQ(Keys(broken), (std::vector{"bad1"s}));
  EXPECT_FALSE(broken["bad1"].installed);
}

TEST_F(OsTemplatesTest, ABadIndexKeepsTheOldOneAndTheOthersGoOn) {
  StringSet failed;
  ASSERT_TRUE(Update(true, failed));
  const std::string old = Get("var/.oscache/Velkor/metadata.xml");
  const auto mode = std::filesystem::status("var/.oscache/Velkor/metadata.xml").permissions();
  EXPECT_EQ(static_cast<unsigned>(mode) & 0444U, 0444U);
  EXPECT_EQ(pnl_xml::Xml(old).GetRoot().GetProp("url"), server_->Url() + "/good");
  const std::string good = Index(Elem("A", ""));
  for (const std::string& bad :
       {good + good, good.substr(0, good.size() / 2), ""s,
        "<!DOCTYPE doc [<!ENTITY a 'x'>]>" + good, Index("<elem>&undefined;</elem>"),
        Index("<elem a='1' a='2'/>"), Index("\xff"), "<html><body>Log in</body></html>"s}) {
    Put("www/good/metadata.xml", bad);
    failed.clear();
    EXPECT_FALSE(Update(true, failed));
    EXPECT_EQ(failed, StringSet{"Velkor"});
    EXPECT_EQ(Get("var/.oscache/Velkor/metadata.xml"), old) << bad;
  }
  EXPECT_EQ(support::Tree("var/.oscache"),
            (std::vector{"Velkor"s, "Velkor/keys"s, "Velkor/metadata.xml"s, "other"s, "other/keys"s,
                         "other/metadata.xml"s}));

  // A cached index that went bad is named, the others are listed.
  for (const std::string& bad : {"<html/>"s, good.substr(0, good.size() / 2)}) {
    Put("var/.oscache/Velkor/metadata.xml", bad);
    failed.clear();
    OsInfoMap all;
    EXPECT_FALSE(Catalogue().GetTemplates(all, &failed));
    EXPECT_EQ(failed, StringSet{"Velkor"});
    EXPECT_EQ(Keys(all), std::vector{"other__C"s});
    EXPECT_EQ(Catalogue().GetCachedKeys(), StringSet{"other__C"});  // the list is older
  }
  EXPECT_EQ(ErrorOf([&] { Catalogue().GetOsInfoFromCache("Velkor__A"); }), "ostemplate load_repo");
  EXPECT_EQ(ErrorOf([&] { Catalogue().GetOsInfoFromCache("other__X"); }), "missed ostemplate");
  EXPECT_EQ(Catalogue().GetOsInfoFromCache("other__C").pnl_version, "5.1");
}

TEST_F(OsTemplatesTest, PasswordsOfAddressesStayBetweenUs) {
  StringSet failed;
  ASSERT_TRUE(Update(true, failed));
  const std::string location = "http://user:secret@" + server_->Url().substr(7) + "/good";
  Put("etc/ostemplates.conf", "Repo ostemplates Velkor " + location + "\n");
  ASSERT_TRUE(Update(true, failed));
  const std::string file = "var/.oscache/Velkor/metadata.xml";
  EXPECT_EQ(pnl_xml::XmlFile(file).GetRoot().GetProp("url"), location);
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  server_->Fault("good/metadata.xml", "status 503");
  EXPECT_FALSE(Update(true, failed));
  EXPECT_EQ(Get("var/ostemplates_test.log").find("secret"), std::string::npos);
}

TEST_F(OsTemplatesTest, UpdatesAreThrottledUnlessForced) {
  StringSet failed;
  server_->Fault("good/metadata.xml", "status 503");
  EXPECT_FALSE(Update(false, failed));  // a failing update throttles the next one too
  EXPECT_TRUE(Update(false, failed));
  EXPECT_EQ(server_->Requests().size(), 2U);
  EXPECT_FALSE(Update(true, failed));
  EXPECT_EQ(server_->Requests().size(), 4U);
  EXPECT_NE(Get("var/ostemplates_test.log").find("1 ospnl: Skip update... \n"), std::string::npos);
}

TEST_F(OsTemplatesTest, InstallStartsTheInstallerAsATask) {
  PutProgram("sbin/ost_install", "printf '%s\\n' \"$@\" > args");
  OsMetaInfo info;
  info.repo = "unknown";
  info.name = "A";
  EXPECT_EQ(ErrorOf([&] { Catalogue().Install(info); }), "missed ospnl_repo");
  info.repo = "other";
  Catalogue().Install(info);
  const std::string id = pnl_task::List().at(0).id;
  while (pnl_task::Get(id).state == pnl_task::State::kRunning) usleep(10000);
  EXPECT_EQ(pnl_task::Get(id).kind + pnl_task::Get(id).name, "OST_INSTALLother__A");
  EXPECT_EQ(Get("args"), "-m\nnodeADMIN\n-v\n5.275.0\n-i\nother__A\n-t\n" +
                             (Root() / "templates").string() +
                             "\n-d\nvar/.oscache/other/metadata.xml\n");
}

TEST_F(OsTemplatesTest, RemovesOnlyBelowACanonicalDirectory) {
  Put("templates/k/metainfo.xml", "x");
  std::filesystem::create_directory_symlink("templates", "link");
  for (const auto& dir :
       {"templates"s, (Root() / "link").string(), (Root() / "templates/").string()}) {
    EXPECT_EQ(ErrorOf([&] { Manage("m", "1", dir, "").Remove("k"); }), "access file") << dir;
  }
  for (const std::string key : {"", "/", ".", ".."}) {
    EXPECT_EQ(ErrorOf([&] { Catalogue().Remove(key); }), "access file") << key;
  }
  {
    const pnl_file::Lock installing = LockTemplate((Root() / "templates").string(), "k");
    EXPECT_EQ(ErrorOf([&] { Catalogue().Remove("k"); }), "lock timeout");
  }
  Catalogue().Remove("k");
  Catalogue().Remove("missing");
  EXPECT_EQ(support::Tree("templates"), std::vector{".removed"s});
}

TEST_F(OsTemplatesTest, MacrosFollowTheTransaction) {
  Put("templates/k/metainfo.xml",
      "<doc><macro><elem name='m' oninstall='yes'>def<desc>d</desc></elem><elem name='m'>2</elem>"
      "<elem name='beta' pnl='alpha  NodeAdmin' readonly='yes'>x</elem>"
      "<elem name='gamma' pnl='alpha'>x</elem></macro></doc>");
  Manage manage = Catalogue();
  const auto macros = [&] {
    TemplateMacroMap out;
    manage.GetOsTemplateMacros("k", out);
    return out;
  };
  auto now = macros();
  ASSERT_EQ(now.size(), 2U);
  EXPECT_EQ(now["m"].value + (now["m"].custom ? "c" : "-"), "def-");
  EXPECT_EQ(now["m"].xml.GetRoot().FindNode("desc").Str(), "d");
  EXPECT_TRUE(now["beta"].readonly && !now["beta"].oninstall);

  const std::string file = "templates/k/templatemacros.values";
  EXPECT_TRUE(manage.SetOsTemplateMacroValue("k", "m", "lost"));
  pnl_job::Rollback();
  EXPECT_EQ(support::Tree("templates/k"), std::vector{"metainfo.xml"s});
  EXPECT_TRUE(manage.SetOsTemplateMacroValue("k", "m", "1"));
  pnl_job::Commit();
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  std::filesystem::rename(file, "values");
  std::filesystem::create_symlink("../../values", file);
  Put("values", Get(file) + "\nz\tb\0d"s);
  EXPECT_TRUE(manage.SetOsTemplateMacroValue("k", "a", "x y"));
  pnl_job::Commit();
  EXPECT_EQ(Get("values"), "a\tx y\nm\t1\nz\tb\0d"s);
  EXPECT_TRUE(std::filesystem::is_symlink(file));
  now = macros();
  EXPECT_EQ(now["m"].value + (now["m"].custom ? "c" : "-"), "1c");
  StringMap asked = {{"m", "replaced"}, {"other", "kept"}};
  manage.GetOsTemplateMacros("k", asked);
  EXPECT_EQ(asked, (StringMap{{"m", "1"}, {"other", "kept"}}));
  manage.ResetOsTemplateMacroValue("k", "m");
  pnl_job::Commit();
  EXPECT_EQ(macros()["m"].value, "def");

  EXPECT_FALSE(manage.SetOsTemplateMacroValue("none", "m", "1"));
  StringMap values;
  EXPECT_EQ(manage.GetMacroCustomValues("none", values), "");
}

TEST_F(OsTemplatesTest, TheInformationRecordIsTyped) {
  Put("good.xml",
      "<doc><osname>A</osname><rebootcount> 2 </rebootcount><virtionet>yes</virtionet>"
      "<observe><osinstalltimeout>3600</osinstalltimeout></observe>"
      "<limit><elem name='mem'>512</elem></limit><tempipv4>YES</tempipv4>"
      "<externals><elem><url>u1</url><url>u2</url></elem></externals></doc>");
  const OSTInfo info("good.xml");
  EXPECT_EQ(info.rebootcount + info.osinstalltimeout + info.cfgrequesttimeout, 3602);
  EXPECT_TRUE(info.virtionet && !info.tempipv4);
  EXPECT_EQ(info.limits, (StringMap{{"mem", "512"}}));
  EXPECT_EQ(info.externals, (std::vector{"u1"s, "u2"s}));
  for (const auto& [text, type] : std::map<std::string, std::string>{
           {"<doc> text <!-- c --></doc>", "metainfo_no_data bad.xml"},
           {"", "metainfo_parse_error bad.xml"},
           {"<doc><a></doc>", "metainfo_parse_error bad.xml"},
           {"<doc><rebootcount>2x</rebootcount></doc>", "metainfo_parse_error bad.xml"},
           {"<doc><rebootcount>9999999999</rebootcount></doc>", "metainfo_parse_error bad.xml"}}) {
    Put("bad.xml", text);
    EXPECT_EQ(ErrorOf([] { OSTInfo("bad.xml"); }), type) << text;
  }
  EXPECT_EQ(ErrorOf([] { OSTInfo("missing.xml"); }), "metainfo_parse_error missing.xml");
}

TEST_F(OsTemplatesTest, WhoComesDuringTheFirstUpdateWaitsForIt) {
  server_->Fault("other/metadata.xml", "stall 1 x1");
  std::vector<pid_t> children;
  for (int i = 0; i < 3; ++i) {
    children.push_back(fork());
    if (children.back() == 0) {
      OsInfoMap all;
      _exit(Catalogue().GetTemplates(all, nullptr) && all.size() == 2 ? 0 : 1);
    }
    while (!pnl_file::Exists(GetCacheFile("Velkor"))) usleep(1000);  // the other is under way
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
}

/// Eight processes that update and list at once: no reader is ever without an index.
TEST_F(OsTemplatesTest, ReadersNeverMissAnIndexWhileItIsReplaced) {
  StringSet failed;
  ASSERT_TRUE(Update(true, failed));
  const pnl_time::Deadline end{std::chrono::seconds(3)};
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    bool good = true;
    while (good && !end.Passed()) {
      OsInfoMap all;
      if (i % 2 == 0) good = Update(true, failed);
      good = good && Catalogue().GetTemplates(all, &failed) && all.size() == 2;
    }
    _exit(good && failed.empty() ? 0 : 1);
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(support::Tree("var/.oscache").size(), 6U);
}

}  // namespace
