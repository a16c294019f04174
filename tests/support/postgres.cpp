#include "support/postgres.h"

#include <stdlib.h>

#include "pnl/proc.h"
#include "pnldb/db.h"

namespace support {

const std::string& PostgresAddress() {
  static const std::string address = [] {
    if (const char* given = getenv("BREFIR_POSTGRES")) return std::string(given);
    // Runs as long as its standard input is open, so that it also ends when the test is killed.
    static pnl_proc::Execute server(
        BREFIR_SOURCE_DIR "/lab/postgres sh -c 'printf \"%s\\n\" \"$BREFIR_POSTGRES\"; exec cat'");
    std::string line;
    std::getline(server.Out(), line);
    return line;
  }();
  return address;
}

std::string NewPostgresSchema(const std::string& name) {
  const std::string& server = PostgresAddress();
  if (server.empty()) return "";
  pnl_db::Cache::Open(server)->Execute("create schema " + pnl_db::Cache::QuoteName(name));
  return server + "&options=-csearch_path%3D\"" + name + "\"";
}

}  // namespace support
