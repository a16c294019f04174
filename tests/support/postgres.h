#pragma once

#include <string>

namespace support {

/// The address of a PostgreSQL server of ours, without a search path: the one that lab/postgres put
/// into the environment, else one that is started now and ends with this process. "" where the
/// server is not installed.
const std::string& PostgresAddress();

}  // namespace support
