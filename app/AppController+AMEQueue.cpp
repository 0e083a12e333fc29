// The Media Encoder queue: its per-version folders join the event stream;
// the folder check reads the queue log when it changes.
#include "AppController.h"
#include "MVFileManager.h"
#include "MVLocalPaths.h"
#include "MVLog.h"

void AppController::startAMEQueueWatcher() {
  MVLog::appendLog("Watching AME queue");
  MVFSEvents::sharedController().setDelegate(this);
  std::vector<std::string> paths =
      MVFileManager::filesMatchingWildcardPath(MVLocalPaths::prefsDirectory(true) + "/Adobe/Adobe Media Encoder/*");
  for (const std::string& path :
       MVFileManager::filesMatchingWildcardPath(MVLocalPaths::documentDirectory(true) + "/Adobe/Adobe Media Encoder/*"))
    paths.push_back(path);
  if (paths.empty()) return;
  MVPlistValue::Array list(paths.begin(), paths.end());
  MVLog::appendLog("AME paths: %@", MVPlistValue(list));
  MVFSEvents::sharedController().addWatchPaths(paths, 1.0);
}
