#include "faults/statements.h"

#include <dlfcn.h>
#include <libpq-fe.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>

namespace faults {
namespace {

std::atomic<int> left = 0;  // statements until the fault
std::atomic<StatementFault> chosen = StatementFault::kFails;
std::atomic<bool> failed = false;
std::atomic<bool> is_away = false;

/// Whether the fault comes now.
bool Comes() {
  if (left == 0 || --left != 0) return false;
  failed = true;
  if (chosen == StatementFault::kKill) kill(getpid(), SIGKILL);
  return true;
}

/// The function of this name in the library.
template <class Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Takes the server's answer away, once it is there.
void LoseAnswer(int socket) {
  constexpr int kPatience = 10'000;  // milliseconds
  pollfd news{socket, POLLIN, 0};
  if (poll(&news, 1, kPatience) > 0) {
    std::array<char, 4096> bytes;
    while (recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) continue;
  }
  shutdown(socket, SHUT_RDWR);
}

}  // namespace

const char* NameOf(StatementFault fault) {
  switch (fault) {
    case StatementFault::kFails:
      return "fails";
    case StatementFault::kCut:
      return "cut";
    case StatementFault::kNoAnswer:
      return "no answer";
    case StatementFault::kAway:
      return "away";
    case StatementFault::kKill:
      return "kill";
  }
  return "";
}

void FailStatement(int nth, StatementFault fault) {
  failed = is_away = false;
  chosen = fault;
  left = nth;
}

bool StatementFailed() {
  return failed;
}

}  // namespace faults

using faults::StatementFault;

// The libraries must find these first.
#pragma GCC visibility push(default)

int sqlite3_step(sqlite3_stmt* statement) {
  static auto* const real = faults::Real<int(sqlite3_stmt*)>("sqlite3_step");
  // SQLite's own statements, which read the schema, have no text: it trusts that these do not fail so.
  if (sqlite3_sql(statement) == nullptr || !faults::Comes()) return real(statement);
  if (faults::chosen == StatementFault::kFails) return SQLITE_FULL;
  if (faults::chosen == StatementFault::kNoAnswer) real(statement);
  return SQLITE_IOERR;
}

int PQsendQueryParams(PGconn* connection, const char* command, int count, const Oid* types,
                      const char* const* values, const int* lengths, const int* formats,
                      int result_format) {
  static auto* const real = faults::Real<decltype(PQsendQueryParams)>("PQsendQueryParams");
  const auto send = [&] {
    return real(connection, command, count, types, values, lengths, formats, result_format);
  };
  if (!faults::Comes()) return send();
  if (faults::chosen == StatementFault::kFails)
    return real(connection, "select 1 / 0", 0, nullptr, nullptr, nullptr, nullptr, 0);
  faults::is_away = faults::chosen == StatementFault::kAway;
  if (faults::chosen != StatementFault::kNoAnswer) {
    shutdown(PQsocket(connection), SHUT_RDWR);
    return send();
  }
  const int sent = send();
  if (PQflush(connection) == 0) faults::LoseAnswer(PQsocket(connection));
  return sent;
}

PGconn* PQconnectdbParams(const char* const* names, const char* const* values, int expand) {
  static auto* const real = faults::Real<decltype(PQconnectdbParams)>("PQconnectdbParams");
  if (!faults::is_away) return real(names, values, expand);
  const std::array<const char*, 2> nobody = {"host", nullptr};
  const std::array<const char*, 2> nowhere = {"/nonexistent", nullptr};
  return real(nobody.data(), nowhere.data(), 0);
}

#pragma GCC visibility pop
