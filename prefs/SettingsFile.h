// SettingsFile: the agent's settings file as the preferences tool edits it.
//
// Unlike the agent's reader, which treats a damaged file as empty, the tool
// refuses to work on a file it cannot read: writing an "empty" dictionary
// over it would throw away what the user had. A file is written back whole
// (keys the tool does not know included) and in the form it had, binary or
// XML, atomically.
#pragma once

#include <optional>
#include <string>

#include "MVPlistValue.h"
#include "MVPropertyList.h"

class SettingsFile {
 public:
  // None, with `error` set, when the file exists but is no readable
  // dictionary property list. A missing or empty file is an empty XML one.
  static std::optional<SettingsFile> load(const std::string& path, std::string& error);

  const std::string& path() const { return path_; }
  MVPropertyList::Format format() const { return format_; }
  bool exists() const { return exists_; }

  const MVPlistValue& operator[](const std::string& key) const { return settings_[key]; }
  const MVPlistValue::Dictionary& dictionary() const { return *settings_.dictionary(); }
  void set(const std::string& key, MVPlistValue value) { settings_.set(key, std::move(value)); }
  // True when the key was there.
  bool remove(const std::string& key);

  [[nodiscard]] bool save(std::string& error) const;

 private:
  SettingsFile(std::string path, MVPlistValue settings, MVPropertyList::Format format, bool exists)
      : path_(std::move(path)), settings_(std::move(settings)), format_(format), exists_(exists) {}

  std::string path_;
  MVPlistValue settings_;
  MVPropertyList::Format format_;
  bool exists_;
};
