// show, get, set, unset, watch-folders, carriers, carrier and phone.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <set>

#include "MVEncryption.h"
#include "PrefsCommands.h"
#include "QuillonPreferences.h"
#include "SettingsCatalog.h"
#include "TextCarriers.h"

using namespace QuillonSettingsKeys;

namespace prefs {

namespace {

const char* formatName(const SettingsFile& settings) {
  if (!settings.exists()) return "not created yet";
  return settings.format() == MVPropertyList::Format::Binary ? "binary" : "XML";
}

// "on"/"off" as the agent reads a stored switch: only exactly 1 is on.
std::string switchState(const MVPlistValue& value) { return value.integerValue() == 1 ? " (on)" : " (off)"; }

const SettingDescription* knownSetting(const std::string& key, int& status) {
  const SettingDescription* setting = findSetting(key);
  if (!setting) status = fail("unknown key '" + key + "'; 'quillon-prefs show' lists the keys");
  return setting;
}

std::string trimmedRight(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
  return text;
}

std::string digitsOf(const std::string& text) {
  std::string digits;
  for (char c : text)
    if (c >= '0' && c <= '9') digits += c;
  return digits;
}

}  // namespace

int runShow(const Arguments& arguments) {
  if (!arguments.empty()) return usageError(*findCommand("show"), "show takes no arguments");
  auto settings = readSettings();
  if (!settings) return kFailed;
  std::cout << "Settings file: " << settings->path() << " (" << formatName(*settings) << ")\n\n";
  for (const auto& setting : allSettings()) {
    const MVPlistValue& value = (*settings)[setting.key];
    std::string shown;
    if (value.isNil())
      shown = std::string("not set: ") + setting.whenAbsent;
    else if (setting.kind == SettingKind::Switch)
      shown = displayValue(setting, value) + switchState(value);
    else
      shown = displayValue(setting, value);
    std::printf("%-22s %-28s %s\n", setting.key, shown.c_str(), setting.meaning);
  }
  std::fflush(stdout);
  std::string others;
  for (const auto& [key, value] : settings->dictionary())
    if (!findSetting(key)) others += (others.empty() ? "" : ", ") + key;
  if (!others.empty()) std::cout << "\nOther keys, kept as they are: " << others << "\n";
  return kSucceeded;
}

int runGet(const Arguments& arguments) {
  const Command& command = *findCommand("get");
  if (arguments.size() != 1) return usageError(command, "get takes one key");
  int status = kSucceeded;
  const SettingDescription* setting = knownSetting(arguments[0], status);
  if (!setting) return status;
  auto settings = readSettings();
  if (!settings) return kFailed;
  const MVPlistValue& value = (*settings)[setting->key];
  if (value.isNil()) return fail(std::string(setting->key) + " is not set (when absent: " + setting->whenAbsent + ")");
  if (const auto* folders = value.array(); folders && setting->kind == SettingKind::FolderList) {
    for (const auto& folder : *folders) std::cout << (folder.string() ? *folder.string() : folder.description()) << "\n";
    return kSucceeded;
  }
  std::cout << displayValue(*setting, value) << "\n";
  return kSucceeded;
}

int runSet(const Arguments& arguments) {
  const Command& command = *findCommand("set");
  if (arguments.size() != 2) return usageError(command, "set takes a key and one value (quote values with spaces)");
  int status = kSucceeded;
  const SettingDescription* setting = knownSetting(arguments[0], status);
  if (!setting) return status;
  if (setting->kind == SettingKind::Carrier)
    return editSettings([&](SettingsFile& settings, std::string& error) {
      return setTextCarrier(settings, arguments[1], error);
    });
  ParsedSetting parsed = parseSetting(*setting, arguments[1]);
  if (!parsed.error.empty()) return fail(parsed.error);
  return editSettings([&](SettingsFile& settings, std::string&) {
    if (settings[setting->key] == parsed.value) {
      std::cout << setting->key << " is already " << displayValue(*setting, parsed.value) << "\n";
      return false;
    }
    settings.set(setting->key, parsed.value);
    return true;
  });
}

int runUnset(const Arguments& arguments) {
  const Command& command = *findCommand("unset");
  if (arguments.size() != 1) return usageError(command, "unset takes one key");
  int status = kSucceeded;
  const SettingDescription* setting = knownSetting(arguments[0], status);
  if (!setting) return status;
  return editSettings([&](SettingsFile& settings, std::string&) {
    if (settings.remove(setting->key)) return true;
    std::cout << setting->key << " was not set\n";
    return false;
  });
}

int runWatchFolders(const Arguments& arguments) {
  const Command& command = *findCommand("watch-folders");
  if (arguments.empty()) return usageError(command, "watch-folders needs list, add, remove, poll or unpoll");
  const std::string& action = arguments[0];
  Arguments paths(arguments.begin() + 1, arguments.end());

  if (action == "list") {
    if (!paths.empty()) return usageError(command, "list takes no paths");
    auto settings = readSettings();
    if (!settings) return kFailed;
    if (const auto* folders = (*settings)[kWatchFoldersKey].array())
      for (const auto& folder : *folders) std::cout << (folder.string() ? *folder.string() : folder.description()) << "\n";
    return kSucceeded;
  }
  if (action != "add" && action != "remove" && action != "poll" && action != "unpoll")
    return usageError(command, "unknown action '" + action + "'");
  if (paths.empty()) return usageError(command, action + " needs at least one folder");
  // poll and unpoll edit the list of folders read again every few seconds
  // (shares whose changes the system does not announce) the same way.
  const bool adding = action == "add" || action == "poll";
  const char* key = action == "poll" || action == "unpoll" ? "watchFoldersPolled" : kWatchFoldersKey;

  // Every path is checked before anything is changed: one bad path in a
  // list leaves the whole list as it was.
  std::vector<std::string> absolute;
  for (const auto& path : paths) {
    std::string full = absolutePath(path);
    struct stat info {};
    if (adding && (::stat(full.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)))
      return fail("not a folder: " + full + " (nothing was changed)");
    absolute.push_back(full);
  }
  return editSettings([&](SettingsFile& settings, std::string& error) {
    MVPlistValue folders = settings[key];
    if (folders.isNil()) folders = MVPlistValue(MVPlistValue::Array{});
    if (!folders.isArray()) {
      error = std::string(key) + " in the settings file is not a list; 'unset " + key + "' first (nothing was changed)";
      return false;
    }
    MVPlistValue::Array& list = *folders.array();
    bool changed = false;
    for (std::size_t i = 0; i < absolute.size(); ++i) {
      const std::string& path = absolute[i];
      auto found = std::find(list.begin(), list.end(), MVPlistValue(path));
      if (adding) {
        if (found != list.end()) {
          std::cout << (action == "add" ? "already watched: " : "already polled: ") << path << "\n";
          continue;
        }
        list.push_back(MVPlistValue(path));
        changed = true;
      } else {
        // A folder given relative to where it was listed, or as stored.
        if (found == list.end()) found = std::find(list.begin(), list.end(), MVPlistValue(paths[i]));
        if (found == list.end()) {
          error = (action == "remove" ? "not a watch folder: " : "not a polled folder: ") + path +
                  " (nothing was changed)";
          return false;
        }
        list.erase(found);
        changed = true;
      }
    }
    if (changed) settings.set(key, folders);
    return changed;
  });
}

bool setTextCarrier(SettingsFile& settings, const std::string& identifier, std::string& error) {
  auto carriers = loadTextCarriers(error);
  if (!carriers) return false;
  if (!findTextCarrier(*carriers, identifier)) {
    error = "unknown carrier '" + identifier + "'; 'quillon-prefs carriers' lists them";
    return false;
  }
  if (settings[kSelectedTextCarrierKey] == MVPlistValue(identifier)) {
    std::cout << kSelectedTextCarrierKey << " is already " << identifier << "\n";
    return false;
  }
  settings.set(kSelectedTextCarrierKey, identifier);
  return true;
}

int runCarriers(const Arguments& arguments) {
  if (!arguments.empty()) return usageError(*findCommand("carriers"), "carriers takes no arguments");
  std::string error;
  auto carriers = loadTextCarriers(error);
  if (!carriers) return fail(error);
  auto settings = readSettings();
  if (!settings) return kFailed;
  const std::string* chosen = (*settings)[kSelectedTextCarrierKey].string();
  // The agent texts through "att" when nothing is chosen.
  std::string selected = chosen && !chosen->empty() ? *chosen : "att";
  for (const auto& carrier : *carriers)
    std::printf("%s %-12s %-20s %-3s %s\n", carrier.identifier == selected ? "*" : " ", carrier.identifier.c_str(),
                carrier.name.c_str(), carrier.country.c_str(), carrier.domain.c_str());
  std::fflush(stdout);
  return kSucceeded;
}

int runCarrier(const Arguments& arguments) {
  if (arguments.size() != 1) return usageError(*findCommand("carrier"), "carrier takes one identifier");
  return editSettings(
      [&](SettingsFile& settings, std::string& error) { return setTextCarrier(settings, arguments[0], error); });
}

int runPhone(const Arguments& arguments) {
  const Command& command = *findCommand("phone");
  if (arguments.size() > 1) return usageError(command, "phone takes one number (quote it if it has spaces)");

  if (arguments.empty()) {
    auto settings = readSettings();
    if (!settings) return kFailed;
    const MVPlistValue& stored = (*settings)[kTxtMessagePhoneNumberKey];
    if (!stored.isData() || stored.count() == 0) return fail("no text-message number is set");
    const auto plain = MVEncryption::AESDecryptData(*stored.data(), MVEncryption::kTextMessagePassphrase);
    std::string number = trimmedRight(std::string(plain.begin(), plain.end()));
    std::cout << "Number: " << number << "\n";
    std::string error;
    const std::string* chosen = (*settings)[kSelectedTextCarrierKey].string();
    std::string carrierID = chosen && !chosen->empty() ? *chosen : "att";
    if (auto carriers = loadTextCarriers(error)) {
      if (const TextCarrier* carrier = findTextCarrier(*carriers, carrierID))
        std::cout << "Texted at: " << digitsOf(number) << "@" << carrier->domain << " (" << carrier->name << ")\n";
      else
        std::cout << "Carrier '" << carrierID << "' is not in the carrier table: no text can be sent\n";
    }
    if ((*settings)[kTxtMessageNumberKey].count() == 0)
      std::cout << "Failed renders are not texted (" << kTxtMessageNumberKey << " is empty)\n";
    return kSucceeded;
  }

  if (arguments[0] == "--clear")
    return editSettings([](SettingsFile& settings, std::string&) {
      bool removed = settings.remove(kTxtMessagePhoneNumberKey);
      removed = settings.remove(kTxtMessageNumberKey) || removed;
      if (!removed) std::cout << "no text-message number was set\n";
      return removed;
    });

  const std::string number = arguments[0];
  const bool allowed = std::all_of(number.begin(), number.end(), [](char c) {
    return (c >= '0' && c <= '9') || c == ' ' || c == '+' || c == '-' || c == '(' || c == ')' || c == '.';
  });
  const std::size_t digits = digitsOf(number).size();
  // E.164 numbers have at most 15 digits; fewer than 3 is surely a typo.
  if (!allowed || digits < 3 || digits > 15)
    return fail("'" + number + "' is not a phone number: use 3 to 15 digits, with spaces and + - ( ) . if you like");

  const std::size_t first = number.find_first_not_of(' ');
  const std::string text = number.substr(first, number.find_last_not_of(' ') - first + 1);
  MVPlistValue encrypted(MVEncryption::AESEncryptData(
      std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()),
      MVEncryption::kTextMessagePassphrase));
  return editSettings([&](SettingsFile& settings, std::string&) {
    // The failure path of the agent tests the second key, so both carry the number.
    settings.set(kTxtMessagePhoneNumberKey, encrypted);
    settings.set(kTxtMessageNumberKey, encrypted);
    return true;
  });
}

}  // namespace prefs
