// Entry points of the Linux backends. Executables (the agent, the tools and
// the tests) call these once at start-up to install the platform services.
#pragma once

#include <memory>

#include "MVRunLoop.h"

namespace quillon {

// GLib's default main context as the main run loop. The calling thread
// becomes the main thread.
std::shared_ptr<MVRunLoop> createPlatformRunLoop();

// Installs every Linux backend: file-system events (inotify), desktop
// notifications, sounds, the workspace, the session-bus notification centre,
// the keychain (Secret Service) and HTTP (libcurl). Call after the run loop is installed.
void installPlatformServices();

// Drops the backends that hold bus connections, before the process exits.
void uninstallPlatformServices();

}  // namespace quillon
