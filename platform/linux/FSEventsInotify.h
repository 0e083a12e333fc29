// The Linux file-system event service: MVFSEvents over inotify.
#pragma once

#include <memory>

#include "MVFSEventsBackend.h"

namespace quillon {

// One inotify instance for the whole stream, read on the main loop. Every
// folder below a watched path gets its own watch; folders created later are
// added as they appear. Install with
//   MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
std::unique_ptr<MVFSEventsBackend> createInotifyBackend();

}  // namespace quillon
