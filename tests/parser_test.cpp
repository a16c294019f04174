#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "parser/conf_cache.h"
#include "pnl/err.h"
#include "support/temp_dir.h"

namespace {

class Hosts : public LineDataSet {
 public:
  dd::Field name{*this, "name"};
  dd::Field address{*this, "address"};
  dd::Field note{*this, "note"};

 protected:
  std::string LinePrefix() const override { return "Host"; }
  std::string KeyVal() const override { return name.Str(); }
};

class HostsConf : public PnlCachedConfig {
 public:
  HostsConf() : PnlCachedConfig("HostsConf") {
    pnl_token::Params rules;
    rules.Add(pnl_token::CharToken{pnl_token::Role::kSeparator, " ;"})
        .Add(pnl_token::CharToken{pnl_token::Role::kLineEnd, "\n"})
        .Add(pnl_token::Comment{'#', '\n'});
    PnlConfCache::Register(name(), rules);
    AddDataSet<Hosts>("Hosts");
  }
};

class ParserTest : public support::TempDir {
 protected:
  std::shared_ptr<Hosts> Open(const std::string& path) {
    return std::static_pointer_cast<Hosts>(cache_.Config("HostsConf", path, true).Get("Hosts"));
  }

  HostsConf kind_;
  ConfCache cache_{2};
};

// Each row: locate "a", let somebody else write the file, set what is not "-", post.
TEST_F(ParserTest, PostJoinsItsChangeWithThePresentFile) {
  const struct {
    std::string before, meanwhile, name, address, note, after;
  } cases[] = {
      {"Host a 1 x\n", "Host a 2 x y # z\n", "-", "-", "n", "Host a 2 n y # z\n"},
      {"Host;a 1 x\n", ";Host;a;1", "-", "2", "n", ";Host;a;2 n"},
      {"Host a 1 x\n", "#", "-", "-", "n", "#\nHost a 1 n\n"},
      {"Host a 1 x\n", "Host a\n", "b", "-", "n", "Host b 1 n\n"},
      {"", "Host a 1 x\n", "a", "2", "n", "Host a 2 n\n"},
      {"Host a# x\n", "Host a# x\n", "-", "-", "n", "bad word in address"},
      {"Host a 1 x\n", "Host a 1 x\n", "-", "", "-", "bad word in address"},
      {"", "", "a", "1", "-", "bad word in note"},
  };
  for (const auto& c : cases) {
    Put("hosts", c.before);
    const auto hosts = Open("hosts");
    EXPECT_EQ(hosts->Locate("a"), !c.before.empty());
    Put("hosts", c.meanwhile);
    if (c.name != "-") hosts->name.Set(c.name);
    if (c.address != "-") hosts->address.Set(c.address);
    if (c.note != "-") hosts->note.Set(c.note);
    try {
      hosts->Post();
      EXPECT_EQ(Get("hosts"), c.after);
    } catch (const pnl_err::Error& error) {
      EXPECT_EQ(error.object(), "bad_word");
      EXPECT_EQ("bad word in " + error.param("field"), c.after);
      EXPECT_EQ(Get("hosts"), c.meanwhile);
    }
  }
}

TEST_F(ParserTest, FilesWorkWhateverTheCacheDrops) {
  const ConfRef first = cache_.Config("HostsConf", "0", false);
  for (const std::string path : {"0", "1", "2", "3", "0"}) {
    Put(path, "Host h" + path);
    EXPECT_EQ(Open(path)->name.Str(), "h" + path);
  }
  EXPECT_EQ(std::static_pointer_cast<Hosts>(first.Get("Hosts"))->name.Str(), "h0");
  EXPECT_THROW(static_cast<void>(first.Get("Other")), pnl_err::Missed);
  EXPECT_THROW(static_cast<void>(cache_.Config("OtherConf", "0", false)), pnl_err::Missed);
}

}  // namespace
