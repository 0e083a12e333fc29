// Shared pieces of the watcher tests: event records, a private mount
// namespace, child processes, a recording desktop, the controller and its log.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "AppController.h"
#include "MVFSEvents.h"
#include "MVGrowl.h"
#include "MVLog.h"
#include "MVRunLoop.h"
#include "MVSound.h"
#include "MVWorkspace.h"
#include "QuillonPreferences.h"
#include "TestSupport.h"

namespace watch_test {

using namespace quillon_test;

struct Delivered {
  std::uint64_t id;
  std::string path;
  std::uint32_t flags;
  MVPlistValue::Date date;
  std::size_t batch;
};

// Becomes the event stream's delegate and keeps every record it is handed.
class EventRecorder : public MVFSEventsDelegate {
 public:
  EventRecorder() { MVFSEvents::sharedController().setDelegate(this); }
  ~EventRecorder() override { MVFSEvents::sharedController().setDelegate(nullptr); }
  void fileSystemEventsReceived(const MVPlistValue::Array& events) override {
    ++batches;
    for (const auto& e : events)
      records.push_back({static_cast<std::uint64_t>(e["id"].integerValue()), *e["path"].string(),
                         static_cast<std::uint32_t>(std::stoul(*e["flag"].string(), nullptr, 16)), *e["date"].date(),
                         batches});
  }
  bool saw(const std::string& path, std::uint32_t flags = 0) const {
    return std::any_of(records.begin(), records.end(),
                       [&](const Delivered& r) { return r.path == path && (r.flags & flags) == flags; });
  }
  bool waitFor(const std::string& path, std::uint32_t flags = 0, double seconds = 7) {
    return waitUntil([&] { return saw(path, flags); }, seconds);
  }
  // Turns the loop past the stream's latency, then forgets what came.
  void settleAndClear(double seconds = 1.2) {
    MVRunLoop::main().runFor(seconds);
    records.clear();
  }

  std::vector<Delivered> records;
  std::size_t batches = 0;
};

// Moves this thread, and what it starts later, into a mount namespace of its
// own, so no mount made here is seen by the host; "" or why it failed.
inline std::string enterPrivateMountNamespace() {
  if (unshare(CLONE_NEWNS) != 0) return std::string("unshare: ") + std::strerror(errno);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return std::string("make / private: ") + std::strerror(errno);
  return {};
}

inline void setModified(const std::string& path, std::chrono::system_clock::time_point when) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
  timespec times[2];
  times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(ns / 1000000000);
  times[0].tv_nsec = times[1].tv_nsec = static_cast<long>(ns % 1000000000);
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// ASCII text as UTF-16LE, as the Media Encoder writes its log.
inline std::string utf16LE(const std::string& ascii) {
  std::string bytes;
  for (char c : ascii) bytes += std::string{c, '\0'};
  return bytes;
}

inline void setAge(const std::string& path, std::chrono::seconds age) {
  setModified(path, std::chrono::system_clock::now() - age);
}

// A bash command line in a process group of its own (`$0` is `name`, as
// `ps` shows it after `exec -a "$0"`); killed with its children at the end.
class ChildProcess {
 public:
  explicit ChildProcess(const std::string& script, const std::string& name = "bash") {
    pid_ = fork();
    if (pid_ == 0) {
      setpgid(0, 0);
      execl("/bin/bash", "bash", "-c", script.c_str(), name.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ~ChildProcess() {
    if (running()) kill(-pid_, SIGKILL), kill(pid_, SIGKILL);
    if (!ended_ && pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  // Reaps the process once it ended and notes when.
  bool running() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = std::chrono::steady_clock::now();
    return pid_ > 0 && !ended_;
  }
  std::chrono::steady_clock::time_point ended() const { return *ended_; }
  int status() const { return status_; }

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  std::optional<std::chrono::steady_clock::time_point> ended_;
};

// Records the notifications shown and the files revealed (every announced
// watch-folder file, even a quiet one); sounds end at once.
class RecordingDesktop : public MVWorkspace::Backend, public MVUserNotificationCenter::Backend, public MVSound::Backend {
 public:
  struct Revealed {
    std::string path;
    std::uintmax_t size;
    std::chrono::steady_clock::time_point when;
  };
  static std::shared_ptr<RecordingDesktop> install() {
    auto desktop = std::make_shared<RecordingDesktop>();
    MVGrowl::defaultController();
    MVUserNotificationCenter::setBackend(desktop);
    MVSound::setBackend(desktop);
    MVWorkspace::setBackend(desktop);
    return desktop;
  }
  std::vector<Revealed> revealed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return revealed_;
  }
  // "title|text" of each notification.
  std::vector<std::string> notifications() {
    std::lock_guard<std::mutex> lock(mutex_);
    return notes_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    revealed_.clear();
    notes_.clear();
  }

  bool selectFile(const std::string& path, const std::string&) override {
    std::error_code ec;
    std::lock_guard<std::mutex> lock(mutex_);
    revealed_.push_back({path, std::filesystem::file_size(path, ec), std::chrono::steady_clock::now()});
    return true;
  }
  void deliverNotification(const MVUserNotification& n) override {
    std::lock_guard<std::mutex> lock(mutex_);
    notes_.push_back(n.title + "|" + n.informativeText);
  }
  void play(const std::string&, MVSound::Completion done) override {
    MVRunLoop::main().performOnMainThread([done] { done(true); }, false);
  }

 private:
  std::mutex mutex_;
  std::vector<Revealed> revealed_;
  std::vector<std::string> notes_;
};

// Never destroyed, like the agent's own: the post-render actions it starts
// run on detached threads that may outlast a test.
inline AppController& controller() {
  alignas(AppController) static unsigned char storage[sizeof(AppController)];
  static AppController* shared = ::new (storage) AppController();
  return *shared;
}

inline void setSetting(const std::string& key, const MVPlistValue& value) { QuillonPreferences::setObject(value, key); }

// Only the watcher under test is on; its announcements stay quiet.
inline void enableOnly(const std::string& watcherKey) {
  for (const char* key : {"watchQmaster", "watchFCPRenders", "watchAvidRenders", "watchAMEQueue", "watchPremiereRenders"})
    setSetting(key, key == watcherKey ? 1 : 0);
  setSetting("watchFolders", MVPlistValue(MVPlistValue::Array{}));
  for (const char* key : {"notifyGrowl", "notifySound", "logoutAction"}) setSetting(key, 0);
}

// A render large enough to pass the size floor, written in one go.
inline void writeRender(const std::string& path, std::size_t bytes = 200 * 1024) {
  writeFile(path, std::string(bytes, 'r'));
}

inline bool isWatched(const std::string& path) {
  std::vector<std::string> paths = MVFSEvents::sharedController().watchPaths();
  return std::find(paths.begin(), paths.end(), path) != paths.end();
}

inline std::string logText() {
  MVLog::finishWriting();
  return fileExists(MVLog::currentLogPath()) ? readFile(MVLog::currentLogPath()) : "";
}

// A field of the render description announced for `path` (its "Render
// finished: {...}" log line); "" when absent, "-" when not announced at all.
inline std::string announced(const std::string& path, const std::string& field) {
  std::string log = logText();
  std::size_t at = log.find("\n    fullPath = " + path + ";\n");
  if (at == std::string::npos) return "-";
  std::size_t begin = log.rfind("Render finished: {", at), end = log.find("\n}", at);
  std::size_t value = log.find("\n    " + field + " = ", begin);
  if (value == std::string::npos || value > end) return "";
  value = log.find(" = ", value) + 3;
  return log.substr(value, log.find(";\n", value) - value);
}

inline bool waitForAnnouncement(const std::string& path, double seconds = 20) {
  return waitUntil([&] { return controller().recentFiles()->count(path) != 0; }, seconds);
}

}  // namespace watch_test
