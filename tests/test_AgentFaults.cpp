// The running agent meets bad conditions. It logs where it can, keeps
// running, and never changes what the user owns.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "AgentProcess.h"
#include "PrivateSessionBus.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace quillon_test;

// A home whose settings watch its Renders folder.
class AgentFaults : public ::testing::Test {
 protected:
  void watch(bool notify) {
    fs::create_directories(folder);
    ASSERT_TRUE(writeAgentSettings(home, "{\"watchFolders\": [\"" + folder + "\"], \"notifySound\": 0" +
                                             (notify ? ", \"notifyGrowl\": 1}" : "}")));
  }
  std::string home = makeTempDir("faults-home");
  std::string folder = home + "/Renders";
};

TEST_F(AgentFaults, AVanishedFolderALostBusAndGarbageSettingsAreSurvivedAndLeftAlone) {
  watch(false);
  std::unique_ptr<Agent> agent;
  {
    PrivateSessionBus bus;
    ASSERT_TRUE(bus.isRunning()) << bus.error();
    agent = std::make_unique<Agent>(home);
    ASSERT_TRUE(agent->waitForLog("Setting up...", 1, 20)) << agent->output();
    ASSERT_TRUE(agent->waitUntilWatching(folder, 20));
    fs::remove_all(folder);  // deleted under the stream
    MVRunLoop::main().runFor(1.5);
  }  // the bus daemon is killed here

  MVRunLoop::main().runFor(1.0);
  ASSERT_TRUE(agent->running()) << agent->output();
  // SIGHUP still reloads, and the folder, back again, is watched without the bus.
  fs::create_directories(folder);
  agent->signal(SIGHUP);
  ASSERT_TRUE(agent->waitForLog("Setting up...", 2, 20)) << agent->log();
  ASSERT_TRUE(agent->waitUntilWatching(folder, 20));
  writeMovie(folder + "/one.mov");
  ASSERT_TRUE(agent->waitForLog("Render complete", 1, 30)) << agent->log();

  // Settings replaced by garbage: the reload reads nothing, starts no
  // watcher, and leaves the file exactly as it is.
  std::string settings = agentSettingsPath(home);
  std::string garbage = "bplist00\x01\x02 not really a property list \xff\xfe";
  writeFile(settings, garbage);
  agent->signal(SIGHUP);
  ASSERT_TRUE(agent->waitForLog("Setting up...", 3, 20)) << agent->log();
  writeMovie(folder + "/two.mov");
  MVRunLoop::main().runFor(6.0);
  EXPECT_TRUE(agent->running());
  EXPECT_EQ(agent->logCount("Render complete"), 1u);
  EXPECT_EQ(readFile(settings), garbage);
  EXPECT_EQ(agent->stop(SIGTERM), 0);
}

TEST_F(AgentFaults, AReadOnlyOrFullLogFolderSilencesOnlyTheLog) {
  for (const auto& [fault, complaint] : {std::pair{"readonly", "Unable to open log for output"},
                                         std::pair{"full", "Exception writing to log: No space left on device"}}) {
    SCOPED_TRACE(fault);
    NotifyingBus bus;
    ASSERT_TRUE(bus.ready()) << bus.bus.error();
    home = makeTempDir("faults-log-home");
    folder = home + "/Renders";
    watch(true);

    EnvOverride logFault("QUILLON_TEST_LOG_FAULT", fault);
    Agent agent(home);
    // Without a log there is no sign of the watch being ready: a new render
    // every few seconds until one is announced.
    int written = 0;
    auto lastWrite = std::chrono::steady_clock::now() - std::chrono::hours(1);
    EXPECT_TRUE(waitUntil([&] {
      if (std::chrono::steady_clock::now() - lastWrite > std::chrono::seconds(4) && written < 12) {
        writeMovie(folder + "/take" + std::to_string(++written) + ".mov");
        lastWrite = std::chrono::steady_clock::now();
      }
      return bus.notified("\"File: take") > 0 || !agent.running();
    }, 60) && bus.notified("\"File: take") > 0) << agent.output();
    EXPECT_TRUE(agent.running()) << agent.output();
    EXPECT_NE(agent.output().find(complaint), std::string::npos) << agent.output();
    for (int i = 1; i <= written; ++i)
      EXPECT_EQ(fs::file_size(folder + "/take" + std::to_string(i) + ".mov"), 300000u);
    EXPECT_EQ(agent.stop(SIGTERM), 0) << agent.output();
  }
}

TEST_F(AgentFaults, AWatchedFolderRenamedOrUnreadableIsLoggedAndLeftAlone) {
  NotifyingBus bus;
  ASSERT_TRUE(bus.ready()) << bus.bus.error();
  watch(true);

  // As root the agent could read any folder; without that right it meets
  // file modes as a user's agent does.
  EnvOverride dropRights("QUILLON_TEST_DROP_DAC", "1");
  Agent agent(home);
  ASSERT_TRUE(agent.waitForLog("Setting up...", 1, 20)) << agent.output();
  ASSERT_TRUE(agent.waitUntilWatching(folder, 20)) << agent.log();

  // Unreadable: the change is still seen, the listing fails and says so.
  writeMovie(folder + "/locked.mov");
  fs::permissions(folder, fs::perms::none);
  ASSERT_TRUE(agent.waitForLog("Unable to read the folder " + folder + "/: Permission denied", 1, 20)) << agent.log();
  EXPECT_TRUE(agent.running());
  EXPECT_EQ(fs::status(folder).permissions() & fs::perms::all, fs::perms::none);
  fs::permissions(folder, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
  MVRunLoop::main().runFor(6.0);
  writeMovie(folder + "/readable.mov");
  EXPECT_TRUE(waitUntil([&] { return bus.notified("File: readable.mov") > 0; }, 30)) << agent.log();

  // Renamed away: a new folder at the watched path is picked up, and nothing
  // is announced from the old tree under its new name (written first, it
  // would have been told by the time the new one is).
  std::string moved = home + "/Renders (old)";
  fs::rename(folder, moved);
  writeMovie(moved + "/ghost.mov");
  fs::create_directories(folder);
  ASSERT_TRUE(agent.waitUntilWatching(folder, 20)) << agent.log();
  writeMovie(folder + "/after-rename.mov");
  EXPECT_TRUE(waitUntil([&] { return bus.notified("File: after-rename.mov") > 0; }, 30)) << agent.log();
  MVRunLoop::main().runFor(1.0);
  EXPECT_EQ(bus.notified("File: ghost.mov"), 0u) << agent.log();
  EXPECT_TRUE(agent.running());
  EXPECT_EQ(fs::file_size(moved + "/locked.mov"), 300000u);
  EXPECT_EQ(fs::file_size(moved + "/readable.mov"), 300000u);
  EXPECT_EQ(agent.stop(SIGTERM), 0) << agent.output();
}
