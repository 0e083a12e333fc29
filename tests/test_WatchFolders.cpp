// The watch-folder road on real folders: inotify events reach the
// controller through the shared event stream, the 3-second folder check
// picks the finished file, and the outcome dispatch announces it. What is
// announced is read from a recording desktop (the "reveal in file manager"
// action runs for every announced watch-folder file, even a quiet one).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "AppController.h"
#include "FSEventsInotify.h"
#include "MVFSEvents.h"
#include "MVGrowl.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVRunLoop.h"
#include "MVSound.h"
#include "MVWorkspace.h"
#include "QuillonPreferences.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using quillon_test::makeTempDir;
using quillon_test::readFile;
using quillon_test::waitUntil;

namespace {

struct Announced {
  std::string path;
  std::uintmax_t sizeWhenAnnounced;
  std::chrono::steady_clock::time_point when;
};

class RecordingDesktop : public MVWorkspace::Backend,
                         public MVUserNotificationCenter::Backend,
                         public MVSound::Backend {
 public:
  bool selectFile(const std::string& path, const std::string&) override {
    std::error_code ec;
    std::lock_guard<std::mutex> lock(mutex);
    announced.push_back({path, fs::file_size(path, ec), std::chrono::steady_clock::now()});
    return true;
  }
  void deliverNotification(const MVUserNotification& n) override {
    std::lock_guard<std::mutex> lock(mutex);
    notifications.push_back(n.title + "|" + n.informativeText);
  }
  void play(const std::string&, MVSound::Completion done) override {
    MVRunLoop::main().performOnMainThread([done] { done(true); }, false);
  }

  std::size_t announcedCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return announced.size();
  }
  std::set<std::string> announcedPaths() {
    std::lock_guard<std::mutex> lock(mutex);
    std::set<std::string> paths;
    for (const auto& a : announced) paths.insert(a.path);
    return paths;
  }

  std::mutex mutex;
  std::vector<Announced> announced;
  std::vector<std::string> notifications;
};

void writeBytes(const std::string& path, std::size_t size, bool append = false) {
  std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
  std::string block(size, 'r');
  out.write(block.data(), static_cast<std::streamsize>(block.size()));
}

void setAge(const std::string& path, std::chrono::seconds age) {
  auto when = std::chrono::system_clock::now() - age;
  timespec times[2];
  times[0].tv_sec = times[1].tv_sec = std::chrono::system_clock::to_time_t(when);
  times[0].tv_nsec = times[1].tv_nsec = 0;
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// Gives a file the classic QuickTime movie type code, as the Finder stores it.
void markAsMovie(const std::string& path) {
  char info[32] = {'M', 'o', 'o', 'V'};
  ASSERT_EQ(setxattr(path.c_str(), "user.com.apple.FinderInfo", info, sizeof info, 0), 0) << path;
}

// A writer that no one here wrote, run through /bin/sh in its own process
// group; running() reaps it and notes when it ended.
class Writer {
 public:
  explicit Writer(const std::string& script) {
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ~Writer() {
    if (running()) kill(-pid_, SIGKILL);
    if (!ended_) waitpid(pid_, nullptr, 0);
  }
  bool running() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = std::chrono::steady_clock::now();
    return !ended_;
  }
  std::chrono::steady_clock::time_point ended() const { return *ended_; }
  int status() const { return status_; }

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  std::optional<std::chrono::steady_clock::time_point> ended_;
};

const char* const kFFmpeg = "ffmpeg -nostdin -loglevel error -y ";

std::size_t countIn(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
  return n;
}

class WatchFolders : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    MVLog::createNewLog("test_WatchFolders", true);
    MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
  }

  void SetUp() override {
    fs::remove(MVGlobalPreferences::path());
    MVGrowl::defaultController();
    previousCenter_ = MVUserNotificationCenter::setBackend(desktop);
    previousSound_ = MVSound::setBackend(desktop);
    previousWorkspace_ = MVWorkspace::setBackend(desktop);
    // Never destroyed: the folder check leaves a detached post-render worker
    // that holds the controller. Kept in a list, so that the leak checker
    // sees it as still in use.
    static auto* kept = new std::vector<AppController*>;
    controller = kept->emplace_back(new AppController());
    MVLog::finishWriting();
    logStart_ = readFile(MVLog::currentLogPath()).size();
  }

  void TearDown() override {
    MVFSEvents::sharedController().stopWatching();
    // An empty batch cancels a folder check still pending.
    controller->fileSystemEventsReceived({});
    MVFSEvents::sharedController().setDelegate(nullptr);
    MVRunLoop::main().runFor(0.1);
    MVUserNotificationCenter::setBackend(previousCenter_);
    MVSound::setBackend(previousSound_);
    MVWorkspace::setBackend(previousWorkspace_);
  }

  // The settings name `folders`; set-up starts the folder watcher on them.
  void watch(const std::vector<std::string>& folders, MVPlistValue settings = MVPlistValue{MVPlistValue::Dictionary{}}) {
    MVPlistValue::Array list;
    for (const auto& f : folders) list.emplace_back(f);
    settings.set("watchFolders", list);
    settings.set("notifyFinder", 1);
    fs::create_directories(MVLocalPaths::prefsDirectory(true));
    ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), settings));
    controller->setup();
    std::vector<std::string> watched = MVFSEvents::sharedController().watchPaths();
    std::sort(watched.begin(), watched.end());
    std::vector<std::string> expected = folders;
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(watched, expected);
  }

  std::string logText() const {
    MVLog::finishWriting();
    return readFile(MVLog::currentLogPath()).substr(logStart_);
  }

  std::shared_ptr<RecordingDesktop> desktop = std::make_shared<RecordingDesktop>();
  AppController* controller = nullptr;

 private:
  std::size_t logStart_ = 0;
  std::shared_ptr<MVUserNotificationCenter::Backend> previousCenter_;
  std::shared_ptr<MVSound::Backend> previousSound_;
  std::shared_ptr<MVWorkspace::Backend> previousWorkspace_;
};

TEST_F(WatchFolders, AGrowingRenderIsAnnouncedOnceAfterItStopsGrowing) {
  std::string folder = makeTempDir("growing");
  watch({folder});
  std::string movie = folder + "/growing.mov";

  // Written in pieces for several seconds: every batch of events puts the
  // folder check off again, so nothing is announced while it grows.
  const std::size_t piece = 40000;
  const int pieces = 12;
  for (int i = 0; i < pieces; ++i) {
    writeBytes(movie, piece, true);
    MVRunLoop::main().runFor(0.45);
  }
  EXPECT_EQ(desktop->announcedCount(), 0u) << "announced while still being written";

  ASSERT_TRUE(waitUntil([&] { return desktop->announcedCount() == 1; }, 20)) << logText();
  EXPECT_EQ(desktop->announced[0].path, movie);
  EXPECT_EQ(desktop->announced[0].sizeWhenAnnounced, piece * pieces);
  EXPECT_EQ(desktop->notifications, std::vector<std::string>{"Render Complete|File: growing.mov"});

  // Late events for the unchanged file do not announce it again.
  chmod(movie.c_str(), 0600);
  MVRunLoop::main().runFor(4.5);
  EXPECT_EQ(desktop->announcedCount(), 1u);
  std::string log = logText();
  EXPECT_EQ(countIn(log, "Render finished: "), 1u);
  EXPECT_GE(countIn(log, "Starting timeout"), 1u);
  EXPECT_EQ(countIn(log, "Checking folders"), 1u) << "one folder check for the whole write";
  EXPECT_EQ(countIn(log, movie + " was modified recently"), 1u);
}

TEST_F(WatchFolders, TheCheckAnnouncesOnlyTheNewestFreshLargeEnoughMediaFile) {
  controller->setSizeSettleSecondsForTesting(0.3);
  const std::string root = makeTempDir("rules");
  struct Folder {
    const char* name;
    const char* announced;  // file name relative to the folder, or nullptr
  };
  const Folder folders[] = {
      {"exactly-100k", nullptr},        {"one-byte-more", "over.mov"},
      {"movie-text", "notes.txt"},      {"plain-text", nullptr},
      {"typed-no-extension", "render"}, {"too-old", nullptr},
      {"fairly-recent", "fresh.m4v"},   {"two-files", "newest.mov"},
      {"constant", nullptr},            {"nested", "sub/deeper/late.mov"},
  };
  std::vector<std::string> paths;
  for (const Folder& f : folders) {
    paths.push_back(root + "/" + f.name);
    fs::create_directory(paths.back());
  }
  watch(paths);
  auto in = [&](const char* folder, const std::string& name) { return root + "/" + folder + "/" + name; };

  writeBytes(in("exactly-100k", "exact.mov"), 102400);
  writeBytes(in("one-byte-more", "over.mov"), 102401);
  // A small text file counts when it carries the movie type code.
  writeBytes(in("movie-text", "notes.txt"), 10);
  markAsMovie(in("movie-text", "notes.txt"));
  writeBytes(in("plain-text", "notes.txt"), 200000);
  writeBytes(in("typed-no-extension", "render"), 200000);
  markAsMovie(in("typed-no-extension", "render"));
  writeBytes(in("too-old", "old.mov"), 200000);
  setAge(in("too-old", "old.mov"), 61s);
  writeBytes(in("fairly-recent", "fresh.m4v"), 200000);
  setAge(in("fairly-recent", "fresh.m4v"), 40s);
  // Only the newest qualifying entry is looked at: hidden files and folders
  // do not qualify, and the older movie is not announced beside it.
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

  std::set<std::string> expected;
  for (const Folder& f : folders)
    if (f.announced) expected.insert(in(f.name, f.announced));
  ASSERT_TRUE(waitUntil([&] { return desktop->announcedCount() >= expected.size(); }, 30))
      << "announced " << desktop->announcedCount() << " of " << expected.size() << "\n" << logText();
  MVRunLoop::main().runFor(4);
  EXPECT_EQ(desktop->announcedPaths(), expected);
  EXPECT_EQ(desktop->announcedCount(), expected.size()) << "a file was announced twice";
  EXPECT_FALSE(desktop->notifications.empty());
  EXPECT_FALSE(controller->hasPendingFolderCheck());

  // Second round: a late event for an announced, unchanged file is ignored;
  // a file written again is a new render; the 100 KB file grown by one byte
  // is now large enough.
  desktop->announced.clear();
  chmod(in("one-byte-more", "over.mov").c_str(), 0600);
  writeBytes(in("two-files", "newest.mov"), 1, true);
  writeBytes(in("exactly-100k", "exact.mov"), 1, true);
  std::set<std::string> again = {in("two-files", "newest.mov"), in("exactly-100k", "exact.mov")};
  ASSERT_TRUE(waitUntil([&] { return desktop->announcedCount() >= again.size(); }, 30)) << logText();
  MVRunLoop::main().runFor(4);
  EXPECT_EQ(desktop->announcedPaths(), again);
  EXPECT_EQ(desktop->announcedCount(), again.size());
}

// Event batches handed to the controller directly, as the stream would.
TEST_F(WatchFolders, EventRoutingArmsCancelsAndKeepsPendingFolders) {
  controller->setSizeSettleSecondsForTesting(0.1);
  fs::create_directories(MVLocalPaths::prefsDirectory(true));
  ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), [] {
    MVPlistValue s{MVPlistValue::Dictionary{}};
    s.set("notifyFinder", 1);
    return s;
  }()));
  const std::string root = makeTempDir("routing");
  const std::string ready = root + "/ready/", empty = root + "/empty/";
  fs::create_directories(ready);
  fs::create_directories(empty);
  writeBytes(ready + "take.mov", 200000);
  const std::string spool = controller->qmaster4SpoolPath() + "/job-1/";
  auto batch = [](std::vector<std::string> paths) {
    MVPlistValue::Array events;
    for (const auto& p : paths) {
      MVPlistValue e{MVPlistValue::Dictionary{}};
      e.set("id", 1);
      e.set("flag", "0100");
      if (!p.empty()) e.set("path", p);
      events.push_back(e);
    }
    return events;
  };
  auto pending = [&] {
    std::set<std::string> keys;
    for (const auto& [folder, date] : *controller->currentFolders()) keys.insert(folder);
    return keys;
  };

  // A folder with a fresh movie arms the check.
  controller->fileSystemEventsReceived(batch({ready}));
  EXPECT_TRUE(controller->hasPendingFolderCheck());
  EXPECT_EQ(pending(), std::set<std::string>{ready});

  // A batch of only a Compressor event cancels the check without arming a
  // new one; the folder stays pending until its next event.
  controller->fileSystemEventsReceived(batch({spool}));
  EXPECT_FALSE(controller->hasPendingFolderCheck());
  EXPECT_EQ(pending(), std::set<std::string>{ready});

  // Ignored records change nothing: no path, a "Constant Frames" folder, a
  // folder without a fresh movie (which is only dropped from the pending set).
  controller->fileSystemEventsReceived(batch({"", root + "/ready/Constant Frames/", empty}));
  EXPECT_FALSE(controller->hasPendingFolderCheck());
  EXPECT_EQ(pending(), std::set<std::string>{ready});

  // The next event for the folder arms the check again, even beside a
  // Compressor event, and the check announces the movie.
  controller->fileSystemEventsReceived(batch({spool, ready}));
  EXPECT_TRUE(controller->hasPendingFolderCheck());
  ASSERT_TRUE(waitUntil([&] { return desktop->announcedCount() == 1; }, 15)) << logText();
  EXPECT_EQ(desktop->announced[0].path, ready + "take.mov");
  EXPECT_TRUE(pending().empty()) << "the check empties the pending set";
  EXPECT_FALSE(controller->hasPendingFolderCheck());

  // Once announced, a folder event for the unchanged movie arms nothing.
  controller->fileSystemEventsReceived(batch({ready}));
  EXPECT_FALSE(controller->hasPendingFolderCheck());
  EXPECT_TRUE(pending().empty());
}

// The folder's place decides what kind of render the check reports.
TEST_F(WatchFolders, TheFolderDecidesTheKindOfRenderAndItsProject) {
  controller->setSizeSettleSecondsForTesting(0.1);
  fs::create_directories(MVLocalPaths::prefsDirectory(true));
  ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), MVPlistValue{MVPlistValue::Dictionary{}}));
  const std::string root = makeTempDir("kinds");
  const std::string fcp = root + "/Final Cut Pro Documents/Render Files";
  const std::string previews = root + "/Adobe Premiere Pro Preview Files";
  controller->setFcpRenderPath(fcp);
  controller->setPremierePaths({previews});

  auto utf16 = [](const std::string& ascii) {
    std::string bytes;
    for (char c : ascii) bytes += std::string{c, '\0'};
    return bytes;
  };
  struct Case {
    std::string folder;  // as the stream names it, with a trailing "/"
    std::string file;
    std::string contents;
    std::string expected;  // the middle of the logged description; "" = not announced
    std::string later = "";  // a movie written after the file, never announced
  };
  const std::string big(200000, 'm');
  // The encoder's queue log lives in its folder of the user's preferences,
  // where the queue watcher looks; a folder that merely has such a name is
  // an ordinary encoder output folder.
  const std::string ame = MVLocalPaths::prefsDirectory(true) + "/Adobe/Adobe Media Encoder/";
  const std::string lookalike = root + "/Preferences/Adobe/Adobe Media Encoder/";
  const Case cases[] = {
      {fcp + "/Theme/Sequence 1/", "r1.mov", big, "projectName = Theme;\n    type = fcpRender;"},
      {fcp + "/", "r2.mov", big, "type = fcpRender;"},
      {root + "/Vol/Avid MediaFiles/MXF/1/", "v01.mxf", big, "type = avidRender;"},
      // Only MXF media count in Avid's folders.
      {root + "/Vol/Avid MediaFiles/MXF/2/", "v02.mov", big, ""},
      {previews + "/Promo.PRV/", "p.mov", big, "projectName = Promo;\n    type = premiereRender;"},
      {root + "/Movies/Adobe/Adobe Media Encoder/out/", "enc.mp4", big, "type = ameQueue;"},
      // The Media Encoder's own log counts once its queue has stopped.
      {ame + "A/", "AMEEncodingLog.txt", utf16("Encoding ... done\r\nQueue Stopped\r\n"), "type = ameQueue;"},
      {ame + "B/", "AMEEncodingLog.txt", utf16("Queue Started\r\nEncoding ...\r\n"), ""},
      // A newer movie beside the log neither hides the log nor is the queue's end.
      {ame + "C/", "AMEEncodingLog.txt", utf16("Queue Stopped"), "type = ameQueue;", "stray.mov"},
      {lookalike + "D/", "out.mov", big, "type = ameQueue;"},
      {root + "/Plain/", "w.mov", big, "type = watchFile;"},
  };
  MVPlistValue::Array events;
  for (const Case& c : cases) {
    fs::create_directories(c.folder);
    std::ofstream(c.folder + c.file, std::ios::binary) << c.contents;
    if (!c.later.empty()) {
      setAge(c.folder + c.file, 2s);
      std::ofstream(c.folder + c.later, std::ios::binary) << big;
    }
    MVPlistValue e{MVPlistValue::Dictionary{}};
    e.set("path", c.folder);
    events.push_back(e);
  }
  controller->fileSystemEventsReceived(events);
  ASSERT_TRUE(controller->hasPendingFolderCheck());
  ASSERT_TRUE(waitUntil([&] { return !controller->hasPendingFolderCheck() && countIn(logText(), "Render complete") >= 9; },
                        20))
      << logText();
  MVRunLoop::main().runFor(0.5);

  std::string log = logText();
  EXPECT_EQ(countIn(log, "AME queue stopped"), 2u);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.folder + c.file);
    std::string path = c.folder + c.file;
    if (!c.later.empty()) {
      EXPECT_EQ(countIn(log, "fullPath = " + c.folder + c.later + ";"), 0u);
    }
    if (c.expected.empty()) {
      EXPECT_EQ(countIn(log, "fullPath = " + path + ";"), 0u);
      continue;
    }
    EXPECT_EQ(countIn(log, "Render finished: {\n    fullPath = " + path + ";\n    " + c.expected +
                               "\n    watchFilename = " + c.file + ";\n}"),
              1u)
        << log;
  }
}

// Real writers into watch folders, side by side: an encoder that stalls for
// 6 s half-way and a program that keeps its file open without writing (both
// quiet at the same time, so that the folder check runs while they hold
// their files), then a numbered-PNG render with a gap. Each is announced
// once, after it ended.
TEST_F(WatchFolders, RealWritersAreAnnouncedOnceAndOnlyAfterTheyAreDone) {
  const std::string root = makeTempDir("writers");
  struct Case {
    std::string folder;
    std::string script;    // run inside the folder
    std::string announced;  // file name revealed
    std::string logged;    // a line the check must have written
  };
  const std::string raw = "-f rawvideo -pix_fmt yuv420p -s 320x240 -r 10 ";
  const std::string stage =
      std::string(kFFmpeg) + "-re -f lavfi -i 'testsrc=size=320x240:rate=10:d=2,noise=alls=60:allf=t+u' " + raw + "- ";
  const std::string frames = std::string(kFFmpeg) + "-re -f lavfi -i testsrc=size=160x120:rate=4:d=";
  const Case cases[] = {
      {root + "/stall", "(" + stage + "; sleep 6; " + stage + ") | " + kFFmpeg + raw + "-i - -c:v mpeg4 -q:v 3 clip.mov",
       "clip.mov", "Still being written by ffmpeg (pid "},
      {root + "/held",
       "exec /usr/bin/python3 -c \"import time; f = open('held.avi', 'wb'); f.write(b'h' * 200000); f.flush(); "
       "time.sleep(10)\"",
       "held.avi", "Still being written by python3 (pid "},
      {root + "/frames",
       "sleep 11 && " + frames + "2 -f image2 -start_number 1 frame_%04d.png && " + frames + "1.5 -f image2 -start_number 12 frame_%04d.png",
       "frame_0001.png", "Frame sequence frame_####.png, frames 1-17, 14 frames: 3 frames missing: 9, 10, 11"},
  };
  std::vector<std::string> folders;
  for (const Case& c : cases) {
    fs::create_directories(c.folder);
    folders.push_back(c.folder);
  }
  MVPlistValue settings{MVPlistValue::Dictionary{}};
  settings.set("sequenceQuietSeconds", 4);
  watch(folders, settings);

  std::vector<std::unique_ptr<Writer>> writers;
  for (const Case& c : cases) writers.push_back(std::make_unique<Writer>("cd '" + c.folder + "' && " + c.script));
  auto allDone = [&] {
    bool running = false;
    for (auto& w : writers) running = w->running() || running;
    return !running && desktop->announcedCount() >= std::size(cases);
  };
  ASSERT_TRUE(waitUntil(allDone, 60)) << logText();
  MVRunLoop::main().runFor(4);  // nothing more comes

  std::string log = logText();
  ASSERT_EQ(desktop->announcedCount(), std::size(cases)) << log;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.folder);
    EXPECT_EQ(writers[i]->status(), 0);
    auto it = std::find_if(desktop->announced.begin(), desktop->announced.end(),
                           [&](const Announced& a) { return a.path == c.folder + "/" + c.announced; });
    ASSERT_NE(it, desktop->announced.end()) << log;
    EXPECT_GT(it->when, writers[i]->ended()) << "announced while its writer was still at work";
    EXPECT_NE(log.find(c.logged), std::string::npos) << log;
  }
  EXPECT_NE(log.find("watchFilename = frame_####.png, frames 1-17, 14 frames;"), std::string::npos) << log;
  EXPECT_NE(log.find("missingFrames = 3 frames missing: 9, 10, 11;"), std::string::npos) << log;
}

// An encode killed half-way leaves an MP4 without its index: a failed
// render, told with the failure texts.
TEST_F(WatchFolders, AnEncodeKilledHalfWayIsAFailure) {
  const std::string folder = makeTempDir("killed");
  watch({folder});
  Writer writer("cd '" + folder + "' || exit 1; " + kFFmpeg +
                "-re -f lavfi -i 'testsrc=size=320x240:rate=10:d=30,noise=alls=60:allf=t+u' -c:v mpeg4 -q:v 3 "
                "killed.mp4 & p=$!; while [ $(stat -c %s killed.mp4 2>/dev/null || echo 0) -lt 300000 ]; do sleep 0.2; "
                "done; kill -9 $p");
  ASSERT_TRUE(waitUntil([&] { return !writer.running() && !desktop->notifications.empty(); }, 40)) << logText();
  MVRunLoop::main().runFor(4);
  EXPECT_EQ(desktop->notifications, std::vector<std::string>{"Render Failed|File: killed.mp4"});
  EXPECT_EQ(desktop->announcedCount(), 0u) << "a broken file is revealed as a finished render";
  EXPECT_NE(logText().find("killed.mp4 is not a complete movie: no 'moov' atom"), std::string::npos) << logText();
}

}  // namespace
