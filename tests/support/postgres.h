#pragma once

#include <string>

namespace support {

/// The address of a PostgreSQL server for tests, without a search path. It is the server that
/// lab/postgres put into the environment, else one that is started now and ends with this process.
/// "" when the server is not installed.
const std::string& PostgresAddress();

/// The address of a new and empty schema on that server; "" when it is not installed.
std::string NewPostgresSchema(const std::string& name);

}  // namespace support
