// Standard folders under the XDG rules, the root rule, temporary names and
// the path classification rules.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <regex>
#include <set>
#include <string>

#include "MVLocalPaths.h"
#include "TestSupport.h"

using namespace quillon_test;
using Paths = MVLocalPaths;

namespace {

// Sets (or, with nullopt, unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value)
      setenv(name, value->c_str(), 1);
    else
      unsetenv(name);
  }
  ~ScopedEnv() {
    if (old_)
      setenv(name_, old_->c_str(), 1);
    else
      unsetenv(name_);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

uid_t rootUid() { return 0; }
uid_t ordinaryUid() { return 501; }

class ScopedUid {
 public:
  explicit ScopedUid(Paths::UserIdSource source) { Paths::setUserIdSourceForTesting(source); }
  ~ScopedUid() { Paths::setUserIdSourceForTesting(nullptr); }
};

}  // namespace

TEST(MVLocalPaths, UserFoldersFollowTheXdgDefaultsInsideHome) {
  const std::string& h = testHome();
  // Run both as root (the real user id here) and as an ordinary user: the
  // root rule must leave folders that already follow HOME alone.
  for (Paths::UserIdSource uid : {&rootUid, &ordinaryUid}) {
    ScopedUid scoped(uid);
    EXPECT_EQ(h, Paths::userDirectory());
    EXPECT_EQ(h + "/.config", Paths::prefsDirectory(true));
    EXPECT_EQ(h + "/.local/state", Paths::logDirectory(true));
    EXPECT_EQ(h + "/.cache", Paths::cacheDirectory(true));
    EXPECT_EQ(h + "/.local/share", Paths::appSupportDirectory(true));
    EXPECT_EQ(h + "/.local/share", Paths::libraryDirectory(true));
    EXPECT_EQ(h + "/.local/share/applications", Paths::applicationDirectory(true));
    EXPECT_EQ(h + "/.local/share/applications", Paths::adminApplicationDirectory(true));
    EXPECT_EQ(h + "/Documents", Paths::documentDirectory(true));
    EXPECT_EQ(h + "/Desktop", Paths::desktopDirectory());
    EXPECT_EQ(h + "/Videos", Paths::movieDirectory());
    EXPECT_EQ(h + "/.local/share/Trash", Paths::pathForDirectory(Paths::kTrashDirectory, Paths::kUserDomain));
    EXPECT_EQ(h + "/.Trash", Paths::trashDirectory());
  }
}

TEST(MVLocalPaths, HonoursAbsoluteXdgVariablesAndIgnoresRelativeOnes) {
  std::string base = makeTempDir("xdg");
  {
    ScopedEnv config("XDG_CONFIG_HOME", base + "/conf");
    ScopedEnv state("XDG_STATE_HOME", base + "/state");
    ScopedEnv cache("XDG_CACHE_HOME", base + "/cache/");
    ScopedEnv data("XDG_DATA_HOME", base + "/data");
    EXPECT_EQ(base + "/conf", Paths::prefsDirectory(true));
    EXPECT_EQ(base + "/state", Paths::logDirectory(true));
    EXPECT_EQ(base + "/cache/", Paths::cacheDirectory(true));
    EXPECT_EQ(base + "/data", Paths::libraryDirectory(true));
    EXPECT_EQ(base + "/data/applications", Paths::applicationDirectory(true));
  }
  for (const char* invalid : {"relative/conf", "~/conf", ""}) {
    ScopedEnv config("XDG_CONFIG_HOME", std::string(invalid));
    ScopedEnv data("XDG_DATA_HOME", std::string(invalid));
    EXPECT_EQ(testHome() + "/.config", Paths::prefsDirectory(true)) << invalid;
    EXPECT_EQ(testHome() + "/.local/share", Paths::libraryDirectory(true)) << invalid;
  }
  EXPECT_EQ(shellOutput("id -un | tr -d '\\n'"), Paths::username());
  // Without HOME the account entry's home is used.
  ScopedEnv noHome("HOME", std::nullopt);
  EXPECT_EQ(shellOutput("getent passwd $(id -u) | cut -d: -f6 | tr -d '\\n'"), Paths::userDirectory());
}

TEST(MVLocalPaths, UserDirsFileNamesDocumentsDesktopAndMovies) {
  std::string config = makeTempDir("userdirs");
  ScopedEnv xdg("XDG_CONFIG_HOME", config);
  writeFile(config + "/user-dirs.dirs",
            "# written by xdg-user-dirs-update\n"
            "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
            "XDG_DOCUMENTS_DIR=\"/srv/shared docs\"\n"
            "XDG_VIDEOS_DIR=\"Videos relative\"\n"
            "  XDG_DOCUMENTS_DIR=\"$HOME/Dokumente \\\"neu\\\"\"\n");
  EXPECT_EQ(testHome() + "/Schreibtisch", Paths::desktopDirectory());
  EXPECT_EQ(testHome() + "/Dokumente \"neu\"", Paths::documentDirectory(true)) << "the later line wins";
  EXPECT_EQ(testHome() + "/Videos", Paths::movieDirectory()) << "a relative value is ignored";

  writeFile(config + "/user-dirs.dirs", "XDG_VIDEOS_DIR=\"/srv/Filme\"\nXDG_DESKTOP_DIR=\"$HOME/\"\n");
  EXPECT_EQ("/srv/Filme", Paths::movieDirectory());
  EXPECT_EQ(testHome(), Paths::desktopDirectory()) << "\"$HOME/\" means the home folder itself";
  EXPECT_EQ(testHome() + "/Documents", Paths::documentDirectory(true));
}

TEST(MVLocalPaths, LocalAndSystemDomains) {
  EXPECT_EQ("/etc/xdg", Paths::prefsDirectory(false));
  EXPECT_EQ("/var/log", Paths::logDirectory(false));
  EXPECT_EQ("/var/cache", Paths::cacheDirectory(false));
  EXPECT_EQ("/usr/local/share", Paths::appSupportDirectory(false));
  EXPECT_EQ("/usr/local/share", Paths::libraryDirectory(false));
  EXPECT_EQ("/usr/share/applications", Paths::applicationDirectory(false));
  EXPECT_EQ("/usr/share", Paths::systemLibraryDirectory());
  EXPECT_EQ("/usr/local/share/doc", Paths::localDocumentationDirectory());
  EXPECT_EQ("/usr/share/doc", Paths::pathForDirectory(Paths::kDocumentationDirectory, Paths::kSystemDomain));
  EXPECT_EQ(std::nullopt, Paths::pathForDirectory(Paths::kDocumentDirectory, Paths::kLocalDomain));
  EXPECT_EQ("", Paths::documentDirectory(false));
  EXPECT_EQ(std::nullopt, Paths::darwinCacheDirectory());
}

TEST(MVLocalPaths, RootRuleReRootsFoldersUnderRootsOwnHome) {
  ScopedEnv home("HOME", std::string("/home/admin"));
  struct Case {
    const char* found;
    const char* asRoot;
  };
  const Case cases[] = {
      {"/var/root/Library", "/home/admin/Library"},
      {"/var/root", "/home/admin"},
      // The second prefix is cut one letter short: the "t" stays.
      {"/private/var/root/Library", "/home/admin/t/Library"},
      {"/srv/data", "/srv/data"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.found);
    ScopedEnv data("XDG_DATA_HOME", std::string(c.found));
    {
      ScopedUid root(&rootUid);
      EXPECT_EQ(c.asRoot, Paths::pathForDirectory(Paths::kLibraryDirectory, Paths::kUserDomain));
      EXPECT_EQ(c.asRoot, Paths::libraryDirectory(true));
    }
    ScopedUid user(&ordinaryUid);
    EXPECT_EQ(c.found, Paths::libraryDirectory(true));
  }
}

TEST(MVLocalPaths, TemporaryNamesAndRandomStrings) {
  {
    ScopedEnv tmp("TMPDIR", std::nullopt);
    EXPECT_EQ("/tmp/", Paths::tempDirectory());
  }
  std::string dir = makeTempDir("tmp");
  ScopedEnv tmp("TMPDIR", dir);
  EXPECT_EQ(dir + "/", Paths::tempDirectory());

  const std::regex uuidShape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {
    std::string file = Paths::tempFile();
    ASSERT_EQ(dir + "/", file.substr(0, dir.size() + 1));
    std::string name = file.substr(dir.size() + 1);
    ASSERT_EQ(44u, name.size());
    EXPECT_TRUE(std::regex_match(name.substr(0, 36), uuidShape)) << name;
    EXPECT_TRUE(std::regex_match(name.substr(36), std::regex("[a-z0-9]{8}"))) << name;
    EXPECT_FALSE(fileExists(file));
    seen.insert(file);
  }
  EXPECT_EQ(50u, seen.size());

  EXPECT_EQ("", Paths::randomString(0));
  std::string r = Paths::randomString(2000);
  EXPECT_TRUE(std::regex_match(r, std::regex("[a-z0-9]{2000}")));
  EXPECT_NE(std::string::npos, r.find_first_of("0123456789"));
  EXPECT_NE(std::string::npos, r.find_first_of("xyz"));
}

TEST(MVLocalPaths, TrailingSlashesAndPathComponents) {
  using Opt = std::optional<std::string>;
  EXPECT_EQ(std::nullopt, Paths::ensureTrailingSlash(std::nullopt));
  EXPECT_EQ(std::nullopt, Paths::stripTrailingSlash(std::nullopt));
  const std::tuple<Opt, Opt, Opt> slashCases[] = {
      // input, ensured, stripped
      {"", "", ""},
      {"/", "/", "/"},
      {"a", "a/", "a"},
      {"a/", "a/", "a"},
      {"/tmp//", "/tmp//", "/tmp/"},
  };
  for (const auto& [input, ensured, stripped] : slashCases) {
    EXPECT_EQ(ensured, Paths::ensureTrailingSlash(input)) << *input;
    EXPECT_EQ(stripped, Paths::stripTrailingSlash(input)) << *input;
  }
  const std::tuple<const char*, const char*, const char*> appendCases[] = {
      {"/a", "b", "/a/b"}, {"/a/", "b", "/a/b"}, {"/a", "/b", "/a/b"}, {"/", "b", "/b"},
      {"", "b", "b"},      {"/a", "", "/a"},     {"/a/", "", "/a"},    {"/a", "b/c/", "/a/b/c"},
  };
  for (const auto& [base, component, joined] : appendCases)
    EXPECT_EQ(joined, MVAppendPathComponent(base, component)) << base << " + " << component;
}

TEST(MVLocalPaths, SystemFolderAndTimeMachineRules) {
  const std::string& h = testHome();
  struct Case {
    std::string path;
    bool system;
    bool exact;
  };
  const Case cases[] = {
      {"/", true, true},
      {"/a", false, false},
      {"/usr", true, true},
      {"/usr/share", true, true},  // the system library
      {"/usr/lib", true, false},
      {"/usr/local/bin", false, false},
      {"/usr/local", true, false},  // begins with "/usr/" but not "/usr/local/"
      {"/usr/", false, false},      // tested as "/us"
      {"/usr/bin/", true, false},   // tested as "/usr/bi"
      {"/Users/Shared", true, true},
      {"/Users/Shared/", false, false},  // tested as "/Users/Share"
      {"/var", true, true},
      {"/var/log/syslog", true, false},
      {"/private/var/tmp", true, false},
      {"/System/Library", true, false},
      {"/sbin", true, true},
      {"/bin/sh", true, false},
      {"/etc", false, false},
      {"/Volumes/Media", false, false},
      {h, true, true},
      {h + "/", false, false},
      {h + "/Documents", true, true},
      {h + "/Desktop", true, true},
      {h + "/.config", true, true},
      {h + "/.cache", true, true},
      {h + "/.local/share", true, true},
      {h + "/Movies", false, false},
      {h + "/Documents/Project", false, false},
      {"/etc/xdg", true, true},
      {"/usr/local/share", true, true},
      {"/usr/local/share/doc", true, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.system, Paths::isPathSystemDirectory(c.path)) << c.path;
    EXPECT_EQ(c.exact, Paths::isPathSystemDirectory(c.path, true)) << c.path;
  }

  const std::pair<const char*, bool> timeMachine[] = {
      {"/Volumes/Backup/Backups.backupdb/mac/2024-05-01/Macintosh HD/Users", true},
      {"/Volumes/Backup/Backups.backupdb", true},
      {"/Backups.backupdb/mac/latest", false},
      {"/Volumes/Backup/Backups.backupdb.old/x", false},
      {"/Volumes/Backup/MyBackups.backupdb/x", false},
      {"/mnt/Volumes/Backups.backupdb/x", false},
  };
  for (const auto& [path, expected] : timeMachine) EXPECT_EQ(expected, Paths::isPathOnTimeMachineVolume(path)) << path;
}
