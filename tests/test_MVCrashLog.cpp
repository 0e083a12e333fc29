// The crash handler in real crashing processes: this program runs itself
// again as a child that installs the handler and dies as the case says.
#include "MVCrashLog.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "MVRunLoop.h"
#include "TestSupport.h"

using namespace quillon_test;

namespace {

constexpr const char* kModeVariable = "QUILLON_TEST_CRASH_MODE";
constexpr const char* kFolderFileVariable = "QUILLON_TEST_CRASH_FOLDER_FILE";

volatile bool gNeverTrue = false;

int overflowTheStack(int depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  if (gNeverTrue) return frame[0];
  return overflowTheStack(depth + 1) + frame[0];
}

struct ChildResult {
  int signal = 0;  // the signal the child died of, 0 if it did not
  std::vector<std::string> reports;
};

// Runs this program again in crash mode `mode` and collects its reports.
ChildResult runCrashingChild(const std::string& mode) {
  std::string folderFile = makeTempDir("crash-child") + "/folder";
  std::string self = std::filesystem::read_symlink("/proc/self/exe");
  int rc = shell(std::string(kModeVariable) + "='" + mode + "' " + kFolderFileVariable + "='" + folderFile + "' " +
                 self + " --gtest_filter=MVCrashLogChild.CrashesAsTold >/dev/null 2>&1");
  ChildResult result;
  if (rc > 128) result.signal = rc - 128;
  if (!fileExists(folderFile)) return result;
  for (const auto& entry : std::filesystem::directory_iterator(readFile(folderFile)))
    result.reports.push_back(readFile(entry.path()));
  // The child died before it could clear its temporary home.
  std::filesystem::remove_all(readFile(folderFile + ".home"));
  return result;
}

// A report is whole when its backtrace was written to the end.
bool isComplete(const std::string& report) {
  auto at = report.find("\nBacktrace:\n");
  return at != std::string::npos && report.find('\n', at + 12) != std::string::npos &&
         report.back() == '\n';
}

}  // namespace

// The child's side; skipped in an ordinary run.
TEST(MVCrashLogChild, CrashesAsTold) {
  const char* mode = std::getenv(kModeVariable);
  if (!mode) GTEST_SKIP() << "runs only as the child of the crash tests";
  MVCrashLog::install("Quillon");
  writeFile(std::getenv(kFolderFileVariable), MVCrashLog::crashLogDirectory());
  writeFile(std::string(std::getenv(kFolderFileVariable)) + ".home", testHome());
  const std::string m = mode;
  if (m == "overflow on a worker") {
    MVRunLoop::detachThread([] { overflowTheStack(0); });
  } else if (m == "two threads at once") {
    static std::atomic<int> ready{0};
    for (int i = 0; i < 2; ++i) {
      MVRunLoop::detachThread([] {
        ++ready;
        while (ready.load() < 2) {
        }
        raise(SIGSEGV);
      });
    }
  } else if (m == "SIGSYS") {
    raise(SIGSYS);
  }
  std::this_thread::sleep_for(std::chrono::seconds(30));
  FAIL() << "still alive";
}

TEST(MVCrashLog, EveryFatalSignalOnAnyThreadLeavesOneWholeReport) {
  struct Case {
    const char* mode;
    int signal;
    const char* named;
    int runs;
    std::size_t mostReports;
  };
  const Case cases[] = {
      // Nothing is left of the worker's stack: the handler runs on its own.
      {"overflow on a worker", SIGSEGV, "(SIGSEGV)", 1, 1},
      {"SIGSYS", SIGSYS, "(SIGSYS)", 1, 1},
      // The two crashes meet inside the handler in most runs; either way, no
      // report may be cut short or overwritten.
      {"two threads at once", SIGSEGV, "(SIGSEGV)", 5, 2},
  };
  for (const Case& c : cases) {
    for (int run = 0; run < c.runs; ++run) {
      SCOPED_TRACE(c.mode);
      ChildResult child = runCrashingChild(c.mode);
      EXPECT_EQ(child.signal, c.signal);
      ASSERT_GE(child.reports.size(), 1u);
      EXPECT_LE(child.reports.size(), c.mostReports);
      EXPECT_NE(child.reports[0].find(c.named), std::string::npos) << child.reports[0];
      for (const std::string& report : child.reports) EXPECT_TRUE(isComplete(report)) << report;
    }
  }
}
