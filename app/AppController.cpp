#include "AppController.h"

#include <cassert>
#include <utility>

#include "MVDistributedNotificationCenter.h"
#include "MVFSEvents.h"
#include "MVLog.h"
#include "QuillonPreferences.h"

namespace {
std::mutex gControllerMutex;
AppController* gController = nullptr;
}  // namespace

AppController& AppController::sharedController() {
  std::lock_guard<std::mutex> lock(gControllerMutex);
  assert(gController && "the application delegate creates the controller first");
  return *gController;
}

bool AppController::hasSharedController() {
  std::lock_guard<std::mutex> lock(gControllerMutex);
  return gController != nullptr;
}

AppController::AppController()
    : currentBatches_(std::make_shared<MVPlistValue::Array>()),
      recentFiles_(std::make_shared<FolderMap>()),
      currentFolders_(std::make_shared<FolderMap>()),
      recentBatches_(std::make_shared<std::vector<std::string>>()) {
  std::lock_guard<std::mutex> lock(gControllerMutex);
  if (!gController) gController = this;
}

AppController::~AppController() {
  for (auto* timer : {&folderTimer_, &qmasterTimer_, &premierePathRefreshTimer_, &cleanupTimer_})
    if (*timer) (*timer)->invalidate();
  std::lock_guard<std::mutex> lock(gControllerMutex);
  if (gController == this) gController = nullptr;
}

void AppController::init() {
  startBugReporter();
  MVLog::createNewLog();
  subscriptions_.push_back(MVDistributedNotificationCenter::defaultCenter().addObserver(
      "MVQuillonConfigUpdate", [this](const std::string&, const MVPlistValue&, const MVPlistValue&) { setup(); }));
  subscribeToVolumeNotifications();
  replaceTimer(cleanupTimer_, MVRunLoop::main().scheduleTimer(1800, true, [this] { tidyRecentFiles(); }));
}

void AppController::setup() {
  setFcpRenderPath(std::nullopt);
  MVLog::appendLog("Setting up...");
  MVFSEvents& stream = MVFSEvents::sharedController();
  stream.stopWatching();
  stream.setWatchPaths({});
  if (QuillonPreferences::isEqualToOne("watchQmaster")) startCompressorWatcher();
  if (QuillonPreferences::isEqualToOne("watchFCPRenders")) startFCPQuillon();
  if (QuillonPreferences::isEqualToOne("watchAvidRenders")) startAvidQuillon();
  if (QuillonPreferences::isEqualToOne("watchAMEQueue")) startAMEQueueWatcher();
  if (QuillonPreferences::isEqualToOne("watchPremiereRenders")) startPremiereQuillon();
  if (QuillonPreferences::isNonEmpty("watchFolders")) startFolderWatcher();
}

void AppController::applicationWillTerminate() { stopBugReporter(); }

void AppController::showDockIcon() {
  // An agent on the Linux desktop has no dock presence to change; alerts are
  // raised above other windows by themselves.
}

void AppController::watchPaths(const std::vector<std::string>& paths) {
  MVFSEvents& stream = MVFSEvents::sharedController();
  stream.setDelegate(this);
  stream.addWatchPaths(paths, 1.0);
}

MVPlistValue AppController::objectForPreferenceDictionaryKey(const std::string& key) {
  return QuillonPreferences::objectForPreferenceDictionaryKey(key);
}

void AppController::setObject(const MVPlistValue& value, const std::string& forPreferenceDictionaryKey) {
  QuillonPreferences::setObject(value, forPreferenceDictionaryKey);
}

void AppController::replaceTimer(std::shared_ptr<MVTimer>& field, std::shared_ptr<MVTimer> timer) {
  std::shared_ptr<MVTimer> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    old = std::exchange(field, std::move(timer));
  }
  if (old && old->isValid()) old->invalidate();
}

bool AppController::hasPendingFolderCheck() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return folderTimer_ && folderTimer_->isValid();
}

std::shared_ptr<const MVPlistValue::Array> AppController::currentBatches() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentBatches_;
}

void AppController::setCurrentBatches(MVPlistValue::Array batches) {
  auto value = std::make_shared<const MVPlistValue::Array>(std::move(batches));
  std::lock_guard<std::mutex> lock(mutex_);
  currentBatches_ = std::move(value);
}

std::shared_ptr<const AppController::FolderMap> AppController::currentFolders() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return currentFolders_;
}

void AppController::setCurrentFolders(std::shared_ptr<const FolderMap> folders) {
  if (!folders) folders = std::make_shared<const FolderMap>();
  std::lock_guard<std::mutex> lock(mutex_);
  currentFolders_ = std::move(folders);
}

std::shared_ptr<const AppController::FolderMap> AppController::recentFiles() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return recentFiles_;
}

std::shared_ptr<const std::vector<std::string>> AppController::recentBatches() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return recentBatches_;
}

std::optional<AppController::Date> AppController::lastNotificationShown() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastNotificationShown_;
}

void AppController::setLastNotificationShown(std::optional<Date> date) {
  std::lock_guard<std::mutex> lock(mutex_);
  lastNotificationShown_ = date;
}

std::optional<std::string> AppController::fcpRenderPath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fcpRenderPath_;
}

void AppController::setFcpRenderPath(std::optional<std::string> path) {
  std::lock_guard<std::mutex> lock(mutex_);
  fcpRenderPath_ = std::move(path);
}

std::vector<std::string> AppController::premierePaths() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return premierePaths_;
}

void AppController::setPremierePaths(std::vector<std::string> paths) {
  std::lock_guard<std::mutex> lock(mutex_);
  premierePaths_ = std::move(paths);
}

AppController::Date AppController::now() const {
  std::function<Date()> clock;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    clock = clock_;
  }
  return clock ? clock() : std::chrono::system_clock::now();
}

void AppController::setClockForTesting(std::function<Date()> clock) {
  std::lock_guard<std::mutex> lock(mutex_);
  clock_ = std::move(clock);
}

void AppController::setFrontmostApplicationForTesting(std::function<std::string()> provider) {
  std::lock_guard<std::mutex> lock(mutex_);
  frontmostOverride_ = std::move(provider);
}
