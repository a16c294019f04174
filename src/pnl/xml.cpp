#include "pnl/xml.h"

#include <expat.h>
#include <fcntl.h>
#include <strings.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <new>
#include <pugixml.hpp>
#include <utility>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/utf8.h"

namespace pnl_xml {

namespace {

// Avoids pugixml's conversion functions: they are calls into another library, and slow for an index
// of a hundred thousand nodes.
pugi::xml_node At(void* node) {
  return std::bit_cast<pugi::xml_node>(node);
}

void* Pointer(pugi::xml_node node) {
  return std::bit_cast<void*>(node);
}

bool IsElement(pugi::xml_node node) {
  return node.type() == pugi::node_element;
}

bool IsText(pugi::xml_node node) {
  const pugi::xml_node_type type = node.type();
  return type == pugi::node_pcdata || type == pugi::node_cdata;
}

/// Whether a text is white space between elements. A CR in a tree came from a character reference,
/// because line ends were converted to LF.
bool IsBlank(std::string_view text) {
  return text.find_first_not_of(" \t\n") == std::string_view::npos;
}

/// pugixml returns an empty result when an allocation fails.
void RequireMemory(bool done) {
  if (!done) throw std::bad_alloc();
}

// --- Depth

/// Stops at the first element below kMaxDepth.
class DepthWalker : public pugi::xml_tree_walker {
 public:
  explicit DepthWalker(int level) : level_(level) {}

 private:
  bool for_each(pugi::xml_node& node) override {
    return level_ + 1 + depth() <= kMaxDepth || !IsElement(node);
  }

  int level_;  // of the node whose descendants are visited
};

/// Throws unless `node` with its content fits at that level (a document is at 0, its root at 1).
/// Call it before any recursion through a tree; pugixml frees a tree by recursion, and a trusted
/// file may have any depth.
void RequireDepth(pugi::xml_node node, int level) {
  DepthWalker walker(level);
  if (level > kMaxDepth || !node.traverse(walker)) {
    throw pnl_err::Error(kError, "depth", node.name());
  }
}

int Level(pugi::xml_node node) {
  int level = 0;
  for (; IsElement(node); node = node.parent()) ++level;
  return level;
}

// --- Strict check

pnl_err::Error ParseError(std::string_view file, std::uint64_t line, std::uint64_t column,
                          std::string_view reason) {
  std::string place(file);
  place.append(":").append(std::to_string(line)).append(":").append(std::to_string(column));
  return {"xml", "parse", place.append(": ").append(reason)};
}

/// The position at which a parser stopped. Newer versions of expat warn of the names in older ones.
template <class Parser>
std::pair<std::uint64_t, std::uint64_t> Place(Parser parser) {
  if constexpr (requires { XML_GetCurrentLineNumber64(parser); }) {
    return {XML_GetCurrentLineNumber64(parser), XML_GetCurrentColumnNumber64(parser) + 1};
  } else {
    return {XML_GetCurrentLineNumber(parser), XML_GetCurrentColumnNumber(parser) + 1};
  }
}

constexpr const char* kTooMuch = "too many elements and attributes";

/// Whether a text could have more than kMaxItems: each element has a "<", each attribute a "=".
bool MayHoldTooMuch(std::string_view text) {
  if (text.size() <= 4 * kMaxItems) return false;
  std::size_t found = 0;
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if ((text[i] == '<' && text[i + 1] != '/') || text[i] == '=') ++found;
  }
  return found > kMaxItems;
}

/// Whether one start tag has more than kMaxItems attributes: expat reports a tag only after reading
/// all of it. No "<" occurs within a tag.
bool HasTooWideTag(std::string_view text) {
  std::size_t attributes = 0;
  char end = '<';  // the character that ends the current tag, value or text
  for (const char c : text) {
    if (c == '<') {
      attributes = 0;
      end = '>';
    } else if (end == '>' && (c == '"' || c == '\'')) {
      end = c;
    } else if (end == '>' && c == '=') {
      if (++attributes > kMaxItems) return true;
    } else if (c == end) {
      end = c == '>' ? '<' : '>';
    }
  }
  return false;
}

/// Checks one document with a conforming parser. Refuses entity declarations, external entities, an
/// external DTD and attribute defaults.
class Checker {
 public:
  Checker() : parser_(XML_ParserCreate(nullptr)) {
    XML_Parser parser = parser_.get();
    RequireMemory(parser != nullptr);
    XML_SetUserData(parser, this);
    XML_SetXmlDeclHandler(parser, OnDeclaration);
    XML_SetElementHandler(parser, OnStart, OnEnd);
    XML_SetEntityDeclHandler(parser, OnEntity);
    XML_SetAttlistDeclHandler(parser, OnAttributeList);
    // Without parameter entities, expat would silently ignore an external DTD, and after that also
    // undefined entities in attribute values.
    XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_ALWAYS);
    XML_SetExternalEntityRefHandler(parser, OnExternal);
    XML_SetSkippedEntityHandler(parser, OnSkipped);
  }

  /// Throws an error with the place in `file`. The text is parsed in one piece: otherwise a long
  /// token would be scanned again with each piece.
  void Check(std::string_view text, std::string_view file) {
    if (text.size() > kMaxSize) throw ParseError(file, 1, 1, "larger than the limit");
    if (MayHoldTooMuch(text) && HasTooWideTag(text)) throw ParseError(file, 1, 1, kTooMuch);
    XML_Parser parser = parser_.get();
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK) {
      return;
    }
    const XML_Error code = XML_GetErrorCode(parser);
    RequireMemory(code != XML_ERROR_NO_MEMORY);
    const auto [line, column] = Place(parser);
    throw ParseError(file, line, column, refusal_ != nullptr ? refusal_ : XML_ErrorString(code));
  }

  bool latin1() const { return latin1_; }  ///< declared as ISO-8859-1

 private:
  struct Free {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };

  void Refuse(const char* reason) {
    refusal_ = reason;
    XML_StopParser(parser_.get(), XML_FALSE);
  }

  static void OnDeclaration(void* self, const char* /*version*/, const char* encoding,
                            int /*standalone*/) {
    static_cast<Checker*>(self)->latin1_ =
        encoding != nullptr && strcasecmp(encoding, "ISO-8859-1") == 0;
  }
  static void OnStart(void* self, const char* /*name*/, const char** attributes) {
    auto* checker = static_cast<Checker*>(self);
    if (++checker->level_ > kMaxDepth) checker->Refuse("nested too deep");
    ++checker->items_;
    for (; *attributes != nullptr; attributes += 2) ++checker->items_;
    if (checker->items_ > kMaxItems) checker->Refuse(kTooMuch);
  }
  static void OnEnd(void* self, const char* /*name*/) { --static_cast<Checker*>(self)->level_; }
  static void OnEntity(void* self, const char* /*name*/, int /*parameter*/, const char* /*value*/,
                       int /*length*/, const char* /*base*/, const char* /*system_id*/,
                       const char* /*public_id*/, const char* /*notation*/) {
    static_cast<Checker*>(self)->Refuse("entity declaration");
  }
  static void OnAttributeList(void* self, const char* /*element*/, const char* /*attribute*/,
                              const char* /*type*/, const char* default_value, int /*required*/) {
    if (default_value != nullptr) static_cast<Checker*>(self)->Refuse("attribute default");
  }
  static int OnExternal(XML_Parser /*parser*/, const char* /*context*/, const char* /*base*/,
                        const char* /*system_id*/, const char* /*public_id*/) {
    return XML_STATUS_ERROR;
  }
  static void OnSkipped(void* self, const char* /*name*/, int /*parameter*/) {
    static_cast<Checker*>(self)->Refuse("reference to an unknown entity");
  }

  std::unique_ptr<XML_ParserStruct, Free> parser_;
  int level_ = 0;
  std::size_t items_ = 0;
  bool latin1_ = false;
  const char* refusal_ = nullptr;
};

// --- Reading

/// Parsed in place: the tree's strings point into it.
struct Text {
  explicit Text(std::size_t capacity) : data(std::make_unique_for_overwrite<char[]>(capacity)) {}
  explicit Text(std::string_view text) : Text(text.size()) {
    size = text.copy(data.get(), text.size());
  }

  std::string_view View() const { return {data.get(), size}; }

  std::unique_ptr<char[]> data;
  std::size_t size = 0;
};

/// The content of the file when it was opened; data added later is not read.
Text ReadText(const std::string& path) {
  const pnl_file::Fd fd = pnl_file::Open(path, O_RDONLY | O_NONBLOCK);  // a FIFO must not block
  struct stat info {};
  if (fstat(fd.Get(), &info) != 0) throw pnl_err::System("stat", path, errno);
  if (!S_ISREG(info.st_mode)) throw pnl_err::System("open", path, EINVAL);
  const auto size = static_cast<std::size_t>(info.st_size);
  if (size > kMaxSize) throw ParseError(path, 1, 1, "larger than the limit");

  Text text(size);
  while (text.size < size) {
    const std::size_t got =
        pnl_file::ReadSome(fd.Get(), text.data.get() + text.size, size - text.size, path);
    if (got == 0) break;
    text.size += got;
  }
  return text;
}

/// The encoding in which expat reads a document of at least two bytes.
pugi::xml_encoding Encoding(std::string_view text, bool latin1) {
  if (latin1) return pugi::encoding_latin1;
  if (text.starts_with("\xFE\xFF") || text.starts_with('\0')) return pugi::encoding_utf16_be;
  if (text.starts_with("\xFF\xFE") || text[1] == '\0') return pugi::encoding_utf16_le;
  return pugi::encoding_utf8;
}

/// Some versions of expat do not check the unit after a UTF-16 high surrogate.
bool HasBrokenPair(std::string_view text, pugi::xml_encoding encoding) {
  if (encoding != pugi::encoding_utf16_be && encoding != pugi::encoding_utf16_le) return false;
  for (std::size_t high = encoding == pugi::encoding_utf16_be ? 0 : 1; high + 2 < text.size();
       high += 2) {
    if ((text[high] & 0xFC) == 0xD8 && (text[high + 2] & 0xFC) != 0xDC) return true;
  }
  return false;
}

/// Throws unless the document is valid; returns its encoding.
pugi::xml_encoding CheckStrictly(std::string_view text, std::string_view file) {
  if (text.size() > 1 && HasBrokenPair(text, Encoding(text, false))) {
    throw ParseError(file, 1, 1, "not valid UTF-16");
  }
  Checker checker;
  checker.Check(text, file);
  return Encoding(text, checker.latin1());
}

/// Removes the white space between elements. Keeps it in mixed content and when it is all that an
/// element has.
void DropBlanks(pugi::xml_node element) {
  const auto children = element.children();
  const bool mixed = std::any_of(children.begin(), children.end(), [](pugi::xml_node child) {
    return child.type() == pugi::node_cdata || (IsText(child) && !IsBlank(child.value()));
  });
  const bool lone = element.first_child() == element.last_child();
  for (pugi::xml_node child = element.first_child(); child;) {
    const pugi::xml_node next = child.next_sibling();
    if (IsElement(child)) {
      DropBlanks(child);
    } else if (IsText(child) && !mixed && !lone) {
      element.remove_child(child);
    }
    child = next;
  }
}

constexpr unsigned kKeepAll =
    pugi::parse_default | pugi::parse_comments | pugi::parse_pi | pugi::parse_doctype;

// --- What may be put in

/// XML 1.0, production 2 (Char).
bool IsXmlChar(char32_t c) {
  if (c < 0x20) return c == '\t' || c == '\n' || c == '\r';
  return c != 0xFFFE && c != 0xFFFF;
}

pnl_err::Error BadText(std::string_view text, std::string_view reason) {
  return pnl_err::Error(kError, "text", text).add_param("reason", reason);
}

void CheckText(std::string_view text) {
  for (std::string_view rest = text; !rest.empty();) {
    const utf8::Character c = utf8::First(rest);
    if (!c.valid) throw BadText(text, "not UTF-8");
    if (!IsXmlChar(c.code))
      throw BadText(text, "character " + std::to_string(std::uint32_t{c.code}));
    rest.remove_prefix(c.size);
  }
}

bool IsLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsAscii(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}
bool IsNameStart(char c) {
  return IsLetter(c) || c == '_' || c == ':' || !IsAscii(c);
}
bool IsNameChar(char c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

void CheckName(std::string_view name) {
  const bool plausible =
      !name.empty() && IsNameStart(name[0]) && std::all_of(name.begin(), name.end(), IsNameChar);
  if (!plausible) throw BadText(name, "not a name");
  if (std::all_of(name.begin(), name.end(), IsAscii)) return;
  // Beyond ASCII the editions of XML 1.0 differ: ask the parser that will read the name.
  try {
    Checker().Check(std::string("<").append(name).append("/>"), "(name)");
  } catch (const pnl_err::Error&) {
    throw BadText(name, "not a name");
  }
}

// --- Writing

/// The escape for a character in text; "" when none is needed. Readers normalise CR, and in
/// attributes also tab and LF (XML 1.0, 2.11 and 3.3.3).
std::string_view Reference(char c, bool attribute) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '\r':
      return "&#13;";
    case '"':
      return attribute ? "&quot;" : "";
    case '\t':
      return attribute ? "&#9;" : "";
    case '\n':
      return attribute ? "&#10;" : "";
    default:
      return "";
  }
}

/// Writes a tree as text. pugixml's writer is not used: it does not escape a CR in text, and it
/// breaks lines inside mixed content.
class Writer {
 public:
  explicit Writer(bool indented) : indented_(indented) {}

  std::string Document(pugi::xml_node document) {
    out_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    for (const pugi::xml_node node : document) {
      Node(node, 0);
      out_ += '\n';
    }
    return std::move(out_);
  }

  std::size_t items() const { return items_; }  ///< elements and attributes written

 private:
  void Node(pugi::xml_node node, std::size_t level) {
    switch (node.type()) {
      case pugi::node_element:
        return Element(node, level);
      case pugi::node_pcdata:
        return CharacterData(node.value(), !node.previous_sibling() && !node.next_sibling());
      case pugi::node_cdata:
        return Put("<![CDATA[", node.value(), "]]>");
      case pugi::node_comment:
        return Put("<!--", node.value(), "-->");
      case pugi::node_pi:
        Put("<?", node.name(), " ");
        return Put("", node.value(), "?>");
      case pugi::node_doctype:
        return Put("<!DOCTYPE ", node.value(), ">");
      default:  // no other kind is kept
        return;
    }
  }

  void Element(pugi::xml_node element, std::size_t level) {
    ++items_;
    Put("<", element.name(), "");
    for (const pugi::xml_attribute attribute : element.attributes()) {
      ++items_;
      Put(" ", attribute.name(), "=\"");
      Escaped(attribute.value(), true);
      out_ += '"';
    }
    const std::string_view own_text = element.value();
    const bool has_children = static_cast<bool>(element.first_child());
    if (own_text.empty() && !has_children) {
      out_ += "/>";
      return;
    }
    out_ += '>';
    CharacterData(own_text, !has_children);
    const bool lines =
        indented_ && own_text.empty() && !std::any_of(element.begin(), element.end(), IsText);
    for (const pugi::xml_node child : element) {
      if (lines) NewLine(level + 1);
      Node(child, level + 1);
    }
    if (lines) NewLine(level);
    Put("</", element.name(), ">");
  }

  /// A reader drops white space beside other nodes unless it is marked as data. `text` is a C
  /// string.
  void CharacterData(std::string_view text, bool alone) {
    if (!alone && !text.empty() && IsBlank(text)) {
      Put("<![CDATA[", text.data(), "]]>");
    } else {
      Escaped(text.data(), false);
    }
  }

  void Escaped(const char* text, bool attribute) {
    for (; *text != '\0'; ++text) {
      const std::string_view reference = Reference(*text, attribute);
      if (reference.empty()) {
        out_ += *text;
      } else {
        out_ += reference;
      }
    }
  }

  void NewLine(std::size_t level) { out_.append(1, '\n').append(2 * level, ' '); }
  void Put(const char* before, const char* text, const char* after) {
    out_.append(before).append(text).append(after);
  }

  bool indented_;
  std::size_t items_ = 0;
  std::string out_;
};

// --- XPath

pnl_err::Error XPathError(const std::string& xpath, std::string_view reason) {
  return pnl_err::Error(kError, "xpath", xpath).add_param("reason", reason);
}

/// There are no handles for attributes: an XPath that selects them is an error.
void RequireNode(const pugi::xpath_node& match, const std::string& xpath) {
  if (match.attribute()) throw XPathError(xpath, "selects attributes");
}

pugi::xpath_query Compile(const std::string& xpath) {
  if (xpath.find('\0') != std::string::npos) throw XPathError(xpath, "NUL character");
  try {
    pugi::xpath_query query(xpath.c_str());
    if (query.return_type() != pugi::xpath_type_node_set) {
      throw XPathError(xpath, "does not select nodes");
    }
    return query;
  } catch (const pugi::xpath_exception& error) {
    throw XPathError(xpath, error.what());
  }
}

pugi::xml_node SelectNode(pugi::xml_node from, const std::string& xpath) {
  const pugi::xpath_node match = from.select_node(Compile(xpath));
  RequireNode(match, xpath);
  return match.node();
}

// --- Changes

pugi::xml_node RequireElement(void* node) {
  if (node == nullptr) throw pnl_err::Error(kError, "empty_node");
  if (!IsElement(At(node))) throw pnl_err::Error(kError, "not_element");
  return At(node);
}

void PutText(pugi::xml_node element, std::string_view text) {
  if (text.empty()) return;
  RequireMemory(element.prepend_child(pugi::node_pcdata).set_value(text.data(), text.size()));
}

pugi::xml_attribute FindAttribute(pugi::xml_node node, std::string_view name) {
  pugi::xml_attribute attribute = node.first_attribute();
  while (attribute && name != attribute.name()) attribute = attribute.next_attribute();
  return attribute;
}

}  // namespace

// --- XmlNode

bool XmlNode::IsNode() const {
  return IsElement(At(node_));
}

std::string_view XmlNode::Name() const {
  const pugi::xml_node node = At(node_);
  return IsElement(node) ? node.name() : "";
}

std::string XmlNode::Str() const {
  const pugi::xml_node node = At(node_);
  const bool has_value = IsElement(node) || IsText(node);  // of an element: see LoadTrusted
  std::string text(has_value ? node.value() : "");
  for (pugi::xml_node child = node.first_child(); Pointer(child) != nullptr;
       child = child.next_sibling()) {
    if (IsText(child)) text += child.value();
  }
  return text;
}

std::string XmlNode::GetProp(std::string_view name) const {
  return FindAttribute(At(node_), name).value();
}

XmlNode XmlNode::FirstChild() const {
  return XmlNode(Pointer(At(node_).first_child()));
}

XmlNode XmlNode::Next() const {
  return XmlNode(Pointer(At(node_).next_sibling()));
}

XmlNode XmlNode::Parent() const {
  const pugi::xml_node parent = At(node_).parent();
  return IsElement(parent) ? XmlNode(Pointer(parent)) : XmlNode();
}

XmlNode XmlNode::FindNode(std::string_view name) const {
  const std::string wanted(name);
  pugi::xml_node child = At(node_).child(wanted.c_str());
  while (child && !IsElement(child)) child = child.next_sibling(wanted.c_str());
  return XmlNode(Pointer(child));
}

XmlNode XmlNode::NextNode(std::string_view name) const {
  const std::string wanted(name);
  pugi::xml_node next = At(node_).next_sibling(wanted.c_str());
  while (next && !IsElement(next)) next = next.next_sibling(wanted.c_str());
  return XmlNode(Pointer(next));
}

XmlNode XmlNode::GetNode(const std::string& xpath) const {
  return XmlNode(Pointer(SelectNode(At(node_), xpath)));
}

void XmlNode::SetProp(std::string_view name, std::string_view value) {
  pugi::xml_node element = RequireElement(node_);
  CheckName(name);
  CheckText(value);
  pugi::xml_attribute attribute = FindAttribute(element, name);
  if (!attribute) attribute = element.append_attribute(std::string(name).c_str());
  RequireMemory(attribute.set_value(value.data(), value.size()));
}

void XmlNode::SetText(std::string_view text) {
  pugi::xml_node element = RequireElement(node_);
  CheckText(text);
  for (pugi::xml_node child = element.first_child(); child;) {
    const pugi::xml_node next = child.next_sibling();
    if (IsText(child)) element.remove_child(child);
    child = next;
  }
  if (*element.value() != '\0') {
    RequireMemory(element.text().set(text.data(), text.size()));
  } else {
    PutText(element, text);
  }
}

XmlNode XmlNode::AppendChild(std::string_view name, std::string_view text) {
  pugi::xml_node parent = RequireElement(node_);
  CheckName(name);
  CheckText(text);
  if (Level(parent) >= kMaxDepth) throw pnl_err::Error(kError, "depth", name);
  pugi::xml_node child = parent.append_child(std::string(name).c_str());
  RequireMemory(child);
  PutText(child, text);
  return XmlNode(Pointer(child));
}

XmlNode XmlNode::AppendChild(const XmlNode& copy_from) {
  pugi::xml_node parent = RequireElement(node_);
  if (!copy_from) throw pnl_err::Error(kError, "empty_node");
  const pugi::xml_node source = At(copy_from.node_);
  if (!IsElement(source) && !IsText(source)) throw pnl_err::Error(kError, "not_element");
  RequireDepth(source, Level(parent) + 1);
  const pugi::xml_node child = parent.append_copy(source);
  RequireMemory(child);
  return XmlNode(Pointer(child));
}

void XmlNode::Unlink() {
  if (node_ == nullptr) throw pnl_err::Error(kError, "empty_node");
  const pugi::xml_node node = At(node_);
  if (Level(node) == 1 || !node.parent()) throw pnl_err::Error(kError, "unlink_root", node.name());
  RequireDepth(node, 1);
  node.parent().remove_child(node);
  node_ = nullptr;
}

// --- XmlNodes

struct XmlNodes::Impl {
  pugi::xpath_node_set matches;
};

XmlNodes::XmlNodes(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
XmlNodes::XmlNodes(XmlNodes&&) noexcept = default;
XmlNodes& XmlNodes::operator=(XmlNodes&&) noexcept = default;
XmlNodes::~XmlNodes() = default;

std::size_t XmlNodes::size() const {
  return impl_->matches.size();
}

XmlNode XmlNodes::iterator::operator*() const {
  return XmlNode(Pointer(nodes_->impl_->matches[index_].node()));
}

// --- Xml

struct Xml::Impl {
  void LoadStrict(Text source, std::string_view file) {
    const pugi::xml_encoding encoding = CheckStrictly(source.View(), file);
    const auto result = Parse(std::move(source), kKeepAll | pugi::parse_ws_pcdata, encoding);
    if (!result) throw ParseError(file, 1, 1, result.description());
    DropBlanks(document.document_element());
  }

  /// False when the text is damaged. An element's leading text is stored in the element itself
  /// instead of a separate node: this saves a third of time and memory.
  bool LoadTrusted(Text source) {
    return Parse(std::move(source),
                 kKeepAll | pugi::parse_ws_pcdata_single | pugi::parse_embed_pcdata,
                 pugi::encoding_utf8);
  }

  Text text{0};
  pugi::xml_document document;

 private:
  pugi::xml_parse_result Parse(Text source, unsigned options, pugi::xml_encoding encoding) {
    document.reset();
    text = std::move(source);
    const auto result = document.load_buffer_inplace(text.data.get(), text.size, options, encoding);
    RequireMemory(result.status != pugi::status_out_of_memory);
    return result;
  }
};

Xml::Xml() : impl_(std::make_unique<Impl>()) {
  RequireMemory(impl_->document.append_child("doc"));
}

Xml::Xml(std::string_view text) : impl_(std::make_unique<Impl>()) {
  impl_->LoadStrict(Text(text), "(text)");
}

Xml::Xml(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Xml::Xml(const Xml& other) : impl_(std::make_unique<Impl>()) {
  impl_->document.reset(other.impl_->document);
}

Xml::Xml(Xml&&) noexcept = default;

Xml& Xml::operator=(const Xml& other) {
  if (this != &other) *this = Xml(other);
  return *this;
}

Xml& Xml::operator=(Xml&&) noexcept = default;
Xml::~Xml() = default;

Xml Xml::LoadFromFile(const std::string& path, Check check) {
  auto impl = std::make_unique<Impl>();
  // A damaged trusted file is read again: the strict check reports place and reason.
  if (check == Check::kStrict || !impl->LoadTrusted(ReadText(path))) {
    impl->LoadStrict(ReadText(path), path);
  }
  return Xml(std::move(impl));
}

XmlNode Xml::GetRoot() const {
  return XmlNode(Pointer(impl_->document.document_element()));
}

void Xml::RequireRoot(std::string_view name, std::string_view place) const {
  const std::string found(GetRoot().Name());
  if (found == name) return;
  throw pnl_err::Error(kError, "parse",
                       std::string(place) + ": the root element is '" + found + "', not '" +
                           std::string(name) + "'");
}

XmlNodes Xml::GetNodes(const std::string& xpath) const {
  auto result = std::make_unique<XmlNodes::Impl>();
  result->matches = impl_->document.select_nodes(Compile(xpath));
  result->matches.sort();
  for (const pugi::xpath_node& match : result->matches) RequireNode(match, xpath);
  return XmlNodes(std::move(result));
}

XmlNode Xml::GetNode(const std::string& xpath) const {
  return XmlNode(Pointer(SelectNode(impl_->document, xpath)));
}

std::string Xml::Str(bool indented) const {
  RequireDepth(impl_->document, 0);
  return Writer(indented).Document(impl_->document);
}

void Xml::Save(const std::string& path, bool indented, mode_t new_mode) const {
  RequireDepth(impl_->document, 0);
  Writer writer(indented);
  const std::string text = writer.Document(impl_->document);
  if (text.size() > kMaxSize || writer.items() > kMaxItems) {
    throw pnl_err::Error(kError, "size", path);
  }
  pnl_file::Write(path, text, new_mode);
}

XmlFile::XmlFile(const std::string& path, Check check) : Xml(LoadFromFile(path, check)) {}

// --- XPath literals

std::string EscapePropValue(std::string_view value) {
  const auto quoted = [](std::string_view text, char quote) {
    return std::string(1, quote).append(text).append(1, quote);
  };
  if (value.find('\'') == std::string_view::npos) return quoted(value, '\'');
  if (value.find('"') == std::string_view::npos) return quoted(value, '"');
  // XPath 1.0 literals have no escapes: pieces with only one kind of quote are joined.
  std::string joined = "concat(";
  while (!value.empty()) {
    const char quote = value[0] == '\'' ? '"' : '\'';
    const std::string_view piece = value.substr(0, value.find(quote));
    joined += quoted(piece, quote);
    value.remove_prefix(piece.size());
    if (!value.empty()) joined += ',';
  }
  return joined + ")";
}

}  // namespace pnl_xml
