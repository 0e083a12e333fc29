// SettingsCatalog: every key of the agent's settings file as the
// preferences tool presents and edits it: the kind of value it takes, what
// it does for the user and what its absence means.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "MVPlistValue.h"

enum class SettingKind {
  Switch,          // integer 0 or 1
  LogoutAction,    // integer 0 to 3, or its name
  Port,            // integer 1 to 65535
  ApplicationPath, // absolute path of an existing application or program
  ScriptPath,      // absolute path of an existing file
  Address,         // one e-mail address
  AddressList,     // e-mail addresses separated by ',' or ';'
  Host,            // a host name or address
  Text,            // any non-empty text
  FolderList,      // array of absolute folder paths (watch-folders command)
  PhoneNumber,     // encrypted data (phone command)
  Carrier,         // identifier in the carrier table
  Seconds,         // integer 1 to 3600
  PushTargetList,  // masked target URLs (push command; secrets in the secret store)
};

struct SettingDescription {
  const char* key;
  SettingKind kind;
  const char* meaning;
  const char* whenAbsent;
};

// In the order the tool shows them.
const std::vector<SettingDescription>& allSettings();
// Nullptr for a key the agent does not know.
const SettingDescription* findSetting(std::string_view key);

// What `set` stores for `text`, or an error saying what the key takes.
struct ParsedSetting {
  MVPlistValue value;
  std::string error;
};
ParsedSetting parseSetting(const SettingDescription& setting, const std::string& text);

// Relative paths are taken from the working folder; "~" is the home folder;
// the result is normalised and has no trailing slash.
std::string absolutePath(const std::string& path);

// One line of text for a stored value ("1", "smtp.example.com", ...).
std::string displayValue(const SettingDescription& setting, const MVPlistValue& value);
