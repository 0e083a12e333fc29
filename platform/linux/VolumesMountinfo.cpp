#include "VolumesMountinfo.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include "MVLog.h"
#include "MVRunLoop.h"

namespace quillon {

namespace {

// Kernel and user-space file systems that never hold the user's files; FUSE
// types ("fuse.<name>") are refused by their prefix.
const std::unordered_set<std::string_view> kPseudoFileSystems = {
    "aufs",     "autofs",   "binfmt_misc", "bpf",     "cgroup",    "cgroup2",  "configfs",   "debugfs",
    "devpts",   "devtmpfs", "efivarfs",    "erofs",   "fuse",      "fusectl",  "hugetlbfs",  "mqueue",
    "nfsd",     "nsfs",     "overlay",     "proc",    "pstore",    "ramfs",    "rootfs",     "rpc_pipefs",
    "securityfs", "selinuxfs", "squashfs", "sysfs",   "tracefs",
};

// Disk file systems, also those whose source is no device path (zfs
// datasets, btrfs over several devices).
const std::unordered_set<std::string_view> kDiskFileSystems = {
    "apfs",  "bcachefs", "btrfs", "exfat", "ext2",  "ext3",     "ext4", "f2fs",  "fuseblk", "hfs",
    "hfsplus", "iso9660", "jfs",  "msdos", "nilfs2", "ntfs",    "ntfs3", "reiserfs", "udf", "vfat",
    "xfs",   "zfs",
};

// Where the system keeps its own tmpfs mounts.
constexpr std::string_view kSystemTmpfsRoots[] = {"/run", "/var/run", "/var/lock", "/dev", "/sys", "/proc"};
constexpr std::string_view kSystemTmpfsMountPoints[] = {"/tmp", "/var/tmp"};

bool isAtOrBelow(std::string_view path, std::string_view folder) {
  return path == folder || (path.size() > folder.size() && path.substr(0, folder.size()) == folder &&
                            path[folder.size()] == '/');
}

bool hasOption(std::string_view options, std::string_view option) {
  while (!options.empty()) {
    std::size_t comma = options.find(',');
    if (options.substr(0, comma) == option) return true;
    if (comma == std::string_view::npos) break;
    options.remove_prefix(comma + 1);
  }
  return false;
}

// "\040" is a blank, "\011" a tab, "\012" a line end, "\134" a backslash.
std::string decodeOctalEscapes(std::string_view field) {
  std::string decoded;
  decoded.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      std::string_view digits = field.substr(i + 1, 3);
      if (std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '7'; })) {
        decoded += static_cast<char>(((digits[0] - '0') << 6) | ((digits[1] - '0') << 3) | (digits[2] - '0'));
        i += 3;
        continue;
      }
    }
    decoded += field[i];
  }
  return decoded;
}

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  while (start <= line.size()) {
    std::size_t blank = line.find(' ', start);
    if (blank == std::string_view::npos) blank = line.size();
    if (blank > start) fields.push_back(line.substr(start, blank - start));
    start = blank + 1;
  }
  return fields;
}

bool isDirectory(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

// The whole table from the start; none (with errno set) on failure.
std::optional<std::string> readTable(int fd) {
  if (::lseek(fd, 0, SEEK_SET) < 0) return std::nullopt;
  std::string table;
  char buffer[16384];
  for (;;) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0)
      table.append(buffer, static_cast<std::size_t>(got));
    else if (got == 0)
      return table;
    else if (errno != EINTR)
      return std::nullopt;
  }
}

// The local volumes of a table, keeping folders only. An unreadable table
// leaves "/", which is mounted whatever else is not known.
std::vector<std::string> volumesInTable(const std::optional<std::string>& table) {
  if (!table) return {"/"};
  std::vector<std::string> volumes = localVolumePathsInMountinfo(*table);
  std::erase_if(volumes, [](const std::string& path) { return path != "/" && !isDirectory(path); });
  return volumes;
}

class MountinfoVolumesBackend : public MVVolumesBackend {
 public:
  explicit MountinfoVolumesBackend(std::string path) : path_(std::move(path)) {}
  ~MountinfoVolumesBackend() override { stopWatching(); }

  std::vector<std::string> mountedLocalVolumePaths() override {
    ScopedFd fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    std::optional<std::string> table = fd.get() >= 0 ? readTable(fd.get()) : std::nullopt;
    if (!table) MVLog::appendLog("Unable to read the mount table %@: %s", path_, std::strerror(errno));
    return volumesInTable(table);
  }

  void startWatching(ChangeHandler handler) override {
    stopWatching();
    auto watch = std::make_shared<Watch>(::open(path_.c_str(), O_RDONLY | O_CLOEXEC), std::move(handler));
    if (watch->fd.get() < 0) {
      MVLog::appendLog("Unable to watch the mount table %@: %s", path_, std::strerror(errno));
      return;
    }
    std::optional<std::string> table = readTable(watch->fd.get());
    if (!table) MVLog::appendLog("Unable to read the mount table %@: %s", path_, std::strerror(errno));
    watch->known = volumesInTable(table);
    // The kernel flags a changed table as an exceptional condition (POLLPRI
    // with POLLERR) while the file always polls readable, so only the error
    // condition is asked for; asking for readable would fire without end.
    std::lock_guard<std::mutex> lock(mutex_);
    source_ = MVRunLoop::main().addIOSource(watch->fd.get(), MVRunLoop::kError, [watch, path = path_](unsigned) {
      watch->tableChanged(path);
      return true;
    });
    watch_ = std::move(watch);
  }

  void stopWatching() override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (watch_) watch_->stop();
    if (source_) source_->invalidate();
    source_.reset();
    watch_.reset();
  }

 private:
  // One watch of the table; shared with the run-loop source so that it
  // outlives a stop that races with a running change report.
  struct Watch {
    Watch(int descriptor, ChangeHandler changeHandler) : fd(descriptor), handler(std::move(changeHandler)) {}

    void stop() {
      std::lock_guard<std::mutex> lock(mutex);
      stopped = true;
    }

    bool isStopped() {
      std::lock_guard<std::mutex> lock(mutex);
      return stopped;
    }

    void tableChanged(const std::string& path) {
      std::vector<std::pair<Change, std::string>> changes;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopped) return;
        std::optional<std::string> table = readTable(fd.get());
        if (!table) {
          // Keep the last known list; the next change reads again.
          MVLog::appendLog("Unable to read the mount table %@: %s", path, std::strerror(errno));
          return;
        }
        std::vector<std::string> now = volumesInTable(table);
        std::set<std::string> before(known.begin(), known.end()), after(now.begin(), now.end());
        for (const std::string& volume : known)
          if (!after.count(volume)) changes.emplace_back(Change::Unmounted, volume);
        for (const std::string& volume : now)
          if (!before.count(volume)) changes.emplace_back(Change::Mounted, volume);
        known = std::move(now);
      }
      // Called without the lock: an observer may stop the watch from inside.
      for (const auto& [change, volume] : changes) {
        if (isStopped()) return;
        handler(change, volume);
      }
    }

    ScopedFd fd;
    const ChangeHandler handler;
    std::mutex mutex;
    bool stopped = false;
    std::vector<std::string> known;
  };

  const std::string path_;
  std::mutex mutex_;
  std::shared_ptr<Watch> watch_;
  std::shared_ptr<MVIOSource> source_;
};

}  // namespace

std::vector<MountinfoEntry> parseMountinfo(std::string_view table) {
  std::vector<MountinfoEntry> entries;
  while (!table.empty()) {
    std::size_t end = table.find('\n');
    std::string_view line = table.substr(0, end);
    table.remove_prefix(end == std::string_view::npos ? table.size() : end + 1);

    // id parent major:minor root mount-point options [optional...] - type source super-options
    std::vector<std::string_view> fields = splitFields(line);
    auto separator = std::find(fields.begin(), fields.end(), std::string_view("-"));
    if (fields.size() < 6 || separator - fields.begin() < 6 || fields.end() - separator < 3) continue;
    MountinfoEntry entry;
    entry.root = decodeOctalEscapes(fields[3]);
    entry.mountPoint = decodeOctalEscapes(fields[4]);
    entry.mountOptions = std::string(fields[5]);
    entry.fileSystemType = decodeOctalEscapes(separator[1]);
    entry.source = decodeOctalEscapes(separator[2]);
    if (fields.end() - separator > 3) entry.superOptions = decodeOctalEscapes(separator[3]);
    if (entry.mountPoint.empty() || entry.mountPoint.front() != '/') continue;
    entries.push_back(std::move(entry));
  }
  return entries;
}

bool isLocalVolume(const MountinfoEntry& entry) {
  const std::string& type = entry.fileSystemType;
  if (entry.mountPoint == "/") return true;
  if (kPseudoFileSystems.count(type) || type.starts_with("fuse.")) return false;
  if (type == "tmpfs") {
    // A read-only tmpfs only masks a path; nothing can be written there.
    if (!hasOption(entry.mountOptions, "rw")) return false;
    for (std::string_view point : kSystemTmpfsMountPoints)
      if (entry.mountPoint == point) return false;
    for (std::string_view root : kSystemTmpfsRoots)
      if (isAtOrBelow(entry.mountPoint, root)) return false;
    return true;
  }
  if (kDiskFileSystems.count(type)) return true;
  return entry.source.starts_with("/dev/");
}

std::vector<std::string> localVolumePathsInMountinfo(std::string_view table) {
  std::vector<MountinfoEntry> entries = parseMountinfo(table);
  // The last mount on a path hides the earlier ones.
  std::unordered_map<std::string, bool> topmostIsLocal;
  for (const MountinfoEntry& entry : entries) topmostIsLocal[entry.mountPoint] = isLocalVolume(entry);

  std::vector<std::string> volumes = {"/"};
  for (const MountinfoEntry& entry : entries) {
    auto decided = topmostIsLocal.find(entry.mountPoint);
    if (decided == topmostIsLocal.end() || !decided->second) continue;
    topmostIsLocal.erase(decided);
    if (entry.mountPoint != "/") volumes.push_back(entry.mountPoint);
  }
  return volumes;
}

std::unique_ptr<MVVolumesBackend> createMountinfoVolumesBackend(const std::string& mountinfoPath) {
  return std::make_unique<MountinfoVolumesBackend>(mountinfoPath);
}

void installMountinfoVolumes() { MVVolumes::setBackend(createMountinfoVolumesBackend()); }

}  // namespace quillon
