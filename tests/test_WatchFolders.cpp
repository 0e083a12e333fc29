// The watch-folder road on real folders: inotify events, the controller's
// 3-second folder check, and what it announces to a recording desktop.
#include <sys/xattr.h>

#include <fstream>
#include <set>

#include "FSEventsInotify.h"
#include "MVLocalPaths.h"
#include "MVPropertyList.h"
#include "WatchTestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace watch_test;

namespace {

void writeBytes(const std::string& path, std::size_t size, bool append = false) {
  std::ofstream(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc)) << std::string(size, 'r');
}

const std::string kFFmpeg = "ffmpeg -nostdin -loglevel error -y ";

class WatchFolders : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_WatchFolders", true);
    MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
  }
  void SetUp() override { fs::remove(MVGlobalPreferences::path()); }
  void TearDown() override {
    MVFSEvents::sharedController().stopWatching();
    controller().fileSystemEventsReceived({});  // an empty batch cancels a pending check
    MVRunLoop::main().runFor(0.1);
  }

  static void writeSettings(MVPlistValue settings) {
    settings.set("notifyFinder", 1);
    fs::create_directories(MVLocalPaths::prefsDirectory(true));
    ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), settings));
  }
  void watch(std::vector<std::string> folders, MVPlistValue settings = MVPlistValue{MVPlistValue::Dictionary{}}) {
    settings.set("watchFolders", MVPlistValue::Array(folders.begin(), folders.end()));
    writeSettings(settings);
    controller().setup();
    std::vector<std::string> watched = MVFSEvents::sharedController().watchPaths();
    std::sort(watched.begin(), watched.end());
    std::sort(folders.begin(), folders.end());
    ASSERT_EQ(watched, folders);
  }
  std::vector<std::string> revealed() {
    std::vector<std::string> paths;
    for (const auto& r : desktop->revealed()) paths.push_back(r.path);
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  std::string log() const { return since.text(); }

  std::shared_ptr<RecordingDesktop> desktop = RecordingDesktop::install();
  LogSince since;
};

TEST_F(WatchFolders, AGrowingRenderIsAnnouncedOnceAfterItStopsGrowing) {
  std::string folder = makeTempDir("growing");
  watch({folder});
  std::string movie = folder + "/growing.mov";
  // Written in pieces for longer than the folder check waits: every batch
  // of events puts the check off again.
  for (int i = 0; i < 9; ++i) {
    writeBytes(movie, 40000, true);
    MVRunLoop::main().runFor(0.45);
  }
  EXPECT_TRUE(revealed().empty()) << "announced while still being written";
  ASSERT_TRUE(waitUntil([&] { return revealed().size() == 1; }, 20)) << log();
  EXPECT_EQ(desktop->revealed()[0].path, movie);
  EXPECT_EQ(desktop->revealed()[0].size, 9 * 40000u);
  EXPECT_EQ(desktop->notifications(), std::vector<std::string>{"Render Complete|File: growing.mov"});
  EXPECT_EQ(timesIn(log(), "Checking folders"), 1u) << "one folder check for the whole write";
}

TEST_F(WatchFolders, TheCheckAnnouncesOnlyTheNewestFreshLargeEnoughMediaFile) {
  controller().setSizeSettleSecondsForTesting(0.3);
  const std::string root = makeTempDir("rules");
  const std::pair<const char*, const char*> folders[] = {  // folder, the file announced there
      {"exactly-100k", nullptr},        {"one-byte-more", "over.mov"}, {"movie-text", "notes.txt"},
      {"plain-text", nullptr},          {"typed-no-extension", "render"}, {"too-old", nullptr},
      {"fairly-recent", "fresh.m4v"},   {"two-files", "newest.mov"},   {"constant", nullptr},
      {"nested", "sub/deeper/late.mov"},
  };
  std::vector<std::string> paths;
  std::set<std::string> expected;
  for (auto [name, file] : folders) {
    paths.push_back(root + "/" + name);
    fs::create_directory(paths.back());
    if (file) expected.insert(paths.back() + "/" + file);
  }
  watch(paths);
  auto in = [&](const char* folder, const std::string& name) { return root + "/" + folder + "/" + name; };
  // Files with the classic QuickTime type code, as the Finder stores it.
  auto markAsMovie = [](const std::string& path) {
    char info[32] = {'M', 'o', 'o', 'V'};
    ASSERT_EQ(setxattr(path.c_str(), "user.com.apple.FinderInfo", info, sizeof info, 0), 0) << path;
  };

  writeBytes(in("exactly-100k", "exact.mov"), 102400);
  writeBytes(in("one-byte-more", "over.mov"), 102401);
  writeBytes(in("movie-text", "notes.txt"), 10);
  markAsMovie(in("movie-text", "notes.txt"));
  writeBytes(in("plain-text", "notes.txt"), 200000);
  writeBytes(in("typed-no-extension", "render"), 200000);
  markAsMovie(in("typed-no-extension", "render"));
  writeBytes(in("too-old", "old.mov"), 200000);
  setAge(in("too-old", "old.mov"), 61s);
  writeBytes(in("fairly-recent", "fresh.m4v"), 200000);
  setAge(in("fairly-recent", "fresh.m4v"), 40s);
  // Hidden files and folders do not qualify; the older movie is not announced.
  writeBytes(in("two-files", "older.mov"), 200000);
  setAge(in("two-files", "older.mov"), 10s);
  writeBytes(in("two-files", "newest.mov"), 200000);
  writeBytes(in("two-files", ".partial.mov"), 200000);
  fs::create_directory(in("two-files", "folder.mov"));
  fs::create_directory(in("constant", "Constant Frames"));
  writeBytes(in("constant", "Constant Frames/frame.mov"), 200000);
  // A subfolder made while the render is being written is watched too.
  fs::create_directories(in("nested", "sub/deeper"));
  writeBytes(in("nested", "sub/deeper/late.mov"), 200000);

  ASSERT_TRUE(waitUntil([&] { return revealed().size() >= expected.size(); }, 30)) << log();
  MVRunLoop::main().runFor(3.5);
  EXPECT_EQ(revealed(), std::vector<std::string>(expected.begin(), expected.end())) << "missing or announced twice";
  EXPECT_FALSE(controller().hasPendingFolderCheck());

  // A late event for an unchanged file is ignored; a file written again is a
  // new render; the 100 KB file grown by one byte is now large enough.
  desktop->clear();
  chmod(in("one-byte-more", "over.mov").c_str(), 0600);
  writeBytes(in("two-files", "newest.mov"), 1, true);
  writeBytes(in("exactly-100k", "exact.mov"), 1, true);
  std::vector<std::string> again = {in("exactly-100k", "exact.mov"), in("two-files", "newest.mov")};
  ASSERT_TRUE(waitUntil([&] { return revealed().size() >= again.size(); }, 30)) << log();
  MVRunLoop::main().runFor(3.5);
  EXPECT_EQ(revealed(), again);
}

// Event batches handed to the controller directly, as the stream would: a
// batch of only Compressor events puts the check off, and the folder waits
// for its next event.
TEST_F(WatchFolders, CompressorEventsPutTheFolderCheckOff) {
  controller().setSizeSettleSecondsForTesting(0.1);
  writeSettings(MVPlistValue::Dictionary{});
  const std::string ready = makeTempDir("routing") + "/ready/";
  fs::create_directories(ready);
  writeBytes(ready + "take.mov", 200000);
  const std::string spool = controller().qmaster4SpoolPath() + "/job-1/";
  auto send = [](std::vector<std::string> paths) {
    MVPlistValue::Array events;
    for (const auto& p : paths) events.push_back(MVPlistValue::Dictionary{{"id", 1}, {"flag", "0100"}, {"path", p}});
    controller().fileSystemEventsReceived(events);
  };
  send({ready});
  EXPECT_TRUE(controller().hasPendingFolderCheck());
  send({spool});
  EXPECT_FALSE(controller().hasPendingFolderCheck());
  EXPECT_EQ(controller().currentFolders()->count(ready), 1u);
  send({spool, ready});
  EXPECT_TRUE(controller().hasPendingFolderCheck());
  ASSERT_TRUE(waitUntil([&] { return revealed().size() == 1; }, 15)) << log();
  EXPECT_EQ(revealed()[0], ready + "take.mov");
  EXPECT_TRUE(controller().currentFolders()->empty()) << "the check empties the pending set";
}

TEST_F(WatchFolders, TheFolderDecidesTheKindOfRenderAndItsProject) {
  controller().setSizeSettleSecondsForTesting(0.1);
  writeSettings(MVPlistValue::Dictionary{});
  const std::string root = makeTempDir("kinds");
  const std::string fcp = root + "/Final Cut Pro Documents/Render Files";
  const std::string previews = root + "/Adobe Premiere Pro Preview Files";
  controller().setFcpRenderPath(fcp);
  controller().setPremierePaths({previews});
  struct Case {
    std::string folder, file, contents;
    std::string type, project;  // type "-": not announced
    std::string later = "";     // a movie written after the file, never announced
  };
  const std::string big(200000, 'm');
  // The queue log counts in the encoder's folder of the user's preferences;
  // a folder that merely has such a name is an ordinary output folder.
  const std::string ame = MVLocalPaths::prefsDirectory(true) + "/Adobe/Adobe Media Encoder/";
  const Case cases[] = {
      {fcp + "/Theme/Sequence 1/", "r1.mov", big, "fcpRender", "Theme"},
      {fcp + "/", "r2.mov", big, "fcpRender", ""},
      {root + "/Vol/Avid MediaFiles/MXF/1/", "v01.mxf", big, "avidRender", ""},
      {root + "/Vol/Avid MediaFiles/MXF/2/", "v02.mov", big, "-", ""},  // only MXF in Avid's folders
      {previews + "/Promo.PRV/", "p.mov", big, "premiereRender", "Promo"},
      {root + "/Movies/Adobe/Adobe Media Encoder/out/", "enc.mp4", big, "ameQueue", ""},
      {ame + "A/", "AMEEncodingLog.txt", utf16LE("Encoding ... done\r\nQueue Stopped\r\n"), "ameQueue", ""},
      {ame + "B/", "AMEEncodingLog.txt", utf16LE("Queue Started\r\nEncoding ...\r\n"), "-", ""},
      {ame + "C/", "AMEEncodingLog.txt", utf16LE("Queue Stopped"), "ameQueue", "", "stray.mov"},
      {ame + "E/", "AMEEncodingLog.txt", utf16LE("Queue stopped\n"), "-", ""},  // the case counts
      {ame + "F/", "AMEEncodingLog.txt", "Queue Stopped\n\n", "-", ""},               // UTF-8, no UTF-16
      {root + "/Preferences/Adobe/Adobe Media Encoder/D/", "out.mov", big, "ameQueue", ""},
      {root + "/Plain/", "w.mov", big, "watchFile", ""},
  };
  MVPlistValue::Array events;
  for (const Case& c : cases) {
    fs::create_directories(c.folder);
    std::ofstream(c.folder + c.file, std::ios::binary) << c.contents;
    if (!c.later.empty()) {
      setAge(c.folder + c.file, 2s);
      std::ofstream(c.folder + c.later, std::ios::binary) << big;
    }
    events.push_back(MVPlistValue::Dictionary{{"path", c.folder}});
  }
  controller().fileSystemEventsReceived(events);
  ASSERT_TRUE(waitUntil([&] { return !controller().hasPendingFolderCheck() && timesIn(log(), "Render complete") >= 9; },
                        20))
      << log();
  MVRunLoop::main().runFor(0.5);
  EXPECT_EQ(timesIn(log(), "AME queue stopped"), 2u);
  EXPECT_EQ(timesIn(log(), "Error getting contents of AME log: "), 1u);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.folder + c.file);
    EXPECT_EQ(announced(c.folder + c.file, "type"), c.type);
    if (c.type != "-") {
      EXPECT_EQ(announced(c.folder + c.file, "projectName"), c.project);
      EXPECT_EQ(announced(c.folder + c.file, "watchFilename"), c.file);
    }
    if (!c.later.empty()) {
      EXPECT_EQ(announced(c.folder + c.later, "type"), "-");
    }
  }
}

// Real writers side by side: an encoder that stalls for 6 s half-way, so that
// the check runs while it holds its file, and a numbered-PNG render with a
// gap. Each is announced once, after it ended.
TEST_F(WatchFolders, RealWritersAreAnnouncedOnceAndOnlyAfterTheyAreDone) {
  const std::string root = makeTempDir("writers");
  struct Case {
    std::string folder, script, announced, logged;
  };
  const std::string raw = "-f rawvideo -pix_fmt yuv420p -s 320x240 -r 10 ";
  const std::string stage = kFFmpeg + "-re -f lavfi -i 'testsrc=size=320x240:rate=10:d=2,noise=alls=60:allf=t+u' " + raw + "- ";
  const std::string frames = kFFmpeg + "-re -f lavfi -i testsrc=size=160x120:rate=4:d=";
  const Case cases[] = {
      {root + "/stall", "(" + stage + "; sleep 6; " + stage + ") | " + kFFmpeg + raw + "-i - -c:v mpeg4 -q:v 3 clip.mov",
       "clip.mov", "Still being written by ffmpeg (pid "},
      {root + "/frames",
       "sleep 11 && " + frames + "2 -f image2 -start_number 1 frame_%04d.png && " + frames +
           "1.5 -f image2 -start_number 12 frame_%04d.png",
       "frame_0001.png", "Frame sequence frame_####.png, frames 1-17, 14 frames: 3 frames missing: 9, 10, 11"},
  };
  std::vector<std::string> folders;
  for (const Case& c : cases) fs::create_directories(folders.emplace_back(c.folder));
  watch(folders, MVPlistValue::Dictionary{{"sequenceQuietSeconds", 4}});

  std::vector<std::unique_ptr<ChildProcess>> writers;
  for (const Case& c : cases) writers.push_back(std::make_unique<ChildProcess>("cd '" + c.folder + "' && " + c.script));
  auto allDone = [&] {
    bool running = false;
    for (auto& w : writers) running = w->running() || running;
    return !running && revealed().size() >= std::size(cases);
  };
  ASSERT_TRUE(waitUntil(allDone, 60)) << log();
  MVRunLoop::main().runFor(3.5);  // nothing more comes
  ASSERT_EQ(revealed().size(), std::size(cases)) << log();
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].folder);
    EXPECT_EQ(writers[i]->status(), 0);
    auto all = desktop->revealed();
    auto it = std::find_if(all.begin(), all.end(), [&](auto& r) { return r.path == cases[i].folder + "/" + cases[i].announced; });
    ASSERT_NE(it, all.end()) << log();
    EXPECT_GT(it->when, writers[i]->ended()) << "announced while its writer was still at work";
    EXPECT_NE(log().find(cases[i].logged), std::string::npos) << log();
  }
  EXPECT_EQ(announced(root + "/frames/frame_0001.png", "missingFrames"), "3 frames missing: 9, 10, 11");
}

// An encode killed half-way leaves an MP4 without its index: a failed render.
TEST_F(WatchFolders, AnEncodeKilledHalfWayIsAFailure) {
  const std::string folder = makeTempDir("killed");
  watch({folder});
  ChildProcess writer("cd '" + folder + "' || exit 1; " + kFFmpeg +
                      "-re -f lavfi -i 'testsrc=size=320x240:rate=10:d=30,noise=alls=60:allf=t+u' -c:v mpeg4 -q:v 3 "
                      "killed.mp4 & p=$!; while [ $(stat -c %s killed.mp4 2>/dev/null || echo 0) -lt 160000 ]; do "
                      "sleep 0.2; done; kill -9 $p");
  ASSERT_TRUE(waitUntil([&] { return !writer.running() && !desktop->notifications().empty(); }, 40)) << log();
  MVRunLoop::main().runFor(3.5);
  EXPECT_EQ(desktop->notifications(), std::vector<std::string>{"Render Failed|File: killed.mp4"});
  EXPECT_TRUE(revealed().empty()) << "a broken file is revealed as a finished render";
  EXPECT_EQ(timesIn(log(), "killed.mp4 is not a complete movie: no 'moov' atom"), 1u) << log();
}

}  // namespace
