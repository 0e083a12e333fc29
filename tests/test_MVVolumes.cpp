// Local volumes from hand-written mount tables (the live mount and unmount
// news are followed in the Avid watcher's test).
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
      {"28 27 0:25 / /run rw,nosuid - tmpfs tmpfs rw", nullptr},
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

}  // namespace
