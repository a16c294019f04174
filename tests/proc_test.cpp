#include "pnl/proc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <thread>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/str.h"
#include "support/dialogue.h"
#include "support/error_of.h"
#include "support/temp_dir.h"

namespace {

using pnl_proc::Execute;
using support::ErrorOf;
using support::Seconds;

class ProcTest : public support::TempDir {};

// A killed orphan may take a moment to die, and wait for its new parent as a zombie: that is no
// life.
bool Alive(const std::string& pid) {
  const std::string look = "grep -qs '^State:.[^Z]' /proc/" + str::Trim(pid) + "/status";
  for (int tries = 0; Execute(look).Result() == 0; ++tries) {
    if (tries == 20) return true;
    pnl_proc::Sleep(50);
  }
  return false;
}

bool HasChild() {
  return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

TEST_F(ProcTest, OutputAndExitCode) {
  Put("dir/inside", "");
  const struct {
    std::string command;
    std::string dir;
    std::string output;
    int flags;
    int code;
    std::string complaint = "";
  } kCases[] = {
      {"echo out; echo err >&2; exit 3", "", "out\n", 0, 3, "err\n"},
      {"seq 100000 >&2", "", "", 0, 0, Execute("seq 99319 100000").Str()},  // whole lines of 4 KiB
      {"printf 'a\n%05000d\n' 0 >&2", "", "", 0, 0, std::string(4095, '0') + "\n"},
      {"echo out; echo err >&2", "", "out\nerr\n", pnl_proc::kMergeStderr, 0},
      {"cat; readlink /proc/$$/fd/0", "", "/dev/null\n", pnl_proc::kNoInput, 0},
      {"ls", "dir", "inside\n", 0, 0},
      {"printf 'a\\0b'", "", {"a\0b", 3}, 0, 0},
      {"kill -9 $$", "", "", 0, 137},
      {"--no-such-program 2>/dev/null", "", "", 0, 127},
      {"exec <&- >&- 2>&-; sleep 0.2; exit 5", "", "", 0, 5},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.command);
    Execute command(c.command, c.flags, c.dir);
    EXPECT_EQ(command.Result(), c.code);
    EXPECT_EQ(command.Str(), c.output);
    EXPECT_EQ(command.Result(), c.code);
    EXPECT_EQ(command.Complaint(), c.complaint);
  }
  EXPECT_FALSE(HasChild());
}

TEST_F(ProcTest, BackgroundProcessHoldsUpStrButNotResult) {
  Execute daemon("exec 3<&0; sleep 1 <&3 & echo started");
  for (int i = 0; i < 2; ++i) daemon.In() << std::string(40'000, 'x');  // nobody will read it all
  EXPECT_LT(Seconds([&] { EXPECT_EQ(daemon.Result(), 0); }), 0.8);
  EXPECT_GT(Seconds([&] { EXPECT_EQ(daemon.Str(), "started\n"); }), 0.5);
  Execute reader("exec 3<&0; wc -c <&3 & exit");
  reader.In() << std::string(200'000, 'x');
  EXPECT_EQ(reader.Str(), "200000\n");
  Execute another("sleep 20 & echo started; exit 2");
  EXPECT_LT(Seconds([&] { EXPECT_EQ(another.Said(), "started\n"); }), 10);
  EXPECT_EQ(another.Result(), 2);
}

TEST_F(ProcTest, WaitsTheWholeTimeAndDoesNothingMeanwhile) {
  const std::clock_t before = std::clock();
  signal(SIGALRM, [](int) {});
  const itimerval often{{0, 20'000}, {0, 20'000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_GE(Seconds([] { pnl_proc::Sleep(300); }), 0.3);
  EXPECT_EQ(Execute("sleep 0.5").Result(), 0);
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);  // processor time
}

TEST_F(ProcTest, NobodyIsFilledByOutput) {
  Execute large("head -c 100000000 /dev/zero; exit 6");
  EXPECT_EQ(large.Result(), 6);
  EXPECT_EQ(ErrorOf([&] { large.Str(); }), "proc output");  // dropped, and that is not empty
  Execute endless("exec cat /dev/zero");
  EXPECT_EQ(ErrorOf([&] { endless.Str(100'000); }), "proc output");
  EXPECT_EQ(endless.Result(), 128 + SIGPIPE);
}

TEST_F(ProcTest, NoAmountOfDataBlocks) {
  const std::string data(std::size_t{64} << 20, 'x');
  Execute command("tee /dev/stderr");
  command.SetTimeout(100);
  command.In() << data;
  EXPECT_TRUE(command.Str() == data);
  EXPECT_EQ(command.Result(), 0);
}

TEST_F(ProcTest, Dialogue) {
  support::ExpectDialogue(Execute(support::kAnswering));
}

std::atomic<int> sigpipes = 0;

TEST_F(ProcTest, ChildThatDoesNotReadCostsNoSignal) {
  signal(SIGPIPE, [](int) { ++sigpipes; });
  const std::string data(std::size_t{1} << 20, 'x');
  const auto write_in_vain = [&] {
    Execute command("exit 4");
    command.In() << data;
    EXPECT_TRUE(command.In().bad());
    EXPECT_EQ(command.Result(), 4);
  };
  write_in_vain();
  EXPECT_EQ(sigpipes, 0);

  // One that was pending before is somebody else's and stays.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  raise(SIGPIPE);
  write_in_vain();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  EXPECT_EQ(sigpipes, 1);
}

TEST_F(ProcTest, ChildStartsClean) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  signal(SIGPIPE, SIG_IGN);
  ASSERT_GT(open("/dev/null", O_RDONLY), 2);  // inheritable, as a careless library leaves it
  Execute command(
      "ls -m /proc/$$/fd; cut -d ' ' -f 5,6 /proc/$$/stat;"
      " sed -n 's/Sig[BI][lg][kn]:.*\\(....\\)$/\\1/p' /proc/self/status;"
      " echo $SSH_ASKPASS_REQUIRE",
      pnl_proc::kOwnSession);
  const std::string pid = std::to_string(command.Pid());
  // Descriptors, group, session, blocked and ignored signals: SIGPIPE would be 1000.
  EXPECT_EQ(command.Str(), "0, 1, 2\n" + pid + " " + pid + "\n0000\n0000\nnever\n");
}

TEST_F(ProcTest, CallerWithoutStandardStreams) {
  int saved[3];
  for (int fd : {0, 1, 2}) saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
  for (int fd : {0, 1, 2}) close(fd);
  std::string answer;
  {
    Execute command("cat; echo err >&2", pnl_proc::kMergeStderr);
    command.In() << "in\n";
    answer = command.Str();
  }
  for (int fd : {0, 1, 2}) dup2(saved[fd], fd);
  EXPECT_EQ(answer, "in\nerr\n");
}

// Whatever stops a start, also whichever descriptor is the one too many: an error or the true
// answer, and nothing left behind.
TEST_F(ProcTest, StartFailures) {
  // A sanitizer looks at a class once, for which it needs descriptors itself.
  EXPECT_EQ(Execute("exit 7").Result(), 7);
  const auto open = support::OpenDescriptors();
  EXPECT_EQ(ErrorOf([] { Execute("true", 0, "missing"); }), "proc start");
  EXPECT_EQ(ErrorOf([] { Execute(std::string("true\0x", 6)); }), "proc start");
  EXPECT_EQ(ErrorOf([] { Execute(std::string(1 << 20, 'x')); }), "proc start");
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  int started = 0;
  for (rlim_t room = 0; room < 12; ++room) {
    const rlimit tight{open + room, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
    const std::string error = ErrorOf([] { EXPECT_EQ(Execute("exit 7").Result(), 7); });
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(error.empty() || error == "proc start") << error;
    if (error.empty()) ++started;
    EXPECT_EQ(support::OpenDescriptors(), open);
    EXPECT_FALSE(HasChild());
  }
  EXPECT_GE(started, 4);
}

TEST_F(ProcTest, TimeoutEndsTheGroup) {
  const std::pair<std::string, void (*)(Execute&)> kCases[] = {
      {"sleep 60 & echo $! > pid; wait", [](Execute& command) { command.Str(); }},
      {"trap '' TERM; echo $$ > pid; while sleep 1; do :; done",
       [](Execute& command) { command.Result(); }},
      {"echo $$ > pid; exec sleep 60", [](Execute& command) { command.Out().get(); }},
      {"echo $$ > pid; exec sleep 60",
       [](Execute& command) {
         command.In() << std::string(1 << 20, 'x');
         command.CloseIn();
       }},
  };
  for (const auto& [text, call] : kCases) {
    SCOPED_TRACE(text);
    const auto act = call;
    Execute command(text);
    command.SetTimeout(1);
    const double seconds =
        Seconds([&] { EXPECT_EQ(ErrorOf([&] { act(command); }), "proc timeout"); });
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(ErrorOf([&] { command.Str(); }), "proc timeout");
    EXPECT_FALSE(Alive(Get("pid")));
  }
  EXPECT_FALSE(HasChild());
}

TEST_F(ProcTest, DestructorEndsWhatRuns) {
  const double seconds = Seconds([] {
    Execute stubborn("trap '' TERM; sleep 60 & echo $! > pid; echo; wait");
    stubborn.Out().get();
  });
  EXPECT_LT(seconds, 7.5);
  EXPECT_FALSE(Alive(Get("pid")));
}

// A child that inherits another thread's pipe keeps that thread's `cat` from ever ending.
TEST_F(ProcTest, HundredThreads) {
  std::atomic<int> good = 0;
  const auto run_cat = [&good] {
    Execute cat("cat");
    cat.In() << "text";
    good += cat.Str() == "text";
  };
  std::vector<std::jthread> threads;
  const double seconds = Seconds([&] {
    for (int i = 0; i < 100; ++i) threads.emplace_back(run_cat);
    threads.clear();
  });
  EXPECT_EQ(good, 100);
  EXPECT_LT(seconds, 30.0);
}

TEST_F(ProcTest, StderrGoesToTheLogByLines) {
  MakePanelDirs();
  pnl_log::Reload();
  Execute("printf 'one\\n\\ntwo\\n%05000d\\n' 0 >&2; seq 1000000 >&2").Result();
  EXPECT_LT(pnl_file::Info("var/proc_test.log").Size(), std::uint64_t{9} << 20);
  const std::string log = Get("var/proc_test.log");
  for (const std::string& line :
       {std::string("one"), std::string("two"), std::string(4096, '0'), std::string(904, '0')}) {
    EXPECT_NE(log.find("] " + line + "\n"), std::string::npos) << line;
  }
}

TEST_F(ProcTest, LostExitCodeIsAnError) {
  signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(ErrorOf([] { Execute("exit 3").Result(); }), "proc wait");
}

TEST_F(ProcTest, Escape) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(Execute("printf %s " + pnl_proc::Escape(all)).Str(), all);
  EXPECT_EQ(pnl_proc::Escape(""), "''");
  EXPECT_EQ(pnl_proc::Escape("/a-b_c.d/e@f%g+h=i:j,K9"), "/a-b_c.d/e@f%g+h=i:j,K9");
  EXPECT_EQ(ErrorOf([] { (void)pnl_proc::Escape(std::string_view("a\0b", 3)); }), "proc escape");
}

}  // namespace
