// Entry points of the Linux backends. Executables (the agent, the tools and
// the tests) call these once at start-up to install the platform services.
#pragma once

#include <memory>

#include "MVRunLoop.h"

namespace quillon {

// GLib's default main context as the main run loop. The calling thread
// becomes the main thread.
std::shared_ptr<MVRunLoop> createPlatformRunLoop();

}  // namespace quillon
