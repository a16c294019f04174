#pragma once

#include <string>
#include <vector>

#include "pnl/file.h"
#include "pnl/proc.h"

namespace support {

/// A repository server (lab/repo-server) for one test, by default on a free port of the loopback
/// address. It ends with the object, and with the thread that made it.
class RepoServer {
 public:
  /// Serves the files of `dir`, existing and future ones. `options` as lab/repo-server takes them.
  explicit RepoServer(const std::string& dir, const std::string& options = "");
  RepoServer(const RepoServer&) = delete;
  RepoServer& operator=(const RepoServer&) = delete;
  ~RepoServer();

  const std::string& Url() const { return url_; }  ///< "http://127.0.0.1:PORT" by default

  /// Makes requests for the file `name` fail ("status 503", "truncate 10", ...: see
  /// lab/repo-server); "" ends that.
  void Fault(const std::string& name, const std::string& fault) const;

  /// The requested paths so far ("/index.xml"), in order, including requests whose answer has
  /// begun.
  std::vector<std::string> Requests() const;

 private:
  std::string dir_;
  std::string url_;
  pnl_file::Tmp log_;
  pnl_proc::Execute server_;
};

}  // namespace support
