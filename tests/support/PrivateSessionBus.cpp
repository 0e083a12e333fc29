#include "PrivateSessionBus.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>

#include "TestSupport.h"

namespace quillon_test {

namespace {

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

void restore(const char* name, const std::optional<std::string>& value) {
  if (value)
    setenv(name, value->c_str(), 1);
  else
    unsetenv(name);
}

}  // namespace

PrivateSessionBus::PrivateSessionBus()
    : savedAddress_(environment("DBUS_SESSION_BUS_ADDRESS")), savedRuntimeDir_(environment("XDG_RUNTIME_DIR")) {
  // A private runtime folder too: the keyring keeps its control socket there,
  // and must not meet one of the real session.
  std::string runtime = makeTempDir("runtime");
  chmod(runtime.c_str(), 0700);
  setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);

  std::string output = shellOutput(std::string(QUILLON_SOURCE_DIR) + "/tests/support/session-bus.sh");
  auto newline = output.find('\n');
  if (newline == std::string::npos) {
    error_ = "dbus-daemon did not start: " + output;
    return;
  }
  address_ = output.substr(0, newline);
  busPid_ = std::atoi(output.c_str() + newline + 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateSessionBus::~PrivateSessionBus() {
  for (pid_t pid : daemons_) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  // The bus daemon forked away from us; it is not our child to reap.
  if (busPid_ > 0) kill(busPid_, SIGTERM);
  restore("DBUS_SESSION_BUS_ADDRESS", savedAddress_);
  restore("XDG_RUNTIME_DIR", savedRuntimeDir_);
}

pid_t PrivateSessionBus::startDaemon(const std::string& shellCommand) {
  pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", ("exec " + shellCommand).c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid > 0) daemons_.push_back(pid);
  return pid;
}

void PrivateSessionBus::stopDaemon(pid_t pid) {
  auto it = std::find(daemons_.begin(), daemons_.end(), pid);
  if (it == daemons_.end()) return;
  daemons_.erase(it);
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

PrivateSessionBus::Mock PrivateSessionBus::startMock(const std::string& busName, const std::string& mockTemplate) {
  Mock mock;
  if (!isRunning()) return mock;
  mock.calls = makeTempDir("mock") + "/calls.log";
  pid_t pid = startDaemon("/usr/bin/python3 -m dbusmock --template " + mockTemplate + " -l " + mock.calls +
                          " >/dev/null 2>&1");
  if (pid > 0 && waitForOwner(busName, 20)) mock.pid = pid;
  return mock;
}

std::string PrivateSessionBus::Mock::log() const { return fileExists(calls) ? readFile(calls) : std::string(); }

bool PrivateSessionBus::startKeyring() {
  if (!isRunning()) return false;
  // The keyring reads the login password on standard input and creates an
  // unlocked login keyring with it.
  // From a file rather than a pipe, so that the pid we kill is the daemon's.
  std::string login = makeTempDir("keyring") + "/login";
  writeFile(login, "test-login");
  startDaemon("gnome-keyring-daemon --foreground --unlock --components=secrets <" + login + " >/dev/null 2>&1");
  return waitForOwner("org.freedesktop.secrets", 20);
}

bool PrivateSessionBus::hasOwner(const std::string& name) const {
  return shellOutput("dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
                     "org.freedesktop.DBus.NameHasOwner string:" +
                     name + " 2>/dev/null")
             .find("true") != std::string::npos;
}

bool PrivateSessionBus::waitForOwner(const std::string& name, double seconds) const {
  return waitUntil([&] { return hasOwner(name); }, seconds);
}

}  // namespace quillon_test
