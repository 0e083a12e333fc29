#include "MVXMLParser.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <deque>
#include <unordered_set>

#include "MVLog.h"

namespace {

// ---- UTF-8 <-> UTF-16 ----

// Decodes UTF-8 into UTF-16 code units. A byte that does not start a valid
// sequence becomes U+FFFD, so nothing past the string is ever read.
std::u16string utf16FromUTF8(const std::string& text) {
  std::u16string units;
  units.reserve(text.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    unsigned char lead = bytes[i];
    char32_t cp = 0xFFFD;
    std::size_t length = 1;
    std::size_t need = 0;
    char32_t minimum = 0;
    if (lead < 0x80) {
      cp = lead;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      need = 1, cp = lead & 0x1F, minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      need = 2, cp = lead & 0x0F, minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      need = 3, cp = lead & 0x07, minimum = 0x10000;
    } else {
      cp = 0xFFFD;
    }
    if (need) {
      bool valid = true;
      for (std::size_t k = 1; k <= need; ++k) {
        if (i + k >= n || (bytes[i + k] & 0xC0) != 0x80) {
          valid = false;
          break;
        }
        cp = (cp << 6) | (bytes[i + k] & 0x3F);
      }
      if (valid && (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) valid = false;
      if (valid) {
        length = need + 1;
      } else {
        cp = 0xFFFD;
      }
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      units.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(cp));
    }
    i += length;
  }
  return units;
}

void appendUTF8(std::string& out, char32_t cp);

// True when decoding and re-encoding gives the same bytes back.
bool isValidUTF8(const std::string& text) {
  std::u16string units = utf16FromUTF8(text);
  std::string back;
  back.reserve(text.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    char32_t cp = units[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < units.size()) cp = 0x10000 + ((cp - 0xD800) << 10) + (units[++i] - 0xDC00);
    appendUTF8(back, cp);
  }
  return back == text;
}

void appendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decodes into bytes; none for a malformed escape.
std::optional<std::string> percentDecode(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

// A signed integer read as the platform's string objects read one: leading
// blanks, an optional sign, digits; anything else ends it, no digits is 0,
// and overflow saturates.
long integerValue(const std::optional<std::string>& text) {
  if (!text) return 0;
  const std::string& s = *text;
  std::size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  unsigned long long magnitude = 0;
  const unsigned long long limit = negative ? static_cast<unsigned long long>(LONG_MAX) + 1 : LONG_MAX;
  for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
    magnitude = magnitude * 10 + static_cast<unsigned long long>(s[i] - '0');
    if (magnitude >= limit) {
      magnitude = limit;
      break;
    }
  }
  if (negative) return magnitude > static_cast<unsigned long long>(LONG_MAX) ? LONG_MIN : -static_cast<long>(magnitude);
  return static_cast<long>(magnitude);
}

std::vector<MVXMLNode> evaluateEscaped(const std::string& query, const MVXMLNode& node, std::string* error) {
  if (!node) return {};
  return node.nodesForXPath(MVXMLParser::escapeQueryString(query), error);
}

// Items of an edit-decision list are elements; text and comments between
// them are not part of a transition chain.
MVXMLNode previousElement(const MVXMLNode& node) {
  MVXMLNode sibling = node.previousSibling();
  while (sibling && sibling.kind() != MVXMLNode::Kind::Element) sibling = sibling.previousSibling();
  return sibling;
}

MVXMLNode nextElement(const MVXMLNode& node) {
  MVXMLNode sibling = node.nextSibling();
  while (sibling && sibling.kind() != MVXMLNode::Kind::Element) sibling = sibling.nextSibling();
  return sibling;
}

bool isTransitionEdge(const std::optional<std::string>& frame) { return frame && *frame == "-1"; }

std::optional<std::string> unescapedOrRaw(const std::string& text) {
  if (auto unescaped = MVPercentUnescapeASCII(text)) return unescaped;
  return text;
}

std::optional<std::string> childText(const MVXMLNode& node, const char* element, bool immediateChildOnly) {
  std::string name(element);
  if (auto value = MVXMLParser::stringValueForQuery("./" + name + "[1]/text()", node)) return value;
  if (immediateChildOnly) return std::nullopt;
  return MVXMLParser::stringValueForQuery(".//" + name + "[1]/text()", node);
}

}  // namespace

std::optional<std::string> MVPercentUnescapeASCII(const std::string& text) {
  auto decoded = percentDecode(text);
  if (!decoded) return std::nullopt;
  // Only the bytes that came from escapes must be ASCII; literal characters
  // of the input pass through whatever they are.
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      int byte = hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]);
      if (byte >= 0x80) return std::nullopt;
      i += 2;
    }
  }
  return decoded;
}

std::optional<std::vector<std::string>> MVXMLParser::stringValuesForQuery(const std::string& query,
                                                                          const MVXMLNode& node) {
  std::vector<MVXMLNode> matches = evaluateEscaped(query, node, nullptr);
  if (matches.empty()) return std::nullopt;
  std::vector<std::string> values;
  values.reserve(matches.size());
  for (const MVXMLNode& match : matches) values.push_back(match.stringValue());
  return values;
}

std::optional<std::string> MVXMLParser::stringValueForQuery(const std::string& query, const MVXMLNode& inElement) {
  std::vector<MVXMLNode> matches = evaluateEscaped(query, inElement, nullptr);
  if (matches.empty()) return std::nullopt;
  return matches.front().stringValue();
}

std::vector<MVXMLNode> MVXMLParser::nodesForQuery(const std::string& query, const MVXMLNode& inElement) {
  std::string error;
  std::vector<MVXMLNode> matches = evaluateEscaped(query, inElement, &error);
  if (!error.empty()) MVLog::appendLog("XML parsing error: %@", error);
  return matches;
}

MVXMLNode MVXMLParser::nodeForQuery(const std::string& query, const MVXMLNode& inElement) {
  std::vector<MVXMLNode> matches = nodesForQuery(query, inElement);
  return matches.empty() ? MVXMLNode() : matches.front();
}

std::optional<std::string> MVXMLParser::idAttributeForNode(const MVXMLNode& node) {
  auto id = stringValueForQuery("./@id[1]", node);
  if (!id) return std::nullopt;
  return MVPercentUnescapeASCII(*id);
}

std::optional<std::string> MVXMLParser::filenameFromPathURLString(const std::optional<std::string>& urlString) {
  if (!urlString || urlString->empty()) return std::nullopt;
  const std::string& url = *urlString;

  // A URL holds only these characters (non-ASCII and blanks must arrive
  // escaped); anything else is not a URL and has no path.
  static const std::string allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~:/?#[]@!$&'()*+,;=%";
  if (url.find_first_not_of(allowed) != std::string::npos) return std::nullopt;

  std::size_t pos = 0;
  std::size_t colon = url.find(':');
  bool hasScheme = false;
  if (colon != std::string::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(url[0]))) {
    hasScheme = true;
    for (std::size_t i = 1; i < colon; ++i) {
      char c = url[i];
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') {
        hasScheme = false;
        break;
      }
    }
  }
  if (hasScheme) pos = colon + 1;
  if (url.compare(pos, 2, "//") == 0) {
    pos = url.find_first_of("/?#", pos + 2);
    if (pos == std::string::npos) pos = url.size();
  } else if (hasScheme && (pos >= url.size() || url[pos] != '/')) {
    return std::nullopt;  // "mailto:name@host" and the like have no path
  }
  std::size_t end = url.find_first_of("?#", pos);
  if (end == std::string::npos) end = url.size();
  auto path = percentDecode(url.substr(pos, end - pos));
  if (!path || path->find('\0') != std::string::npos) return std::nullopt;
  // Escaped bytes must form UTF-8 text to name a file.
  if (!isValidUTF8(*path)) return std::nullopt;
  while (path->size() > 1 && path->back() == '/') path->pop_back();
  return path;
}

std::vector<MVXMLNode> MVXMLParser::node(const MVXMLNode& node, const std::vector<std::string>& nodesFromQueries) {
  std::vector<MVXMLNode> result;
  std::unordered_set<const void*> seen;
  for (const std::string& query : nodesFromQueries) {
    std::string error;
    for (const MVXMLNode& match : evaluateEscaped(query, node, &error))
      if (match && seen.insert(match.identity()).second) result.push_back(match);
    if (!error.empty()) MVLog::appendLog("XML parsing error: %@", error);
  }
  return result;
}

std::vector<MVXMLNode> MVXMLParser::queryNodes(const std::vector<MVXMLNode>& nodes, const std::string& withXPath) {
  std::vector<MVXMLNode> result;
  std::string escaped = escapeQueryString(withXPath);
  for (const MVXMLNode& node : nodes) {
    if (!node) continue;
    std::vector<MVXMLNode> matches = node.nodesForXPath(escaped);
    result.insert(result.end(), matches.begin(), matches.end());
  }
  return result;
}

std::optional<std::string> MVXMLParser::nameForNode(const MVXMLNode& node, bool immediateChildOnly) {
  if (!node) return std::nullopt;
  std::optional<std::string> name = childText(node, "name", immediateChildOnly);
  if (!name && immediateChildOnly) return std::nullopt;
  if (!name) name = node.attributeForName("id");
  if (!name) return std::nullopt;
  return unescapedOrRaw(*name);
}

std::optional<std::string> MVXMLParser::uuidForNode(const MVXMLNode& node, bool immediateChildOnly) {
  if (!node) return std::nullopt;
  std::optional<std::string> uuid = childText(node, "uuid", immediateChildOnly);
  if (!uuid) return std::nullopt;
  return unescapedOrRaw(*uuid);
}

MVXMLNode MVXMLParser::node(const MVXMLNode& node, const std::string& parentWithName,
                            const std::optional<std::vector<std::string>>& limits) {
  if (!node) return {};
  for (MVXMLNode ancestor = node.parent(); ancestor; ancestor = ancestor.parent()) {
    std::optional<std::string> name = ancestor.name();
    if (!name) continue;
    if (limits && std::find(limits->begin(), limits->end(), *name) != limits->end()) return {};
    if (*name == parentWithName) return ancestor;
  }
  return {};
}

std::string MVXMLParser::escapeQueryString(const std::string& query) {
  const std::u16string units = utf16FromUTF8(query);
  const std::size_t n = units.size();
  std::string escaped;
  escaped.reserve(query.size());
  for (std::size_t i = 0; i < n; ++i) {
    const char16_t c = units[i];
    if (c >= 160) {
      escaped += "&#" + std::to_string(static_cast<unsigned>(c)) + ";";
    } else if (c == u'&') {
      // An entity already written out is left alone so that it is not
      // escaped twice. The look-ahead needs five units inside the string.
      bool isEntity = i + 4 < n && units.compare(i, 5, u"&amp;") == 0;
      escaped += isEntity ? "&" : "&amp;";
    } else if (c == 13) {
      escaped += "&#13;";
    } else if (c < 20) {
      MVLog::appendLog("Stripped character %C", static_cast<unsigned>(c));
    } else {
      appendUTF8(escaped, c);
    }
  }
  return escaped;
}

MVXMLNode MVXMLParser::nextSiblingForNode(const MVXMLNode& node) {
  for (MVXMLNode current = node; current; current = current.parent())
    if (MVXMLNode sibling = current.nextSibling()) return sibling;
  return {};
}

std::vector<MVXMLNode> MVXMLParser::affectedNodesForClip(const MVXMLNode& clip, long* rangeStart, long* rangeEnd) {
  std::optional<std::string> start = stringValueForQuery("./start[1]/text()", clip);
  std::optional<std::string> end = stringValueForQuery("./end[1]/text()", clip);
  std::deque<MVXMLNode> affected;
  if (clip) affected.push_back(clip);

  // A start of -1 means a transition covers the clip's head: the items
  // before it up to the first one with a real start take part. A transition
  // whose own predecessor also ends in a transition chains further back.
  if (clip && isTransitionEdge(start)) {
    for (MVXMLNode previous = previousElement(clip); previous; previous = previousElement(previous)) {
      affected.push_front(previous);
      if (previous.name() == "transitionitem" &&
          isTransitionEdge(stringValueForQuery("./end[1]/text()", previousElement(previous))))
        continue;
      start = stringValueForQuery("./start[1]/text()", previous);
      if (!isTransitionEdge(start)) break;
    }
  }
  if (clip && isTransitionEdge(end)) {
    for (MVXMLNode next = nextElement(clip); next; next = nextElement(next)) {
      affected.push_back(next);
      if (next.name() == "transitionitem" &&
          isTransitionEdge(stringValueForQuery("./start[1]/text()", nextElement(next))))
        continue;
      end = stringValueForQuery("./end[1]/text()", next);
      if (!isTransitionEdge(end)) break;
    }
  }
  if (rangeStart) *rangeStart = integerValue(start);
  if (rangeEnd) *rangeEnd = integerValue(end);
  return {affected.begin(), affected.end()};
}
