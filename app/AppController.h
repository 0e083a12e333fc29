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
#include "PushTargets.h"
#include "SKPSMTPMessage.h"

class AppController : public MVFSEventsDelegate, public SKPSMTPMessageDelegate {
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
  // True when `path` was already announced as it is now; otherwise records it.
  bool isFileRepeatedElseRecord(const std::string& path);
  // False when the batch was already announced; otherwise records it.
  bool recordBatchUnlessAnnounced(const std::string& batchID);
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
  void messageSent(const std::shared_ptr<SKPSMTPMessage>& message) override;
  void messageFailed(const std::shared_ptr<SKPSMTPMessage>& message, const SKPSMTPError& error) override;
  static std::string computerName();
  struct Message {
    std::string subject;
    std::string emailBody;
    std::string textBody;
  };
  static Message messageForRender(const RenderDescription& render, bool success);

  // Push notifications to every target of "pushTargets", sent from a thread
  // of their own; one job in asyncJobs until all targets have answered.
  void sendPush(const RenderDescription& render, bool success);
  static PushMessage pushMessageForRender(const RenderDescription& render, bool success);

  // Compressor.
  void processQmaster();
  // Returns once a poll that began after this call has ended, so that
  // currentBatches() includes a batch submitted while another poll ran.
  void updateCurrentBatches();
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
  std::shared_ptr<SKPSMTPMessage> newMailMessage();
  void releaseMailMessage(const std::shared_ptr<SKPSMTPMessage>& message);

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
  // Messages in flight; each stays alive until its delegate callback.
  std::vector<std::shared_ptr<SKPSMTPMessage>> mailInFlight_;
  std::function<Date()> clock_;
  std::function<std::string()> frontmostOverride_;
  double sizeSettleSeconds_ = 3.0;

  // Folders looked at again later, outside the event debounce: a writer still
  // held the file, or a frame sequence had not yet been quiet long enough.
  // Main thread only.
  void checkFolders(const std::vector<std::string>& folders);
  void scheduleFolderRecheck(const std::string& folder, double seconds);
  void recheckFolders();
  std::map<std::string, std::chrono::steady_clock::time_point> folderRechecks_;
  std::shared_ptr<MVTimer> folderRecheckTimer_;
  // Frame sequences announced: newest frame -> its date. Kept apart from
  // recentFiles, whose entries last 60 s, since a sequence may wait longer.
  std::map<std::string, Date> announcedSequences_;

  // watchers: Avid/FCP/Premiere
 public:
  // True while the repeating refresh of the Premiere preview folders is armed.
  bool premierePathRefreshIsScheduled() const;

 private:
  // Reads the Premiere preview folders again (fired by the refresh timer);
  // ends the timer once "watchPremiereRenders" is off.
  void refreshPremierePaths();

  // Compressor watcher
 public:
  using BatchTable = std::map<std::string, MVPlistValue>;    // batch ID -> batch record
  using ClusterBatches = std::map<std::string, BatchTable>;  // cluster name -> its batches
  ClusterBatches qmasterBatches();
  std::vector<std::string> qmasterClusters();
  std::optional<std::vector<std::string>> qmasterClusters(const std::string& toolPath);
  BatchTable qmasterBatchesInCluster(const std::string& cluster);
  std::optional<BatchTable> qmasterBatchesInCluster(const std::string& cluster, const std::string& applicationPath);
  std::optional<MVPlistValue> qmasterBatchWithID(const std::string& batchID, const std::string& cluster);
  std::optional<MVPlistValue> qmasterBatchWithID(const std::string& batchID, const std::string& cluster,
                                                 const std::string& applicationPath);
  MVPlistValue::Array qmasterBatchesFromHistory(const std::string& version);
  void qmasterAdUpdate(const MVPlistValue& userInfo);
  void qmasterBatchSubmitted(const MVPlistValue& userInfo);
  void qmasterBatchFinished(const MVPlistValue& userInfo);
  static std::optional<std::string> pathForAppWithBundleID(const std::string& bundleID);
  static std::optional<std::string> pathForBundleID(const std::string& bundleID, const std::string& inFolder);
  // True while a poll runs or a background thread of the watcher is still busy.
  bool isProcessingQmaster() const;

 private:
  void detachQmasterWorker(std::function<void()> work);
  std::vector<MVObserverToken> compressorSubscriptions_;
  bool qmasterPolling_ = false;        // guarded by mutex_
  bool qmasterPollRequested_ = false;  // guarded by mutex_
  std::uint64_t qmasterPassesBegun_ = 0;  // guarded by mutex_
  std::uint64_t qmasterPassesEnded_ = 0;  // guarded by mutex_
  int qmasterWorkers_ = 0;             // guarded by mutex_
};
