// The post-render power actions end to end: settings, the alert as a
// desktop notification, and the request that reaches a mocked session
// manager or logind. The machine's own logind must never be reached.
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
using namespace quillon_test;

namespace {

// Before any test: a private system bus whose logind must be the mock (only
// a dbusmock object answers ClearCalls), and a notification server.
struct Peers : ::testing::Environment {
  std::unique_ptr<PrivateBus> systemBus, sessionBus;
  Mock logind, notifications;
  bool safe = false;
  void SetUp() override {
    MVLog::overrideRunningAsRoot(false);  // the log stays in the test home
    MVLog::createNewLog("test_PowerActions", true);
    systemBus = std::make_unique<PrivateBus>(PrivateBus::kSystem);
    logind = systemBus->startMock("org.freedesktop.login1", "logind");
    sessionBus = std::make_unique<PrivateBus>(PrivateBus::kSession);
    notifications = sessionBus->startMock("org.freedesktop.Notifications", "notification_daemon");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", systemBus->address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", sessionBus->address().c_str(), 1);
    safe = systemBus->running() && logind.clearCalls();
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    quillon::installPowerAndAlertServices();
  }
  void TearDown() override {
    sessionBus.reset();
    systemBus.reset();
  }
};
Peers* const gPeers = static_cast<Peers*>(::testing::AddGlobalTestEnvironment(new Peers));

class PowerActions : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(gPeers->safe) << "no private system bus with a mocked logind: power tests must not run";
    ASSERT_TRUE(notifications().started());
    ASSERT_TRUE(logind().clearCalls());
    ASSERT_TRUE(notifications().clearCalls());
    setenv("XDG_SESSION_ID", "c7", 1);
    PowerActionsTesting::setAlertIntervalOverride(1);
  }
  void TearDown() override {
    PowerActionsTesting::setAlertIntervalOverride(std::nullopt);
    // The notification server numbers its notifications from 1, for the life of the mock.
    notificationsShown_ += notifications().callsTo("Notify").size();
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

  // Answers the latest alert notification with one of its action keys, or
  // with `signal` ("NotificationClosed uu": the reason), or as if to notification `other`.
  static void answerNotification(std::size_t shownSoFar, const std::string& key,
                                 const std::string& signal = "ActionInvoked us", std::size_t other = 0) {
    ASSERT_TRUE(pollUntil([&] { return notifications().callsTo("Notify").size() == shownSoFar; }, 20));
    const std::size_t id = other ? other : notificationsShown_ + shownSoFar;
    notifications().mock("EmitSignal", "org.freedesktop.Notifications " + signal + " \"[<uint32 " +
                                           std::to_string(id) + ">, <" + key + ">]\"");
  }

  static inline std::size_t notificationsShown_ = 0;
  AppController controller_;
};

TEST_F(PowerActions, EachLogoutActionAsksAndThenReachesLogind) {
  struct Row {
    MVPlistValue value;
    std::string button, request, argument;
  };
  const Row rows[] = {
      {1, "Sleep", "Suspend", "False"},          {2, "Log out", "TerminateSession", "'c7'"},
      {3, "Shut down", "PowerOff", "False"},     {42, "Shut down", "PowerOff", "False"},
      {"2", "Log out", "TerminateSession", "'c7'"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.value.description());
    ASSERT_TRUE(logind().clearCalls());
    ASSERT_TRUE(notifications().clearCalls());
    setLogoutAction(row.value);
    performPostRenderActions();

    auto shown = notifications().callsTo("Notify");
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].args.at(5), "['1', '" + row.button + "', '0', 'Cancel']");
    EXPECT_EQ(shown[0].args.at(6), "{'urgency': 2}");
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

TEST_F(PowerActions, NoActionMeansNoAlertAndNoRequest) {
  for (const MVPlistValue& value : {MVPlistValue(), MVPlistValue(0), MVPlistValue(-2), MVPlistValue("none")}) {
    SCOPED_TRACE(value.description());
    setLogoutAction(value);
    performPostRenderActions();
  }
  EXPECT_TRUE(notifications().callsTo("Notify").empty());
  EXPECT_TRUE(powerRequests().empty());
}

// A click on the bubble or an answer meant for another notification decides
// nothing; Cancel, or the notification dismissed, before the countdown ends
// means no request.
TEST_F(PowerActions, CancelOrDismissBeforeTheCountdownMeansNoRequest) {
  PowerActionsTesting::setAlertIntervalOverride(60);
  setLogoutAction(3);
  performPostRenderActions([] {
    answerNotification(1, "'default'");
    answerNotification(1, "'1'", "ActionInvoked us", 77);
    MVRunLoop::main().runFor(0.5);
    answerNotification(1, "'0'");
  });
  EXPECT_TRUE(pollUntil([] { return notifications().callsTo("CloseNotification").size() == 1; }, 10));
  performPostRenderActions([] { answerNotification(2, "uint32 2", "NotificationClosed uu"); });
  EXPECT_TRUE(powerRequests().empty());
}

TEST_F(PowerActions, LogOutAndShutDownAskTheSessionManagerFirst) {
  // The methods each manager offers ("name signature"), and the calls that
  // log out and shut down ("name args").
  struct Manager {
    const char *busName, *path, *interface;
    std::vector<std::string> methods, expected;
  };
  const Manager managers[] = {
      {"org.gnome.SessionManager", "/org/gnome/SessionManager", "org.gnome.SessionManager", {"Logout u", "Shutdown "},
       {"Logout 1", "Shutdown"}},
      {"org.kde.Shutdown", "/Shutdown", "org.kde.Shutdown", {"logout ", "logoutAndShutdown "},
       {"logout", "logoutAndShutdown"}},
      {"org.kde.ksmserver", "/KSMServer", "org.kde.KSMServerInterface", {"logout iii"}, {"logout 0 0 -1", "logout 0 2 -1"}},
  };
  for (const Manager& m : managers) {
    SCOPED_TRACE(m.busName);
    Mock manager = gPeers->sessionBus->startBareMock(m.busName, m.path, m.interface);
    ASSERT_TRUE(manager.started());
    for (const std::string& method : m.methods) {
      std::size_t space = method.find(' ');
      ASSERT_TRUE(manager.mock("AddMethod", std::string(m.interface) + " " + method.substr(0, space) + " \"'" +
                                                method.substr(space + 1) + "'\" \"''\" \"''\""));
    }
    ASSERT_TRUE(logind().clearCalls());
    controller_.logOutUser();
    controller_.shutdownComputer();
    controller_.sleepComputer();
    std::vector<std::string> calls;
    for (const MockCall& call : manager.recorded()) {
      std::string text = call.method;
      for (const std::string& arg : call.args) text += " " + arg;
      calls.push_back(text);
    }
    manager.stop();
    EXPECT_EQ(calls, m.expected);
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
  LogSince log;
  performPostRenderActions();
  setenv("DBUS_SESSION_BUS_ADDRESS", gPeers->sessionBus->address().c_str(), 1);
  EXPECT_TRUE(powerRequests().empty());
  EXPECT_EQ(log.count("Shut down was not performed: no alert could be shown to ask first"), 1u) << log.text();
}

// Without the shortened countdown: some seconds into the real one the
// computer is still awake; then the user's answer ends it early.
TEST_F(PowerActions, SleepWaitsForTheRealCountdown) {
  PowerActionsTesting::setAlertIntervalOverride(std::nullopt);
  setLogoutAction(1);
  performPostRenderActions([] {
    EXPECT_FALSE(pollUntil([] { return !powerRequests().empty(); }, 8));
    answerNotification(1, "'1'");
  });
  expectOneRequest("Suspend", {"False"});
}

}  // namespace
