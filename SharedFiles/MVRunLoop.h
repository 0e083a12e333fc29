// MVRunLoop: the main run loop as the logic sees it.
//
// Everything the agent does happens on one main loop: timers, file-system
// event batches, bus signals, socket I/O. Logic code reaches the loop only
// through this interface; a platform backend (GLib's main context on Linux)
// implements it and is installed once at start-up with setMain().
//
// Threads: every operation may be called from any thread. Timers and fd
// sources always fire on the main thread, whichever thread armed them.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "MVCrashLog.h"

class MVTimer {
 public:
  virtual ~MVTimer() = default;
  // Stops the timer; its callback is never called again. Safe from any thread
  // and from inside the callback.
  virtual void invalidate() = 0;
  virtual bool isValid() const = 0;
};

class MVIOSource {
 public:
  virtual ~MVIOSource() = default;
  virtual void invalidate() = 0;
};

class MVRunLoop {
 public:
  enum IOCondition : unsigned { kReadable = 1, kWritable = 2, kHangup = 4, kError = 8 };

  virtual ~MVRunLoop() = default;

  // The installed main loop. setMain must be called before anything uses it.
  static MVRunLoop& main();
  static void setMain(std::shared_ptr<MVRunLoop> loop);
  static bool hasMain();

  virtual bool isMainThread() const = 0;

  // Runs `work` on the main thread. With wait, blocks until it has run (runs it
  // at once when already on the main thread).
  virtual void performOnMainThread(std::function<void()> work, bool waitUntilDone) = 0;

  // A one-shot or repeating timer on the main loop.
  [[nodiscard]] virtual std::shared_ptr<MVTimer> scheduleTimer(double seconds, bool repeats,
                                                               std::function<void()> fire) = 0;

  // Watches a file descriptor; `ready` gets the IOCondition bits and returns
  // false to remove the source.
  [[nodiscard]] virtual std::shared_ptr<MVIOSource> addIOSource(int fd, unsigned conditions,
                                                                std::function<bool(unsigned)> ready) = 0;

  // Calls `handler` on the main thread when the process receives `signo`
  // (SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2).
  virtual void onSignal(int signo, std::function<void()> handler) = 0;

  // Turns the loop for at most `seconds`, returning early once `until` is true
  // (checked after each pass). Main thread only: the wait of code that must not
  // block the loop, in 0.01-second slices.
  virtual void runFor(double seconds, const std::function<bool()>& until = {}) = 0;

  // Runs until stop().
  virtual void run() = 0;
  virtual void stop() = 0;

  // Starts a detached worker thread, with the alternate signal stack that
  // lets a stack overflow in it still write a crash log.
  static void detachThread(std::function<void()> work) {
    std::thread([work = std::move(work)] {
      MVCrashLog::prepareThread();
      work();
    }).detach();
  }
};
