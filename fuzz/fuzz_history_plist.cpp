// Compressor's batch history files ("...compressorJobBatch"): a property-list
// array whose first element is the batch's XML with its angle brackets
// escaped and whose fourth holds the jobs' progress. Read the way the
// Compressor watcher falls back to them when a monitor does not answer.
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "MVFormat.h"
#include "MVPropertyList.h"
#include "MVXMLDocument.h"
#include "MVXMLParser.h"

namespace {

std::string replaceAll(std::string text, const std::string& find, const std::string& replacement) {
  for (std::size_t at = text.find(find); at != std::string::npos; at = text.find(find, at + replacement.size()))
    text.replace(at, find.size(), replacement);
  return text;
}

void readBatchXML(const std::string& escaped) {
  std::string xml = replaceAll(replaceAll(escaped, "&lt;", "<"), "&gt;", ">");
  std::optional<MVXMLDocument> document = MVXMLDocument::documentWithData(xml);
  if (!document) return;
  MVXMLNode root = document->rootElement();
  for (const auto& [name, value] : root.attributes()) (void)MVFormatString("%@ = %@", name, value);
  (void)root.attributeForName("id");
  for (const MVXMLNode& source : root.nodesForXPath("./jobs[1]/job/source/@fileURL"))
    (void)MVXMLParser::filenameFromPathURLString(source.stringValue());
}

void readJobProgress(const MVPlistValue& info) {
  if (const MVPlistValue::Array* jobs = info["BatchInfoJobs"].array()) {
    for (const MVPlistValue& job : *jobs)
      if (job["ElementStatusPercentComplete"].doubleValue() < 100.0) break;
  }
}

}  // namespace

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MVPlistValue root = MVPropertyList::parse(std::string(quillon_fuzz::asText(data, size)));
  quillon_fuzz::touchEveryValue(root);
  const MVPlistValue::Array* entries = root.array();
  if (!entries || entries->empty()) return 0;
  if (const std::string* escaped = (*entries)[0].string()) readBatchXML(*escaped);
  if (entries->size() >= 4) readJobProgress((*entries)[3]);
  (void)MVFormatString("batchdict: %@", root);
  return 0;
}
