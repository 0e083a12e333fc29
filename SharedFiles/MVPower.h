// MVPower: putting the computer to sleep, shutting it down, logging out.
//
// Each operation asks the platform once and returns; a refusal (the user may
// not do it, the service is missing) is ignored, with one log line at most,
// because the agent asks on the user's own standing order and has nobody to
// report to at that moment. The operations may be called from any thread;
// the agent calls them on the main thread.
//
// Linux: log out and shut down ask the desktop's session manager on the
// session bus first (GNOME's Logout without confirmation and Shutdown, or
// KDE's), so that an application with unsaved work can stop them; only
// without one do they go to systemd-logind on the system bus (the address in
// DBUS_SYSTEM_BUS_ADDRESS when set, the standard socket otherwise), which
// powers off or terminates the caller's session. Sleep is logind's Suspend.
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
