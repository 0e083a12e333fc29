// The controller's records of what it already announced, the busy test of a
// rendering application, and its two small text utilities.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "AppController.h"
#include "MVRunLoop.h"
#include "TestSupport.h"

extern char** environ;

using namespace std::chrono_literals;
using quillon_test::makeTempDir;
using quillon_test::waitUntil;
using quillon_test::writeFile;
using Date = AppController::Date;

namespace {

// Controllers are never destroyed, as in the agent itself: a folder check
// that announced something leaves a detached worker holding its controller.
// (Kept in a list, so that the leak checker sees them as still in use.)
AppController& freshController() {
  static auto* kept = new std::vector<AppController*>;
  return *kept->emplace_back(new AppController());
}

// Sets a file's modification time to `when` (whole nanoseconds kept).
void setModificationDate(const std::string& path, Date when) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
  timespec times[2];
  times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(ns / 1000000000);
  times[0].tv_nsec = times[1].tv_nsec = static_cast<long>(ns % 1000000000);
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// A child process shown by "ps aux" under `name`, killed when the guard goes.
class NamedProcess {
 public:
  // `command` is a shell command line whose program gets `name` as argv[0].
  NamedProcess(const std::string& name, const std::string& command) {
    std::vector<std::string> args = {"/bin/bash", "-c", "exec -a \"$0\" " + command, name};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, "/bin/bash", nullptr, nullptr, argv.data(), environ) != 0) pid_ = 0;
  }
  ~NamedProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  bool started() const { return pid_ > 0; }

 private:
  pid_t pid_ = 0;
};

}  // namespace

TEST(Bookkeeping, AnnouncedFileIsARepeatOnlyWhileItsDateIsUnchanged) {
  AppController& controller = freshController();
  std::string folder = makeTempDir("repeat");
  std::string announced = folder + "/render.mov";
  std::string other = folder + "/other.mov";
  writeFile(announced, "frames");
  writeFile(other, "frames");
  Date written = std::chrono::system_clock::now() - 5s;
  setModificationDate(announced, written);

  EXPECT_FALSE(controller.isFileRepeated(announced)) << "nothing was recorded yet";
  controller.recordRecentFile(announced);
  EXPECT_TRUE(controller.isFileRepeated(announced));
  EXPECT_FALSE(controller.isFileRepeated(other));

  // A touch gives a new date: the same path is a new render at once.
  setModificationDate(announced, written + 1ms);
  EXPECT_FALSE(controller.isFileRepeated(announced));
  // Back to the recorded date, it is the announced file again.
  setModificationDate(announced, written);
  EXPECT_TRUE(controller.isFileRepeated(announced));

  // A file that vanished is never a repeat, and one that cannot be read is
  // never recorded.
  std::filesystem::remove(announced);
  EXPECT_FALSE(controller.isFileRepeated(announced));
  controller.recordRecentFile(folder + "/missing.mov");
  EXPECT_EQ(controller.recentFiles()->count(folder + "/missing.mov"), 0u);
}

TEST(Bookkeeping, TidyKeepsRecordsUpToSixtySecondsPastTheFilesLastWrite) {
  AppController& controller = freshController();
  std::string folder = makeTempDir("tidy");
  Date written = std::chrono::system_clock::now() - 10s;

  // The age is measured from the file's modification date, not from the
  // announcement; exactly sixty seconds is already too old.
  const std::pair<std::chrono::milliseconds, bool> cases[] = {{59'999ms, true}, {60'000ms, false}};
  for (const auto& [sinceWrite, kept] : cases) {
    SCOPED_TRACE(sinceWrite.count());
    std::string path = folder + "/r" + std::to_string(sinceWrite.count()) + ".mov";
    writeFile(path, "frames");
    setModificationDate(path, written);
    controller.setClockForTesting(nullptr);
    controller.recordRecentFile(path);
    ASSERT_TRUE(controller.isFileRepeated(path));

    controller.setClockForTesting([&] { return written + sinceWrite; });
    controller.tidyRecentFiles();
    EXPECT_EQ(controller.isFileRepeated(path), kept);
    // Tidying forgets the whole old record set, not just this entry.
    controller.setClockForTesting([&] { return written + 1h; });
    controller.tidyRecentFiles();
    EXPECT_TRUE(controller.recentFiles()->empty());
  }
}

TEST(Bookkeeping, RecentBatchesAreForgottenAfterTenQuietMinutes) {
  AppController& controller = freshController();
  Date now = std::chrono::system_clock::now();
  controller.setClockForTesting([&] { return now; });
  using Batches = std::vector<std::string>;

  // No outcome yet: the list is kept and grows, duplicates included.
  controller.addRecentBatch("1");
  controller.addRecentBatch("2");
  controller.addRecentBatch("2");
  EXPECT_EQ(*controller.recentBatches(), (Batches{"1", "2", "2"}));

  controller.setLastNotificationShown(now - 599s);
  controller.addRecentBatch("3");
  EXPECT_EQ(*controller.recentBatches(), (Batches{"1", "2", "2", "3"}));

  // Exactly ten minutes since the last outcome: start over with this one.
  controller.setLastNotificationShown(now - 600s);
  controller.addRecentBatch("4");
  EXPECT_EQ(*controller.recentBatches(), (Batches{"4"}));

  // A later outcome carries the list over again.
  controller.setLastNotificationShown(now);
  controller.addRecentBatch("5");
  EXPECT_EQ(*controller.recentBatches(), (Batches{"4", "5"}));
}

TEST(Bookkeeping, PhoneNumbersKeepTheirDigitsAndNumbersMustPrintBackAs32BitIntegers) {
  const std::pair<const char*, const char*> digits[] = {
      {"+1 (555) 010-9999", "15550109999"}, {"1.5e3", "153"},
      {"\xd9\xa3\xd9\xa4 7", "7"},  // Arabic-Indic digits are not "0123456789"
  };
  for (const auto& [text, kept] : digits) EXPECT_EQ(AppController::stripNonNumerals(text), kept) << text;
  const std::pair<const char*, bool> numbers[] = {
      {"-7", true},  {"2147483647", true}, {"-2147483648", true}, {"2147483648", false}, {"-2147483649", false},
      {"007", false}, {"+5", false},       {" 5", false},          {"12abc", false},      {"", false}, {"-0", false},
  };
  for (const auto& [text, numeric] : numbers) EXPECT_EQ(AppController::isNumeric(text), numeric) << '"' << text << '"';
}

TEST(Bookkeeping, CpuUsageReadsTheFirstMatchingProcessOfTheListing) {
  AppController& controller = freshController();
  std::string token = std::to_string(getpid());

  EXPECT_EQ(controller.cpuUsageForApplication("Quillon Nobody Runs This " + token), 0);

  // A name with blanks, as the editing applications have, matched anywhere
  // in the line; a sleeping process uses nothing. (The names stay clear of
  // the real applications' names: other suites run beside this one.)
  NamedProcess idle("Quillon Idle Probe-" + token, "sleep 60");
  ASSERT_TRUE(idle.started());
  ASSERT_TRUE(waitUntil([&] {
    return quillon_test::shellOutput("ps aux").find("Quillon Idle Probe-" + token) != std::string::npos;
  }, 10));
  EXPECT_EQ(controller.cpuUsageForApplication("Idle Probe-" + token), 0);

  // A spinning process shows in the processor column; the reading is whole
  // percent of one core.
  NamedProcess busy("Quillon Busy Probe-" + token, "/bin/bash -c 'while :; do :; done'");
  ASSERT_TRUE(busy.started());
  int usage = 0;
  EXPECT_TRUE(waitUntil([&] {
    usage = controller.cpuUsageForApplication("Quillon Busy Probe-" + token);
    return usage >= 10;
  }, 15)) << "a busy loop read as " << usage << "%";
  EXPECT_LE(usage, 100);
}
