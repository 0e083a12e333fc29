// MVSingleInstance: one running copy of a program per user.
//
// acquire(name) takes an exclusive flock on "<name>.lock" in the user's
// runtime folder (XDG_RUNTIME_DIR), or in the user's cache folder when the
// session has none, and keeps it until the process ends: the kernel drops
// the lock with the process, so a crash never leaves a stale lock behind.
// The descriptor is close-on-exec, so scripts and applications that the
// agent starts do not inherit the lock and cannot keep it after the agent
// is gone. The file holds the holder's process id, for the message of the
// copy that is refused.
//
// macOS: the same lock in the per-user temporary folder would serve; the
// bundle's launch agent already keeps one copy there.
//
// Thread-safe. Nothing throws.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

class MVSingleInstance {
 public:
  MVSingleInstance() = delete;

  // True when this process now holds (or already held) the lock `name`;
  // false when another process of the user holds it. When the lock cannot be
  // made at all (no writable folder) a line is logged and the answer is
  // true: running twice is better than not running.
  [[nodiscard]] static bool acquire(const std::string& name);

  // The process id written by the current holder, if any can be read.
  static std::optional<pid_t> holderProcessID(const std::string& name);

  // "<runtime or cache folder>/<name>.lock".
  static std::string lockPath(const std::string& name);
};
