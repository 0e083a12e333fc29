// The Linux event service: inotify where it sees every change, polling
// where it cannot (see FSEventsInotify.h).
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FSEventsInotify.h"
#include "FSEventsPoll.h"
#include "InotifyWatchTable.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "VolumesMountinfo.h"

namespace quillon {
namespace {

std::string normalized(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool isWithin(const std::string& path, const std::string& folder) { return InotifyWatchTable::isWithin(path, folder); }

// The mount table, read without touching any mounted file system: a share
// that does not answer must not hold up the main loop.
std::vector<MountinfoEntry> readMountTable() {
  std::ifstream file("/proc/self/mountinfo");
  std::stringstream table;
  table << file.rdbuf();
  return parseMountinfo(table.str());
}

class LinuxStream final : public MVFSEventsBackend {
 public:
  LinuxStream()
      : inotify_(createInotifyOnlyBackend(
            InotifyOptions{[this](const std::string& folder) { return skipped_.count(folder) > 0; },
                           [this](const std::string& root) { limitReached(root); }})),
        poll_(createPollBackend()) {}
  ~LinuxStream() override { stopWatchingMounts(); }

  void setPolledPaths(const std::vector<std::string>& paths) override {
    forced_.clear();
    for (const auto& path : paths)
      if (!path.empty()) forced_.insert(normalized(path));
  }

  void start(const std::vector<std::string>& paths, double latency, BatchHandler onBatch) override {
    onBatch_ = std::move(onBatch);
    latency_ = latency;
    wanted_.clear();
    for (const auto& path : paths)
      if (!path.empty()) wanted_.insert(normalized(path));
    active_ = true;
    if (wanted_.empty())
      stopWatchingMounts();
    else
      watchMounts();
    apply();
  }

  void stop() override {
    active_ = false;
    inotify_->stop();
    poll_->stop();
  }

 private:
  void apply() {
    const std::set<std::string>& wanted = wanted_;
    choose(wanted);

    std::vector<std::string> local;
    for (const auto& root : wanted)
      if (!polled_.count(root) || limited_.count(root)) local.push_back(root);
    auto handler = [this](const std::vector<MVFSEventRecord>& records) { deliver(records); };
    starting_ = true;
    inotify_->start(local, latency_, handler);
    starting_ = false;
    startPolling();
  }

  // A share mounted or unmounted at or inside a watched folder changes how
  // that folder is watched, without waiting for the stream to be re-created.
  void watchMounts() {
    if (mountSource_) return;
    mountTable_ = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (mountTable_ < 0) return;
    // The kernel flags a changed table as an exceptional condition.
    mountSource_ = MVRunLoop::main().addIOSource(mountTable_, MVRunLoop::kError, [this](unsigned) {
      char buffer[4096];
      ::lseek(mountTable_, 0, SEEK_SET);
      while (::read(mountTable_, buffer, sizeof buffer) > 0) {
      }
      if (active_) shareMountedOrUnmounted();
      return true;
    });
  }

  // A new share is polled at once. One that went away stays polled until the
  // stream is re-created: its own scan reports the unmount, and the folder
  // under it goes on being read.
  void shareMountedOrUnmounted() {
    auto polled = polled_;
    auto skipped = skipped_;
    auto limited = limited_;
    choose(wanted_);
    for (const auto& [path, why] : polled_)
      if (!polled.count(path)) return apply();
    polled_ = std::move(polled);
    skipped_ = std::move(skipped);
    limited_ = std::move(limited);
  }

  void stopWatchingMounts() {
    if (mountSource_) mountSource_->invalidate();
    mountSource_.reset();
    if (mountTable_ >= 0) ::close(mountTable_);
    mountTable_ = -1;
  }

  // Decides, for every watched path and every mount point inside one, how
  // it is watched; `polled_` and `skipped_` hold the outcome.
  void choose(const std::set<std::string>& wanted) {
    std::map<std::string, std::string> types;  // mount point → type of the topmost mount
    for (const MountinfoEntry& entry : readMountTable()) types[normalized(entry.mountPoint)] = entry.fileSystemType;
    auto typeAt = [&](const std::string& path) {
      std::string best, type;
      for (const auto& [point, kind] : types)
        if (isWithin(path, point) && point.size() >= best.size()) best = point, type = kind;
      return type;
    };
    auto forcedFor = [&](const std::string& path) {
      for (const auto& folder : forced_)
        if (isWithin(path, folder)) return true;
      return false;
    };

    std::map<std::string, std::string> polled;  // path → why
    std::vector<std::string> local;
    for (const auto& root : wanted) {
      const std::string type = typeAt(root);
      if (forcedFor(root))
        polled[root] = "watchFoldersPolled asks for it";
      else if (fileSystemNeedsPolling(type))
        polled[root] = "on " + type + ", where inotify does not see what other machines write";
      else
        local.push_back(root);
    }
    skipped_.clear();
    for (const auto& root : local) {
      // A share mounted inside a local tree (a NAS at ~/Videos/NAS inside a
      // watched ~/Videos) is polled as a tree of its own.
      for (const auto& [point, type] : types)
        if (point != root && isWithin(point, root) && fileSystemNeedsPolling(type))
          polled[point] = type + " mounted inside " + root;
      for (const auto& folder : forced_)
        if (folder != root && isWithin(folder, root)) polled[folder] = "watchFoldersPolled asks for it";
    }
    // Nested shares are read with the tree that holds them.
    for (auto it = polled.begin(); it != polled.end();) {
      bool inside = false;
      for (const auto& [other, why] : polled) inside |= other != it->first && isWithin(it->first, other);
      it = inside ? polled.erase(it) : std::next(it);
    }
    for (const auto& [path, why] : polled)
      if (!wanted.count(path)) skipped_.insert(path);
    for (auto it = limited_.begin(); it != limited_.end();)
      it = wanted.count(*it) && !polled.count(*it) ? std::next(it) : limited_.erase(it);
    polled_ = std::move(polled);
  }

  void startPolling() {
    std::map<std::string, std::string> all = polled_;
    for (const auto& root : limited_) all.emplace(root, "inotify's watch limit was reached");
    std::vector<std::string> paths;
    for (const auto& [path, why] : all) {
      paths.push_back(path);
      auto logged = logged_.find(path);
      if (logged == logged_.end() || logged->second != why)
        MVLog::appendLog("File system events: polling %@ every 2 s (%@)", path, why);
    }
    logged_ = std::move(all);
    auto handler = [this](const std::vector<MVFSEventRecord>& records) { deliver(records); };
    poll_->start(paths, latency_, handler);
  }

  void limitReached(const std::string& root) {
    if (!limited_.insert(root).second || starting_) return;
    startPolling();
  }

  void deliver(const std::vector<MVFSEventRecord>& records) {
    // A copy: the receiver may re-create the stream, which replaces the handler.
    BatchHandler handler = onBatch_;
    if (handler) handler(records);
  }

  std::unique_ptr<MVFSEventsBackend> inotify_;
  std::unique_ptr<MVFSEventsBackend> poll_;
  BatchHandler onBatch_;
  double latency_ = 1.0;
  bool starting_ = false;
  bool active_ = false;
  std::set<std::string> wanted_;
  int mountTable_ = -1;
  std::shared_ptr<MVIOSource> mountSource_;
  std::set<std::string> forced_;
  std::map<std::string, std::string> polled_;
  std::set<std::string> skipped_;
  std::set<std::string> limited_;
  std::map<std::string, std::string> logged_;
};

}  // namespace

std::unique_ptr<MVFSEventsBackend> createInotifyBackend() { return std::make_unique<LinuxStream>(); }

}  // namespace quillon
