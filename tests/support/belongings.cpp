#include "support/belongings.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "pnl/proc.h"

namespace fs = std::filesystem;

namespace support {
namespace {

std::size_t Entries(const char* dir) {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), {}));
}

/// With the first thread, a sanitizer starts one of its own.
std::size_t Threads() {
  std::thread([] {}).join();
  return Entries("/proc/self/task");
}

/// Whether the process has ended and was left by a child of ours that leads a group. A process
/// whose parent died first may be reparented to this process, but does not count.
bool IsStray(const std::string& pid) {
  std::ifstream stat("/proc/" + pid + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  char state = ' ';
  int parent = 0;
  int group = 0;
  text.erase(0, text.rfind(')') + 1);  // a name may have any characters, proc(5)
  if (std::sscanf(text.c_str(), " %c %d %d", &state, &parent, &group) != 3) return false;
  return state == 'Z' && std::to_string(group) != pid;
}

/// Of all threads.
std::set<std::string> Children() {
  std::set<std::string> children;
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (std::string pid; list >> pid;) {
      if (!IsStray(pid)) children.insert(pid);
    }
  }
  return children;
}

}  // namespace

std::size_t OpenDescriptors() {
  return Entries("/proc/self/fd") - 1;  // the listing itself holds one open
}

Belongings::Belongings()
    : descriptors_(OpenDescriptors()), threads_(Threads()), children_(Children()) {}

std::string Belongings::Difference() const {
  const Belongings now;
  const auto more = [](const char* what, std::size_t before, std::size_t after) {
    return std::string(what) + ": " + std::to_string(before) + " have become " +
           std::to_string(after);
  };
  if (now.descriptors_ != descriptors_) return more("descriptors", descriptors_, now.descriptors_);
  if (now.threads_ != threads_) return more("threads", threads_, now.threads_);
  if (now.children_ == children_) return "";
  return more("children", children_.size(), now.children_.size());
}

std::string Belongings::Leak() const {
  std::string leak = Difference();
  for (int tries = 100; tries > 0 && !leak.empty(); --tries, leak = Difference()) {
    pnl_proc::Sleep(10);
  }
  return leak;
}

}  // namespace support
