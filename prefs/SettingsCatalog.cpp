#include "SettingsCatalog.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>

#include "MVLocalPaths.h"
#include "PushTargets.h"
#include "QuillonPreferences.h"

namespace fs = std::filesystem;
using namespace QuillonSettingsKeys;

namespace {

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool parseInteger(const std::string& text, long long& out) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, out);
  return ec == std::errc() && ptr == end && !text.empty();
}

bool hasSpace(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c) || std::iscntrl(c); });
}

// Plausible enough to catch a typo or a swapped argument; the mail server
// has the last word on what it accepts.
bool looksLikeAddress(const std::string& address) {
  auto at = address.find('@');
  return at != std::string::npos && at > 0 && at + 1 < address.size() && address.find('@', at + 1) == std::string::npos &&
         !hasSpace(address);
}

std::string trimmed(const std::string& text) {
  auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

ParsedSetting failure(std::string error) { return {MVPlistValue(), std::move(error)}; }

}  // namespace

const std::vector<SettingDescription>& allSettings() {
  static const std::vector<SettingDescription> settings = {
      {kWatchQmasterKey, SettingKind::Switch, "watch Compressor batches", "off"},
      {kWatchFCPRendersKey, SettingKind::Switch, "watch Final Cut Pro renders", "off"},
      {kWatchAvidRendersKey, SettingKind::Switch, "watch Avid renders and mounted Avid volumes", "off"},
      {kWatchAMEQueueKey, SettingKind::Switch, "watch the Media Encoder queue", "off"},
      {kWatchPremiereRendersKey, SettingKind::Switch, "watch Premiere renders", "off"},
      {kWatchFoldersKey, SettingKind::FolderList, "folders watched for finished files", "no folder is watched"},
      {"watchImageSequences", SettingKind::Switch, "announce renders of numbered stills (exr, dpx, png, ...)", "on"},
      {"sequenceQuietSeconds", SettingKind::Seconds, "seconds without a new frame before a sequence is finished",
       "10"},
      {"watchFoldersPolled", SettingKind::FolderList,
       "folders read again every 2 s instead of waiting for change notices",
       "only shares and FUSE mounts are polled"},
      {kOnlyWhenInactiveKey, SettingKind::Switch,
       "skip a success notice while the rendering application is frontmost", "off"},
      {kNotifyGrowlKey, SettingKind::Switch, "desktop notification on success and on failure", "on"},
      {kNotifySoundKey, SettingKind::Switch, "play a sound on success and on failure", "on"},
      {kNotifyFinderKey, SettingKind::Switch, "show the finished file in the file manager", "off"},
      {kNotifyQuickTimeKey, SettingKind::Switch, "open the finished file in the video player", "off"},
      {kNotifySendToAppKey, SettingKind::Switch, "open the finished file with sendToAppPath", "off"},
      {kSendToAppPathKey, SettingKind::ApplicationPath, "application that notifySendToApp opens the file with",
       "nothing is opened"},
      {kNotifyEmailKey, SettingKind::Switch, "send an e-mail on success and on failure", "off"},
      {kNotifyTextKey, SettingKind::Switch, "send a text message on success and on failure", "off"},
      {kTxtMessagePhoneNumberKey, SettingKind::PhoneNumber, "phone number for text messages (encrypted)",
       "no text message on success"},
      {kTxtMessageNumberKey, SettingKind::PhoneNumber, "phone number tested before texting a failure",
       "no text message on failure"},
      {kSelectedTextCarrierKey, SettingKind::Carrier, "mobile carrier whose gateway receives the text", "att"},
      {kNotifyPushKey, SettingKind::Switch, "push to the phone and team chat on success and on failure", "off"},
      {kPushTargetsKey, SettingKind::PushTargetList, "where pushes go (secrets in the secret store)", "no push target"},
      {kNotifyRunScriptKey, SettingKind::Switch, "run scriptPath after a successful render", "off"},
      {kScriptPathKey, SettingKind::ScriptPath, "script to run; its extension chooses how", "no script"},
      {kLogoutActionKey, SettingKind::LogoutAction, "afterwards: 0 nothing, 1 sleep, 2 log out, 3 shut down",
       "0 (nothing)"},
      {kEmailFromAddressKey, SettingKind::Address, "sender address; also names the stored SMTP password",
       "no sender"},
      {kEmailToAddressKey, SettingKind::AddressList, "recipients of the e-mail", "no recipient"},
      {kEmailServerKey, SettingKind::Host, "outgoing mail (SMTP) server", "no server"},
      {kEmailUseAuthKey, SettingKind::Switch, "log in to the mail server as emailAccountName", "off"},
      {kEmailAccountNameKey, SettingKind::Text, "login name on the mail server", "no login"},
      {kEmailPortKey, SettingKind::Port, "mail server port tried first", "ports 25, 465, 587"},
      {kEmailUseTLSKey, SettingKind::Switch, "require an encrypted connection to the mail server", "off"},
  };
  return settings;
}

const SettingDescription* findSetting(std::string_view key) {
  for (const auto& setting : allSettings())
    if (key == setting.key) return &setting;
  return nullptr;
}

std::string absolutePath(const std::string& path) {
  fs::path result(path);
  if (path == "~" || path.rfind("~/", 0) == 0) result = fs::path(MVLocalPaths::userDirectory()) / path.substr(std::min<std::size_t>(2, path.size()));
  std::error_code ec;
  if (result.is_relative()) result = fs::current_path(ec) / result;
  std::string normal = result.lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

ParsedSetting parseSetting(const SettingDescription& setting, const std::string& rawText) {
  const std::string key = setting.key;
  const std::string text = trimmed(rawText);
  if (text.empty()) return failure(key + " cannot be set to an empty value; use 'unset " + key + "' to remove it");

  switch (setting.kind) {
    case SettingKind::Switch: {
      const std::string word = lowercase(text);
      if (word == "1" || word == "on" || word == "yes" || word == "true") return {MVPlistValue(1), {}};
      if (word == "0" || word == "off" || word == "no" || word == "false") return {MVPlistValue(0), {}};
      return failure(key + " is a switch: give 1 or 0 (or on/off), not '" + text + "'");
    }
    case SettingKind::LogoutAction: {
      static const std::pair<const char*, int> kNames[] = {
          {"none", 0}, {"nothing", 0}, {"sleep", 1}, {"logout", 2}, {"log-out", 2}, {"shutdown", 3}, {"shut-down", 3}};
      for (const auto& [name, value] : kNames)
        if (lowercase(text) == name) return {MVPlistValue(value), {}};
      long long number = 0;
      if (parseInteger(text, number) && number >= 0 && number <= 3) return {MVPlistValue(number), {}};
      return failure(key + " takes 0 (none), 1 (sleep), 2 (logout) or 3 (shutdown), not '" + text + "'");
    }
    case SettingKind::Port: {
      long long number = 0;
      if (parseInteger(text, number) && number >= 1 && number <= 65535) return {MVPlistValue(number), {}};
      return failure(key + " takes a port number from 1 to 65535, not '" + text + "'");
    }
    case SettingKind::Seconds: {
      long long number = 0;
      if (parseInteger(text, number) && number >= 1 && number <= 3600) return {MVPlistValue(number), {}};
      return failure(key + " takes a number of seconds from 1 to 3600, not '" + text + "'");
    }
    case SettingKind::ApplicationPath:
    case SettingKind::ScriptPath: {
      const std::string path = absolutePath(text);
      struct stat info {};
      if (::stat(path.c_str(), &info) != 0) return failure(key + ": no such file: " + path);
      if (setting.kind == SettingKind::ScriptPath && !S_ISREG(info.st_mode))
        return failure(key + ": not a file: " + path);
      return {MVPlistValue(path), {}};
    }
    case SettingKind::Address:
      if (!looksLikeAddress(text)) return failure(key + " takes one e-mail address such as name@example.com, not '" + text + "'");
      return {MVPlistValue(text), {}};
    case SettingKind::AddressList: {
      std::string rest = text;
      std::size_t start = 0;
      while (start <= rest.size()) {
        std::size_t end = rest.find_first_of(",;", start);
        std::string one = trimmed(rest.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (!looksLikeAddress(one))
          return failure(key + " takes e-mail addresses separated by ',' or ';'; '" + one + "' is not one");
        if (end == std::string::npos) break;
        start = end + 1;
      }
      return {MVPlistValue(text), {}};
    }
    case SettingKind::Host:
      if (hasSpace(text) || text.find('/') != std::string::npos || text.find('@') != std::string::npos)
        return failure(key + " takes a host name such as smtp.example.com, not '" + text + "'");
      return {MVPlistValue(text), {}};
    case SettingKind::Text:
      return {MVPlistValue(text), {}};
    case SettingKind::FolderList:
      return failure(key + " is a list: use 'watch-folders add|remove|poll|unpoll|list'");
    case SettingKind::PhoneNumber:
      return failure(key + " is stored encrypted: use 'phone NUMBER'");
    case SettingKind::Carrier:
      return failure(key + " is chosen with 'carrier ID' (see 'carriers')");
    case SettingKind::PushTargetList:
      return failure(key + " is a list: use 'push add|remove|list'");
  }
  return failure("cannot set " + key);
}

std::string displayValue(const SettingDescription& setting, const MVPlistValue& value) {
  if (value.isNil()) return {};
  if (setting.kind == SettingKind::PhoneNumber) {
    if (value.isData()) return "(" + std::to_string(value.count()) + " bytes, encrypted)";
  }
  if (const std::string* s = value.string()) return *s;
  if (const auto* array = value.array()) {
    std::string joined;
    for (const auto& item : *array) joined += (joined.empty() ? "" : ", ") + (item.string() ? *item.string() : item.description());
    return joined.empty() ? "(empty list)" : joined;
  }
  if (value.type() == MVPlistValue::Type::Integer || value.type() == MVPlistValue::Type::Boolean)
    return std::to_string(value.integerValue());
  return value.description();
}
