// The batch XML that Compressor's Share Monitor and Batch Monitor print.
// Their output is parsed with the tidy option, which repairs what it can,
// and read through the batchStatus and jobStatus elements as the Compressor
// watcher reads it.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "MVFormat.h"
#include "MVXMLDocument.h"
#include "MVXMLParser.h"

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string error;
  std::optional<MVXMLDocument> document =
      MVXMLDocument::documentWithData(quillon_fuzz::asText(data, size), MVXMLDocument::kTidyXML, &error);
  if (!document) return 0;

  std::vector<MVXMLNode> batches = document->nodesForXPath(".//batchStatus", &error);
  if (batches.empty()) (void)document->xmlString();
  for (const MVXMLNode& batch : batches) {
    (void)MVFormatString("Batch xml: %@", batch.xmlString());
    for (const auto& [name, value] : batch.attributes()) (void)MVFormatString("%@ = %@", name, value);
    for (const MVXMLNode& job : batch.nodesForXPath(".//jobStatus")) (void)job.attributeForName("name");
  }

  // The same questions through the query shortcuts, whose queries are
  // escaped first.
  MVXMLNode root = document->rootElement();
  (void)MVXMLParser::stringValuesForQuery(".//batchStatus/@batchid", root);
  (void)MVXMLParser::stringValueForQuery("./batchStatus[1]/@status", root);
  (void)MVXMLParser::nodesForQuery(".//jobStatus[@name]", root);
  (void)MVXMLParser::idAttributeForNode(MVXMLParser::nodeForQuery(".//batchStatus", root));
  (void)MVXMLParser::nameForNode(root);
  (void)MVXMLParser::nextSiblingForNode(root);
  return 0;
}
