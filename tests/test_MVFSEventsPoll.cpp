// The event stream on shares, where inotify does not see what other
// machines write: bindfs mounts in a private mount namespace stand in for
// the share, and writes into the folder under them for the other machine.
#include <fstream>
#include <functional>

#include "FSEventsInotify.h"
#include "WatchTestSupport.h"

namespace fs = std::filesystem;
using namespace watch_test;

namespace {

std::string slash(const std::string& path) { return path + "/"; }

void append(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::app) << text; }

// A FUSE mount of `source` at `mountPoint`, served by a bindfs daemon.
class BindfsShare {
 public:
  BindfsShare(const std::string& source, const std::string& mountPoint)
      : mountPoint_(mountPoint), daemon_("exec bindfs -f '" + source + "' '" + mountPoint + "' >/dev/null 2>&1") {
    mounted_ = waitUntil([&] { return readFile("/proc/self/mountinfo").find(" " + mountPoint + " ") != std::string::npos; }, 10);
  }
  ~BindfsShare() {
    resume();
    ::umount2(mountPoint_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }
  void pause() { ::kill(daemon_.pid(), SIGSTOP); }
  void resume() { ::kill(daemon_.pid(), SIGCONT); }
  bool unmount() { return ::umount2(mountPoint_.c_str(), 0) == 0; }

 private:
  std::string mountPoint_;
  ChildProcess daemon_;
  bool mounted_ = false;
};

class PolledStream : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string problem = enterPrivateMountNamespace(); !problem.empty()) GTEST_SKIP() << problem;
    if (shell("command -v bindfs >/dev/null") != 0) GTEST_SKIP() << "bindfs is not installed";
    MVLog::createNewLog("test_MVFSEventsPoll", true);
    MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
  }
  void TearDown() override {
    MVFSEvents::sharedController().stopWatching();
    MVFSEvents::sharedController().setPolledPaths({});
  }
  EventRecorder recorder;
  static void letFirstScanFinish() { MVRunLoop::main().runFor(1.0); }  // it reports nothing
};

}  // namespace

TEST_F(PolledStream, WhatAnotherMachineWritesOnAShareIsAnnounced) {
  const std::string source = makeTempDir("nas-disk"), share = makeTempDir("client") + "/NAS";
  fs::create_directories(share);
  fs::create_directories(source + "/Renders");
  writeFile(source + "/Renders/growing.mov", "first part");
  BindfsShare mount(source, share);
  ASSERT_TRUE(mount.mounted());
  MVFSEvents::sharedController().startWatchingPaths({share});
  MVRunLoop::main().runFor(2.5);  // the first scan and an idle round report nothing
  EXPECT_TRUE(recorder.records.empty()) << recorder.records.front().path;

  const std::string renders = source + "/Renders";
  struct Step {
    const char* what;
    std::function<void()> write;
    std::string expected;
  };
  const std::vector<Step> steps = {
      {"new file", [&] { writeFile(renders + "/new.mov", "x"); }, slash(share + "/Renders")},
      {"file grows, folder unchanged",
       [&] {
         const auto folderTime = fs::last_write_time(renders);
         append(renders + "/growing.mov", " and more");
         fs::last_write_time(renders, folderTime);
       },
       slash(share + "/Renders")},
      {"new subfolder with a file",
       [&] {
         fs::create_directories(renders + "/Shot 2");
         writeFile(renders + "/Shot 2/take.mov", "x");
       },
       slash(share + "/Renders/Shot 2")},
      {"the new subfolder is watched", [&] { append(renders + "/Shot 2/take.mov", "y"); },
       slash(share + "/Renders/Shot 2")},
      {"deleted", [&] { fs::remove(renders + "/new.mov"); }, slash(share + "/Renders")},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    recorder.records.clear();
    step.write();
    EXPECT_TRUE(recorder.waitFor(step.expected));
  }
  EXPECT_NE(logText().find("polling " + share + " every 2 s (on fuse"), std::string::npos);

  ASSERT_TRUE(mount.unmount());
  EXPECT_TRUE(recorder.waitFor(slash(share), kMVFSEventFlagUnmount));
}

// Beside it, a local folder the settings ask to poll.
TEST_F(PolledStream, AShareMountedInsideAWatchedFolderIsPolledAsItsOwnTree) {
  const std::string source = makeTempDir("nas-disk"), videos = makeTempDir("Videos");
  fs::create_directories(videos + "/Exports");
  MVFSEvents::sharedController().setPolledPaths({videos + "/Exports/"});
  MVFSEvents::sharedController().startWatchingPaths({videos});
  // Mounted while the folder is watched.
  fs::create_directories(videos + "/NAS");
  BindfsShare mount(source, videos + "/NAS");
  ASSERT_TRUE(mount.mounted());
  letFirstScanFinish();
  recorder.records.clear();

  writeFile(source + "/from-render-node.mov", "x");
  writeFile(videos + "/local.mov", "x");
  writeFile(videos + "/Exports/render.mov", "x");
  for (const std::string& folder : {videos, videos + "/NAS", videos + "/Exports"})
    EXPECT_TRUE(recorder.waitFor(slash(folder))) << folder;
  // bindfs's mounts are "fuse" or "fuse.bindfs", depending on who mounts them.
  EXPECT_NE(logText().find("polling " + videos + "/NAS every 2 s (fuse"), std::string::npos);
  EXPECT_NE(logText().find("mounted inside " + videos + ")"), std::string::npos);
  EXPECT_NE(logText().find("polling " + videos + "/Exports every 2 s (watchFoldersPolled asks for it)"),
            std::string::npos);
}

TEST_F(PolledStream, AShareThatDoesNotAnswerHoldsOnlyItsOwnScan) {
  const std::string source = makeTempDir("nas-disk"), share = makeTempDir("client") + "/NAS";
  fs::create_directories(share);
  const std::string local = makeTempDir("Renders");
  BindfsShare mount(source, share);
  ASSERT_TRUE(mount.mounted());
  MVFSEvents::sharedController().startWatchingPaths({local, share});
  letFirstScanFinish();

  mount.pause();
  writeFile(source + "/while-stopped.mov", "x");
  MVRunLoop::main().runFor(2.5);  // the next scan of the share is now stuck
  writeFile(local + "/render.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(local), 0, 2.5));
  // Until "does not answer" is logged.
  EXPECT_TRUE(waitUntil([] { return logText().find("does not answer") != std::string::npos; }, 10));
  EXPECT_FALSE(recorder.saw(slash(share)));

  mount.resume();
  EXPECT_TRUE(recorder.waitFor(slash(share), 0, 8));
  EXPECT_NE(logText().find(share + " answers again"), std::string::npos);
}
