// Compressor batches: spool folders (the batch poll joins here).
#include "AppController.h"
#include "MVLocalPaths.h"
#include "MVPropertyList.h"

namespace {
// The spool folder named by a Qmaster settings file, or nullopt when the
// file or its dictionaries are missing.
std::optional<std::string> storageFromSettings(const std::string& appSupport, const std::string& fallback) {
  MVPlistValue root = MVPropertyList::read(MVAppendPathComponent(appSupport, "Apple Qmaster/qmasterservices.plist"));
  const MVPlistValue& prefs = root["jobcontroller:com.apple.qmaster.cluster.admin"]["UserPrefs"];
  if (!prefs.isDictionary()) return std::nullopt;
  const std::string* storage = prefs["Storage"].string();
  return (storage && !storage->empty()) ? *storage : fallback;
}
}  // namespace

std::string AppController::qmasterSpoolPath() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (qmasterSpoolPath_) return *qmasterSpoolPath_;
  }
  auto storage = storageFromSettings("/Library/Application Support", "/var/spool/qmaster");
  if (!storage) return "/var/spool/qmaster";
  std::lock_guard<std::mutex> lock(mutex_);
  qmasterSpoolPath_ = storage;
  return *storage;
}

std::string AppController::qmaster4SpoolPath() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (qmaster4SpoolPath_) return *qmaster4SpoolPath_;
  }
  std::string appSupport = MVLocalPaths::appSupportDirectory(true);
  std::string fallback = MVAppendPathComponent(appSupport, "Apple Qmaster/Storage");
  auto storage = storageFromSettings(appSupport, fallback);
  if (!storage) return fallback;
  if (!storage->empty() && (*storage)[0] == '~') storage = MVLocalPaths::userDirectory() + storage->substr(1);
  std::lock_guard<std::mutex> lock(mutex_);
  qmaster4SpoolPath_ = storage;
  return *storage;
}

// The batch poll lands with the Compressor watcher.
void AppController::startCompressorWatcher() {}
void AppController::processQmaster() {}
