#include "tools/key_record.h"

#include <algorithm>
#include <atomic>

#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "tools/authorized_keys.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;
using Rotations = std::vector<BegunRotation>;

pnl_log::Module log_module("key_record");

// --- The file: "rotation TEMPORARY_KEY TYPE BLOB", below it "missing NODE PATH"; words are plain,
// and the temporary key is named as a neighbour of the private key.

std::string RecordPath(const std::string& private_key) {
  return private_key + ".rotation";
}

/// False for a line that no rotation has written: files are removed by what stands here.
bool AddLine(const std::string& private_key, std::string line, Rotations& rotations) {
  const std::string kind = str::GetWord(line, ' ');
  const std::string first = str::GetWord(line, ' ');
  if (kind == "rotation") {
    rotations.push_back(
        {pnl_file::ConcatPath(pnl_file::Folder(private_key), first), KeyOf(line), {}});
    return first.starts_with(pnl_file::Name(private_key) + ".") &&
           first.find('/') == std::string::npos && !rotations.back().public_key.empty();
  }
  if (kind != "missing" || rotations.empty() || !line.starts_with('/')) return false;
  rotations.back().missing[first].push_back(line);
  return true;
}

Rotations Read(const std::string& private_key) {
  const std::string path = RecordPath(private_key);
  Rotations rotations;
  std::string text = pnl_file::Read(path);
  while (!text.empty()) {
    const std::string line = str::GetWord(text, '\n');
    if (AddLine(private_key, line, rotations)) continue;
    std::string message = "'" + path + "', the record of a rotation that was killed, holds '";
    message.append(line).append("', which is none of its lines: mend it or remove it");
    throw pnl_err::Error("key_record", "line", path).add_param("message", message);
  }
  return rotations;
}

void Write(const std::string& private_key, const Rotations& rotations) {
  std::string text;
  for (const BegunRotation& rotation : rotations) {
    text.append("rotation ").append(pnl_file::Name(rotation.temporary_key));
    text.append(" ").append(rotation.public_key).append("\n");
    for (const auto& [node, paths] : rotation.missing) {
      for (const std::string& path : paths)
        text.append("missing ").append(node).append(" ").append(path).append("\n");
    }
  }
  if (text.empty()) return pnl_file::RemoveFile(RecordPath(private_key));
  pnl_file::Write(RecordPath(private_key), text, pnl_file::kSecretMode);
}

// --- A rotation that did not come to its end

void Tell(const Context& context, const KeySetup& setup, const std::string& message) {
  context.bar.Clear();
  const std::string text = "an earlier rotation of '" + setup.private_key + "' " + message;
  TellError(pnl_err::Error("earlier_rotation").add_param("message", text), context.out.GetFormat());
}

bool Holds(const std::string& text, const std::string& public_key) {
  return KeyOf(text) == public_key || PublicHalfOf(text) == public_key;
}

/// How many there were.
int RemoveKeyFiles(pnl_rpc::SSH ssh, const BegunRotation& rotation, const std::string& node) {
  int count = 0;
  for (const std::string& path : rotation.missing.at(node)) {
    if (!file::Exists(ssh, path, "f") ||
        !Holds(file::Read(ssh, path, ssh_gen::kMaxAuthorizedKeys), rotation.public_key))
      continue;
    file::Remove(ssh, path);
    ++count;
  }
  return count;
}

/// Leaves what could not be reached. False when the user interrupted.
bool RemoveKeyFiles(Context& context, const KeySetup& setup, BegunRotation& rotation) {
  std::vector<std::string> nodes;
  for (const auto& [node, paths] : rotation.missing) nodes.push_back(node);
  NodeWork work(context, nodes, NodeTable::News::kNone);
  std::atomic<int> removed = 0;
  work.Visit([&](const std::string& node) {
    removed += RemoveKeyFiles(LogIn(setup, node, setup.private_key), rotation, node);
    return "RESTORED";
  });
  work.End();
  std::erase_if(rotation.missing, [&](const auto& entry) { return !work.Failed(entry.first); });
  Tell(context, setup,
       str::Format("did not come to its end; what it left is removed: its new key here, and %d key "
                   "files on nodes",
                   removed.load()));
  if (work.Failed())
    Tell(context, setup,
         "may have left key files on nodes where the next one will look again: " +
             work.Failures(nodes.size()));
  return !work.Interrupted();
}

/// False when the user interrupted.
bool End(Context& context, const KeySetup& setup, const std::string& present,
         BegunRotation& rotation) {
  const std::string temporary_public_key = rotation.temporary_key + ".pub";
  if (rotation.public_key == present) {
    rotation.missing.clear();
    if (pnl_file::Exists(temporary_public_key))
      pnl_file::Move(temporary_public_key, setup.public_key);
    Tell(context, setup, "was killed when it was done; its key is in place");
    return true;
  }
  pnl_file::RemoveFile(rotation.temporary_key);
  pnl_file::RemoveFile(temporary_public_key);
  return RemoveKeyFiles(context, setup, rotation);
}

}  // namespace

void NoteRotation(const std::string& private_key, const BegunRotation& begun) {
  Rotations rotations = Read(private_key);
  rotations.push_back(begun);
  Write(private_key, rotations);
}

void ForgetRotation(const std::string& private_key, const BegunRotation::Files& owed) {
  try {
    Rotations rotations = Read(private_key);
    if (rotations.empty()) return;
    rotations.back().missing = owed;
    if (owed.empty()) rotations.pop_back();
    Write(private_key, rotations);
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
  }
}

void EndKilledRotations(Context& context, const KeySetup& setup) {
  Rotations rotations = Read(setup.private_key);
  if (rotations.empty()) return;
  const std::string present = PublicHalf(setup.private_key);
  const bool ended = std::all_of(rotations.begin(), rotations.end(), [&](BegunRotation& rotation) {
    return End(context, setup, present, rotation);
  });
  if (!ended) throw pnl_err::Error("interrupted");
  std::erase_if(rotations, [](const BegunRotation& rotation) { return rotation.missing.empty(); });
  Write(setup.private_key, rotations);
}

}  // namespace tools
