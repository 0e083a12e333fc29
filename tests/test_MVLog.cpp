// The agent's log: its header, rotation, size limit, threads and the switch that turns it off.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "TestSupport.h"

using namespace quillon_test;

namespace fs = std::filesystem;

namespace {

std::string logPath(const std::string& name, int generation = 1) {
  return MVLog::logFolder() + "/" + name + "." + std::to_string(generation) + ".log";
}

// The messages of a log file, without their stamps "2024-05-01 13:45:10 +0000 - ".
std::vector<std::string> messages(const std::string& path) {
  static const std::regex stamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4} - )");
  std::vector<std::string> out;
  std::istringstream lines(readFile(path));
  for (std::string line; std::getline(lines, line);)
    out.push_back(std::regex_search(line, stamp) ? line.substr(28) : "UNSTAMPED: " + line);
  return out;
}

std::ptrdiff_t indexOf(const std::vector<std::string>& lines, const std::string& line) {
  auto found = std::find(lines.begin(), lines.end(), line);
  return found == lines.end() ? -1 : found - lines.begin();
}

bool contains(const std::vector<std::string>& lines, const std::string& line) { return indexOf(lines, line) >= 0; }

// Every test starts from a log as at process start, in an empty log folder.
class MVLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MVLog::overrideRunningAsRoot(false);
    fresh();
    fs::remove(MVGlobalPreferences::path());
  }
  void TearDown() override { MVLog::resetForTesting(); }
  static void fresh() {
    MVLog::resetForTesting();
    fs::remove_all(MVLog::logFolder());
  }
};

}  // namespace

TEST_F(MVLogTest, NewLogStartsWithHeaderAndTheFirstNameWins) {
  EXPECT_EQ(MVLog::sharedController().appName(), "test_MVLog");
  MVLog::createNewLog("HeaderApp", true);
  MVLog::appendLog("  \n\t ");              // nothing left after trimming
  MVLog::appendLog("\n  %@ rendered at %i%% \n", "clip.mov", 50);
  MVLog::finishWriting();
  auto lines = messages(logPath("HeaderApp"));
  ASSERT_EQ(lines.size(), 6u) << readFile(logPath("HeaderApp"));
  EXPECT_EQ(lines[0].rfind("Log started: ", 0), 0u);
  EXPECT_EQ(lines[5], "clip.mov rendered at 50%");

  MVLog::createNewLog("OtherName", true);
  MVLog::finishWriting();
  EXPECT_EQ(MVLog::sharedController().appName(), "HeaderApp");
  EXPECT_EQ(MVLog::availableLogs(), (std::vector<std::string>{logPath("HeaderApp", 1), logPath("HeaderApp", 2)}));
  EXPECT_FALSE(fileExists(logPath("OtherName")));
}

TEST_F(MVLogTest, RotationShiftsExistingGenerationsAndSkipsMissingOnes) {
  // Present generations, and what generations 2 to 5 hold afterwards ("" for none).
  const std::pair<std::vector<int>, std::vector<std::string>> cases[] = {
      {{1, 2, 3, 4, 5}, {"gen 1", "gen 2", "gen 3", "gen 4"}},
      {{1, 3}, {"gen 1", "", "gen 3", ""}},
  };
  for (const auto& [present, after] : cases) {
    fresh();
    for (int n : present) writeFile(logPath("Rotate", n), "gen " + std::to_string(n));
    MVLog::createNewLog("Rotate", true);
    MVLog::finishWriting();
    for (int n = 2; n <= 5; ++n) {
      const std::string& expected = after[n - 2];
      EXPECT_EQ(fileExists(logPath("Rotate", n)) ? readFile(logPath("Rotate", n)) : "", expected) << n;
    }
    EXPECT_EQ(messages(logPath("Rotate")).at(0).rfind("Log started: ", 0), 0u);
  }
}

TEST_F(MVLogTest, GlobalSwitchDisablesLoggingForGood) {
  ASSERT_TRUE(MVPropertyList::write(MVGlobalPreferences::path(), MVPlistValue(MVPlistValue::Dictionary{{"disable-logging", "1"}})));
  testing::internal::CaptureStdout();
  MVLog::createNewLog("Switch");
  MVLog::appendLogAndPrint("hello");
  MVLog::finishWriting();
  fs::remove(MVGlobalPreferences::path());
  MVLog::createNewLog("Switch");  // a disabled log stays disabled
  MVLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Logging is disabled\n");
  EXPECT_FALSE(fileExists(logPath("Switch")));
}

TEST_F(MVLogTest, PrintingEntryPointPrintsTheFirstPass) {
  MVLog::createNewLog("Print");
  testing::internal::CaptureStdout();
  MVLog::appendLogAndPrint("Rendered %@ at 50% speed", "clip%@%s.mov");
  MVLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Rendered clip%%s.mov at 50%% speed\n");
}

TEST_F(MVLogTest, ShortLinesFromWorkersAreWrittenBeforeAppendReturns) {
  MVLog::createNewLog("Threads", true);
  MVLog::finishWriting();
  bool writtenOnReturn = false;
  std::thread([&] {
    MVLog::appendLog("worker %i done", 7);
    writtenOnReturn = contains(messages(logPath("Threads")), "worker 7 done");
  }).join();
  EXPECT_TRUE(writtenOnReturn);

  // With the writer held, neither the main thread nor a long line from a worker waits.
  MVLog::setWriterPausedForTesting(true);
  MVLog::appendLog("main thread line");
  std::string longLine(150, 'x');
  std::thread([&] { MVLog::appendLog("%@", longLine); }).join();
  EXPECT_EQ(MVLog::sharedController().bytesInQueue(), 16u + 150u);
  MVLog::setWriterPausedForTesting(false);
  MVLog::finishWriting();
  EXPECT_TRUE(contains(messages(logPath("Threads")), longLine));
}

TEST_F(MVLogTest, TerminationWaitsForTenLinesAndDropsElevenOrMore) {
  for (int pending : {10, 11}) {
    SCOPED_TRACE(pending);
    MVLog::resetForTesting();
    MVLog::createNewLog("Flood", true);
    MVLog::finishWriting();
    MVLog::setWriterPausedForTesting(true);
    for (int i = 0; i < pending; ++i) MVLog::appendLog("pending %i", i);
    MVLog::sharedController().willTerminate();
    MVLog::appendLog("after termination");
    MVLog::finishWriting();
    auto lines = messages(logPath("Flood"));
    EXPECT_EQ(contains(lines, "pending 9"), pending <= 10);
    EXPECT_FALSE(contains(lines, "pending 10"));
    EXPECT_FALSE(contains(lines, "after termination"));
  }
}

TEST_F(MVLogTest, FileIsTruncatedPastFiveMillionBytes) {
  MVLog::createNewLog("Big", true);
  const std::string chunk(10000, 'z');
  const int count = 505;
  for (int i = 0; i < count; ++i) MVLog::appendLog("%i %@", i, chunk);
  MVLog::finishWriting();
  EXPECT_GE(fs::file_size(logPath("Big", 2)), 5'000'000u);
  EXPECT_LT(fs::file_size(logPath("Big", 2)), 5'020'000u);
  EXPECT_FALSE(fileExists(logPath("Big", 3)));

  // Header and truncation line follow the waiting lines; none is lost or doubled.
  auto older = messages(logPath("Big", 2)), newer = messages(logPath("Big"));
  auto started = std::find_if(newer.begin(), newer.end(), [](auto& l) { return l.rfind("Log started: ", 0) == 0; });
  ASSERT_NE(started, newer.end());
  EXPECT_LT(started - newer.begin(), indexOf(newer, "Running in 64-bit mode"));
  EXPECT_LT(indexOf(newer, "Running in 64-bit mode"), indexOf(newer, "Log truncated at 500KB"));
  for (int i = 0; i < count; ++i) {
    std::string line = std::to_string(i) + " " + chunk;
    EXPECT_EQ(std::count(older.begin(), older.end(), line) + std::count(newer.begin(), newer.end(), line), 1) << i;
  }
}

TEST_F(MVLogTest, LinesWithoutANewLogAppendToAnExistingFileOrComplain) {
  MVLog::sharedController().setAppName("Lazy");
  testing::internal::CaptureStdout();
  MVLog::appendLog("nowhere to go");
  MVLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Unable to log the following information: nowhere to go\nUnable to open log for output\n");

  writeFile(logPath("Lazy"), "earlier\n");
  MVLog::appendLog("appended");
  MVLog::finishWriting();
  EXPECT_EQ(messages(logPath("Lazy")), (std::vector<std::string>{"UNSTAMPED: earlier", "appended"}));
}

TEST_F(MVLogTest, RootWritesTheCurrentFileUnderTheMachineFolder) {
  MVLog::overrideRunningAsRoot(true);
  MVLog::sharedController().setAppName("RootApp");
  EXPECT_EQ(MVLog::currentLogPath(), MVLocalPaths::logDirectory(false) + "/Morvane/RootApp.1.log");
  EXPECT_EQ(MVLog::logFolder(), MVLocalPaths::logDirectory(true) + "/Morvane");
}

TEST(MVLogDeathTest, EscapingExceptionIsLoggedBeforeAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child, a fresh run with a home of its own, writes into this process's home.
  setenv("QUILLON_LOG_PARENT_HOME", testHome().c_str(), 0);
  const std::string parentHome = getenv("QUILLON_LOG_PARENT_HOME");
  auto escape = [&] {
    if (testHome() != parentHome) fs::remove_all(testHome());
    setenv("HOME", parentHome.c_str(), 1);
    MVLog::overrideRunningAsRoot(false);
    MVLog::createNewLog("Crash", true);
    std::thread([] { throw std::runtime_error("render queue broke at 50% (%@)"); }).join();
  };
  EXPECT_DEATH(escape(), "render queue broke");
  auto lines = messages(MVLog::logFolder() + "/Crash.1.log");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "render queue broke at 50% ((null))");
}
