// MVFSEvents by polling: for trees whose changes inotify cannot see.
//
// inotify reports only what this machine does. On a share (NFS, SMB, any
// FUSE file system such as sshfs or rclone) a render written by another
// machine raises no event, so such trees are read again every round and
// compared with a compact snapshot (PollSnapshot). Records, flags, batching
// and delivery on the main loop are those of the inotify stream, so the
// consumer cannot tell the two apart.
//
// Each polled path has a thread of its own that scans it, at most one scan
// at a time: a share that stops answering (a hard NFS mount whose server is
// gone, a stopped FUSE daemon) holds only its own scan. The log says once
// that it does not answer and again when it does. The interval (2 s) is
// stretched when scans are expensive, so that polling as a whole takes no
// more than about 5% of one core; the log says so.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "MVFSEventsBackend.h"

namespace quillon {

struct PollOptions {
  double interval = 2.0;
  // Share of one core that all scans together may take.
  double processorShare = 0.05;
};

// True for file systems whose changes by other machines inotify never
// reports: network file systems and every FUSE file system.
bool fileSystemNeedsPolling(std::string_view type);

std::unique_ptr<MVFSEventsBackend> createPollBackend(PollOptions options = {});

// The snapshots of every polled tree of the process, as of their last scans.
struct PollStatistics {
  std::size_t entries = 0;
  std::size_t bytes = 0;
};
PollStatistics pollStatistics();

}  // namespace quillon
