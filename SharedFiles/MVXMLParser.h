// MVXMLParser: query shortcuts over XML trees (see MVXMLDocument.h).
//
// Stateless; class operations only. Every shortcut that takes a query first
// passes it through escapeQueryString, which turns characters from 160 up
// into "&#N;" references, a lone "&" into "&amp;" and a carriage return into
// "&#13;", and strips the control characters below 20 (with a log line
// each). Queries are therefore meant for plain ASCII names and values.
//
// A null node behaves as an empty result throughout: questions about it
// answer none, null or an empty list. Query errors are ignored, except by
// nodesForQuery and node(node, nodesFromQueries), which log
// "XML parsing error: %@" and still return what the evaluation produced.
//
// The edit-decision helpers (nameForNode, uuidForNode, affectedNodesForClip)
// read trees in which items carry "name", "uuid", "start" and "end" child
// elements and transitions are "transitionitem" elements.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MVXMLDocument.h"

class MVXMLParser {
 public:
  MVXMLParser() = delete;

  // The string values of all matches in document order; none (not an empty
  // list) when nothing matches.
  static std::optional<std::vector<std::string>> stringValuesForQuery(const std::string& query, const MVXMLNode& node);
  // The string value of the first match, or none.
  static std::optional<std::string> stringValueForQuery(const std::string& query, const MVXMLNode& inElement);
  // All matches; an evaluation error is logged.
  static std::vector<MVXMLNode> nodesForQuery(const std::string& query, const MVXMLNode& inElement);
  // The first match, or the null node.
  static MVXMLNode nodeForQuery(const std::string& query, const MVXMLNode& inElement);

  // The node's "id" attribute, percent-unescaped as ASCII; none when there
  // is no such attribute or its escapes are malformed or not ASCII.
  static std::optional<std::string> idAttributeForNode(const MVXMLNode& node);
  // The file-system path of a URL string ("file:///a/b%20c" is "/a/b c");
  // none for none, for text that is not a URL and for URLs without a
  // hierarchical path ("mailto:x").
  static std::optional<std::string> filenameFromPathURLString(const std::optional<std::string>& urlString);

  // Evaluates each query in turn and collects the nodes found, each node
  // once, in the order first met.
  static std::vector<MVXMLNode> node(const MVXMLNode& node, const std::vector<std::string>& nodesFromQueries);
  // Evaluates the query on each node in turn and concatenates the results,
  // duplicates included.
  static std::vector<MVXMLNode> queryNodes(const std::vector<MVXMLNode>& nodes, const std::string& withXPath);

  // The text of the item's "name" child (or, unless immediateChildOnly, of
  // the first "name" element below it), else its "id" attribute;
  // percent-unescaped when the escapes are valid ASCII, raw otherwise.
  static std::optional<std::string> nameForNode(const MVXMLNode& node, bool immediateChildOnly = false);
  // The same for "uuid", without the "id" fallback.
  static std::optional<std::string> uuidForNode(const MVXMLNode& node, bool immediateChildOnly = false);

  // The nearest strict ancestor named `parentWithName`. The walk stops with
  // the null node at the first ancestor whose name is in `limits` (checked
  // before the name, so a limit wins) or at the top.
  static MVXMLNode node(const MVXMLNode& node, const std::string& parentWithName,
                        const std::optional<std::vector<std::string>>& limits = std::nullopt);

  // The query text made safe for evaluation (see the top of this file).
  // Works on UTF-16 code units: each half of a surrogate pair becomes its
  // own reference. Invalid UTF-8 reads as U+FFFD.
  static std::string escapeQueryString(const std::string& query);

  // The next node in document order that is not a descendant of `node`: its
  // next sibling, else the next sibling of its nearest ancestor that has one.
  static MVXMLNode nextSiblingForNode(const MVXMLNode& node);

  // The clip together with the neighbouring items that share its transition
  // edges (a "start" or "end" of "-1"), in document order: preceding
  // siblings, the clip, following siblings. Only element siblings count.
  // The slots, when given, receive the frame numbers where the affected
  // range starts and ends (0 when missing).
  static std::vector<MVXMLNode> affectedNodesForClip(const MVXMLNode& clip, long* rangeStart = nullptr,
                                                     long* rangeEnd = nullptr);
};

// Replaces "%XX" escapes by their bytes. None when an escape is malformed
// or stands for a byte outside ASCII; other characters pass through.
std::optional<std::string> MVPercentUnescapeASCII(const std::string& text);
