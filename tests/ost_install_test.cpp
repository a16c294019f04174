// The real installer on real archives, which python3's tarfile makes as hostile as a case needs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "brefir/ostemplates.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/repo_server.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kKey = "main__Tiny-1";
constexpr const char* kTarget = "t/main__Tiny-1";
constexpr const char* kPrelude =
    "import io, sys, tarfile\n"
    "tar = tarfile.open(sys.argv[1], 'w:gz')\n"
    "def add(name, kind=tarfile.REGTYPE, link='', data=b'x', mode=0o644):\n"
    "  t = tarfile.TarInfo(name); t.type = kind; t.linkname = link; t.mode = mode\n"
    "  t.size = len(data) if kind == tarfile.REGTYPE else 0\n"
    "  tar.addfile(t, io.BytesIO(data))\n";

/// A template directory "t" and a repository "www" with one template.
class OstInstallTest : public support::TempDir {
 protected:
  OstInstallTest() { Publish("2026-03-01 00:00:00", "add('os/init')"); }

  /// The archive that `python` makes, and an index that offers it.
  void Publish(const std::string& utcmtime, const std::string& python) {
    Put("make.py", kPrelude + python + "\ntar.close()\n");
    fs::create_directories("www");
    ASSERT_EQ(pnl_proc::Execute("python3 make.py 'www/Tiny 1.tar.gz'").Result(), 0);
    PutIndex(utcmtime, "Tiny 1.tar.gz");
  }
  void PutIndex(const std::string& utcmtime, const std::string& filename) {
    Put("metadata.xml", "<doc url='" + (server_ ? server_->Url() : "file://" + Root().string()) +
                            (server_ ? "" : "/www") +
                            "'><elem><osname>Tiny-1</osname><type>image</type><filename>" +
                            filename + "</filename><utcmtime>" + utcmtime +
                            "</utcmtime><support><elem version='5.2'>Panel</elem></support>"
                            "<macro><elem name='M'>1</elem></macro></elem></doc>");
  }
  static std::string Command(const std::string& key = kKey, const std::string& version = "5.3") {
    return "exec " BREFIR_BIN_DIR "/ost_install -m panel -v " + version + " -i " + key +
           " -t t -d metadata.xml";
  }
  static int Install() { return pnl_proc::Execute(Command()).Result(); }

  /// The installed template as the catalogue sees it: its result, or "" when it is not listed.
  ostemplate::OsMetaInfo Listed(bool failed) {
    ostemplate::OsInfoMap map;
    ostemplate::Manage("Panel", "5.3", (Root() / "t").string(), "")
        .GetInstalledTemplates(map, failed);
    EXPECT_EQ(map.size(), map.count(kKey));
    return map[kKey];
  }
  static void ExpectNoLeftovers() { EXPECT_EQ(support::Tree("t/.unpack").size(), 0U); }

  std::optional<support::RepoServer> server_;
};

TEST_F(OstInstallTest, InstallsAndUpdatesKeepingWhatTheAdministratorMade) {
  fs::create_directories("t/.unpack/main__Tiny-1.killed/tree");
  fs::create_directories("t/.unpack/main__Tiny-1.x.killed");
  ASSERT_EQ(Install(), 0);
  EXPECT_EQ(Get("t/main__Tiny-1/os/init"), "x");
  EXPECT_EQ(Listed(false).date, "2026-03-01 00:00:00");
  EXPECT_EQ(support::Tree("t/.unpack"), std::vector<std::string>{"main__Tiny-1.x.killed"});
  fs::remove_all("t/.unpack/main__Tiny-1.x.killed");

  Put("t/main__Tiny-1/templatemacros.values", "M\t2\n");
  chmod("t/main__Tiny-1/templatemacros.values", 0640);
  Put("t/main__Tiny-1/restrict", "");
  Publish("2026-04-01 00:00:00",
          "add('top/metainfo.xml', data=b'<doc><osname>Other</osname><loaderefi64/></doc>')\n"
          "add('top/os/init2')\nadd('top/templatemacros.values')\nadd('top/autoupdate')");
  ASSERT_EQ(Install(), 0);
  const ostemplate::OsMetaInfo info = Listed(false);
  EXPECT_EQ(info.date, "2026-04-01 00:00:00");
  EXPECT_EQ(info.name, "Tiny-1");
  EXPECT_TRUE(info.loaderefi64 && info.restrict && !info.autoupdate && !info.macro);
  EXPECT_EQ(Get("t/main__Tiny-1/templatemacros.values"), "M\t2\n");
  EXPECT_EQ(pnl_file::Info("t/main__Tiny-1/templatemacros.values").GetAttrs().mode, 0640U);
  EXPECT_EQ(Get("t/main__Tiny-1/os/init2"), "x");
  EXPECT_FALSE(fs::exists("t/main__Tiny-1/os/init"));
  ExpectNoLeftovers();
}

/// Every archive lands inside or not at all. A first installation that fails says why where the
/// catalogue finds it; an update that fails changes nothing.
TEST_F(OstInstallTest, HostileArchives) {
  const struct {
    const char* name;
    const char* python;
    const char* type;  ///< of the failure; "" when it is made harmless
  } cases[] = {
      {"member above", "add('os/init'); add('../out/member')", "archive"},
      {"absolute member", "add('/' + sys.argv[2] + '/out/member')", ""},
      {"through a link", "add('l', tarfile.SYMTYPE, sys.argv[2] + '/out'); add('l/member')",
       "archive"},
      {"link out", "add('l', tarfile.SYMTYPE, '../../../../out/victim')", "access"},
      {"absolute link", "add('l', tarfile.SYMTYPE, '/etc/passwd')", "access"},
      {"link past its directory",
       "add('top/metainfo.xml', data=b'<doc/>'); add('top/l', tarfile.SYMTYPE, '../x')", "access"},
      {"hard link out", "add('l', tarfile.LNKTYPE, sys.argv[2] + '/out/victim')", "archive"},
      {"device", "add('null', tarfile.CHRTYPE)", "access"},
      {"pipe", "add('pipe', tarfile.FIFOTYPE)", "access"},
      {"metainfo.xml is a pipe", "add('metainfo.xml', tarfile.FIFOTYPE)", "access"},
      {"metainfo.xml is no XML", "add('metainfo.xml')", "xml"},
      {"cut",
       "add('os/init', data=b'x' * 9999); tar.close(); open(sys.argv[1], 'r+b').truncate(60)",
       "archive"},
      {"set-id", "add('os/su', mode=0o6777)", ""},
  };
  Put("out/victim", "untouched");
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    for (const bool update : {false, true}) {
      fs::remove_all("t");
      if (update) {
        Publish("2026-03-01 00:00:00", "add('good')");
        ASSERT_EQ(Install(), 0);
      }
      Publish("2026-04-01 00:00:00", "sys.argv.append('" + Root().string() + "')\n" + row.python);
      const bool failed = *row.type != '\0';
      EXPECT_EQ(Install(), failed ? 1 : 0);
      if (failed && !update) EXPECT_EQ(Listed(true).install_result_type, row.type);
      EXPECT_EQ(Listed(false).installed, update || !failed);
      EXPECT_EQ(fs::exists(fs::path(kTarget) / "good"), update && failed);
      EXPECT_EQ(support::Tree("out"), std::vector<std::string>{"victim"});
      EXPECT_EQ(pnl_file::Info("out/victim").Stat().st_nlink, 1U);
      ExpectNoLeftovers();
    }
  }
  EXPECT_EQ(pnl_file::Info("t/main__Tiny-1/os/su").GetAttrs().mode, 0755U);
}

TEST_F(OstInstallTest, WhatCannotBegin) {
  const struct {
    const char* filename;
    const char* key;
    const char* version;
    int code;
    const char* type;
  } cases[] = {
      {"missing.tar.gz", kKey, "5.3", 1, "fetch"},
      {"../www/Tiny 1.tar.gz", kKey, "5.3", 1, "index"},
      {"/etc/a.tar", kKey, "5.3", 1, "index"},
      {"Tiny 1.zip", kKey, "5.3", 1, "fetch"},
      {"Tiny 1.tar.gz", kKey, "5.1", 1, "version"},
      {"Tiny 1.tar.gz", "main", "5.3", 2, ""},
      {"Tiny 1.tar.gz", "../t__x", "5.3", 2, ""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.filename) + " " + row.key + " " + row.version);
    fs::remove_all("t");
    PutIndex("", row.filename);
    EXPECT_EQ(pnl_proc::Execute(Command(row.key, row.version)).Result(), row.code);
    if (row.code == 1) EXPECT_EQ(Listed(true).install_result_type, row.type);
    if (row.code == 2) EXPECT_FALSE(fs::exists("t"));
  }
}

TEST_F(OstInstallTest, OneAtATimeAndStoppedCleanly) {
  server_.emplace((Root() / "www").string());
  PutIndex("", "Tiny 1.tar.gz");
  server_->Fault("Tiny 1.tar.gz", "stall-body 10 60");
  pnl_proc::Execute first(Command());
  while (server_->Requests().empty()) pnl_proc::Sleep(10);
  EXPECT_EQ(Install(), 1);
  EXPECT_EQ(server_->Requests().size(), 1U);
  kill(first.Pid(), SIGTERM);
  EXPECT_EQ(first.Result(), 1);
  EXPECT_EQ(Listed(true).install_result_type, "stopped");
  ExpectNoLeftovers();
}

}  // namespace
