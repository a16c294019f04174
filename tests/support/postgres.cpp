#include "support/postgres.h"

#include <stdlib.h>

#include "pnl/proc.h"

namespace support {

namespace {

/// Serves as long as its standard input is open, so that it also ends with a test that dies.
class Server {
 public:
  Server()
      : run_(BREFIR_SOURCE_DIR
             "/lab/postgres sh -c 'printf \"%s\\n\" \"$BREFIR_POSTGRES\"; exec cat'") {
    std::getline(run_.Out(), address_);
  }

  const std::string& Address() const { return address_; }

 private:
  pnl_proc::Execute run_;
  std::string address_;
};

}  // namespace

const std::string& PostgresAddress() {
  static const std::string address = [] {
    const char* given = getenv("BREFIR_POSTGRES");
    if (given != nullptr) return std::string(given);
    static const Server server;
    return server.Address();
  }();
  return address;
}

}  // namespace support
