// Crash detection at start and stop, and the frontmost application.
#include "AppController.h"
#include "MVBugReporter.h"
#include "MVWorkspace.h"

void AppController::startBugReporter() { MVBugReporter::startBugReporter(); }

void AppController::stopBugReporter() { MVBugReporter::stopBugReporter(); }

std::string AppController::frontmostApplicationName() const {
  std::function<std::string()> provider;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    provider = frontmostOverride_;
  }
  return provider ? provider() : MVWorkspace::frontmostApplicationName();
}
