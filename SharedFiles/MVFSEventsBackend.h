// MVFSEventsBackend: what MVFSEvents needs from a platform's file-system
// event service, and the portable pieces every backend shares.
//
// A backend turns the operating system's change notifications into batches
// of MVFSEventRecord, one record per changed folder, and hands them to the
// stream on the main thread. The inotify backend lives in platform/linux; a
// backend on macOS's FSEvents service would slot in beside it and pass the
// service's own identifiers and flags through unchanged.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "MVPlistValue.h"

class MVTimer;

// Event flags, with the values of macOS's FSEvents service so that a record
// reads the same on every platform.
enum MVFSEventFlags : std::uint32_t {
  kMVFSEventFlagNone = 0x00000000,
  // Events were lost: everything below the record's path must be rescanned.
  kMVFSEventFlagMustScanSubDirs = 0x00000001,
  kMVFSEventFlagUserDropped = 0x00000002,
  kMVFSEventFlagKernelDropped = 0x00000004,
  // The watched path itself was deleted, moved away or (re)created.
  kMVFSEventFlagRootChanged = 0x00000020,
  kMVFSEventFlagMount = 0x00000040,
  // The file system holding the record's path was unmounted.
  kMVFSEventFlagUnmount = 0x00000080,
};

// One event as handed to the delegate.
struct MVFSEventRecord {
  std::uint64_t eventId = 0;
  // The folder in which something changed, always ending in "/" (as the
  // macOS service reports folders), so that "folder + file name" is a path.
  std::string path;
  std::uint32_t flags = kMVFSEventFlagNone;
  // When the batch was delivered; every record of one batch shares it.
  MVPlistValue::Date date;

  // The record as the delegate sees it: "id" (number), "path" (string),
  // "flag" (the flags as "%04x") and "date".
  MVPlistValue toDictionary() const;
};

// A platform's event service. All operations are called on the main thread,
// and batches are delivered on the main thread.
class MVFSEventsBackend {
 public:
  using BatchHandler = std::function<void(const std::vector<MVFSEventRecord>&)>;

  virtual ~MVFSEventsBackend() = default;

  // Watches exactly `paths` (each folder and everything below it) and reports
  // batches to `onBatch`, gathered for `latency` seconds except for the first
  // change after a quiet period, which is reported at once. A path that does
  // not exist yet is watched from the moment it appears.
  virtual void start(const std::vector<std::string>& paths, double latency, BatchHandler onBatch) = 0;

  // Ends the stream: nothing is delivered until the next start. A start that
  // follows before the main loop turns again (the stream is re-created on
  // every change of its path list) loses no event and re-reads no folder that
  // stays watched.
  virtual void stop() = 0;

  // Folders to read again every few seconds instead of waiting for the
  // service's notices (the user knows that others write there unseen).
  // Taken into account at the next start.
  virtual void setPolledPaths(const std::vector<std::string>& paths) { (void)paths; }
};

// Gathers the changes a backend notices into batches the way the macOS
// service does with its "no defer" option: the first change after a quiet
// period of `latency` seconds is delivered at once, later ones wait until
// `latency` seconds after the previous delivery. Changes to one folder inside
// one batch become one record carrying all their flags. Identifiers come from
// one process-wide counter that only grows. Main thread only.
class MVFSEventBatcher {
 public:
  using Deliver = std::function<void(std::vector<MVFSEventRecord>)>;

  explicit MVFSEventBatcher(Deliver deliver);
  ~MVFSEventBatcher();
  MVFSEventBatcher(const MVFSEventBatcher&) = delete;
  MVFSEventBatcher& operator=(const MVFSEventBatcher&) = delete;

  void setLatency(double seconds) { latency_ = seconds; }

  // Records a change in `folder` (a path ending in "/").
  void noteChange(const std::string& folder, std::uint32_t flags);

  // Called after each read of the service: delivers now if the stream has
  // been quiet for the latency, or makes sure a delivery is scheduled.
  void endOfPass();

  // While paused nothing is delivered and changes keep gathering; resuming
  // schedules their delivery (never synchronously, so a caller that restarts
  // the stream is not re-entered by its own delegate).
  void pause();
  void resume();

  // Forgets changes not yet delivered: all of them, or those whose folder
  // `keep` rejects.
  void discardPending();
  void discardPendingUnless(const std::function<bool(const std::string& folder)>& keep);

  bool hasPending() const { return !pending_.empty(); }

 private:
  using Clock = std::chrono::steady_clock;

  void scheduleDelivery(double seconds);
  void deliverNow();

  Deliver deliver_;
  double latency_ = 1.0;
  bool paused_ = false;
  std::vector<std::pair<std::string, std::uint32_t>> pending_;
  std::unordered_map<std::string, std::size_t> pendingIndex_;
  bool delivered_ = false;
  Clock::time_point lastDelivery_;
  std::shared_ptr<MVTimer> timer_;
};
