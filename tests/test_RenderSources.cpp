// The Final Cut Pro, Premiere and Media Encoder watchers: hand-made
// preference files lead them to the folders they watch with real inotify.
#include "FSEventsInotify.h"
#include "MVFCPPrefParser.h"
#include "MVLocalPaths.h"
#include "MVPremierePrefParser.h"
#include "WatchTestSupport.h"
#include "WatchersTesting.h"

using namespace watch_test;
namespace fs = std::filesystem;

namespace {

class RenderSourcesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_RenderSources", true);
    MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
    controller().setSizeSettleSecondsForTesting(0.2);
  }
  void TearDown() override {
    MVFSEvents::sharedController().stopWatching();
    controller().setClockForTesting(nullptr);
  }
};

std::string pascal(const std::string& s) { return std::string(1, static_cast<char>(s.size())) + s; }

// A binary preference file holding one render location, as Final Cut stores
// it: a length-prefixed key, binary fields, the classic path as a Pascal
// string padded with NULs, then more binary settings.
std::string fcsetWithRenderFolder(const std::string& classicPath) {
  const std::string binary = "\x01\x02\x83\x04\xfe\x06\x17\x08";
  std::string settings;
  for (int i = 0; i < 300; ++i) settings += std::string("\x01\x00", 2);
  return std::string("\x03\x00\x00\x10", 4) + binary + pascal("render") + binary + pascal(classicPath) +
         std::string(4, '\0') + binary + settings;
}

void writeFCPPreferences(const std::string& path, const std::string& renderBase, fs::file_time_type modified) {
  std::string classic = "Macintosh HD";  // "/tmp/x" on the boot volume is "Macintosh HD:tmp:x"
  for (const auto& part : fs::path(renderBase).relative_path()) classic += ":" + part.string();
  writeFile(path, fcsetWithRenderFolder(classic));
  fs::last_write_time(path, modified);
}

std::string finalCutProApplication() {
  std::string applications = makeTempDir("Applications");
  writeFile(applications + "/Final Cut Pro.app/Contents/Info.plist",
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
            "<key>CFBundleIdentifier</key><string>com.apple.FinalCutPro</string>"
            "<key>CFBundleShortVersionString</key><string>7.0.3</string></dict></plist>\n");
  return applications;
}

void writePremierePreferences(const std::vector<std::string>& recentProjects) {
  std::string recent;
  for (std::size_t i = 0; i < recentProjects.size(); ++i) {
    std::string key = "BE.Prefs.MRU.Document." + std::to_string(i);
    recent += "<" + key + ">" + recentProjects[i] + "</" + key + ">\n";
  }
  writeFile(MVLocalPaths::appSupportDirectory(true) + "/Adobe/Premiere Pro/7.0/Adobe Premiere Pro Prefs",
            "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<PremiereData Version=\"3\">\n"
            "<Preferences ObjectID=\"1\" Version=\"12\"><Properties Version=\"1\">\n" + recent +
            "<BE.Prefs.MRU.Count>8</BE.Prefs.MRU.Count>\n</Properties></Preferences></PremiereData>\n");
}

std::string makeProject(const std::string& folder, const std::string& name) {
  fs::create_directories(folder);
  std::string project = folder + "/" + name + ".prproj";
  writeFile(project, "<?xml version=\"1.0\"?><PremiereData Version=\"3\"/>\n");
  return project;
}

}  // namespace

TEST_F(RenderSourcesTest, FinalCutProRenderFolderComesFromItsPreferencesAndFollowsThem) {
  MVFCPPrefParser::setBootVolumeNameForTesting(std::optional<std::string>("Macintosh HD"));
  enableOnly("watchFCPRenders");
  const std::string prefsFolder = MVLocalPaths::prefsDirectory(true) + "/Final Cut Pro User Data";

  // Without Final Cut Pro's preferences its default render folder is watched;
  // with them, the one the user picked, and the preference folder.
  MVFCPPrefParser::setApplicationsFolderForTesting(makeTempDir("No Applications"));
  controller().setup();
  EXPECT_EQ(controller().fcpRenderPath(),
            MVLocalPaths::documentDirectory(true) + "/Final Cut Pro Documents/Render Files");

  MVFCPPrefParser::setApplicationsFolderForTesting(finalCutProApplication());
  const std::string prefsFile = prefsFolder + "/Final Cut Pro 7.0 Prefs.fcset";
  const std::string scratch = makeTempDir("Final Cut Media");
  const auto hourAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
  writeFCPPreferences(prefsFile, scratch, hourAgo);
  const std::string renderFolder = scratch + "/Render Files";
  controller().setup();
  ASSERT_EQ(controller().fcpRenderPath(), renderFolder);
  EXPECT_TRUE(isWatched(prefsFolder));
  EXPECT_TRUE(isWatched(renderFolder));

  // Another render folder is noticed through the preference folder, read
  // again at most every 30 seconds as Final Cut Pro rewrites it often.
  const std::string newScratch = makeTempDir("Newer Media");
  controller().setClockForTesting([] { return std::chrono::system_clock::now() + std::chrono::seconds(31); });
  writeFCPPreferences(prefsFile, newScratch, hourAgo + std::chrono::minutes(20));
  const std::string newRenderFolder = newScratch + "/Render Files";
  ASSERT_TRUE(waitUntil([&] { return controller().fcpRenderPath() == newRenderFolder; }, 10));
  EXPECT_TRUE(isWatched(newRenderFolder));

  MVFCPPrefParser::setApplicationsFolderForTesting(std::nullopt);
  MVFCPPrefParser::setBootVolumeNameForTesting(std::nullopt);
}

TEST_F(RenderSourcesTest, PremierePreviewFoldersComeFromRecentProjectsAndAreRefreshed) {
  // No search tool: only the folders beside the recent projects count.
  MVPremierePrefParser::setFolderSearchToolForTesting(std::string("/bin/true"));
  const std::string projects = makeTempDir("Projects");
  writePremierePreferences({makeProject(projects + "/Feature", "Feature"), projects + "/Gone/Gone.prproj"});
  enableOnly("watchPremiereRenders");
  controller().setup();

  const std::string preview = projects + "/Feature/Adobe Premiere Pro Preview Files";
  EXPECT_EQ(controller().premierePaths(), std::vector<std::string>{preview});
  EXPECT_TRUE(isWatched(preview));
  EXPECT_TRUE(controller().premierePathRefreshIsScheduled());

  // The refresh follows the recent projects: a folder that left the list
  // stays watched but no longer counts as Premiere's.
  quillon::setPremiereRefreshSecondsForTesting(0.3);
  controller().setup();
  const std::string secondPreview = projects + "/Second/Adobe Premiere Pro Preview Files";
  writePremierePreferences({makeProject(projects + "/Second", "Second")});
  ASSERT_TRUE(
      waitUntil([&] { return controller().premierePaths() == std::vector<std::string>{secondPreview}; }, 10));
  EXPECT_TRUE(isWatched(secondPreview));
  EXPECT_TRUE(isWatched(preview));
  EXPECT_FALSE(controller().pathIsPremierePreviewLocation(preview + "/Feature.PRV/"));

  // Switching the option off ends the refresh at its next firing.
  setSetting("watchPremiereRenders", 0);
  ASSERT_TRUE(waitUntil([] { return !controller().premierePathRefreshIsScheduled(); }, 10));
  writePremierePreferences({makeProject(projects + "/Third", "Third")});
  MVRunLoop::main().runFor(1.0);
  EXPECT_EQ(controller().premierePaths(), std::vector<std::string>{secondPreview});

  quillon::setPremiereRefreshSecondsForTesting(0);
  MVPremierePrefParser::setFolderSearchToolForTesting(std::nullopt);
}

TEST_F(RenderSourcesTest, MediaEncoderQueueLogIsAnnouncedWhenItsQueueStopped) {
  enableOnly("watchAMEQueue");
  controller().setup();
  EXPECT_TRUE(MVFSEvents::sharedController().watchPaths().empty()) << "no encoder folder yet";

  const std::string inPrefs = MVLocalPaths::prefsDirectory(true) + "/Adobe/Adobe Media Encoder/12.0";
  const std::string inDocuments = MVLocalPaths::documentDirectory(true) + "/Adobe/Adobe Media Encoder/12.0";
  const std::string olderInDocuments = MVLocalPaths::documentDirectory(true) + "/Adobe/Adobe Media Encoder/11.0";
  for (const std::string& folder : {inPrefs, inDocuments, olderInDocuments}) fs::create_directories(folder);
  controller().setup();
  EXPECT_EQ(MVFSEvents::sharedController().watchPaths(),
            (std::vector<std::string>{inPrefs, olderInDocuments, inDocuments}));

  // Whose log, once it ends with the stopped queue, is announced.
  const std::string stopped = inPrefs + "/AMEEncodingLog.txt";
  writeFile(stopped, utf16LE("03/01/2024 10:12:01 : Encoding Time: 00:02:10\n"
                             "03/01/2024 10:12:02 : Queue Stopped\n\n \r\n\n"));
  ASSERT_TRUE(waitForAnnouncement(stopped));
  EXPECT_EQ(announced(stopped, "type"), "ameQueue");
}
