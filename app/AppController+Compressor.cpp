// Compressor batches: the watcher's start, its notifications, the poll that
// turns status changes into outcomes, the spool folders and the search for
// the Qmaster applications. The queries themselves stand in
// AppController+CompressorBatches.cpp.
#include <dirent.h>

#include <algorithm>
#include <future>
#include <thread>
#include <utility>

#include "AppController.h"
#include "FileAttributes.h"
#include "MVDistributedNotificationCenter.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVWorkspace.h"
#include "MVXMLDocument.h"

using namespace quillon;

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

// Compressor and Batch Monitor exist only as macOS bundles, so they are
// looked for in the macOS applications folder whatever the platform.
const char* const kApplicationsFolder = "/Applications";
const char* const kSharedQmasterStorage = "/Users/Shared/Library/Application Support/Apple Qmaster/Storage";

// The one-shot re-check while any batch is known to be running.
constexpr double kQmasterRecheckSeconds = 15.0;
// Qmaster advertises in bursts; one poll per second of them is enough.
constexpr auto kAdvertisementQuietPeriod = std::chrono::seconds(1);

// "~" and "~/..." name the user's own home folder. "~name/..." would be
// another user's, which the agent has no business guessing: it stays as
// written.
std::string expandingHomeFolder(const std::string& path) {
  if (path == "~") return MVLocalPaths::userDirectory();
  if (path.starts_with("~/")) return MVLocalPaths::userDirectory() + path.substr(1);
  return path;
}

bool isFailedStatus(const std::string* status) {
  // A batch whose status vanished from the monitor's answer is reported as
  // failed: it is gone and will never finish.
  if (!status) return true;
  return contains(*status, "Error") || contains(*status, "Failed") || *status == "Cancelled";
}

// Runs the monitor queries off the main thread when called there, turning the
// main loop meanwhile: the command runner ends a runaway tool from the main
// thread, which it could not do while that thread waits for the tool.
template <typename Work>
auto runKeepingMainLoopAlive(Work work) -> decltype(work()) {
  if (!MVRunLoop::hasMain() || !MVRunLoop::main().isMainThread()) return work();
  auto result = std::async(std::launch::async, std::move(work));
  auto ready = [&result] { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
  while (!ready()) MVRunLoop::main().runFor(0.1, ready);
  return result.get();
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
  storage = expandingHomeFolder(*storage);
  std::lock_guard<std::mutex> lock(mutex_);
  qmaster4SpoolPath_ = storage;
  return *storage;
}

void AppController::startCompressorWatcher() {
  // Dropping the old tokens first means a second start never doubles the
  // subscriptions.
  std::vector<MVObserverToken> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    old = std::exchange(compressorSubscriptions_, {});
  }
  old.clear();

  auto& center = MVDistributedNotificationCenter::defaultCenter();
  std::vector<MVObserverToken> tokens;
  auto observe = [&](const char* name, void (AppController::*handler)(const MVPlistValue&)) {
    tokens.push_back(center.addObserver(
        name, [this, handler](const std::string&, const MVPlistValue&, const MVPlistValue& userInfo) {
          (this->*handler)(userInfo);
        }));
  };
  observe("QmasterAdUpdateNotification", &AppController::qmasterAdUpdate);
  observe("QmasterAdUpdateNotification2", &AppController::qmasterAdUpdate);
  observe("JCBatchSubmittedNotification", &AppController::qmasterBatchSubmitted);
  observe("JCBatchFinishedNotification", &AppController::qmasterBatchFinished);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    compressorSubscriptions_ = std::move(tokens);
  }

  processQmaster();
  watchPaths({qmasterSpoolPath(), qmaster4SpoolPath(), kSharedQmasterStorage});
}

void AppController::processQmaster() {
  for (;;) {
    // One poll at a time: a request that arrives meanwhile (a notification,
    // the timer, a spool change) is folded into one more pass afterwards, so
    // two polls never judge the same status change against the same list.
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (qmasterPolling_) {
        qmasterPollRequested_ = true;
        return;
      }
      qmasterPolling_ = true;
      qmasterPollRequested_ = false;
      ++qmasterPassesBegun_;
    }

    ClusterBatches all = runKeepingMainLoopAlive([this] { return qmasterBatches(); });

    MVPlistValue::Array working = *currentBatches();
    // Outcomes in the order the monitors listed the batches; true = finished.
    std::vector<std::pair<MVPlistValue, bool>> outcomes;
    for (const auto& [cluster, table] : all) {
      for (const auto& [batchID, record] : table) {
        auto listed = std::find(working.begin(), working.end(), MVPlistValue(batchID));
        const std::string* status = record["status"].string();
        if (status && *status == "Successful") {
          // A batch never seen running is an old one in the monitor's list.
          if (listed == working.end()) continue;
          working.erase(listed);
          outcomes.emplace_back(record, true);
        } else if (isFailedStatus(status)) {
          if (listed == working.end()) continue;
          working.erase(listed);
          outcomes.emplace_back(record, false);
        } else if (listed == working.end()) {
          working.emplace_back(batchID);
        }
      }
    }
    setCurrentBatches(working);

    // Re-armed before the outcomes are handed on: the post-render actions may
    // hold an alert open for a minute, and the other batches keep being watched.
    replaceTimer(qmasterTimer_, nullptr);
    if (!working.empty())
      replaceTimer(qmasterTimer_, MVRunLoop::main().scheduleTimer(kQmasterRecheckSeconds, false, [this] {
        processQmaster();
      }));

    bool again;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      qmasterPolling_ = false;
      ++qmasterPassesEnded_;
      again = std::exchange(qmasterPollRequested_, false);
    }

    for (auto& [record, finished] : outcomes) {
      record.set("type", "qmaster");
      if (!finished) {
        renderDidFail(record);
        continue;
      }
      renderDidFinishSuccessfully(record);
      // The post-render actions wait for sounds and may show an alert; on the
      // main thread they would stall every other watcher, so they go to a
      // worker there.
      if (MVRunLoop::hasMain() && MVRunLoop::main().isMainThread())
        detachQmasterWorker([this] { performPostRenderActions(); });
      else
        performPostRenderActions();
    }
    if (!again) return;
  }
}

void AppController::updateCurrentBatches() {
  // A poll already running may have asked the monitors before a batch was
  // submitted; its list cannot be trusted. The first pass to begin after now
  // either runs here or, when a poll is running, is the one more pass it is
  // asked for. Passes run one at a time, so they end in the order they begin.
  std::uint64_t wanted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    wanted = qmasterPassesBegun_ + 1;
  }
  processQmaster();
  auto ended = [this, wanted] {
    std::lock_guard<std::mutex> lock(mutex_);
    return qmasterPassesEnded_ >= wanted;
  };
  const bool onMainThread = MVRunLoop::hasMain() && MVRunLoop::main().isMainThread();
  while (!ended()) {
    if (onMainThread)
      MVRunLoop::main().runFor(0.01, ended);
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void AppController::qmasterAdUpdate(const MVPlistValue& userInfo) {
  Date current = now();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lastQmasterUpdate_ && current - *lastQmasterUpdate_ < kAdvertisementQuietPeriod) return;
  }
  const std::string* advertisement = userInfo["advertisement"].string();
  std::string error;
  auto document = MVXMLDocument::documentWithData(advertisement ? *advertisement : std::string(),
                                                  MVXMLDocument::kTidyXML, &error);
  if (!document) {
    MVLog::appendLog("Error loading XML document: %@", error);
    return;
  }
  // An advertisement without content says nothing about batches.
  if (MVPlistValue(document->rootElement().stringValue()).count() >= 3)
    detachQmasterWorker([this] { processQmaster(); });
  std::lock_guard<std::mutex> lock(mutex_);
  lastQmasterUpdate_ = current;
}

void AppController::qmasterBatchSubmitted(const MVPlistValue&) { processQmaster(); }

// The notification names the batch ("batchID"), but the poll finds it by
// itself, together with any other batch that changed meanwhile.
void AppController::qmasterBatchFinished(const MVPlistValue&) { processQmaster(); }

bool AppController::isProcessingQmaster() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return qmasterPolling_ || qmasterWorkers_ > 0;
}

void AppController::detachQmasterWorker(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++qmasterWorkers_;
  }
  MVRunLoop::detachThread([this, work = std::move(work)] {
    work();
    std::lock_guard<std::mutex> lock(mutex_);
    --qmasterWorkers_;
  });
}

std::optional<std::string> AppController::pathForAppWithBundleID(const std::string& bundleID) {
  const std::string applications = kApplicationsFolder;
  for (const std::string& folder :
       {MVAppendPathComponent(applications, "Morvane/Tillerbox"), MVAppendPathComponent(applications, "Morvane"),
        applications}) {
    if (auto found = pathForBundleID(bundleID, folder)) return found;
  }
  // The desktop's own index of applications; there are no loaded
  // application bundles to ask beyond it.
  std::string known = MVWorkspace::pathForAppWithBundleID(bundleID);
  if (!known.empty()) return known;
  return std::nullopt;
}

std::optional<std::string> AppController::pathForBundleID(const std::string& bundleID, const std::string& inFolder) {
  // "com.apple.BatchMonitor" is looked for as "Batch Monitor.app" and the like.
  std::size_t dot = bundleID.rfind('.');
  std::string key = lowercase(dot == std::string::npos ? bundleID : bundleID.substr(dot + 1));
  for (const std::string& entry : quillon::folderEntries(inFolder)) {
    std::string name = deletingPathExtension(entry);
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    if (lowercase(name) != key) continue;
    std::string bundle = MVAppendPathComponent(inFolder, entry);
    MVPlistValue info = MVPropertyList::read(MVAppendPathComponent(bundle, "Contents/Info.plist"));
    const std::string* identifier = info["CFBundleIdentifier"].string();
    if (identifier && *identifier == bundleID) return bundle;
  }
  return std::nullopt;
}
