// MVAlert: its blocking, callback and countdown rules against a scripted
// platform, then the real Linux alerts: GTK dialogs on a private X server
// driven with xdotool, and desktop notifications on a private session bus
// when there is no display.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "MVAlert.h"
#include "MVRunLoop.h"
#include "PowerAlertServices.h"
#include "PowerTestSupport.h"

using quillon_test::EnvOverride;
using quillon_test::waitUntil;
using Code = MVAlert::ReturnCode;

namespace {

class ScriptedAlerts : public MVAlert::Backend {
 public:
  struct Shown : MVAlert::Backend::Shown {
    bool visible = true;
    int orderedOut = 0;
    bool isVisible() const override { return visible; }
    void orderOut() override {
      visible = false;
      ++orderedOut;
    }
  };

  std::shared_ptr<MVAlert::Backend::Shown> show(const MVAlert::Request& request,
                                                std::function<void(Code)> ended) override {
    requests.push_back(request);
    ends.push_back(std::move(ended));
    if (refuse) return nullptr;
    shown.push_back(std::make_shared<Shown>());
    return shown.back();
  }
  bool hasAttachedSheet(MVWindowRef) override { return false; }
  void makeKeyAndOrderFront(MVWindowRef) override {}

  // Answers the latest alert as its user would: the sheet goes, then the end is told.
  void answer(Code code) {
    shown.back()->visible = false;
    ends.back()(code);
  }

  // Main thread only, as the interface promises.
  std::vector<MVAlert::Request> requests;
  std::vector<std::function<void(Code)>> ends;
  std::vector<std::shared_ptr<Shown>> shown;
  bool refuse = false;
};

// Runs a blocking `call` on a worker and `whileWaiting` on the main thread.
Code runOnWorker(const std::function<Code()>& call, const std::function<void()>& whileWaiting) {
  Code code = 99;
  power_test::runOnWorker([&] { code = call(); }, whileWaiting);
  return code;
}

class MVAlertLogic : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = MVAlert::setBackend(alerts_); }
  void TearDown() override { MVAlert::setBackend(previous_); }

  std::shared_ptr<ScriptedAlerts> alerts_ = std::make_shared<ScriptedAlerts>();
  std::shared_ptr<MVAlert::Backend> previous_;
};

TEST_F(MVAlertLogic, BlockingAlertsReturnTheChosenButtonFromAnyThread) {
  // On the main thread the wait turns the loop itself, or the answer could
  // never arrive.
  auto timer = MVRunLoop::main().scheduleTimer(0.05, false, [&] { alerts_->answer(MVAlert::kAlternateReturn); });
  EXPECT_EQ(MVAlert::alertSheetWithMessageText("Disk full", "Free 10% of the disk", nullptr), 0);
  ASSERT_EQ(alerts_->requests.size(), 1u);
  EXPECT_FALSE(alerts_->requests[0].defaultButton);
  // Already off the screen: closing does not take it away a second time.
  EXPECT_EQ(alerts_->shown[0]->orderedOut, 0);

  // From a worker: the alert is still made on the main thread, and the
  // worker polls for the end.
  Code code = runOnWorker(
      [] {
        return MVAlert::alertSheetWithMessageText("Render", "Sleep", "Cancel", "Later", "%d frames", nullptr, true);
      },
      [&] {
        ASSERT_TRUE(waitUntil([&] { return alerts_->requests.size() == 2; }, 10));
        alerts_->answer(MVAlert::kOtherReturn);
      });
  EXPECT_EQ(code, -1);
  EXPECT_EQ(alerts_->requests[1].otherButton, "Later");
}

TEST_F(MVAlertLogic, CountdownEndsTheAlertWithTheDefaultCode) {
  // Nobody answers: the default code, and the alert still up is taken down.
  EXPECT_EQ(MVAlert::timedAlertSheetWithMessageText("Sleep?", "Sleep", "Cancel", std::nullopt, "", nullptr, 1), 1);
  ASSERT_EQ(alerts_->shown.size(), 1u);
  EXPECT_EQ(alerts_->shown[0]->orderedOut, 1);
  EXPECT_FALSE(alerts_->shown[0]->visible);

  // Answered before the countdown: the answer stands.
  auto timer = MVRunLoop::main().scheduleTimer(0.05, false, [&] { alerts_->answer(MVAlert::kAlternateReturn); });
  EXPECT_EQ(MVAlert::timedAlertSheetWithMessageText("Sleep?", "Sleep", "Cancel", std::nullopt, "", nullptr, 30), 0);

  // Nothing could be shown: a plain alert and a timed one both end at once,
  // the timed one without taking its default for an alert nobody saw.
  alerts_->refuse = true;
  testing::internal::CaptureStderr();
  EXPECT_EQ(MVAlert::alertSheetWithMessageText("m", "i", nullptr), -1);
  EXPECT_EQ(MVAlert::timedAlertSheetWithMessageText("Sleep?", "Sleep", "Cancel", std::nullopt, "", nullptr, 30), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Alert error: the alert could not be shown"),
            std::string::npos);
}

class LinuxAlerts : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { quillon::installPowerAndAlertServices(); }
};

// The X server lives until every test has run: GTK keeps its display open,
// and a display that vanished while the loop still turns ends the process.
std::unique_ptr<power_test::VirtualDisplay> gDisplay;

class DisplayEnvironment : public ::testing::Environment {
 public:
  void TearDown() override { gDisplay.reset(); }
};
const auto* const kDisplayEnvironment = ::testing::AddGlobalTestEnvironment(new DisplayEnvironment);

power_test::VirtualDisplay& display() {
  if (!gDisplay) gDisplay = std::make_unique<power_test::VirtualDisplay>();
  return *gDisplay;
}

std::vector<quillon::ShownAlertDescription> waitForDialog() {
  std::vector<quillon::ShownAlertDescription> shown;
  waitUntil(
      [&] {
        shown = quillon::shownGtkAlertsForTesting();
        return !shown.empty();
      },
      20);
  // Let the window manager-less server map and focus it before input arrives.
  MVRunLoop::main().runFor(0.3);
  return quillon::shownGtkAlertsForTesting();
}

TEST_F(LinuxAlerts, DialogShowsTextsLiterallyAndEachButtonOrTheCountdownGivesItsCode) {
  ASSERT_TRUE(display().running()) << "Xvfb did not start";
  EnvOverride x11("DISPLAY", display().display());
  EnvOverride wayland("WAYLAND_DISPLAY", std::nullopt);

  struct Case {
    std::string name;
    std::function<void(const quillon::ShownAlertDescription&)> act;
    Code expected;
    int countdown = 0;
  };
  const Case cases[] = {
      {"Return takes the default", [](auto&) { display().typeInto("Quillon", "Return"); }, 1},
      {"Escape takes the alternate", [](auto&) { display().typeInto("Quillon", "Escape"); }, 0},
      {"click on the other button", [](auto& d) { display().click(d.buttonCentres.at(0)); }, -1},
      {"click on the alternate button", [](auto& d) { display().click(d.buttonCentres.at(1)); }, 0},
      {"nobody answers a countdown", [](auto&) {}, 1, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Code code = runOnWorker(
        [&] {
          const char* message = "Rendering complete. Do you wish to sleep now?";
          const char* informative = "100% done, %d frames, %@ left";
          if (c.countdown)
            return MVAlert::timedAlertSheetWithMessageText(message, "Sleep", "Cancel", "Later", informative, nullptr,
                                                           c.countdown);
          return MVAlert::alertSheetWithMessageText(message, "Sleep", "Cancel", "Later", informative, nullptr, true);
        },
        [&] {
          auto shown = waitForDialog();
          ASSERT_EQ(shown.size(), 1u);
          EXPECT_EQ(shown[0].title, "Quillon");
          EXPECT_EQ(shown[0].messageText, "Rendering complete. Do you wish to sleep now?");
          EXPECT_EQ(shown[0].informativeText, "100% done, %d frames, %@ left");
          EXPECT_EQ(shown[0].buttons, (std::vector<std::string>{"Later", "Cancel", "Sleep"}));
          c.act(shown[0]);
        });
    EXPECT_EQ(code, c.expected);
    EXPECT_TRUE(quillon::shownGtkAlertsForTesting().empty());
  }
}

TEST_F(LinuxAlerts, WithoutADisplayTheAlertIsANotificationWithButtonActions) {
  EnvOverride x11("DISPLAY", std::nullopt);
  EnvOverride wayland("WAYLAND_DISPLAY", std::nullopt);
  quillon_test::PrivateSessionBus bus;
  quillon_test::Mock server = bus.startMock("org.freedesktop.Notifications", "notification_daemon");
  ASSERT_TRUE(server.started()) << bus.error();

  auto notifyCount = [&] { return server.callsTo("Notify").size(); };
  auto emit = [&](const std::string& signal, const std::string& signature, const std::string& args) {
    return server.mock("EmitSignal", "org.freedesktop.Notifications " + signal + " " + signature + " \"" + args + "\"");
  };

  // The user picks Cancel among the actions. A click on the bubble and an
  // answer meant for another notification change nothing.
  Code code = runOnWorker(
      [] {
        return MVAlert::timedAlertSheetWithMessageText("Rendering complete. Do you wish to sleep now?", "Sleep",
                                                       "Cancel", std::nullopt, "Done: 100%, %d left", nullptr, 30);
      },
      [&] {
        ASSERT_TRUE(power_test::pollUntil([&] { return notifyCount() == 1; }, 20));
        emit("ActionInvoked", "us", "[<uint32 1>, <'default'>]");
        emit("ActionInvoked", "us", "[<uint32 77>, <'1'>]");
        MVRunLoop::main().runFor(0.5);
        emit("ActionInvoked", "us", "[<uint32 1>, <'0'>]");
      });
  EXPECT_EQ(code, 0);
  auto notify = server.callsTo("Notify");
  ASSERT_EQ(notify.size(), 1u);
  EXPECT_EQ(notify[0].args, (std::vector<std::string>{"'Quillon'", "0", "'dialog-warning'",
                                                      "'Rendering complete. Do you wish to sleep now?'",
                                                      "'Done: 100%, %d left'", "['1', 'Sleep', '0', 'Cancel']",
                                                      "{'urgency': 2}", "0"}));
  EXPECT_TRUE(power_test::pollUntil([&] { return server.callsTo("CloseNotification").size() == 1; }, 10));
  EXPECT_EQ(server.callsTo("CloseNotification")[0].args, std::vector<std::string>{"1"});

  // Nobody answers: the countdown's default, and the notification is withdrawn.
  code = runOnWorker(
      [] {
        return MVAlert::timedAlertSheetWithMessageText("Shut down?", "Shut down", "Cancel", "Later", "", nullptr, 1);
      },
      [] {});
  EXPECT_EQ(code, 1);
  EXPECT_EQ(server.callsTo("Notify").back().args[5], "['1', 'Shut down', '0', 'Cancel', '-1', 'Later']");
  EXPECT_TRUE(power_test::pollUntil([&] { return server.callsTo("CloseNotification").size() == 2; }, 10));

  // Dismissed by the user: as closing a dialog, the alternate button.
  code = runOnWorker(
      [] { return MVAlert::alertSheetWithMessageText("Log out?", "Log out", "Cancel", std::nullopt, "", nullptr, true); },
      [&] {
        ASSERT_TRUE(power_test::pollUntil([&] { return notifyCount() == 3; }, 20));
        emit("NotificationClosed", "uu", "[<uint32 3>, <uint32 2>]");
      });
  EXPECT_EQ(code, 0);
}

}  // namespace
