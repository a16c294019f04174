#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "pnl/export.h"

/// XML documents with XPath 1.0.
///
/// Documents come from repositories, nodes and people; therefore reading is strict. A document must
/// have one root, be well formed (a conforming parser checks it), and be valid in its encoding
/// (UTF-8, UTF-16 or ISO-8859-1). Entity declarations, attribute defaults, external entities and an
/// external DTD are refused; the network is never used. Limits are kMaxDepth levels, kMaxItems
/// elements and attributes, and kMaxSize bytes. Errors are pnl_err::Error("xml", "parse",
/// "FILE:LINE:COLUMN: reason").
///
/// White space between elements is dropped. In mixed content, and alone in an element, it is text
/// and is kept. Comments, processing instructions and the document type declaration are kept.
///
/// Text that XML 1.0 cannot represent (control characters other than tab, LF, CR; U+FFFE, U+FFFF;
/// bytes that are not UTF-8) and bad element or attribute names are refused when they are set:
/// pnl_err::Error("xml", "text", the text or name) with a parameter "reason". A child below
/// kMaxDepth is refused as well: pnl_err::Error("xml", "depth", name). Therefore every written
/// document can be loaded again.
///
/// Thread safety: a document and its nodes belong to one thread at a time.
namespace pnl_xml {

inline constexpr std::size_t kMaxSize = std::size_t{256} << 20;  ///< bytes
inline constexpr const char* kError = "xml";                     ///< the type of all errors
inline constexpr int kMaxDepth = 256;
/// Elements and attributes together: a tree takes many times the memory of its text.
inline constexpr std::size_t kMaxItems = 1'000'000;

class Xml;

/// A light handle to one node, valid as long as its document. A default handle is empty; reading it
/// gives empty results. Changing an empty handle throws pnl_err::Error("xml", "empty_node"),
/// changing a node that is not an element ("xml", "not_element").
class PNL_API XmlNode {
 public:
  XmlNode() = default;

  explicit operator bool() const { return node_ != nullptr; }
  bool operator==(const XmlNode& other) const { return node_ == other.node_; }

  bool IsNode() const;            ///< is an element (not text, comment, ...)
  std::string_view Name() const;  ///< element name
  /// The element's own text and CDATA, untrimmed, without that of child elements. Of a text node:
  /// its text.
  std::string Str() const;
  std::string GetProp(std::string_view name) const;  ///< attribute value, "" when absent

  XmlNode FirstChild() const;  ///< first child of any kind
  XmlNode Next() const;        ///< next sibling of any kind
  XmlNode Parent() const;
  XmlNode FindNode(std::string_view name) const;    ///< first child element of that name
  XmlNode NextNode(std::string_view name) const;    ///< next sibling element of that name
  XmlNode GetNode(const std::string& xpath) const;  ///< first match, relative to this node

  void SetProp(std::string_view name, std::string_view value);
  void SetText(std::string_view text);  ///< replaces the node's own text, keeps child elements
  XmlNode AppendChild(std::string_view name, std::string_view text = {});
  /// Appends a deep copy of an element or text; it may come from another document.
  XmlNode AppendChild(const XmlNode& copy_from);
  /// Removes the node with its content; this handle becomes empty. The root cannot be removed:
  /// pnl_err::Error("xml", "unlink_root").
  void Unlink();

 private:
  friend class Xml;
  friend class XmlNodes;
  explicit XmlNode(void* node) : node_(node) {}
  void* node_ = nullptr;
};

/// The nodes that an XPath matches, in document order.
class PNL_API XmlNodes {
 public:
  /// Steps through the nodes once.
  class PNL_API iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = XmlNode;
    using difference_type = std::ptrdiff_t;
    using pointer = const XmlNode*;
    using reference = XmlNode;

    iterator() = default;
    XmlNode operator*() const;
    iterator& operator++() {
      ++index_;
      return *this;
    }
    bool operator==(const iterator& other) const { return index_ == other.index_; }
    bool operator!=(const iterator& other) const { return index_ != other.index_; }

   private:
    friend class XmlNodes;
    iterator(const XmlNodes* nodes, std::size_t index) : nodes_(nodes), index_(index) {}
    const XmlNodes* nodes_ = nullptr;
    std::size_t index_ = 0;
  };

  XmlNodes(XmlNodes&&) noexcept;
  XmlNodes& operator=(XmlNodes&&) noexcept;
  ~XmlNodes();

  iterator begin() const { return {this, 0}; }
  iterator end() const { return {this, size()}; }
  std::size_t size() const;
  bool empty() const { return size() == 0; }

 private:
  friend class Xml;
  struct PNL_LOCAL Impl;
  explicit XmlNodes(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// How a document file is read.
enum class Check {
  kStrict,  ///< well-formedness checked in full
  /// For a file that this library wrote after a strict check: the file is parsed without that
  /// check. A damaged file is still an error. In XPath an element's text is the element's value
  /// (elem[port='80']), not a text() node.
  kTrusted,
};

/// A document. An empty one has the root element `doc`. Copies are deep and independent.
class PNL_API Xml {
 public:
  Xml();
  explicit Xml(std::string_view text);  ///< parses (strict); errors name the file "(text)"
  Xml(const Xml& other);
  Xml(Xml&& other) noexcept;  ///< afterwards the source can only be assigned to or destroyed
  Xml& operator=(const Xml& other);
  Xml& operator=(Xml&& other) noexcept;
  ~Xml();

  /// Reads a file. A missing or unreadable one is pnl_err::Error of type "file".
  static Xml LoadFromFile(const std::string& path, Check check = Check::kStrict);

  XmlNode GetRoot() const;
  /// Throws unless the root element has that name: pnl_err::Error("xml", "parse", "PLACE: reason").
  void RequireRoot(std::string_view name, std::string_view place) const;
  /// The nodes that `xpath` matches. A bad XPath is pnl_err::Error("xml", "xpath", xpath) with the
  /// parameter "reason"; so is one that selects attributes or gives a text or number.
  XmlNodes GetNodes(const std::string& xpath) const;
  XmlNode GetNode(const std::string& xpath) const;  ///< the first of them, or an empty node

  /// The document's text in UTF-8 with an XML declaration. `indented` puts each element on its own
  /// line, except in mixed content.
  std::string Str(bool indented = false) const;
  /// Replaces the file `path` with Str(indented), as pnl_file::Write does; a new file gets
  /// `new_mode` less the umask. A document above kMaxSize or kMaxItems is pnl_err::Error("xml",
  /// "size", path), and the old file stays.
  void Save(const std::string& path, bool indented, mode_t new_mode = 0666) const;

 private:
  struct PNL_LOCAL Impl;
  explicit Xml(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// A document read from a file: Xml::LoadFromFile as a constructor.
class PNL_API XmlFile : public Xml {
 public:
  explicit XmlFile(const std::string& path, Check check = Check::kStrict);
};

/// `value` as an XPath string literal with its quotes: in single quotes; in double quotes when it
/// contains a single quote; as concat(...) when it contains both.
[[nodiscard]] PNL_API std::string EscapePropValue(std::string_view value);

}  // namespace pnl_xml
