// The Final Cut Pro render folder: found in Final Cut's own preference file
// (the scratch-disk setting the user picked), watched together with the
// preference folder so that a newly chosen render folder is picked up.
#include <mutex>
#include <string>
#include <vector>

#include "AppController.h"
#include "MVFCPPrefParser.h"
#include "MVFSEvents.h"
#include "MVLocalPaths.h"
#include "MVLog.h"

void AppController::startFCPQuillon() {
  std::string renderFolder;
  {
    // Only the render folder matters here; the scan stops once it is found.
    MVFCPPrefParser parser;
    parser.loadDataForTypes(std::vector<std::string>{"render"});
    // Without a readable preference file Final Cut Pro renders into its
    // default folder, so that is the one to watch.
    renderFolder = parser.renderPath().value_or(
        MVAppendPathComponent(MVLocalPaths::documentDirectory(true), "Final Cut Pro Documents/Render Files"));
  }
  setFcpRenderPath(renderFolder);
  MVLog::appendLog("Watching FCP render folder %@", renderFolder);

  MVFSEvents& stream = MVFSEvents::sharedController();
  stream.setDelegate(this);
  stream.addWatchPaths(
      {MVAppendPathComponent(MVLocalPaths::prefsDirectory(true), "Final Cut Pro User Data"), renderFolder}, 1.0);

  Date started = now();
  std::lock_guard<std::mutex> lock(mutex_);
  lastFCPRenderPathUpdate_ = started;
}
