// The post-render power actions end to end: settings, the alert (as a
// notification, and as a GTK dialog on a private X server) and the request
// that reaches a mocked session manager on the private session bus or a
// mocked logind.
//
// Safety: this process must never reach the machine's own logind. Before
// any test runs, DBUS_SYSTEM_BUS_ADDRESS is pointed at a private bus with
// python3-dbusmock's logind on it, and that is verified; a test whose
// verification failed does not run. The variable is never restored.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "AppController.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "PowerActionsTesting.h"
#include "PowerAlertServices.h"
#include "QuillonPreferences.h"
#include "TestSupport.h"
#include "PowerTestSupport.h"

using power_test::MockCall;
using power_test::pollUntil;
using quillon_test::waitUntil;

namespace {

struct Peers {
  power_test::PrivateBus systemBus{power_test::kScripts + "/system-bus.sh"};
  std::unique_ptr<power_test::MockService> logind;
  power_test::PrivateBus sessionBus{std::string(QUILLON_SOURCE_DIR) + "/tests/support/session-bus.sh"};
  std::unique_ptr<power_test::MockService> notifications;
  std::unique_ptr<power_test::VirtualDisplay> display;  // started by the one test that needs it
  bool safe = false;
};
std::unique_ptr<Peers> gPeers;

class PeersEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    // Whatever the code under test logs stays in the test home.
    MVLog::overrideRunningAsRoot(false);
    MVLog::createNewLog("test_PowerActions", true);
    gPeers = std::make_unique<Peers>();
    Peers& p = *gPeers;
    if (!p.systemBus.running()) return;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", p.systemBus.address().c_str(), 1);
    p.logind = std::make_unique<power_test::MockService>(p.systemBus, "--system", "logind", "org.freedesktop.login1",
                                                         "/org/freedesktop/login1");
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    // Only a dbusmock object answers ClearCalls: the logind there is ours.
    p.safe = p.logind->started() && address && p.systemBus.address() == address && p.logind->clearCalls();

    if (p.sessionBus.running()) {
      setenv("DBUS_SESSION_BUS_ADDRESS", p.sessionBus.address().c_str(), 1);
      p.notifications = std::make_unique<power_test::MockService>(
          p.sessionBus, "--session", "notification_daemon", "org.freedesktop.Notifications",
          "/org/freedesktop/Notifications");
    }
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    quillon::installPowerAndAlertServices();
  }
  // The X server goes last, once the main loop no longer turns.
  void TearDown() override { gPeers.reset(); }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new PeersEnvironment);

std::string pythonString(const std::string& text) { return "'" + text + "'"; }

class PowerActions : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(gPeers && gPeers->safe) << "no private system bus with a mocked logind: power tests must not run";
    ASSERT_TRUE(gPeers->notifications && gPeers->notifications->started());
    ASSERT_TRUE(logind().clearCalls());
    ASSERT_TRUE(notifications().clearCalls());
    setenv("XDG_SESSION_ID", "c7", 1);
    PowerActionsTesting::setAlertIntervalOverride(1);
  }
  void TearDown() override {
    PowerActionsTesting::setAlertIntervalOverride(std::nullopt);
    // The notification server numbers its notifications from 1, for the
    // life of the mock.
    if (gPeers && gPeers->notifications) notificationsShown_ += notifications().callsTo("Notify").size();
  }

  static power_test::MockService& logind() { return *gPeers->logind; }
  static power_test::MockService& notifications() { return *gPeers->notifications; }

  static void setLogoutAction(const MVPlistValue& value) {
    MVPlistValue settings{MVPlistValue::Dictionary{}};
    if (!value.isNil()) settings.set("logoutAction", value);
    ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), settings));
  }

  // Runs the actions on a worker thread, as the folder check does, with
  // `whileRunning` on the main thread; answers the seconds they took.
  double performPostRenderActions(const std::function<void()>& whileRunning = {}) {
    std::atomic<bool> done{false};
    auto start = std::chrono::steady_clock::now();
    std::thread worker([&] {
      controller_.performPostRenderActions();
      done = true;
    });
    if (whileRunning) whileRunning();
    EXPECT_TRUE(waitUntil([&] { return done.load(); }, 120));
    worker.join();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  // The power requests logind received, leaving out the look-ups.
  static std::vector<MockCall> powerRequests() {
    std::vector<MockCall> requests;
    for (const MockCall& call : logind().calls())
      if (call.method == "Suspend" || call.method == "PowerOff" || call.method == "TerminateSession" ||
          call.method == "Reboot" || call.method == "Hibernate")
        requests.push_back(call);
    return requests;
  }

  // Answers the latest alert notification with one of its action keys.
  static void answerNotification(const std::string& key) {
    const std::size_t id = notificationsShown_ + notifications().callsTo("Notify").size();
    notifications().mock("EmitSignal", "org.freedesktop.Notifications ActionInvoked us \"[<uint32 " +
                                           std::to_string(id) + ">, <'" + key + "'>]\"");
  }

  static inline std::size_t notificationsShown_ = 0;
  AppController controller_;
};

struct Row {
  MVPlistValue value;
  std::string message, informative, button, request, argument;
};
const Row kSleep{1, "Rendering complete. Do you wish to sleep now?",
                 "If you do nothing, your computer will automatically sleep in 30 seconds.", "Sleep", "Suspend",
                 "False"};
const Row kLogOut{2, "Rendering complete. Do you wish to log out now?",
                  "If you do nothing, your computer will automatically log out in 60 seconds.", "Log out",
                  "TerminateSession", "'c7'"};
const Row kShutDown{3, "Rendering complete. Do you wish to shut down now?",
                    "If you do nothing, your computer will automatically shut down in 60 seconds.", "Shut down",
                    "PowerOff", "False"};

TEST_F(PowerActions, EachLogoutActionAsksAndThenReachesLogind) {
  Row largeValue = kShutDown;
  largeValue.value = 42;
  Row asText = kLogOut;
  asText.value = "2";
  for (const Row& row : {kSleep, kLogOut, kShutDown, largeValue, asText}) {
    SCOPED_TRACE(row.value.description());
    ASSERT_TRUE(logind().clearCalls());
    ASSERT_TRUE(notifications().clearCalls());
    setLogoutAction(row.value);
    performPostRenderActions();

    auto shown = notifications().callsTo("Notify");
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].args.at(3), pythonString(row.message));
    EXPECT_EQ(shown[0].args.at(4), pythonString(row.informative));
    EXPECT_EQ(shown[0].args.at(5), "['1', " + pythonString(row.button) + ", '0', 'Cancel']");
    auto requests = powerRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, row.request);
    EXPECT_EQ(requests[0].args, std::vector<std::string>{row.argument});
    notificationsShown_ += shown.size();
  }
  ASSERT_TRUE(notifications().clearCalls());

  // Started outside a session (by the service manager): the session is
  // asked of logind by process id.
  unsetenv("XDG_SESSION_ID");
  ASSERT_TRUE(logind().mock("AddSession", "c9 seat0 0 root true"));
  ASSERT_TRUE(logind().mock("AddMethod", "org.freedesktop.login1.Manager GetSessionByPID u o "
                                         "\"ret = '/org/freedesktop/login1/session/c9'\""));
  ASSERT_TRUE(logind().clearCalls());
  setLogoutAction(2);
  performPostRenderActions();
  auto requests = powerRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "TerminateSession");
  EXPECT_EQ(requests[0].args, std::vector<std::string>{"'c9'"});
  EXPECT_EQ(logind().callsTo("GetSessionByPID").at(0).args, std::vector<std::string>{std::to_string(getpid())});
}

TEST_F(PowerActions, NoActionChosenMeansNoAlertNoRequestAndNoPause) {
  for (const MVPlistValue& value : {MVPlistValue(), MVPlistValue(0), MVPlistValue(-2), MVPlistValue("none")}) {
    SCOPED_TRACE(value.description());
    setLogoutAction(value);
    // Nothing to wait for: the 2-second pause belongs to a chosen action only.
    EXPECT_LT(performPostRenderActions(), 1.9);
  }
  EXPECT_TRUE(notifications().callsTo("Notify").empty());
  EXPECT_TRUE(powerRequests().empty());
}

TEST_F(PowerActions, RunningCompressorBatchHoldsEverythingBack) {
  controller_.setCurrentBatches({MVPlistValue("batch-7")});
  setLogoutAction(3);
  performPostRenderActions();
  EXPECT_TRUE(notifications().callsTo("Notify").empty());
  EXPECT_TRUE(powerRequests().empty());

  // Once the batch is gone the next pass goes ahead.
  controller_.setCurrentBatches({});
  performPostRenderActions();
  EXPECT_EQ(powerRequests().size(), 1u);
}

TEST_F(PowerActions, TheUsersAnswerDecidesBeforeTheCountdown) {
  PowerActionsTesting::setAlertIntervalOverride(60);
  setLogoutAction(1);
  performPostRenderActions([] {
    ASSERT_TRUE(pollUntil([] { return notifications().callsTo("Notify").size() == 1; }, 20));
    answerNotification("1");
  });
  auto requests = powerRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "Suspend");

  ASSERT_TRUE(logind().clearCalls());
  setLogoutAction(3);
  performPostRenderActions([] {
    ASSERT_TRUE(pollUntil([] { return notifications().callsTo("Notify").size() == 2; }, 20));
    answerNotification("0");
  });
  EXPECT_TRUE(powerRequests().empty());
  EXPECT_TRUE(pollUntil([] { return notifications().callsTo("CloseNotification").size() == 2; }, 10));
}

TEST_F(PowerActions, DialogOnADisplayCancelsOrCountsDown) {
  gPeers->display = std::make_unique<power_test::VirtualDisplay>();
  power_test::VirtualDisplay& display = *gPeers->display;
  ASSERT_TRUE(display.running()) << "Xvfb did not start";
  setenv("DISPLAY", display.display().c_str(), 1);

  // Cancel clicked: nothing happens.
  setLogoutAction(2);
  PowerActionsTesting::setAlertIntervalOverride(60);
  performPostRenderActions([&] {
    std::vector<quillon::ShownAlertDescription> shown;
    ASSERT_TRUE(waitUntil([&] { return !(shown = quillon::shownGtkAlertsForTesting()).empty(); }, 20));
    MVRunLoop::main().runFor(0.3);
    shown = quillon::shownGtkAlertsForTesting();
    EXPECT_EQ(shown[0].messageText, kLogOut.message);
    EXPECT_EQ(shown[0].informativeText, kLogOut.informative);
    EXPECT_EQ(shown[0].buttons, (std::vector<std::string>{"Cancel", "Log out"}));
    auto cancel = shown[0].buttonCentres.at(0);
    display.xdotool("mousemove " + std::to_string(cancel.first) + " " + std::to_string(cancel.second) + " click 1");
  });
  EXPECT_TRUE(powerRequests().empty());
  EXPECT_TRUE(quillon::shownGtkAlertsForTesting().empty());

  // Nobody there: the dialog counts down and the computer shuts down.
  setLogoutAction(3);
  PowerActionsTesting::setAlertIntervalOverride(2);
  bool dialogSeen = false;
  performPostRenderActions(
      [&] { dialogSeen = waitUntil([] { return !quillon::shownGtkAlertsForTesting().empty(); }, 20); });
  EXPECT_TRUE(dialogSeen);
  auto requests = powerRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "PowerOff");
  EXPECT_TRUE(notifications().callsTo("Notify").empty());
  unsetenv("DISPLAY");
}

TEST_F(PowerActions, LogOutAndShutDownAskTheSessionManagerFirst) {
  struct Manager {
    const char* name;
    const char* busName;
    const char* path;
    const char* interface;
    // Method, input signature and the arguments it must receive.
    std::string logOut, logOutSignature;
    std::vector<std::string> logOutArgs;
    std::string shutDown, shutDownSignature;
    std::vector<std::string> shutDownArgs;
  };
  const Manager managers[] = {
      {"GNOME", "org.gnome.SessionManager", "/org/gnome/SessionManager", "org.gnome.SessionManager", "Logout", "u",
       {"1"}, "Shutdown", "", {}},
      {"KDE Plasma", "org.kde.Shutdown", "/Shutdown", "org.kde.Shutdown", "logout", "", {}, "logoutAndShutdown", "",
       {}},
      {"older KDE", "org.kde.ksmserver", "/KSMServer", "org.kde.KSMServerInterface", "logout", "iii",
       {"0", "0", "-1"}, "logout", "iii", {"0", "2", "-1"}},
  };
  for (const Manager& m : managers) {
    SCOPED_TRACE(m.name);
    power_test::MockService manager(gPeers->sessionBus, power_test::MockService::Bare{m.interface}, m.busName, m.path);
    ASSERT_TRUE(manager.started());
    for (const auto& [method, signature] : {std::pair(m.logOut, m.logOutSignature), {m.shutDown, m.shutDownSignature}})
      ASSERT_TRUE(manager.mock("AddMethod", std::string(m.interface) + " " + method + " \"'" + signature +
                                                "'\" \"''\" \"''\""));
    ASSERT_TRUE(logind().clearCalls());
    controller_.logOutUser();
    controller_.shutdownComputer();
    controller_.sleepComputer();
    auto calls = manager.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].method, m.logOut);
    EXPECT_EQ(calls[0].args, m.logOutArgs);
    EXPECT_EQ(calls[1].method, m.shutDown);
    EXPECT_EQ(calls[1].args, m.shutDownArgs);
    // Sleep asks nobody's consent: logind alone.
    auto requests = powerRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "Suspend");
  }
}

TEST_F(PowerActions, NoAlertThatCanBeSeenMeansNoAction) {
  // No display and a session bus without a notification server.
  power_test::PrivateBus emptyBus{std::string(QUILLON_SOURCE_DIR) + "/tests/support/session-bus.sh"};
  ASSERT_TRUE(emptyBus.running());
  setenv("DBUS_SESSION_BUS_ADDRESS", emptyBus.address().c_str(), 1);
  setLogoutAction(3);
  MVLog::finishWriting();
  const std::size_t logStart = quillon_test::readFile(MVLog::currentLogPath()).size();
  performPostRenderActions();
  setenv("DBUS_SESSION_BUS_ADDRESS", gPeers->sessionBus.address().c_str(), 1);

  EXPECT_TRUE(powerRequests().empty());
  MVLog::finishWriting();
  std::string log = quillon_test::readFile(MVLog::currentLogPath()).substr(logStart);
  EXPECT_NE(log.find("Shut down was not performed: no alert could be shown to ask first"), std::string::npos) << log;
}

TEST_F(PowerActions, SleepWaitsTheFullThirtySecondsWhenNobodyAnswers) {
  PowerActionsTesting::setAlertIntervalOverride(std::nullopt);
  setLogoutAction(1);
  bool early = true;
  performPostRenderActions([&] {
    // Well into the countdown, the computer must still be awake.
    early = pollUntil([] { return !powerRequests().empty(); }, 20);
  });
  EXPECT_FALSE(early);
  auto requests = powerRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "Suspend");
  EXPECT_EQ(requests[0].args, std::vector<std::string>{"False"});
}

}  // namespace
