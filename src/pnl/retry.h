#pragma once

#include <cerrno>

/// For the sources of this directory only.
namespace pnl_file {

/// Repeats a system call that a signal interrupted. This includes open(2), which can wait on
/// network file systems.
template <class Call>
auto Retry(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

}  // namespace pnl_file
