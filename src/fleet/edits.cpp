#include "fleet/edits.h"

#include <set>
#include <utility>

#include "brefir/sysctl.h"
#include "fleet/authorized_keys.h"
#include "fleet/config_key.h"
#include "fleet/kernel_parameters.h"
#include "pnl/err.h"
#include "pnl/file.h"

namespace fleet {
namespace {

pnl_err::Missed Missing(const char* what, const std::string& value, const std::string& message) {
  pnl_err::Missed error(what, value);
  error.add_param("message", message).add_param(kIsMissing, "1");
  return error;
}

std::string TextOf(const Draft& draft, const std::string& path) {
  std::optional<std::string> text = draft.Text(path);
  if (!text) throw Missing("file", path, draft.HostName() + ": there is no '" + path + "'");
  return *std::move(text);
}

// --- Authorized keys

/// An authorized_keys file and what it is in.
struct KeyPlace {
  std::string file;
  std::string directory;
  std::string parent;
  std::string user;  ///< "" if the path was given
};

KeyPlace PlaceOf(const std::string& place) {
  const bool is_path = place.starts_with('/');
  KeyPlace keys{.file = is_path ? place : "~" + place + "/.ssh/authorized_keys",
                .directory = {},
                .parent = {},
                .user = is_path ? "" : place};
  keys.directory = pnl_file::Folder(keys.file);
  keys.parent = pnl_file::Folder(keys.directory);
  return keys;
}

/// A user may have put links into the home; they must not lead to files of others.
void RequireOwn(const Draft& draft, const KeyPlace& keys) {
  const auto refuse = [&](const std::string& why) {
    draft.Refuse(keys.file, "the key of user '" + keys.user + "' cannot be changed: " + why);
  };
  if (draft.Seen().users.at(keys.user).empty()) refuse("there is no such user");
  const Place& home = draft.Seen().files.at(keys.parent);
  if (home.state.kind != PathKind::kDirectory) refuse("there is no home directory");
  for (const std::string& path : {keys.directory, keys.file}) {
    const Place& place = draft.Seen().files.at(path);
    const bool missing = place.state.kind == PathKind::kMissing;
    if (missing || place.state.owner == home.state.owner || place.path.starts_with(home.path + "/"))
      continue;
    refuse("a link leads to '" + place.path + "', which is somebody else's");
  }
}

std::string Without(std::string_view text, std::string_view line) {
  std::string rest;
  while (!text.empty()) {
    const std::string_view all = text;
    if (str::NextWord(text, '\n') != line) rest += all.substr(0, all.size() - text.size());
  }
  return rest;
}

bool Has(std::string_view text, std::string_view line) {
  while (!text.empty())
    if (str::NextWord(text, '\n') == line) return true;
  return false;
}

std::function<void(Looks& looks)> LookAt(const KeyPlace& keys) {
  return [keys](Looks& looks) {
    looks.texts.insert(keys.file);
    looks.files.insert({keys.directory, keys.parent});
    looks.missing.insert(keys.directory);
    if (!keys.user.empty()) looks.users.insert(keys.user);
  };
}

void AddLine(Draft& draft, const KeyPlace& keys, const std::string& line) {
  constexpr unsigned kFileMode = 0600;
  constexpr unsigned kDirectoryMode = 0700;
  const bool is_new = draft.File(keys.file).kind == PathKind::kMissing;
  if (draft.File(keys.directory).kind == PathKind::kMissing) {
    const PathState parent = draft.File(keys.parent);
    if (parent.kind != PathKind::kDirectory)
      draft.Absent(keys.file, "there is no directory '" + keys.parent + "'");
    draft.MakeDirs(keys.directory);
    draft.SetMode(keys.directory, kDirectoryMode);
    draft.SetOwner(keys.directory, parent.owner);
  }
  std::string text = draft.Text(keys.file).value_or("");
  if (Has(text, line)) return;
  if (!text.empty() && !text.ends_with('\n')) text += '\n';
  draft.Write(keys.file, text + line + "\n", {.new_mode = kFileMode, .by_lines = true});
  if (is_new) draft.SetOwner(keys.file, draft.File(keys.directory).owner);
}

}  // namespace

// --- Configuration keys

Edit SetKeyEdit(const std::string& path, std::string key, std::string value,
                SetKeyOptions options) {
  const auto make = [path, key = std::move(key), value = std::move(value),
                     options = std::move(options)](Draft& draft) {
    const std::string text = options.create ? draft.Text(path).value_or("") : TextOf(draft, path);
    std::string after;
    try {
      after = SetConfigKey(text, key, value, options.syntax, options.after);
    } catch (const pnl_err::Missed&) {
      throw Missing("after", options.after,
                    "'" + path + "' has no line that begins with '" + options.after +
                        "' (--after); nothing was changed");
    }
    draft.Write(path, std::move(after), {.by_lines = true, .secret = options.secret});
  };
  return {.look = [path](Looks& looks) { looks.texts.insert(path); }, .make = make};
}

Edit RemoveKeyEdit(const std::string& path, std::string key, utils::LineSyntax syntax) {
  const auto make = [path, key = std::move(key), syntax = std::move(syntax)](Draft& draft) {
    std::optional<std::string> after = RemoveConfigKey(TextOf(draft, path), key, syntax);
    if (!after) throw Missing("key", key, "'" + path + "' has no key '" + key + "'");
    draft.Write(path, *std::move(after), {.by_lines = true});
  };
  return {.look = [path](Looks& looks) { looks.texts.insert(path); }, .make = make};
}

// --- Kernel parameters

Edit ParametersEdit(const StringMap& values) {
  for (const auto& [name, value] : values)
    if (!IsParameterName(name))
      throw pnl_err::Error("parameter", name)
          .add_param("message", "'" + name + "' is no name of a kernel parameter");
  const auto look = [values](Looks& looks) {
    looks.texts.insert(kSysctlConf);
    for (const auto& [name, value] : values) looks.parameters.insert(name);
  };
  const auto make = [values](Draft& draft) {
    const std::string text = draft.Text(kSysctlConf).value_or("");
    draft.Write(kSysctlConf, sysctl::Rewrite(text, values), {.by_lines = true});
    for (const auto& [name, value] : values)
      if (KernelText(draft.Value(name)) != KernelText(value))
        draft.SetParameter(name, KernelText(value));
  };
  return {.look = look, .make = make};
}

// --- Authorized keys

Edit AuthorizedKeyEdit(const std::string& place, std::string line, bool present) {
  if (line.find_first_of(std::string("\n\r\0", 3)) != std::string::npos || KeyOf(line).empty())
    throw pnl_err::Error("authorized_key", line)
        .add_param("message", "this is not one line of an authorized_keys file: '" +
                                  str::Shorten(line, 100) + "'");
  const KeyPlace keys = PlaceOf(place);
  const auto make = [keys, line = std::move(line), present](Draft& draft) {
    if (!keys.user.empty()) RequireOwn(draft, keys);
    if (present) return AddLine(draft, keys, line);
    const std::optional<std::string> text = draft.Text(keys.file);
    if (text && Has(*text, line)) draft.Write(keys.file, Without(*text, line), {.by_lines = true});
  };
  return {.look = LookAt(keys), .make = make};
}

Edit RetireKeyEdit(const std::string& place, std::string key, std::string kept) {
  const KeyPlace keys = PlaceOf(place);
  const auto make = [keys, key = std::move(key), kept = std::move(kept)](Draft& draft) {
    if (!keys.user.empty()) RequireOwn(draft, keys);
    const std::string text = draft.Text(keys.file).value_or("");
    const std::string rest = WithoutKey(text, key);
    if (rest == text) return;
    if (LinesWith(rest, kept).empty())
      draft.Refuse(
          keys.file,
          "'" + keys.file +
              "' would not contain the key that the panel logs in with; nothing was changed");
    draft.Write(keys.file, rest, {.by_lines = true});
  };
  return {.look = LookAt(keys), .make = make};
}

}  // namespace fleet
