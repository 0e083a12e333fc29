// The Linux desktop services: notifications, sounds, the workspace and the
// distributed notification center, over GDBus, GIO, libcanberra and X11.
#pragma once

#include <memory>

#include "MVDistributedNotificationCenter.h"
#include "MVGrowl.h"
#include "MVSound.h"
#include "MVWorkspace.h"

namespace quillon {

// Installs every backend below. Call once at start-up, after the main loop
// (createPlatformRunLoop) is installed. Nothing connects until first used.
void installDesktopServices();

namespace desktop {
std::shared_ptr<MVUserNotificationCenter::Backend> createNotificationBackend();
std::shared_ptr<MVSound::Backend> createSoundBackend();
std::shared_ptr<MVWorkspace::Backend> createWorkspaceBackend();
std::shared_ptr<MVDistributedNotificationCenter::Backend> createDistributedNotificationBackend();
// The frontmost application as X11 knows it; "" without a display or under Wayland.
std::string x11FrontmostApplicationName();
}  // namespace desktop

}  // namespace quillon
