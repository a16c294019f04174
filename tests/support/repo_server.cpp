#include "support/repo_server.h"

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace support {

RepoServer::RepoServer(const std::string& dir, const std::string& options)
    : dir_(std::filesystem::absolute(dir)),
      log_("/tmp/repo-server"),
      server_("exec " BREFIR_SOURCE_DIR "/lab/repo-server --die-with-parent --log " + log_.Str() +
                  " " + options + " " + pnl_proc::Escape(dir_),
              pnl_proc::kNoInput) {
  if (!std::getline(server_.Out(), url_)) {
    throw std::runtime_error("the repository server did not start");
  }
}

RepoServer::~RepoServer() {
  kill(server_.Pid(), SIGTERM);
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
  std::ifstream lines(log_.Str());
  std::vector<std::string> paths;
  for (std::string method, path, status; lines >> method >> path >> status;) paths.push_back(path);
  return paths;
}

}  // namespace support
