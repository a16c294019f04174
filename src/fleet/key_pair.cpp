#include "fleet/key_pair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/journal.h"
#include "fleet/named_words.h"
#include "fleet/run_owner.h"
#include "pnl/err.h"
#include "pnl/proc.h"

namespace fleet {
namespace {

using ssh_gen::kPublic;

/// "panel1 2026-11-23".
std::string Comment() {
  utsname names{};
  uname(&names);
  std::string host = names.nodename;
  std::erase_if(host, [](char c) { return c <= ' ' || c > '~'; });
  const std::time_t now = std::time(nullptr);
  std::tm time{};
  gmtime_r(&now, &time);
  char date[] = "0000-00-00";
  std::strftime(date, sizeof date, "%Y-%m-%d", &time);
  return host + " " + date;
}

const char* NameOf(KeyType type) {
  switch (type) {
    case KeyType::kEd25519:
      return "ed25519";
    case KeyType::kRsa:
      return "rsa -b 3072";  // more makes each login slower
    case KeyType::kEcdsa:
      return "ecdsa";
  }
  return "";
}

void SyncFile(const std::string& path) {
  pnl_file::Sync(pnl_file::Open(path, O_RDONLY).Get(), path);
}

/// Whoever could read the old private key can read the new one.
void TakeAttributes(const std::string& path, const std::string& from) {
  constexpr mode_t kNotOthers = 0770;
  const struct stat old = pnl_file::Info(from).Stat();
  if (old.st_uid != geteuid() && chown(path.c_str(), old.st_uid, old.st_gid) != 0)
    throw pnl_err::System("chown", path, errno);
  if (chmod(path.c_str(), old.st_mode & kNotOthers) != 0)
    throw pnl_err::System("chmod", path, errno);
}

/// The time is kept: it tells the age of the key.
void CopySecret(const std::string& from, const std::string& to) {
  pnl_file::Write(to, pnl_file::ReadE(from), pnl_file::kSecretMode);
  TakeAttributes(to, from);
  const timespec made = pnl_file::Info(from).Stat().st_mtim;
  const timespec times[] = {made, made};
  if (utimensat(AT_FDCWD, to.c_str(), times, 0) != 0) throw pnl_err::System("utimensat", to, errno);
}

/// Whether the public half in the file is the new one.
bool IsNew(const KeyChange& key, const std::string& path) {
  return KeyOf(pnl_file::Read(path)) == KeyOf(key.added);
}

}  // namespace

std::string KeyChange::Text() const {
  return WordsText({{"private", private_key},
                    {"public", public_key},
                    {"added", added},
                    {"retired", retired},
                    {"machine", machine}});
}

KeyChange KeyChange::Read(const std::string& text) {
  StringMap words = ReadWords(text, "key");
  return {.private_key = words["private"],
          .public_key = words["public"],
          .added = words["added"],
          .retired = words["retired"],
          .machine = words["machine"]};
}

pnl_file::Lock LockKey(const std::string& private_key) {
  constexpr int kSeconds = 3;
  return {private_key, kSeconds};
}

std::string NextKey(const KeyChange& key) {
  return key.private_key + ".next";
}

std::string KeptKey(const KeyChange& key, std::int64_t run) {
  return key.private_key + ".run-" + std::to_string(run);
}

KeyChange MakeNextPair(KeyChange key, KeyType type) {
  const std::string next = NextKey(key);
  DropNextPair(key);
  const int code =
      pnl_proc::Execute(std::string("ssh-keygen -q -N '' -t ") + NameOf(type) + " -C " +
                            pnl_proc::Escape(Comment()) + " -f " + pnl_proc::Escape(next),
                        pnl_proc::kOwnSession | pnl_proc::kNoInput)
          .Result();
  if (code != 0) {
    DropNextPair(key);
    throw pnl_err::Error("ssh_keygen", next)
        .add_param("message", "ssh-keygen could not make the new key '" + next + "' (exit code " +
                                  std::to_string(code) +
                                  "): look into the log, and whether the "
                                  "disk is full");
  }
  TakeAttributes(next, key.private_key);
  SyncFile(next);
  SyncFile(next + kPublic);
  const std::string folder = pnl_file::Folder(next);
  pnl_file::Sync(pnl_file::Open(folder, O_RDONLY | O_DIRECTORY).Get(), folder);
  key.added = str::Trim(pnl_file::ReadE(next + kPublic));
  key.machine = OwnMachine();
  return key;
}

void DropNextPair(const KeyChange& key) {
  pnl_file::RemoveFile(NextKey(key));
  pnl_file::RemoveFile(NextKey(key) + kPublic);
}

std::string FileOfNewKey(const KeyChange& key) {
  const std::string next = NextKey(key);
  return pnl_file::Exists(next) && IsNew(key, next + kPublic) ? next : key.private_key;
}

void PutInPlace(const KeyChange& key, std::int64_t run) {
  const std::string next = NextKey(key);
  const std::string kept = KeptKey(key, run);
  if (IsNew(key, next + kPublic)) {
    if (pnl_file::Exists(next)) {
      CopySecret(key.private_key, kept);
      pnl_file::Write(kept + kPublic, pnl_file::Read(key.public_key));
      pnl_file::Move(next, key.private_key);
    }
    pnl_file::Write(key.public_key, pnl_file::Read(next + kPublic));
    pnl_file::RemoveFile(next + kPublic);
  }
  if (IsNew(key, key.public_key)) return;
  throw pnl_err::Error("key_pair", key.public_key)
      .add_param("message", "neither '" + key.public_key + "' nor '" + next + kPublic +
                                "' is the new key of run " + std::to_string(run) +
                                ": somebody has replaced them; put the pair of that run back, or "
                                "undo the run with 'brefirctl run undo " +
                                std::to_string(run) + "'");
}

void PutBack(const KeyChange& key, std::int64_t run) {
  const std::string kept = KeptKey(key, run);
  if (pnl_file::Exists(kept)) {
    if (pnl_file::Exists(kept + kPublic))
      pnl_file::Write(key.public_key, pnl_file::Read(kept + kPublic));
    pnl_file::Move(kept, key.private_key);
  }
  pnl_file::RemoveFile(kept + kPublic);
  if (IsNew(key, NextKey(key) + kPublic)) DropNextPair(key);
}

std::string OwnMachine() {
  RunHead here;
  BecomeOwner(here);
  return here.owner_machine;
}

}  // namespace fleet
