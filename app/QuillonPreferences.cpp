#include "QuillonPreferences.h"

#include "MVLocalPaths.h"
#include "MVPropertyList.h"

std::string QuillonPreferences::settingsPath() {
  return MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), "com.morvane.Quillon.plist");
}

MVPlistValue QuillonPreferences::objectForPreferenceDictionaryKey(const std::string& key) {
  return MVPropertyList::read(settingsPath())[key];
}

void QuillonPreferences::setObject(const MVPlistValue& value, const std::string& preferenceDictionaryKey) {
  if (value.isNil() || preferenceDictionaryKey.empty()) return;
  const std::string path = settingsPath();
  MVPropertyList::Format format = MVPropertyList::Format::XML;
  MVPlistValue settings = MVPropertyList::read(path, &format);
  if (!settings.isDictionary()) settings = MVPlistValue(MVPlistValue::Dictionary{});
  settings.set(preferenceDictionaryKey, value);
  // The preferences application owns the file; a failed write is its to notice.
  (void)MVPropertyList::write(path, settings, format);
}

bool QuillonPreferences::isEqualToOne(const std::string& key) {
  return objectForPreferenceDictionaryKey(key).integerValue() == 1;
}

bool QuillonPreferences::isPresentOrOne(const std::string& key) {
  MVPlistValue value = objectForPreferenceDictionaryKey(key);
  return value.isNil() || value.integerValue() == 1;
}

bool QuillonPreferences::isNonEmpty(const std::string& key) {
  return objectForPreferenceDictionaryKey(key).count() != 0;
}
