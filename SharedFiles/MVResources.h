// MVResources: the folder of the files the agent ships beside itself
// (notification icons, the carrier table).
//
// Looked up in this order: the folder named by $QUILLON_RESOURCES; the
// installed "../share/quillon" beside the executable; the source tree's
// "resources" folder of a development build. Empty when none exists.
#pragma once

#include <string>

class MVResources {
 public:
  static std::string resourcesDirectory();
  // The file of a named image in the resources folder, or "" when there is
  // none. The name may carry another platform's extension: "Avid.icns" finds
  // "Avid.png" or "Avid.svg" when no "Avid.icns" exists.
  static std::string pathForImageResource(const std::string& name);
};
