// The Linux volume service: local volumes read from the kernel's mount table
// (/proc/self/mountinfo), mounts and unmounts found by watching it.
//
// The kernel marks the table's file descriptor with POLLPRI/POLLERR after
// every change of the process's mount namespace; the backend then reads the
// table again and reports the difference from the last reading, unmounts
// first, each mount point once.
//
// What counts as a local volume (the places a user could keep media on):
//   - "/" always, whatever backs it (a container's overlay root included);
//   - block-device file systems: a known disk type (ext2/3/4, xfs, btrfs,
//     vfat, exfat, ntfs, ntfs3, fuseblk, hfsplus, apfs, f2fs, zfs, ...) or a
//     source below "/dev/";
//   - a writable tmpfs (a RAM disk) outside the system's own places: not
//     "/tmp" or "/var/tmp" themselves and nothing at or below /run,
//     /var/run, /var/lock, /dev, /sys or /proc. A tmpfs mounted under
//     /mnt, /media, a home folder or a folder inside /tmp counts;
//   - never a pseudo or virtual file system (proc, sysfs, cgroup, devtmpfs,
//     devpts, overlay, squashfs and erofs images, nsfs, bpf, tracefs,
//     debugfs, securityfs, pstore, autofs, mqueue, hugetlbfs, configfs,
//     binfmt_misc, ...), nor FUSE without a block device (portals, gvfs,
//     sshfs, snapfuse), nor network file systems, whose sources are not
//     devices;
//   - and only folders: a single file bind-mounted into place is no volume.
// Removable media mounted by udisks under /run/media/<user> count: the
// system-place rule is for tmpfs only.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "MVVolumes.h"

namespace quillon {

// One line of a mountinfo table, with the octal escapes ("\040") decoded.
struct MountinfoEntry {
  std::string root;
  std::string mountPoint;
  std::string mountOptions;
  std::string fileSystemType;
  std::string source;
  std::string superOptions;
};

// The well-formed lines of a table; malformed lines are skipped.
std::vector<MountinfoEntry> parseMountinfo(std::string_view table);
bool isLocalVolume(const MountinfoEntry& entry);
// The mount points of the local volumes, "/" first, each once. A path
// mounted over is decided by its topmost (last) mount.
std::vector<std::string> localVolumePathsInMountinfo(std::string_view table);

// The backend over a mountinfo file (the process's own by default).
std::unique_ptr<MVVolumesBackend> createMountinfoVolumesBackend(
    const std::string& mountinfoPath = "/proc/self/mountinfo");

// Installs the mountinfo backend as MVVolumes' platform side. Call once at
// start-up, after the main run loop is installed.
void installMountinfoVolumes();

}  // namespace quillon
