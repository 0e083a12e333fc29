#include "FSEventsPoll.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "MVCrashLog.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "PollSnapshot.h"

namespace quillon {
namespace {

// A polled path whose scan has run this long without an answer is logged
// as not answering.
constexpr double kNoAnswerSeconds = 8.0;
// A stream stopped and not started again within this time ends its scans
// (the stream is stopped and started again whenever its path list changes).
constexpr double kReleaseDelaySeconds = 3.0;

std::atomic<std::size_t> gEntries{0};
std::atomic<std::size_t> gBytes{0};

double threadProcessorSeconds() {
  struct timespec ts {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::int64_t steadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string folderPath(const std::string& path) { return path == "/" ? path : path + "/"; }

// One polled path and its scanning thread. The thread owns the snapshot;
// the rest is shared with the main thread.
struct PolledTree {
  explicit PolledTree(std::string path) : snapshot(std::move(path)) {}

  PollSnapshot snapshot;
  std::mutex mutex;
  std::condition_variable wake;
  std::atomic<bool> stop{false};
  std::atomic<std::int64_t> scanStarted{0};  // 0 while not scanning
  std::size_t entries = 0;  // what it last added to the statistics
  std::size_t bytes = 0;
  // Main thread only.
  bool silentLogged = false;
};

using Changes = PollSnapshot::Changes;

class PollStream final : public MVFSEventsBackend {
 public:
  explicit PollStream(PollOptions options)
      : options_(options), batcher_([this](std::vector<MVFSEventRecord> records) { deliver(records); }) {}
  ~PollStream() override {
    if (releaseTimer_) releaseTimer_->invalidate();
    release();
  }

  void start(const std::vector<std::string>& paths, double latency, BatchHandler onBatch) override;
  void stop() override;

 private:
  void release();
  void launch(const std::string& path);
  void end(const std::shared_ptr<PolledTree>& tree);
  void received(const std::shared_ptr<PolledTree>& tree, const Changes& changes);
  void checkAnswering();
  void deliver(const std::vector<MVFSEventRecord>& records);
  static void scanLoop(std::shared_ptr<PolledTree> tree, PollOptions options,
                       std::shared_ptr<std::atomic<int>> treeCount, std::weak_ptr<bool> alive, PollStream* stream);

  PollOptions options_;
  MVFSEventBatcher batcher_;
  BatchHandler onBatch_;
  bool active_ = false;
  std::map<std::string, std::shared_ptr<PolledTree>> trees_;
  std::shared_ptr<std::atomic<int>> treeCount_ = std::make_shared<std::atomic<int>>(0);
  // Results posted by scanning threads find the stream only while it lives.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::shared_ptr<MVTimer> releaseTimer_;
  std::shared_ptr<MVTimer> answerTimer_;
};

void PollStream::start(const std::vector<std::string>& paths, double latency, BatchHandler onBatch) {
  if (releaseTimer_) releaseTimer_->invalidate();
  releaseTimer_.reset();
  onBatch_ = std::move(onBatch);
  batcher_.setLatency(latency);
  active_ = true;

  const std::set<std::string> wanted(paths.begin(), paths.end());
  for (auto it = trees_.begin(); it != trees_.end();) {
    if (wanted.count(it->first)) {
      ++it;
      continue;
    }
    end(it->second);
    it = trees_.erase(it);
  }
  batcher_.discardPendingUnless([&](const std::string& folder) {
    for (const auto& [path, tree] : trees_)
      if (folder.compare(0, path.size(), path) == 0) return true;
    return false;
  });
  for (const std::string& path : wanted)
    if (!trees_.count(path)) launch(path);
  *treeCount_ = static_cast<int>(trees_.size());
  if (!trees_.empty() && !answerTimer_)
    answerTimer_ = MVRunLoop::main().scheduleTimer(1.0, true, [this] { checkAnswering(); });
  if (trees_.empty() && answerTimer_) {
    answerTimer_->invalidate();
    answerTimer_.reset();
  }
  batcher_.resume();
}

void PollStream::stop() {
  active_ = false;
  batcher_.pause();
  if (releaseTimer_) releaseTimer_->invalidate();
  releaseTimer_ = MVRunLoop::main().scheduleTimer(kReleaseDelaySeconds, false, [this] {
    releaseTimer_.reset();
    if (!active_) release();
  });
}

void PollStream::release() {
  for (auto& [path, tree] : trees_) end(tree);
  trees_.clear();
  *treeCount_ = 0;
  if (answerTimer_) answerTimer_->invalidate();
  answerTimer_.reset();
  batcher_.discardPending();
  active_ = false;
}

void PollStream::launch(const std::string& path) {
  auto tree = std::make_shared<PolledTree>(path);
  trees_[path] = tree;
  // Detached: a scan that hangs on a share that does not answer must not
  // hold up whoever stops the stream. It ends when the share answers.
  std::thread(scanLoop, tree, options_, treeCount_, std::weak_ptr<bool>(alive_), this).detach();
}

void PollStream::end(const std::shared_ptr<PolledTree>& tree) {
  {
    std::lock_guard<std::mutex> lock(tree->mutex);
    tree->stop = true;
  }
  tree->wake.notify_all();
}

void PollStream::scanLoop(std::shared_ptr<PolledTree> tree, PollOptions options,
                          std::shared_ptr<std::atomic<int>> treeCount, std::weak_ptr<bool> alive,
                          PollStream* stream) {
  MVCrashLog::prepareThread();
  bool stretched = false;
  while (!tree->stop) {
    const std::int64_t started = steadyNanoseconds();
    tree->scanStarted = started;
    const double before = threadProcessorSeconds();
    Changes changes = tree->snapshot.scan(tree->stop);
    const double spent = threadProcessorSeconds() - before;
    tree->scanStarted = 0;

    const std::size_t entries = tree->snapshot.entryCount(), bytes = tree->snapshot.memoryBytes();
    gEntries += entries - tree->entries;
    gBytes += bytes - tree->bytes;
    tree->entries = entries;
    tree->bytes = bytes;
    if (tree->stop) break;
    MVRunLoop::main().performOnMainThread(
        [tree, changes = std::move(changes), alive, stream] {
          if (alive.lock()) stream->received(tree, changes);
        },
        false);

    // Rounds start every interval, so a change is seen within one. Each
    // tree gets its share of the budget: a scan that took `spent` seconds
    // of processor time stretches the period enough to keep that share.
    const int trees = std::max(1, treeCount->load());
    const double budget = options.processorShare / trees;
    const double period = std::max(options.interval, spent / budget);
    const double took = static_cast<double>(steadyNanoseconds() - started) / 1e9;
    const double wait = std::max(period - took, options.interval / 10);
    if ((period > options.interval * 1.5) != stretched) {
      stretched = !stretched;
      if (stretched)
        MVLog::appendLog(
            "File system events: a scan of %@ took %.3f s of processor time; polling it every %.1f s instead of "
            "every %.1f s",
            tree->snapshot.root(), spent, period, options.interval);
      else
        MVLog::appendLog("File system events: polling %@ every %.1f s again", tree->snapshot.root(),
                         options.interval);
    }
    std::unique_lock<std::mutex> lock(tree->mutex);
    tree->wake.wait_for(lock, std::chrono::duration<double>(wait), [&] { return tree->stop.load(); });
  }
  gEntries -= tree->entries;
  gBytes -= tree->bytes;
  tree->entries = tree->bytes = 0;
}

void PollStream::received(const std::shared_ptr<PolledTree>& tree, const Changes& changes) {
  auto it = trees_.find(tree->snapshot.root());
  if (it == trees_.end() || it->second != tree) return;  // no longer polled
  const std::string& root = it->first;
  if (tree->silentLogged) {
    tree->silentLogged = false;
    MVLog::appendLog("File system events: %@ answers again", root);
  }
  if (changes.unmounted)
    batcher_.noteChange(folderPath(root), kMVFSEventFlagUnmount);
  else if (changes.rootChanged || changes.deviceChanged)
    batcher_.noteChange(folderPath(root), kMVFSEventFlagRootChanged);
  for (const std::string& folder : changes.changedFolders) batcher_.noteChange(folder, kMVFSEventFlagNone);
  batcher_.endOfPass();
}

void PollStream::checkAnswering() {
  const std::int64_t now = steadyNanoseconds();
  for (auto& [path, tree] : trees_) {
    const std::int64_t started = tree->scanStarted;
    if (started == 0 || tree->silentLogged || static_cast<double>(now - started) / 1e9 < kNoAnswerSeconds) continue;
    tree->silentLogged = true;
    MVLog::appendLog(
        "File system events: %@ does not answer; its changes are reported when it answers again, other folders "
        "are watched as before",
        path);
  }
}

void PollStream::deliver(const std::vector<MVFSEventRecord>& records) {
  // A copy: the receiver may re-create the stream, which replaces the handler.
  BatchHandler handler = onBatch_;
  if (active_ && handler) handler(records);
}

}  // namespace

bool fileSystemNeedsPolling(std::string_view type) {
  static const std::set<std::string_view> kShared = {"nfs",   "nfs4",      "cifs",   "smb3",   "smbfs",
                                                     "9p",    "afs",       "ceph",   "glusterfs",
                                                     "lustre", "davfs",    "fuse"};
  return kShared.count(type) || type.substr(0, 5) == "fuse.";
}

std::unique_ptr<MVFSEventsBackend> createPollBackend(PollOptions options) {
  return std::make_unique<PollStream>(options);
}

PollStatistics pollStatistics() { return PollStatistics{gEntries.load(), gBytes.load()}; }

}  // namespace quillon
