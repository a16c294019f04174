#include "support/repo_server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace support {
namespace {

pid_t Start(const std::string& dir, const std::string& log, int out) {
  const std::string program = BREFIR_SOURCE_DIR "/lab/repo-server";
  std::vector<std::string> words = {program, dir, "--die-with-parent", "--log", log};
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  pid_t pid = -1;
  const int failed = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw std::runtime_error("cannot start " + program);
  return pid;
}

/// The server's first line, without its end: it says that the server listens, and where.
std::string ReadLine(int fd) {
  std::string line;
  for (char c = 0; read(fd, &c, 1) == 1 && c != '\n';) line += c;
  return line;
}

}  // namespace

RepoServer::RepoServer(const std::string& dir) : dir_(std::filesystem::absolute(dir)) {
  char log[] = "/tmp/repo-server.XXXXXX";
  log_ = pnl_file::Fd(mkostemp(log, O_CLOEXEC));
  int ends[2];
  if (!log_ || pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no descriptors");
  const pnl_file::Fd in(ends[0]);
  pnl_file::Fd out(ends[1]);
  pid_ = Start(dir_, log, out.Get());
  out.Reset();
  url_ = ReadLine(in.Get());
  unlink(log);  // both sides have it open
  if (url_.empty()) throw std::runtime_error("the repository server did not start");
}

RepoServer::~RepoServer() {
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
}

void RepoServer::Fault(const std::string& name, const std::string& fault) const {
  const std::string path = dir_ + "/" + name + ".fault";
  if (fault.empty()) {
    std::filesystem::remove(path);
  } else {
    std::ofstream(path) << fault;
  }
}

std::vector<std::string> RepoServer::Requests() const {
  // Every read starts at the beginning: the descriptor's own position does not matter.
  std::string text(1 << 20, '\0');
  const ssize_t size = pread(log_.Get(), text.data(), text.size(), 0);
  std::istringstream lines(text.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0));
  std::vector<std::string> paths;
  for (std::string method, path, status; lines >> method >> path >> status;) paths.push_back(path);
  return paths;
}

}  // namespace support
