#include "PrivateSessionBus.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>

namespace quillon_test {

namespace {

const std::string kSupport = std::string(QUILLON_SOURCE_DIR) + "/tests/support";

// The keyring keeps its control socket here; it must not meet the real session's.
std::string privateRuntimeDir() {
  std::string runtime = makeTempDir("runtime");
  chmod(runtime.c_str(), 0700);
  return runtime;
}

}  // namespace

PrivateBus::PrivateBus(Kind kind) : PrivateBus(kSupport + (kind == kSystem ? "/system-bus.sh" : "/session-bus.sh")) {}

PrivateBus::PrivateBus(const std::string& script)
    : kind_(script.find("system") != std::string::npos ? kSystem : kSession) {
  std::string output = shellOutput(script);
  std::istringstream lines(output);
  std::getline(lines, address_);
  lines >> busPid_;
  if (address_.empty() || busPid_ <= 0) {
    busPid_ = 0;
    error_ = "dbus-daemon did not start: " + output;
  }
}

PrivateBus::~PrivateBus() {
  for (pid_t pid : daemons_) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  // The bus daemon forked away from us; it is not our child to reap.
  if (busPid_ > 0) kill(busPid_, SIGTERM);
}

pid_t PrivateBus::startDaemon(const std::string& shellCommand) {
  const std::string variable = kind_ == kSystem ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS";
  const std::string command = "exec env " + variable + "='" + address_ + "' " + shellCommand;
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test that dies takes its services along
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid > 0) daemons_.push_back(pid);
  return pid;
}

void PrivateBus::stopDaemon(pid_t pid) {
  auto it = std::find(daemons_.begin(), daemons_.end(), pid);
  if (it == daemons_.end()) return;
  daemons_.erase(it);
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

Mock PrivateBus::startMockWith(const std::string& busName, const std::string& path, const std::string& arguments) {
  Mock mock{0, makeTempDir("mock") + "/calls.log", this, busName, path};
  if (!running()) return mock;
  pid_t pid = startDaemon("/usr/bin/python3 -m dbusmock " + std::string(kind_ == kSystem ? "--system " : "--session ") +
                          arguments + " -l " + mock.calls + " >/dev/null 2>&1");
  if (pid > 0 && waitForOwner(busName, 30)) mock.pid = pid;
  return mock;
}

Mock PrivateBus::startMock(const std::string& busName, const std::string& mockTemplate, const std::string& path) {
  std::string objectPath = path;
  if (objectPath.empty()) {
    objectPath = "/" + busName;
    std::replace(objectPath.begin(), objectPath.end(), '.', '/');
  }
  return startMockWith(busName, objectPath, "--template " + mockTemplate);
}

Mock PrivateBus::startBareMock(const std::string& busName, const std::string& path, const std::string& interface) {
  return startMockWith(busName, path, busName + " " + path + " " + interface);
}

bool PrivateBus::hasOwner(const std::string& name) const {
  return shellOutput("gdbus call --address '" + address_ +
                     "' --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus "
                     "--method org.freedesktop.DBus.NameHasOwner " + name + " 2>/dev/null")
             .find("true") != std::string::npos;
}

bool PrivateBus::waitForOwner(const std::string& name, double seconds) const {
  return waitUntil([&] { return hasOwner(name); }, seconds);
}

std::string Mock::log() const { return readFile(calls); }

std::vector<MockCall> Mock::recorded() const {
  std::vector<MockCall> result;
  std::istringstream lines(shellOutput("/usr/bin/python3 " + kSupport + "/mock_calls.py '" + bus->address() + "' " +
                                       busName + " " + path));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    MockCall call;
    std::getline(fields, call.method, '\t');
    for (std::string arg; std::getline(fields, arg, '\t');) call.args.push_back(arg);
    result.push_back(call);
  }
  return result;
}

std::vector<MockCall> Mock::callsTo(const std::string& method) const {
  std::vector<MockCall> matching = recorded();
  std::erase_if(matching, [&](const MockCall& call) { return call.method != method; });
  return matching;
}

bool Mock::mock(const std::string& method, const std::string& arguments) const {
  return bus && shell("gdbus call --address '" + bus->address() + "' --dest " + busName + " --object-path " + path +
                      " --method org.freedesktop.DBus.Mock." + method + " " + arguments + " >/dev/null 2>&1") == 0;
}

void Mock::stop() {
  if (bus && pid > 0) bus->stopDaemon(pid);
  pid = 0;
}

PrivateSessionBus::PrivateSessionBus()
    : runtime_("XDG_RUNTIME_DIR", privateRuntimeDir()), sessionAddress_("DBUS_SESSION_BUS_ADDRESS", address()) {}

bool PrivateSessionBus::startKeyring() {
  if (!running()) return false;
  // The login password on standard input, from a file so that the pid we kill is the daemon's.
  std::string login = makeTempDir("keyring") + "/login";
  writeFile(login, "test-login");
  startDaemon("gnome-keyring-daemon --foreground --unlock --components=secrets <" + login + " >/dev/null 2>&1");
  return waitForOwner("org.freedesktop.secrets", 20);
}

}  // namespace quillon_test
