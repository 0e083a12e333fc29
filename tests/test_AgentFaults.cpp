// The running agent meets bad conditions: its settings replaced by garbage,
// its session bus gone, a watched folder deleted. It logs, keeps running, and
// never changes what the user owns.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "AgentProcess.h"
#include "PrivateSessionBus.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace quillon_test;

namespace {

void writeMovie(const std::string& path) { writeFile(path, std::string(300000, 'f')); }

void writeWatchSettings(const std::string& home, const std::string& folder) {
  std::string script = "import plistlib,sys; plistlib.dump({'watchFolders': [sys.argv[2]], 'notifySound': 0}, "
                       "open(sys.argv[1], 'wb'), fmt=plistlib.FMT_BINARY)";
  fs::create_directories(home + "/.config");
  ASSERT_EQ(shell("/usr/bin/python3 -c \"" + script + "\" '" + home + "/.config/com.morvane.Quillon.plist' '" +
                  folder + "'"),
            0);
}

}  // namespace

TEST(AgentFaults, GarbageSettingsAndAVanishedFolderAreSurvivedAndLeftAlone) {
  PrivateSessionBus bus;
  ASSERT_TRUE(bus.isRunning()) << bus.error();
  std::string home = makeTempDir("faults-home");
  std::string folder = home + "/Renders";
  fs::create_directories(folder);
  writeWatchSettings(home, folder);

  Agent agent(home);
  ASSERT_TRUE(agent.waitForLog("Setting up...", 1, 20)) << agent.output();
  ASSERT_TRUE(agent.waitUntilWatching(folder, 20));
  writeMovie(folder + "/one.mov");
  ASSERT_TRUE(agent.waitForLog("Render complete", 1, 30)) << agent.log();

  // The watched folder is deleted under the stream, then comes back.
  fs::remove_all(folder);
  MVRunLoop::main().runFor(1.5);
  EXPECT_TRUE(agent.running());

  // Settings replaced by garbage while running: the reload reads nothing,
  // starts no watcher, and leaves the file exactly as it is.
  std::string settings = home + "/.config/com.morvane.Quillon.plist";
  std::string garbage = "bplist00\x01\x02 not really a property list \xff\xfe";
  writeFile(settings, garbage);
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.waitForLog("Setting up...", 2, 20)) << agent.log();
  fs::create_directories(folder);
  writeMovie(folder + "/two.mov");
  MVRunLoop::main().runFor(6.0);
  EXPECT_TRUE(agent.running());
  EXPECT_EQ(agent.logCount("Render complete"), 1u);
  EXPECT_EQ(readFile(settings), garbage);
  EXPECT_EQ(agent.stop(SIGTERM), 0);
}

TEST(AgentFaults, TheSessionBusGoingAwayLeavesTheAgentRunning) {
  std::string home = makeTempDir("faults-bus-home");
  std::string folder = home + "/Renders";
  fs::create_directories(folder);
  writeWatchSettings(home, folder);

  std::unique_ptr<Agent> agent;
  {
    PrivateSessionBus bus;
    ASSERT_TRUE(bus.isRunning()) << bus.error();
    agent = std::make_unique<Agent>(home);
    ASSERT_TRUE(agent->waitForLog("Setting up...", 1, 20)) << agent->output();
  }  // the bus daemon is killed here

  MVRunLoop::main().runFor(1.0);
  ASSERT_TRUE(agent->running()) << agent->output();
  // SIGHUP still reloads, and the folder is still watched without the bus.
  agent->signal(SIGHUP);
  ASSERT_TRUE(agent->waitForLog("Setting up...", 2, 20)) << agent->log();
  ASSERT_TRUE(agent->waitUntilWatching(folder, 20));
  writeMovie(folder + "/after-bus.mov");
  EXPECT_TRUE(agent->waitForLog("Render complete", 1, 30)) << agent->log();
  EXPECT_EQ(agent->stop(SIGTERM), 0);
}
