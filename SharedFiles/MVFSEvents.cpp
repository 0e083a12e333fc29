#include "MVFSEvents.h"

#include <algorithm>
#include <new>
#include <utility>

#include "MVFormat.h"
#include "MVLog.h"
#include "MVRunLoop.h"

// ---------------------------------------------------------------------------
// Records and batching

MVPlistValue MVFSEventRecord::toDictionary() const {
  MVPlistValue record;
  record.set("id", static_cast<long long>(eventId));
  record.set("path", path);
  record.set("flag", MVFormatString("%04x", flags));
  record.set("date", date);
  return record;
}

namespace {
// Identifiers only grow over the life of the process, across streams.
std::atomic<std::uint64_t> gNextEventId{1};
}  // namespace

MVFSEventBatcher::MVFSEventBatcher(Deliver deliver) : deliver_(std::move(deliver)) {}

MVFSEventBatcher::~MVFSEventBatcher() {
  if (timer_) timer_->invalidate();
}

void MVFSEventBatcher::noteChange(const std::string& folder, std::uint32_t flags) {
  auto [it, inserted] = pendingIndex_.try_emplace(folder, pending_.size());
  if (inserted)
    pending_.emplace_back(folder, flags);
  else
    pending_[it->second].second |= flags;
}

void MVFSEventBatcher::endOfPass() {
  if (pending_.empty() || paused_ || (timer_ && timer_->isValid())) return;
  double sinceLast = std::chrono::duration<double>(Clock::now() - lastDelivery_).count();
  if (!delivered_ || sinceLast >= latency_)
    deliverNow();
  else
    scheduleDelivery(latency_ - sinceLast);
}

void MVFSEventBatcher::pause() {
  paused_ = true;
  if (timer_) timer_->invalidate();
  timer_.reset();
}

void MVFSEventBatcher::resume() {
  paused_ = false;
  if (pending_.empty()) return;
  double sinceLast = std::chrono::duration<double>(Clock::now() - lastDelivery_).count();
  scheduleDelivery(!delivered_ || sinceLast >= latency_ ? 0.0 : latency_ - sinceLast);
}

void MVFSEventBatcher::discardPending() {
  pending_.clear();
  pendingIndex_.clear();
  if (timer_) timer_->invalidate();
  timer_.reset();
}

void MVFSEventBatcher::discardPendingUnless(const std::function<bool(const std::string&)>& keep) {
  std::erase_if(pending_, [&](const auto& change) { return !keep(change.first); });
  pendingIndex_.clear();
  for (std::size_t i = 0; i < pending_.size(); ++i) pendingIndex_[pending_[i].first] = i;
}

void MVFSEventBatcher::scheduleDelivery(double seconds) {
  if (timer_) timer_->invalidate();
  timer_ = MVRunLoop::main().scheduleTimer(std::max(seconds, 0.0), false, [this] {
    timer_.reset();
    if (!paused_) deliverNow();
  });
}

void MVFSEventBatcher::deliverNow() {
  if (pending_.empty()) return;
  // Taken out before delivery: the delegate may re-create the stream, which
  // comes back here.
  auto changes = std::exchange(pending_, {});
  pendingIndex_.clear();
  delivered_ = true;
  lastDelivery_ = Clock::now();
  const auto date = std::chrono::system_clock::now();
  std::vector<MVFSEventRecord> records;
  records.reserve(changes.size());
  for (auto& [folder, flags] : changes)
    records.push_back(MVFSEventRecord{gNextEventId.fetch_add(1), std::move(folder), flags, date});
  deliver_(std::move(records));
}

// ---------------------------------------------------------------------------
// The shared stream

namespace {
std::mutex gFactoryMutex;
MVFSEvents::BackendFactory gFactory;
bool gFactoryChanged = false;
}  // namespace

MVFSEventsDelegate::~MVFSEventsDelegate() { MVFSEvents::sharedController().forgetDelegate(this); }

MVFSEvents::MVFSEvents() = default;
MVFSEvents::~MVFSEvents() = default;

MVFSEvents& MVFSEvents::sharedController() {
  // Created once under the static-initialisation lock and never destroyed:
  // delegates and watchers may still reach it while the process exits.
  alignas(MVFSEvents) static unsigned char storage[sizeof(MVFSEvents)];
  static MVFSEvents* shared = ::new (storage) MVFSEvents();
  return *shared;
}

void MVFSEvents::setBackendFactory(BackendFactory factory) {
  std::lock_guard<std::mutex> lock(gFactoryMutex);
  gFactory = std::move(factory);
  gFactoryChanged = true;
}

void MVFSEvents::setDelegate(MVFSEventsDelegate* delegate) { delegate_ = delegate; }
MVFSEventsDelegate* MVFSEvents::delegate() const { return delegate_; }

void MVFSEvents::forgetDelegate(MVFSEventsDelegate* delegate) {
  MVFSEventsDelegate* expected = delegate;
  delegate_.compare_exchange_strong(expected, nullptr);
}

std::vector<std::string> MVFSEvents::watchPaths() const {
  std::lock_guard<std::mutex> lock(pathsMutex_);
  return watchPaths_;
}

void MVFSEvents::setWatchPaths(std::vector<std::string> paths) {
  std::lock_guard<std::mutex> lock(pathsMutex_);
  watchPaths_ = std::move(paths);
}

bool MVFSEvents::runOnMainThread(const std::function<void()>& work) {
  if (!MVRunLoop::hasMain()) {
    MVLog::appendLog("File system events: no main run loop to watch on");
    return false;
  }
  // The watch bookkeeping belongs to the main thread; other threads wait
  // for their call to run there.
  MVRunLoop::main().performOnMainThread(work, true);
  return true;
}

void MVFSEvents::startWatchingPaths(const std::vector<std::string>& paths, double interval) {
  runOnMainThread([&] { startOnMainThread(paths, interval); });
}

void MVFSEvents::addWatchPaths(const std::vector<std::string>& paths, double interval) {
  runOnMainThread([&] {
    std::vector<std::string> merged = watchPaths();
    for (const auto& path : paths)
      if (std::find(merged.begin(), merged.end(), path) == merged.end()) merged.push_back(path);
    startOnMainThread(merged, interval);
  });
}

void MVFSEvents::removeWatchPaths(const std::vector<std::string>& paths, double interval) {
  runOnMainThread([&] {
    std::vector<std::string> rest = watchPaths();
    for (const auto& path : paths) std::erase(rest, path);
    startOnMainThread(rest, interval);
  });
}

void MVFSEvents::stopWatching() {
  runOnMainThread([&] { stopOnMainThread(); });
}

void MVFSEvents::setPolledPaths(std::vector<std::string> paths) {
  std::lock_guard<std::mutex> lock(pathsMutex_);
  polledPaths_ = std::move(paths);
}

void MVFSEvents::stopOnMainThread() {
  if (streaming_ && backend_) backend_->stop();
  streaming_ = false;
  setWatchPaths({});
}

void MVFSEvents::startOnMainThread(const std::vector<std::string>& paths, double interval) {
  stopOnMainThread();
  {
    std::lock_guard<std::mutex> lock(gFactoryMutex);
    // A backend is never replaced from inside its own delivery.
    if ((gFactoryChanged && !delivering_) || !backend_) {
      backend_ = gFactory ? gFactory() : nullptr;
      gFactoryChanged = false;
    }
  }
  if (backend_) {
    {
      std::lock_guard<std::mutex> lock(pathsMutex_);
      backend_->setPolledPaths(polledPaths_);
    }
    backend_->start(paths, interval, [this](const std::vector<MVFSEventRecord>& records) { deliver(records); });
    streaming_ = true;
  } else {
    MVLog::appendLog("File system events: no event service on this platform; %@ not watched",
                     MVPlistValue(MVPlistValue::Array(paths.begin(), paths.end())));
  }
  running_ = true;
  setWatchPaths(paths);
}

void MVFSEvents::deliver(const std::vector<MVFSEventRecord>& records) {
  MVFSEventsDelegate* receiver = delegate_;
  if (!receiver || records.empty()) return;
  MVPlistValue::Array events;
  events.reserve(records.size());
  for (const auto& record : records) events.push_back(record.toDictionary());
  const bool outer = !delivering_;
  delivering_ = true;
  receiver->fileSystemEventsReceived(events);
  if (outer) delivering_ = false;
}
