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
#include <linux/magic.h>
#include <malloc.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
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
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
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

using ListingBuffer = std::array<char, 32 * 1024>;

// Appends the names of the folders in the open folder `fd` to `names`, each
// ended by '\0'; true when the folder holds anything at all. The raw listing
// rather than readdir: fdopendir would ask the kernel twice more about the
// folder before the first entry.
bool listSubfolders(int fd, ListingBuffer& buffer, std::string& names) {
  bool hasEntries = false;
  ssize_t length;
  while ((length = ::getdents64(fd, buffer.data(), buffer.size())) > 0) {
    for (ssize_t offset = 0; offset < length;) {
      const auto* entry = reinterpret_cast<const struct dirent64*>(buffer.data() + offset);
      offset += entry->d_reclen;
      const char* name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      hasEntries = true;
      bool folder = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN) {
        struct stat st;
        folder = ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
      }
      if (folder) names.append(name).push_back('\0');
    }
  }
  return hasEntries;
}

struct RawEvent {
  int wd;
  std::uint32_t mask;
  std::uint32_t cookie;
  std::string name;
};

// What one read of the event queue leaves to do once all its events are seen.
struct Pass {
  bool overflow = false;
  bool resolvePending = false;
  std::vector<int> gone;
  std::vector<std::string> unmounted;
  // A folder renamed within the tree, between its two events: its watches
  // stay and are filed under the new name.
  int movingWd = -1;
  std::uint32_t movingCookie = 0;
};

class InotifyStream final : public MVFSEventsBackend {
 public:
  explicit InotifyStream(InotifyOptions options)
      : options_(std::move(options)), batcher_([this](std::vector<MVFSEventRecord> records) { deliver(records); }) {}
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
  void handle(const RawEvent& event, const RawEvent* next, Pass& pass);
  bool staysInTree(const RawEvent& from, const RawEvent* next, int moved, const std::string& path) const;
  void finish(Pass& pass);

  void resolve(const std::string& root, bool appeared);
  void resolvePending();
  // Watches `top` and every folder below it. `parentWd` is the watch of the
  // folder holding `top`, or -1 when `top` is filed under its whole path.
  void watchTree(const std::string& top, int parentWd, bool followTop, bool report);
  void rootLost(const std::string& root);
  void dropSubtree(const std::string& folder);
  void dropUncovered();
  void refreshAnchors();
  void resync();
  void removeWatch(int wd);
  void reportLimit(const std::string& folder);
  bool linkCountCountsSubfolders(dev_t device, const std::string& path);

  bool coveredByPresentRoot(const std::string& path, const std::string& except = {}) const;
  bool isTopOfUnmount(int wd, const std::string& path, const InotifyWatch& watch);
  bool hasPendingRoots() const;
  std::string reportPath(const std::string& path, const InotifyWatch& watch) const {
    return watch.isFile ? folderPath(InotifyWatchTable::parentOf(path)) : folderPath(path);
  }

  InotifyOptions options_;
  UniqueFd fd_;
  std::shared_ptr<MVIOSource> source_;
  std::shared_ptr<MVTimer> releaseTimer_;
  InotifyWatchTable table_;
  std::map<std::string, WatchedPath> roots_;
  MVFSEventBatcher batcher_;
  BatchHandler onBatch_;
  bool active_ = false;
  bool limitLogged_ = false;
  // File systems, by device, whose folders count their subfolders in their
  // link count (2 + subfolders). Forgotten at each start and unmount: a
  // device number can come back for another kind of file system.
  std::vector<std::pair<dev_t, bool>> linkCounting_;
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
  linkCounting_.clear();

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
    std::optional<InotifyWatch> watch = table_.find(wd);
    struct stat st;
    if (!watch || ::stat(root.c_str(), &st) != 0 || st.st_dev != watch->device || st.st_ino != watch->inode) {
      for (int old : table_.subtree(root))
        if (table_.contains(old) && !coveredByPresentRoot(table_.pathOf(old), root)) removeWatch(old);
      it->second.present = false;
      resolve(root, false);
    }
  }
  refreshAnchors();
  batcher_.resume();
  // Walking a large tree leaves freed buffers and paths behind in the
  // allocator; the agent then sits idle for hours, so hand them back now.
  malloc_trim(0);
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
  const std::vector<RawEvent> events = readEvents();
  for (std::size_t i = 0; i < events.size(); ++i) handle(events[i], i + 1 < events.size() ? &events[i + 1] : nullptr, pass);
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
      events.push_back(
          RawEvent{event->wd, event->mask, event->cookie, std::string(event->name, strnlen(event->name, event->len))});
      p += sizeof(struct inotify_event) + event->len;
    }
  }
  return events;
}

void InotifyStream::handle(const RawEvent& event, const RawEvent* next, Pass& pass) {
  if (event.mask & IN_Q_OVERFLOW) {
    pass.overflow = true;
    return;
  }
  std::optional<InotifyWatch> watch = table_.find(event.wd);
  if (!watch) return;  // a watch already dropped; its last events are stale
  const std::string path = table_.pathOf(event.wd);

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
    linkCounting_.clear();
    if (!watch->unmounted && !watch->anchorOnly && isTopOfUnmount(event.wd, path, *watch))
      batcher_.noteChange(reportPath(path, *watch), kMVFSEventFlagUnmount);
    table_.markUnmounted(event.wd);
    return;
  }
  if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
    // Folders below a watched path are dropped through their parent's event.
    if (watch->anchorOnly) {
      pass.resolvePending = true;
    } else if (auto root = roots_.find(path); root != roots_.end() && root->second.present) {
      rootLost(path);  // drops the watch
      pass.resolvePending = true;
    }
    return;
  }
  if ((event.mask & (IN_CREATE | IN_MOVED_TO)) && hasPendingRoots()) pass.resolvePending = true;
  if (watch->anchorOnly) return;

  batcher_.noteChange(reportPath(path, *watch), kMVFSEventFlagNone);
  if (watch->isFile || !(event.mask & IN_ISDIR) || event.name.empty()) return;
  const std::string child = InotifyWatchTable::join(path, event.name);
  if (event.mask & (IN_CREATE | IN_MOVED_TO)) {
    if ((event.mask & IN_MOVED_TO) && pass.movingWd >= 0 && pass.movingCookie == event.cookie)
      table_.move(pass.movingWd, event.wd, event.name);
    pass.movingWd = -1;
    // Walked even when it was renamed within the tree: its files are news
    // at the new path, and folders may have been made inside it meanwhile.
    watchTree(child, event.wd, false, true);
  } else if (event.mask & IN_MOVED_FROM) {
    const int moved = table_.childDescriptor(event.wd, event.name);
    if (staysInTree(event, next, moved, child)) {
      pass.movingWd = moved;
      pass.movingCookie = event.cookie;
    } else {
      dropSubtree(child);
    }
    if (hasPendingRoots()) pass.resolvePending = true;
  }
}

// A rename's two events come one after the other. Only a rename whose other
// half is next, into a folder whose changes are reported, keeps the watches;
// anything else leaves the tree, as before, or holds a watched path, whose
// loss has to be reported.
bool InotifyStream::staysInTree(const RawEvent& from, const RawEvent* next, int moved, const std::string& path) const {
  if (moved < 0 || !next || !(next->mask & IN_MOVED_TO) || !(next->mask & IN_ISDIR) || next->cookie != from.cookie)
    return false;
  std::optional<InotifyWatch> target = table_.find(next->wd);
  if (!target || target->anchorOnly || target->isFile) return false;
  for (const auto& [root, state] : roots_)
    if (InotifyWatchTable::isWithin(root, path)) return false;
  return true;
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
      watchTree(path, table_.descriptorFor(InotifyWatchTable::parentOf(path)), false, false);
    }
  }
  if (pass.overflow) {
    // The kernel dropped events: whoever reads the records must rescan, and
    // the watch table may have missed folders created or removed meanwhile.
    for (const auto& [root, state] : roots_)
      if (state.present) {
        int wd = table_.descriptorFor(root);
        std::optional<InotifyWatch> watch = table_.find(wd);
        batcher_.noteChange(watch ? reportPath(table_.pathOf(wd), *watch) : folderPath(root),
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
    watchTree(root, -1, true, appeared);
  } else {
    // A single file: its changes are reported as changes of its folder.
    int wd = inotify_add_watch(fd_.get(), root.c_str(), kFileMask);
    if (wd < 0 && errno == ENOSPC) reportLimit(root);
    if (wd >= 0) table_.insert(wd, root, InotifyWatch{st.st_dev, st.st_ino, false, true, false});
  }
  int wd = table_.descriptorFor(root);
  std::optional<InotifyWatch> watch = table_.find(wd);
  state.present = watch && !watch->anchorOnly;
  if (state.present && appeared) batcher_.noteChange(reportPath(root, *watch), kMVFSEventFlagRootChanged);
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

void InotifyStream::watchTree(const std::string& top, int parentWd, bool followTop, bool report) {
  // One folder being listed. Its descriptor stays open while its subfolders
  // are walked, so each of them is opened by name alone rather than by a
  // whole path that the kernel would have to resolve again.
  struct Frame {
    UniqueFd folder;  // closed early when the walk is deep
    int wd = -1;
    std::size_t pathLength = 0;
    std::string subfolders;  // names, each ended by '\0'
    std::size_t next = 0;
  };
  // Deeper than this, folders are opened by their whole path: a tree may be
  // deeper than the process may hold descriptors.
  constexpr std::size_t kMaxOpenFolders = 64;

  std::vector<Frame> frames;
  alignas(struct dirent64) ListingBuffer listing;
  std::string path = top;
  std::size_t topNameStart = top.find_last_of('/');
  topNameStart = topNameStart == std::string::npos ? 0 : topNameStart + 1;

  // Adds the watch of the folder at `path`, found as `name` in `at`, and lists
  // its subfolders into a new frame. False when the walk has to stop.
  // `name` and `ownName` may point into the frame below, so they are used
  // only before the new frame is pushed.
  auto enter = [&](int at, const char* name, int parent, std::string_view ownName, bool follow) {
    // Polled instead; not even looked up, as a share may not answer.
    if (options_.skip && options_.skip(path)) return true;
    // Watch first, list second: anything created in between shows up in the
    // listing or as an event, never in neither.
    int wd = inotify_add_watch(fd_.get(), path.c_str(), kFolderMask | (follow ? 0 : IN_DONT_FOLLOW));
    if (wd < 0) {
      if (errno != ENOSPC) return true;  // gone again, or not readable
      reportLimit(path);
      return false;
    }
    struct stat st {};
    if (::fstatat(at, name, &st, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) {
      if (!table_.contains(wd)) inotify_rm_watch(fd_.get(), wd);
      return true;
    }
    const InotifyWatch watch{st.st_dev, st.st_ino, false, false, false};
    if (parent >= 0)
      table_.insertChild(wd, parent, ownName, path, watch);
    else
      table_.insert(wd, path, watch);
    // Most folders of a render tree hold no folders, and their link count
    // says so; only a folder whose files must be reported is listed anyway.
    if (!report && st.st_nlink == 2 && linkCountCountsSubfolders(st.st_dev, path)) return true;

    UniqueFd folder(::openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW)));
    if (!folder) return true;
    frames.emplace_back();
    Frame& frame = frames.back();
    frame.wd = wd;
    frame.pathLength = path.size();
    const bool hasEntries = listSubfolders(folder.get(), listing, frame.subfolders);
    // Its files may have been written before the watch existed.
    if (report && hasEntries) batcher_.noteChange(folderPath(path), kMVFSEventFlagNone);
    if (!frame.subfolders.empty() && frames.size() < kMaxOpenFolders) frame.folder = std::move(folder);
    return true;
  };

  if (!enter(AT_FDCWD, top.c_str(), parentWd, std::string_view(top).substr(topNameStart), followTop)) return;
  while (!frames.empty()) {
    Frame& frame = frames.back();
    if (frame.next >= frame.subfolders.size()) {
      frames.pop_back();
      continue;
    }
    const char* name = frame.subfolders.c_str() + frame.next;
    const std::size_t nameLength = std::strlen(name);
    frame.next += nameLength + 1;
    path.resize(frame.pathLength);
    if (path != "/") path.push_back('/');
    path.append(name, nameLength);
    const int at = frame.folder ? frame.folder.get() : AT_FDCWD;
    // `frame` may move when the next frame is pushed.
    if (!enter(at, at == AT_FDCWD ? path.c_str() : name, frame.wd, std::string_view(name, nameLength), false)) return;
  }
}

void InotifyStream::rootLost(const std::string& root) {
  int wd = table_.descriptorFor(root);
  std::optional<InotifyWatch> watch = table_.find(wd);
  batcher_.noteChange(watch ? reportPath(root, *watch) : folderPath(root), kMVFSEventFlagRootChanged);
  roots_[root].present = false;
  for (int old : table_.subtree(root))
    if (table_.contains(old) && !coveredByPresentRoot(table_.pathOf(old), root)) removeWatch(old);
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
    if (std::optional<InotifyWatch> watch = table_.find(wd);
        watch && !watch->anchorOnly && !coveredByPresentRoot(table_.pathOf(wd)))
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
    if (table_.contains(wd) && !needed.count(table_.pathOf(wd))) removeWatch(wd);
  for (const std::string& ancestor : needed) {
    if (table_.descriptorFor(ancestor) >= 0) continue;  // already watched, as part of a tree or an anchor
    int wd = inotify_add_watch(fd_.get(), ancestor.c_str(), kFolderMask);
    if (wd < 0) {
      if (errno == ENOSPC) reportLimit(ancestor);
      continue;
    }
    if (table_.contains(wd)) continue;  // the same folder under another spelling
    struct stat st {};
    ::stat(ancestor.c_str(), &st);
    table_.insert(wd, ancestor, InotifyWatch{st.st_dev, st.st_ino, true, false, false});
  }
}

void InotifyStream::resync() {
  for (int wd : table_.allDescriptors()) {
    std::optional<InotifyWatch> watch = table_.find(wd);
    if (!watch) continue;
    const std::string path = table_.pathOf(wd);
    struct stat st;
    bool follow = watch->isFile || roots_.count(path) || watch->anchorOnly;
    bool same = (follow ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st)) == 0 &&
                st.st_dev == watch->device && st.st_ino == watch->inode;
    if (!same) removeWatch(wd);
  }
  for (auto& [root, state] : roots_) {
    if (!state.present) continue;
    if (table_.descriptorFor(root) < 0)
      state.present = false;
    else if (isFolder(root))
      watchTree(root, -1, true, false);
  }
  resolvePending();
}

void InotifyStream::removeWatch(int wd) {
  inotify_rm_watch(fd_.get(), wd);
  table_.erase(wd);
}

bool InotifyStream::linkCountCountsSubfolders(dev_t device, const std::string& path) {
  for (const auto& [known, counts] : linkCounting_)
    if (known == device) return counts;
  // Only file systems known to keep the rule: others (btrfs, network and
  // FUSE file systems) give folders a link count of 1 or whatever they like.
  struct statfs fs {};
  bool counts = ::statfs(path.c_str(), &fs) == 0 &&
                (fs.f_type == EXT4_SUPER_MAGIC || fs.f_type == XFS_SUPER_MAGIC || fs.f_type == TMPFS_MAGIC);
  linkCounting_.emplace_back(device, counts);
  return counts;
}

void InotifyStream::reportLimit(const std::string& folder) {
  std::string root;
  for (const auto& [path, state] : roots_)
    if (InotifyWatchTable::isWithin(folder, path) && path.size() > root.size()) root = path;
  if (!limitLogged_) {
    limitLogged_ = true;
    MVLog::appendLog(options_.onLimit ? "File system events: inotify watch limit reached at %@; the rest of %@ is "
                                        "polled instead. Raise fs.inotify.max_user_watches (sysctl) to have inotify "
                                        "watch it all."
                                      : "File system events: inotify watch limit reached at %@; folders of %@ from "
                                        "there on are not watched. Raise fs.inotify.max_user_watches (sysctl) to "
                                        "watch them all.",
                     folder, root.empty() ? folder : root);
  }
  if (options_.onLimit && !root.empty()) options_.onLimit(root);
}

bool InotifyStream::coveredByPresentRoot(const std::string& path, const std::string& except) const {
  for (const auto& [root, state] : roots_)
    if (state.present && root != except && InotifyWatchTable::isWithin(path, root)) return true;
  return false;
}

bool InotifyStream::isTopOfUnmount(int wd, const std::string& path, const InotifyWatch& watch) {
  if (roots_.count(path)) return true;
  std::optional<InotifyWatch> above = table_.find(table_.parentDescriptor(wd));
  return !above || above->device != watch.device;
}

bool InotifyStream::hasPendingRoots() const {
  for (const auto& [root, state] : roots_)
    if (!state.present) return true;
  return false;
}

}  // namespace

std::unique_ptr<MVFSEventsBackend> createInotifyOnlyBackend(InotifyOptions options) {
  return std::make_unique<InotifyStream>(std::move(options));
}

}  // namespace quillon
