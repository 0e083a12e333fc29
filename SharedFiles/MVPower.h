// MVPower: putting the computer to sleep, shutting it down, logging out.
//
// Each operation asks the platform once and returns; a refusal (the user may
// not do it, the service is missing) is ignored, with one log line at most,
// because the agent asks on the user's own standing order and has nobody to
// report to at that moment. The operations may be called from any thread;
// the agent calls them on the main thread.
//
// Linux: systemd-logind on the system bus (the address in
// DBUS_SYSTEM_BUS_ADDRESS when set, the standard socket otherwise): sleep is
// Suspend, shut down is PowerOff, log out terminates the caller's session.
// macOS: the Finder and System Events scripts, the log-out confirmation
// answered.
#pragma once

#include <memory>

class MVPower {
 public:
  class Backend {
   public:
    virtual ~Backend() = default;
    virtual void sleepComputer() = 0;
    virtual void shutdownComputer() = 0;
    virtual void logOutUser() = 0;
  };

  // Installs the platform side; returns the one it replaces.
  static std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

  static void sleepComputer();
  static void shutdownComputer();
  static void logOutUser();
};
