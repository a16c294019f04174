#include "fleet/rotation_record.h"

#include "fleet/authorized_keys.h"
#include "fleet/layout.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/str.h"

namespace fleet {
namespace {

using Rotations = std::vector<BegunRotation>;

pnl_log::Module log_module("rotation_record");

// --- The file: "rotation TEMPORARY_KEY TYPE BLOB", below it "missing NODE PATH"; words are plain,
// and the temporary key is named as a neighbour of the private key.

std::string RecordPath(const std::string& private_key) {
  return private_key + layout::kRotationSuffix;
}

/// False for an invalid line. This is strict, because files are removed by this record.
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

}  // namespace

Rotations ReadRotations(const std::string& private_key) {
  const std::string path = RecordPath(private_key);
  Rotations rotations;
  std::string text = pnl_file::Read(path);
  while (!text.empty()) {
    const std::string line = str::GetWord(text, '\n');
    if (AddLine(private_key, line, rotations)) continue;
    std::string message =
        "'" + path + "', the record of a rotation that was killed, has an invalid line '";
    message.append(line).append("': correct the line or remove it");
    throw pnl_err::Error("key_record", "line", path).add_param("message", message);
  }
  return rotations;
}

void WriteRotations(const std::string& private_key, const Rotations& rotations) {
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

void NoteRotation(const std::string& private_key, const BegunRotation& begun) {
  Rotations rotations = ReadRotations(private_key);
  rotations.push_back(begun);
  WriteRotations(private_key, rotations);
}

void ForgetRotation(const std::string& private_key, const BegunRotation::Files& owed) {
  try {
    Rotations rotations = ReadRotations(private_key);
    if (rotations.empty()) return;
    rotations.back().missing = owed;
    if (owed.empty()) rotations.pop_back();
    WriteRotations(private_key, rotations);
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
  }
}

}  // namespace fleet
