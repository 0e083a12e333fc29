// The post-render power actions end to end: settings, the alert as a
// desktop notification, and the request that reaches a mocked session
// manager on the private session bus or a mocked logind.
//
// Safety: this process must never reach the machine's own logind. Before
// any test runs, DBUS_SYSTEM_BUS_ADDRESS is pointed at a private bus with
// python3-dbusmock's logind on it, and that is verified; a test whose
// verification failed does not run. The variable is never restored.
#include <gtest/gtest.h>

#include <memory>

#include "AppController.h"
#include "MVLog.h"
#include "MVPropertyList.h"
#include "PowerActionsTesting.h"
#include "PowerAlertServices.h"
#include "PowerTestSupport.h"
#include "QuillonPreferences.h"

using power_test::pollUntil;
using quillon_test::Mock;
using quillon_test::MockCall;
using quillon_test::PrivateBus;
using quillon_test::waitUntil;

namespace {

struct Peers {
  PrivateBus systemBus{PrivateBus::kSystem};
  Mock logind = systemBus.startMock("org.freedesktop.login1", "logind");
  PrivateBus sessionBus{PrivateBus::kSession};
  Mock notifications = sessionBus.startMock("org.freedesktop.Notifications", "notification_daemon");
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
    setenv("DBUS_SYSTEM_BUS_ADDRESS", gPeers->systemBus.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", gPeers->sessionBus.address().c_str(), 1);
    // Only a dbusmock object answers ClearCalls: the logind there is ours.
    gPeers->safe = gPeers->systemBus.running() && gPeers->logind.clearCalls();
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    quillon::installPowerAndAlertServices();
  }
  void TearDown() override { gPeers.reset(); }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new PeersEnvironment);

std::string pythonString(const std::string& text) { return "'" + text + "'"; }

class PowerActions : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(gPeers && gPeers->safe) << "no private system bus with a mocked logind: power tests must not run";
    ASSERT_TRUE(notifications().started());
    ASSERT_TRUE(logind().clearCalls());
    ASSERT_TRUE(notifications().clearCalls());
    setenv("XDG_SESSION_ID", "c7", 1);
    PowerActionsTesting::setAlertIntervalOverride(1);
  }
  void TearDown() override {
    PowerActionsTesting::setAlertIntervalOverride(std::nullopt);
    // The notification server numbers its notifications from 1, for the life of the mock.
    if (gPeers) notificationsShown_ += notifications().callsTo("Notify").size();
  }

  static Mock& logind() { return gPeers->logind; }
  static Mock& notifications() { return gPeers->notifications; }

  static void setLogoutAction(const MVPlistValue& value) {
    MVPlistValue settings{MVPlistValue::Dictionary{}};
    if (!value.isNil()) settings.set("logoutAction", value);
    ASSERT_TRUE(MVPropertyList::write(QuillonPreferences::settingsPath(), settings));
  }

  void performPostRenderActions(const std::function<void()>& whileRunning = {}) {
    power_test::runOnWorker([&] { controller_.performPostRenderActions(); }, whileRunning);
  }

  // The power requests logind received, leaving out the look-ups.
  static std::vector<MockCall> powerRequests() {
    std::vector<MockCall> requests = logind().recorded();
    std::erase_if(requests, [](const MockCall& call) {
      return call.method != "Suspend" && call.method != "PowerOff" && call.method != "TerminateSession" &&
             call.method != "Reboot" && call.method != "Hibernate";
    });
    return requests;
  }
  static void expectOneRequest(const std::string& method, const std::vector<std::string>& args) {
    auto requests = powerRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, method);
    EXPECT_EQ(requests[0].args, args);
  }

  // Answers the latest alert notification with one of its action keys.
  static void answerNotification(std::size_t shownSoFar, const std::string& key) {
    ASSERT_TRUE(pollUntil([&] { return notifications().callsTo("Notify").size() == shownSoFar; }, 20));
    const std::size_t id = notificationsShown_ + shownSoFar;
    notifications().mock("EmitSignal", "org.freedesktop.Notifications ActionInvoked us \"[<uint32 " +
                                           std::to_string(id) + ">, <'" + key + "'>]\"");
  }

  static inline std::size_t notificationsShown_ = 0;
  AppController controller_;
};

TEST_F(PowerActions, EachLogoutActionAsksAndThenReachesLogind) {
  struct Row {
    MVPlistValue value;
    std::string what, button, request, argument;
    int seconds;
  };
  const Row rows[] = {
      {1, "sleep", "Sleep", "Suspend", "False", 30},
      {2, "log out", "Log out", "TerminateSession", "'c7'", 60},
      {3, "shut down", "Shut down", "PowerOff", "False", 60},
      {42, "shut down", "Shut down", "PowerOff", "False", 60},
      {"2", "log out", "Log out", "TerminateSession", "'c7'", 60},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.value.description());
    ASSERT_TRUE(logind().clearCalls());
    ASSERT_TRUE(notifications().clearCalls());
    setLogoutAction(row.value);
    performPostRenderActions();

    auto shown = notifications().callsTo("Notify");
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].args.at(3), pythonString("Rendering complete. Do you wish to " + row.what + " now?"));
    EXPECT_EQ(shown[0].args.at(4), pythonString("If you do nothing, your computer will automatically " + row.what +
                                                " in " + std::to_string(row.seconds) + " seconds."));
    EXPECT_EQ(shown[0].args.at(5), "['1', " + pythonString(row.button) + ", '0', 'Cancel']");
    expectOneRequest(row.request, {row.argument});
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
  expectOneRequest("TerminateSession", {"'c9'"});
  EXPECT_EQ(logind().callsTo("GetSessionByPID").at(0).args, std::vector<std::string>{std::to_string(getpid())});
}

TEST_F(PowerActions, NoActionOrARunningBatchMeansNoAlertAndNoRequest) {
  for (const MVPlistValue& value : {MVPlistValue(), MVPlistValue(0), MVPlistValue(-2), MVPlistValue("none")}) {
    SCOPED_TRACE(value.description());
    setLogoutAction(value);
    performPostRenderActions();
  }
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
  performPostRenderActions([] { answerNotification(1, "1"); });
  expectOneRequest("Suspend", {"False"});

  ASSERT_TRUE(logind().clearCalls());
  setLogoutAction(3);
  performPostRenderActions([] { answerNotification(2, "0"); });
  EXPECT_TRUE(powerRequests().empty());
  EXPECT_TRUE(pollUntil([] { return notifications().callsTo("CloseNotification").size() == 2; }, 10));
}

TEST_F(PowerActions, LogOutAndShutDownAskTheSessionManagerFirst) {
  struct Manager {
    const char *name, *busName, *path, *interface;
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
    Mock manager = gPeers->sessionBus.startBareMock(m.busName, m.path, m.interface);
    ASSERT_TRUE(manager.started());
    for (const auto& [method, signature] : {std::pair(m.logOut, m.logOutSignature), {m.shutDown, m.shutDownSignature}})
      ASSERT_TRUE(manager.mock("AddMethod", std::string(m.interface) + " " + method + " \"'" + signature +
                                                "'\" \"''\" \"''\""));
    ASSERT_TRUE(logind().clearCalls());
    controller_.logOutUser();
    controller_.shutdownComputer();
    controller_.sleepComputer();
    auto calls = manager.recorded();
    manager.stop();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].method, m.logOut);
    EXPECT_EQ(calls[0].args, m.logOutArgs);
    EXPECT_EQ(calls[1].method, m.shutDown);
    EXPECT_EQ(calls[1].args, m.shutDownArgs);
    // Sleep asks nobody's consent: logind alone.
    expectOneRequest("Suspend", {"False"});
  }
}

TEST_F(PowerActions, NoAlertThatCanBeSeenMeansNoAction) {
  // No display and a session bus without a notification server.
  PrivateBus emptyBus;
  ASSERT_TRUE(emptyBus.running());
  setenv("DBUS_SESSION_BUS_ADDRESS", emptyBus.address().c_str(), 1);
  setLogoutAction(3);
  quillon_test::LogSince log;
  performPostRenderActions();
  setenv("DBUS_SESSION_BUS_ADDRESS", gPeers->sessionBus.address().c_str(), 1);
  EXPECT_TRUE(powerRequests().empty());
  EXPECT_EQ(log.count("Shut down was not performed: no alert could be shown to ask first"), 1u) << log.text();
}

// Without the shortened countdown: well into the real one the computer is
// still awake; then the user's answer ends it early.
TEST_F(PowerActions, SleepWaitsForTheRealCountdown) {
  PowerActionsTesting::setAlertIntervalOverride(std::nullopt);
  setLogoutAction(1);
  performPostRenderActions([] {
    EXPECT_FALSE(pollUntil([] { return !powerRequests().empty(); }, 12));
    answerNotification(1, "1");
  });
  expectOneRequest("Suspend", {"False"});
}

}  // namespace
