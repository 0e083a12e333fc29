// MVPropertyList: reading and writing property-list files, XML or binary.
//
// This is the only place that knows the codec; everything else works with
// MVPlistValue. Reads never throw and never write: a missing, empty,
// truncated or garbage file reads as nil.
#pragma once

#include <optional>
#include <string>

#include "MVPlistValue.h"

class MVPropertyList {
 public:
  enum class Format { XML, Binary };

  // The root value of the file, or nil. `formatOut` receives the format
  // found, and is left untouched when nothing could be read.
  static MVPlistValue read(const std::string& path, Format* formatOut = nullptr);
  static MVPlistValue parse(const std::string& bytes, Format* formatOut = nullptr);
  // None when the value cannot be stored (nil, or a date out of range).
  // Nil values inside arrays and dictionaries are left out.
  static std::optional<std::string> serialize(const MVPlistValue& value, Format format);
  // Writes to a temporary file beside the target, flushes it to disk and
  // renames it over, so a reader sees either the old or the new file. An
  // existing file keeps its permissions; a missing folder is created. False
  // on failure, and the old file is then untouched.
  [[nodiscard]] static bool write(const std::string& path, const MVPlistValue& value,
                                  Format format = Format::XML);
};

// The maker-wide switches file "com.morvane.global.plist" in the user's
// preferences folder, read afresh at every call.
class MVGlobalPreferences {
 public:
  static constexpr const char* kGrowlDisabledKey = "growlDisabled";
  static constexpr const char* kDisableLoggingKey = "disable-logging";
  static constexpr const char* kDisableCrashReporterKey = "disable-crash-reporter";

  static std::string path();
  static MVPlistValue objectForKey(const std::string& key);
  // The rule of "disable-logging" and "disable-crash-reporter": the string
  // "1", or a number equal to boolean true (integer 1, real 1.0 or true).
  static bool isSwitchSet(const std::string& key);
  // The rule of "growlDisabled": a boolean value of true; a number reads as
  // its boolean value (non-zero is true), a string never counts.
  static bool isBooleanTrue(const std::string& key);
};
