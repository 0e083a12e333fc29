// The file-system event stream on real folders with real inotify.
#include <fstream>

#include "FSEventsInotify.h"
#include "WatchTestSupport.h"

namespace fs = std::filesystem;
using namespace watch_test;

namespace {

class MVFSEventsTest : public ::testing::Test {
 protected:
  void SetUp() override { MVFSEvents::setBackendFactory(quillon::createInotifyBackend); }
  void TearDown() override { MVFSEvents::sharedController().stopWatching(); }
  EventRecorder recorder;
};

std::string slash(const std::string& folder) { return folder + "/"; }

void settle(double seconds) { MVRunLoop::main().runFor(seconds); }

}  // namespace

TEST_F(MVFSEventsTest, RecreatingTheStreamKeepsWatchingAndLosesNothing) {
  MVFSEvents& stream = MVFSEvents::sharedController();
  const std::string a = makeTempDir("a");
  const std::string b = makeTempDir("b");
  stream.startWatchingPaths({a});
  settle(0.1);

  // A change that happens just before the stream is re-created still arrives.
  writeFile(a + "/before-add.mov", "x");
  stream.addWatchPaths({b}, 1.0);
  EXPECT_EQ(stream.watchPaths(), (std::vector<std::string>{a, b}));
  ASSERT_TRUE(recorder.waitFor(slash(a)));

  writeFile(b + "/new.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(b)));
  recorder.records.clear();
  writeFile(a + "/again.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(a)));

  stream.removeWatchPaths({a}, 1.0);
  EXPECT_EQ(stream.watchPaths(), (std::vector<std::string>{b}));
  recorder.settleAndClear();
  writeFile(a + "/unwatched.mov", "x");
  writeFile(b + "/watched.mov", "x");
  ASSERT_TRUE(recorder.waitFor(slash(b)));
  settle(0.3);
  EXPECT_FALSE(recorder.saw(slash(a)));

  stream.stopWatching();
  EXPECT_TRUE(stream.watchPaths().empty());
  EXPECT_TRUE(stream.running());
}

TEST_F(MVFSEventsTest, MissingWatchedPathIsPickedUpAndItsRemovalReported) {
  const std::string base = makeTempDir("missing");
  const std::string root = base + "/later/render";
  MVFSEvents::sharedController().startWatchingPaths({root});

  fs::create_directories(root);
  writeFile(root + "/clip.mov", "x");
  ASSERT_TRUE(recorder.waitFor(slash(root)));
  recorder.settleAndClear();
  writeFile(root + "/clip2.mov", "x");
  ASSERT_TRUE(recorder.waitFor(slash(root)));

  fs::remove_all(base + "/later");
  EXPECT_TRUE(recorder.waitFor(slash(root), kMVFSEventFlagRootChanged));

  // It comes back, and is watched again.
  recorder.settleAndClear();
  fs::create_directories(root);
  settle(0.2);
  writeFile(root + "/clip3.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(root)));
}

TEST_F(MVFSEventsTest, WatchedFileReportsItsFolder) {
  const std::string folder = makeTempDir("ame");
  const std::string log = folder + "/AMEEncodingLog.txt";
  writeFile(log, "Queue Started");
  MVFSEvents::sharedController().startWatchingPaths({log});
  settle(0.1);

  writeFile(folder + "/unrelated.txt", "x");
  settle(1.2);
  EXPECT_TRUE(recorder.records.empty());

  std::ofstream(log, std::ios::app) << " Queue Stopped";
  ASSERT_TRUE(recorder.waitFor(slash(folder)));

  // Replaced by a rename, as editors save: still watched.
  settle(1.1);
  writeFile(folder + "/new.txt", "Queue Started");
  fs::rename(folder + "/new.txt", log);
  ASSERT_TRUE(recorder.waitFor(slash(folder), kMVFSEventFlagRootChanged));
  recorder.settleAndClear();
  std::ofstream(log, std::ios::app) << " Queue Stopped";
  EXPECT_TRUE(recorder.waitFor(slash(folder)));
}

TEST_F(MVFSEventsTest, QueueOverflowAsksForARescanAndKeepsWatching) {
  const std::string root = makeTempDir("overflow");
  MVFSEvents::sharedController().startWatchingPaths({root});
  settle(0.1);

  // Without turning the main loop nothing reads the queue: three events per
  // round overflow it. The folder made last is lost in the overflow.
  long queueSize = std::stol(readFile("/proc/sys/fs/inotify/max_queued_events"));
  const std::string scratch = root + "/scratch";
  for (long i = 0; i < queueSize / 3 + 100; ++i) {
    int fd = ::open(scratch.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ::close(fd);
    ::unlink(scratch.c_str());
  }
  fs::create_directories(root + "/late");

  ASSERT_TRUE(recorder.waitFor(slash(root), kMVFSEventFlagMustScanSubDirs | kMVFSEventFlagKernelDropped));
  settle(1.1);
  writeFile(root + "/late/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(root + "/late")));
}

TEST_F(MVFSEventsTest, UnmountIsReportedWhereTheFileSystemWasMounted) {
  if (std::string problem = enterPrivateMountNamespace(); !problem.empty()) GTEST_SKIP() << problem;
  const std::string root = makeTempDir("volumes");
  const std::string volume = root + "/volume";
  fs::create_directories(volume);
  if (mount("quillon-test", volume.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "cannot mount tmpfs";
  fs::create_directories(volume + "/Avid MediaFiles");
  MVFSEvents::sharedController().startWatchingPaths({root});
  settle(0.1);

  writeFile(volume + "/Avid MediaFiles/clip.mxf", "x");
  ASSERT_TRUE(recorder.waitFor(slash(volume + "/Avid MediaFiles")));
  ASSERT_EQ(umount2(volume.c_str(), 0), 0);
  ASSERT_TRUE(recorder.waitFor(slash(volume), kMVFSEventFlagUnmount));
  EXPECT_FALSE(recorder.saw(slash(volume + "/Avid MediaFiles"), kMVFSEventFlagUnmount));

  // The folder under the mount point is watched in its place.
  recorder.settleAndClear();
  writeFile(volume + "/underneath.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(volume)));
}

TEST_F(MVFSEventsTest, FoldersRenamedInsideTheTreeReportTheirNewPaths) {
  const std::string root = makeTempDir("renames");
  const std::string outside = makeTempDir("outside");
  fs::create_directories(root + "/Project A/Render Files/Shot 1");
  MVFSEvents::sharedController().startWatchingPaths({root});
  recorder.settleAndClear();

  // Renamed in place: the folder below reports its path under the new name.
  fs::rename(root + "/Project A", root + "/Project B");
  recorder.settleAndClear();
  writeFile(root + "/Project B/Render Files/Shot 1/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/Project B/Render Files/Shot 1/"));
  EXPECT_FALSE(recorder.saw(root + "/Project A/Render Files/Shot 1/"));

  // Moved out, then back in under a new name: watched again where it lands.
  recorder.settleAndClear();
  fs::rename(root + "/Project B/Render Files", outside + "/Render Files");
  writeFile(outside + "/Render Files/Shot 1/away.mov", "x");
  recorder.settleAndClear();
  fs::rename(outside + "/Render Files", root + "/Returned");
  EXPECT_TRUE(recorder.waitFor(root + "/Returned/Shot 1/"));  // it holds a file
  recorder.settleAndClear();
  writeFile(root + "/Returned/Shot 1/back.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/Returned/Shot 1/"));
  for (const Delivered& r : recorder.records) EXPECT_NE(r.path.rfind(outside, 0), 0u) << r.path;
}

TEST_F(MVFSEventsTest, EveryFolderOfTheTreeIsWatchedAsItGrows) {
  const std::string root = makeTempDir("deep");
  // Deeper than the walk keeps folders open for, and folders without
  // subfolders (not listed at set-up) beside ones with.
  std::string deepest = root;
  for (int level = 0; level < 100; ++level) deepest += "/L" + std::to_string(level);
  fs::create_directories(deepest);
  for (int i = 0; i < 50; ++i) fs::create_directories(root + "/wide/leaf" + std::to_string(i));
  fs::create_directories(root + "/wide/leaf7/inner");
  writeFile(root + "/wide/leaf3/existing.mov", "x");
  MVFSEvents::sharedController().startWatchingPaths({root});
  recorder.settleAndClear();

  writeFile(root + "/render.mov", "frames");
  ASSERT_TRUE(recorder.waitFor(slash(root)));
  EXPECT_EQ(recorder.records.front().flags, 0u);
  for (const std::string& folder : {deepest, root + "/wide/leaf3", root + "/wide/leaf7/inner"}) {
    writeFile(folder + "/clip.mov", "x");
    EXPECT_TRUE(recorder.waitFor(slash(folder)));
  }

  // Made later, one filled in a burst before it could be watched, one inside
  // a folder that had none: later writes arrive through their own watches.
  fs::create_directories(root + "/a/b/c");
  writeFile(root + "/a/b/c/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(root + "/a/b/c")));
  fs::create_directories(root + "/wide/leaf9/new");
  recorder.settleAndClear();
  for (const std::string& folder : {root + "/a/b/c", root + "/wide/leaf9/new"}) {
    writeFile(folder + "/clip2.mov", "y");
    EXPECT_TRUE(recorder.waitFor(slash(folder)));
  }

  // Identifiers only grow; the records of one batch share their date.
  for (std::size_t i = 1; i < recorder.records.size(); ++i) {
    EXPECT_GT(recorder.records[i].id, recorder.records[i - 1].id);
    if (recorder.records[i].batch == recorder.records[i - 1].batch) {
      EXPECT_EQ(recorder.records[i].date, recorder.records[i - 1].date);
    }
  }
}

// A full watch table: the folders beyond it are polled, and the log names the
// limit to raise. The limit is lowered in a user namespace of its own, where
// it holds for that namespace alone, so the test runs itself again inside one.
TEST_F(MVFSEventsTest, FullWatchTableIsLoggedAndTheRestPolled) {
  const std::string self = "MVFSEventsTest.FullWatchTableIsLoggedAndTheRestPolled";
  if (!std::getenv("QUILLON_WATCH_LIMIT_CHILD")) {
    std::string output = shellOutput("QUILLON_WATCH_LIMIT_CHILD=1 unshare --user --map-root-user " +
                                     fs::read_symlink("/proc/self/exe").string() + " --gtest_filter=" + self + " 2>&1");
    if (output.find("[  PASSED  ] 1 test") == std::string::npos && output.find("[  FAILED  ]") == std::string::npos)
      GTEST_SKIP() << "no user namespace with its own watch limit here:\n" << output;
    EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << output;
    // The log cannot be opened in the namespace, so its lines come out here.
    EXPECT_EQ(linesWith(output, "fs.inotify.max_user_watches", "polled instead"), 1u) << output;
    return;
  }
  writeFile("/proc/sys/user/max_inotify_watches", "6");
  if (readFile("/proc/sys/user/max_inotify_watches") != "6\n") GTEST_SKIP() << "limit not lowered";
  const std::string root = makeTempDir("limit");
  for (int i = 0; i < 20; ++i) fs::create_directories(root + "/folder" + std::to_string(i));
  MVFSEvents::sharedController().startWatchingPaths({root});
  writeFile(root + "/still-watched.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(root)));
  settle(1.0);
  writeFile(root + "/folder19/polled.mov", "x");
  EXPECT_TRUE(recorder.waitFor(slash(root + "/folder19"), 0, 7));
}
