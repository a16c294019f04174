// Facts of a host: its reply, and what is kept of it. Nodes are asked in ssh_utils_test and
// node_commands_test.

#include <gtest/gtest.h>

#include "fleet/fact_store.h"
#include "support/postgres.h"
#include "support/temp_dir.h"

namespace {

using fleet::ParseFacts;
using Names = std::vector<std::string>;

TEST(Facts, OldAndOddHosts) {
  const fleet::Facts facts = ParseFacts(
      "is disks /dev/a 100 30 60 34% /\nis disks /dev/a 100 30 60 34% /bind\n"
      "is disks /dev/b 1 1 0 100% /with blank\nis disks /dev/loop1 9 9 0 100% /snap/x\n"
      "is disks shm 1 1 1 1% none\nis memory MemTotal: 9\nis memory MemFree: 2\nis memory Cached: "
      "1\n"
      "is cpu cpu0\nis cpu cpu1\nis uptime -1\nis load nan\nis uname h 5.14.0-9.el9_2.x86_64 x\n"
      "is address 1: lo inet 127.0.0.1/8 scope\nis address 2: e inet6 fd00::1/64\n"
      "is address 192.0.2.1 fe80::1 fd00::1 \nbegun disks\nbegun updates\nran disks 0\nrubbish\n"
      "is image 5.14.0-10.el9_3.x86_64\nis image 5.14.0-9.el9_2.x86_64\n",
      1000);
  ASSERT_EQ(facts.disks.size(), 2U);
  EXPECT_EQ(facts.disks[0].Percent(), 34);
  EXPECT_EQ(facts.disks[1].mount, "/with blank");
  EXPECT_EQ(facts.memory_free, 3 * 1024);
  EXPECT_EQ(facts.processors, 2);
  EXPECT_EQ(facts.boot, 1000);
  EXPECT_FALSE(facts.load);
  EXPECT_EQ(facts.addresses, (Names{"fd00::1", "192.0.2.1"}));
  EXPECT_EQ(facts.late, Names{"updates"});
  const std::tuple<const char*, const char*, std::optional<bool>> kernels[] = {
      {"6.1.0-18-amd64", "6.1.0-20-amd64", true},
      {"6.1.0-18-amd64", "6.1.0-20-cloud-amd64", false},
      {"6.1.0-18-amd64", "0-rescue-amd64", false},
      {"5.14.0-362.8.1.el9_3.x", "5.14.0-362.el9_3.x", false},
  };
  for (const auto& [running, other, wanted] : kernels) {
    const std::string images = std::string("is image ") + running + "\nis image " + other;
    EXPECT_EQ(ParseFacts(std::string("is uname h ") + running + " x\n" + images, 1).reboot_wanted,
              wanted)
        << other;
    EXPECT_EQ(ParseFacts(images, 1).reboot_wanted, std::nullopt);
  }
}

class FactsTest : public support::TempDir {};

TEST_F(FactsTest, StoredFactsKeepTheirUpdates) {
  Names addresses = {"sqlite:facts.db"};
  if (const std::string& postgres = support::PostgresAddress(); !postgres.empty())
    addresses.push_back(postgres);
  const auto with = [](std::time_t asked, const std::string& text) {
    return ParseFacts("is uname h k" + std::to_string(asked) + " \n" + text, asked);
  };
  const std::string counted = "begun updates\nis updates 5\nran updates 0\nis updates_asked 100\n";
  for (const std::string& address : addresses) {
    const auto db = pnl_db::Cache::Open(address);
    db->Execute("drop table if exists node_facts");
    fleet::FactStore store(db);
    store.Store({{"b", with(1, "")}, {"a", with(100, counted)}});
    store.Store({{"a", with(200, "begun updates\n")}, {"a", with(150, "")}});
    const auto found = fleet::FactStore(db).Find("a");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->kernel, "k200");
    EXPECT_EQ(found->asked, 200);
    EXPECT_EQ(found->updates, 5);
    EXPECT_EQ(found->updates_asked, 100);
    EXPECT_EQ(found->late, Names());
    EXPECT_FALSE(store.Find("c"));
    const auto all = store.All();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].node + all[1].node + all[1].facts.kernel, "abk1");
  }
}

}  // namespace
