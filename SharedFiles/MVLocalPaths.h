// MVLocalPaths: where the standard folders of the user and of the machine are.
//
// On Linux the folders follow the XDG base-directory rules and honour HOME,
// XDG_CONFIG_HOME, XDG_STATE_HOME, XDG_CACHE_HOME, XDG_DATA_HOME and
// ~/.config/user-dirs.dirs, so that a test can run in a temporary home:
//   user domain:  preferences = config home, logs = state home, caches = cache
//                 home, application support and library = data home,
//                 documents/desktop/movies = XDG user dirs.
//   local domain: preferences /etc/xdg, logs /var/log, caches /var/cache,
//                 application support and library /usr/local/share.
// On macOS the same operations answer the Library folders.
// Every operation is stateless and may be called from any thread.
#pragma once

#include <optional>
#include <string>

class MVLocalPaths {
 public:
  // Folder kinds, with the platform's values.
  enum Directory {
    kApplicationDirectory = 1,
    kAdminApplicationDirectory = 4,
    kLibraryDirectory = 5,
    kDocumentationDirectory = 8,
    kDocumentDirectory = 9,
    kDesktopDirectory = 12,
    kCachesDirectory = 13,
    kApplicationSupportDirectory = 14,
    kMoviesDirectory = 17,
  };
  // Domains, with the platform's values.
  enum Domain { kUserDomain = 1, kLocalDomain = 2, kSystemDomain = 8 };

  static std::optional<std::string> pathForDirectory(Directory kind, Domain domain);

  static std::string applicationDirectory(bool user);
  static std::string adminApplicationDirectory(bool user);
  static std::string documentDirectory(bool user);
  static std::string libraryDirectory(bool user);
  static std::string prefsDirectory(bool user);
  static std::string cacheDirectory(bool user);
  static std::string appSupportDirectory(bool user);
  static std::string logDirectory(bool user);
  static std::string movieDirectory();
  static std::string desktopDirectory();
  static std::string systemLibraryDirectory();
  static std::string localDocumentationDirectory();
  static std::optional<std::string> darwinCacheDirectory();
  static std::string userDirectory();
  static std::string username();
  static std::string trashDirectory();
  static std::string tempDirectory();
  static std::string tempFile();
  static std::string uuid();
  static std::string randomString(std::size_t length);

  static std::optional<std::string> ensureTrailingSlash(const std::optional<std::string>& path);
  static std::optional<std::string> stripTrailingSlash(const std::optional<std::string>& path);
  static bool isPathSystemDirectory(const std::string& path, bool exactMatch = false);
  static bool isPathOnTimeMachineVolume(const std::string& path);
};

// Appends one path component ("a" + "b" is "a/b"; no doubled slashes).
std::string MVAppendPathComponent(const std::string& base, const std::string& component);
