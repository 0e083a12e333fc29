// XML trees and the query shortcuts and walks over them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MVLog.h"
#include "MVXMLParser.h"
#include "TestSupport.h"

using namespace quillon_test;

namespace {

MVXMLDocument parse(const std::string& xml, unsigned options = MVXMLDocument::kNone) {
  std::string error;
  auto doc = MVXMLDocument::documentWithData(xml, options, &error);
  if (!doc) ADD_FAILURE() << "parse failed: " << error << "\n" << xml;
  return doc ? *doc : *MVXMLDocument::documentWithData("<empty/>");
}

}  // namespace

TEST(MVXMLParserTest, EscapingWorksOnUTF16UnitsAndNeverReadsPastTheString) {
  const std::pair<std::string, std::string> cases[] = {
      {"&amp", "&amp;amp"},      // four units: too short for the five-unit look-ahead to find the entity
      {"x&amp;", "x&amp;"},
      {"\xf0\x9f\x98\x80", "&#55357;&#56832;"},  // each surrogate on its own
      {"\xff", "&#65533;"},      // invalid UTF-8 reads as a replacement character
      {"line\r", "line&#13;"},
      {"a\tb\nc\x13", "abc"},
      {"\x14 <'\"> kept", "\x14 <'\"> kept"},
  };
  MVLog::createNewLog("XMLParserTest", true);
  LogSince log;
  for (const auto& [query, escaped] : cases) EXPECT_EQ(MVXMLParser::escapeQueryString(query), escaped) << query;
  EXPECT_EQ(timesIn(log.text(), "Stripped character"), 3u) << log.text();
}

TEST(MVXMLParserTest, QueryAnswersNothingForNoMatchOrABadQuery) {
  MVXMLDocument doc = parse("<project><sequence><uuid>1234-ABCD</uuid></sequence></project>");
  MVXMLNode root = doc.rootElement();
  EXPECT_EQ(MVXMLParser::stringValueForQuery(".//nothing", root), std::nullopt);
  EXPECT_EQ(MVXMLParser::stringValueForQuery("//clipitem[", root), std::nullopt);
}

TEST(MVXMLParserTest, FileURLsBecomePaths) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {"file:///Users/ann/Movies/a%20b.mov", "/Users/ann/Movies/a b.mov"},
      {"http://host/a/b?q=1#frag", "/a/b"},
      {"file:///bad%ZZ", std::nullopt},
  };
  for (const auto& [url, path] : cases)
    EXPECT_EQ(MVXMLParser::filenameFromPathURLString(url), path) << url.value_or("(null)");
}

TEST(MVXMLParserTest, MalformedInputFailsStrictlyAndIsRepairedWhenTidy) {
  const std::pair<std::string, const char*> cases[] = {  // the root's text after repair, or no repair
      {"<a><b>text</a>", "text"},
      {"<a>fish & chips</a>", "fish  chips"},
      {std::string("\xff\xfe\x00<\x00x\x00>", 8), nullptr},
  };
  for (const auto& [xml, text] : cases) {
    std::string error;
    EXPECT_FALSE(MVXMLDocument::documentWithData(xml, MVXMLDocument::kNone, &error)) << xml;
    EXPECT_FALSE(error.empty()) << xml;
    auto tidy = MVXMLDocument::documentWithData(xml, MVXMLDocument::kTidyXML);
    ASSERT_EQ(tidy.has_value(), text != nullptr) << xml;
    if (tidy) {
      EXPECT_EQ(tidy->rootElement().stringValue(), text) << xml;
    }
  }
  std::string error;
  EXPECT_FALSE(MVXMLDocument::documentWithData("<a>\n<b>\n</a>", MVXMLDocument::kNone, &error));
  EXPECT_NE(error.find("Line 3"), std::string::npos) << error;
}

TEST(MVXMLParserTest, ExternalEntitiesAndDTDsAreNeverLoaded) {
  std::string dir = makeTempDir("xxe");
  writeFile(dir + "/secret.txt", "TOPSECRET");
  writeFile(dir + "/defs.dtd", "<!ENTITY leak \"TOPSECRET\">");
  const std::string documents[] = {
      "<!DOCTYPE r [<!ENTITY x SYSTEM \"file://" + dir + "/secret.txt\">]><r>&x;</r>",
      "<!DOCTYPE r SYSTEM \"file://" + dir + "/defs.dtd\"><r>&leak;</r>",
      "<!DOCTYPE r [<!ENTITY % p SYSTEM \"file://" + dir + "/defs.dtd\"> %p;]><r>&leak;</r>",
  };
  for (const std::string& xml : documents) {
    for (unsigned options : {unsigned(MVXMLDocument::kNone), unsigned(MVXMLDocument::kTidyXML)}) {
      auto doc = MVXMLDocument::documentWithData(xml, options);
      if (!doc) continue;  // refusing the document is as good as not loading
      EXPECT_EQ(doc->rootElement().stringValue().find("TOPSECRET"), std::string::npos) << xml;
      EXPECT_EQ(doc->xmlString().find("TOPSECRET"), std::string::npos) << xml;
      EXPECT_TRUE(doc->nodesForXPath("//text()[contains(., 'TOPSECRET')]").empty()) << xml;
    }
  }
}
