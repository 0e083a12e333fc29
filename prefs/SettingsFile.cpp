#include "SettingsFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

std::optional<SettingsFile> SettingsFile::load(const std::string& path, std::string& error) {
  MVPlistValue empty{MVPlistValue::Dictionary{}};
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return SettingsFile(path, empty, MVPropertyList::Format::XML, false);
    error = "cannot read the settings file " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  if (!S_ISREG(info.st_mode)) {
    error = "cannot read the settings file " + path + ": it is not a regular file";
    return std::nullopt;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot read the settings file " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (in.bad()) {
    error = "cannot read the settings file " + path;
    return std::nullopt;
  }
  if (bytes.str().empty()) return SettingsFile(path, empty, MVPropertyList::Format::XML, true);

  MVPropertyList::Format format = MVPropertyList::Format::XML;
  MVPlistValue settings = MVPropertyList::parse(bytes.str(), &format);
  if (settings.isNil()) {
    error = "the settings file " + path + " is not a property list; fix or remove it (nothing was changed)";
    return std::nullopt;
  }
  if (!settings.isDictionary()) {
    error = "the settings file " + path + " does not hold a dictionary; fix or remove it (nothing was changed)";
    return std::nullopt;
  }
  return SettingsFile(path, std::move(settings), format, true);
}

bool SettingsFile::remove(const std::string& key) {
  auto* dict = settings_.dictionary();
  return dict && dict->erase(key) > 0;
}

bool SettingsFile::save(std::string& error) const {
  if (MVPropertyList::write(path_, settings_, format_)) return true;
  error = "could not write the settings file " + path_ + "; it was left as it was";
  return false;
}
