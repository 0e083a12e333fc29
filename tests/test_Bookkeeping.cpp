// The controller's records of what it already announced, and the busy test
// of a rendering application.
#include "WatchTestSupport.h"

using namespace std::chrono_literals;
using namespace watch_test;
using Date = AppController::Date;

namespace {

// Kept, never destroyed: a folder check that announced something leaves a
// detached worker holding its controller.
AppController& freshController() {
  static auto* kept = new std::vector<AppController*>;
  return *kept->emplace_back(new AppController());
}

}  // namespace

TEST(Bookkeeping, AnnouncedFileIsARepeatOnlyWhileItsDateIsUnchanged) {
  AppController& controller = freshController();
  std::string folder = makeTempDir("repeat");
  std::string announced = folder + "/render.mov";
  std::string other = folder + "/other.mov";
  writeFile(announced, "frames");
  writeFile(other, "frames");
  Date written = std::chrono::system_clock::now() - 5s;
  setModified(announced, written);

  EXPECT_FALSE(controller.isFileRepeated(announced)) << "nothing was recorded yet";
  controller.recordRecentFile(announced);
  EXPECT_TRUE(controller.isFileRepeated(announced));
  EXPECT_FALSE(controller.isFileRepeated(other));

  // A touch gives a new date: the same path is a new render at once.
  setModified(announced, written + 1ms);
  EXPECT_FALSE(controller.isFileRepeated(announced));

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
    setModified(path, written);
    controller.setClockForTesting(nullptr);
    controller.recordRecentFile(path);
    ASSERT_TRUE(controller.isFileRepeated(path));

    controller.setClockForTesting([&] { return written + sinceWrite; });
    controller.tidyRecentFiles();
    EXPECT_EQ(controller.isFileRepeated(path), kept);
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
}

TEST(Bookkeeping, CpuUsageReadsTheFirstMatchingProcessOfTheListing) {
  AppController& controller = freshController();
  std::string token = std::to_string(getpid());
  EXPECT_EQ(controller.cpuUsageForApplication("Quillon Nobody Runs This " + token), 0);
  // Names with blanks, as the editing applications have, matched anywhere in
  // the line, and clear of the real applications' names.
  ChildProcess idle("exec -a \"$0\" sleep 60", "Quillon Idle Probe-" + token);
  ASSERT_TRUE(waitUntil([&] { return shellOutput("ps aux").find("Idle Probe-" + token) != std::string::npos; }, 10));
  EXPECT_EQ(controller.cpuUsageForApplication("Idle Probe-" + token), 0);
  // A spinning process shows in whole percent of one core.
  ChildProcess busy("exec -a \"$0\" /bin/bash -c 'while :; do :; done'", "Quillon Busy Probe-" + token);
  int usage = 0;
  EXPECT_TRUE(waitUntil([&] { return (usage = controller.cpuUsageForApplication("Quillon Busy Probe-" + token)) >= 10; },
                        15))
      << "a busy loop read as " << usage << "%";
  EXPECT_LE(usage, 100);
}
