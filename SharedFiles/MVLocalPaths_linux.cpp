// The Linux answers of MVLocalPaths: the XDG base-directory and user-dirs
// rules. A macOS build answers the same folders from the search-path service
// in a file of its own and leaves this one out.
#ifndef __APPLE__

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "MVLocalPaths.h"

namespace {

// An XDG variable counts only when it holds an absolute path; a relative
// value is invalid and must be ignored.
std::string xdgFolder(const char* variable, const char* fallbackUnderHome) {
  const char* value = std::getenv(variable);
  if (value && value[0] == '/') return value;
  return MVAppendPathComponent(MVLocalPaths::userDirectory(), fallbackUnderHome);
}

std::string configHome() { return xdgFolder("XDG_CONFIG_HOME", ".config"); }
std::string stateHome() { return xdgFolder("XDG_STATE_HOME", ".local/state"); }
std::string cacheHome() { return xdgFolder("XDG_CACHE_HOME", ".cache"); }
std::string dataHome() { return xdgFolder("XDG_DATA_HOME", ".local/share"); }

// Reads one shell-quoted value of user-dirs.dirs: XDG_NAME_DIR="$HOME/Movies"
// or an absolute path. Anything else is not a valid entry.
std::optional<std::string> userDirValue(const std::string& raw) {
  std::string value;
  std::size_t i = 0;
  bool quoted = !raw.empty() && raw[0] == '"';
  if (quoted) ++i;
  for (; i < raw.size(); ++i) {
    char c = raw[i];
    if (quoted && c == '"') break;
    if (!quoted && (c == ' ' || c == '\t' || c == '#')) break;
    if (c == '\\' && i + 1 < raw.size()) c = raw[++i];
    value += c;
  }
  const std::string home = "$HOME";
  if (value.compare(0, home.size(), home) == 0 && (value.size() == home.size() || value[home.size()] == '/'))
    return MVAppendPathComponent(MVLocalPaths::userDirectory(), value.substr(home.size()));
  if (!value.empty() && value[0] == '/') return value;
  return std::nullopt;
}

std::string userDir(const char* name, const char* fallbackUnderHome) {
  std::ifstream file(MVAppendPathComponent(configHome(), "user-dirs.dirs"));
  const std::string key = std::string("XDG_") + name + "_DIR=";
  std::optional<std::string> found;
  std::string line;
  while (std::getline(file, line)) {
    std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    if (line.compare(start, key.size(), key) != 0) continue;
    // The file is sourced by shells, so a later assignment wins.
    if (auto value = userDirValue(line.substr(start + key.size()))) found = value;
  }
  if (found) return *found;
  return MVAppendPathComponent(MVLocalPaths::userDirectory(), fallbackUnderHome);
}

}  // namespace

std::optional<std::string> MVLocalPaths::platformPath(Folder folder, Domain domain) {
  switch (domain) {
    case kUserDomain:
      switch (folder) {
        case Folder::Applications:
        case Folder::AdminApplications: return MVAppendPathComponent(dataHome(), "applications");
        case Folder::Library:
        case Folder::ApplicationSupport: return dataHome();
        case Folder::Documentation: return MVAppendPathComponent(dataHome(), "doc");
        case Folder::Documents: return userDir("DOCUMENTS", "Documents");
        case Folder::Desktop: return userDir("DESKTOP", "Desktop");
        case Folder::Movies: return userDir("VIDEOS", "Videos");
        case Folder::Caches: return cacheHome();
        case Folder::Trash: return MVAppendPathComponent(dataHome(), "Trash");
        case Folder::Preferences: return configHome();
        case Folder::Logs: return stateHome();
      }
      break;
    case kLocalDomain:
      switch (folder) {
        case Folder::Applications:
        case Folder::AdminApplications: return std::string("/usr/share/applications");
        case Folder::Library:
        case Folder::ApplicationSupport: return std::string("/usr/local/share");
        case Folder::Documentation: return std::string("/usr/local/share/doc");
        case Folder::Caches: return std::string("/var/cache");
        case Folder::Preferences: return std::string("/etc/xdg");
        case Folder::Logs: return std::string("/var/log");
        case Folder::Documents:
        case Folder::Desktop:
        case Folder::Movies:
        case Folder::Trash: return std::nullopt;
      }
      break;
    case kSystemDomain:
      switch (folder) {
        case Folder::Applications:
        case Folder::AdminApplications: return std::string("/usr/share/applications");
        case Folder::Library:
        case Folder::ApplicationSupport: return std::string("/usr/share");
        case Folder::Documentation: return std::string("/usr/share/doc");
        default: return std::nullopt;
      }
  }
  return std::nullopt;
}

#endif  // __APPLE__
