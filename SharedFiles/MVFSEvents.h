// MVFSEvents: the one file-system event stream that every watcher of the
// agent shares.
//
// The stream holds one list of watched paths and one delegate. Each watched
// folder is watched with everything below it, including folders created
// later. Changes arrive in batches on the main thread as an array of record
// dictionaries (see MVFSEventRecord): "id", "path" (the changed folder, with
// a trailing "/"), "flag" ("%04x") and "date", shared by the batch. The first
// change after a quiet period is delivered at once; later ones are gathered
// for the latency given when the stream started (1.0 second by default).
//
// Unusual conditions are ordinary records, never errors:
//   - lost events (the kernel queue overflowed): one record per watched path
//     with MustScanSubDirs | KernelDropped; rescan below it;
//   - a watched path deleted, moved away or created: RootChanged on that path;
//   - the file system under a watched folder unmounted: Unmount on the
//     folder where it was mounted.
// A path that does not exist is accepted and watched from the moment it
// appears. When the system's limit on watches is reached, one log line says
// so and the folders already watched stay watched.
//
// Folders whose changes the platform's service cannot see (on Linux: shares
// and FUSE file systems, where inotify reports only what this machine
// writes) are read again every 2 seconds instead, and any folder can be
// polled on request (setPolledPaths); the records are the same.
//
// Platforms: on Linux the backend is inotify (one instance for the stream)
// with polling beside it; on macOS it would be the FSEvents service. The
// platform start-up installs its backend with setBackendFactory().
//
// Threads: operations may be called from any thread; they run on the main
// thread (a call from another thread waits for it). The delegate is called on
// the main thread, one batch at a time.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MVFSEventsBackend.h"
#include "MVPlistValue.h"

class MVFSEventsDelegate {
 public:
  // `events`: the batch's record dictionaries, in the order they happened.
  virtual void fileSystemEventsReceived(const MVPlistValue::Array& events) = 0;

 protected:
  // A delegate that goes away stops being the stream's delegate, so the
  // stream never calls into a destroyed object.
  virtual ~MVFSEventsDelegate();
};

class MVFSEvents {
 public:
  using BackendFactory = std::function<std::unique_ptr<MVFSEventsBackend>()>;

  // The shared stream; it lives for the whole process.
  static MVFSEvents& sharedController();

  // Installs the platform's event service. The next start uses it.
  static void setBackendFactory(BackendFactory factory);

  MVFSEvents(const MVFSEvents&) = delete;
  MVFSEvents& operator=(const MVFSEvents&) = delete;

  // Not owned. A delegate that is destroyed stops being the delegate.
  void setDelegate(MVFSEventsDelegate* delegate);
  MVFSEventsDelegate* delegate() const;

  // Replaces the stream with one on exactly `paths`, starting from now.
  void startWatchingPaths(const std::vector<std::string>& paths, double interval = 1.0);
  // Re-creates the stream with `paths` added to the current list (paths
  // already present, by exact string, are not added twice).
  void addWatchPaths(const std::vector<std::string>& paths, double interval);
  // Re-creates the stream without every occurrence of `paths`.
  void removeWatchPaths(const std::vector<std::string>& paths, double interval);
  // Ends the stream and clears the path list.
  void stopWatching();
  // Folders (and everything below them) to poll rather than leave to the
  // platform's notices, from the next start on.
  void setPolledPaths(std::vector<std::string> paths);

  std::vector<std::string> watchPaths() const;
  void setWatchPaths(std::vector<std::string> paths);
  // True once a stream was started; stopping does not clear it.
  bool running() const { return running_; }
  void setRunning(bool running) { running_ = running; }

 private:
  friend class MVFSEventsDelegate;

  MVFSEvents();
  ~MVFSEvents();

  void startOnMainThread(const std::vector<std::string>& paths, double interval);
  void stopOnMainThread();
  void deliver(const std::vector<MVFSEventRecord>& records);
  void forgetDelegate(MVFSEventsDelegate* delegate);
  static bool runOnMainThread(const std::function<void()>& work);

  // The platform stream. It outlives stop/start so that re-creating the
  // stream keeps its watches; `streaming_` says whether a stream exists.
  std::unique_ptr<MVFSEventsBackend> backend_;
  bool streaming_ = false;
  bool delivering_ = false;
  std::atomic<MVFSEventsDelegate*> delegate_{nullptr};
  std::atomic<bool> running_{false};
  mutable std::mutex pathsMutex_;
  std::vector<std::string> watchPaths_;
  std::vector<std::string> polledPaths_;
};
