// A private D-Bus session bus for one test (suite), optionally with an
// unlocked gnome-keyring as its Secret Service.
//
// The bus runs without service activation (tests/support/session.conf), so a
// service is present only while the test itself runs it. While the object
// lives, DBUS_SESSION_BUS_ADDRESS and XDG_RUNTIME_DIR of this process (and of
// every program it starts) point at the private bus; the destructor kills
// the daemons it started and restores both variables.
#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>
#include <string>

namespace quillon_test {

class PrivateSessionBus {
 public:
  PrivateSessionBus();
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

  // False when the bus daemon could not be started (see error()).
  bool isRunning() const { return busPid_ > 0; }
  const std::string& address() const { return address_; }
  const std::string& error() const { return error_; }

  // Starts gnome-keyring-daemon's Secret Service, with an unlocked login
  // keyring, and waits until it owns org.freedesktop.secrets.
  [[nodiscard]] bool startKeyring();

  // Starts a program on the bus and records it to be killed at the end.
  pid_t startDaemon(const std::string& shellCommand);
  // Ends one program started here, before the bus ends.
  void stopDaemon(pid_t pid);

  // A python3-dbusmock service, every method call it gets logged to `calls`.
  struct Mock {
    pid_t pid = 0;
    std::string calls;
    bool started() const { return pid > 0; }
    std::string log() const;  // what `calls` holds so far
  };
  // Starts dbusmock with a template (a name or a script's path) and waits
  // until it owns `busName`; a Mock that did not start otherwise.
  Mock startMock(const std::string& busName, const std::string& mockTemplate);

  // Whether `name` currently has an owner on this bus.
  bool hasOwner(const std::string& name) const;
  // Waits (turning the main loop) until `name` has an owner.
  bool waitForOwner(const std::string& name, double seconds) const;

 private:
  std::string address_;
  std::string error_;
  pid_t busPid_ = 0;
  std::optional<std::string> savedAddress_;
  std::optional<std::string> savedRuntimeDir_;
  std::vector<pid_t> daemons_;
};

}  // namespace quillon_test
