#include "fleet/inventory.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

#include "brefir/cmdarg.h"
#include "fleet/inventory_line.h"
#include "fleet/node_names.h"
#include "fleet/node_range.h"
#include "fleet/shell_words.h"
#include "pnl/file.h"
#include "pnl/settings.h"
#include "pnl/test.h"

namespace fleet {
namespace {

constexpr const char* kDefaultPath = "etc/nodes";
constexpr int kMaxPort = 65535;

const StringSet& LoginSettings() {
  static const auto* const keys =
      new StringSet{"host", "user", "port", "key", "known_hosts", "jump", "become", "groups"};
  return *keys;
}

bool IsPlain(char c) {
  return test::Numeric(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

/// A name that is no option of a program, no range, no pattern, and not "." or "..".
bool IsName(std::string_view name, std::string_view others) {
  const auto allowed = [&](char c) {
    return IsPlain(c) || others.find(c) != std::string_view::npos;
  };
  return name.find_first_not_of('.') != std::string_view::npos && name.front() != '-' &&
         std::all_of(name.begin(), name.end(), allowed);
}

using Names = std::vector<std::string>;

/// Whether it can be "[USER@]HOST[:PORT]", or the name of a node.
bool IsHost(const std::string& word) {
  try {
    return IsName(ParseNode(word).host, ".-:%");
  } catch (const pnl_err::Error&) {
    return false;
  }
}

/// A group: its line, and the groups it is part of.
struct Group {
  std::size_t line = 0;
  StringMap settings = {};
  Names parts = {};  // the groups that it names
  std::vector<std::size_t> above =
      {};  // they, those that they name, and so on; in the file's order
};

/// A line of nodes, before groups are looked at.
struct NodeLine {
  std::size_t line = 0;
  Names names;
  Names hosts = {};
  std::shared_ptr<const StringMap> settings = {};
  Names groups = {};
};

/// One text on its way to an inventory.
class Parser {
 public:
  Parser(std::string_view text, const std::string& path) : text_(text), path_(path) {}

  void ReadLines();
  void JoinGroups();
  std::vector<Node> Nodes();
  const Names& GroupNames() const { return group_names_; }

 private:
  pnl_err::Error Wrong(std::size_t line, const std::string& word, const std::string& what) const;
  template <class Work>
  auto About(const std::string& word, const Work& work) const;

  void ReadLine(std::string_view line);
  void ReadGroup(const Names& words);
  void ReadNodes(const Names& words);
  Names ReadAddresses(const NodeLine& line, StringMap& settings) const;
  Names ReadHosts(const NodeLine& line, const std::string& host) const;
  StringMap ReadSettings(const Names& words, StringMap settings) const;
  void Check(const std::string& word, const std::string& key, const std::string& value) const;
  Names TakeGroups(StringMap& settings) const;

  std::size_t Index(std::size_t line, const std::string& group) const;
  void Join(std::size_t group, std::vector<std::size_t>& way);
  std::vector<std::size_t> AllGroups(const NodeLine& line) const;
  std::shared_ptr<const StringMap> Merged(const NodeLine& line,
                                          const std::vector<std::size_t>& groups) const;
  void Inherit(StringMap& settings, const std::string& key, const NodeLine& line,
               const std::vector<std::size_t>& groups) const;

  const std::string_view text_;
  const std::string& path_;
  std::size_t line_ = 0;
  std::size_t count_ = 0;
  std::vector<NodeLine> lines_;
  Names group_names_;
  std::vector<Group> groups_;
  std::map<std::string, std::size_t> group_index_;
  enum class Joined { kNot, kUnderWay, kDone };
  std::vector<Joined> joined_;
};

pnl_err::Error Parser::Wrong(std::size_t line, const std::string& word,
                             const std::string& what) const {
  const std::string at = std::to_string(line);
  return pnl_err::Error(kInventoryError, path_, word)
      .add_param("line", at)
      .add_param("message", path_ + ":" + at + ": '" + word + "' " + what);
}

/// What the text rules say against a word of the present line.
template <class Work>
auto Parser::About(const std::string& word, const Work& work) const {
  try {
    return work();
  } catch (const std::invalid_argument& error) {
    throw Wrong(line_, word, error.what());
  }
}

// --- Lines

void Parser::ReadLines() {
  std::string_view rest = text_;
  while (!rest.empty()) {
    ++line_;
    const std::size_t end = rest.find('\n');
    ReadLine(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
}

void Parser::ReadLine(std::string_view line) {
  if (line.find('\0') != std::string_view::npos)
    throw Wrong(line_, "", "is a line with a zero byte; this is no text file");
  const Names words = About(std::string(str::TrimView(line)), [&] { return InventoryWords(line); });
  if (words.empty()) return;
  if (OpensGroup(words[0])) return ReadGroup(words);
  ReadNodes(words);
}

void Parser::ReadGroup(const Names& words) {
  const std::string& word = words.front();
  const std::string name = word.ends_with(']') ? word.substr(1, word.size() - 2) : "";
  if (!IsName(name, ".-")) {
    throw Wrong(line_, word,
                "opens no group; write [NAME], of letters, digits, '.', '_' and '-', and settings "
                "behind it");
  }
  if (name == "all" || name == "failed")
    throw Wrong(line_, word, "cannot be a group: @" + name + " means something else already");
  if (const auto [at, added] = group_index_.emplace(name, groups_.size()); !added)
    throw Wrong(line_, word,
                "stands in line " + std::to_string(groups_[at->second].line) + ", too");
  Group group{.line = line_, .settings = ReadSettings(words, {})};
  if (group.settings.contains("host"))
    throw Wrong(line_, word, "is a group, and host goes with nodes only");
  group.parts = TakeGroups(group.settings);
  groups_.push_back(std::move(group));
  group_names_.push_back(name);
}

/// Whether a port stands behind the host of "[USER@]HOST[:PORT]".
bool HasPort(const std::string& name) {
  const std::string host = name.substr(name.find('@') + 1);  // all of it without "@"
  return !test::Ip6(host) && host.find(':', host.rfind(']') + 1) != std::string::npos;
}

/// The addresses that the names of a line are; a user and a port in them are settings.
Names Parser::ReadAddresses(const NodeLine& line, StringMap& settings) const {
  Names hosts;
  hosts.reserve(line.names.size());
  for (const std::string& name : line.names) {
    pnl_rpc::SshOptions login;
    try {
      login = ParseNode(name);
    } catch (const pnl_err::Error&) {
      login.host.clear();
    }
    if (!IsName(login.host, ".-:%"))
      throw Wrong(line_, name, "is no name of a node; write NAME or [USER@]HOST[:PORT]");
    StringMap own;
    if (name.find('@') != std::string::npos) own["user"] = login.user;
    if (HasPort(name)) own["port"] = std::to_string(login.port);
    settings.insert(own.begin(), own.end());
    if (settings != own) {
      throw Wrong(line_, name,
                  "has another user or port than the line's first node; write a line for each");
    }
    hosts.push_back(std::move(login.host));
  }
  return hosts;
}

/// Those that host= names, a node each or one for all.
Names Parser::ReadHosts(const NodeLine& line, const std::string& host) const {
  const std::string word = "host=" + host;
  Names hosts = About(word, [&] { return ExpandRange(host); });
  if (hosts.size() == 1) hosts.resize(line.names.size(), Names(hosts).front());
  if (hosts.size() != line.names.size()) {
    throw Wrong(line_, word,
                "stands for " + std::to_string(hosts.size()) + " hosts, its line for " +
                    std::to_string(line.names.size()) + " nodes");
  }
  for (const std::string& name : hosts)
    if (!IsName(name, ".-:%")) throw Wrong(line_, word, "is no host's name or address");
  return hosts;
}

void Parser::ReadNodes(const Names& words) {
  const std::string& word = words.front();
  NodeLine line{.line = line_, .names = About(word, [&] { return ExpandRange(word); })};
  count_ += line.names.size();
  if (count_ > kMaxNodes) throw Wrong(line_, word, "makes more than 100,000 nodes in this file");
  StringMap settings;
  line.hosts = ReadAddresses(line, settings);
  settings = ReadSettings(words, std::move(settings));
  if (const auto host = settings.extract("host"); !host.empty())
    line.hosts = ReadHosts(line, host.mapped());
  line.groups = TakeGroups(settings);
  if (!group_names_.empty()) line.groups.push_back(group_names_.back());
  line.settings = std::make_shared<const StringMap>(std::move(settings));
  lines_.push_back(std::move(line));
}

/// The words behind the first, KEY=VALUE, on top of `settings`.
StringMap Parser::ReadSettings(const Names& words, StringMap settings) const {
  StringSet seen;
  for (auto word = words.begin() + 1; word != words.end(); ++word) {
    std::string value = *word;
    const std::string key = str::GetWord(value, '=');
    if (key == *word || !IsName(key, "-") || test::Numeric(key.front()))
      throw Wrong(line_, *word, "is no setting; write KEY=VALUE");
    if (!seen.insert(key).second) throw Wrong(line_, *word, "sets '" + key + "' a second time");
    Check(*word, key, value);
    settings[key] = value;
  }
  return settings;
}

void Parser::Check(const std::string& word, const std::string& key,
                   const std::string& value) const {
  const auto require = [&](bool good, const char* what) {
    if (!good) throw Wrong(line_, word, what);
  };
  require(key != "name", "is refused: the name of a node stands at the begin of its line");
  const bool may_be_empty = key == "become" || key == "jump" || !IsLoginSetting(key);
  require(may_be_empty || !value.empty(), "has no value");
  if (key == "port") {
    require(test::Numeric(value) && value.size() <= 5 && str::Int(value) >= 1 &&
                str::Int(value) <= kMaxPort,
            "is no port from 1 to 65535");
  }
  if (key == "user") require(IsName(value, ".-$\\"), "is no user's name");
  if (key == "become") {
    require(value.empty() || value == "sudo" || value == "none",
            "is unknown; there are 'sudo' and 'none'");
  }
  if (key != "jump") return;
  for (const std::string& host : SplitNames(value))
    require(IsHost(host), "names no jump host; write NAME or [USER@]HOST[:PORT], with commas");
}

Names Parser::TakeGroups(StringMap& settings) const {
  const auto groups = settings.extract("groups");
  return groups.empty() ? Names() : SplitNames(groups.mapped());
}

// --- Groups

std::size_t Parser::Index(std::size_t line, const std::string& group) const {
  if (const auto found = group_index_.find(group); found != group_index_.end())
    return found->second;
  const std::string nearest = opts::Nearest(group, group_names_);
  throw Wrong(
      line, group,
      "is no group of this file" + (nearest.empty() ? "; a line [" + group + "] would make it one"
                                                    : "; did you mean '" + nearest + "'?"));
}

void Parser::JoinGroups() {
  joined_.resize(groups_.size());
  for (std::size_t group = 0; group < groups_.size(); ++group) {
    std::vector<std::size_t> way;
    Join(group, way);
  }
}

/// Finds out what the group is part of; `way` are the groups that led here.
void Parser::Join(std::size_t group, std::vector<std::size_t>& way) {
  if (joined_[group] == Joined::kDone) return;
  way.push_back(group);
  if (joined_[group] == Joined::kUnderWay) {
    std::string circle;
    for (auto at = std::find(way.begin(), way.end(), group); at != way.end(); ++at)
      circle = str::Append(circle, group_names_[*at], " -> ");
    throw Wrong(groups_[group].line, group_names_[group], "is part of itself, by way of " + circle);
  }
  joined_[group] = Joined::kUnderWay;
  std::set<std::size_t> above;
  for (const std::string& name : groups_[group].parts) {
    const std::size_t part = Index(groups_[group].line, name);
    Join(part, way);
    above.insert(part);
    above.insert(groups_[part].above.begin(), groups_[part].above.end());
  }
  groups_[group].above.assign(above.begin(), above.end());
  joined_[group] = Joined::kDone;
  way.pop_back();
}

std::vector<std::size_t> Parser::AllGroups(const NodeLine& line) const {
  std::set<std::size_t> all;
  for (const std::string& name : line.groups) {
    const std::size_t group = Index(line.line, name);
    all.insert(group);
    all.insert(groups_[group].above.begin(), groups_[group].above.end());
  }
  return {all.begin(), all.end()};
}

/// Takes over the setting of the groups; one that is part of another one speaks before that.
void Parser::Inherit(StringMap& settings, const std::string& key, const NodeLine& line,
                     const std::vector<std::size_t>& groups) const {
  std::vector<std::size_t> speakers;
  for (const std::size_t group : groups)
    if (groups_[group].settings.contains(key)) speakers.push_back(group);
  const auto overruled = [&](std::size_t group) {
    return std::any_of(speakers.begin(), speakers.end(), [&](std::size_t other) {
      const std::vector<std::size_t>& above = groups_[other].above;
      return std::find(above.begin(), above.end(), group) != above.end();
    });
  };
  std::optional<std::size_t> chosen;
  for (const std::size_t group : speakers) {
    if (overruled(group)) continue;
    const std::string& value = groups_[group].settings.at(key);
    if (chosen && groups_[*chosen].settings.at(key) != value) {
      throw Wrong(line.line, line.names.front(),
                  str::Format("is in the groups '%s' and '%s', which disagree on %s; say in this "
                              "line which %s it has",
                              group_names_[*chosen], group_names_[group], key, key));
    }
    chosen = group;
    settings[key] = value;
  }
}

std::shared_ptr<const StringMap> Parser::Merged(const NodeLine& line,
                                                const std::vector<std::size_t>& groups) const {
  StringMap settings;
  StringSet keys;
  for (const std::size_t group : groups)
    for (const auto& [key, value] : groups_[group].settings) keys.insert(key);
  for (const std::string& key : keys)
    if (!line.settings->contains(key)) Inherit(settings, key, line, groups);
  if (settings.empty()) return line.settings;
  settings.insert(line.settings->begin(), line.settings->end());
  return std::make_shared<const StringMap>(std::move(settings));
}

std::vector<Node> Parser::Nodes() {
  std::vector<Node> nodes;
  nodes.reserve(count_);
  std::map<std::vector<std::size_t>, std::shared_ptr<const Names>> known;
  for (const NodeLine& line : lines_) {
    const std::vector<std::size_t> all = AllGroups(line);
    std::shared_ptr<const Names>& groups = known[all];
    if (!groups) {
      Names names;
      for (const std::size_t group : all) names.push_back(group_names_[group]);
      groups = std::make_shared<const Names>(std::move(names));
    }
    const std::shared_ptr<const StringMap> settings = Merged(line, all);
    for (std::size_t i = 0; i < line.names.size(); ++i)
      nodes.push_back({line.names[i], line.hosts[i], settings, groups, line.line});
  }
  return nodes;
}

}  // namespace

std::vector<std::string> InventoryWords(std::string_view line) {
  Names words = ShellWords(line);
  const std::size_t mark = words.empty() ? std::string::npos : words[0].find('#');
  if (mark != std::string::npos) words = {words[0].substr(0, mark)};
  return words;
}

bool OpensGroup(const std::string& word) {
  return word.starts_with('[') && word.find(':') == std::string::npos;
}

bool IsLoginSetting(const std::string& key) {
  return LoginSettings().contains(key);
}

// --- Node

const std::string& Node::Get(const std::string& key) const {
  static const auto* const nothing = new std::string;
  if (!settings) return *nothing;
  const auto found = settings->find(key);
  return found == settings->end() ? *nothing : found->second;
}

StringMap Node::Values() const {
  StringMap values;
  if (settings) {
    for (const auto& [key, value] : *settings)
      if (!IsLoginSetting(key)) values[key] = value;
  }
  return values;
}

pnl_rpc::SshOptions Node::Login(pnl_rpc::SshOptions common) const {
  common.host = host;
  if (!Get("user").empty()) common.user = Get("user");
  if (!Get("port").empty()) common.port = str::Int(Get("port"));
  if (!Get("key").empty()) common.key_file = Get("key");
  if (!Get("known_hosts").empty()) common.known_hosts = Get("known_hosts");
  return common;
}

Node NodeOutside(const std::string& word) {
  const pnl_rpc::SshOptions login = ParseNode(word);
  StringMap settings;
  if (word.find('@') != std::string::npos) settings["user"] = login.user;
  if (login.port != 22) settings["port"] = std::to_string(login.port);
  return {word, login.host, std::make_shared<const StringMap>(std::move(settings)),
          std::make_shared<const std::vector<std::string>>(), 0};
}

// --- Inventory

Inventory Inventory::Parse(std::string_view text, const std::string& path) {
  Parser parser(text, path);
  parser.ReadLines();
  parser.JoinGroups();
  Inventory inventory;
  inventory.nodes_ = parser.Nodes();
  inventory.groups_ = parser.GroupNames();
  for (std::size_t i = 0; i < inventory.nodes_.size(); ++i) {
    const Node& node = inventory.nodes_[i];
    const auto [at, added] = inventory.by_name_.emplace(node.name, i);
    if (added) continue;
    const std::string first = std::to_string(inventory.nodes_[at->second].line);
    const std::string line = std::to_string(node.line);
    throw pnl_err::Error(kInventoryError, path, node.name)
        .add_param("line", line)
        .add_param("message",
                   str::Format("%s:%s: '%s' stands in line %s, too; groups=NAME,... puts "
                               "a node into several groups",
                               path, line, node.name, first));
  }
  return inventory;
}

Inventory Inventory::Load(const std::string& path) {
  return Parse(pnl_file::Read(path), path);
}

const Node* Inventory::Find(std::string_view name) const {
  const auto found = by_name_.find(name);
  return found == by_name_.end() ? nullptr : &nodes_[found->second];
}

std::string Inventory::Nearest(std::string_view name) const {
  Names names;
  names.reserve(nodes_.size());
  for (const Node& node : nodes_) names.push_back(node.name);
  return opts::Nearest(name, names);
}

std::string InventoryPath() {
  const std::string nodes = pnl_settings::Get("nodes");
  return !nodes.empty() && pnl_file::Info(nodes).Exists() ? nodes : kDefaultPath;
}

}  // namespace fleet
