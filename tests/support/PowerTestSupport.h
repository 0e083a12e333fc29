// Real peers for the alert and power tests: private buses, python3-dbusmock
// services whose recorded calls the tests read back, and an X server.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "MVRunLoop.h"
#include "TestSupport.h"

namespace power_test {

// As quillon_test::waitUntil, for conditions that are costly to ask (they
// start a program): asked every quarter second while the main loop turns.
inline bool pollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    MVRunLoop::main().runFor(0.25);
  }
  return condition();
}

inline const std::string kScripts = std::string(QUILLON_SOURCE_DIR) + "/tests/support";

// A program run through /bin/sh in the background; ended when this goes.
class BackgroundProcess {
 public:
  BackgroundProcess() = default;
  explicit BackgroundProcess(const std::string& command) { start(command); }
  ~BackgroundProcess() { stop(); }
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  void start(const std::string& command) {
    pid_ = fork();
    if (pid_ == 0) {
      // A test process that dies (a sanitizer halting it, a crash) takes its
      // X server and mocks along instead of leaving them behind.
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  bool running() const { return pid_ > 0 && kill(pid_, 0) == 0; }

 private:
  pid_t pid_ = 0;
};

// A private bus daemon started by a script that prints its address and pid.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string& script) {
    std::istringstream out(quillon_test::shellOutput(script));
    std::getline(out, address_);
    out >> pid_;
  }
  ~PrivateBus() {
    // Forked away from us by the daemon itself; not our child to reap.
    if (pid_ > 0) kill(pid_, SIGTERM);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  bool running() const { return pid_ > 0 && !address_.empty(); }
  const std::string& address() const { return address_; }

  bool hasOwner(const std::string& name) const {
    return quillon_test::shellOutput("gdbus call --address '" + address_ +
                                     "' --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus "
                                     "--method org.freedesktop.DBus.NameHasOwner " +
                                     name + " 2>/dev/null")
               .find("true") != std::string::npos;
  }

 private:
  std::string address_;
  pid_t pid_ = 0;
};

struct MockCall {
  std::string method;
  std::vector<std::string> args;  // Python literals: 'text', False, 7, ['a', 'b']
};

// A python3-dbusmock template on `bus`.
class MockService {
 public:
  MockService(const PrivateBus& bus, const std::string& busOption, const std::string& templateName,
              const std::string& busName, const std::string& path)
      : bus_(bus), busName_(busName), path_(path) {
    const std::string variable = busOption == "--system" ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS";
    process_.start("env " + variable + "='" + bus.address() + "' /usr/bin/python3 -m dbusmock " + busOption +
                   " --template " + templateName + " >/dev/null 2>&1");
    started_ = pollUntil([&] { return bus_.hasOwner(busName_); }, 30);
  }

  // A bare python3-dbusmock object, its methods to be added with AddMethod.
  struct Bare {
    std::string interface;
  };
  MockService(const PrivateBus& bus, const Bare& bare, const std::string& busName, const std::string& path)
      : bus_(bus), busName_(busName), path_(path) {
    process_.start("env DBUS_SESSION_BUS_ADDRESS='" + bus.address() + "' /usr/bin/python3 -m dbusmock --session " +
                   busName + " " + path + " " + bare.interface + " >/dev/null 2>&1");
    started_ = pollUntil([&] { return bus_.hasOwner(busName_); }, 30);
  }

  bool started() const { return started_; }

  std::vector<MockCall> calls() const {
    std::vector<MockCall> result;
    std::istringstream lines(quillon_test::shellOutput("/usr/bin/python3 " + kScripts + "/mock_calls.py '" +
                                                       bus_.address() + "' " + busName_ + " " + path_));
    for (std::string line; std::getline(lines, line);) {
      std::istringstream fields(line);
      MockCall call;
      std::getline(fields, call.method, '\t');
      for (std::string arg; std::getline(fields, arg, '\t');) call.args.push_back(arg);
      result.push_back(call);
    }
    return result;
  }

  std::vector<MockCall> callsTo(const std::string& method) const {
    std::vector<MockCall> matching;
    for (MockCall& call : calls())
      if (call.method == method) matching.push_back(call);
    return matching;
  }

  // A method of org.freedesktop.DBus.Mock on the main object, arguments in
  // GVariant text form.
  bool mock(const std::string& method, const std::string& arguments) const {
    return quillon_test::shell("gdbus call --address '" + bus_.address() + "' --dest " + busName_ +
                               " --object-path " + path_ + " --method org.freedesktop.DBus.Mock." + method + " " +
                               arguments + " >/dev/null 2>&1") == 0;
  }

  bool clearCalls() const { return mock("ClearCalls", ""); }

 private:
  const PrivateBus& bus_;
  std::string busName_;
  std::string path_;
  BackgroundProcess process_;
  bool started_ = false;
};

// An X server of our own; DISPLAY is the caller's to set.
class VirtualDisplay {
 public:
  VirtualDisplay() {
    // No accessibility bus on the private buses; GTK need not look for one.
    setenv("NO_AT_BRIDGE", "1", 1);
    numberFile_ = quillon_test::makeTempDir("xvfb") + "/display";
    // -displayfd: the server picks a free display and tells us which.
    process_.start("Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>'" + numberFile_ + "' >/dev/null 2>&1");
    quillon_test::waitUntil(
        [&] { return quillon_test::readFile(numberFile_).find('\n') != std::string::npos; }, 30);
    std::string number = quillon_test::readFile(numberFile_);
    if (!number.empty() && number.back() == '\n') display_ = ":" + number.substr(0, number.size() - 1);
  }

  bool running() const { return !display_.empty() && process_.running(); }
  const std::string& display() const { return display_; }

  // xdotool against this server.
  int xdotool(const std::string& arguments) const {
    return quillon_test::shell("DISPLAY=" + display_ + " xdotool " + arguments + " >/dev/null 2>&1");
  }

  // Types `keys` into the window titled `title`. Without a window manager
  // nobody hands out the keyboard focus, so it is given first.
  int typeInto(const std::string& title, const std::string& keys) const {
    return xdotool("search --sync --onlyvisible --name '^" + title + "$' windowfocus --sync key --clearmodifiers " +
                   keys);
  }

 private:
  std::string numberFile_;
  std::string display_;
  BackgroundProcess process_;
};

}  // namespace power_test
