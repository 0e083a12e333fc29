// MVFSEvents on inotify.
//
// inotify watches single folders, so the stream watches every folder below
// each watched path and keeps the table of watches in step with the tree:
// a folder created or moved in is watched and scanned at once (its files may
// have been written before the watch existed), a folder deleted or moved
// away is dropped. A watched path that is missing is waited for through a
// watch on its nearest existing ancestor.
#include "FSEventsInotify.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "InotifyWatchTable.h"
#include "MVLog.h"
#include "MVRunLoop.h"

namespace quillon {
namespace {

constexpr std::uint32_t kFolderMask = IN_CLOSE_WRITE | IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                      IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                      IN_EXCL_UNLINK;
constexpr std::uint32_t kFileMask = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

// A stream stopped and not started again within this time releases its
// watches. The grace covers a controller that stops the stream and adds its
// folders back while it turns the main loop (waiting for a tool it runs).
constexpr double kReleaseDelaySeconds = 3.0;

// Reads per wake-up; a busy tree must not starve the rest of the main loop.
constexpr int kMaxReadsPerWakeUp = 64;

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

std::string folderPath(const std::string& folder) { return folder == "/" ? folder : folder + "/"; }

std::string normalized(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool isFolder(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

struct RawEvent {
  int wd;
  std::uint32_t mask;
  std::string name;
};

// What one read of the event queue leaves to do once all its events are seen.
struct Pass {
  bool overflow = false;
  bool resolvePending = false;
  std::vector<int> gone;
  std::vector<std::string> unmounted;
};

class InotifyStream final : public MVFSEventsBackend {
 public:
  InotifyStream() : batcher_([this](std::vector<MVFSEventRecord> records) { deliver(records); }) {}
  ~InotifyStream() override {
    if (releaseTimer_) releaseTimer_->invalidate();
    release();
  }

  void start(const std::vector<std::string>& paths, double latency, BatchHandler onBatch) override;
  void stop() override;

 private:
  struct WatchedPath {
    bool present = false;
  };

  bool open();
  void release();
  void deliver(const std::vector<MVFSEventRecord>& records);

  bool readAndHandle();
  std::vector<RawEvent> readEvents();
  void handle(const RawEvent& event, Pass& pass);
  void finish(Pass& pass);

  void resolve(const std::string& root, bool appeared);
  void resolvePending();
  void watchTree(const std::string& top, bool followTop, bool report);
  void rootLost(const std::string& root);
  void dropSubtree(const std::string& folder);
  void dropUncovered();
  void refreshAnchors();
  void resync();
  void removeWatch(int wd);
  void reportLimit(const std::string& folder);

  bool coveredByPresentRoot(const std::string& path, const std::string& except = {}) const;
  bool isTopOfUnmount(const InotifyWatch& watch);
  bool hasPendingRoots() const;
  std::string reportPath(const InotifyWatch& watch) const {
    return watch.isFile ? folderPath(InotifyWatchTable::parentOf(watch.path)) : folderPath(watch.path);
  }

  UniqueFd fd_;
  std::shared_ptr<MVIOSource> source_;
  std::shared_ptr<MVTimer> releaseTimer_;
  InotifyWatchTable table_;
  std::map<std::string, WatchedPath> roots_;
  MVFSEventBatcher batcher_;
  BatchHandler onBatch_;
  bool active_ = false;
  bool limitLogged_ = false;
  alignas(struct inotify_event) std::array<char, 64 * 1024> buffer_{};
};

// ---------------------------------------------------------------------------
// Stream life

void InotifyStream::start(const std::vector<std::string>& paths, double latency, BatchHandler onBatch) {
  if (releaseTimer_) releaseTimer_->invalidate();
  releaseTimer_.reset();
  onBatch_ = std::move(onBatch);
  batcher_.setLatency(latency);
  active_ = true;
  limitLogged_ = false;

  std::set<std::string> wanted;
  for (const auto& path : paths)
    if (!path.empty()) wanted.insert(normalized(path));
  if (wanted.empty()) {
    release();
    return;
  }
  if (!fd_ && !open()) return;

  // Only the difference to the previous stream costs anything: folders that
  // stay watched keep their watches and their pending changes.
  bool removed = false;
  for (auto it = roots_.begin(); it != roots_.end();) {
    if (wanted.count(it->first)) {
      ++it;
    } else {
      it = roots_.erase(it);
      removed = true;
    }
  }
  if (removed) {
    dropUncovered();
    batcher_.discardPendingUnless([this](const std::string& folder) {
      std::string path = normalized(folder);
      for (const auto& [root, state] : roots_)
        if (InotifyWatchTable::isWithin(path, root) || InotifyWatchTable::parentOf(root) == path) return true;
      return false;
    });
  }
  for (const auto& root : wanted) {
    auto [it, added] = roots_.try_emplace(root);
    if (added || !it->second.present) {
      resolve(root, false);
      continue;
    }
    // A kept path may now name another folder (a volume mounted again).
    int wd = table_.descriptorFor(root);
    InotifyWatch* watch = wd >= 0 ? table_.find(wd) : nullptr;
    struct stat st;
    if (!watch || ::stat(root.c_str(), &st) != 0 || st.st_dev != watch->device || st.st_ino != watch->inode) {
      for (int old : table_.subtree(root))
        if (const InotifyWatch* w = table_.find(old); w && !coveredByPresentRoot(w->path, root)) removeWatch(old);
      it->second.present = false;
      resolve(root, false);
    }
  }
  refreshAnchors();
  batcher_.resume();
}

void InotifyStream::stop() {
  active_ = false;
  batcher_.pause();
  if (releaseTimer_) releaseTimer_->invalidate();
  releaseTimer_ = MVRunLoop::main().scheduleTimer(kReleaseDelaySeconds, false, [this] {
    releaseTimer_.reset();
    if (!active_) release();
  });
}

bool InotifyStream::open() {
  fd_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!fd_) {
    MVLog::appendLog("File system events: cannot create an inotify instance (%s); raise fs.inotify.max_user_instances",
                     std::strerror(errno));
    return false;
  }
  source_ = MVRunLoop::main().addIOSource(fd_.get(), MVRunLoop::kReadable, [this](unsigned) { return readAndHandle(); });
  return true;
}

void InotifyStream::release() {
  if (source_) source_->invalidate();
  source_.reset();
  fd_.reset();  // closing the instance removes every watch at once
  table_.clear();
  roots_.clear();
  batcher_.discardPending();
  active_ = false;
}

void InotifyStream::deliver(const std::vector<MVFSEventRecord>& records) {
  // A copy: the receiver may re-create the stream, which replaces the handler.
  BatchHandler handler = onBatch_;
  if (active_ && handler) handler(records);
}

// ---------------------------------------------------------------------------
// Reading events

bool InotifyStream::readAndHandle() {
  if (!fd_) return false;
  Pass pass;
  for (const RawEvent& event : readEvents()) handle(event, pass);
  finish(pass);
  return true;
}

std::vector<RawEvent> InotifyStream::readEvents() {
  std::vector<RawEvent> events;
  for (int reads = 0; reads < kMaxReadsPerWakeUp; ++reads) {
    ssize_t length = ::read(fd_.get(), buffer_.data(), buffer_.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    for (const char* p = buffer_.data(); p < buffer_.data() + length;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(p);
      events.push_back(RawEvent{event->wd, event->mask, std::string(event->name, strnlen(event->name, event->len))});
      p += sizeof(struct inotify_event) + event->len;
    }
  }
  return events;
}

void InotifyStream::handle(const RawEvent& event, Pass& pass) {
  if (event.mask & IN_Q_OVERFLOW) {
    pass.overflow = true;
    return;
  }
  InotifyWatch* watch = table_.find(event.wd);
  if (!watch) return;  // a watch already dropped; its last events are stale
  const std::string path = watch->path;

  if (event.mask & IN_IGNORED) {
    // Dropped at the end of the pass, so later events of this pass can still
    // find where an unmounted file system was mounted.
    pass.gone.push_back(event.wd);
    if (watch->anchorOnly) {
      pass.resolvePending = true;
    } else if (watch->unmounted) {
      pass.unmounted.push_back(path);
    } else if (auto root = roots_.find(path); root != roots_.end() && root->second.present) {
      rootLost(path);
      pass.resolvePending = true;
    }
    return;
  }
  if (event.mask & IN_UNMOUNT) {
    if (!watch->unmounted && !watch->anchorOnly && isTopOfUnmount(*watch))
      batcher_.noteChange(reportPath(*watch), kMVFSEventFlagUnmount);
    watch->unmounted = true;
    return;
  }
  if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
    // Folders below a watched path are dropped through their parent's event.
    if (watch->anchorOnly) {
      pass.resolvePending = true;
    } else if (auto root = roots_.find(path); root != roots_.end() && root->second.present) {
      rootLost(path);  // drops `watch`
      pass.resolvePending = true;
    }
    return;
  }
  if ((event.mask & (IN_CREATE | IN_MOVED_TO)) && hasPendingRoots()) pass.resolvePending = true;
  if (watch->anchorOnly) return;

  batcher_.noteChange(reportPath(*watch), kMVFSEventFlagNone);
  if (watch->isFile || !(event.mask & IN_ISDIR) || event.name.empty()) return;
  const std::string child = InotifyWatchTable::join(path, event.name);
  if (event.mask & (IN_CREATE | IN_MOVED_TO)) {
    watchTree(child, false, true);
  } else if (event.mask & IN_MOVED_FROM) {
    dropSubtree(child);
    if (hasPendingRoots()) pass.resolvePending = true;
  }
}

void InotifyStream::finish(Pass& pass) {
  for (int wd : pass.gone) table_.erase(wd);
  for (const std::string& path : pass.unmounted) {
    // What was under the mount point is visible again: watch the folder
    // that now stands at the same path.
    if (auto root = roots_.find(path); root != roots_.end()) {
      root->second.present = false;
      resolve(path, false);
      pass.resolvePending = true;
    } else if (coveredByPresentRoot(path) && isFolder(path)) {
      watchTree(path, false, false);
    }
  }
  if (pass.overflow) {
    // The kernel dropped events: whoever reads the records must rescan, and
    // the watch table may have missed folders created or removed meanwhile.
    for (const auto& [root, state] : roots_)
      if (state.present) {
        int wd = table_.descriptorFor(root);
        const InotifyWatch* watch = wd >= 0 ? table_.find(wd) : nullptr;
        batcher_.noteChange(watch ? reportPath(*watch) : folderPath(root),
                            kMVFSEventFlagMustScanSubDirs | kMVFSEventFlagKernelDropped);
      }
    resync();
  } else if (pass.resolvePending) {
    resolvePending();
  }
  batcher_.endOfPass();
}

// ---------------------------------------------------------------------------
// Keeping the watch table in step with the tree

void InotifyStream::resolve(const std::string& root, bool appeared) {
  WatchedPath& state = roots_[root];
  struct stat st;
  if (::stat(root.c_str(), &st) != 0) {
    state.present = false;
    return;
  }
  if (S_ISDIR(st.st_mode)) {
    watchTree(root, true, appeared);
  } else {
    // A single file: its changes are reported as changes of its folder.
    int wd = inotify_add_watch(fd_.get(), root.c_str(), kFileMask);
    if (wd < 0 && errno == ENOSPC) reportLimit(root);
    if (wd >= 0) table_.insert(wd, InotifyWatch{root, st.st_dev, st.st_ino, false, true, false});
  }
  int wd = table_.descriptorFor(root);
  const InotifyWatch* watch = wd >= 0 ? table_.find(wd) : nullptr;
  state.present = watch && !watch->anchorOnly;
  if (state.present && appeared) batcher_.noteChange(reportPath(*watch), kMVFSEventFlagRootChanged);
}

void InotifyStream::resolvePending() {
  // Twice: a path created between the test and the anchor's watch is caught
  // by the second look.
  for (int round = 0; round < 2; ++round) {
    for (auto& [root, state] : roots_)
      if (!state.present) resolve(root, true);
    refreshAnchors();
  }
}

void InotifyStream::watchTree(const std::string& top, bool followTop, bool report) {
  std::vector<std::string> folders{top};
  while (!folders.empty()) {
    std::string folder = std::move(folders.back());
    folders.pop_back();
    const bool follow = followTop && folder == top;
    // Watch first, list second: anything created in between shows up in the
    // listing or as an event, never in neither.
    int wd = inotify_add_watch(fd_.get(), folder.c_str(), kFolderMask | (follow ? 0 : IN_DONT_FOLLOW));
    if (wd < 0) {
      if (errno == ENOSPC) {
        reportLimit(folder);
        return;
      }
      continue;  // gone again, or not readable
    }
    struct stat st {};
    if ((follow ? ::stat(folder.c_str(), &st) : ::lstat(folder.c_str(), &st)) != 0) {
      if (!table_.find(wd)) inotify_rm_watch(fd_.get(), wd);
      continue;
    }
    table_.insert(wd, InotifyWatch{folder, st.st_dev, st.st_ino, false, false, false});

    std::unique_ptr<DIR, DirCloser> dir(opendir(folder.c_str()));
    if (!dir) continue;
    bool hasEntries = false;
    while (const dirent* entry = readdir(dir.get())) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      hasEntries = true;
      bool subfolder = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN) {
        struct stat child;
        subfolder = ::lstat(InotifyWatchTable::join(folder, name).c_str(), &child) == 0 && S_ISDIR(child.st_mode);
      }
      if (subfolder) folders.push_back(InotifyWatchTable::join(folder, name));
    }
    // Its files may have been written before the watch existed.
    if (report && hasEntries) batcher_.noteChange(folderPath(folder), kMVFSEventFlagNone);
  }
}

void InotifyStream::rootLost(const std::string& root) {
  int wd = table_.descriptorFor(root);
  const InotifyWatch* watch = wd >= 0 ? table_.find(wd) : nullptr;
  batcher_.noteChange(watch ? reportPath(*watch) : folderPath(root), kMVFSEventFlagRootChanged);
  roots_[root].present = false;
  for (int old : table_.subtree(root))
    if (const InotifyWatch* w = table_.find(old); w && !coveredByPresentRoot(w->path, root)) removeWatch(old);
}

void InotifyStream::dropSubtree(const std::string& folder) {
  // The whole subtree left the watched tree, watched paths inside it too.
  for (auto& [root, state] : roots_)
    if (state.present && InotifyWatchTable::isWithin(root, folder)) {
      batcher_.noteChange(folderPath(root), kMVFSEventFlagRootChanged);
      state.present = false;
    }
  for (int wd : table_.subtree(folder)) removeWatch(wd);
}

void InotifyStream::dropUncovered() {
  for (int wd : table_.allDescriptors())
    if (const InotifyWatch* watch = table_.find(wd); watch && !watch->anchorOnly && !coveredByPresentRoot(watch->path))
      removeWatch(wd);
}

void InotifyStream::refreshAnchors() {
  std::set<std::string> needed;
  for (const auto& [root, state] : roots_) {
    if (state.present) continue;
    std::string ancestor = InotifyWatchTable::parentOf(root);
    while (!isFolder(ancestor) && ancestor != "/" && ancestor != ".") ancestor = InotifyWatchTable::parentOf(ancestor);
    needed.insert(ancestor);
  }
  const std::set<int> anchors = table_.anchorDescriptors();
  for (int wd : anchors)
    if (const InotifyWatch* watch = table_.find(wd); watch && !needed.count(watch->path)) removeWatch(wd);
  for (const std::string& ancestor : needed) {
    if (table_.descriptorFor(ancestor) >= 0) continue;  // already watched, as part of a tree or an anchor
    int wd = inotify_add_watch(fd_.get(), ancestor.c_str(), kFolderMask);
    if (wd < 0) {
      if (errno == ENOSPC) reportLimit(ancestor);
      continue;
    }
    if (table_.find(wd)) continue;  // the same folder under another spelling
    struct stat st {};
    ::stat(ancestor.c_str(), &st);
    table_.insert(wd, InotifyWatch{ancestor, st.st_dev, st.st_ino, true, false, false});
  }
}

void InotifyStream::resync() {
  for (int wd : table_.allDescriptors()) {
    const InotifyWatch* watch = table_.find(wd);
    if (!watch) continue;
    struct stat st;
    bool follow = watch->isFile || roots_.count(watch->path) || watch->anchorOnly;
    bool same = (follow ? ::stat(watch->path.c_str(), &st) : ::lstat(watch->path.c_str(), &st)) == 0 &&
                st.st_dev == watch->device && st.st_ino == watch->inode;
    if (!same) removeWatch(wd);
  }
  for (auto& [root, state] : roots_) {
    if (!state.present) continue;
    if (table_.descriptorFor(root) < 0)
      state.present = false;
    else if (isFolder(root))
      watchTree(root, true, false);
  }
  resolvePending();
}

void InotifyStream::removeWatch(int wd) {
  inotify_rm_watch(fd_.get(), wd);
  table_.erase(wd);
}

void InotifyStream::reportLimit(const std::string& folder) {
  if (limitLogged_) return;
  limitLogged_ = true;
  MVLog::appendLog(
      "File system events: inotify watch limit reached at %@; folders from there on are not watched. Raise "
      "fs.inotify.max_user_watches (sysctl) to watch them all.",
      folder);
}

bool InotifyStream::coveredByPresentRoot(const std::string& path, const std::string& except) const {
  for (const auto& [root, state] : roots_)
    if (state.present && root != except && InotifyWatchTable::isWithin(path, root)) return true;
  return false;
}

bool InotifyStream::isTopOfUnmount(const InotifyWatch& watch) {
  if (roots_.count(watch.path)) return true;
  int parent = table_.descriptorFor(InotifyWatchTable::parentOf(watch.path));
  const InotifyWatch* above = parent >= 0 ? table_.find(parent) : nullptr;
  return !above || above->device != watch.device;
}

bool InotifyStream::hasPendingRoots() const {
  for (const auto& [root, state] : roots_)
    if (!state.present) return true;
  return false;
}

}  // namespace

std::unique_ptr<MVFSEventsBackend> createInotifyBackend() { return std::make_unique<InotifyStream>(); }

}  // namespace quillon
