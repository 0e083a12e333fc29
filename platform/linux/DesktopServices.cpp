#include "DesktopServices.h"

#include "MVGrowl.h"

namespace quillon {

void installDesktopServices() {
  MVUserNotificationCenter::setBackend(desktop::createNotificationBackend());
  MVSound::setBackend(desktop::createSoundBackend());
  MVWorkspace::setBackend(desktop::createWorkspaceBackend());
  MVDistributedNotificationCenter::setBackend(desktop::createDistributedNotificationBackend());
  // The click of a notification reaches the rest of the program only
  // through MVGrowl, which makes itself the delegate when first created.
  MVGrowl::defaultController();
}

}  // namespace quillon
