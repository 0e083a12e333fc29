// AppController: the one controller of the agent.
//
// It owns the bookkeeping of what was already announced, routes file-system
// event batches to the folder check, turns finished renders into the user's
// chosen actions, and (re)starts the enabled watchers from the settings.
//
// Threads: set-up, event batches and timers run on the main thread. The
// outcome handlers also run on worker threads (the post-render actions and
// the Compressor re-check), so every field that both sides touch is either
// atomic or a whole collection swapped under a mutex: readers always see an
// old or a new collection, never one being edited.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "MVFSEvents.h"
#include "MVNotificationCenter.h"
#include "MVPlistValue.h"
#include "MVRunLoop.h"

class AppController : public MVFSEventsDelegate {
 public:
  using Date = std::chrono::system_clock::time_point;
  using FolderMap = std::map<std::string, Date>;
  using RenderDescription = MVPlistValue;  // a dictionary

  // The one controller of the process, created by the application delegate.
  static AppController& sharedController();
  static bool hasSharedController();

  AppController();
  ~AppController() override;
  AppController(const AppController&) = delete;
  AppController& operator=(const AppController&) = delete;

  // Start-up: crash detection, a new log, subscriptions, the clean-up timer.
  void init();
  // Drops all file-system watching and starts each watcher the settings enable.
  void setup();
  void applicationWillTerminate();
  void showDockIcon();

  // Watcher starters called by setup.
  void startCompressorWatcher();
  void startFCPQuillon();
  void startAvidQuillon();
  void startAMEQueueWatcher();
  void startPremiereQuillon();
  void startFolderWatcher();
  void diskMounted(const MVPlistValue& userInfo);
  void diskUnmounted(const MVPlistValue& userInfo);

  // Settings (read from disk at every call).
  static MVPlistValue objectForPreferenceDictionaryKey(const std::string& key);
  static void setObject(const MVPlistValue& value, const std::string& forPreferenceDictionaryKey);

  // Bookkeeping.
  bool isFileRepeated(const std::string& path);
  void tidyRecentFiles();
  void addRecentBatch(const std::string& batchID);
  void recordRecentFile(const std::string& path);
  int cpuUsageForApplication(const std::string& applicationName);
  static std::string stripNonNumerals(const std::string& text);
  static bool isNumeric(const std::string& text);

  // Watch folders and event routing.
  void fileSystemEventsReceived(const MVPlistValue::Array& events) override;
  void processFolders();
  std::optional<std::string> latestFileInFolder(const std::string& folder);
  bool pathIsPremierePreviewLocation(const std::string& path);

  // Outcome dispatch.
  void renderDidFinishSuccessfully(const RenderDescription& render);
  void renderDidFail(const RenderDescription& render);
  void waitForAsyncJobs() { waitForAsyncJobsWithTimeout(0); }
  void waitForAsyncJobsWithTimeout(double seconds);
  void soundDidFinishPlaying();

  // Post-render power actions.
  void performPostRenderActions();
  void sleepComputer();
  void shutdownComputer();
  void logOutUser();

  // Mail (subject and body from the message table).
  void sendEmail(const RenderDescription& render, bool success);
  void sendTextMessage(const RenderDescription& render, bool success);
  static std::string computerName();
  struct Message {
    std::string subject;
    std::string emailBody;
    std::string textBody;
  };
  static Message messageForRender(const RenderDescription& render, bool success);

  // Compressor.
  void processQmaster();
  std::string qmasterSpoolPath();
  std::string qmaster4SpoolPath();

  // Accessors of the shared state.
  std::int64_t asyncJobs() const { return asyncJobs_.load(); }
  void setAsyncJobs(std::int64_t value) { asyncJobs_.store(value); }
  void incrementAsyncJobs() { ++asyncJobs_; }
  void decrementAsyncJobs() { --asyncJobs_; }
  bool processingFolder() const { return processingFolder_.load(); }
  std::shared_ptr<const MVPlistValue::Array> currentBatches() const;
  void setCurrentBatches(MVPlistValue::Array batches);
  std::shared_ptr<const FolderMap> currentFolders() const;
  void setCurrentFolders(std::shared_ptr<const FolderMap> folders);
  std::shared_ptr<const FolderMap> recentFiles() const;
  std::shared_ptr<const std::vector<std::string>> recentBatches() const;
  std::optional<Date> lastNotificationShown() const;
  void setLastNotificationShown(std::optional<Date> date);
  std::optional<std::string> fcpRenderPath() const;
  void setFcpRenderPath(std::optional<std::string> path);
  std::vector<std::string> premierePaths() const;
  void setPremierePaths(std::vector<std::string> paths);
  bool hasPendingFolderCheck() const;

  // Time source; tests replace it to step over the 5-, 60- and 600-second rules.
  Date now() const;
  void setClockForTesting(std::function<Date()> clock);
  // The 3-second size test blocks the main thread; tests may shorten it.
  void setSizeSettleSecondsForTesting(double seconds) { sizeSettleSeconds_ = seconds; }
  // Overrides the frontmost application's name; empty function = ask the desktop.
  void setFrontmostApplicationForTesting(std::function<std::string()> provider);

 private:
  void startBugReporter();
  void stopBugReporter();
  void subscribeToVolumeNotifications();
  std::string frontmostApplicationName() const;
  void replaceTimer(std::shared_ptr<MVTimer>& field, std::shared_ptr<MVTimer> timer);
  void watchPaths(const std::vector<std::string>& paths);
  std::string iconForRender(const std::string& type, const std::string& fullPath) const;

  std::atomic<std::int64_t> asyncJobs_{0};
  std::atomic<bool> processingFolder_{false};
  std::optional<Date> lastQmasterUpdate_;
  mutable std::mutex mutex_;  // guards the swaps of the fields below
  std::shared_ptr<const MVPlistValue::Array> currentBatches_;
  std::shared_ptr<const FolderMap> recentFiles_;
  std::shared_ptr<const FolderMap> currentFolders_;
  std::shared_ptr<MVTimer> folderTimer_;
  std::optional<std::string> fcpRenderPath_;
  std::shared_ptr<const std::vector<std::string>> recentBatches_;
  std::optional<Date> lastNotificationShown_;
  std::shared_ptr<MVTimer> qmasterTimer_;
  std::optional<Date> lastFCPRenderPathUpdate_;
  std::vector<std::string> premierePaths_;
  std::shared_ptr<MVTimer> premierePathRefreshTimer_;
  std::shared_ptr<MVTimer> cleanupTimer_;

  std::optional<std::string> qmasterSpoolPath_;
  std::optional<std::string> qmaster4SpoolPath_;
  std::vector<MVObserverToken> subscriptions_;
  std::function<Date()> clock_;
  std::function<std::string()> frontmostOverride_;
  double sizeSettleSeconds_ = 3.0;
};
