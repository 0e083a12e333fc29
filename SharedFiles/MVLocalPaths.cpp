#include "MVLocalPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string_view>
#include <vector>

namespace {

std::atomic<MVLocalPaths::UserIdSource> gUserIdSource{nullptr};

uid_t currentUserId() {
  MVLocalPaths::UserIdSource source = gUserIdSource.load();
  return source ? source() : getuid();
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// The account entry of `uid`, read with the re-entrant call so that any
// thread may ask.
struct AccountEntry {
  std::string name;
  std::string home;
};
std::optional<AccountEntry> accountEntry(uid_t uid) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* result = nullptr;
  while (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &result) == ERANGE && buffer.size() < (1u << 20))
    buffer.resize(buffer.size() * 2);
  if (!result) return std::nullopt;
  return AccountEntry{result->pw_name ? result->pw_name : "", result->pw_dir ? result->pw_dir : ""};
}

std::string orEmpty(const std::optional<std::string>& path) { return path.value_or(std::string()); }

MVLocalPaths::Domain domainFor(bool user) { return user ? MVLocalPaths::kUserDomain : MVLocalPaths::kLocalDomain; }

}  // namespace

std::string MVAppendPathComponent(const std::string& base, const std::string& component) {
  std::size_t first = component.find_first_not_of('/');
  std::string tail = first == std::string::npos ? std::string() : component.substr(first);
  while (tail.size() > 1 && tail.back() == '/') tail.pop_back();

  std::string head = base;
  while (head.size() > 1 && head.back() == '/') head.pop_back();
  if (tail.empty()) return head;
  if (head.empty()) return tail;
  if (head == "/") return head + tail;
  return head + "/" + tail;
}

void MVLocalPaths::setUserIdSourceForTesting(UserIdSource source) { gUserIdSource.store(source); }

std::optional<std::string> MVLocalPaths::lookup(Folder folder, Domain domain) {
  std::optional<std::string> found = platformPath(folder, domain);
  if (!found || domain != kUserDomain || currentUserId() != 0) return found;

  // Root's folders are reported under root's fixed home; re-root them into the
  // home the process actually runs with. The second prefix is cut one letter
  // short, which callers have always received, so it stays that way.
  std::string path = *found;
  bool rerooted = false;
  if (startsWith(path, "/var/root")) {
    path = path.substr(9);
    rerooted = true;
  }
  if (startsWith(path, "/private/var/root")) {
    path = path.substr(16);
    rerooted = true;
  }
  // Folders that lie elsewhere (the XDG folders follow HOME already) are kept.
  if (!rerooted) return found;
  return MVAppendPathComponent(userDirectory(), path);
}

std::optional<std::string> MVLocalPaths::pathForDirectory(Directory kind, Domain domain) {
  switch (kind) {
    case kApplicationDirectory: return lookup(Folder::Applications, domain);
    case kAdminApplicationDirectory: return lookup(Folder::AdminApplications, domain);
    case kLibraryDirectory: return lookup(Folder::Library, domain);
    case kDocumentationDirectory: return lookup(Folder::Documentation, domain);
    case kDocumentDirectory: return lookup(Folder::Documents, domain);
    case kDesktopDirectory: return lookup(Folder::Desktop, domain);
    case kCachesDirectory: return lookup(Folder::Caches, domain);
    case kApplicationSupportDirectory: return lookup(Folder::ApplicationSupport, domain);
    case kMoviesDirectory: return lookup(Folder::Movies, domain);
    case kTrashDirectory: return lookup(Folder::Trash, domain);
  }
  return std::nullopt;
}

std::string MVLocalPaths::applicationDirectory(bool user) { return orEmpty(lookup(Folder::Applications, domainFor(user))); }
std::string MVLocalPaths::adminApplicationDirectory(bool user) {
  return orEmpty(lookup(Folder::AdminApplications, domainFor(user)));
}
std::string MVLocalPaths::documentDirectory(bool user) { return orEmpty(lookup(Folder::Documents, domainFor(user))); }
std::string MVLocalPaths::libraryDirectory(bool user) { return orEmpty(lookup(Folder::Library, domainFor(user))); }
std::string MVLocalPaths::prefsDirectory(bool user) { return orEmpty(lookup(Folder::Preferences, domainFor(user))); }
std::string MVLocalPaths::cacheDirectory(bool user) { return orEmpty(lookup(Folder::Caches, domainFor(user))); }
std::string MVLocalPaths::appSupportDirectory(bool user) {
  return orEmpty(lookup(Folder::ApplicationSupport, domainFor(user)));
}
std::string MVLocalPaths::logDirectory(bool user) { return orEmpty(lookup(Folder::Logs, domainFor(user))); }
std::string MVLocalPaths::movieDirectory() { return orEmpty(lookup(Folder::Movies, kUserDomain)); }
std::string MVLocalPaths::desktopDirectory() { return orEmpty(lookup(Folder::Desktop, kUserDomain)); }
std::string MVLocalPaths::systemLibraryDirectory() { return orEmpty(lookup(Folder::Library, kSystemDomain)); }
std::string MVLocalPaths::localDocumentationDirectory() { return orEmpty(lookup(Folder::Documentation, kLocalDomain)); }

std::optional<std::string> MVLocalPaths::darwinCacheDirectory() {
#ifdef __APPLE__
  // _CS_DARWIN_USER_CACHE_DIR
  char buffer[1024];
  std::size_t length = confstr(65538, buffer, sizeof buffer);
  if (length == 0) return std::nullopt;
  if (length > sizeof buffer) length = sizeof buffer;
  return std::string(buffer, length - 1);
#else
  return std::nullopt;
#endif
}

std::string MVLocalPaths::userDirectory() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  if (auto entry = accountEntry(getuid()); entry && !entry->home.empty()) return entry->home;
  return "/";
}

std::string MVLocalPaths::username() {
  if (auto entry = accountEntry(geteuid()); entry && !entry->name.empty()) return entry->name;
  // An account without an entry (a container's arbitrary uid): the shell's
  // idea of the login name is the best we have.
  for (const char* var : {"USER", "LOGNAME"})
    if (const char* name = std::getenv(var); name && *name) return name;
  return std::to_string(geteuid());
}

std::string MVLocalPaths::trashDirectory() { return MVAppendPathComponent(userDirectory(), ".Trash"); }

std::string MVLocalPaths::tempDirectory() {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = (tmp && *tmp == '/') ? tmp : "/tmp";
  return *ensureTrailingSlash(dir);
}

std::string MVLocalPaths::tempFile() { return MVAppendPathComponent(tempDirectory(), uuid() + randomString(8)); }

std::string MVLocalPaths::uuid() {
  // A version-4 UUID from the system's entropy source.
  std::random_device device;
  unsigned char bytes[16];
  for (std::size_t i = 0; i < sizeof bytes; i += 4) {
    unsigned int word = device();
    for (std::size_t j = 0; j < 4; ++j) bytes[i + j] = static_cast<unsigned char>(word >> (8 * j));
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  char text[37];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0],
                bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8], bytes[9], bytes[10],
                bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
  return text;
}

std::string MVLocalPaths::randomString(std::size_t length) {
  static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  // Unsigned arithmetic: the product overflows by design and only seeds.
  unsigned long long seed =
      static_cast<unsigned long long>(std::clock()) * static_cast<unsigned long long>(std::time(nullptr));
  std::srand(static_cast<unsigned>(seed));
  std::string out;
  out.reserve(length);
  for (std::size_t i = 0; i < length; ++i) out += kAlphabet[std::rand() % 36];
  return out;
}

std::optional<std::string> MVLocalPaths::ensureTrailingSlash(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  if (path->empty() || path->back() == '/') return path;
  return *path + "/";
}

std::optional<std::string> MVLocalPaths::stripTrailingSlash(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  if (path->size() < 2 || path->back() != '/') return path;
  return path->substr(0, path->size() - 1);
}

bool MVLocalPaths::isPathSystemDirectory(const std::string& input, bool exactMatch) {
  if (input == "/") return true;
  if (input.size() < 3) return false;
  std::string path = input;
  // A trailing slash removes the character before it too ("/usr/" is tested
  // as "/us"); existing callers rely on exactly this, so it is kept.
  if (path.back() == '/') path.resize(path.size() - 2);

  std::vector<std::string> folders;
  for (bool user : {true, false}) {
    folders.push_back(applicationDirectory(user));
    folders.push_back(adminApplicationDirectory(user));
    folders.push_back(documentDirectory(user));
    folders.push_back(libraryDirectory(user));
    folders.push_back(prefsDirectory(user));
    folders.push_back(cacheDirectory(user));
    folders.push_back(appSupportDirectory(user));
  }
  folders.push_back(desktopDirectory());
  folders.push_back(userDirectory());
  folders.push_back(systemLibraryDirectory());
  folders.push_back(localDocumentationDirectory());
  for (const char* literal : {"/Users/Shared", "/usr", "/var", "/bin", "/sbin", "/System"}) folders.push_back(literal);
  for (const std::string& folder : folders)
    if (!folder.empty() && folder == path) return true;

  if (exactMatch) return false;
  if (startsWith(path, "/usr/") && !startsWith(path, "/usr/local/")) return true;
  for (const char* prefix : {"/var/", "/bin/", "/sbin/", "/private/var/", "/System/"})
    if (startsWith(path, prefix)) return true;
  return false;
}

bool MVLocalPaths::isPathOnTimeMachineVolume(const std::string& path) {
  if (!startsWith(path, "/Volumes/")) return false;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (std::string_view(path).substr(start, end - start) == "Backups.backupdb") return true;
    start = end + 1;
  }
  return false;
}
