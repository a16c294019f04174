#pragma once

/// Faults of the database, at a chosen statement. A program that uses these functions has own versions
/// of sqlite3_step and PQsendQueryParams, which all libraries in it then call.
namespace faults {

enum class StatementFault {
  kFails,     ///< the database refuses the statement
  kCut,       ///< the connection is lost before it arrives; SQLite: an error of the disk
  kNoAnswer,  ///< it is carried out, but its answer is lost
  kAway,      ///< as kCut, and the server cannot be reached any more
  kKill,      ///< this process is killed before it
};
const char* NameOf(StatementFault fault);

/// The `nth` statement from now on, of any connection of this process, has the fault.
void FailStatement(int nth, StatementFault fault);
/// Whether that statement has come.
bool StatementFailed();

}  // namespace faults
