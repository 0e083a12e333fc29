// The built agent as a user runs it, with a mocked notification server.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "AgentProcess.h"
#include "MVPropertyList.h"

namespace fs = std::filesystem;
using namespace quillon_test;

namespace {

void writeSettings(const std::string& home, const std::string& json) { ASSERT_TRUE(writeAgentSettings(home, json)); }

class AgentEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(binPath("quillon-helper"))) << "build the quillon-helper target first";
    ASSERT_TRUE(session.ready()) << session.bus.error();
    home = makeTempDir("agent-home");
  }
  // Notifications from the agent that show `body` under "Render Complete".
  std::size_t notified(const std::string& body) const {
    return session.notified("\"Render Complete\" \"" + body + "\"");
  }
  bool waitForNotification(const std::string& body, double seconds = 30) const {
    return waitUntil([&] { return notified(body) >= 1; }, seconds);
  }

  NotifyingBus session;
  std::string home;
};

TEST_F(AgentEndToEnd, AnnouncesRendersAndRewatchesOnReload) {
  const std::string a = home + "/Renders A", b = home + "/Renders B", c = home + "/Renders C";
  for (const auto& f : {a, b, c}) fs::create_directories(f);
  writeSettings(home, R"({"watchFolders": [")" + a + R"(", ")" + b + R"("], "notifyGrowl": 1, "notifySound": 1})");

  Agent agent(home);
  ASSERT_TRUE(agent.started());
  ASSERT_TRUE(agent.waitForLog("Watch folders:", 1, 20)) << agent.log();
  EXPECT_EQ(agent.logCount("Setting up..."), 1u);
  ASSERT_TRUE(agent.waitUntilWatching(a, 20)) << agent.log();

  writeMovie(a + "/a1.mov");
  ASSERT_TRUE(waitForNotification("File: a1.mov")) << agent.log() << session.server.log();
  ASSERT_TRUE(agent.waitForLog("Render complete", 1, 10));

  // The second folder; by now the first announcement is over five seconds old.
  writeMovie(b + "/b1.mov");
  ASSERT_TRUE(waitForNotification("File: b1.mov")) << agent.log();

  // The preferences application rewrites the settings and posts the update
  // on the bus: A is dropped, C is added.
  writeSettings(home, R"({"watchFolders": [")" + b + R"(", ")" + c + R"("], "notifyGrowl": 1, "notifySound": 1})");
  ASSERT_EQ(shell("dbus-send --session --type=signal /com/morvane/DistributedNotificationCenter "
                  "com.morvane.DistributedNotificationCenter.Notification string:MVQuillonConfigUpdate string: "
                  "dict:string:string:"), 0);
  ASSERT_TRUE(agent.waitForLog("Setting up...", 2, 20)) << agent.log();
  ASSERT_TRUE(agent.waitUntilWatching(c, 20)) << "the added folder is not watched\n" << agent.log();
  writeMovie(a + "/a2.mov");
  writeMovie(c + "/c1.mov");
  ASSERT_TRUE(waitForNotification("File: c1.mov")) << agent.log();
  MVRunLoop::main().runFor(4);
  EXPECT_EQ(agent.logCount("a2.mov"), 0u) << "a folder dropped from the settings is still watched\n" << agent.log();
  EXPECT_EQ(notified("File: a2.mov"), 0u);

  EXPECT_EQ(agent.logCount("Render complete"), 3u);

  // Every render told exactly once.
  for (const char* body : {"File: a1.mov", "File: b1.mov", "File: c1.mov"})
    EXPECT_EQ(notified(body), 1u) << body;

  // Announcing renders never needed the alert toolkit, so it was never loaded.
  EXPECT_EQ(readFile("/proc/" + std::to_string(agent.pid()) + "/maps").find("libgtk-3"), std::string::npos);

  EXPECT_EQ(agent.stop(SIGTERM), 0);
}

TEST_F(AgentEndToEnd, FirstRunWithDefaultSettingsWatchesTheRendersFolder) {
  const std::string renders = home + "/Videos/Renders";
  ASSERT_FALSE(fs::exists(agentSettingsPath(home)));
  {
    Agent agent(home, {"--default-settings"});
    ASSERT_TRUE(agent.started());
    ASSERT_TRUE(waitUntil([&] { return fs::exists(agentSettingsPath(home)); }, 20)) << agent.log();
    MVPlistValue written = MVPropertyList::read(agentSettingsPath(home));
    EXPECT_EQ(written["watchFolders"], MVPlistValue(MVPlistValue::Array{MVPlistValue(renders)}));
    EXPECT_TRUE(fs::is_directory(renders));

    ASSERT_TRUE(agent.waitUntilWatching(renders, 20)) << agent.log();
    writeMovie(renders + "/first.mov");
    ASSERT_TRUE(waitForNotification("File: first.mov")) << agent.log();

    EXPECT_EQ(agent.stop(SIGTERM), 0);
    // Printed once the agent has ended (standard output is a file here).
    EXPECT_NE(agent.output().find("no settings found; wrote " + agentSettingsPath(home) + " watching " + renders),
              std::string::npos)
        << agent.output();
  }

  // A later run never replaces settings the user has made.
  writeSettings(home, R"({"notifyGrowl": 0, "notifySound": 1, "watchFolders": [")" + renders + R"("]})");
  const std::string own = readFile(agentSettingsPath(home));
  Agent again(home, {"--default-settings"});
  ASSERT_TRUE(again.waitForLog("Watch folders:", 1, 20)) << again.log();
  EXPECT_EQ(readFile(agentSettingsPath(home)), own);
  EXPECT_EQ(again.stop(SIGINT), 0);
  EXPECT_EQ(again.output().find("no settings found"), std::string::npos) << again.output();
}

}  // namespace
