// Premiere's preview locations from hand-made preferences and projects (tests/premiere).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPremiere.h"
#include "MVPremierePrefParser.h"
#include "MVPropertyList.h"
#include "MVWorkspace.h"
#include "TestSupport.h"

using namespace quillon_test;
namespace fs = std::filesystem;
using Paths = std::vector<std::string>;

namespace {

const std::string kPreviews = "Adobe Premiere Pro Preview Files";

// A file of tests/premiere with its "@KEY@" markers replaced.
std::string fixture(const std::string& name, const std::vector<std::pair<std::string, std::string>>& values) {
  std::string text = readFile(std::string(QUILLON_SOURCE_DIR) + "/tests/premiere/" + name);
  for (const auto& [key, value] : values) {
    std::string marker = "@" + key + "@";
    for (std::size_t at; (at = text.find(marker)) != std::string::npos;) text.replace(at, marker.size(), value);
  }
  return text;
}

std::string defaultFolder(const std::string& version) {
  return MVLocalPaths::documentDirectory(true) + "/Adobe/Premiere Pro/" + version;
}

std::string prefsPath(const std::string& version) {
  return MVLocalPaths::appSupportDirectory(true) + "/Adobe/Premiere Pro/" + version + "/Adobe Premiere Pro Prefs";
}

// A preference file listing `projects` as recent documents.
void writePrefs(const std::string& path, const Paths& projects) {
  std::string entries;
  for (std::size_t i = 0; i < projects.size(); ++i)
    entries += "<BE.Prefs.MRU.Document." + std::to_string(i) + ">" + projects[i] + "</BE.Prefs.MRU.Document." +
               std::to_string(i) + ">\n";
  writeFile(path, fixture("Adobe Premiere Pro Prefs.xml", {{"RECENT", entries}}));
}

std::string writeProject(const std::string& folder, const std::string& name, const std::string& contents) {
  std::string path = folder + "/" + name;
  writeFile(path, contents);
  return path;
}

std::string project(const std::string& first, const std::string& second) {
  return fixture("project.prproj.xml", {{"FIRST", first}, {"SECOND", second}});
}

class PremierePrefParserTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { MVLog::createNewLog("test_MVPremierePrefParser", true); }

  void SetUp() override {
    MVPremierePrefParser::setFolderSearchToolForTesting("/nonexistent/locate");
    std::error_code ec;
    fs::remove_all(MVLocalPaths::appSupportDirectory(true) + "/Adobe", ec);
    fs::remove_all(MVLocalPaths::documentDirectory(true) + "/Adobe", ec);
  }
  void TearDown() override {
    MVPremierePrefParser::setFolderSearchToolForTesting(std::nullopt);
    MVWorkspace::setBackend(nullptr);
  }
};

TEST_F(PremierePrefParserTest, WithoutPreferencesTheVersionDefaultStandsIn) {
  EXPECT_EQ(MVPremierePrefParser::recentRenderPaths(), Paths{defaultFolder("7.0") + "/" + kPreviews});

  writeFile(prefsPath("8.0"), "<PremiereData><Preferences>");
  EXPECT_EQ(MVPremierePrefParser::recentScratchDisks(std::string("8.0"), false), Paths{defaultFolder("8.0")});
}

TEST_F(PremierePrefParserTest, FastModeTakesTheFoldersOfExistingRecentProjects) {
  std::string one = makeTempDir("projects"), two = makeTempDir("projects"), gone = makeTempDir("projects");
  // Fast mode never opens a project, so even a damaged one counts.
  writePrefs(prefsPath("7.0"), {writeProject(one, "a.prproj", "not xml"), gone + "/missing.prproj",
                                writeProject(one, "b.prproj", project("", "")),
                                writeProject(two, "c.prproj", project("", ""))});
  EXPECT_EQ(MVPremierePrefParser::recentScratchDisks(), (Paths{one, two}));
  EXPECT_EQ(MVPremierePrefParser::recentRenderPaths(std::string("7.0"), true),
            (Paths{one + "/" + kPreviews, two + "/" + kPreviews}));
}

TEST_F(PremierePrefParserTest, FullModeReadsEachProjectsPreviewSetting) {
  std::string a = makeTempDir("p"), b = makeTempDir("p"), c = makeTempDir("p"), d = makeTempDir("p");
  std::string documents = defaultFolder("7.0");
  writePrefs(prefsPath("7.0"),
             {
                 writeProject(a, "same.prproj", project("<VideoPreviewLocation>SameAsProject</VideoPreviewLocation>",
                                                        "<AudioPreviewLocation>/elsewhere</AudioPreviewLocation>")),
                 // The first of the two in document order wins, audio or video.
                 writeProject(b, "audio.prproj", project("<AudioPreviewLocation>/media/audio</AudioPreviewLocation>",
                                                         "<VideoPreviewLocation>/media/video</VideoPreviewLocation>")),
                 writeProject(c, "docs.prproj", project("<VideoPreviewLocation>MyDocuments</VideoPreviewLocation>", "")),
                 writeProject(d, "broken.prproj", "<PremiereData><ScratchDiskSettings>"),
                 writeProject(a, "again.prproj", project("<VideoPreviewLocation>SameAsProject</VideoPreviewLocation>", "")),
             });
  EXPECT_EQ(MVPremierePrefParser::recentScratchDisks(std::string("7.0"), false),
            (Paths{a, "/media/audio", documents}));

  // Nothing readable in any project: the default folder.
  writePrefs(prefsPath("7.0"), {d + "/broken.prproj"});
  EXPECT_EQ(MVPremierePrefParser::recentScratchDisks(std::string("7.0"), false), Paths{documents});
}

TEST_F(PremierePrefParserTest, NewerVersionsKeepPreferencesInTheUserProfile) {
  std::string folder = makeTempDir("projects");
  std::string profilePrefs = defaultFolder("6.0") + "/Profile-" + MVLocalPaths::username() + "/Adobe Premiere Pro Prefs";
  writePrefs(profilePrefs, {writeProject(folder, "p.prproj", project("", ""))});

  // "6.0.0" is stored as "6.0".
  EXPECT_EQ(MVPremierePrefParser::recentScratchDisks(std::string("6.0.0"), true), Paths{folder});
}

TEST_F(PremierePrefParserTest, FolderSearchKeepsExistingFoldersWithExactlyThatName) {
  std::string root = makeTempDir("found");
  std::string listed = makeTempDir("projects");
  writePrefs(prefsPath("7.0"), {writeProject(listed, "p.prproj", project("", ""))});
  for (const char* folder : {"x/Adobe Premiere Pro Preview Files", "z/Adobe Premiere Pro Preview Files2"})
    fs::create_directories(root + "/" + folder);
  fs::create_directories(listed + "/" + kPreviews);
  writeFile(root + "/file/" + kPreviews, "a file, not a folder");

  std::string tool = root + "/fake-locate";
  writeFile(tool, "#!/bin/sh\necho \"$@\" > '" + root + "/arguments'\ncat <<'EOF'\n" + root + "/x/" + kPreviews +
                      "\n" + root + "/z/" + kPreviews + "2\n" + root + "/file/" + kPreviews + "\n" + root + "/gone/" +
                      kPreviews + "\n" + listed + "/" + kPreviews + "\nEOF\n");
  chmod(tool.c_str(), 0755);
  MVPremierePrefParser::setFolderSearchToolForTesting(tool);

  EXPECT_EQ(MVPremierePrefParser::recentRenderPaths(),
            (Paths{listed + "/" + kPreviews, root + "/x/" + kPreviews}));
  EXPECT_EQ(readFile(root + "/arguments"), "-b -i -- " + kPreviews + "\n");
}

// A folder per product with the application bundle or only the installer's XManConfig.xml.
TEST_F(PremierePrefParserTest, VersionsComeFromBundlesOrInstallerConfiguration) {
  const std::string apps = makeTempDir("Applications");
  auto installerConfig = [&](const std::string& product, const std::string& xml) {
    writeFile(apps + "/" + product + "/Configuration/XManConfig.xml", xml);
  };
  auto bundle = [&](const std::string& product, const std::string& app, const std::string& key, const std::string& version) {
    ASSERT_TRUE(MVPropertyList::write(apps + "/" + product + "/" + app + "/Contents/Info.plist",
                                      MVPlistValue(MVPlistValue::Dictionary{{key, version}})));
  };
  installerConfig("Adobe Premiere Pro CC 2014", fixture("XManConfig.xml", {{"VERSION", " 8.0 "}}));
  bundle("adobe premiere pro 2019", "adobe premiere pro 2019.app", "CFBundleVersionString", "13.0.1");
  bundle("Adobe Premiere Pro CS6", "Adobe Premiere Pro CS6.app", "CFBundleVersion", "6.0.0");
  bundle("Adobe Premiere Pro CS5.5", "Adobe Premiere Pro CS5.5 Trial.app", "CFBundleVersion", "5.5.2");
  installerConfig("Adobe Premiere Elements", "<Configuration>");
  installerConfig("Adobe Photoshop CS6", fixture("XManConfig.xml", {{"VERSION", "13.0"}}));

  // "CS5.5" has no bundle of its own name, and Elements a broken configuration.
  EXPECT_EQ(MVPremiere::versionsForAppName("Adobe Premiere ", apps), (Paths{"8.0", "6.0.0", "13.0.1"}));
  // Suites go by major.minor and find bundles by the product's pattern (case counts there).
  EXPECT_EQ(MVPremiere::suiteVersionsInFolder(apps), (Paths{"8.0", "5.5", "6.0"}));

  // The installed application's folder is searched; each version without preferences adds its default.
  struct Workspace : MVWorkspace::Backend {
    std::string app;
    std::string absolutePathForAppBundleWithIdentifier(const std::string& id) override {
      return id == "com.adobe.AdobePremierePro" ? app : "";
    }
  };
  auto workspace = std::make_shared<Workspace>();
  workspace->app = apps + "/Adobe Premiere Pro CS6/Adobe Premiere Pro CS6.app";
  MVWorkspace::setBackend(workspace);
  std::string folder = makeTempDir("projects");
  writePrefs(prefsPath("6.0"), {writeProject(folder, "p.prproj", project("", ""))});
  EXPECT_EQ(MVPremierePrefParser::recentScratchDisks(),
            (Paths{defaultFolder("8.0"), folder, defaultFolder("13.0.1")}));
}

}  // namespace
