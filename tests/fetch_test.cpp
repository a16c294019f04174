#include "pnl/fetch.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "pnl/err.h"
#include "pnl/progress.h"
#include "support/repo_server.h"
#include "support/temp_dir.h"

namespace {

using pnl_rpc::FetchFile;
using pnl_rpc::FetchOptions;
using std::chrono::seconds;

/// A server of www/, and the target with its old text alone in out/.
class FetchTest : public support::TempDir {
 protected:
  FetchTest() {
    for (const char* name : {"www/file", "www/a b", "www/steady"}) Put(name, body_);
    Put("www/empty", "");
    Put("out/target", "old");
    mkfifo("www/fifo", 0644);
  }

  std::string Remote(const std::string& name) const { return server_.Url() + "/" + name; }
  std::string Local(const std::string& name) const { return "file://" + Root().string() + name; }

  static void ExpectUntouched() {
    EXPECT_EQ(Get("out/target"), "old");
    EXPECT_EQ(support::Tree("out"), std::vector<std::string>{"target"});
  }

  /// False within the time-out and five seconds, and nothing but that.
  static void ExpectFailure(const std::string& url, std::uint64_t limit = 0) {
    const FetchOptions options{limit, seconds(1), seconds(1)};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(FetchFile(url, "out/target", options));
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(6));
    ExpectUntouched();
  }

  const std::string body_ = std::string(300000, 'x') + '\0' + "end";
  const support::RepoServer server_{"www"};
};

TEST_F(FetchTest, WritesTheWholeBody) {
  server_.Fault("moved", "redirect file");
  server_.Fault("steady", "rate 150000");  // takes longer than the stall time-out
  chmod("out/target", 0640);
  for (const std::string& url : {Remote("file"), Remote("moved"), Remote("a%20b"), Remote("steady"),
                                 Local("/www/file"), Local("/www/a%20b")}) {
    SCOPED_TRACE(url);
    Put("out/target", "old");
    // The limit is what is still accepted.
    ASSERT_TRUE(FetchFile(url, "out/target", FetchOptions{body_.size(), seconds(1), seconds(1)}));
    EXPECT_EQ(Get("out/target"), body_);
  }
  struct stat info {};
  EXPECT_TRUE(stat("out/target", &info) == 0 && (info.st_mode & 0777) == 0640);
  EXPECT_TRUE(FetchFile(Remote("empty"), "out/new", 0) && Get("out/new").empty());
  EXPECT_EQ(support::Tree("out"), (std::vector<std::string>{"new", "target"}));
}

TEST_F(FetchTest, FailureLeavesTheTargetAlone) {
  server_.Fault("loop", "redirect loop");
  const std::string address = server_.Url().substr(7);
  const std::string to_local = "redirect " + Local("/www/file");
  for (const char* fault : {"status 503", "status 304", "status 204", "truncate 1000", "reset",
                            "garbage", "stall 20", "stall-body 1000 20", to_local.c_str()}) {
    SCOPED_TRACE(fault);
    server_.Fault("file", fault);
    ExpectFailure(Remote("file"));
  }
  for (const char* fault : {"", "no-length"}) {
    server_.Fault("file", fault);
    ExpectFailure(Remote("file"), body_.size() - 1);
  }
  ExpectFailure(Local("/www/file"), body_.size() - 1);
  for (const std::string& url :
       {Remote("missing"), Remote("loop"), Remote({"file\0x", 6}), Local("/www/missing"),
        Local("/www/fifo"), Local("/www"), Local("/www/file%00"), "https://" + address + "/file",
        "dict://" + address + "/file", address + "/file", std::string("http://127.0.0.1:1/")}) {
    SCOPED_TRACE(url);
    ExpectFailure(url);
  }
  EXPECT_EQ(std::ranges::count(server_.Requests(), "/loop"), 1 + 10);

  Put("www/slow", std::string(5000, 'x'));
  server_.Fault("slow", "rate 500");
  ExpectFailure(Remote("slow"));
  server_.Fault("steady", "rate 150000");
  EXPECT_FALSE(FetchFile(Remote("steady"), "out/target", {.total_timeout = seconds(1)}));
  ExpectUntouched();
}

TEST_F(FetchTest, HttpsIsNotLeft) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to trust a certificate of its own";
  ASSERT_EQ(unshare(CLONE_NEWNS) + mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  pnl_proc::Execute trust(
      "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=test -addext "
      "subjectAltName=IP:127.0.0.1 -out cert -keyout key && cat key >>cert && "
      "mount --bind cert /etc/ssl/certs/ca-certificates.crt");
  ASSERT_EQ(trust.Result(), 0);
  const support::RepoServer secure("www", "--tls cert");
  secure.Fault("within", "redirect file");
  secure.Fault("away", "redirect " + Remote("file"));
  EXPECT_TRUE(FetchFile(secure.Url() + "/within", "out/new", 0));
  unlink("out/new");
  ExpectFailure(secure.Url() + "/away");
}

TEST_F(FetchTest, ATargetThatCannotBeWrittenThrows) {
  // A file may not grow as long as the body: a write fails in its midst.
  signal(SIGXFSZ, SIG_IGN);
  const rlimit small{200000, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &small);
  for (const std::string& url : {Remote("file"), Local("/www/file")}) {
    EXPECT_THROW(FetchFile(url, "out/target", 0), pnl_err::Error);
  }
  const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &none);
  ExpectUntouched();
}

TEST_F(FetchTest, ProgressIsReportedAndMayEndTheDownload) {
  for (const std::string& url : {Remote("file"), Local("/www/file")}) {
    const pnl_progress::Watch stopper([](auto...) { throw std::string("enough"); });
    EXPECT_THROW(FetchFile(url, "out/target", 0), std::string);
    ExpectUntouched();

    std::uint64_t last = 0;
    const pnl_progress::Watch watch([&](std::string_view what, auto done, auto total) {
      EXPECT_EQ(what, url);
      EXPECT_TRUE(last <= done && (total == 0 || total == body_.size()));
      last = done;
    });
    ASSERT_TRUE(FetchFile(url, "out/new", 0));
    EXPECT_EQ(last, body_.size());
    unlink("out/new");
  }
}

TEST_F(FetchTest, ManyAtOnceLeaveNothingBehind) {
  server_.Fault("steady", "truncate 1000");
  FetchFile(Remote("file"), "out/target", 0);  // what is opened once stays open
  const std::size_t descriptors = support::OpenDescriptors();
  std::vector<std::thread> threads(8);
  for (std::thread& thread : threads) {
    thread = std::thread([&, path = "out/" + std::to_string(&thread - threads.data())] {
      for (int n = 0; n < 20; ++n) {
        EXPECT_FALSE(FetchFile(Remote("steady"), path, 0));
        EXPECT_TRUE(FetchFile(Remote("file"), path, 0) && Get(path) == body_);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(support::Tree("out").size(), threads.size() + 1);
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

}  // namespace
