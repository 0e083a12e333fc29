// Avid Media Composer renders: the "Avid MediaFiles" folder at the top of
// every mounted local volume joins the event stream, and volumes are followed
// as they come and go. Deciding that an MXF file is finished is left to the
// folder check, which knows Avid folders by their path.
#include <string>
#include <vector>

#include "AppController.h"
#include "MVFSEvents.h"
#include "MVFileManager.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVVolumes.h"
#include "QuillonPreferences.h"

namespace {

constexpr const char* kAvidMediaFolderName = "Avid MediaFiles";

std::string avidMediaFolderOnVolume(const std::string& volume) {
  return MVAppendPathComponent(volume, kAvidMediaFolderName);
}

// The mount point a volume notification is about, when it names one.
const std::string* devicePath(const MVPlistValue& userInfo) {
  const std::string* path = userInfo[MVVolumes::kDevicePathKey].string();
  return path && !path->empty() ? path : nullptr;
}

}  // namespace

void AppController::startAvidQuillon() {
  MVLog::appendLog("Watching Avid renders");
  MVFSEvents& stream = MVFSEvents::sharedController();
  stream.setDelegate(this);
  std::vector<std::string> folders;
  for (const std::string& volume : MVVolumes::mountedLocalVolumePaths()) {
    std::string folder = avidMediaFolderOnVolume(volume);
    if (MVFileManager::fileExistsAtPath(folder)) folders.push_back(folder);
  }
  // Most volumes hold no Avid media; they are passed over without a word.
  if (folders.empty()) return;
  stream.addWatchPaths(folders, 1.0);
}

void AppController::diskMounted(const MVPlistValue& userInfo) {
  if (!QuillonPreferences::isEqualToOne("watchAvidRenders")) return;
  const std::string* volume = devicePath(userInfo);
  if (!volume) return;
  std::string folder = avidMediaFolderOnVolume(*volume);
  if (MVFileManager::fileExistsAtPath(folder)) MVFSEvents::sharedController().addWatchPaths({folder}, 1.0);
}

void AppController::diskUnmounted(const MVPlistValue& userInfo) {
  if (!QuillonPreferences::isEqualToOne("watchAvidRenders")) return;
  const std::string* volume = devicePath(userInfo);
  if (!volume) return;
  // The folder has gone with its volume, so it cannot be tested for; removing
  // a path that was never watched leaves the stream's list as it was.
  MVFSEvents::sharedController().removeWatchPaths({avidMediaFolderOnVolume(*volume)}, 1.0);
}

void AppController::subscribeToVolumeNotifications() {
  subscriptions_.push_back(
      MVVolumes::addDidMountObserver([this](const MVPlistValue& userInfo) { diskMounted(userInfo); }));
  subscriptions_.push_back(
      MVVolumes::addDidUnmountObserver([this](const MVPlistValue& userInfo) { diskUnmounted(userInfo); }));
}
