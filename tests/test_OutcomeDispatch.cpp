// What the controller does when a render ends; the desktop records what it is asked, scripts run for real.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "AppController.h"
#include "MVGrowl.h"
#include "MVLocalPaths.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "MVResources.h"
#include "MVRunLoop.h"
#include "QuillonPreferences.h"
#include "RecordingDesktop.h"
#include "TestSupport.h"

using namespace std::chrono_literals;
using namespace quillon_test;
using Calls = std::vector<std::string>;

namespace {

using Settings = std::vector<std::pair<std::string, MVPlistValue>>;

// A render's description, or the settings.
MVPlistValue render(const Settings& keys) {
  MVPlistValue description{MVPlistValue::Dictionary{}};
  for (const auto& [key, value] : keys) description.set(key, value);
  return description;
}

void writeSettings(const Settings& settings) {
  std::filesystem::create_directories(MVLocalPaths::prefsDirectory(true));
  ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), render(settings)));
}

std::string icon(const char* name) { return MVResources::pathForImageResource(name); }

class OutcomeDispatch : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { MVLog::createNewLog("test_OutcomeDispatch", true); }

  void SetUp() override {
    std::filesystem::remove(MVGlobalPreferences::path());
    MVGrowl::defaultController();
    folder = makeTempDir("renders");
    // Never destroyed: a detached post-render worker may still hold it. Kept
    // in a list, so that the leak checker sees it as still in use.
    static auto* kept = new std::vector<AppController*>;
    controller = kept->emplace_back(new AppController());
    now = std::chrono::system_clock::now();
    controller->setClockForTesting([this] { return now; });
  }
  void TearDown() override { MVRunLoop::main().runFor(0.05); }  // let the fake sounds finish

  std::string file(const std::string& name) {
    std::string path = folder + "/" + name;
    writeFile(path, "frames of " + name);
    return path;
  }
  MVPlistValue watchRender(const std::string& name) {
    return render({{"type", "watchFile"}, {"fullPath", file(name)}, {"watchFilename", name}});
  }
  // A bash script that appends one line to `output` each time it runs.
  std::string lineWriter(const std::string& name, const std::string& output) {
    std::string script = folder + "/" + name;
    writeFile(script, "echo ran >> '" + output + "'\n");
    chmod(script.c_str(), 0644);  // not executable: it must be handed to bash
    return script;
  }
  static std::size_t lines(const std::string& path) { return timesIn(readFile(path), "\n"); }

  RecordingDesktop::Installed desktop;
  std::string folder;
  AppController* controller = nullptr;
  AppController::Date now;
};

// A failure tells only by notification and sound, whatever actions are on.
TEST_F(OutcomeDispatch, EachKindOfRenderRunsTheChosenActionsInOrder) {
  std::string script = folder + "/after render.py";
  writeFile(script, "print('done')\n");
  writeSettings({{"notifyFinder", 1}, {"notifyQuickTime", 1}, {"notifySendToApp", 1},
                 {"sendToAppPath", "/opt/Editor/editor"}, {"notifyRunScript", 1}, {"scriptPath", script}});
  const std::string d = folder;

  struct Case { const char* label; MVPlistValue render; Calls expected; bool failed = false; };
  const Case cases[] = {
      {"watch folder movie", watchRender("clip.mov"),
       {"notify:Render Complete|File: clip.mov|icon-of:" + d, "sound:Glass", "reveal:" + d + "/clip.mov in " + d,
        "open:" + d + "/clip.mov with QuickTime Player", "open:" + d + "/clip.mov with /opt/Editor/editor",
        "open:" + script}},
      // QuickTime Player cannot open MXF or R3D media, in any case of extension.
      {"watch folder MXF", watchRender("take.MXF"),
       {"notify:Render Complete|File: take.MXF|icon-of:" + d, "sound:Glass", "reveal:" + d + "/take.MXF in " + d,
        "open:" + d + "/take.MXF with /opt/Editor/editor", "open:" + script}},
      // The applications' own renders get no file actions.
      {"Final Cut Pro", render({{"type", "fcpRender"}, {"fullPath", file("fcp.mov")}, {"projectName", "Theme"}}),
       {"notify:Render Complete|Project: Theme|" + icon("Final Cut Pro.icns"), "sound:Glass", "open:" + script}},
      {"Premiere with project",
       render({{"type", "premiereRender"}, {"fullPath", file("prev.mov")}, {"projectName", "Promo"}}),
       {"notify:Render Complete|File: Promo|" + icon("Premiere.icns"), "sound:Glass", "open:" + script}},
      {"Compressor", render({{"type", "qmaster"}, {"batchid", "B-1"}, {"name", "Night%20Batch%C3%A9"}}),
       {"notify:Render Complete|Batch: Night Batch\xc3\xa9|" + icon("Compressor4.icns"), "sound:Glass",
        "open:" + script}},
      // The project name is not used on failure: always the file's name.
      {"failed Avid", render({{"type", "avidRender"}, {"fullPath", file("a.mxf")}, {"projectName", "Reel"}}),
       {"notify:Render Failed|File: a.mxf|" + icon("Avid.icns"), "sound:Sosumi"}, true},
      {"failed Media Encoder", render({{"type", "ameQueue"}}),
       {"notify:Render Failed|Adobe Media Encoder queue stopped.|" + icon("AME.icns"), "sound:Sosumi"}, true},
      // On failure the batch name is shown as it came, escapes and all.
      {"failed Compressor", render({{"type", "qmaster"}, {"batchid", "F-1"}, {"name", "Night%20Batch"}}),
       {"notify:Render Failed|Batch: Night%20Batch|" + icon("Compressor4.icns"), "sound:Sosumi"}, true},
  };
  ASSERT_FALSE(icon("Avid.icns").empty()) << "the notification icons are not found";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    controller->setLastNotificationShown(std::nullopt);
    LogSince log;
    if (c.failed)
      controller->renderDidFail(c.render);
    else
      controller->renderDidFinishSuccessfully(c.render);
    EXPECT_EQ(desktop->take(), c.expected);
    EXPECT_EQ(log.count(c.failed ? "Render failed: " : "Render finished: "), 1u);
    EXPECT_EQ(log.count("Render complete"), c.failed ? 0u : 1u);
  }
}

TEST_F(OutcomeDispatch, SwitchesAreOnOnlyAtOneAndTheTwoSignalsAreOnWhenMissing) {
  std::string output = folder + "/ran.txt";
  std::string script = lineWriter("record.sh", output);
  // The last column: the desktop-wide switch that silences notifications.
  struct Case { const char* label; Settings settings; bool notify, sound, reveal, script; MVPlistValue growlOff; };
  const Case cases[] = {
      {"signals off", {{"notifyGrowl", 0}, {"notifySound", 0}}, false, false, false, false, {}},
      {"value 2 is not on", {{"notifyGrowl", 2}, {"notifySound", 2}, {"notifyFinder", 2}}, false, false, false, false, {}},
      {"string one is on", {{"notifyGrowl", "1"}, {"notifySound", true}, {"notifyFinder", "1"}}, true, true, true, false, {}},
      {"actions without a target", {{"notifyRunScript", 1}, {"scriptPath", ""}, {"notifySendToApp", 1}}, true, true,
       false, false, {}},
      {"script", {{"notifyGrowl", 0}, {"notifySound", 0}, {"notifyRunScript", 1}, {"scriptPath", script}}, false,
       false, false, true, {}},
      {"desktop switch on", {}, false, true, false, false, 1},
      {"desktop switch YES is not on", {}, true, true, false, false, "YES"},
  };
  std::size_t scriptRuns = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    writeSettings(c.settings);
    ASSERT_TRUE(MVPropertyList::write(MVGlobalPreferences::path(),
                                      render(c.growlOff.isNil() ? Settings{} : Settings{{"growlDisabled", c.growlOff}})));
    controller->setLastNotificationShown(std::nullopt);
    controller->renderDidFinishSuccessfully(watchRender("clip.mov"));
    // Each render is a new write of the file, so none is a repeat.
    Calls got = desktop->take();
    auto has = [&](const std::string& prefix) {
      return std::any_of(got.begin(), got.end(), [&](const std::string& call) { return call.rfind(prefix, 0) == 0; });
    };
    EXPECT_EQ(has("notify:"), c.notify);
    EXPECT_EQ(has("sound:"), c.sound);
    EXPECT_EQ(has("reveal:"), c.reveal);
    EXPECT_FALSE(has("open:")) << "QuickTime Player and send-to-application are off in every case";
    if (c.script) ++scriptRuns;
    EXPECT_TRUE(waitUntil([&] { return lines(output) == scriptRuns; }, 10));
  }
}

TEST_F(OutcomeDispatch, RepeatGuardSilencesOnlyTheSignalsOfASuccessAndDropsAFailure) {
  std::string output = folder + "/ran.txt";
  // A capital "SH" still means a shell script, run by bash.
  std::string script = lineWriter("after.SH", output);
  writeSettings({{"notifyRunScript", 1}, {"scriptPath", script}});
  AppController::Date start = now;

  LogSince log;
  controller->renderDidFinishSuccessfully(watchRender("first.mov"));
  EXPECT_EQ(desktop->take(), (Calls{"notify:Render Complete|File: first.mov|icon-of:" + folder, "sound:Glass"}));
  ASSERT_TRUE(waitUntil([&] { return lines(output) == 1; }, 10)) << "the script did not run through bash";

  // Three seconds later: no notification and no sound, but the script runs.
  now = start + 3s;
  controller->renderDidFinishSuccessfully(watchRender("second.mov"));
  EXPECT_EQ(desktop->take(), Calls{});
  EXPECT_TRUE(waitUntil([&] { return lines(output) == 2; }, 10)) << "a quiet success must still run the script";
  EXPECT_EQ(log.count("Last notification completed less than 5 seconds ago... skipping"), 1u);
  EXPECT_EQ(controller->lastNotificationShown(), start + 3s) << "a quiet success still counts as the last outcome";
  EXPECT_TRUE(controller->isFileRepeated(folder + "/second.mov")) << "and as announced";

  // A failure three seconds after that is dropped entirely and leaves the
  // time of the last outcome alone.
  now = start + 6s;
  controller->renderDidFail(watchRender("failed.mov"));
  EXPECT_EQ(desktop->take(), Calls{});
  EXPECT_EQ(controller->lastNotificationShown(), start + 3s);
  EXPECT_FALSE(controller->isFileRepeated(folder + "/failed.mov")) << "a dropped failure records nothing";

  // Exactly five seconds after the last outcome is no longer a repeat.
  now = start + 8s;
  controller->renderDidFail(watchRender("failed.mov"));
  EXPECT_EQ(desktop->take(), (Calls{"notify:Render Failed|File: failed.mov|icon-of:" + folder, "sound:Sosumi"}));
  EXPECT_EQ(controller->lastNotificationShown(), start + 8s);

  now = start + 12s + 990ms;
  controller->renderDidFinishSuccessfully(watchRender("third.mov"));
  EXPECT_EQ(desktop->take(), Calls{});
  EXPECT_TRUE(waitUntil([&] { return lines(output) == 3; }, 10));
  MVRunLoop::main().runFor(0.3);
  EXPECT_EQ(lines(output), 3u) << "failures never run the script";
}

TEST_F(OutcomeDispatch, AnItemIsAnnouncedOnceUntilItChanges) {
  writeSettings({});
  auto announce = [&](const MVPlistValue& r, bool success = true) {
    controller->setLastNotificationShown(std::nullopt);
    if (success)
      controller->renderDidFinishSuccessfully(r);
    else
      controller->renderDidFail(r);
    return desktop->take().size();
  };
  MVPlistValue movie = watchRender("once.mov");
  EXPECT_EQ(announce(movie), 2u);
  EXPECT_EQ(announce(movie), 0u) << "the unchanged file was announced already";
  EXPECT_EQ(announce(movie, false), 0u) << "nor does it fail afterwards";

  // A batch is told once, on success and on failure alike.
  MVPlistValue batch = render({{"type", "qmaster"}, {"batchid", "77"}, {"name", "Dailies"}});
  EXPECT_EQ(announce(batch), 2u);
  EXPECT_EQ(announce(batch, false), 0u);

  // The Media Encoder failure has no path, so nothing stops a second one.
  MVPlistValue queue = render({{"type", "ameQueue"}});
  EXPECT_EQ(announce(queue, false), 2u);
  EXPECT_EQ(announce(queue, false), 2u);
}

TEST_F(OutcomeDispatch, OnlyWhenInactiveSkipsARenderWhileItsApplicationIsInFront) {
  std::string frontmost;
  controller->setFrontmostApplicationForTesting([&] { return frontmost; });

  struct Case { const char* label; MVPlistValue render; int option; const char* front; const char* skipMessage; };
  int n = 0;
  auto of = [&](const char* type) {
    return render({{"type", type}, {"fullPath", file("r" + std::to_string(++n))}, {"batchid", std::to_string(n)}});
  };
  const Case cases[] = {
      // One test with the Avid name serves Premiere renders too.
      {"Premiere behind Avid", of("premiereRender"), 1, "Avid Media Composer", "Avid is currently active...skipping"},
      {"Avid, option 2", of("avidRender"), 2, "Avid Media Composer", nullptr},
      {"Final Cut Pro in front", of("fcpRender"), 1, "Final Cut Pro", "Final Cut Pro is currently active...skipping"},
      {"Final Cut Pro behind Avid", of("fcpRender"), 1, "Avid Media Composer", nullptr},
      {"Compressor in front", of("qmaster"), 1, "Compressor", "Compressor is currently active...skipping"},
      {"watch folder has no such test", watchRender("w.mov"), 1, "Final Cut Pro", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    writeSettings({{"onlyWhenInactive", c.option}, {"notifyFinder", 1}});
    frontmost = c.front;
    controller->setLastNotificationShown(std::nullopt);
    LogSince log;
    controller->renderDidFinishSuccessfully(c.render);
    Calls got = desktop->take();
    if (c.skipMessage) {
      EXPECT_EQ(got, Calls{});
      EXPECT_EQ(log.count(c.skipMessage), 1u);
      // Skipped counts as told: it is not announced once the user looks away.
      frontmost = "Finder";
      controller->setLastNotificationShown(std::nullopt);
      controller->renderDidFinishSuccessfully(c.render);
      EXPECT_EQ(desktop->take(), Calls{}) << "a skipped render was announced later";
    } else {
      EXPECT_GE(got.size(), 2u);
    }
  }
  // A failure is told whatever is in front.
  frontmost = "Final Cut Pro";
  controller->setLastNotificationShown(std::nullopt);
  controller->renderDidFail(of("fcpRender"));
  EXPECT_EQ(desktop->take().size(), 2u);
}

TEST_F(OutcomeDispatch, WaitForAsyncJobsFollowsTheSoundsStillPlaying) {
  writeSettings({});
  // Each sound is one job until it ends.
  desktop->hold = true;
  controller->renderDidFinishSuccessfully(watchRender("one.mov"));
  now += 10s;
  controller->renderDidFail(watchRender("two.mov"));
  EXPECT_EQ(controller->asyncJobs(), 2);

  LogSince log;
  controller->waitForAsyncJobsWithTimeout(0.2);
  EXPECT_EQ(controller->asyncJobs(), 2) << "a timed-out wait keeps the count";
  EXPECT_EQ(log.count("Async jobs timed out"), 1u);

  // The endings arrive through the main loop while the wait turns it.
  auto held = std::move(desktop->held);
  ASSERT_EQ(held.size(), 2u);
  auto finishOne = MVRunLoop::main().scheduleTimer(0.1, false, [&] { held[0](true); });
  auto finishOther = MVRunLoop::main().scheduleTimer(0.2, false, [&] { held[1](false); });
  controller->waitForAsyncJobsWithTimeout(30);
  EXPECT_EQ(controller->asyncJobs(), 0);
  EXPECT_EQ(log.count("Async jobs timed out"), 1u) << "the second wait ended because the sounds ended";
}

}  // namespace
