// QuillonPreferences: the agent's settings file and the keys it reads.
//
// The preferences application writes "com.morvane.Quillon.plist" in the
// user's preferences folder; the agent reads it. There is deliberately no
// in-memory copy: every read parses the whole file again, so a change made
// by the preferences application counts at the very next read. A missing or
// malformed file reads as an empty dictionary and is never touched by reads.
// Every operation may be called from any thread.
#pragma once

#include <string>

#include "MVPlistValue.h"

// The keys of the settings file.
namespace QuillonSettingsKeys {
inline constexpr const char* kWatchQmasterKey = "watchQmaster";
inline constexpr const char* kWatchFCPRendersKey = "watchFCPRenders";
inline constexpr const char* kWatchAvidRendersKey = "watchAvidRenders";
inline constexpr const char* kWatchAMEQueueKey = "watchAMEQueue";
inline constexpr const char* kWatchPremiereRendersKey = "watchPremiereRenders";
inline constexpr const char* kWatchFoldersKey = "watchFolders";
inline constexpr const char* kOnlyWhenInactiveKey = "onlyWhenInactive";
inline constexpr const char* kNotifyGrowlKey = "notifyGrowl";
inline constexpr const char* kNotifySoundKey = "notifySound";
inline constexpr const char* kNotifyFinderKey = "notifyFinder";
inline constexpr const char* kNotifyQuickTimeKey = "notifyQuickTime";
inline constexpr const char* kNotifySendToAppKey = "notifySendToApp";
inline constexpr const char* kSendToAppPathKey = "sendToAppPath";
inline constexpr const char* kNotifyEmailKey = "notifyEmail";
inline constexpr const char* kNotifyTextKey = "notifyText";
inline constexpr const char* kTxtMessagePhoneNumberKey = "txtMessagePhoneNumber";
// Tested by the failure path instead of kTxtMessagePhoneNumberKey; the two
// are distinct keys and must stay so.
inline constexpr const char* kTxtMessageNumberKey = "txtMessageNumber";
inline constexpr const char* kSelectedTextCarrierKey = "selectedTextCarrier";
inline constexpr const char* kNotifyRunScriptKey = "notifyRunScript";
inline constexpr const char* kScriptPathKey = "scriptPath";
inline constexpr const char* kLogoutActionKey = "logoutAction";
inline constexpr const char* kEmailFromAddressKey = "emailFromAddress";
inline constexpr const char* kEmailToAddressKey = "emailToAddress";
inline constexpr const char* kEmailServerKey = "emailServer";
inline constexpr const char* kEmailUseAuthKey = "emailUseAuth";
inline constexpr const char* kEmailAccountNameKey = "emailAccountName";
inline constexpr const char* kEmailPortKey = "emailPort";
inline constexpr const char* kEmailUseTLSKey = "emailUseTLS";
}  // namespace QuillonSettingsKeys

class QuillonPreferences {
 public:
  // "<preferences folder>/com.morvane.Quillon.plist".
  static std::string settingsPath();

  // The value stored under `key`, or nil (missing file, unreadable file,
  // root that is no dictionary, absent key).
  static MVPlistValue objectForPreferenceDictionaryKey(const std::string& key);

  // Stores `value` under `preferenceDictionaryKey` and writes the file back
  // atomically, in the format it had (XML for a new or unreadable file),
  // keeping every other key. A nil value or an empty key does nothing; a
  // failed write is not reported.
  static void setObject(const MVPlistValue& value, const std::string& preferenceDictionaryKey);

  // The tests that readers apply. Values are tested as they stand: a string
  // answers by its leading digits, an array by its count.
  // "equal to 1": the integer value is exactly 1 (number 1, "1", true).
  static bool isEqualToOne(const std::string& key);
  // "present or 1": absent means on; otherwise as isEqualToOne.
  static bool isPresentOrOne(const std::string& key);
  // "non-empty": the length of a string or data, or the count of an array
  // (or dictionary), is non-zero; absent is empty.
  static bool isNonEmpty(const std::string& key);
};
