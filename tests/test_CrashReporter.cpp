// Crash detection: markers, the crash log's search and offer, in process and with the real agent.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "AgentProcess.h"
#include "MVBugReporter.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "RecordingDesktop.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace quillon_test;
using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

namespace {

class CrashReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    markers_ = makeTempDir("markers") + "/markers.plist";
    reports_ = MVAppendPathComponent(MVLocalPaths::logDirectory(true), "DiagnosticReports");
    fs::remove_all(reports_);
    fs::create_directories(reports_);
    fs::remove(MVGlobalPreferences::path());
  }

  // A crash log written now, or stamped with the time `written`.
  std::string crashLog(const std::string& name, std::optional<Clock::time_point> written = std::nullopt) {
    std::string path = reports_ + "/" + name;
    writeFile(path, "Exception Type: signal 11 (SIGSEGV)\n");
    if (written) fs::last_write_time(path, fs::file_time_type::clock::from_sys(*written));
    return path;
  }
  std::string oldCrashLog(const std::string& name) { return crashLog(name, Clock::now() - 1h); }

  RecordingDesktop::Installed desktop_;
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
  std::string early = crashLog("Quillon_2026-11-23-101010_host.crash", *launch - 5ms);
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
  std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(Clock::now()) + 50ms);
  MVBugReporter::startBugReporter("Quillon", markers_);
  MVBugReporter::stopBugReporter(markers_);
  MVBugReporter::startBugReporter("Quillon", markers_);
  std::this_thread::sleep_for(20ms);
  std::string path = crashLog("Quillon_2026-11-23-101010_host.crash");
  EXPECT_EQ(MVBugReporter::checkForCrashes("Quillon", markers_), path);
}

// Each crash adds a log; the next start must offer that one, whatever order
// the folder lists its entries in.
TEST_F(CrashReporterTest, TenSuccessiveCrashesAreEachReportedOnce) {
  std::vector<std::string> written;
  for (int crash = 0; crash <= 10; ++crash) {
    MVBugReporter::startBugReporter("Quillon", markers_);
    if (crash == 10) break;
    std::this_thread::sleep_for(20ms);
    // The last five within one second, numbered as the crash handler does.
    std::string name = "Quillon_2026-11-23-1010" + std::to_string(10 + std::min(crash, 5)) + "_host" +
                       (crash > 5 ? "_" + std::to_string(crash - 4) : "") + ".crash";
    written.push_back("open:" + crashLog(name));
  }
  EXPECT_EQ(desktop_->take(), written);
}

// Only the ten newest of the agent's own logs stay; nothing else is touched.
TEST_F(CrashReporterTest, OldCrashLogsOfTheAgentArePruned) {
  // One from the day before, then twelve from one second, numbered as the crash handler does.
  std::vector<std::string> own = {oldCrashLog("Quillon_2026-10-01-120000_host.crash")};
  for (int n = 1; n <= 12; ++n)
    own.push_back(oldCrashLog("Quillon_2026-10-02-120000_host" + (n > 1 ? "_" + std::to_string(n) : "") + ".crash"));
  const std::vector<std::string> others = {
      oldCrashLog("Quillon_2020-01-01-000000_host.txt"),      // not a crash log
      oldCrashLog("QUILLON_2020-01-01-000000_host.crash"),    // another program's spelling
      oldCrashLog("QuillonHelper_2020-01-01-000000_host.crash"),
      oldCrashLog("Quillon_notes.crash"),                     // not named by the crash handler
  };
  fs::create_directory(reports_ + "/Quillon_2020-01-01-000000_folder.crash");
  MVBugReporter::startBugReporter("Quillon", markers_);
  for (std::size_t k = 0; k < own.size(); ++k) EXPECT_EQ(fileExists(own[k]), k >= 3) << own[k];
  for (const std::string& path : others) EXPECT_TRUE(fileExists(path)) << path;
  EXPECT_TRUE(fs::is_directory(reports_ + "/Quillon_2020-01-01-000000_folder.crash"));
}

// A new crash log of this application, whatever its letter case, is offered
// to the desktop (no reporter shipped: the default application), unless the
// crash reporter is switched off.
TEST_F(CrashReporterTest, FindsTheApplicationsNewCrashLogAndOffersItUnlessSwitchedOff) {
  MVLog::createNewLog("crash-switch");
  struct Case {
    const char* file;
    bool found;
    MVPlistValue switchedOff;
  } cases[] = {
      {"quillon_2026-11-23-101010_host.crash", true, {}},
      {"Quillon-2026-11-23.crash", false, {}},  // no "_" after the name
      {"QuillonHelper_x.crash", false, {}},     // another application
      {"Quillon_switch.crash", true, "1"},
      {"Quillon_switch.crash", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    fs::remove_all(reports_);
    fs::create_directories(reports_);
    MVPlistValue global{MVPlistValue::Dictionary{}};
    if (!c.switchedOff.isNil()) global.set("disable-crash-reporter", c.switchedOff);
    ASSERT_TRUE(MVPropertyList::write(MVGlobalPreferences::path(), global));
    MVPlistValue markers;
    markers.set("launch", Clock::now() - 60s);  // a run launched a minute ago that has not ended
    ASSERT_TRUE(MVPropertyList::write(markers_, markers));
    std::string path = crashLog(c.file);
    LogSince log;
    EXPECT_EQ(MVBugReporter::checkForCrashes("Quillon", markers_), c.found ? std::optional(path) : std::nullopt);
    const bool offered = c.found && c.switchedOff.isNil();
    EXPECT_EQ(desktop_->take(), offered ? std::vector<std::string>{"open:" + path} : std::vector<std::string>{});
    EXPECT_EQ(log.count("Crash reporter disabled"), c.switchedOff.isNil() ? 0u : 1u);
  }
}

// The agent killed by a fatal signal writes its own crash log; the next
// start offers it to the bug reporter installed on the desktop.
TEST(CrashReporterAgent, AFatalSignalIsNoticedAtTheNextStart) {
  std::string home = makeTempDir("crash-home");
  auto installRecorder = [&](const std::string& entry) {
    std::string script = home + "/" + entry + ".sh";
    writeFile(script, "#!/bin/sh\necho \"$1\" >> '" + home + "/" + entry + ".txt'\n");
    chmod(script.c_str(), 0755);
    writeFile(home + "/.local/share/applications/" + entry + ".desktop",
              "[Desktop Entry]\nType=Application\nName=" + entry + "\nExec=" + script + " %f\n");
    return home + "/" + entry + ".txt";
  };
  std::string viewed = installRecorder("quillon-crash-viewer");
  std::string opened = installRecorder("com.morvane.BugReporter");
  std::string defaults = "[Default Applications]\n";
  for (const char* type : {"text/plain", "text/x-apport", "application/octet-stream", "application/x-crash-report"})
    defaults += std::string(type) + "=quillon-crash-viewer.desktop\n";
  writeFile(home + "/.config/mimeapps.list", defaults);

  std::string logs = makeTempDir("crash-logs");
  auto run = [&](int endSignal) {
    Agent agent(home, {}, logs);
    EXPECT_TRUE(agent.waitForLog("Setting up...", 1, 20)) << agent.output();
    if (endSignal == SIGTERM) {
      EXPECT_TRUE(waitUntil([&] { return fileExists(opened); }, 30)) << agent.log();
      MVRunLoop::main().runFor(1.0);
    }
    return agent.stop(endSignal);
  };
  int status = run(SIGABRT);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  std::vector<fs::path> crashLogs(fs::directory_iterator(home + "/.local/state/DiagnosticReports"), {});
  ASSERT_EQ(crashLogs.size(), 1u);
  EXPECT_EQ(crashLogs[0].filename().string().rfind("quillon-helper_", 0), 0u);

  EXPECT_EQ(run(SIGTERM), 0);
  EXPECT_EQ(readFile(opened), crashLogs[0].string() + "\n");
  EXPECT_FALSE(fileExists(viewed));
}
