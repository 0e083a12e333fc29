// MVLocalPaths: where the standard folders of the user and of the machine are.
//
// On Linux the folders follow the XDG base-directory rules and honour HOME,
// XDG_CONFIG_HOME, XDG_STATE_HOME, XDG_CACHE_HOME, XDG_DATA_HOME and
// <config home>/user-dirs.dirs, so that a test can run in a temporary home:
//   user domain:  preferences = config home, logs = state home, caches = cache
//                 home, application support and library = data home,
//                 applications (and administrator applications) = data home
//                 + "applications", trash = data home + "Trash",
//                 documents/desktop/movies = the XDG user dirs DOCUMENTS,
//                 DESKTOP and VIDEOS (default ~/Documents, ~/Desktop, ~/Videos).
//   local domain: preferences /etc/xdg, logs /var/log, caches /var/cache,
//                 application support and library /usr/local/share,
//                 applications /usr/share/applications, documentation
//                 /usr/local/share/doc.
//   system domain: library /usr/share, applications /usr/share/applications,
//                 documentation /usr/share/doc.
// On macOS the same operations answer the Library folders; prefsDirectory,
// logDirectory and cacheDirectory answer the preferences, logs and caches
// folders directly, which gives ~/Library/Preferences there and the XDG
// folders here.
//
// Operations that answer a single folder as a plain string give "" when the
// platform has no such folder (for example documents in the local domain).
// Every operation is stateless and may be called from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
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
    kTrashDirectory = 102,
  };
  // Domains, with the platform's values.
  enum Domain { kUserDomain = 1, kLocalDomain = 2, kSystemDomain = 8 };

  // The folder of `kind` in `domain`, or none when the platform has none.
  // When running as root, user-domain folders that the platform places under
  // root's own home ("/var/root") are re-rooted into the current home folder.
  static std::optional<std::string> pathForDirectory(Directory kind, Domain domain);

  // `user` selects the user domain (true) or the local domain (false).
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
  // The operating system's per-user cache folder (macOS only; none elsewhere).
  static std::optional<std::string> darwinCacheDirectory();
  // HOME, else the home folder of the user's account entry.
  static std::string userDirectory();
  // The login name of the effective user.
  static std::string username();
  // The home folder + ".Trash".
  static std::string trashDirectory();
  // The temporary folder (TMPDIR, else "/tmp"), always with a trailing slash.
  static std::string tempDirectory();
  // A fresh path in the temporary folder; nothing is created.
  static std::string tempFile();
  // A globally unique string, different at every call (like the platform's
  // process-info unique string), so temporary names never collide.
  static std::string uuid();
  // `length` characters from [a-z0-9]; the C library generator is reseeded
  // from the processor clock and the time at every call.
  static std::string randomString(std::size_t length);

  static std::optional<std::string> ensureTrailingSlash(const std::optional<std::string>& path);
  static std::optional<std::string> stripTrailingSlash(const std::optional<std::string>& path);
  static bool isPathSystemDirectory(const std::string& path, bool exactMatch = false);
  static bool isPathOnTimeMachineVolume(const std::string& path);

  // Where the root rule gets the user id from. Tests run as root and replace
  // it to see both sides of the rule; nullptr restores the real user id.
  using UserIdSource = uid_t (*)();
  static void setUserIdSourceForTesting(UserIdSource source);

 private:
  // Folders the platform lookup answers beyond the public kinds.
  enum class Folder {
    Applications, AdminApplications, Library, Documentation, Documents, Desktop,
    Caches, ApplicationSupport, Movies, Trash, Preferences, Logs,
  };
  // The platform's answer, before the root rule (MVLocalPaths_<os>.cpp).
  static std::optional<std::string> platformPath(Folder folder, Domain domain);
  static std::optional<std::string> lookup(Folder folder, Domain domain);
};

// Appends one path component ("a" + "b" is "a/b"; no doubled slashes).
std::string MVAppendPathComponent(const std::string& base, const std::string& component);
