// Premiere Pro's XML: the preference file (recently opened projects), the
// project files (preview folders) and the installation's version file. All
// are parsed without repair, so malformed files are rejected, and queried
// with the queries the Premiere watcher uses.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "MVXMLDocument.h"
#include "MVXMLParser.h"

namespace {

constexpr const char* kRecentDocumentsQuery =
    "./PremiereData[1]/Preferences[1]/Properties[1]/*[starts-with(name(),'BE.Prefs.MRU.Document.')]/text()";
constexpr const char* kPreviewLocationQuery =
    "(./PremiereData[1]/ScratchDiskSettings[1]/VideoPreviewLocation"
    " | ./PremiereData[1]/ScratchDiskSettings[1]/AudioPreviewLocation)[1]/text()";
constexpr const char* kProductVersionQuery = "./Configuration/VariableForExMan/Data[@key='ProductVersion']";

}  // namespace

QUILLON_FUZZ_INITIALIZE_IN_SCRATCH_HOME()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string error;
  std::optional<MVXMLDocument> document =
      MVXMLDocument::documentWithData(quillon_fuzz::asText(data, size), MVXMLDocument::kNone, &error);
  if (!document) return 0;

  for (const char* query : {kRecentDocumentsQuery, kPreviewLocationQuery}) {
    for (const MVXMLNode& hit : document->nodesForXPath(query, &error)) {
      (void)hit.stringValue();
      (void)hit.parent().name();
    }
  }
  (void)MVXMLParser::stringValueForQuery(kProductVersionQuery, document->node());

  // Writing a preference edits the tree in place and writes it out again.
  for (MVXMLNode hit : document->nodesForXPath(kRecentDocumentsQuery)) (void)hit.setStringValue("/Volumes/Media");
  (void)document->xmlString(true);
  return 0;
}
