// Local volumes from hand-written mount tables, and real mount and unmount
// notifications from a tmpfs mounted in a private mount namespace that this
// test executable keeps until it exits.
#include "MVVolumes.h"
#include "VolumesMountinfo.h"
#include "WatchTestSupport.h"

using namespace watch_test;
using Paths = std::vector<std::string>;

namespace {

class MountinfoTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { MVLog::createNewLog("test_MVVolumes", true); }
};

TEST_F(MountinfoTest, OnlyLocalFileSystemsCountAsVolumes) {
  struct Case { const char* line; const char* volume; };  // volume: the decoded mount point, or none
  const Case cases[] = {
      {"22 27 0:21 / /proc rw,relatime - proc proc rw", nullptr},
      {"24 27 0:6 / /dev rw,relatime - devtmpfs udev rw,size=100k", nullptr},
      {"28 27 0:25 / /run rw,nosuid - tmpfs tmpfs rw", nullptr},
      {"33 27 0:41 / /tmp rw - tmpfs tmpfs rw", nullptr},
      {"34 27 0:42 / /mnt/masked ro - tmpfs none ro,size=4k", nullptr},
      {"36 27 0:44 / /mnt/nas rw - nfs4 server:/export rw", nullptr},
      {"31 27 7:3 / /snap/core/1234 ro shared:9 - squashfs /dev/loop3 ro", nullptr},
      {"43 27 0:50 / /mnt/sshfs rw - fuse.sshfs ann@host:/media rw", nullptr},
      {"27 1 254:0 / / rw,relatime shared:1 - overlay overlay rw", "/"},
      {"30 27 8:17 / /media/ann/My\\040Media rw shared:5 master:1 - exfat /dev/sdb1 rw", "/media/ann/My Media"},
      {"32 27 0:40 / /home/ann/RAM\\040Disk rw - tmpfs tmpfs rw,size=1g", "/home/ann/RAM Disk"},
      {"37 27 0:45 /@home /home rw - btrfs /dev/nvme0n1p2 rw", "/home"},
      {"44 27 8:49 / /mnt/disk rw - somenewfs /dev/sdd1 rw", "/mnt/disk"},
      {"45 27 8:1 / /mnt/a\\134b\\011c\\0 rw - ext4 /dev/sdg1 rw", "/mnt/a\\b\tc\\0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    std::vector<quillon::MountinfoEntry> entries = quillon::parseMountinfo(c.line);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(quillon::isLocalVolume(entries[0]), c.volume != nullptr);
    if (c.volume) {
      EXPECT_EQ(entries[0].mountPoint, c.volume);
    }
  }
}

TEST_F(MountinfoTest, TheVolumeListStartsWithRootAndHonoursOverMounts) {
  const std::string table =
      "22 27 0:21 / /proc rw - proc proc rw\n"
      "50 27 8:1 / /mnt/usb rw - vfat /dev/sde1 rw\n"
      "not a mount line\n"
      "51 27 8:2 / relative rw - ext4 /dev/sdf1 rw\n"
      "27 1 254:0 / / rw - ext4 /dev/vda rw\n"
      "52 27 8:3 / /mnt/covered rw - ext4 /dev/sdd1 rw\n"
      "53 52 0:51 / /mnt/covered rw - proc proc rw\n"
      "54 27 0:52 / /mnt/ram ro - tmpfs tmpfs ro\n"
      "55 54 0:53 / /mnt/ram rw - tmpfs tmpfs rw\n"
      "56 27 8:4 / /mnt/usb rw - vfat /dev/sde1 rw";
  EXPECT_EQ(quillon::localVolumePathsInMountinfo(table), (Paths{"/", "/mnt/usb", "/mnt/ram"}));
  // A table that cannot be read still has the root volume.
  EXPECT_EQ(quillon::createMountinfoVolumesBackend("/nonexistent/mountinfo")->mountedLocalVolumePaths(), Paths{"/"});
}

TEST(MVVolumesTest, ATmpfsMountAndUnmountAreEachReportedOnce) {
  MVLog::createNewLog("test_MVVolumes", true);
  if (std::string problem = enterPrivateMountNamespace(); !problem.empty()) GTEST_SKIP() << problem;
  quillon::installMountinfoVolumes();

  Paths mounted, unmounted;
  bool offMainThread = false;
  auto recorder = [&](Paths& into) {
    return [&](const MVPlistValue& userInfo) {
      offMainThread |= !MVRunLoop::main().isMainThread();
      const std::string* path = userInfo[MVVolumes::kDevicePathKey].string();
      into.push_back(path ? *path : "(no device path)");
    };
  };
  MVObserverToken mountToken = MVVolumes::addDidMountObserver(recorder(mounted));
  MVObserverToken unmountToken = MVVolumes::addDidUnmountObserver(recorder(unmounted));

  const std::string volume = makeTempDir("Media Volume");
  ASSERT_EQ(::mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1m"), 0) << std::strerror(errno);
  EXPECT_TRUE(waitUntil([&] { return !mounted.empty(); }, 10));
  Paths volumes = MVVolumes::mountedLocalVolumePaths();
  EXPECT_NE(std::find(volumes.begin(), volumes.end(), volume), volumes.end());
  EXPECT_EQ(volumes.front(), "/");

  ASSERT_EQ(::umount(volume.c_str()), 0) << std::strerror(errno);
  EXPECT_TRUE(waitUntil([&] { return !unmounted.empty(); }, 10));
  MVRunLoop::main().runFor(0.3);
  EXPECT_EQ(mounted, Paths{volume});
  EXPECT_EQ(unmounted, Paths{volume});
  EXPECT_FALSE(offMainThread);

  // A pseudo file system is no volume, and a dropped token hears nothing more.
  const std::string pseudo = makeTempDir("proc");
  ASSERT_EQ(::mount("proc", pseudo.c_str(), "proc", 0, nullptr), 0) << std::strerror(errno);
  mountToken.invalidate();
  Paths heardByOthers;
  MVObserverToken probe = MVVolumes::addDidMountObserver(recorder(heardByOthers));
  ASSERT_EQ(::mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1m"), 0);
  EXPECT_TRUE(waitUntil([&] { return !heardByOthers.empty(); }, 10));
  ASSERT_EQ(::umount(volume.c_str()), 0);
  EXPECT_TRUE(waitUntil([&] { return unmounted.size() == 2; }, 10));
  ASSERT_EQ(::umount(pseudo.c_str()), 0);
  MVRunLoop::main().runFor(0.3);
  EXPECT_EQ(mounted, Paths{volume});
  EXPECT_EQ(unmounted, (Paths{volume, volume}));

  unmountToken.invalidate();
  MVVolumes::setBackend(nullptr);
}

}  // namespace
