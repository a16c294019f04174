#include "pnl/xml.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <iterator>
#include <random>
#include <sstream>
#include <vector>

#include "pnl/err.h"
#include "support/error_of.h"
#include "support/temp_dir.h"

using namespace std::string_literals;
using pnl_xml::Check;
using pnl_xml::EscapePropValue;
using pnl_xml::Xml;
using pnl_xml::XmlNode;

namespace {

class XmlTest : public support::TempDir {};

/// "object value" of the XML error that `action` throws; "" when it throws none.
std::string Refusal(const std::function<void()>& action) {
  const auto error = support::Caught(action);
  if (!error) return "";
  EXPECT_EQ(error->type(), "xml") << error->what();
  return error->object() + " " + error->value();
}

std::string Repeat(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

std::string Utf16(const std::string& ascii) {
  std::string result = "\xFF\xFE";
  for (const char c : ascii) result.append(1, c).append(1, '\0');
  return result;
}

std::string Bomb() {
  std::string text = "<!DOCTYPE doc [<!ENTITY e0 'boom'>";
  for (int i = 1; i < 12; ++i) {
    const std::string reference = "&e" + std::to_string(i - 1) + ";";
    text += "<!ENTITY e" + std::to_string(i) + " '" + Repeat(reference, 12) + "'>";
  }
  return text + "]><doc>&e11;</doc>";
}

}  // namespace

TEST_F(XmlTest, RefusesBadDocumentsAndNamesThePlace) {
  // Whoever opened the pipe to read an entity from it would never come back.
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  const struct {
    std::string text, place;
  } rows[] = {
      {"", "1:1"},
      {"text", "1:1"},
      {"<a>", "1:4"},
      {"<a>\n <b>x</b\n", "2:6"},
      {"<a>\n <b></a>", "2:7"},
      {"<a/><b/>", "1:5"},
      {"<a> & </a>", "1:6"},
      {"<a>&none;</a>", "1:4"},
      {"<a b='&none;'/>", "1:1"},
      {"<a b='1' b='2'/>", "1:10"},
      {"<a>\xFF</a>", "1:4"},
      {"<a>\xC3</a>", "1:4"},
      {"<a>\xED\xA0\x80</a>", "1:4"},
      {"<a>x\0y</a>"s, "1:5"},
      {"<a/>\0"s, "1:5"},
      {"<a>&#1;</a>", "1:4"},
      {"<?xml version='1.0' encoding='koi8-r'?><a/>", "1:31"},
      {Utf16("<a>") + "\x00\xD8<\x00"s + Utf16("b/></a>").substr(2), "1:1"},
      {Bomb(), "1:28"},
      {"<!DOCTYPE a [<!ENTITY e SYSTEM 'pipe'>]><a>&e;</a>", "1:38"},
      {"<!DOCTYPE a [<!ENTITY % e SYSTEM 'pipe'> %e;]><a/>", "1:40"},
      {"<!DOCTYPE a SYSTEM 'pipe'><a b='&none;'/>", "1:26"},
      {"<!DOCTYPE a [%none;]><a b='&none;'/>", "1:14"},
      {"<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a/>", "1:34"},
      {Repeat("<a>", 257) + Repeat("</a>", 257), "1:772"},
      {"<a>" + Repeat("<b/>", 1000000) + "</a>", "1:4000004"},
      {"<a>" + Repeat("<b c=''/>", 500000) + "</a>", "1:4500004"},
      {"<a" + Repeat(" b='>'", 1000001) + "/>", "1:1"},
  };
  for (const auto& row : rows) {
    const std::clock_t start = std::clock();  // processor time: others may use the machine, too
    EXPECT_TRUE(Refusal([&] { Xml{row.text}; }).starts_with("parse (text):" + row.place + ": "))
        << row.text.substr(0, 99);
    EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC) << row.text.substr(0, 99);
  }
}

TEST(Xml, KeepsTextWhenItReadsAndWrites) {
  const struct {
    std::string text, own, written, indented;  // indented "": the same as written
  } rows[] = {
      {"\xEF\xBB\xBF<a> x </a>", " x ", "<a> x </a>", ""},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><a>\xE4</a>", "ä", "<a>ä</a>", ""},
      {Utf16("<a>x</a>"), "x", "<a>x</a>", ""},
      {"<a>\r\n\r&#13;&#x20AC;</a>", "\n\n\r€", "<a>\n\n&#13;€</a>", ""},
      {"<a><![CDATA[<&]]> <b/></a>", "<& ", "<a><![CDATA[<&]]><![CDATA[ ]]><b/></a>", ""},
      {"<a b='\"&#9;&#10;\r\n\t'/>", "", "<a b=\"&quot;&#9;&#10;  \"/>", ""},
      {"<a> <b> </b>\n<c/> </a>", "", "<a><b> </b><c/></a>", "<a>\n  <b> </b>\n  <c/>\n</a>"},
      {"<a>x <b><c/></b><d/> y</a>", "x  y", "<a>x <b><c/></b><d/> y</a>",
       "<a>x <b>\n    <c/>\n  </b><d/> y</a>"},
      {"<a>x<b/> <c/></a>", "x ", "<a>x<b/><![CDATA[ ]]><c/></a>", ""},
      {"<!--1--><!DOCTYPE a [<!ATTLIST a b ID #IMPLIED>]><a><!--2--><?p i?></a><?p i?>", "",
       "<!--1-->\n<!DOCTYPE a [<!ATTLIST a b ID #IMPLIED>]>\n<a><!--2--><?p i?></a>\n<?p i?>",
       "<!--1-->\n<!DOCTYPE a [<!ATTLIST a b ID #IMPLIED>]>\n<a>\n  <!--2-->\n  <?p i?>\n</a>\n<?p "
       "i?>"},
  };
  const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  for (const auto& row : rows) {
    const Xml xml(row.text);
    EXPECT_EQ(xml.GetRoot().Str(), row.own) << row.text;
    EXPECT_EQ(xml.Str(), declaration + row.written + "\n");
    EXPECT_EQ(xml.Str(true),
              declaration + (row.indented.empty() ? row.written : row.indented) + "\n");
    EXPECT_EQ(Xml(xml.Str(true)).Str(), xml.Str()) << "line breaks became text";
  }
}

/// The strict reader is the judge: what it would not take must be refused on the way in, and the
/// rest must come back as it was.
TEST_F(XmlTest, TakesExactlyWhatItCanReadAgain) {
  std::istringstream list(
      "a ä € \U0001F600 \U0010FFFF - . 7 : _ · \" ' > ]]> \u0085 \u2028 \uD7FF \uE000 \uFFFD "
      "\x01 \x1F \x7F \x80 \xC1\xBF \xC3 \xE2 \xE0\x9F \xED\xA0 \xED\xA0\x80 \xEF\xBF\xBE "
      "\xEF\xBF\xBF \xF0\x8F\xBF\xBF \xF4\x90\x80\x80 \xFF \0"s);
  std::vector<std::string> pieces(std::istream_iterator<std::string>(list), {});
  pieces.insert(pieces.end(), {" ", "\t", "\n", "\r"});
  std::mt19937 random(7);
  for (int i = 0; i < 4000; ++i) {
    std::string text;
    for (auto length = 1 + random() % 3; length > 0; --length) {
      text += pieces[random() % pieces.size()];
    }
    const bool name_fits = text.find_first_of(" \t\r\n\"'>") == std::string::npos &&
                           Refusal([&] { Xml("<" + text + "/>"); }).empty();
    std::string plain = text;
    std::erase(plain, '>');  // "]]>" must not stand in text as it is
    const bool text_fits = Refusal([&] { Xml("<a>" + plain + "</a>"); }).empty();

    Xml xml;
    const std::string refusal = "text " + text;
    EXPECT_EQ(Refusal([&] { xml.GetRoot().AppendChild(text); }), name_fits ? "" : refusal);
    EXPECT_EQ(Refusal([&] { xml.GetRoot().SetProp(text, ""); }), name_fits ? "" : refusal);
    EXPECT_EQ(Refusal([&] { xml.GetRoot().SetProp("p", text); }), text_fits ? "" : refusal);
    EXPECT_EQ(Refusal([&] { xml.GetRoot().SetText(text); }), text_fits ? "" : refusal);
    const std::string saved = xml.Str(i % 3 == 0);
    Xml loaded(saved);
    if (i % 16 == 0) {
      Put("doc.xml", saved);
      loaded = Xml::LoadFromFile("doc.xml", Check::kTrusted);
    }
    EXPECT_EQ(loaded.GetRoot().Str(), text_fits ? text : "");
    EXPECT_EQ(loaded.GetRoot().GetProp("p"), text_fits ? text : "");
    EXPECT_EQ(loaded.GetRoot().FindNode(text), loaded.GetNode("/doc/*"));
  }
}

TEST(Xml, XPathFindsAnyValueAndRefusesNonsense) {
  const std::string values[] = {"",         "a",       "'",        "\"",  "'\"",
                                "a'b\"c'd", "\"'\"''", "']|//*['", "\n&<"};
  Xml xml;
  for (const std::string& value : values) xml.GetRoot().AppendChild("elem").SetProp("name", value);
  for (const std::string& value : values) {
    const auto found = xml.GetNodes("/doc/elem[@name=" + EscapePropValue(value) + "]");
    ASSERT_EQ(found.size(), 1U) << value;
    EXPECT_EQ((*found.begin()).GetProp("name"), value);
  }
  EXPECT_EQ(EscapePropValue("it's"), "\"it's\"");

  for (const std::string& xpath : {""s, "/doc["s, "//@name"s, "1+1"s, "/doc\0/elem"s,
                                   EscapePropValue("x"), Repeat("(", 100000)}) {
    EXPECT_EQ(Refusal([&] { (void)xml.GetNodes(xpath); }), "xpath " + xpath);
    EXPECT_EQ(Refusal([&] { (void)xml.GetRoot().GetNode(xpath); }), "xpath " + xpath);
  }

  const Xml order("<doc><b>1</b><c><b>2</b></c><b>3</b></doc>");
  std::string texts;
  for (const XmlNode node : order.GetNodes("/doc/b[2] | /doc/b[1] | //c/b")) texts += node.Str();
  EXPECT_EQ(texts, "123") << "document order";
  EXPECT_EQ(order.GetNode("/doc/c").GetNode("b").Parent().Name(), "c");
  EXPECT_FALSE(order.GetNode("/none").GetNode("/doc").FindNode("b").Next());
}

TEST(Xml, ChangesOneTreeOnly) {
  Xml source("<doc><a p='1'>t<b/>u</a></doc>");
  XmlNode a = source.GetRoot().FindNode("a");
  Xml copy = source;
  Xml target;
  target.GetRoot().AppendChild(a).AppendChild(a).SetProp("p", "2");
  a.SetText("new");
  EXPECT_EQ(source.GetRoot().FirstChild(), a);
  EXPECT_EQ(source.Str().substr(39), "<doc><a p=\"1\">new<b/></a></doc>\n");
  EXPECT_EQ(copy.Str().substr(39), "<doc><a p=\"1\">t<b/>u</a></doc>\n");
  a.Unlink();
  source = Xml();
  EXPECT_FALSE(a);
  EXPECT_EQ(source.Str().substr(39), "<doc/>\n");
  EXPECT_EQ(target.Str().substr(39), "<doc><a p=\"1\">t<b/>u<a p=\"2\">t<b/>u</a></a></doc>\n");

  XmlNode text = copy.GetNode("/doc/a/text()");
  XmlNode root = copy.GetRoot();
  const std::pair<std::string, std::function<void()>> rows[] = {
      {"empty_node ", [] { XmlNode().SetText("x"); }},
      {"empty_node ", [] { XmlNode().Unlink(); }},
      {"empty_node ", [&] { root.AppendChild(XmlNode()); }},
      {"not_element ", [&] { text.SetProp("a", "b"); }},
      {"not_element ", [&] { copy.GetNode("/").AppendChild("second"); }},
      {"unlink_root doc", [&] { root.Unlink(); }},
      {"depth b",
       [&, node = root]() mutable {
         while (true) node = node.AppendChild("b");
       }},
      {"depth doc", [&] { root.AppendChild(root); }},
  };
  for (const auto& [refusal, action] : rows) EXPECT_EQ(Refusal(action), refusal);
  EXPECT_TRUE(Refusal([&] { Xml{copy.Str(true)}; }).empty()) << "the deepest tree loads again";
}

TEST_F(XmlTest, FilesAreReadWithinBounds) {
  const std::string text = "<doc url=\"u\"><elem>\n<a>1</a></elem><elem>x</elem></doc>";
  for (std::size_t size = 0; size < text.size(); ++size) {
    Put("doc.xml", text.substr(0, size));
    const auto place = "parse doc.xml:" + std::to_string(1 + (size >= 20)) + ":";
    EXPECT_TRUE(Refusal([] { Xml::LoadFromFile("doc.xml", Check::kTrusted); }).starts_with(place))
        << size;
  }
  Xml(text).Save("doc.xml", true);
  EXPECT_EQ(pnl_xml::XmlFile("doc.xml", Check::kTrusted).Str(), Xml(text).Str());

  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  for (const std::string path : {"pipe", ".", "missing"}) {
    const auto error = support::Caught([&] { pnl_xml::XmlFile{path}; });
    ASSERT_TRUE(error) << path;
    EXPECT_EQ(error->type() + error->value(), "file" + path);
  }
  ASSERT_EQ(truncate("doc.xml", pnl_xml::kMaxSize + 1), 0);
  EXPECT_TRUE(Refusal([] { pnl_xml::XmlFile{"doc.xml"}; }).starts_with("parse doc.xml:1:1: "));

  Xml full("<a>" + Repeat("<b/>", 999999) + "</a>");
  full.Save("full.xml", false);
  full.GetRoot().SetProp("c", "");
  EXPECT_EQ(Refusal([&] { full.Save("full.xml", false); }), "size full.xml");

  // Deep enough to end the stack of whoever goes down by recursion.
  Put("deep.xml", Repeat("<a>", 1000000) + Repeat("</a>", 1000000));
  const pnl_xml::XmlFile deep("deep.xml", Check::kTrusted);
  EXPECT_EQ(Refusal([&] { (void)deep.Str(); }), "depth ");
  EXPECT_EQ(Refusal([&] { deep.GetNode("/a/a").Unlink(); }), "depth a");
}
