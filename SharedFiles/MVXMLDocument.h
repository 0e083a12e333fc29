// MVXMLDocument and MVXMLNode: a parsed XML tree and handles into it, with
// XPath 1.0 evaluation.
//
// A document owns its tree; every node handle keeps the tree it points into
// alive, so nodes may outlive the MVXMLDocument value they came from. Handles
// are cheap to copy and compare by identity (two handles to the same node are
// equal). A default-constructed MVXMLNode is the null node: every question
// put to it answers empty, null or false, as a message to nil would.
//
// Parsing never fetches anything: no network access, no external DTD, no
// external entity. A document that refers to an external entity keeps the
// reference unexpanded (its text reads as empty). Whitespace-only text
// between elements is dropped unless kPreserveWhitespace is given, so
// sibling walks step from element to element in indented files. The tidy
// option repairs malformed markup as far as it can (unclosed tags, stray
// ampersands) instead of failing.
//
// XPath: queries are XPath 1.0. Where callers think in XPath 2.0, they
// rewrite: "a/(b | c)[1]" becomes "(a/b | a/c)[1]". A query whose result is
// not a node set (count(), string()) is reported as an error. Namespace
// nodes are left out of results.
//
// Not thread-safe per document: a document and its nodes belong to one
// thread at a time. Different documents may be used on different threads.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct MVXMLDocumentStorage;

class MVXMLNode {
 public:
  enum class Kind { Null, Document, Element, Attribute, Text, Comment, ProcessingInstruction, Other };

  MVXMLNode() = default;

  bool isNull() const { return node_ == nullptr; }
  explicit operator bool() const { return !isNull(); }
  Kind kind() const;

  // The qualified name of an element or attribute ("prefix:local"), the
  // target of a processing instruction; none for documents, text, comments.
  std::optional<std::string> name() const;
  // The text of the node: for an element or a document all descendant text
  // in document order, for an attribute its value, for text its content.
  std::string stringValue() const;
  // Replaces the content of an element (by one text child), an attribute or
  // a text node. The value is stored as text, never parsed as markup. False
  // for other nodes and for values that are not UTF-8. Handles to the old
  // children of an element must not be used afterwards.
  bool setStringValue(const std::string& value);

  // Attributes of an element; none/empty for any other node.
  std::optional<std::string> attributeForName(const std::string& name) const;
  std::vector<std::pair<std::string, std::string>> attributes() const;

  // Tree links. Children and siblings include text, comments and
  // processing instructions; attributes have no siblings, their parent is
  // their element. The parent of the root element is the document node.
  std::vector<MVXMLNode> children() const;
  MVXMLNode parent() const;
  MVXMLNode nextSibling() const;
  MVXMLNode previousSibling() const;

  // Evaluates an XPath 1.0 query with this node as the context node. On an
  // error the result is empty and `error`, when given, receives a
  // description; on success `error` is left untouched.
  std::vector<MVXMLNode> nodesForXPath(const std::string& query, std::string* error = nullptr) const;

  // The node written out as XML text (an attribute as name="value").
  std::string xmlString() const;

  bool operator==(const MVXMLNode& other) const { return node_ == other.node_; }
  // A key for sets and maps of nodes: equal for handles to the same node.
  const void* identity() const { return node_; }

 private:
  friend class MVXMLDocument;
  friend struct MVXMLNodeAccess;
  struct Raw;  // the library's node, kept opaque here
  MVXMLNode(std::shared_ptr<MVXMLDocumentStorage> storage, Raw* node)
      : storage_(std::move(storage)), node_(node) {}

  std::shared_ptr<MVXMLDocumentStorage> storage_;
  Raw* node_ = nullptr;
};

class MVXMLDocument {
 public:
  enum Options : unsigned {
    kNone = 0,
    // Repair malformed markup instead of failing.
    kTidyXML = 1u << 0,
    // Keep whitespace-only text nodes between elements.
    kPreserveWhitespace = 1u << 1,
  };

  // Parses a document from bytes (any encoding the document declares;
  // UTF-8 by default). None on failure, with `error` describing why (the
  // first problem found, with its line). With kTidyXML a repaired document
  // is a success and `error` is left untouched.
  [[nodiscard]] static std::optional<MVXMLDocument> documentWithData(std::string_view bytes,
                                                                     unsigned options = kNone,
                                                                     std::string* error = nullptr);
  [[nodiscard]] static std::optional<MVXMLDocument> documentWithContentsOfFile(const std::string& path,
                                                                               unsigned options = kNone,
                                                                               std::string* error = nullptr);

  // The document node itself, and its root element (never null: a document
  // without a root element fails to parse).
  MVXMLNode node() const;
  MVXMLNode rootElement() const;

  // XPath with the document node as the context node.
  std::vector<MVXMLNode> nodesForXPath(const std::string& query, std::string* error = nullptr) const;

  // The whole document as XML text (UTF-8), optionally indented.
  std::string xmlString(bool prettyPrint = false) const;
  // Writes xmlString(prettyPrint) atomically: a reader sees the old file or
  // the new one, never a mixture. False (and the old file untouched) on
  // failure.
  [[nodiscard]] bool writeToFile(const std::string& path, bool prettyPrint = false) const;

 private:
  explicit MVXMLDocument(std::shared_ptr<MVXMLDocumentStorage> storage) : storage_(std::move(storage)) {}
  std::shared_ptr<MVXMLDocumentStorage> storage_;
};
