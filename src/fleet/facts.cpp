#include "fleet/facts.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

#include "brefir/ssh_utils.h"
#include "brefir/str_utils.h"
#include "fleet/facts_script.h"
#include "pnl/utf8.h"

namespace fleet {
namespace {

namespace os_info = ssh_utils::os_info;
using Lines = std::vector<std::string>;

/// The parts of a reply; see FactsCommand.
class Reply {
 public:
  explicit Reply(std::string_view text) {
    while (!text.empty()) {
      std::string_view line = str::NextWord(text, '\n');
      const std::string_view kind = str::NextWord(line, ' ');
      const std::string tag(str::NextWord(line, ' '));
      if (kind == "is") lines_[tag].emplace_back(line);
      if (kind == "has") has_.insert(tag);
      if (kind == "begun") begun_.insert(tag);
      if (kind == "ran") codes_[tag] = str::Int(line);
    }
  }

  bool Has(const std::string& file) const { return has_.contains(file); }
  const Lines& Of(const std::string& tag) const {
    static const auto* const none = new Lines;
    const auto found = lines_.find(tag);
    return found == lines_.end() ? *none : found->second;
  }
  std::string First(const std::string& tag) const { return Of(tag).empty() ? "" : Of(tag).front(); }
  std::string Text(const std::string& tag) const { return str::Join(Of(tag), "\n"); }
  std::optional<int> Code(const std::string& part) const {
    const auto found = codes_.find(part);
    return found == codes_.end() ? std::nullopt : std::optional(found->second);
  }
  /// The output of a part that succeeded.
  std::string Result(const std::string& part) const { return Code(part) == 0 ? Text(part) : ""; }
  Lines Late() const {
    Lines late;
    for (const std::string& part : begun_)
      if (!codes_.contains(part)) late.push_back(part);
    return late;
  }

 private:
  std::map<std::string, Lines> lines_;
  StringSet has_, begun_;
  std::map<std::string, int> codes_;
};

/// Bytes of a number of KiB.
std::int64_t Kib(std::string_view number) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max() / 1024;
  return std::clamp<std::int64_t>(str::Int64(number), 0, kMost) * 1024;
}

StringMap Settings(const std::string& text) {
  StringMap raw, settings;
  str::SplitConfig(text, raw, "=", "#");
  for (const auto& [key, value] : raw) {
    const std::string quote = value.starts_with('\'') ? "'" : "\"";
    settings[key] = str::Unquote(value, quote, quote);
  }
  return settings;
}

// --- The operating system

void TakeSystem(const Reply& reply, Facts& facts) {
  const auto name = [](const std::string& path) { return path.substr(path.rfind('/') + 1); };
  const os_info::release::Answers answers{
      .exists = [&](const std::string& path) { return reply.Has(name(path)); },
      .read = [&](const std::string& path) { return reply.Text(name(path)); },
      .rpm_release = [&] { return reply.Result("version"); }};
  const os_info::OsType type = os_info::release::Type(answers);
  const StringMap release = Settings(reply.Text("os-release"));
  const auto of_release = [&](const char* key) {
    const auto found = release.find(key);
    return found == release.end() ? "" : found->second;
  };
  facts.type = type;
  if (type != os_info::OsUbuntu)
    facts.version = str::Trim(os_info::release::Version(type, answers));
  if (facts.version.empty() && type != os_info::OsDebian)
    facts.version = str::Trim(
        str::Unquote(os_info::release::UbuntuVersion(reply.Text("lsb-release")), "\"", "\""));
  if (facts.version.empty()) facts.version = of_release("VERSION_ID");

  if (const char* const prefix = os_info::release::DisplayPrefix(type)) {
    facts.os = str::Trim(prefix + facts.version);
  } else if (!of_release("NAME").empty()) {
    facts.os = str::Append(of_release("NAME"), of_release("VERSION_ID"), " ");
  } else {
    facts.os =
        str::Trim(reply.First(reply.Has("redhat-release") ? "redhat-release" : "gentoo-release"));
  }
}

// --- The machine

std::optional<double> Load(const std::string& text) {
  double load = 0;
  const auto end = std::from_chars(text.data(), text.data() + text.size(), load);
  if (end.ec != std::errc() || !std::isfinite(load) || load < 0) return std::nullopt;
  return load;
}

/// The number of processors in a list like "0-3,8".
int CountProcessors(std::string_view list) {
  constexpr int kMost = 1 << 20;
  int count = 0;
  while (!list.empty()) {
    std::string_view last = str::NextWord(list, ',');
    const int first = std::clamp(str::Int(str::NextWord(last, '-')), 0, kMost);
    count += last.empty() ? 1 : std::max(std::clamp(str::Int(last), 0, kMost) - first + 1, 0);
    if (count > kMost) return kMost;
  }
  return count;
}

void TakeMachine(const Reply& reply, Facts& facts) {
  std::string names = reply.First("uname");
  facts.hostname = str::GetWord(names);
  facts.kernel = str::GetWord(names);
  facts.arch = str::Trim(names);
  if (const std::string& uptime = reply.First("uptime"); !uptime.empty())
    facts.boot = facts.asked - std::clamp<std::int64_t>(str::Int64(uptime), 0, facts.asked);
  facts.load = Load(reply.First("load"));
  const int processors = reply.Of("online").empty() ? static_cast<int>(reply.Of("cpu").size())
                                                    : CountProcessors(reply.First("online"));
  if (processors > 0) facts.processors = processors;
  std::map<std::string, std::int64_t, std::less<>> memory;
  for (std::string line : reply.Of("memory")) {
    const std::string name = str::GetWord(line);
    memory[name] = Kib(line);
  }
  if (memory.contains("MemTotal:")) facts.memory = memory["MemTotal:"];
  if (memory.contains("MemAvailable:")) {
    facts.memory_free = memory["MemAvailable:"];
  } else if (memory.contains("MemFree:")) {  // kernels before 3.14
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max() / 3;
    std::int64_t free = 0;
    for (const char* name : {"MemFree:", "Buffers:", "Cached:"})
      free += std::min(memory[name], kMost);
    facts.memory_free = free;
  }
}

std::vector<Disk> Disks(const Lines& lines) {
  std::vector<Disk> disks;
  StringSet seen;
  for (std::string_view line : lines) {
    Disk disk;
    disk.device = str::NextWord(line);
    disk.size = Kib(str::NextWord(line));
    disk.used = Kib(str::NextWord(line));
    disk.free = Kib(str::NextWord(line));
    str::NextWord(line);  // the percentage
    disk.mount = line;
    const bool is_image = disk.device.starts_with("/dev/loop") && disk.free == 0;
    if (!disk.mount.starts_with('/') || (is_image && disk.mount != "/")) continue;
    if (seen.insert(disk.device).second) disks.push_back(std::move(disk));
  }
  return disks;
}

/// Of lines of "ip -o addr", or of "hostname -I", which has only addresses.
Lines Addresses(const Lines& lines) {
  Lines addresses;
  const auto add = [&](std::string_view word) {
    const std::string address(word.substr(0, word.find('/')));
    for (const char* own : {"127.", "169.254.", "fe80:"})
      if (address.starts_with(own)) return;
    if (address.empty() || address == "::1") return;
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end())
      addresses.push_back(address);
  };
  for (std::string_view line : lines) {
    const std::size_t at = line.find(" inet");
    if (at != std::string_view::npos) {
      line.remove_prefix(at + 1);
      str::NextWord(line);
      add(str::NextWord(line));
    } else if (line.find('<') == std::string_view::npos) {  // it is in lines of links
      while (!line.empty()) add(str::NextWord(line));
    }
  }
  return addresses;
}

// --- Software

/// A kernel's release: the numbers at its beginning, and the flavour, which is the rest without
/// digits: "5.14.0-362.8.1.el9_3.x86_64" is 5, 14, 0, 362, 8, 1 and ".el_.x_".
std::pair<std::vector<std::int64_t>, std::string> SplitKernel(std::string_view release) {
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  std::vector<std::int64_t> numbers;
  while (!release.empty() && is_digit(release.front())) {
    const auto end = std::find_if_not(release.begin(), release.end(), is_digit);
    const auto digits = static_cast<std::size_t>(end - release.begin());
    numbers.push_back(str::Int64(release.substr(0, digits)));
    const bool more = release.size() > digits + 1 && is_digit(release[digits + 1]);
    release.remove_prefix(more ? digits + 1 : digits);
  }
  std::string flavour(release);
  std::erase_if(flavour, is_digit);
  return {numbers, flavour};
}

std::optional<bool> RebootWanted(const Reply& reply, const std::string& kernel) {
  if (!reply.Of("reboot").empty()) return true;
  if (const auto code = reply.Code("reboot_wanted"))
    return *code == 0 || *code == 1 ? std::optional(*code == 1) : std::nullopt;
  const Lines& images = reply.Of("image");
  if (std::find(images.begin(), images.end(), kernel) == images.end()) return std::nullopt;
  const auto running = SplitKernel(kernel);
  return std::any_of(images.begin(), images.end(), [&](const std::string& image) {
    const auto other = SplitKernel(image);
    return other.second == running.second && other.first > running.first;
  });
}

void TakeSoftware(const Reply& reply, Facts& facts) {
  facts.package_manager = reply.First("manager");
  if (facts.package_manager == "apt-get") facts.package_manager = "apt";
  facts.reboot_wanted = RebootWanted(reply, facts.kernel);
  if (const std::string count = reply.Result("updates"); !count.empty()) {
    facts.updates = std::max(str::Int(count), 0);
    facts.updates_asked = str::Int64(reply.First("updates_asked"));
  }
  facts.runs = reply.Of("run");
  facts.guards = reply.Of("guard");
  std::string panel = reply.Result("panel_version");
  if (str::GetWord(panel) == "brefirctl") facts.panel_version = str::Trim(panel);
}

// --- Asking

/// Databases take neither NUL nor bytes that are not UTF-8.
void AddClean(std::string& text, std::string_view line) {
  while (!line.empty()) {
    const utf8::Character c = utf8::First(line);
    if (c.valid && c.code != 0) {
      text.append(line.substr(0, c.size));
    } else {
      text += '?';
    }
    line.remove_prefix(c.size);
  }
  text += '\n';
}

/// The lines of an output with the nonce, without it; null if the output is not complete.
std::optional<std::string> LinesOf(std::string_view output, const std::string& nonce) {
  std::string text;
  bool complete = false;
  while (!output.empty()) {
    std::string_view line = str::NextWord(output, '\n');
    if (str::NextWord(line, ' ') != nonce) continue;
    complete = line == "end";
    if (text.size() + line.size() < kMaxFacts - 64) AddClean(text, line);
  }
  return complete ? std::optional(text) : std::nullopt;
}

}  // namespace

int Disk::Percent() const {
  const double both = static_cast<double>(used) + static_cast<double>(free);
  return both > 0 ? static_cast<int>(std::ceil(100.0 * static_cast<double>(used) / both)) : 0;
}

Facts ParseFacts(std::string_view reply, std::time_t asked) {
  const Reply lines(reply);
  Facts facts;
  facts.asked = asked;
  TakeMachine(lines, facts);
  TakeSystem(lines, facts);
  facts.disks = Disks(lines.Of("disks"));
  facts.addresses = Addresses(lines.Of("address"));
  TakeSoftware(lines, facts);
  facts.late = lines.Late();
  facts.reply = reply;
  return facts;
}

Facts AskFacts(pnl_host::Host& host, const FactsQuestion& question) {
  constexpr std::size_t kNonceBytes = 8;
  const std::string nonce = str::hex::Encode(str::Random(kNonceBytes));
  const std::time_t now =
      std::time(nullptr);  // the uptime is read at once, other parts may be late
  const pnl_host::Outcome run = host.Act(FactsCommand(nonce, question));
  std::optional<std::string> reply = LinesOf(run.output, nonce);
  if (!reply) {
    const std::string why =
        run.complaint.empty() ? "exit code " + std::to_string(run.code) : run.complaint;
    throw pnl_err::Error("facts", host.Name())
        .add_param("message", host.Name() + ": it does not answer with its facts (" +
                                  str::Replace(why, "\n", "; ") + "); /bin/sh must work there");
  }
  if (question.updates) *reply += "is updates_asked " + std::to_string(now) + "\n";
  return ParseFacts(*reply, now);
}

}  // namespace fleet
