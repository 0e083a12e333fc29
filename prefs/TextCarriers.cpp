#include "TextCarriers.h"

#include "MVLocalPaths.h"
#include "MVPropertyList.h"
#include "MVResources.h"

std::optional<std::vector<TextCarrier>> loadTextCarriers(std::string& error) {
  const std::string folder = MVResources::resourcesDirectory();
  if (folder.empty()) {
    error = "the carrier table cannot be found: no resources folder (set QUILLON_RESOURCES or reinstall)";
    return std::nullopt;
  }
  const std::string path = MVAppendPathComponent(folder, "carriers.plist");
  MVPlistValue table = MVPropertyList::read(path);
  if (!table.isDictionary()) {
    error = "the carrier table " + path + " is missing or unreadable";
    return std::nullopt;
  }
  std::vector<TextCarrier> carriers;
  for (const auto& [identifier, entry] : *table.dictionary()) {
    const std::string* domain = entry["domain"].string();
    if (!domain || domain->empty()) continue;  // the agent cannot text through it either
    const std::string* name = entry["name"].string();
    const std::string* country = entry["country"].string();
    carriers.push_back({identifier, name ? *name : identifier, *domain, country ? *country : ""});
  }
  return carriers;
}

const TextCarrier* findTextCarrier(const std::vector<TextCarrier>& carriers, const std::string& identifier) {
  for (const auto& carrier : carriers)
    if (carrier.identifier == identifier) return &carrier;
  return nullptr;
}
