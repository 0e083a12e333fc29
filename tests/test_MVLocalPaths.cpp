// Standard folders under the XDG rules, the root rule, temporary names and path rules.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "MVLocalPaths.h"
#include "TestSupport.h"

using namespace quillon_test;
using Paths = MVLocalPaths;

namespace {

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
  // The root rule must leave folders that already follow HOME alone.
  for (Paths::UserIdSource uid : {&rootUid, &ordinaryUid}) {
    ScopedUid scoped(uid);
    EXPECT_EQ(h, Paths::userDirectory());
    EXPECT_EQ(h + "/.config", Paths::prefsDirectory(true));
    EXPECT_EQ(h + "/.local/state", Paths::logDirectory(true));
    EXPECT_EQ(h + "/.cache", Paths::cacheDirectory(true));
    EXPECT_EQ(h + "/.local/share", Paths::appSupportDirectory(true));
    EXPECT_EQ(h + "/Documents", Paths::documentDirectory(true));
    EXPECT_EQ(h + "/Videos", Paths::movieDirectory());
  }
}

TEST(MVLocalPaths, HonoursAbsoluteXdgVariablesAndIgnoresRelativeOnes) {
  std::string base = makeTempDir("xdg");
  {
    EnvOverride config("XDG_CONFIG_HOME", base + "/conf");
    EnvOverride state("XDG_STATE_HOME", base + "/state");
    EnvOverride cache("XDG_CACHE_HOME", base + "/cache/");
    EnvOverride data("XDG_DATA_HOME", base + "/data");
    EXPECT_EQ(base + "/conf", Paths::prefsDirectory(true));
    EXPECT_EQ(base + "/state", Paths::logDirectory(true));
    EXPECT_EQ(base + "/cache/", Paths::cacheDirectory(true));
    EXPECT_EQ(base + "/data", Paths::libraryDirectory(true));
    EXPECT_EQ(base + "/data/applications", Paths::applicationDirectory(true));
  }
  for (const char* invalid : {"relative/conf", "~/conf", ""}) {
    EnvOverride config("XDG_CONFIG_HOME", std::string(invalid));
    EnvOverride data("XDG_DATA_HOME", std::string(invalid));
    EXPECT_EQ(testHome() + "/.config", Paths::prefsDirectory(true)) << invalid;
    EXPECT_EQ(testHome() + "/.local/share", Paths::libraryDirectory(true)) << invalid;
  }
  EXPECT_EQ(shellOutput("id -un | tr -d '\\n'"), Paths::username());
  // Without HOME the account entry's home is used.
  EnvOverride noHome("HOME", std::nullopt);
  EXPECT_EQ(shellOutput("getent passwd $(id -u) | cut -d: -f6 | tr -d '\\n'"), Paths::userDirectory());
}

TEST(MVLocalPaths, UserDirsFileNamesDocumentsAndMovies) {
  std::string config = makeTempDir("userdirs");
  EnvOverride xdg("XDG_CONFIG_HOME", config);
  writeFile(config + "/user-dirs.dirs",
            "# written by xdg-user-dirs-update\n"
            "XDG_DOCUMENTS_DIR=\"/srv/shared docs\"\n"
            "XDG_VIDEOS_DIR=\"Videos relative\"\n"
            "  XDG_DOCUMENTS_DIR=\"$HOME/Dokumente \\\"neu\\\"\"\n");
  EXPECT_EQ(testHome() + "/Dokumente \"neu\"", Paths::documentDirectory(true)) << "the later line wins";
  EXPECT_EQ(testHome() + "/Videos", Paths::movieDirectory()) << "a relative value is ignored";

  writeFile(config + "/user-dirs.dirs", "XDG_VIDEOS_DIR=\"/srv/Filme\"\nXDG_DOCUMENTS_DIR=\"$HOME/\"\n");
  EXPECT_EQ("/srv/Filme", Paths::movieDirectory());
  EXPECT_EQ(testHome(), Paths::documentDirectory(true)) << "\"$HOME/\" means the home folder itself";
}

TEST(MVLocalPaths, RootRuleReRootsFoldersUnderRootsOwnHome) {
  EnvOverride home("HOME", std::string("/home/admin"));
  const std::pair<const char*, const char*> cases[] = {  // found, as root
      {"/var/root/Library", "/home/admin/Library"},
      // The second prefix is cut one letter short: the "t" stays.
      {"/private/var/root/Library", "/home/admin/t/Library"},
      {"/srv/data", "/srv/data"},
  };
  for (const auto& [found, asRoot] : cases) {
    SCOPED_TRACE(found);
    EnvOverride data("XDG_DATA_HOME", std::string(found));
    {
      ScopedUid root(&rootUid);
      EXPECT_EQ(asRoot, Paths::libraryDirectory(true));
    }
    ScopedUid user(&ordinaryUid);
    EXPECT_EQ(found, Paths::libraryDirectory(true));
  }
}

TEST(MVLocalPaths, PathComponentsJoinWithOneSlash) {
  const std::tuple<const char*, const char*, const char*> appendCases[] = {
      {"/a/", "b", "/a/b"}, {"/a", "/b", "/a/b"}, {"", "b", "b"}, {"/a/", "", "/a"}, {"/a", "b/c/", "/a/b/c"},
  };
  for (const auto& [base, component, joined] : appendCases)
    EXPECT_EQ(joined, MVAppendPathComponent(base, component)) << base << " + " << component;
}
