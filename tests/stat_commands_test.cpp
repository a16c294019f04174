// brefirctl stat, with the counters of a real host and a real node.

#include <gtest/gtest.h>

#include <fstream>

#include "brefir/str_utils.h"
#include "fleet/sample.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnldb/db.h"
#include "support/program.h"
#include "support/temp_dir.h"

namespace {

using support::LabNode;

constexpr const char* kFile = "var/stat.counters";

class StatCommandsTest : public support::ProgramTest {
 protected:
  /// Exit code and all that was printed.
  static std::pair<int, std::string> Stat(const std::string& arguments) {
    const support::Finished run = Run("stat " + arguments);
    return {run.code, run.out + run.err};
  }
  static void Collect() { EXPECT_EQ(Stat("collect"), std::pair(0, std::string())); }

  /// Bytes that the loopback interface has received, as /proc/net/dev counts them.
  static long Received() {
    const std::string output = pnl_proc::Execute(fleet::SampleCommand()).Str();
    for (const fleet::Reading& reading : fleet::ParseSample("h", 1, output))
      if (reading.device.name == "lo") return reading.counters[0];
    return -1;
  }
  static void Traffic() {
    (void)pnl_proc::Execute("bash -c 'for i in 1 2 3; do echo traffic >/dev/udp/127.0.0.1/9; done'")
        .Result();
  }
  /// What `stat show` adds up for it.
  static long Shown() {
    const std::string out = Stat("show --block day -o json").second;
    long sum = 0;
    for (std::size_t at = out.find(R"("device": "lo")"); at != std::string::npos;
         at = out.find(R"("device": "lo")", at + 1))
      sum += str::Int64(out.substr(out.find("rx_bytes", at) + 11));
    return sum;
  }
};

TEST_F(StatCommandsTest, EveryIncreaseIsStoredOnce) {
  Collect();
  const long begin = Received();
  const auto rise = [&] { return Received() - begin; };
  Traffic();
  EXPECT_GT(rise(), 0);
  Collect();
  EXPECT_EQ(Shown(), rise());

  // The database refuses the rows: the increase comes with the next sample.
  const auto db = pnl_db::Cache::Open("sqlite:var/stat.db");
  db->Execute(
      "create trigger refuse before insert on stat_net begin select raise(abort, 'no room'); end");
  const std::string before = pnl_file::Read(kFile);
  Traffic();
  const auto [code, text] = Stat("collect");
  EXPECT_TRUE(code == 1 && text.find("no room") != std::string::npos) << text;
  EXPECT_EQ(pnl_file::Read(kFile), before);
  db->Execute("drop trigger refuse");
  Collect();
  EXPECT_EQ(Shown(), rise());

  // The rows were stored, but the counters' file was not: none of it comes twice.
  pnl_file::Write(kFile, before);
  Traffic();
  Collect();
  EXPECT_EQ(Shown(), rise());

  Traffic();
  (void)Stat("collect & b=$!; " BREFIR_BIN_DIR "/brefirctl stat collect & wait $b; wait $!");
  EXPECT_EQ(Shown(), rise()) << "two at once";
}

TEST_F(StatCommandsTest, VerbsAnswer) {
  const LabNode node;
  const std::string name = std::string(60, 'n') + ".example";
  std::ofstream("/etc/hosts", std::ios::app) << node.Address() << " " << name << "\n";
  Collect();
  const std::string options = " --node " + node.Address() + " --key " + support::LabKey();
  const std::tuple<std::string, int, std::string> cases[] = {
      {"collect -o json" + options, 0, node.Address()},
      {"collect --accept-new --key " + support::LabKey() + " --node " + name, 0, ""},
      {"show --by node -o json", 0, name.substr(0, 47) + "~"},
      {"collect --dry-run -o json", 0, R"("counter": "rx_packets")"},
      {"counters list", 0, node.Address() + ":lo"},
      {"counters get localhost:lo rx_bytes -o json", 0, R"("cname": "rx_bytes")"},
      {"counters get localhost:lo", 2, "CNAME"},
      {"show --kind cpu --by host --from 2020-01-01", 0, node.Address() + "  "},
      {"show --to 2000-01-01 -o json", 0, "[]\n"},
      {"show --from 2024-02-30", 2, "'2024-02-30' is not a time"},
      {"show --from 24-02-28", 2, "'24-02-28' is not a time"},
      {"show --plot", 0, "rx_bytes\n"},
      {"show --plot --counter reads", 2, "is none of net: rx_bytes, "},
      {"counters reset localhost:lo rx_bytes --dry-run", 0, "localhost:lo rx_bytes: "},
      {"counters reset localhost:lo rx_bytes", 0, "reset    1"},
      {"counters get localhost:lo rx_bytes", 1, "there is no counter"},
      {"counters reset", 0, "reset"},
      {"counters list -o json", 0, "[]\n"},
  };
  for (const auto& [arguments, code, part] : cases) {
    const auto [actual, text] = Stat(arguments);
    EXPECT_TRUE(actual == code && text.find(part) != std::string::npos) << arguments << "\n"
                                                                        << text;
  }
}

TEST_F(StatCommandsTest, ReadersNeedNotWrite) {
  pnl_file::Write("etc/brefir.conf", "stat_database = sqlite:db/stat.db\n");
  std::filesystem::create_directory("db");
  Collect();
  ASSERT_EQ(Shell("mount --bind db db && mount -o remount,ro,bind db").code, 0);
  const auto [code, text] = Stat("show");
  EXPECT_TRUE(code == 0 && text.find("localhost  lo") != std::string::npos) << text;
  EXPECT_EQ(Stat("collect").first, 1);
}

TEST(Sample, KeepsDevicesApart) {
  const std::string text =
      "== disks\n/sys/block/vda/device\n/sys/block/cciss!c0d0/device\n"
      "== /proc/net/dev\nInter-|   Receive\n face |bytes\n"
      "  lo: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\neth 0#:5\n"
      "eth0:18446744073709551615 2 0 0 0 0 0 0 9 10 0 0 0 0 0 0\n"
      "== /proc/stat\ncpu  1 2 3 4 5 6 7 8\ncpu0 1 2 3 4 5 6 7 8 9 10\nintr 1 2 3\n"
      "== /proc/diskstats\n 7 0 loop0 1 1 1 1 1 1 1 1 1 1 1\n"
      " 254 0 vda 1 2 3 4 5 6 9223372036854775807 8 9 10 11\n"
      " 104 0 cciss/c0d0 1 2 3 4 5 6 7 8 9 10 11\n== end\n";
  std::string found;
  for (const auto& [device, taken, counters] : fleet::ParseSample("h", 1, text)) {
    found += device.kind->name + " " + device.ObjectName();
    for (const std::int64_t counter : counters) found += " " + str::Str(counter);
    found += "\n";
  }
  EXPECT_EQ(found,
            "net h:lo 1 2 9 10\n"
            "net h:eth0 9223372036854775807 2 9 10\n"
            "cpu h:cpu0 1 2 3 6 7 8\n"
            "disk h:vda 1 1536 5 -512 10\n"
            "disk h:cciss/c0d0 1 1536 5 3584 10\n");
  EXPECT_THROW((void)fleet::ParseSample("h", 1, text.substr(0, text.size() - 8)), pnl_err::Error);
  EXPECT_EQ(fleet::SafeKey("a b%c:#\n"), "a%20b%25c%3a%23%0a");
}

}  // namespace
