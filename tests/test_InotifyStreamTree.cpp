// The inotify stream on real trees: folders renamed inside the watched tree,
// trees deeper than the walk keeps folders open for, and folders without
// subfolders, which the walk does not list.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FSEventsInotify.h"
#include "MVFSEvents.h"
#include "MVRunLoop.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using quillon_test::makeTempDir;
using quillon_test::waitUntil;
using quillon_test::writeFile;

namespace {

class PathRecorder : public MVFSEventsDelegate {
 public:
  PathRecorder() { MVFSEvents::sharedController().setDelegate(this); }
  void fileSystemEventsReceived(const MVPlistValue::Array& events) override {
    for (const auto& event : events) paths.push_back(*event["path"].string());
  }
  bool saw(const std::string& path) const { return std::find(paths.begin(), paths.end(), path) != paths.end(); }
  bool waitFor(const std::string& path) {
    return waitUntil([&] { return saw(path); }, 5);
  }
  // Turns the loop until the stream has been quiet for a latency period.
  void settleAndClear() {
    MVRunLoop::main().runFor(1.2);
    paths.clear();
  }
  std::vector<std::string> paths;
};

class InotifyStreamTree : public ::testing::Test {
 protected:
  void SetUp() override { MVFSEvents::setBackendFactory(quillon::createInotifyBackend); }
  void TearDown() override { MVFSEvents::sharedController().stopWatching(); }
};

}  // namespace

TEST_F(InotifyStreamTree, FoldersRenamedInsideTheTreeReportTheirNewPaths) {
  PathRecorder recorder;
  const std::string root = makeTempDir("renames");
  const std::string outside = makeTempDir("outside");
  fs::create_directories(root + "/Project A/Render Files/Shot 1");
  fs::create_directories(root + "/Archive");
  MVFSEvents::sharedController().startWatchingPaths({root});
  recorder.settleAndClear();

  // Renamed in place: the folder below reports its path under the new name.
  fs::rename(root + "/Project A", root + "/Project B");
  recorder.settleAndClear();
  writeFile(root + "/Project B/Render Files/Shot 1/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/Project B/Render Files/Shot 1/"));
  EXPECT_FALSE(recorder.saw(root + "/Project A/Render Files/Shot 1/"));

  // Moved under another folder of the tree.
  recorder.settleAndClear();
  fs::rename(root + "/Project B/Render Files", root + "/Archive/Render Files");
  recorder.settleAndClear();
  writeFile(root + "/Archive/Render Files/Shot 1/clip2.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/Archive/Render Files/Shot 1/"));

  // Moved out, then back in under a new name: watched again where it lands.
  recorder.settleAndClear();
  fs::rename(root + "/Archive/Render Files", outside + "/Render Files");
  writeFile(outside + "/Render Files/Shot 1/away.mov", "x");
  recorder.settleAndClear();
  fs::rename(outside + "/Render Files", root + "/Returned");
  EXPECT_TRUE(recorder.waitFor(root + "/Returned/Shot 1/"));  // it holds a file
  recorder.settleAndClear();
  writeFile(root + "/Returned/Shot 1/back.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/Returned/Shot 1/"));
  for (const auto& path : recorder.paths) EXPECT_EQ(path.rfind(outside, 0), std::string::npos) << path;
}

TEST_F(InotifyStreamTree, EveryFolderOfDeepAndWideTreesIsWatched) {
  PathRecorder recorder;
  const std::string root = makeTempDir("deep");
  // Deeper than the walk keeps folders open for.
  std::string deepest = root;
  for (int level = 0; level < 100; ++level) deepest += "/L" + std::to_string(level);
  fs::create_directories(deepest);
  // Folders without subfolders (not listed at set-up) beside ones with.
  for (int i = 0; i < 50; ++i) fs::create_directories(root + "/wide/leaf" + std::to_string(i));
  fs::create_directories(root + "/wide/leaf7/inner");
  writeFile(root + "/wide/leaf3/existing.mov", "x");
  MVFSEvents::sharedController().startWatchingPaths({root});
  recorder.settleAndClear();

  writeFile(deepest + "/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(deepest + "/"));
  writeFile(root + "/wide/leaf3/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/wide/leaf3/"));
  writeFile(root + "/wide/leaf7/inner/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/wide/leaf7/inner/"));

  // A folder made later inside a folder that had none is watched too.
  recorder.settleAndClear();
  fs::create_directories(root + "/wide/leaf9/new");
  recorder.settleAndClear();
  writeFile(root + "/wide/leaf9/new/clip.mov", "x");
  EXPECT_TRUE(recorder.waitFor(root + "/wide/leaf9/new/"));
}
