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

std::vector<std::string> ids(const std::vector<MVXMLNode>& nodes) {
  std::vector<std::string> out;
  for (const MVXMLNode& node : nodes) out.push_back(node.attributeForName("id").value_or("?"));
  return out;
}

// The lines logged while `body` runs.
template <typename Body>
std::string loggedDuring(Body body) {
  MVLog::createNewLog("XMLParserTest", true);
  LogSince log;
  body();
  return log.text();
}

const char* kProject = R"(<?xml version="1.0"?>
<project id="p">
  <name>Feature%20Cut</name>
  <sequence id="s">
    <uuid>1234-ABCD</uuid>
    <track id="t">
      <clipitem id="outer">
        <clipitem id="inner"><name>Shot%zz</name></clipitem>
      </clipitem>
      <clipitem id="Caf%C3%A9"/>
      <clipitem id="plain%2Fid"/>
    </track>
  </sequence>
  <bin id="b"><item id="deep"><sub><name>Deep</name></sub></item></bin>
</project>)";

}  // namespace

TEST(MVXMLParserTest, EscapingWorksOnUTF16UnitsAndNeverReadsPastTheString) {
  const std::pair<std::string, std::string> cases[] = {
      {"&", "&amp;"},            // shorter than the five-unit look-ahead
      {"&amp", "&amp;amp"},      // four units: still too short to be the entity
      {"x&amp;", "x&amp;"},
      {"\xc2\xa0", "&#160;"},
      {"\xf0\x9f\x98\x80", "&#55357;&#56832;"},  // each surrogate on its own
      {"\xff", "&#65533;"},      // invalid UTF-8 reads as a replacement character
      {"line\r", "line&#13;"},
      {"a\tb\nc\x13", "abc"},
      {"\x14 <'\"> kept", "\x14 <'\"> kept"},
  };
  std::string log = loggedDuring([&] {
    for (const auto& [query, escaped] : cases) EXPECT_EQ(MVXMLParser::escapeQueryString(query), escaped) << query;
  });
  EXPECT_EQ(timesIn(log, "Stripped character"), 3u) << log;
}

TEST(MVXMLParserTest, QueryShortcutsAnswerNullForNoMatchAndLogOnlyWhereTheySay) {
  MVXMLDocument doc = parse(kProject);
  MVXMLNode root = doc.rootElement();

  EXPECT_EQ(MVXMLParser::stringValueForQuery("./sequence[1]/uuid[1]/text()", root), "1234-ABCD");
  EXPECT_TRUE(MVXMLParser::nodeForQuery(".//nothing", root).isNull());

  // Each node once, in the order first met.
  auto collected = MVXMLParser::node(root, std::vector<std::string>{".//track", ".//clipitem[1]", ".//track"});
  EXPECT_EQ(ids(collected), (std::vector<std::string>{"t", "outer", "inner"}));

  std::string log = loggedDuring([&] {
    EXPECT_TRUE(MVXMLParser::stringValueForQuery("//clipitem[", root) == std::nullopt);
    EXPECT_TRUE(MVXMLParser::nodesForQuery("//clipitem[", root).empty());
    EXPECT_EQ(ids(MVXMLParser::node(root, std::vector<std::string>{"][", ".//track"})),
              (std::vector<std::string>{"t"}));
  });
  EXPECT_EQ(timesIn(log, "XML parsing error: "), 2u) << log;
}

// Walks the agent itself does not take; one case each keeps them honest.
TEST(MVXMLParserTest, NameAncestorSiblingAndClipWalks) {
  MVXMLDocument doc = parse(kProject);
  auto item = [&](const std::string& id) { return doc.nodesForXPath("//*[@id='" + id + "']").at(0); };
  EXPECT_EQ(MVXMLParser::nameForNode(item("p")), "Feature Cut");
  EXPECT_EQ(MVXMLParser::nameForNode(item("outer")), "Shot%zz");        // bad escape, from a descendant
  EXPECT_EQ(MVXMLParser::nameForNode(item("plain%2Fid")), "plain/id");  // the id as fallback
  EXPECT_EQ(MVXMLParser::uuidForNode(item("p")), "1234-ABCD");
  EXPECT_EQ(MVXMLParser::idAttributeForNode(item("Caf%C3%A9")), std::nullopt);
  EXPECT_EQ(ids({MVXMLParser::node(item("inner"), "clipitem")}), std::vector<std::string>{"outer"});
  EXPECT_TRUE(MVXMLParser::node(item("inner"), "sequence", std::vector<std::string>{"sequence"}).isNull());
  EXPECT_EQ(ids({MVXMLParser::nextSiblingForNode(item("plain%2Fid"))}), std::vector<std::string>{"b"});

  MVXMLDocument track = parse(R"(<track>
    <clipitem id="a"><start>0</start><end>-1</end></clipitem>
    <transitionitem id="t1"><start>90</start><end>110</end></transitionitem>
    <clipitem id="b"><start>-1</start><end>300</end></clipitem>
    <clipitem id="c"><start>300</start><end>400</end></clipitem>
  </track>)");
  long start = -99, end = -99;
  auto walked = MVXMLParser::affectedNodesForClip(track.nodesForXPath("//*[@id='b']").at(0), &start, &end);
  EXPECT_EQ(ids(walked), (std::vector<std::string>{"a", "t1", "b"}));
  EXPECT_EQ(start, 0);
  EXPECT_EQ(end, 300);
}

TEST(MVXMLParserTest, FileURLsBecomePaths) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {std::nullopt, std::nullopt},
      {"file:///Users/ann/Movies/a%20b.mov", "/Users/ann/Movies/a b.mov"},
      {"file:///caf%C3%A9.mov", "/caf\xc3\xa9.mov"},
      {"http://host/a/b?q=1#frag", "/a/b"},
      {"file:///bad%ZZ", std::nullopt},
      {"file:///with space", std::nullopt},
  };
  for (const auto& [url, path] : cases)
    EXPECT_EQ(MVXMLParser::filenameFromPathURLString(url), path) << url.value_or("(null)");
}

TEST(MVXMLParserTest, MalformedInputFailsStrictlyAndIsRepairedWhenTidy) {
  const std::pair<std::string, const char*> cases[] = {  // the root's text after repair, or no repair
      {"<a><b>text</a>", "text"},
      {"<a>fish & chips</a>", "fish  chips"},
      {"plain text, no markup", nullptr},
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

TEST(MVXMLParserTest, DocumentTreeNavigationEditingAndWriting) {
  std::optional<MVXMLNode> keep;
  {
    MVXMLDocument doc = parse(R"(<PremiereData>
      <ScratchDiskSettings>
        <AudioPreviewLocation>SameAsProject</AudioPreviewLocation>
        <VideoPreviewLocation>MyDocuments</VideoPreviewLocation>
      </ScratchDiskSettings>
      <Job name="a.mov" kind="render"/>
    </PremiereData>)");
    MVXMLNode root = doc.rootElement();
    EXPECT_EQ(root.children().size(), 2u);  // indentation is not content
    MVXMLNode job = root.children().at(1);
    EXPECT_EQ(job.xmlString(), "<Job name=\"a.mov\" kind=\"render\"/>");

    EXPECT_TRUE(doc.nodesForXPath("//AudioPreviewLocation").at(0).setStringValue("/Volumes/A & <B>"));
    EXPECT_TRUE(doc.nodesForXPath("//Job/@name").at(0).setStringValue("b \"c\".mov"));
    EXPECT_FALSE(doc.node().setStringValue("x"));
    std::string path = makeTempDir("write") + "/prefs.xml";
    ASSERT_TRUE(doc.writeToFile(path, true));
    auto reread = MVXMLDocument::documentWithContentsOfFile(path);
    ASSERT_TRUE(reread);
    EXPECT_EQ(MVXMLParser::stringValueForQuery("//AudioPreviewLocation", reread->rootElement()), "/Volumes/A & <B>");
    EXPECT_EQ(reread->rootElement().children().at(1).attributeForName("name"), "b \"c\".mov");
    keep = job;
  }
  // A node keeps its document alive after the document value is gone.
  EXPECT_EQ(keep->parent().name(), "PremiereData");
}
