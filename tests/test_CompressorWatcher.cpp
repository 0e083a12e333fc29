// The Compressor batch watcher with fake Qmaster tools (tests/compressor/),
// at Compressor's own paths in an overlay root of a private mount namespace.
#include <sys/stat.h>

#include <atomic>
#include <set>
#include <thread>

#include "MVAlert.h"
#include "MVDistributedNotificationCenter.h"
#include "MVLocalPaths.h"
#include "MVPower.h"
#include "MVPropertyList.h"
#include "PowerAlertServices.h"
#include "PowerTestSupport.h"
#include "WatchTestSupport.h"

using namespace watch_test;
namespace fs = std::filesystem;

namespace {

void installExecutable(const std::string& fixture, const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
  writeFile(path, readFile(std::string(QUILLON_SOURCE_DIR) + "/tests/compressor/" + fixture));
  fs::permissions(path, fs::perms(0755));
}

struct Batch {
  std::string id, name;
  std::optional<std::string> status;  // none: the attribute is missing
  std::vector<std::string> files = {};
};

std::string batchListXML(const std::vector<Batch>& batches) {
  std::string xml = "<?xml version=\"1.0\"?>\n<batchStatusList>\n";
  for (const Batch& b : batches) {
    xml += " <batchStatus batchid=\"" + b.id + "\" name=\"" + b.name + "\" submittedBy=\"editor\"";
    xml += (b.status ? " status=\"" + *b.status + "\">\n" : std::string(">\n"));
    for (const std::string& file : b.files) xml += "  <jobStatus name=\"" + file + "\" percentComplete=\"40\"/>\n";
    xml += " </batchStatus>\n";
  }
  return xml + "</batchStatusList>\n";
}

// What the fake monitor prints next for a cluster.
void setAnswer(const std::string& monitor, const std::string& cluster, const std::string& answer) {
  writeFile(testHome() + "/qmaster/" + monitor + "/" + cluster + ".xml", answer);
}

std::string calls() {
  std::string path = testHome() + "/qmaster/calls.log";
  return fileExists(path) ? readFile(path) : "";
}

std::size_t pollCount() { return timesIn(calls(), "Batch Monitor|-clustername This Computer -query 0.3 -timeout 0.3\n"); }

std::string historyPath(const std::string& version, const std::string& name) {
  return MVLocalPaths::appSupportDirectory(true) + "/Compressor/History/V" + version + "/" + name;
}

// As Compressor writes it: escaped batch XML, two unread items, job progress.
void writeHistory(const std::string& version, const std::string& name, const std::string& xml,
                  std::optional<MVPlistValue::Array> progress, std::chrono::seconds age = std::chrono::seconds(60)) {
  std::string escaped;
  for (char c : xml) escaped += c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  MVPlistValue items{MVPlistValue::Array{escaped}};
  if (progress) {
    MVPlistValue jobs{MVPlistValue::Array{}};
    for (const MVPlistValue& percent : *progress)
      jobs.append(MVPlistValue::Dictionary{{"ElementStatusPercentComplete", percent}});
    for (MVPlistValue item : {MVPlistValue("info"), MVPlistValue(MVPlistValue::Dictionary{}),
                              MVPlistValue(MVPlistValue::Dictionary{{"BatchInfoJobs", jobs}})})
      items.append(item);
  }
  ASSERT_TRUE(MVPropertyList::write(historyPath(version, name), items));
  setAge(historyPath(version, name), age);
}

template <typename Table>
std::set<std::string> ids(const Table& table) {
  std::set<std::string> result;
  for (const auto& entry : table) {
    if constexpr (std::is_same_v<Table, MVPlistValue::Array>)
      result.insert(*entry.string());
    else
      result.insert(entry.first);
  }
  return result;
}

class LoopbackNotifications : public MVDistributedNotificationCenter::Backend {
 public:
  void listen(MVDistributedNotificationCenter::Delivery deliver) override {
    std::lock_guard<std::mutex> lock(mutex_);
    deliver_ = std::move(deliver);
  }
  void postNotification(const std::string& name, const std::string& object,
                        const MVDistributedNotificationCenter::StringMap& userInfo) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto deliver = deliver_)
      MVRunLoop::main().performOnMainThread([=] { deliver(name, object, userInfo); }, false);
  }

 private:
  std::mutex mutex_;
  MVDistributedNotificationCenter::Delivery deliver_;
};

class CompressorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::once_flag log;
    std::call_once(log, [] { MVLog::createNewLog("test_CompressorWatcher", true); });
    fs::remove_all(testHome() + "/qmaster");
    fs::remove_all(MVLocalPaths::appSupportDirectory(true) + "/Compressor");
    previousBus_ = MVDistributedNotificationCenter::setBackend(std::make_shared<LoopbackNotifications>());
    AppController::setObject(0, "notifySound");  // a sound would hold the post-render actions
    AppController::setObject(0, "logoutAction");
    desktop_ = RecordingDesktop::install();
    controller_ = std::make_unique<AppController>();
    since_ = LogSince();
  }
  void TearDown() override {
    if (!controller_) return;
    EXPECT_TRUE(waitUntil([&] { return !controller_->isProcessingQmaster(); }, 30));
    controller_.reset();
    MVDistributedNotificationCenter::setBackend(previousBus_);
  }
  std::string newLog() const { return since_.text(); }
  void post(const std::string& name, const MVPlistValue& userInfo = MVPlistValue::Dictionary{}) {
    MVDistributedNotificationCenter::defaultCenter().postNotification(name, {}, userInfo);
  }
  bool settle() {
    MVRunLoop::main().runFor(0.5);
    return waitUntil([&] { return !controller_->isProcessingQmaster(); }, 20);
  }

  std::shared_ptr<RecordingDesktop> desktop_;
  std::shared_ptr<MVDistributedNotificationCenter::Backend> previousBus_;
  std::unique_ptr<AppController> controller_;
  LogSince since_;
};

TEST_F(CompressorTest, MonitorAnswerBecomesBatchRecords) {
  std::string monitor = makeTempDir("apps") + "/Batch Monitor";
  installExecutable("monitor", monitor);
  setAnswer("Batch Monitor", "Farm Cluster",
            batchListXML({{"B-17", "Trailer%20Final", "Processing", {"/m/a.mov", "", "/m/a.mov", "/m/b.mov"}},
                          {"B-18", "Teaser", "Successful"}}));
  auto table = controller_->qmasterBatchesInCluster("Farm Cluster", monitor);
  ASSERT_TRUE(table);
  ASSERT_EQ(ids(*table), (std::set<std::string>{"B-17", "B-18"}));
  const MVPlistValue& batch = table->at("B-17");
  EXPECT_EQ(*batch["name"].string(), "Trailer%20Final");
  EXPECT_EQ(*batch["submittedBy"].string(), "editor") << "unknown attributes are passed on";
  EXPECT_EQ(batch["files"], MVPlistValue(MVPlistValue::Array{"/m/a.mov", "/m/b.mov"}));
  EXPECT_EQ(calls(), "Batch Monitor|-clustername Farm Cluster -query 0.3 -timeout 0.3\n");

  // Broken markup is repaired where possible; a document without batches is
  // an empty answer, a missing monitor or cluster no answer.
  setAnswer("Batch Monitor", "Farm Cluster",
            "<list><batchStatus batchid=\"B-19\" status=\"Processing\" name=\"Cuts & Co\"><jobStatus name=\"a\"></list>");
  EXPECT_EQ(ids(controller_->qmasterBatchesInCluster("Farm Cluster", monitor).value()), std::set<std::string>{"B-19"});
  setAnswer("Batch Monitor", "Farm Cluster", "<status>all quiet, no batches</status>");
  EXPECT_TRUE(controller_->qmasterBatchesInCluster("Farm Cluster", monitor).value().empty());
  EXPECT_EQ(controller_->qmasterBatchesInCluster("Farm Cluster", monitor + "2"), std::nullopt);
  EXPECT_EQ(controller_->qmasterBatchesInCluster("", monitor), std::nullopt);
}

TEST_F(CompressorTest, MonitorThatTimesOutFallsBackToItsHistory) {
  writeHistory("4", "promo.compressorJobBatch",
               "<batch id=\"H-4\"><jobs>"
               "<job><source fileURL=\"file:///m/promo%20cut.mov\"/></job>"
               "<job><source fileURL=\"file:///m/promo%20cut.mov\"/></job></jobs>"
               "<jobs><job><source fileURL=\"file:///m/other.mov\"/></job></jobs></batch>",
               MVPlistValue::Array{100, 100.0});
  writeHistory("4", "reel.compressorJobBatch", "<batch id=\"H-5\"/>", MVPlistValue::Array{100, "57.5"});
  writeHistory("4", "short.compressorJobBatch", "<batch id=\"H-6\" status=\"Cancelled\"/>", std::nullopt);
  writeHistory("4", "fresh.compressorJobBatch", "<batch id=\"H-7\"/>", MVPlistValue::Array{}, std::chrono::seconds(0));
  writeHistory("4", "notes.plist", "<batch id=\"H-8\"/>", MVPlistValue::Array{});
  writeHistory("3", "legacy.compressorJobBatch", "<batch id=\"H-3\"/>", MVPlistValue::Array{});
  writeFile(historyPath("4", "broken.compressorJobBatch"), "not a property list");
  setAge(historyPath("4", "broken.compressorJobBatch"), std::chrono::seconds(60));

  std::string apps = makeTempDir("apps");
  for (const char* name : {"Share Monitor", "Batch Monitor"}) installExecutable("monitor", apps + "/" + name);
  setAnswer("Share Monitor", "This Computer", "timed out\n");  // 10 bytes: the monitor gave up
  setAnswer("Batch Monitor", "This Computer", "");

  auto table = controller_->qmasterBatchesInCluster("This Computer", apps + "/Share Monitor").value();
  ASSERT_EQ(ids(table), (std::set<std::string>{"H-4", "H-5", "H-6"})) << "a file still being written waits";
  EXPECT_EQ(*table["H-4"]["status"].string(), "Successful");
  EXPECT_EQ(table["H-4"]["files"], MVPlistValue(MVPlistValue::Array{"/m/promo cut.mov"}));
  EXPECT_EQ(*table["H-5"]["status"].string(), "Processing");
  EXPECT_EQ(*table["H-6"]["status"].string(), "Cancelled") << "without progress the attributes decide";

  EXPECT_EQ(ids(controller_->qmasterBatchesInCluster("This Computer", apps + "/Batch Monitor").value()),
            std::set<std::string>{"H-3"});
  setAge(historyPath("4", "fresh.compressorJobBatch"), std::chrono::seconds(3));
  EXPECT_EQ(controller_->qmasterBatchesInCluster("This Computer", apps + "/Share Monitor")->count("H-7"), 1u);
}

class CompressorWatcherTest : public CompressorTest {
 protected:
  static void SetUpTestSuite() {
    if (!sandboxProblem().empty()) return;
    installExecutable("qmasterprefs", "/usr/sbin/qmasterprefs");
    writeBundle("/Applications/Batch Monitor.app", "com.apple.BatchMonitor");
    installExecutable("monitor", "/Applications/Batch Monitor.app/Contents/MacOS/Batch Monitor");
    const std::string kit = "/Applications/Compressor.app/Contents/PlugIns/Compressor/CompressorKit.bundle/Contents";
    writeBundle("/Applications/Compressor.app", "com.apple.Compressor");
    installExecutable("monitor", kit + "/EmbeddedApps/Share Monitor.app/Contents/MacOS/Share Monitor");
    installExecutable("qmasterprefs", kit + "/Frameworks/Qmaster.framework/Resources/qmasterprefs");
    writeBundle("/Applications/Morvane/Compressor.app", "com.morvane.CompressorHelper");  // same name, other app
  }

  void SetUp() override {
    if (!sandboxProblem().empty()) GTEST_SKIP() << "no private mount namespace: " << sandboxProblem();
    CompressorTest::SetUp();
  }

  static void writeBundle(const std::string& bundle, const std::string& identifier) {
    ASSERT_TRUE(MVPropertyList::write(bundle + "/Contents/Info.plist",
                                      MVPlistValue::Dictionary{{"CFBundleIdentifier", identifier}}));
  }

  // /tmp (the test home, log and answers) and the kernel's file systems stay shared.
  static const std::string& sandboxProblem() {
    static const std::string problem = []() -> std::string {
      if (std::string problem = enterPrivateMountNamespace(); !problem.empty()) return problem;
      bool made = mount("tmpfs", "/srv", "tmpfs", 0, "mode=755") == 0;
      for (const char* dir : {"/srv/upper", "/srv/work", "/srv/root"}) made = made && mkdir(dir, 0755) == 0;
      made = made && mount("overlay", "/srv/root", "overlay", 0, "lowerdir=/,upperdir=/srv/upper,workdir=/srv/work") == 0;
      for (std::string dir : {"/dev", "/proc", "/sys", "/tmp", "/run"})
        made = made && mount(dir.c_str(), ("/srv/root" + dir).c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
      if (!made || chdir("/srv/root") != 0 || chroot(".") != 0 || chdir("/") != 0)
        return std::string("overlay root: ") + std::strerror(errno);
      return {};
    }();
    return problem;
  }
};

TEST_F(CompressorWatcherTest, FindsTheQmasterToolsAndMergesBothMonitors) {
  // Both qmasterprefs list the same clusters; each is asked as often as listed.
  EXPECT_EQ(controller_->qmasterClusters(), (std::vector<std::string>{"This Computer", "Render Farm Cluster",
                                                                      "Edit Bay Cluster", "Render Farm Cluster",
                                                                      "Edit Bay Cluster"}));

  setAnswer("Batch Monitor", "Edit Bay Cluster", batchListXML({{"E-1", "Edit", "Processing"}, {"E-2", "BM", "Paused"}}));
  setAnswer("Share Monitor", "Edit Bay Cluster", batchListXML({{"E-1", "Edit", "Successful"}}));
  auto all = controller_->qmasterBatches();
  EXPECT_EQ(all.size(), 3u);
  ASSERT_EQ(ids(all["Edit Bay Cluster"]), (std::set<std::string>{"E-1", "E-2"}));
  EXPECT_EQ(*all["Edit Bay Cluster"]["E-1"]["status"].string(), "Successful") << "Share Monitor's answer wins";
  auto single = controller_->qmasterBatchWithID("E-1", "Edit Bay Cluster");
  ASSERT_TRUE(single);
  EXPECT_EQ(*(*single)["status"].string(), "Processing") << "the single query asks Batch Monitor first";
  EXPECT_NE(calls().find("Batch Monitor|-clustername Edit Bay Cluster -batchid E-1 -query 0.3"), std::string::npos);
}

TEST_F(CompressorWatcherTest, ReportsEachBatchSeenRunningExactlyOnce) {
  auto answer = [](std::string a, std::string b, std::optional<std::string> c, std::string e, std::string f) {
    setAnswer("Batch Monitor", "This Computer",
              batchListXML({{"A", "Trailer%20Final", a, {"/m/trailer.mov"}}, {"B", "Dailies", b}, {"C", "Archive", c},
                            {"D", "Old", "Successful"}, {"E", "Stills", e}, {"G", "Paused", "Processing"}}));
    setAnswer("Share Monitor", "Render Farm Cluster", batchListXML({{"F", "Farm", f}}));
  };
  answer("Processing", "Processing", "Processing", "Processing", "Processing");
  controller_->startCompressorWatcher();
  EXPECT_EQ(ids(*controller_->currentBatches()), (std::set<std::string>{"A", "B", "C", "E", "F", "G"}));

  answer("Successful", "Error: disk full", std::nullopt, "Cancelled", "Encoding Failed");
  post("JCBatchFinishedNotification", MVPlistValue::Dictionary{{"batchID", "A"}});
  ASSERT_TRUE(waitUntil([&] { return controller_->currentBatches()->size() == 1; }, 20));
  EXPECT_EQ(ids(*controller_->currentBatches()), std::set<std::string>{"G"});
  ASSERT_TRUE(settle());
  // D was never seen running; C's status vanished.
  EXPECT_EQ(timesIn(newLog(), "Render finished: "), 1u);
  EXPECT_EQ(timesIn(newLog(), "Render failed: "), 4u);

  // A second start does not double the subscriptions, and the same answer
  // reports nothing again.
  controller_->startCompressorWatcher();
  std::size_t polls = pollCount();
  post("JCBatchSubmittedNotification");
  ASSERT_TRUE(waitUntil([&] { return pollCount() == polls + 1; }, 20));
  ASSERT_TRUE(settle());
  EXPECT_EQ(pollCount(), polls + 1);
  EXPECT_EQ(timesIn(newLog(), "Render finished: "), 1u);
  EXPECT_EQ(timesIn(newLog(), "Render failed: "), 4u);
}

TEST_F(CompressorWatcherTest, RechecksARunningBatchUntilItFinishes) {
  setAnswer("Share Monitor", "This Computer", batchListXML({{"N-1", "Nightly%20Export", "Processing"}}));
  controller_->startCompressorWatcher();
  // No notification follows: only the 15-second re-check can notice.
  setAnswer("Share Monitor", "This Computer", batchListXML({{"N-1", "Nightly%20Export", "Successful"}}));
  ASSERT_TRUE(waitUntil([&] { return !desktop_->notifications().empty(); }, 25));
  EXPECT_EQ(desktop_->notifications(), std::vector<std::string>{"Render Complete|Batch: Nightly Export"});
  EXPECT_TRUE(controller_->currentBatches()->empty());
}

// Alerts answered at once with the default button, as a countdown that ran out.
class AnsweringAlerts : public MVAlert::Backend {
 public:
  struct Shown : MVAlert::Backend::Shown {
    bool isVisible() const override { return false; }
    void orderOut() override {}
  };
  std::shared_ptr<MVAlert::Backend::Shown> show(const MVAlert::Request&,
                                                std::function<void(MVAlert::ReturnCode)> ended) override {
    ++shown;
    MVRunLoop::main().performOnMainThread([ended] { ended(MVAlert::kDefaultReturn); }, false);
    return std::make_shared<Shown>();
  }
  bool hasAttachedSheet(MVWindowRef) override { return false; }
  void makeKeyAndOrderFront(MVWindowRef) override {}
  std::atomic<int> shown{0};
};

// A batch submitted while a poll still waits for its monitors holds the power
// action back. Power requests go to a mocked logind on a private system bus.
TEST_F(CompressorWatcherTest, ABatchSubmittedDuringAPollHoldsThePowerActionBack) {
  power_test::PrivateBus systemBus(power_test::kScripts + "/system-bus.sh");
  ASSERT_TRUE(systemBus.running());
  setenv("DBUS_SYSTEM_BUS_ADDRESS", systemBus.address().c_str(), 1);  // never restored: no test may reach the real one
  power_test::MockService logind(systemBus, "--system", "logind", "org.freedesktop.login1", "/org/freedesktop/login1");
  ASSERT_TRUE(logind.started() && logind.clearCalls()) << "no mocked logind: the power action must not be tried";
  auto previousPower = MVPower::setBackend(quillon::createLogindPowerBackend());
  auto alerts = std::make_shared<AnsweringAlerts>();
  auto previousAlerts = MVAlert::setBackend(alerts);
  AppController::setObject(3, "logoutAction");

  setAnswer("Batch Monitor", "This Computer", batchListXML({}));
  writeFile(testHome() + "/qmaster/hold", "");
  std::thread poll([&] { controller_->processQmaster(); });
  ASSERT_TRUE(waitUntil([] { return pollCount() == 1; }, 20));  // that poll has its (empty) answer
  setAnswer("Batch Monitor", "This Computer", batchListXML({{"S-1", "Submitted", "Processing"}}));

  std::atomic<bool> done{false};
  std::thread actions([&] {
    controller_->performPostRenderActions();
    done = true;
  });
  // Past the actions' 2-second pause, the old poll is let go.
  MVRunLoop::main().runFor(4);
  fs::remove(testHome() + "/qmaster/hold");
  EXPECT_TRUE(waitUntil([&] { return done.load(); }, 60));
  actions.join();
  poll.join();

  EXPECT_EQ(ids(*controller_->currentBatches()), std::set<std::string>{"S-1"});
  EXPECT_EQ(alerts->shown, 0);
  EXPECT_TRUE(logind.callsTo("PowerOff").empty());
  AppController::setObject(0, "logoutAction");
  MVAlert::setBackend(previousAlerts);
  MVPower::setBackend(previousPower);
}

}  // namespace
