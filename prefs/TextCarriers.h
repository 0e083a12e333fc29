// The carrier table ("carriers.plist" in the resources folder): mobile
// carriers and the e-mail domains of their text-message gateways.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct TextCarrier {
  std::string identifier;  // what "selectedTextCarrier" stores
  std::string name;
  std::string domain;
  std::string country;
};

// Sorted by identifier; none, with `error` set, when the table is missing
// or unreadable.
std::optional<std::vector<TextCarrier>> loadTextCarriers(std::string& error);
const TextCarrier* findTextCarrier(const std::vector<TextCarrier>& carriers, const std::string& identifier);
