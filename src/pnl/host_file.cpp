// Files of a host: this host by pnl_file, a node by a script that runs as one command.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "pnl/cksum.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/proc.h"
#include "pnl/progress.h"
#include "pnl/str.h"

namespace pnl_host {

namespace {

constexpr std::size_t kBlock = 262144;  // fewer waits than with 64 KiB; 1 MiB is no better
constexpr const char* kNotAsBefore = "it is not as it was";
constexpr std::size_t kMaxAnswer = 65536;  // bytes of output of a script
/// The checksum of content up to this size is sent first; for larger content only the length.
constexpr std::uint64_t kMaxSummed = std::uint64_t{1} << 20;

// --- Scripts
//
// For PortableCommand.

/// Sets p to the given path, and f to its target after following links.
constexpr const char* kPath = R"sh(
LC_ALL=C; export LC_ALL; umask 077;
p=$(printf %bx "$1"); p=${p%x};
f=$(readlink -f -- "$p" 2>/dev/null && printf x); f=${f%?x}; [ "$f" ] || f=$p;
d=${f%/*}; [ "$d" ] || d=/;
)sh";

constexpr const char* kLook = R"sh(
s=0; v=;
if [ -f "$f" ]; then k=file; s=$(stat -c %s -- "$f") && v=$(stat -c "%d %i %s %y %z" -- "$f") || exit 1;
elif [ -d "$f" ]; then k=directory;
elif [ -e "$f" ] || [ -h "$f" ]; then k=other;
else k=missing; fi;
printf "%s\n%s\n%s\n%s" "$k" "$s" "$v" "$f";
)sh";

constexpr const char* kRead = R"sh(
if [ -f "$f" ]; then printf F; exec cat -- "$f"; fi;
[ -e "$f" ] || [ -h "$f" ] || { printf M; exit 0; };
echo "it is no regular file" >&2; exit 1;
)sh";

/// The same for any file that cat(1) can read.
constexpr const char* kStream = R"sh(
if [ -e "$f" ]; then printf F; exec cat -- "$f"; fi;
printf M;
)sh";

constexpr const char* kSum = R"sh(
[ -f "$f" ] || { echo "there is no such regular file" >&2; exit 1; };
{ openssl dgst -sha256 -r <"$f" || sha256sum <"$f"; } 2>/dev/null;
)sh";

/// Its arguments: path; size and checksum ("-": none) of the content; checksum of the file to be
/// replaced ("-": any, "missing": there must be none); mode of a new file; a unique word. The last
/// line of its output counts, not its exit code: some shells stop at a failed redirection without
/// output. A lost connection looks like the end of the input: content with another size or checksum
/// is discarded.
constexpr const char* kReplace = R"sh(
n=$2; w=$3; b=$4; m=$5; t=$6; x=; k=; a=;
clean() { rm -f -- "$x" "$k"; };
say() { printf "brefir %s %s" "$t" "$1"; exit 0; };
sum() { if [ -f "$1" ]; then cksum <"$1"; elif [ -e "$1" ]; then echo other; else echo missing; fi; };
state() { stat -L -c %u:%g:%a -- "$1"; };
[ -d "$d" ] || say "there is no directory for it";
[ -d "$f" ] && say "it is a directory";
[ -f "$f" ] || { [ -e "$f" ] && say "it is no regular file"; };
[ -h "$f" ] && say "it is a link that leads nowhere";

c=$(printf %s "${f##*/}" | cksum); c=${c%% *};
for o in "$d/.brefir-$c."*; do
[ -f "$o" ] && [ -O "$o" ] || continue; [ -h "$o" ] && continue;
q=${o##*/.brefir-$c.}; r=${q#*.}; r=${r%.old}; q=${q%%.*};
grep -q brefir-replace "/proc/$q/cmdline" 2>/dev/null &&
grep -qF -e "$r" "/proc/$q/cmdline" && kill -9 "$q" 2>/dev/null;
rm -f -- "$o";
done;
[ "$b" = - ] || [ "$(sum "$f")" = "$b" ] || say conflict;

x=$d/.brefir-$c.$$.$t; trap clean EXIT; trap "exit 1" HUP INT TERM PIPE;
set -C; exec 3>"$x"; set +C;
y=/proc/$$/fd/3; [ -e "$y" ] || y=$x;
if [ -f "$f" ]; then
a=$(state "$f") || say "its owner and mode cannot be read";
cp -a --attributes-only -- "$f" "$y" 2>/dev/null ||
{ chown "${a%:*}" "$y" && chmod "${a##*:}" "$y"; } || say "its owner and mode cannot be kept";
else
chmod "$m" "$y" || say "the mode cannot be set";
fi;

cat >&3 || say write;
[ "$(stat -L -c %s -- "$y")" = "$n" ] || say "the content did not come whole";
[ "$w" = - ] || [ "$(sum "$y")" = "$w" ] || say "the content did not come as it was sent";
[ -z "$a" ] || [ "$(state "$y")" = "$a" ] || chmod "${a##*:}" "$y";
[ -z "$a" ] || [ "$(state "$y")" = "$a" ] || say "its owner and mode cannot be kept";
dd if=/dev/null conv=notrunc,fsync 2>/dev/null >&3 || say "it cannot be synced to the disk";
exec 3>&-;
[ -h "$x" ] && say "somebody else has put a link in the place of the temporary file";

if [ "$b" = missing ] && ln -- "$x" "$f" 2>/dev/null; then :; else
case $b in
-) ;;
missing) [ -e "$f" ] && say conflict;;
*) k=$x.old;
ln -- "$f" "$k" 2>/dev/null || ( set -C; cat <"$f" >"$k" ) || say "the old file cannot be kept for a moment";
[ "$(sum "$k")" = "$b" ] || say conflict;;
esac;
mv -fT -- "$x" "$f" 2>/dev/null || { [ -d "$f" ] && say "it is a directory"; mv -f -- "$x" "$f"; } ||
say "the new file cannot take its place";
[ -z "$k" ] || [ "$(sum "$k")" = "$b" ] || { mv -f -- "$k" "$f"; say conflict; };
fi;
sync "$d" 2>/dev/null;
say done;
)sh";

/// Its arguments: path; checksum of the file to be removed; a unique word. The file is checked
/// again after renaming it to a name that nobody else uses.
constexpr const char* kRemove = R"sh(
b=$2; t=$3; c=$(printf %s "${f##*/}" | cksum); x=$d/.brefir-${c%% *}.$$.$t;
say() { printf "brefir %s %s" "$t" "$1"; exit 0; };
[ -f "$f" ] && [ "$(cksum <"$f")" = "$b" ] || say conflict;
mv -f -- "$f" "$x" || say "it cannot be removed";
[ "$(cksum <"$x")" = "$b" ] || { ln -- "$x" "$f" && rm -f -- "$x"; say conflict; };
rm -f -- "$x" || say "it cannot be removed";
sync "$d" 2>/dev/null;
say done;
)sh";

std::string PathCommand(std::string_view script, const std::string& name, std::string_view path,
                        std::vector<std::string> words = {}) {
  if (path.find('\0') != std::string_view::npos)
    throw pnl_err::Error("host", "path", path).add_param("reason", "it holds a NUL");
  words.insert(words.begin(), EncodedWord(path));
  return PortableCommand(std::string(kPath) + std::string(script), "brefir-" + name, words);
}

// --- Checksums

std::string SumWord(std::string_view text) {
  return std::to_string(pnl_file::Cksum::Of(text)) + " " + std::to_string(text.size());
}

std::string BeforeWord(const ReplaceOptions& options) {
  if (!options.before) return "-";
  return *options.before ? SumWord(**options.before) : "missing";
}

Source From(std::string_view content) {
  return [content](char* block, std::size_t size) mutable {
    const std::size_t given = content.copy(block, size);
    content.remove_prefix(given);
    return given;
  };
}

// --- This host

FileState LookHere(const std::string& path) {
  FileState state;
  state.path = pnl_file::LinkTarget(path);
  const pnl_file::Info info(path);
  if (!info.Exists()) return state;
  state.path = pnl_file::RealPath(path);
  state.kind =
      info.IsFile() ? FileKind::kFile : (info.IsDir() ? FileKind::kDirectory : FileKind::kOther);
  if (!info.IsFile()) return state;
  state.size = info.Size();
  const struct stat& stat = info.Stat();
  state.version = str::Format("%u %u %u %d.%09d %d.%09d", stat.st_dev, stat.st_ino, stat.st_size,
                              stat.st_mtim.tv_sec, stat.st_mtim.tv_nsec, stat.st_ctim.tv_sec,
                              stat.st_ctim.tv_nsec);
  return state;
}

Content ReadHere(const std::string& path) {
  if (!pnl_file::Exists(path)) return std::nullopt;
  return pnl_file::ReadE(path);
}

bool IsLike(const std::string& path, const ReplaceOptions& options) {
  return !options.before || ReadHere(path) == *options.before;
}

/// The number of copied bytes, at most `size`.
std::uint64_t Copy(const std::string& what, std::uint64_t size, const Source& give,
                   const std::function<bool(std::string_view block)>& take) {
  std::vector<char> block(kBlock);
  std::uint64_t done = 0;
  while (done < size) {
    const std::size_t given = give(block.data(), std::min<std::uint64_t>(kBlock, size - done));
    if (given == 0 || !take({block.data(), given})) break;
    pnl_progress::Report(what, done += given, size);
  }
  return done;
}

}  // namespace

std::string PortableCommand(std::string_view script, const std::string& name,
                            const std::vector<std::string>& words) {
  std::string command =
      "/bin/sh -c '" + str::Replace(str::TrimView(script), "\n", " ") + "' '" + name + "'";
  for (const std::string& word : words) command += " '" + word + "'";
  return command;
}

pnl_err::Error Host::Failed(const char* type, const std::string& path,
                            std::string_view reason) const {
  return pnl_err::Error(type, Name(), path).add_param("reason", std::string(reason));
}

// --- Looking

FileState Host::Look(const std::string& path) {
  if (IsLocal()) return LookHere(path);
  Outcome run = Run(PathCommand(kLook, "look", path), {}, kMaxAnswer);
  if (run.code != 0) throw Failed("look", path, run.complaint);
  FileState state;
  const std::string kind = str::GetWord(run.output, '\n');
  state.kind = kind == "file"        ? FileKind::kFile
               : kind == "directory" ? FileKind::kDirectory
               : kind == "missing"   ? FileKind::kMissing
                                     : FileKind::kOther;
  state.size = static_cast<std::uint64_t>(str::Int64(str::GetWord(run.output, '\n')));
  state.version = str::GetWord(run.output, '\n');
  state.path = run.output;
  return state;
}

Content Host::Read(const std::string& path, std::size_t limit) {
  if (IsLocal()) {
    if (pnl_file::Info(path).Size() > limit) throw Failed(kReadFailed, path, "it is too large");
    return ReadHere(path);
  }
  Outcome run = Run(PathCommand(kRead, "read", path), {}, limit + 1);
  if (run.code != 0) throw Failed(kReadFailed, path, run.complaint);
  if (run.output == "M") return std::nullopt;
  if (!run.output.starts_with('F'))
    throw Failed(kReadFailed, path, "its answer cannot be understood");
  run.output.erase(0, 1);
  return std::move(run.output);
}

void Host::Read(const std::string& path, const std::function<void(std::string_view block)>& take) {
  std::vector<char> block(kBlock);
  if (IsLocal()) {
    if (!pnl_file::Exists(path)) throw pnl_err::Missed("file", path);
    const pnl_file::OpenFile file = pnl_file::OpenRegular(path);
    while (const std::size_t got =
               pnl_file::ReadSome(file.fd.Get(), block.data(), block.size(), path))
      take({block.data(), got});
    return;
  }
  Command run = Start(PathCommand(kStream, "read", path));
  run.CloseIn();
  const int first = run.Out().get();
  try {
    while (first == 'F' && run.Out()) {
      run.Out().read(block.data(), static_cast<std::streamsize>(block.size()));
      if (run.Out().gcount() > 0)
        take({block.data(), static_cast<std::size_t>(run.Out().gcount())});
    }
  } catch (...) {
    run.Abandon();
    throw;
  }
  const int code = run.Result();
  if (first == 'M') throw pnl_err::Missed("file", path);
  if (code != 0 || first != 'F') throw Failed(kReadFailed, path, run.Complaint());
}

std::string Host::Sha256(const std::string& path) {
  constexpr std::size_t kDigits = 64;
  const Outcome run = Run(PathCommand(kSum, "sum", path), {}, kMaxAnswer);
  if (run.code != 0 || run.output.size() < kDigits) throw Failed(kReadFailed, path, run.complaint);
  return run.output.substr(0, kDigits);
}

// --- Replacing

void Host::Replace(const std::string& path, std::string_view content,
                   const ReplaceOptions& options) {
  if (IsLocal()) {
    ReplaceHere(path, content.size(), From(content), options);
  } else {
    const bool small = content.size() <= kMaxSummed;
    ReplaceThere(path, content.size(), small ? SumWord(content) : "-", From(content), options);
  }
}

void Host::Replace(const std::string& path, std::uint64_t size, const Source& give,
                   const ReplaceOptions& options) {
  if (IsLocal()) {
    ReplaceHere(path, size, give, options);
  } else {
    ReplaceThere(path, size, "-", give, options);
  }
}

void Host::ReplaceHere(const std::string& path, std::uint64_t size, const Source& give,
                       const ReplaceOptions& options) const {
  const std::string target = pnl_file::LinkTarget(path);
  if (!IsLike(target, options)) throw Failed(kConflict, path, kNotAsBefore);
  // Its length is limited like that of the file's name.
  pnl_file::Tmp tmp(pnl_file::ConcatPath(pnl_file::Folder(target), ".brefir"));
  const std::uint64_t done = Copy(path, size, give, [&](std::string_view block) {
    tmp.Write(block);
    return true;
  });
  if (done != size) throw Failed(kReplaceFailed, path, "the content did not come whole");
  tmp.CopyAttrs(target, options.new_mode);
  if (!IsLike(target, options)) throw Failed(kConflict, path, kNotAsBefore);
  tmp.Replace(target);
}

void Host::ReplaceThere(const std::string& path, std::uint64_t size, const std::string& sum,
                        const Source& give, const ReplaceOptions& options) {
  const std::string token = str::hex::Encode(str::Random(16));
  Command run = Start(PathCommand(kReplace, "replace", path,
                                  {std::to_string(size), sum, BeforeWord(options),
                                   str::Format("%o", options.new_mode), token}));
  std::string answer;
  try {
    Copy(path, size, give, [&](std::string_view block) {
      return static_cast<bool>(
          run.In().write(block.data(), static_cast<std::streamsize>(block.size())));
    });
    answer = run.Str(kMaxAnswer);
  } catch (...) {
    run.Abandon();  // the input ends early, so the script replaces nothing
    throw;
  }
  RequireDone(path, token, answer, run.Complaint());
}

void Host::RequireDone(const std::string& path, const std::string& token, const std::string& answer,
                       const std::string& complaint) const {
  const std::string mark = "brefir " + token + " ";
  const std::size_t at = answer.rfind(mark);
  const std::string verdict = at == std::string::npos ? "" : answer.substr(at + mark.size());
  if (verdict == "done") return;
  if (verdict == "conflict") throw Failed(kConflict, path, kNotAsBefore);
  if (verdict == "write") throw Failed(kReplaceFailed, path, complaint);
  if (verdict.empty() && complaint.empty())
    throw Failed(kReplaceFailed, path,
                 "its command was ended, as by a later one for the same file");
  throw Failed(kReplaceFailed, path, str::Append(verdict, complaint, ": "));
}

void Host::Remove(const std::string& path, std::string_view before) {
  if (IsLocal()) {
    const std::string target = pnl_file::LinkTarget(path);
    if (ReadHere(target) != before) throw Failed(kConflict, path, kNotAsBefore);
    return pnl_file::RemoveFile(target);
  }
  const std::string token = str::hex::Encode(str::Random(16));
  const Outcome run =
      Run(PathCommand(kRemove, "remove", path, {SumWord(before), token}), {}, kMaxAnswer);
  RequireDone(path, token, run.output, run.complaint);
}

}  // namespace pnl_host
