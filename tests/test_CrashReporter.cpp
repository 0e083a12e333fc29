// Crash detection: the markers, the search for the crash log and the offer
// to open it, in process and with the real agent killed by a fatal signal.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "AgentProcess.h"
#include "MVBugReporter.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVWorkspace.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace quillon_test;

namespace {

// Records what the reporter asks the desktop to open.
class RecordingWorkspace : public MVWorkspace::Backend {
 public:
  bool openFile(const std::string& path) override {
    std::lock_guard<std::mutex> lock(mutex_);
    opened_.push_back(path);
    return true;
  }
  bool openFile(const std::string& path, const std::string& application) override {
    std::lock_guard<std::mutex> lock(mutex_);
    opened_.push_back(path + " with " + application);
    return true;
  }
  std::vector<std::string> opened() {
    std::lock_guard<std::mutex> lock(mutex_);
    return opened_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> opened_;
};

class CrashReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    workspace_ = std::make_shared<RecordingWorkspace>();
    previous_ = MVWorkspace::setBackend(workspace_);
    markers_ = makeTempDir("markers") + "/markers.plist";
    reports_ = MVAppendPathComponent(MVLocalPaths::logDirectory(true), "DiagnosticReports");
    fs::remove_all(reports_);
    fs::create_directories(reports_);
    fs::remove(MVGlobalPreferences::path());
  }
  void TearDown() override { MVWorkspace::setBackend(previous_); }

  // A crash log written `age` seconds ago.
  std::string crashLog(const std::string& name, int age) {
    std::string path = reports_ + "/" + name;
    writeFile(path, "Exception Type: signal 11 (SIGSEGV)\n");
    if (age == 0) return path;
    struct utimbuf times {};
    times.actime = times.modtime = time(nullptr) - age;
    utime(path.c_str(), &times);
    return path;
  }

  void setLaunchMarker(int age, std::optional<int> exitAge) {
    MVPlistValue markers;
    markers.set("launch", std::chrono::system_clock::now() - std::chrono::seconds(age));
    if (exitAge) markers.set("exit", std::chrono::system_clock::now() - std::chrono::seconds(*exitAge));
    ASSERT_TRUE(MVPropertyList::write(markers_, markers));
  }

  std::shared_ptr<RecordingWorkspace> workspace_;
  std::shared_ptr<MVWorkspace::Backend> previous_;
  std::string markers_;
  std::string reports_;
};

}  // namespace

TEST_F(CrashReporterTest, MarkersDecideWhetherTheLastRunCrashed) {
  // First run: nothing to check, then the launch is recorded.
  EXPECT_FALSE(MVBugReporter::checkForCrashes("Quillon", markers_));
  MVBugReporter::startBugReporter("Quillon", markers_);
  auto launch = MVPropertyList::read(markers_)["launch"].date();
  ASSERT_TRUE(launch);

  // A crash log newer than that launch: the run crashed. A crash within a
  // few milliseconds of the launch leaves a log that the file system's
  // coarse clock stamps a little earlier; it counts too.
  std::string early = crashLog("Quillon_2026-11-23-101010_host.crash", 0);
  const auto stamp = std::chrono::duration_cast<std::chrono::nanoseconds>(
      (*launch - std::chrono::milliseconds(5)).time_since_epoch());
  const timespec times[2] = {{static_cast<time_t>(stamp.count() / 1000000000), static_cast<long>(stamp.count() % 1000000000)},
                             {static_cast<time_t>(stamp.count() / 1000000000), static_cast<long>(stamp.count() % 1000000000)}};
  ASSERT_EQ(utimensat(AT_FDCWD, early.c_str(), times, 0), 0);
  EXPECT_EQ(MVBugReporter::checkForCrashes("Quillon", markers_), early);

  // ...unless it ended cleanly: an exit at or after the launch wins.
  MVBugReporter::stopBugReporter(markers_);
  EXPECT_FALSE(MVBugReporter::checkForCrashes("Quillon", markers_));
  MVPlistValue same = MVPropertyList::read(markers_);
  same.set("exit", *same["launch"].date());
  ASSERT_TRUE(MVPropertyList::write(markers_, same));
  EXPECT_FALSE(MVBugReporter::checkForCrashes("Quillon", markers_));
}

// A stop and a start within one second, as a service manager's restart does,
// and then a crash: the exit must still count as earlier than that launch.
TEST_F(CrashReporterTest, ACrashRightAfterAQuickRestartIsReported) {
  // Early in a second, so that the stop and the start share it.
  auto now = std::chrono::system_clock::now();
  std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(now) + std::chrono::milliseconds(50));
  MVBugReporter::startBugReporter("Quillon", markers_);
  MVBugReporter::stopBugReporter(markers_);
  MVBugReporter::startBugReporter("Quillon", markers_);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::string path = crashLog("Quillon_2026-11-23-101010_host.crash", 0);
  EXPECT_EQ(MVBugReporter::checkForCrashes("Quillon", markers_), path);
}

// Each crash adds a log; the next start must offer that one, whatever order
// the folder lists its entries in.
TEST_F(CrashReporterTest, TenSuccessiveCrashesAreEachReportedOnce) {
  std::vector<std::string> written;
  for (int crash = 0; crash <= 10; ++crash) {
    MVBugReporter::startBugReporter("Quillon", markers_);
    if (crash == 10) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // The last five within one second, numbered as the crash handler does.
    std::string name = "Quillon_2026-11-23-1010" + std::to_string(10 + std::min(crash, 5)) + "_host" +
                       (crash > 5 ? "_" + std::to_string(crash - 4) : "") + ".crash";
    written.push_back(crashLog(name, 0));
  }
  EXPECT_EQ(workspace_->opened(), written);
}

// Only the ten newest of the agent's own logs stay; nothing else is touched.
TEST_F(CrashReporterTest, OldCrashLogsOfTheAgentArePruned) {
  // One from the day before, then twelve from one second, as the crash
  // handler numbers them: "_host.crash", "_host_2.crash" ... "_host_12.crash".
  std::vector<std::string> own = {crashLog("Quillon_2026-10-01-120000_host.crash", 3600)};
  for (int n = 1; n <= 12; ++n)
    own.push_back(crashLog("Quillon_2026-10-02-120000_host" + (n > 1 ? "_" + std::to_string(n) : "") + ".crash", 3600));
  const std::vector<std::string> others = {
      crashLog("Quillon_2020-01-01-000000_host.txt", 3600),      // not a crash log
      crashLog("QUILLON_2020-01-01-000000_host.crash", 3600),    // another program's spelling
      crashLog("QuillonHelper_2020-01-01-000000_host.crash", 3600),
      crashLog("Quillon_notes.crash", 3600),                     // not named by the crash handler
  };
  fs::create_directory(reports_ + "/Quillon_2020-01-01-000000_folder.crash");
  MVBugReporter::startBugReporter("Quillon", markers_);
  for (std::size_t k = 0; k < own.size(); ++k) EXPECT_EQ(fileExists(own[k]), k >= 3) << own[k];
  for (const std::string& path : others) EXPECT_TRUE(fileExists(path)) << path;
  EXPECT_TRUE(fs::is_directory(reports_ + "/Quillon_2020-01-01-000000_folder.crash"));
}

TEST_F(CrashReporterTest, FindsTheApplicationsNewCrashLogWhateverItsCase) {
  struct Case {
    const char* file;
    int age;
    bool found;
  } cases[] = {
      {"quillon_2026-11-23-101010_host.crash", 0, true},   // other letter case
      {"QUILLON_x.crash", 0, true},
      {"Quillon-2026-11-23.crash", 0, false},             // no "_" after the name
      {"QuillonHelper_x.crash", 0, false},                // another application
      {"Quillon_old.crash", 3600, false},                 // older than the launch
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    fs::remove_all(reports_);
    fs::create_directories(reports_);
    setLaunchMarker(60, std::nullopt);
    std::string path = crashLog(c.file, c.age);
    auto found = MVBugReporter::checkForCrashes("Quillon", markers_);
    EXPECT_EQ(found.has_value(), c.found);
    if (c.found) {
      EXPECT_EQ(*found, path);
      ASSERT_FALSE(workspace_->opened().empty());
      EXPECT_EQ(workspace_->opened().back(), path);  // no reporter shipped: the default application
    }
  }
}

TEST_F(CrashReporterTest, TheSwitchLogsButOpensNothing) {
  MVLog::createNewLog("crash-switch");
  for (MVPlistValue value : {MVPlistValue(1), MVPlistValue("1"), MVPlistValue(true)}) {
    MVPlistValue global;
    global.set("disable-crash-reporter", value);
    ASSERT_TRUE(MVPropertyList::write(MVGlobalPreferences::path(), global));
    setLaunchMarker(60, std::nullopt);
    std::string path = crashLog("Quillon_switch.crash", 0);
    EXPECT_EQ(MVBugReporter::checkForCrashes("Quillon", markers_), path);
  }
  EXPECT_TRUE(workspace_->opened().empty());
  MVLog::finishWriting();
  std::string log = readFile(MVLog::sharedController().currentLogPath());
  EXPECT_NE(log.find("Application crashed on last launch"), std::string::npos);
  EXPECT_NE(log.find("Crash reporter disabled"), std::string::npos);
}

// The agent killed by a fatal signal writes its own crash log; the next
// start finds it and offers it, once, to the bug reporter installed on the
// desktop, or without one to the desktop's default application.
TEST(CrashReporterAgent, AFatalSignalIsNoticedAtTheNextStart) {
  for (auto [signo, reporterInstalled] : {std::pair{SIGSEGV, false}, std::pair{SIGABRT, true}}) {
    SCOPED_TRACE(signo);
    std::string home = makeTempDir("crash-home");
    auto installRecorder = [&](const std::string& entry, const std::string& record) {
      std::string script = home + "/" + entry + ".sh";
      writeFile(script, "#!/bin/sh\necho \"$1\" >> '" + record + "'\n");
      chmod(script.c_str(), 0755);
      writeFile(home + "/.local/share/applications/" + entry + ".desktop",
                "[Desktop Entry]\nType=Application\nName=" + entry + "\nExec=" + script + " %f\n");
    };
    std::string viewed = home + "/viewed.txt";
    installRecorder("quillon-crash-viewer", viewed);
    std::string reported = home + "/reported.txt";
    if (reporterInstalled) installRecorder("com.morvane.BugReporter", reported);
    const std::string opened = reporterInstalled ? reported : viewed;
    std::string defaults = "[Default Applications]\n";
    for (const char* type : {"text/plain", "text/x-apport", "application/octet-stream", "application/x-crash-report"})
      defaults += std::string(type) + "=quillon-crash-viewer.desktop\n";
    writeFile(home + "/.config/mimeapps.list", defaults);

    // Both runs share one log folder, as on a real machine: the crash is
    // noticed while the new log is being created, so its line may land in
    // either of the two newest generations.
    std::string logs = makeTempDir("crash-logs");
    {
      Agent first(home, {}, logs);
      ASSERT_TRUE(first.started());
      ASSERT_TRUE(first.waitForLog("Setting up...", 1, 20)) << first.output();
      int status = first.stop(signo);
      ASSERT_TRUE(WIFSIGNALED(status)) << status;
      EXPECT_EQ(WTERMSIG(status), signo);
    }
    std::vector<std::string> crashLogs;
    for (const auto& entry : fs::directory_iterator(home + "/.local/state/DiagnosticReports"))
      crashLogs.push_back(entry.path().string());
    ASSERT_EQ(crashLogs.size(), 1u);
    EXPECT_EQ(crashLogs[0].find(home + "/.local/state/DiagnosticReports/quillon-helper_"), 0u);
    std::string report = readFile(crashLogs[0]);
    EXPECT_NE(report.find("Backtrace:"), std::string::npos);

    {
      Agent second(home, {}, logs);
      ASSERT_TRUE(second.waitForLog("Setting up...", 1, 20)) << second.output();
      EXPECT_TRUE(waitUntil([&] { return fileExists(opened); }, 30)) << second.log() << second.output();
      EXPECT_EQ(second.stop(SIGTERM), 0);
    }
    // (As root the older generations rotate into the user's own log folder.)
    EXPECT_EQ(countIn(readFile(logs + "/quillon-helper.1.log") +
                          readFile(home + "/.local/state/Morvane/quillon-helper.2.log"),
                      "Application crashed on last launch"),
              1u);
    EXPECT_NE(readFile(opened).find(crashLogs[0]), std::string::npos);

    // A clean stop followed by a start reports nothing, and the old crash log
    // is not offered again.
    Agent third(home, {}, logs);
    ASSERT_TRUE(third.waitForLog("Setting up...", 1, 20));
    MVRunLoop::main().runFor(1.0);
    EXPECT_EQ(third.stop(SIGTERM), 0);
    EXPECT_EQ(third.logCount("Application crashed on last launch"), 0u);
    EXPECT_EQ(countIn(readFile(opened), "\n"), 1u);
    if (reporterInstalled) {
      EXPECT_FALSE(fileExists(viewed));
    }
  }
}
