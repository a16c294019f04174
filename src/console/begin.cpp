#include "console/begin.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

namespace console {
namespace {

/// Opened in the wrong direction, so that reading or writing still fails.
void OccupyStandardStreams() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && errno == EBADF)
      open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest free number
  }
}

void ExtendPath() {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return;  // a shell has its own default
  std::string dirs = path;
  for (const char* dir : {"/usr/local/sbin", "/usr/sbin", "/sbin"}) {
    if ((":" + dirs + ":").find(std::string(":") + dir + ":") == std::string::npos)
      dirs.append(":").append(dir);
  }
  setenv("PATH", dirs.c_str(), 1);
}

}  // namespace

void Begin() {
  OccupyStandardStreams();
  ExtendPath();
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace console
