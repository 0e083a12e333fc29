// The desktop as the agent sees it, every call recorded in order, one line each.
// Sounds end at once (on the main thread, as the real ones do) unless held.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "MVGrowl.h"
#include "MVRunLoop.h"
#include "MVSound.h"
#include "MVWorkspace.h"

namespace quillon_test {

class RecordingDesktop : public MVUserNotificationCenter::Backend, public MVSound::Backend, public MVWorkspace::Backend {
 public:
  // A new recorder in place of the desktop while it lives.
  struct Installed {
    std::shared_ptr<RecordingDesktop> desktop = std::make_shared<RecordingDesktop>();
    std::shared_ptr<MVUserNotificationCenter::Backend> center = MVUserNotificationCenter::setBackend(desktop);
    std::shared_ptr<MVSound::Backend> sound = MVSound::setBackend(desktop);
    std::shared_ptr<MVWorkspace::Backend> workspace = MVWorkspace::setBackend(desktop);
    Installed() = default;
    Installed(const Installed&) = delete;
    ~Installed() {
      MVUserNotificationCenter::setBackend(center);
      MVSound::setBackend(sound);
      MVWorkspace::setBackend(workspace);
    }
    RecordingDesktop* operator->() const { return desktop.get(); }
  };

  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(calls_, {});
  }
  void deliverNotification(const MVUserNotification& n) override {
    add("notify:" + n.title + "|" + n.informativeText + "|" + n.iconPath);
  }
  void play(const std::string& name, MVSound::Completion onFinished) override {
    add("sound:" + name);
    if (hold)
      held.push_back(std::move(onFinished));
    else
      MVRunLoop::main().performOnMainThread([done = std::move(onFinished)] { done(true); }, false);
  }
  bool selectFile(const std::string& path, const std::string& root) override { return add("reveal:" + path + " in " + root); }
  bool openFile(const std::string& path) override { return add("open:" + path); }
  bool openFile(const std::string& path, const std::string& app) override {
    return add("open:" + path + (app.empty() ? "" : " with " + app));
  }
  std::string frontmostApplicationName() override { return "Finder"; }
  std::string iconForFile(const std::string& path) override { return "icon-of:" + path; }

  bool hold = false;  // main thread only
  std::vector<MVSound::Completion> held;

 private:
  bool add(std::string call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
    return true;
  }
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

}  // namespace quillon_test
