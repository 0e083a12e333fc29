// Real peers for the alert and power tests: private buses (PrivateSessionBus.h), an X server.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "MVRunLoop.h"
#include "PrivateSessionBus.h"
#include "TestSupport.h"

namespace power_test {

using quillon_test::MockCall;
using quillon_test::PrivateBus;

// waitUntil for conditions that start a program: asked every quarter second.
inline bool pollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    MVRunLoop::main().runFor(0.25);
  }
  return condition();
}

// `work` on a worker, as the agent's folder check runs; `whileRunning` on the turning main thread.
inline void runOnWorker(const std::function<void()>& work, const std::function<void()>& whileRunning = {}) {
  std::atomic<bool> done{false};
  std::thread worker([&] {
    work();
    done = true;
  });
  if (whileRunning) whileRunning();
  EXPECT_TRUE(quillon_test::waitUntil([&] { return done.load(); }, 120));
  worker.join();
}

inline const std::string kScripts = std::string(QUILLON_SOURCE_DIR) + "/tests/support";

// A dbusmock template on `bus`, stopped with the object.
class MockService : public quillon_test::Mock {
 public:
  MockService(PrivateBus& bus, const std::string& /*busOption*/, const std::string& templateName,
              const std::string& busName, const std::string& path)
      : Mock(bus.startMock(busName, templateName, path)) {}
  ~MockService() { stop(); }
  MockService(const MockService&) = delete;
  MockService& operator=(const MockService&) = delete;
};

// An X server of our own; DISPLAY is the caller's to set.
class VirtualDisplay {
 public:
  VirtualDisplay() {
    // No accessibility bus on the private buses; GTK need not look for one.
    setenv("NO_AT_BRIDGE", "1", 1);
    numberFile_ = quillon_test::makeTempDir("xvfb") + "/display";
    // -displayfd: the server picks a free display and tells which. -noreset: root window properties stay.
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // dies with a test process that dies
      execl("/bin/sh", "sh", "-c", ("exec Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp -noreset 3>'" +
                                    numberFile_ + "' >/dev/null 2>&1").c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    quillon_test::waitUntil(
        [&] { return quillon_test::readFile(numberFile_).find('\n') != std::string::npos; }, 30);
    std::string number = quillon_test::readFile(numberFile_);
    if (!number.empty() && number.back() == '\n') display_ = ":" + number.substr(0, number.size() - 1);
  }

  ~VirtualDisplay() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  VirtualDisplay(const VirtualDisplay&) = delete;
  VirtualDisplay& operator=(const VirtualDisplay&) = delete;

  bool running() const { return !display_.empty() && pid_ > 0 && kill(pid_, 0) == 0; }
  const std::string& display() const { return display_; }

  int xdotool(const std::string& arguments) const {
    return quillon_test::shell("DISPLAY=" + display_ + " xdotool " + arguments + " >/dev/null 2>&1");
  }
  int click(const std::pair<int, int>& at) const {
    return xdotool("mousemove " + std::to_string(at.first) + " " + std::to_string(at.second) + " click 1");
  }
  // Types `keys` into the window titled `title`, given the focus first (no window manager does).
  int typeInto(const std::string& title, const std::string& keys) const {
    return xdotool("search --sync --onlyvisible --name '^" + title + "$' windowfocus --sync key --clearmodifiers " +
                   keys);
  }

 private:
  std::string numberFile_;
  std::string display_;
  pid_t pid_ = 0;
};

}  // namespace power_test
