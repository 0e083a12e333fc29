// Adobe Premiere Pro previews: the "Adobe Premiere Pro Preview Files" folders
// beside the recently opened projects join the event stream. Projects come
// and go, so the list is read again every ten minutes while the setting is on.
#include <atomic>
#include <string>
#include <vector>

#include "AppController.h"
#include "MVFSEvents.h"
#include "MVLog.h"
#include "MVPremierePrefParser.h"
#include "QuillonPreferences.h"
#include "WatchersTesting.h"

namespace {

constexpr double kPremiereRefreshSeconds = 600.0;
std::atomic<double> gRefreshSecondsOverride{0.0};

double premiereRefreshSeconds() {
  double override = gRefreshSecondsOverride.load();
  return override > 0 ? override : kPremiereRefreshSeconds;
}

}  // namespace

namespace quillon {

void setPremiereRefreshSecondsForTesting(double seconds) { gRefreshSecondsOverride.store(seconds); }

}  // namespace quillon

void AppController::startPremiereQuillon() {
  MVLog::appendLog("Watching Premiere renders");
  MVFSEvents& stream = MVFSEvents::sharedController();
  stream.setDelegate(this);
  std::vector<std::string> paths = MVPremierePrefParser::recentRenderPaths();
  setPremierePaths(paths);
  if (!paths.empty()) stream.addWatchPaths(paths, 1.0);
  // A restart by reconfiguration replaces the refresh; it never runs twice.
  replaceTimer(premierePathRefreshTimer_,
               MVRunLoop::main().scheduleTimer(premiereRefreshSeconds(), true, [this] { refreshPremierePaths(); }));
}

void AppController::refreshPremierePaths() {
  // Switching the option off does not reach this timer directly: it ends
  // itself at its first firing after the switch.
  if (!QuillonPreferences::isEqualToOne("watchPremiereRenders")) {
    replaceTimer(premierePathRefreshTimer_, nullptr);
    return;
  }
  std::vector<std::string> paths = MVPremierePrefParser::recentRenderPaths();
  setPremierePaths(paths);
  // Folders that left the list stay watched; they just stop counting as
  // Premiere folders.
  if (!paths.empty()) MVFSEvents::sharedController().addWatchPaths(paths, 1.0);
}

bool AppController::premierePathRefreshIsScheduled() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return premierePathRefreshTimer_ && premierePathRefreshTimer_->isValid();
}
