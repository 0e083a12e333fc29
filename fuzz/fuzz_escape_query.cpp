// escapeQueryString, which every query shortcut runs first. Queries are
// built from names found on disk and in other programs' files, so any text
// can reach it; the escaped query is then evaluated, which must fail
// cleanly when it is not valid XPath.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "MVXMLDocument.h"
#include "MVXMLParser.h"

namespace {

const MVXMLDocument& sampleDocument() {
  static const MVXMLDocument document = *MVXMLDocument::documentWithData(
      "<batches><batchStatus batchid=\"1\" status=\"Successful\" name=\"caf%C3%A9\">"
      "<jobStatus name=\"clip one.mov\"/></batchStatus></batches>");
  return document;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quillon_fuzz::useScratchHome();
  (void)sampleDocument();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string query(quillon_fuzz::asText(data, size));
  std::string escaped = MVXMLParser::escapeQueryString(query);
  // Control characters below 20 are stripped, carriage returns included.
  for (unsigned char c : escaped)
    if (c < 20) std::abort();

  (void)MVXMLParser::stringValuesForQuery(query, sampleDocument().rootElement());
  return 0;
}
