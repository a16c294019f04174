#pragma once

#include <string>

/// The command of AskKeys; for the sources of this directory only.
namespace fleet {

/// Each line of its output that counts begins with `nonce` and a blank:
///
///      config            sshd has told which files it reads
///      unasked           sshd could not be asked
///      command PATH      sshd takes keys from this command, too
///      ca PATH           sshd accepts certificates that the keys of this file have signed
///      local             the users of other sources than /etc/passwd did not come
///      file USER:PATH    a file of keys begins; its lines follow, then one of the three below
///      k LINE
///      read              it was read to its end, or up to kMaxKeyFile
///      bad               it cannot be read
///      odd               it is no regular file
///      denied USER:PATH  nobody can tell whether there is such a file
///      same USER:PATH    this user has the file, too, which came before
///      keys              these were the files of all users
///      l LINE            the newest line of a log about the login of a user with a key
///      now SECONDS ZONE  the time there, at the end
///      end               the output is complete; without "keys" the time was over before
[[nodiscard]] std::string KeysCommand(const std::string& nonce);

}  // namespace fleet
