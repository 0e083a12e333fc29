#include "MVXMLDocument.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xpath.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "LazyLibrary.h"
#include "MVLog.h"

namespace {

// libxml2 (and the ICU it brings) is loaded when the first document is
// parsed: only the Compressor and Premiere watchers read XML, and an agent
// that never meets either should not carry it.
#define MV_LIBXML_FUNCTIONS(X) \
  X(__xmlStructuredError) X(__xmlStructuredErrorContext) X(xmlAddChild) X(xmlBufferContent) \
  X(xmlBufferCreate) X(xmlBufferFree) X(xmlBufferLength) X(xmlCheckUTF8) X(xmlCtxtReadMemory) \
  X(xmlDocDumpFormatMemoryEnc) X(xmlDocDumpMemoryEnc) X(xmlDocGetRootElement) X(xmlFree) X(xmlFreeDoc) \
  X(xmlFreeNode) X(xmlFreeParserCtxt) X(xmlInitParser) X(xmlNewDocText) X(xmlNewParserCtxt) X(xmlNodeDump) \
  X(xmlNodeGetContent) X(xmlNodeSetContent) X(xmlSetNsProp) X(xmlSetStructuredErrorFunc) X(xmlUnlinkNode) \
  X(xmlXPathEval) X(xmlXPathFreeContext) X(xmlXPathFreeObject) X(xmlXPathNewContext)

QUILLON_LAZY_FUNCTIONS(LibXMLFunctions, MV_LIBXML_FUNCTIONS);

void reportLibXMLMissing(const std::string& reason) { MVLog::appendLog("XML cannot be read: %s", reason); }

constinit quillon::LazyLibrary<LibXMLFunctions> gLibXML("libxml2.so.2", &reportLibXMLMissing);

// Past this point the library's names call through the loaded library; a
// document exists only once it was loaded.
#define __xmlStructuredError QUILLON_LAZY_CALL(gLibXML, __xmlStructuredError)
#define __xmlStructuredErrorContext QUILLON_LAZY_CALL(gLibXML, __xmlStructuredErrorContext)
#define xmlAddChild QUILLON_LAZY_CALL(gLibXML, xmlAddChild)
#define xmlBufferContent QUILLON_LAZY_CALL(gLibXML, xmlBufferContent)
#define xmlBufferCreate QUILLON_LAZY_CALL(gLibXML, xmlBufferCreate)
#define xmlBufferFree QUILLON_LAZY_CALL(gLibXML, xmlBufferFree)
#define xmlBufferLength QUILLON_LAZY_CALL(gLibXML, xmlBufferLength)
#define xmlCheckUTF8 QUILLON_LAZY_CALL(gLibXML, xmlCheckUTF8)
#define xmlCtxtReadMemory QUILLON_LAZY_CALL(gLibXML, xmlCtxtReadMemory)
#define xmlDocDumpFormatMemoryEnc QUILLON_LAZY_CALL(gLibXML, xmlDocDumpFormatMemoryEnc)
#define xmlDocDumpMemoryEnc QUILLON_LAZY_CALL(gLibXML, xmlDocDumpMemoryEnc)
#define xmlDocGetRootElement QUILLON_LAZY_CALL(gLibXML, xmlDocGetRootElement)
// A variable of the library's, holding its deallocator.
#define xmlFree (*QUILLON_LAZY_CALL(gLibXML, xmlFree))
#define xmlFreeDoc QUILLON_LAZY_CALL(gLibXML, xmlFreeDoc)
#define xmlFreeNode QUILLON_LAZY_CALL(gLibXML, xmlFreeNode)
#define xmlFreeParserCtxt QUILLON_LAZY_CALL(gLibXML, xmlFreeParserCtxt)
#define xmlInitParser QUILLON_LAZY_CALL(gLibXML, xmlInitParser)
#define xmlNewDocText QUILLON_LAZY_CALL(gLibXML, xmlNewDocText)
#define xmlNewParserCtxt QUILLON_LAZY_CALL(gLibXML, xmlNewParserCtxt)
#define xmlNodeDump QUILLON_LAZY_CALL(gLibXML, xmlNodeDump)
#define xmlNodeGetContent QUILLON_LAZY_CALL(gLibXML, xmlNodeGetContent)
#define xmlNodeSetContent QUILLON_LAZY_CALL(gLibXML, xmlNodeSetContent)
#define xmlSetNsProp QUILLON_LAZY_CALL(gLibXML, xmlSetNsProp)
#define xmlSetStructuredErrorFunc QUILLON_LAZY_CALL(gLibXML, xmlSetStructuredErrorFunc)
#define xmlUnlinkNode QUILLON_LAZY_CALL(gLibXML, xmlUnlinkNode)
#define xmlXPathEval QUILLON_LAZY_CALL(gLibXML, xmlXPathEval)
#define xmlXPathFreeContext QUILLON_LAZY_CALL(gLibXML, xmlXPathFreeContext)
#define xmlXPathFreeObject QUILLON_LAZY_CALL(gLibXML, xmlXPathFreeObject)
#define xmlXPathNewContext QUILLON_LAZY_CALL(gLibXML, xmlXPathNewContext)

}  // namespace

struct MVXMLDocumentStorage {
  struct DocDeleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
  };
  std::unique_ptr<xmlDoc, DocDeleter> doc;
};

struct MVXMLNodeAccess {
  static xmlNode* raw(const MVXMLNode& node) { return reinterpret_cast<xmlNode*>(node.node_); }
  static MVXMLNode make(const std::shared_ptr<MVXMLDocumentStorage>& storage, xmlNode* node) {
    if (!node) return {};
    return MVXMLNode(storage, reinterpret_cast<MVXMLNode::Raw*>(node));
  }
  static const std::shared_ptr<MVXMLDocumentStorage>& storage(const MVXMLNode& node) { return node.storage_; }
};

namespace {

struct XmlCharDeleter {
  void operator()(xmlChar* p) const { xmlFree(p); }
};
using XmlString = std::unique_ptr<xmlChar, XmlCharDeleter>;

struct XPathContextDeleter {
  void operator()(xmlXPathContext* ctx) const { xmlXPathFreeContext(ctx); }
};
struct XPathObjectDeleter {
  void operator()(xmlXPathObject* obj) const { xmlXPathFreeObject(obj); }
};
struct ParserContextDeleter {
  void operator()(xmlParserCtxt* ctx) const { xmlFreeParserCtxt(ctx); }
};
struct BufferDeleter {
  void operator()(xmlBuffer* buf) const { xmlBufferFree(buf); }
};

std::string fromXml(const xmlChar* s) { return s ? std::string(reinterpret_cast<const char*>(s)) : std::string(); }
std::string fromXml(const XmlString& s) { return fromXml(s.get()); }
const xmlChar* toXml(const std::string& s) { return reinterpret_cast<const xmlChar*>(s.c_str()); }

bool initLibrary() {
  if (!gLibXML.load()) return false;
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
  return true;
}

// Collects the library's error reports for the current thread while it is
// alive, instead of letting them print to standard error. The library keeps
// its error handler per thread, so workers parsing at the same time do not
// see each other's errors.
class ErrorCapture {
 public:
  ErrorCapture() : previousHandler_(xmlStructuredError), previousContext_(xmlStructuredErrorContext) {
    xmlSetStructuredErrorFunc(this, &ErrorCapture::handle);
  }
  ~ErrorCapture() { xmlSetStructuredErrorFunc(previousContext_, previousHandler_); }
  ErrorCapture(const ErrorCapture&) = delete;
  ErrorCapture& operator=(const ErrorCapture&) = delete;

  bool hasError() const { return !first_.empty(); }
  const std::string& description() const { return first_; }

 private:
  static void handle(void* self, xmlError* error) {
    auto* capture = static_cast<ErrorCapture*>(self);
    if (!error || error->level == XML_ERR_WARNING || !capture->first_.empty()) return;
    std::string message = error->message ? error->message : "unknown XML error";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    if (error->domain == XML_FROM_XPATH && error->str1) {
      message += describeQuery(error->str1, error->int1);
    } else if (error->line > 0) {
      message = "Line " + std::to_string(error->line) + ": " + message;
    }
    capture->first_ = message;
  }
  static std::string describeQuery(const char* query, int position) {
    return " in query \"" + std::string(query) + "\" at position " + std::to_string(position);
  }

  xmlStructuredErrorFunc previousHandler_;
  void* previousContext_;
  std::string first_;
};

bool isTreeChild(const xmlNode* node) {
  // The internal DTD subset and XInclude markers hang in the child list but
  // are not content.
  switch (node->type) {
    case XML_DTD_NODE:
    case XML_XINCLUDE_START:
    case XML_XINCLUDE_END:
    case XML_NAMESPACE_DECL:
      return false;
    default:
      return true;
  }
}

bool hasSiblings(const xmlNode* node) { return node->type != XML_ATTRIBUTE_NODE && isTreeChild(node); }

xmlNode* nextTreeSibling(xmlNode* node) {
  for (xmlNode* n = node->next; n; n = n->next)
    if (isTreeChild(n)) return n;
  return nullptr;
}

xmlNode* previousTreeSibling(xmlNode* node) {
  for (xmlNode* n = node->prev; n; n = n->prev)
    if (isTreeChild(n)) return n;
  return nullptr;
}

std::vector<MVXMLNode> evaluate(const std::shared_ptr<MVXMLDocumentStorage>& storage, xmlNode* context,
                                const std::string& query, std::string* error) {
  std::vector<MVXMLNode> result;
  if (!storage || !storage->doc || !context) return result;
  if (query.find('\0') != std::string::npos) {
    if (error) *error = "XPath query contains a NUL character";
    return result;
  }
  ErrorCapture capture;
  std::unique_ptr<xmlXPathContext, XPathContextDeleter> ctx(xmlXPathNewContext(storage->doc.get()));
  if (!ctx) {
    if (error) *error = "Unable to create an XPath context";
    return result;
  }
  ctx->node = context;
  std::unique_ptr<xmlXPathObject, XPathObjectDeleter> object(xmlXPathEval(toXml(query), ctx.get()));
  if (!object) {
    if (error) *error = capture.hasError() ? capture.description() : "Invalid XPath query \"" + query + "\"";
    return result;
  }
  if (object->type != XPATH_NODESET) {
    if (error) *error = "XPath query \"" + query + "\" does not select nodes";
    return result;
  }
  if (xmlNodeSet* set = object->nodesetval) {
    result.reserve(static_cast<std::size_t>(set->nodeNr));
    for (int i = 0; i < set->nodeNr; ++i) {
      xmlNode* node = set->nodeTab[i];
      // Namespace entries in a result are copies that die with the result.
      if (!node || node->type == XML_NAMESPACE_DECL) continue;
      result.push_back(MVXMLNodeAccess::make(storage, node));
    }
  }
  return result;
}

std::string dumpNode(xmlNode* node) {
  if (node->type == XML_DOCUMENT_NODE || node->type == XML_HTML_DOCUMENT_NODE) {
    xmlChar* bytes = nullptr;
    int size = 0;
    xmlDocDumpMemoryEnc(reinterpret_cast<xmlDoc*>(node), &bytes, &size, "UTF-8");
    XmlString owned(bytes);
    return bytes ? std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)) : std::string();
  }
  std::unique_ptr<xmlBuffer, BufferDeleter> buffer(xmlBufferCreate());
  if (!buffer) return {};
  xmlNodeDump(buffer.get(), node->doc, node, 0, 0);
  std::string text(reinterpret_cast<const char*>(xmlBufferContent(buffer.get())),
                   static_cast<std::size_t>(xmlBufferLength(buffer.get())));
  if (node->type == XML_ATTRIBUTE_NODE && !text.empty() && text.front() == ' ') text.erase(0, 1);
  return text;
}

// Writes bytes to a temporary file beside `path` and renames it over.
bool writeAtomically(const std::string& path, const std::string& bytes) {
  namespace fs = std::filesystem;
  fs::path target(path);
  std::string templ = (target.parent_path().empty() ? fs::path(".") : target.parent_path()).string() + "/." +
                      target.filename().string() + ".XXXXXX";
  int fd = mkstemp(templ.data());
  if (fd < 0) return false;
  struct FdCloser {
    int fd;
    ~FdCloser() {
      if (fd >= 0) close(fd);
    }
  } closer{fd};
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      unlink(templ.c_str());
      return false;
    }
    written += static_cast<std::size_t>(n);
  }
  struct stat existing {};
  if (stat(path.c_str(), &existing) == 0) fchmod(fd, existing.st_mode & 07777);
  else fchmod(fd, 0644);
  if (fsync(fd) != 0 || rename(templ.c_str(), path.c_str()) != 0) {
    unlink(templ.c_str());
    return false;
  }
  return true;
}

}  // namespace

// ---- MVXMLNode ----

MVXMLNode::Kind MVXMLNode::kind() const {
  const xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node) return Kind::Null;
  switch (node->type) {
    case XML_DOCUMENT_NODE:
    case XML_HTML_DOCUMENT_NODE:
      return Kind::Document;
    case XML_ELEMENT_NODE:
      return Kind::Element;
    case XML_ATTRIBUTE_NODE:
      return Kind::Attribute;
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
      return Kind::Text;
    case XML_COMMENT_NODE:
      return Kind::Comment;
    case XML_PI_NODE:
      return Kind::ProcessingInstruction;
    default:
      return Kind::Other;
  }
}

std::optional<std::string> MVXMLNode::name() const {
  const xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node || !node->name) return std::nullopt;
  switch (node->type) {
    case XML_ELEMENT_NODE:
    case XML_ATTRIBUTE_NODE: {
      std::string local = fromXml(node->name);
      if (node->ns && node->ns->prefix) return fromXml(node->ns->prefix) + ":" + local;
      return local;
    }
    case XML_PI_NODE:
    case XML_ENTITY_REF_NODE:
      return fromXml(node->name);
    default:
      return std::nullopt;
  }
}

std::string MVXMLNode::stringValue() const {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node) return {};
  if (node->type == XML_DOCUMENT_NODE || node->type == XML_HTML_DOCUMENT_NODE) {
    // The document's text is its root element's text (the DTD and comments
    // outside the root are not content).
    xmlNode* root = xmlDocGetRootElement(reinterpret_cast<xmlDoc*>(node));
    if (!root) return {};
    node = root;
  }
  XmlString content(xmlNodeGetContent(node));
  return fromXml(content);
}

bool MVXMLNode::setStringValue(const std::string& value) {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node) return false;
  if (xmlCheckUTF8(toXml(value)) == 0 || value.find('\0') != std::string::npos) return false;
  switch (node->type) {
    case XML_ELEMENT_NODE: {
      // Text is added as a text node so that "&" and "<" stay characters.
      while (xmlNode* child = node->children) {
        xmlUnlinkNode(child);
        xmlFreeNode(child);
      }
      if (value.empty()) return true;
      xmlNode* text = xmlNewDocText(node->doc, toXml(value));
      if (!text) return false;
      if (!xmlAddChild(node, text)) {
        xmlFreeNode(text);
        return false;
      }
      return true;
    }
    case XML_ATTRIBUTE_NODE: {
      xmlAttr* attribute = reinterpret_cast<xmlAttr*>(node);
      if (!attribute->parent) return false;
      return xmlSetNsProp(attribute->parent, attribute->ns, attribute->name, toXml(value)) != nullptr;
    }
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
    case XML_COMMENT_NODE:
      xmlNodeSetContent(node, toXml(value));
      return true;
    default:
      return false;
  }
}

std::optional<std::string> MVXMLNode::attributeForName(const std::string& name) const {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node || node->type != XML_ELEMENT_NODE) return std::nullopt;
  for (xmlAttr* attribute = node->properties; attribute; attribute = attribute->next) {
    MVXMLNode handle = MVXMLNodeAccess::make(storage_, reinterpret_cast<xmlNode*>(attribute));
    if (handle.name() == name) return handle.stringValue();
  }
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> MVXMLNode::attributes() const {
  std::vector<std::pair<std::string, std::string>> result;
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node || node->type != XML_ELEMENT_NODE) return result;
  for (xmlAttr* attribute = node->properties; attribute; attribute = attribute->next) {
    MVXMLNode handle = MVXMLNodeAccess::make(storage_, reinterpret_cast<xmlNode*>(attribute));
    if (auto attributeName = handle.name()) result.emplace_back(*attributeName, handle.stringValue());
  }
  return result;
}

std::vector<MVXMLNode> MVXMLNode::children() const {
  std::vector<MVXMLNode> result;
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node || node->type == XML_ATTRIBUTE_NODE) return result;
  for (xmlNode* child = node->children; child; child = child->next)
    if (isTreeChild(child)) result.push_back(MVXMLNodeAccess::make(storage_, child));
  return result;
}

MVXMLNode MVXMLNode::parent() const {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node) return {};
  return MVXMLNodeAccess::make(storage_, node->parent);
}

MVXMLNode MVXMLNode::nextSibling() const {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node || !hasSiblings(node)) return {};
  return MVXMLNodeAccess::make(storage_, nextTreeSibling(node));
}

MVXMLNode MVXMLNode::previousSibling() const {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  if (!node || !hasSiblings(node)) return {};
  return MVXMLNodeAccess::make(storage_, previousTreeSibling(node));
}

std::vector<MVXMLNode> MVXMLNode::nodesForXPath(const std::string& query, std::string* error) const {
  return evaluate(storage_, MVXMLNodeAccess::raw(*this), query, error);
}

std::string MVXMLNode::xmlString() const {
  xmlNode* node = MVXMLNodeAccess::raw(*this);
  return node ? dumpNode(node) : std::string();
}

// ---- MVXMLDocument ----

std::optional<MVXMLDocument> MVXMLDocument::documentWithData(std::string_view bytes, unsigned options,
                                                             std::string* error) {
  auto fail = [&](const std::string& why) -> std::optional<MVXMLDocument> {
    if (error) *error = why;
    return std::nullopt;
  };
  if (bytes.empty()) return fail("The document is empty");
  if (bytes.size() > static_cast<std::size_t>(INT_MAX)) return fail("The document is too large");
  if (!initLibrary()) return fail("The XML library cannot be loaded");

  // Never reach outside the bytes: no network, no external DTD and no
  // entity substitution (which is what would load an external entity).
  int parseOptions = XML_PARSE_NONET | XML_PARSE_NOCDATA | XML_PARSE_BIG_LINES | XML_PARSE_NOERROR |
                     XML_PARSE_NOWARNING;
  if (options & kTidyXML) parseOptions |= XML_PARSE_RECOVER;
  if (!(options & kPreserveWhitespace)) parseOptions |= XML_PARSE_NOBLANKS;

  ErrorCapture capture;
  std::unique_ptr<xmlParserCtxt, ParserContextDeleter> ctx(xmlNewParserCtxt());
  if (!ctx) return fail("Unable to create an XML parser");
  auto storage = std::make_shared<MVXMLDocumentStorage>();
  storage->doc.reset(xmlCtxtReadMemory(ctx.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
                                       parseOptions));
  bool wellFormed = ctx->wellFormed != 0;
  if (!storage->doc || (!wellFormed && !(options & kTidyXML)))
    return fail(capture.hasError() ? capture.description() : "The document is not well-formed XML");
  if (!xmlDocGetRootElement(storage->doc.get()))
    return fail(capture.hasError() ? capture.description() : "The document has no root element");
  return MVXMLDocument(std::move(storage));
}

std::optional<MVXMLDocument> MVXMLDocument::documentWithContentsOfFile(const std::string& path, unsigned options,
                                                                       std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = "Unable to read " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) {
    if (error) *error = "Unable to read " + path;
    return std::nullopt;
  }
  return documentWithData(bytes, options, error);
}

MVXMLNode MVXMLDocument::node() const {
  return MVXMLNodeAccess::make(storage_, reinterpret_cast<xmlNode*>(storage_->doc.get()));
}

MVXMLNode MVXMLDocument::rootElement() const {
  return MVXMLNodeAccess::make(storage_, xmlDocGetRootElement(storage_->doc.get()));
}

std::vector<MVXMLNode> MVXMLDocument::nodesForXPath(const std::string& query, std::string* error) const {
  return node().nodesForXPath(query, error);
}

std::string MVXMLDocument::xmlString(bool prettyPrint) const {
  xmlChar* bytes = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(storage_->doc.get(), &bytes, &size, "UTF-8", prettyPrint ? 1 : 0);
  XmlString owned(bytes);
  return bytes ? std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)) : std::string();
}

bool MVXMLDocument::writeToFile(const std::string& path, bool prettyPrint) const {
  std::string text = xmlString(prettyPrint);
  if (text.empty()) return false;
  return writeAtomically(path, text);
}
