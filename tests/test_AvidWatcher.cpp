// Avid media folders on real volumes: tmpfs volumes mounted and unmounted in
// this process's own private mount namespace (the host's mounts are never
// touched; the namespace ends with this test executable), real inotify on
// the "Avid MediaFiles" folders, and the controller's announcements.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "FSEventsInotify.h"
#include "MVRunLoop.h"
#include "MVVolumes.h"
#include "VolumesMountinfo.h"
#include "RenderSourcesTestSupport.h"

using namespace quillon_test;
using namespace render_sources_test;

namespace {

const char* const kAvidFolder = "Avid MediaFiles";

// Volumes appear with their content already in place, as a disk does when it
// is plugged in: the tmpfs is filled at a staging point and then moved.
class AvidVolumes {
 public:
  // Returns the mount point of a new volume, with an "Avid MediaFiles"
  // folder (and its usual media subfolder) when asked.
  std::string mount(const std::string& name, bool withAvidFolder) {
    std::string staging = makeTempDir("staging");
    std::string volume = makeTempDir(name);
    EXPECT_EQ(::mount("tmpfs", staging.c_str(), "tmpfs", 0, "size=4m"), 0) << std::strerror(errno);
    if (withAvidFolder) std::filesystem::create_directories(staging + "/" + kAvidFolder + "/MXF/1");
    EXPECT_EQ(::mount(staging.c_str(), volume.c_str(), nullptr, MS_MOVE, nullptr), 0) << std::strerror(errno);
    mounted_.push_back(volume);
    return volume;
  }
  void unmount(const std::string& volume) {
    EXPECT_EQ(::umount(volume.c_str()), 0) << std::strerror(errno);
    std::erase(mounted_, volume);
  }
  ~AvidVolumes() {
    for (const std::string& volume : mounted_) ::umount(volume.c_str());
  }

 private:
  std::vector<std::string> mounted_;
};

// Learns when the controller has been told of a mount or unmount: observers
// are called in the order they were added, and the controller's come first.
class VolumeNews {
 public:
  VolumeNews()
      : mountToken_(MVVolumes::addDidMountObserver([this](const MVPlistValue& info) { record(mounted_, info); })),
        unmountToken_(
            MVVolumes::addDidUnmountObserver([this](const MVPlistValue& info) { record(unmounted_, info); })) {}
  bool waitForMount(const std::string& volume) { return waitFor(mounted_, volume); }
  bool waitForUnmount(const std::string& volume) { return waitFor(unmounted_, volume); }

 private:
  static void record(std::vector<std::string>& into, const MVPlistValue& info) {
    if (const std::string* path = info[MVVolumes::kDevicePathKey].string()) into.push_back(*path);
  }
  static bool waitFor(const std::vector<std::string>& heard, const std::string& volume) {
    return waitUntil([&] { return std::find(heard.begin(), heard.end(), volume) != heard.end(); }, 10);
  }
  std::vector<std::string> mounted_, unmounted_;
  MVObserverToken mountToken_, unmountToken_;
};

}  // namespace

TEST(AvidWatcherTest, FollowsAvidVolumesAndAnnouncesFinishedMXFRenders) {
  MVLog::createNewLog("test_AvidWatcher", true);
  if (::unshare(CLONE_NEWNS) != 0) GTEST_SKIP() << "no private mount namespace: " << std::strerror(errno);
  ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
  quillon::installMountinfoVolumes();
  MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
  controller().setSizeSettleSecondsForTesting(0.2);

  enableOnly("watchAvidRenders");
  controller().init();  // subscribes to the volume news
  controller().setup();
  VolumeNews news;
  AvidVolumes volumes;

  // A volume with Avid media that is mounted while the setting is on is
  // watched; an MXF render there is announced, a QuickTime file never is,
  // even when it is the newest file.
  std::string media = volumes.mount("Media Drive", true);
  const std::string mediaFolder = media + "/" + kAvidFolder;
  ASSERT_TRUE(waitUntil([&] { return isWatched(mediaFolder); }, 10));
  const std::string clipFolder = mediaFolder + "/MXF/1";
  writeRender(clipFolder + "/V01A23BC.mxf");
  MVRunLoop::main().runFor(0.1);
  writeRender(clipFolder + "/Reference.mov");
  ASSERT_TRUE(waitForAnnouncement(clipFolder + "/V01A23BC.mxf"));
  ASSERT_TRUE(waitForFolderChecks());
  EXPECT_EQ(announced(clipFolder + "/V01A23BC.mxf", "type"), "avidRender");
  EXPECT_EQ(announced(clipFolder + "/V01A23BC.mxf", "watchFilename"), "V01A23BC.mxf");
  EXPECT_EQ(announced(clipFolder + "/V01A23BC.mxf", "projectName"), "");
  EXPECT_EQ(announced(clipFolder + "/Reference.mov", "type"), "-");

  // Unmounting drops the folder from the stream.
  volumes.unmount(media);
  ASSERT_TRUE(news.waitForUnmount(media));
  EXPECT_FALSE(isWatched(mediaFolder));

  // With the setting off a mounted Avid volume is left alone, until the
  // setting is turned on and the configuration reloaded.
  setSetting("watchAvidRenders", 0);
  std::string later = volumes.mount("Later Drive", true);
  ASSERT_TRUE(news.waitForMount(later));
  EXPECT_FALSE(isWatched(later + "/" + kAvidFolder));
  setSetting("watchAvidRenders", 1);
  controller().setup();
  EXPECT_TRUE(isWatched(later + "/" + kAvidFolder));

  // A volume without Avid media is not watched, and its unmounting leaves
  // the stream's folders as they were; news without a device path is ignored.
  std::vector<std::string> before = MVFSEvents::sharedController().watchPaths();
  std::string plain = volumes.mount("Plain Drive", false);
  ASSERT_TRUE(news.waitForMount(plain));
  EXPECT_EQ(MVFSEvents::sharedController().watchPaths(), before);
  volumes.unmount(plain);
  ASSERT_TRUE(news.waitForUnmount(plain));
  EXPECT_EQ(MVFSEvents::sharedController().watchPaths(), before);
  controller().diskMounted(MVPlistValue());
  controller().diskUnmounted(MVPlistValue());
  EXPECT_EQ(MVFSEvents::sharedController().watchPaths(), before);

  EXPECT_EQ(countInLog("Watching Avid renders"), 2u);
  MVFSEvents::sharedController().stopWatching();
}
