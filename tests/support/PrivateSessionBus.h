// Private D-Bus daemons for tests, in a session and a system flavour, and
// python3-dbusmock services on them whose calls the tests read back.
//
// The buses run without service activation (session.conf, system-bus.conf),
// so a service is present only while the test runs it. Every program started
// on a bus is ended with it, and dies with the test process if that dies.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace quillon_test {

struct MockCall {
  std::string method;
  std::vector<std::string> args;  // Python literals: 'text', False, 7, ['a', 'b']
};

class PrivateBus;

// A python3-dbusmock service; every method call it gets is logged to `calls`.
struct Mock {
  pid_t pid = 0;
  std::string calls;
  PrivateBus* bus = nullptr;
  std::string busName, path;
  bool started() const { return pid > 0; }
  std::string log() const;  // what `calls` holds so far
  std::vector<MockCall> recorded() const;
  std::vector<MockCall> callsTo(const std::string& method) const;
  // A method of org.freedesktop.DBus.Mock on the main object, arguments in GVariant text form.
  bool mock(const std::string& method, const std::string& arguments) const;
  bool clearCalls() const { return mock("ClearCalls", ""); }
  void stop();
};

class PrivateBus {
 public:
  enum Kind { kSession, kSystem };
  explicit PrivateBus(Kind kind = kSession);
  // A bus started by a script that prints its address and pid (system-bus.sh, session-bus.sh).
  explicit PrivateBus(const std::string& script);
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // False when the bus daemon could not be started (see error()).
  bool running() const { return busPid_ > 0; }
  bool isRunning() const { return running(); }
  const std::string& address() const { return address_; }
  const std::string& error() const { return error_; }

  // Starts a program with this bus as its session or system bus; it is
  // killed at the end.
  pid_t startDaemon(const std::string& shellCommand);
  // Ends one program started here, before the bus ends.
  void stopDaemon(pid_t pid);

  // Starts dbusmock with a template (a name or a script's path) and waits
  // until it owns `busName`; a Mock that did not start otherwise. `path`:
  // its main object, when not the bus name spelt as a path.
  Mock startMock(const std::string& busName, const std::string& mockTemplate, const std::string& path = "");
  // A bare dbusmock object at `path`, its methods to be added with AddMethod.
  Mock startBareMock(const std::string& busName, const std::string& path, const std::string& interface);

  bool hasOwner(const std::string& name) const;
  bool waitForOwner(const std::string& name, double seconds) const;

 private:
  void start(const std::string& script);
  Mock startMockWith(const std::string& busName, const std::string& path, const std::string& arguments);
  Kind kind_;
  std::string address_;
  std::string error_;
  pid_t busPid_ = 0;
  std::vector<pid_t> daemons_;
};

// A private session bus that this process (and every program it starts)
// uses while the object lives, with a private runtime folder, optionally
// with an unlocked gnome-keyring as its Secret Service.
class PrivateSessionBus : public PrivateBus {
 public:
  PrivateSessionBus();
  using Mock = quillon_test::Mock;

  // Starts gnome-keyring-daemon's Secret Service, with an unlocked login
  // keyring, and waits until it owns org.freedesktop.secrets.
  [[nodiscard]] bool startKeyring();

 private:
  EnvOverride runtime_;
  EnvOverride sessionAddress_;
};

}  // namespace quillon_test
