// The Linux file-system event service: MVFSEvents over inotify, and over
// polling where inotify cannot see.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "MVFSEventsBackend.h"

namespace quillon {

// The service the agent installs with
//   MVFSEvents::setBackendFactory(quillon::createInotifyBackend);
// Which way each watched path is watched is decided at every start from the
// kernel's mount table: a path on a network or FUSE file system, a path the
// user asked to have polled (MVFSEventsBackend::setPolledPaths) and a share
// mounted inside a watched local tree are polled (FSEventsPoll.h); the rest
// is watched by inotify. When inotify's watch limit is reached, the rest of
// that tree is polled. The log names every polled path and the reason.
std::unique_ptr<MVFSEventsBackend> createInotifyBackend();

// inotify alone: one inotify instance for the whole stream, read on the main
// loop. Every folder below a watched path gets its own watch; folders
// created later are added as they appear.
struct InotifyOptions {
  // Folders left out of the watched trees (they are polled instead); asked
  // before anything looks at the folder.
  std::function<bool(const std::string& folder)> skip;
  // The watch limit was reached while watching the watched path `root`.
  std::function<void(const std::string& root)> onLimit;
};
std::unique_ptr<MVFSEventsBackend> createInotifyOnlyBackend(InotifyOptions options = {});

}  // namespace quillon
