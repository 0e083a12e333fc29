// Avid media folders on tmpfs volumes mounted in this process's private
// mount namespace, watched with real inotify.
#include "FSEventsInotify.h"
#include "MVVolumes.h"
#include "VolumesMountinfo.h"
#include "WatchTestSupport.h"

using namespace watch_test;

namespace {

const char* const kAvidFolder = "Avid MediaFiles";

// Volumes appear with their content already in place, as a disk does when it
// is plugged in: a tmpfs is filled at a staging point, then moved.
class AvidVolumes {
 public:
  std::string mount(const std::string& name, bool withAvidFolder) {
    std::string staging = makeTempDir("staging"), volume = makeTempDir(name);
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

}  // namespace

TEST(AvidWatcherTest, FollowsAvidVolumesAndAnnouncesFinishedMXFRenders) {
  MVLog::createNewLog("test_AvidWatcher", true);
  if (std::string problem = enterPrivateMountNamespace(); !problem.empty()) GTEST_SKIP() << problem;
  quillon::installMountinfoVolumes();
  MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
  controller().setSizeSettleSecondsForTesting(0.2);

  enableOnly("watchAvidRenders");
  controller().init();  // subscribes to the volume news
  controller().setup();
  // Observers are called in the order they were added, the controller's
  // first: once one here has heard of a volume, the controller has too.
  std::vector<std::string> news;
  auto listen = [&](const char* kind) {
    return [&news, kind](const MVPlistValue& info) {
      const std::string* path = info[MVVolumes::kDevicePathKey].string();
      if (path && path->find("/staging") != std::string::npos) return;  // moved away at once
      news.push_back(kind + (path ? *path : "(no path)") + (MVRunLoop::main().isMainThread() ? "" : " off the main loop"));
    };
  };
  MVObserverToken mounts = MVVolumes::addDidMountObserver(listen("mount ")),
                  unmounts = MVVolumes::addDidUnmountObserver(listen("unmount "));
  auto heard = [&](const std::string& what) {
    return waitUntil([&] { return std::find(news.begin(), news.end(), what) != news.end(); }, 10);
  };
  AvidVolumes volumes;

  // A volume with Avid media mounted while the setting is on is watched.
  std::string media = volumes.mount("Media Drive", true);
  const std::string mediaFolder = media + "/" + kAvidFolder;
  ASSERT_TRUE(waitUntil([&] { return isWatched(mediaFolder); }, 10));
  writeRender(mediaFolder + "/MXF/1/V01A23BC.mxf");
  ASSERT_TRUE(waitForAnnouncement(mediaFolder + "/MXF/1/V01A23BC.mxf"));
  EXPECT_EQ(announced(mediaFolder + "/MXF/1/V01A23BC.mxf", "type"), "avidRender");

  // Unmounting drops the folder from the stream.
  volumes.unmount(media);
  ASSERT_TRUE(heard("unmount " + media));
  EXPECT_FALSE(isWatched(mediaFolder));

  // With the setting off a mounted Avid volume is left alone, until the
  // setting is turned on and the configuration reloaded.
  setSetting("watchAvidRenders", 0);
  std::string later = volumes.mount("Later Drive", true);
  ASSERT_TRUE(heard("mount " + later));
  EXPECT_FALSE(isWatched(later + "/" + kAvidFolder));
  setSetting("watchAvidRenders", 1);
  controller().setup();
  EXPECT_TRUE(isWatched(later + "/" + kAvidFolder));

  // A volume without Avid media is not watched, and its unmounting leaves
  // the stream's folders as they were.
  std::vector<std::string> before = MVFSEvents::sharedController().watchPaths();
  std::string plain = volumes.mount("Plain Drive", false);
  ASSERT_TRUE(heard("mount " + plain));
  EXPECT_EQ(MVFSEvents::sharedController().watchPaths(), before);
  volumes.unmount(plain);
  ASSERT_TRUE(heard("unmount " + plain));
  EXPECT_EQ(MVFSEvents::sharedController().watchPaths(), before);

  EXPECT_EQ(timesIn(logText(), "Watching Avid renders"), 2u);
  MVRunLoop::main().runFor(0.3);
  EXPECT_EQ(news, (std::vector<std::string>{"mount " + media, "unmount " + media, "mount " + later, "mount " + plain,
                                            "unmount " + plain}))
      << "each piece of news once, on the main loop";
  MVFSEvents::sharedController().stopWatching();
}
