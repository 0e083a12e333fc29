#include "PollSnapshot.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace quillon {
namespace {

std::uint64_t mix(std::uint64_t h, std::uint64_t value) {
  h ^= value + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  return h * 0xff51afd7ed558ccdULL;
}

std::uint64_t nameHash(std::string_view name) {
  std::uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (unsigned char c : name) h = (h ^ c) * 1099511628211ULL;
  return h;
}

std::uint64_t stateHash(const struct stat& st) {
  std::uint64_t h = mix(0, static_cast<std::uint64_t>(st.st_size));
  h = mix(h, static_cast<std::uint64_t>(st.st_mtim.tv_sec));
  h = mix(h, static_cast<std::uint64_t>(st.st_mtim.tv_nsec));
  h = mix(h, static_cast<std::uint64_t>(st.st_ino));
  return mix(h, st.st_mode & S_IFMT);
}

std::string parentOf(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string folderPath(const std::string& path) { return path == "/" ? path : path + "/"; }

// The device of `path`, or of its nearest ancestor that exists.
dev_t deviceAtOrAbove(std::string path) {
  struct stat st;
  while (::stat(path.c_str(), &st) != 0) {
    if (path == "/" || path == ".") return 0;
    path = parentOf(path);
  }
  return st.st_dev;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Deeper than this the tree is not followed: a loop of bind mounts or a
// runaway tree must not exhaust the descriptors of the process.
constexpr int kMaxDepth = 128;

}  // namespace

PollSnapshot::PollSnapshot(std::string root) : root_(std::move(root)) {}

std::uint32_t PollSnapshot::allocate(std::uint32_t parent, std::string name) {
  std::uint32_t node;
  if (!free_.empty()) {
    node = free_.back();
    free_.pop_back();
  } else {
    node = static_cast<std::uint32_t>(folders_.size());
    folders_.emplace_back();
  }
  Folder& folder = folders_[node];
  folder.parent = parent;
  folder.name = std::move(name);
  folder.used = true;
  return node;
}

void PollSnapshot::release(std::uint32_t node) {
  for (const auto& [hash, child] : folders_[node].subfolders) release(child);
  Folder& folder = folders_[node];
  entryCount_ -= folder.entries.size();
  folder = Folder{};
  free_.push_back(node);
}

std::size_t PollSnapshot::memoryBytes() const {
  std::size_t bytes = folders_.capacity() * sizeof(Folder) + free_.capacity() * sizeof(std::uint32_t);
  for (const Folder& folder : folders_) {
    bytes += folder.entries.capacity() * sizeof(Entry);
    bytes += folder.subfolders.capacity() * sizeof(folder.subfolders[0]);
    if (folder.name.capacity() > 15) bytes += folder.name.capacity() + 1;
  }
  return bytes;
}

PollSnapshot::Changes PollSnapshot::scan(const std::atomic<bool>& stop) {
  Changes changes;
  struct stat st;
  const bool exists = ::stat(root_.c_str(), &st) == 0;
  const bool wasScanned = scanned_;
  scanned_ = true;

  if (!exists) {
    if (wasScanned && present_) {
      changes.rootChanged = true;
      // Gone with the file system that held it, or deleted on it.
      changes.unmounted = deviceAtOrAbove(parentOf(root_)) != device_;
      changes.deviceChanged = changes.unmounted;
    }
    if (!folders_.empty()) release(0);
    folders_.clear();
    free_.clear();
    present_ = false;
    return changes;
  }

  bool report = wasScanned;
  if (wasScanned && present_ && (st.st_dev != device_ || st.st_ino != inode_)) {
    // Another folder stands at the path now: the one under a mount point
    // that went away, or a share mounted over it. Its contents are news
    // only as that one change.
    changes.deviceChanged = st.st_dev != device_;
    changes.unmounted = changes.deviceChanged && deviceAtOrAbove(parentOf(root_)) == st.st_dev;
    changes.rootChanged = !changes.deviceChanged;
    report = false;
    release(0);
    folders_.clear();
    free_.clear();
  } else if (wasScanned && !present_) {
    changes.rootChanged = true;
  }
  present_ = true;
  device_ = st.st_dev;
  inode_ = st.st_ino;
  changes.present = true;

  if (!S_ISDIR(st.st_mode)) {
    // A single file: its changes are changes of its folder.
    if (folders_.empty()) allocate(kNone, root_);
    std::vector<Entry> now{Entry{nameHash(root_), stateHash(st)}};
    if (report && (folders_[0].entries.size() != 1 || folders_[0].entries[0].state != now[0].state))
      changes.changedFolders.push_back(folderPath(parentOf(root_)));
    entryCount_ = 1;
    folders_[0].entries = std::move(now);
    return changes;
  }

  Fd fd(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) return changes;
  if (folders_.empty()) allocate(kNone, root_);
  std::string path = root_;
  scanFolder(fd.get(), 0, path, report, changes, stop, 0);
  return changes;
}

void PollSnapshot::scanFolder(int fd, std::uint32_t node, std::string& path, bool report, Changes& changes,
                              const std::atomic<bool>& stop, int depth) {
  struct Subfolder {
    std::uint64_t hash;
    std::string name;
  };
  std::vector<Entry> now;
  std::vector<Subfolder> subfolders;
  {
    alignas(struct dirent64) std::array<char, 16 * 1024> buffer;
    ssize_t length;
    while ((length = ::getdents64(fd, buffer.data(), buffer.size())) > 0) {
      for (ssize_t offset = 0; offset < length;) {
        const auto* entry = reinterpret_cast<const struct dirent64*>(buffer.data() + offset);
        offset += entry->d_reclen;
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        struct stat st;
        if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
        const std::uint64_t hash = nameHash(name);
        // A folder's own time and size change with its listing, which is
        // compared anyway; leaving them out keeps a change reported once,
        // in the folder where it happened.
        if (S_ISDIR(st.st_mode)) {
          st.st_size = 0;
          st.st_mtim = {};
          subfolders.push_back({hash, name});
        }
        now.push_back(Entry{hash, stateHash(st)});
      }
    }
  }
  std::sort(now.begin(), now.end());

  Folder& folder = folders_[node];
  const bool differs = now.size() != folder.entries.size() ||
                       !std::equal(now.begin(), now.end(), folder.entries.begin(),
                                   [](const Entry& a, const Entry& b) { return a.name == b.name && a.state == b.state; });
  if (differs) {
    if (report) changes.changedFolders.push_back(folderPath(path));
    entryCount_ = entryCount_ - folder.entries.size() + now.size();
    folder.entries = std::move(now);
    folder.entries.shrink_to_fit();
  }

  // Subfolders: known ones are compared, new ones are read whole (anything
  // already in them is news), vanished ones are forgotten.
  std::vector<std::pair<std::uint64_t, std::uint32_t>> kept;
  kept.reserve(subfolders.size());
  std::vector<std::pair<std::uint64_t, std::uint32_t>> old = std::move(folders_[node].subfolders);
  for (const Subfolder& sub : subfolders) {
    if (stop) break;
    auto known = std::lower_bound(old.begin(), old.end(), std::pair<std::uint64_t, std::uint32_t>{sub.hash, 0});
    std::uint32_t child;
    bool fresh = known == old.end() || known->first != sub.hash || known->second == kNone;
    if (fresh) {
      child = allocate(node, sub.name);
    } else {
      child = known->second;
      known->second = kNone;
    }
    kept.emplace_back(sub.hash, child);
    if (depth >= kMaxDepth) continue;
    Fd childFd(::openat(fd, sub.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (childFd.get() < 0) continue;
    const std::size_t length = path.size();
    if (path != "/") path.push_back('/');
    path.append(sub.name);
    scanFolder(childFd.get(), child, path, report, changes, stop, depth + 1);
    path.resize(length);
  }
  if (stop) {
    // An interrupted scan keeps what it had, so nothing is reported twice.
    for (const auto& p : old)
      if (p.second != kNone) kept.push_back(p);
  } else {
    for (const auto& p : old)
      if (p.second != kNone) release(p.second);
  }
  std::sort(kept.begin(), kept.end());
  kept.shrink_to_fit();
  folders_[node].subfolders = std::move(kept);
}

}  // namespace quillon
