// Private D-Bus daemons, session or system flavour, without service
// activation, and python3-dbusmock services on them whose calls the tests
// read back. Every program started on a bus ends with it, or with the test.
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

  bool running() const { return busPid_ > 0; }
  bool isRunning() const { return running(); }
  const std::string& address() const { return address_; }
  const std::string& error() const { return error_; }

  // A program with this bus as its session or system bus, killed at the end or by stopDaemon.
  pid_t startDaemon(const std::string& shellCommand);
  void stopDaemon(pid_t pid);

  // dbusmock with a template (a name or a script), once it owns `busName`;
  // `path`: its main object, when not the bus name spelt as a path.
  Mock startMock(const std::string& busName, const std::string& mockTemplate, const std::string& path = "");
  // A bare dbusmock object at `path`, its methods to be added with AddMethod.
  Mock startBareMock(const std::string& busName, const std::string& path, const std::string& interface);

  bool hasOwner(const std::string& name) const;
  bool waitForOwner(const std::string& name, double seconds) const;

 private:
  Mock startMockWith(const std::string& busName, const std::string& path, const std::string& arguments);
  Kind kind_;
  std::string address_;
  std::string error_;
  pid_t busPid_ = 0;
  std::vector<pid_t> daemons_;
};

// A private session bus and runtime folder that this process and its
// children use while the object lives.
class PrivateSessionBus : public PrivateBus {
 public:
  PrivateSessionBus();
  using Mock = quillon_test::Mock;

  // gnome-keyring's Secret Service with an unlocked login keyring, once it owns its name.
  [[nodiscard]] bool startKeyring();

 private:
  EnvOverride runtime_;
  EnvOverride sessionAddress_;
};

}  // namespace quillon_test
