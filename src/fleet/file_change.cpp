#include "fleet/file_change.h"

#include <utility>

namespace fleet {

FileChange::FileChange(pnl_host::Host host, std::string path)
    : host_(std::move(host)), path_(std::move(path)), before_(host_.Read(path_)), now_(before_) {}

void FileChange::Make(const std::string& after) {
  if (now_ == after) return;
  host_.Replace(path_, after, {.before = now_});
  now_ = after;
}

void FileChange::PutBack() {
  if (now_ == before_) return;
  if (before_) {
    host_.Replace(path_, *before_, {.before = now_});
  } else {
    host_.Remove(path_, *now_);
  }
  now_ = before_;
}

}  // namespace fleet
