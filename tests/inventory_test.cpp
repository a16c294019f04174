// The inventory of nodes, ranges of names, selections.

#include "fleet/inventory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <set>

#include "brefir/str_utils.h"
#include "fleet/node_range.h"
#include "fleet/selection.h"
#include "fleet/shell_words.h"
#include "pnl/file.h"

namespace {

using fleet::Inventory;
using fleet::Node;
using Names = std::vector<std::string>;

/// "name=user@host:port{key=value ...}(groups)" of each node, for comparison.
std::string Told(const Inventory& inventory) {
  std::string text;
  for (const Node& node : inventory.Nodes()) {
    const pnl_rpc::SshOptions login = node.Login({});
    std::string values;
    for (const auto& [key, value] : node.Values())
      values = str::Append(values, key + "=" + value, " ");
    text = str::Append(text,
                       str::Format("%s=%s@%s:%d{%s}(%s)", node.name, login.user, login.host,
                                   login.port, values, str::Join(*node.groups, ",")),
                       "\n");
  }
  return text;
}

std::string Message(const std::function<void()>& work) {
  try {
    work();
  } catch (const pnl_err::Error& error) {
    return std::string(error.type()) + " " + error.param("message");
  }
  return "nothing was thrown";
}

Names NamesOf(const std::vector<Node>& nodes) {
  Names names;
  for (const Node& node : nodes) names.push_back(node.name);
  return names;
}

TEST(InventoryTest, ReadsWhatPeopleWrite) {
  const struct {
    const char* text;
    const char* told;
  } cases[] = {
      {"", ""},
      {"10.0.0.1\n# old\n\n 10.0.0.2 # new\r\n10.0.0.3#x",
       "10.0.0.1=root@10.0.0.1:22{}()\n10.0.0.2=root@10.0.0.2:22{}()\n10.0.0.3=root@10.0.0.3:22{}("
       ")"},
      {"admin@10.0.0.1:2222\n[2001:db8::7]:23\n2001:db8::8",
       "admin@10.0.0.1:2222=admin@10.0.0.1:2222{}()\n[2001:db8::7]:23=root@2001:db8::7:23{}()\n"
       "2001:db8::8=root@2001:db8::8:22{}()"},
      {"a role='x y' note=\"1 \\\"2\\\"\" port=1 color=#fff #end",
       "a=root@a:1{color=#fff note=1 \"2\" role=x y}()"},
      {"[w]\nw[09-10] host=10.0.1.[9-10]\n",
       "w09=root@10.0.1.9:22{}(w)\nw10=root@10.0.1.10:22{}(w)"},
      {"r[1-2]n[1,3]",
       "r1n1=root@r1n1:22{}()\nr1n3=root@r1n3:22{}()\nr2n1=root@r2n1:22{}()\nr2n3=root@r2n3:22{}("
       ")"},
      // A node before its group, a group before those it is part of.
      {"[eu] user=e port=5 x=eu\n[web] groups=eu user=w\na\nb user=b groups=eu\n",
       "a=w@a:5{x=eu}(eu,web)\nb=b@b:5{x=eu}(eu,web)"},
      {"[top] user=t\n[l] groups=top user=l\n[r] groups=top\na groups=l", "a=l@a:22{}(top,l,r)"},
      {"[x] port=1\n[y] port=1\na groups=x", "a=root@a:1{}(x,y)"},
      {"[x] port=5\nu@2001:db8::22\nh:022",
       "u@2001:db8::22=u@2001:db8::22:5{}(x)\nh:022=root@h:22{}(x)"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.text);
    EXPECT_EQ(Told(Inventory::Parse(each.text, "nodes")), each.told);
  }
}

TEST(InventoryTest, ErrorsNameLineAndWord) {
  const std::string in = "inventory n:2: '";
  const struct {
    std::string line;
    std::string message;
  } cases[] = {
      {"-oProxyCommand=x",
       in + "-oProxyCommand=x' is no name of a node; write NAME or [USER@]HOST[:PORT]"},
      {"x[1-999999999]", in + "x[1-999999999]' stands for more than 100,000 names"},
      {"x[1-1000][1-1000]", in + "x[1-1000][1-1000]' stands for more than 100,000 names"},
      {"x[1-60000]\ny[1-60000]",
       "inventory n:3: 'y[1-60000]' makes more than 100,000 nodes in this file"},
      {"x[9-1]", in + "x[9-1]' has [9-1], which goes down; begin with the least number"},
      {"x[1-", in + "x[1-' has a bracket without its other half"},
      {"x[a]", in + "x[a]' has [a], which is no range; write numbers, as in [1-9,12] or [01-40]"},
      {"x[01-140]",
       in + "x[01-140]' has [01-140], numbers of different widths; write [01-40] or [1-40]"},
      {"u[1-2]@h", in + "u2@h' has another user or port than the line's first node; write a line "
                        "for each"},
      {"x[1-3] host=h[1-2]", in + "host=h[1-2]' stands for 2 hosts, its line for 3 nodes"},
      {"a port=70000", in + "port=70000' is no port from 1 to 65535"},
      {"a nonsense", in + "nonsense' is no setting; write KEY=VALUE"},
      {"a x=1 x=2", in + "x=2' sets 'x' a second time"},
      {"a x='1", in + "a x='1' has a quote (') that does not end in this line"},
      {"a host=-x", in + "host=-x' is no host's name or address"},
      {"a become=su", in + "become=su' is unknown; there are 'sudo' and 'none'"},
      {"a groups=wbe\n[web]", in + "wbe' is no group of this file; did you mean 'web'?"},
      {"[all]", in + "[all]' cannot be a group: @all means something else already"},
      {"[a b]", in + "[a' opens no group; write [NAME], of letters, digits, '.', '_' and '-', and "
                     "settings behind it"},
      {"[g] host=x", in + "[g]' is a group, and host goes with nodes only"},
      {"[g]\n[g]", "inventory n:3: '[g]' stands in line 2, too"},
      {"a\na",
       "inventory n:3: 'a' stands in line 2, too; groups=NAME,... puts a node into several groups"},
      {"[a] groups=b\n[b] groups=c\n[c] groups=a",
       in + "a' is part of itself, by way of a -> b -> c -> a"},
      {"[x] port=1\n[y] port=2\na groups=x",
       "inventory n:4: 'a' is in the groups 'x' and 'y', which disagree on port; say in this line "
       "which port it has"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.line);
    EXPECT_EQ(Message([&] { (void)Inventory::Parse("# first\n" + each.line + "\n", "n"); }),
              each.message);
  }
}

TEST(InventoryTest, LinesComeAndGoAloneAndNothingElseChanges) {
  const std::string text =
      "# head\n10.0.0.1\n\n# web servers\n[web]  # them\nweb[1-3] host=h[1-3] x=1 # r\n\n# "
      "db\n[db]\n";
  const auto with = [&](const std::string& line, const std::string& group) {
    return fleet::WithNode(text, "n", line, group);
  };
  EXPECT_EQ(with("new", ""), str::Replace(text, "10.0.0.1\n", "10.0.0.1\nnew\n"));
  EXPECT_EQ(with("web4 x=2", "web"), str::Replace(text, "# r\n", "# r\nweb4 x=2\n"));
  EXPECT_EQ(with("db1", "db"), text + "db1\n");
  EXPECT_EQ(fleet::WithNode("# w\n[w]\nx", "n", "a", ""), "a\n# w\n[w]\nx");
  EXPECT_EQ(fleet::WithNode("a", "n", "b", ""), "a\nb\n");
  EXPECT_EQ(Message([&] { (void)with("web2", ""); }),
            "inventory n:7: 'web2' stands in line 3, too; groups=NAME,... puts a node into several "
            "groups");
  EXPECT_EQ(Message([&] { (void)with("x", "wbe"); }),
            "inventory n: 'wbe' is no group there; did you mean 'web'?");

  const auto without = [&](const std::string& name) { return fleet::WithoutNode(text, "n", name); };
  EXPECT_EQ(without("10.0.0.1"), str::Replace(text, "10.0.0.1\n", ""));
  EXPECT_EQ(fleet::WithoutNode("a#[1-4] host=x[2-1]\nb", "n", "a"), "b");
  EXPECT_EQ(without("web2"), str::Replace(text, "web[1-3] host=h[1-3]", "web[1,3] host=h[1,3]"));
  EXPECT_EQ(without("web3"), str::Replace(text, "web[1-3] host=h[1-3]", "web[1-2] host=h[1-2]"));
  EXPECT_EQ(Message([&] { (void)without("web9"); }),
            "inventory n: 'web9' is no node there; did you mean 'web1'?");
  EXPECT_EQ(Message([] { (void)fleet::WithoutNode("r[1-2]n[1-2]", "n", "r1n1"); }),
            "inventory n: 'r1n1' cannot be taken out of 'r[1-2]n[1-2]' in line 1; change that line "
            "by hand");
}

TEST(SelectionTest, MeansWhatIsNamedLessWhatIsNot) {
  const Inventory inventory =
      Inventory::Parse("old\n[web]\nweb[1-3]\n[db]\ndb[01-02] groups=web\n", "n");
  pnl_file::TmpDir dir("selection");
  const std::string file = dir.Str() + "/some";
  pnl_file::Write(file, "# these\nweb2\n10.0.0.9 user=u\n");
  const auto failed = [](const std::string& run) {
    return run.empty() ? Names{"web3"} : Names{"old"};
  };
  const struct {
    std::string words;
    Names names;
  } cases[] = {
      {"web3,old,web3", {"old", "web3"}},
      {"@all", {"old", "web1", "web2", "web3", "db01", "db02"}},
      {"!web2,@web", {"web1", "web3", "db01", "db02"}},
      {"@web,!@db,!web[1-2]", {"web3"}},
      {"db[01-02], 10.0.0.7,root@[2001:db8::1]:22,x.example,!10.0.0.7",
       {"db01", "db02", "root@[2001:db8::1]:22", "x.example"}},
      {"10.0.0.[1-3]", {"10.0.0.1", "10.0.0.2", "10.0.0.3"}},
      {"@failed", {"web3"}},
      {"@failed:7", {"old"}},
      {file + ",!web1", {"web2", "10.0.0.9"}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.words);
    EXPECT_EQ(NamesOf(fleet::Select(inventory, each.words, {failed})), each.names);
  }
  const struct {
    std::string words;
    std::string message;
  } wrong[] = {
      {"wbe1", "'wbe1' is no node of the inventory; did you mean 'web1'?"},
      {"something-else",
       "'something-else' is no node of the inventory, no address, and no name with a dot"},
      {"web[1-9]", "'web4' is no node of the inventory; did you mean 'web1'?"},
      {"@wbe", "'@wbe' is no group of the inventory; did you mean '@web'?"},
      {"web1,,web2", "'' names no node"},
      {"!web1", "'!web1' means no node"},
      {"web1,!wbe1", "'wbe1' is no node of the inventory; did you mean 'web1'?"},
      {"/no/file", "'/no/file' is no file; a name of a node has no '/'"},
      {"-x.y", "'-x.y' is not [USER@]HOST[:PORT]"},
      {"a.[1-999999999]", "'a.[1-999999999]' stands for more than 100,000 names"},
  };
  for (const auto& each : wrong) {
    SCOPED_TRACE(each.words);
    EXPECT_EQ(Message([&] { (void)fleet::Select(inventory, each.words, {failed}); }),
              "node_name " + each.message);
  }
}

/// Random selections of a random inventory against a model: sets of names.
TEST(SelectionTest, HoldsAgainstAModel) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) {
      return std::uniform_int_distribution<unsigned>(0, n - 1)(random);
    };
    std::string text;
    Names order;
    std::map<std::string, std::set<std::string>> groups;
    for (unsigned g = 0; g <= below(5); ++g) {
      const std::string group = "g" + std::to_string(g);
      text += "[" + group + "]\n";
      for (unsigned n = 0; n < below(6); ++n) {
        const std::string name = str::Format(below(2) == 0 ? "n%u" : "n%02u", 100 * g + n);
        if (std::find(order.begin(), order.end(), name) != order.end()) continue;
        text += name + "\n";
        order.push_back(name);
        groups[group].insert(name);
      }
      groups.try_emplace(group);
    }
    groups["all"] = {order.begin(), order.end()};
    if (order.empty()) continue;
    std::set<std::string> in, out;
    Names words;
    for (unsigned w = 0; w <= below(6); ++w) {
      std::set<std::string> meant;
      std::string word;
      if (below(2) == 0) {
        auto group = std::next(groups.begin(), below(static_cast<unsigned>(groups.size())));
        word = "@" + group->first;
        meant = group->second;
      } else {
        Names some;
        std::sample(order.begin(), order.end(), std::back_inserter(some), 1 + below(5), random);
        meant = {some.begin(), some.end()};
        word = str::Join(fleet::FoldNames(some), ",");
      }
      const bool excludes = below(3) == 0 && word.find(',') == std::string::npos;
      (excludes ? out : in).insert(meant.begin(), meant.end());
      words.push_back((excludes ? "!" : "") + word);
    }
    Names expected;
    std::copy_if(order.begin(), order.end(), std::back_inserter(expected),
                 [&](const std::string& name) { return in.contains(name) && !out.contains(name); });
    const Inventory inventory = Inventory::Parse(text, "n");
    const std::string selection = str::Join(words, ",");
    if (expected.empty()) {
      EXPECT_THROW((void)fleet::Select(inventory, selection), pnl_err::Error) << selection;
    } else {
      EXPECT_EQ(NamesOf(fleet::Select(inventory, selection)), expected) << text << selection;
    }
  }
}

TEST(ShellWordsTest, QuotedWordsAreReadBack) {
  EXPECT_EQ(fleet::QuotedWord("plain-1.[2-3]"), "plain-1.[2-3]");
  std::mt19937 random(1);
  for (int i = 0; i < 3000; ++i) {
    Names words(1 + random() % 3);
    std::string line;
    for (std::string& word : words) {
      for (auto n = random() % 5; n > 0; --n) word += "ab =#'\"\\\t\r$\xff"[random() % 12];
      line += " " + fleet::QuotedWord(word);
    }
    EXPECT_EQ(fleet::ShellWords(line + " # end"), words) << line;
  }
}

TEST(NodeRangeTest, FoldsAndUnfolds) {
  const struct {
    Names names;
    Names words;
  } cases[] = {
      {{}, {}},
      {{"a", "b"}, {"a", "b"}},
      {{"web1", "db", "web3", "web2", "web7", "web1"}, {"web[1-3,7]", "db"}},
      {{"w08", "w09", "w10", "w9", "w100"}, {"w[08-10]", "w[9,100]"}},
      {{"web", "web1", "web2"}, {"web", "web[1-2]"}},
      {{"10.0.0.9", "10.0.0.10"}, {"10.0.0.[9-10]"}},
      {{"2001:db8::1", "2001:db8::2", "[2001:db8::1]:22"},
       {"2001:db8::1", "2001:db8::2", "[2001:db8::1]:22"}},
      {{"1", "2", "u@3", "u@4"}, {"1", "2", "u@3", "u@4"}},
      {{"n1234567890", "n1234567891"}, {"n1234567890", "n1234567891"}},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(fleet::FoldNames(each.names), each.words);
    std::set<std::string> unfolded;
    for (const std::string& word : each.words)
      for (const std::string& name : fleet::ExpandRange(word)) unfolded.insert(name);
    EXPECT_EQ(unfolded, std::set<std::string>(each.names.begin(), each.names.end()));
  }
}

}  // namespace
