// MVVolumes: the mounted local volumes and the news of volumes coming and
// going, as the workspace reports them.
//
// mountedLocalVolumePaths() lists the mount points of the local file systems
// the user could keep media on, "/" first.
// Observers learn of each mount and unmount with a user-info dictionary whose
// "NSDevicePath" is the volume's mount point. They are called on the main
// thread, in the order they were added, and stay registered exactly as long
// as their token lives (see MVObserverToken). The table is watched only while
// somebody observes it.
//
// Platforms: on Linux the backend (platform/linux/VolumesMountinfo) reads
// /proc/self/mountinfo and watches it for changes; what counts as a local
// volume is decided there. macOS would report NSWorkspace's volume list and
// its did-mount/did-unmount notifications. Until a backend is installed the
// list is just "/" and nothing is ever reported.
//
// Every operation may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "MVNotificationCenter.h"
#include "MVPlistValue.h"

// The platform side. Implementations report each change once, on the main
// thread, through the handler given to startWatching.
class MVVolumesBackend {
 public:
  enum class Change { Mounted, Unmounted };
  using ChangeHandler = std::function<void(Change change, const std::string& mountPoint)>;

  virtual ~MVVolumesBackend() = default;

  virtual std::vector<std::string> mountedLocalVolumePaths() = 0;
  // Starts (or restarts, replacing the handler) reporting changes from now on.
  virtual void startWatching(ChangeHandler handler) = 0;
  // Changes found after this returns are not reported.
  virtual void stopWatching() = 0;
};

class MVVolumes {
 public:
  static constexpr const char* kDidMountNotification = "NSWorkspaceDidMountNotification";
  static constexpr const char* kDidUnmountNotification = "NSWorkspaceDidUnmountNotification";
  static constexpr const char* kDevicePathKey = "NSDevicePath";

  // Receives the notification's user information: {"NSDevicePath": mount point}.
  using Observer = std::function<void(const MVPlistValue& userInfo)>;

  MVVolumes() = delete;

  // Installs the platform side (or a fake); returns the one it replaces. The
  // watch moves over to the new backend when somebody observes.
  static std::unique_ptr<MVVolumesBackend> setBackend(std::unique_ptr<MVVolumesBackend> backend);

  static std::vector<std::string> mountedLocalVolumePaths();

  [[nodiscard]] static MVObserverToken addDidMountObserver(Observer observer);
  [[nodiscard]] static MVObserverToken addDidUnmountObserver(Observer observer);

 private:
  static MVObserverToken addObserver(const char* name, Observer observer);
};
