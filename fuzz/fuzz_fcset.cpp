// Final Cut Pro's binary preference file (".fcset"), which the agent scans
// for the render and scratch folders. The parser reads only files, so each
// input is written to a preference file of its own in the scratch home.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "FuzzSupport.h"
#include "MVFCPPrefParser.h"

namespace {

std::string& preferenceFile() {
  static std::string path;
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quillon_fuzz::useScratchHome();
  preferenceFile() = quillon_fuzz::scratchHome() + "/Final Cut Pro 7.0 Prefs.fcset";
  // A fixed boot volume: the real one is looked up in the mount table on
  // every path, which would make the target measure /proc.
  MVFCPPrefParser::setBootVolumeNameForTesting(std::optional<std::optional<std::string>>("Macintosh HD"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream out(preferenceFile(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) std::abort();
  }
  // The cache entry is keyed by the file's modification second, so without
  // this every input after the first in the same second would be answered
  // from the cache and never scanned.
  unlink(MVFCPPrefParser::cacheFilePath().c_str());

  MVFCPPrefParser parser;
  parser.setPreferenceFilePath(preferenceFile());
  parser.loadData();
  if (parser.dataIsLoaded()) {
    // The paths found become watch folders: they must at least be absolute.
    for (const MVFCPPrefParser::Path* path : {&parser.renderPath(), &parser.scratchPath(), &parser.autosavePath()})
      if (*path && !(*path)->starts_with('/')) std::abort();
  }
  return 0;
}
